import { admin, ApiError, type Problem } from '../api';
import { h, labelCells, replace, select } from '../dom';
import { showMessage, toast } from '../forms';

const MAX_BYTES = 1024 * 1024;

/** One offer in a preview: deliveries over the same devices with the live catalogue and with the file. */
export interface PreviewOffer {
  eventId: string;
  placeId: string;
  eventName: string;
  live: number;
  draft: number;
  change: number;
  namedLive: number;
  namedDraft: number;
  reasons: Record<string, number>;
}

export interface PreviewAnswer {
  devices: number;
  days: number;
  deliveries: { live: number; draft: number };
  offers: PreviewOffer[];
}

/** The offers a preview shows: those whose deliveries or reach change, the largest changes first. */
export function changedOffers(offers: readonly PreviewOffer[]): PreviewOffer[] {
  return offers
    .filter((o) => o.change !== 0 || o.namedLive !== o.namedDraft)
    .sort((a, b) => Math.abs(b.change) - Math.abs(a.change) || Math.abs(b.namedDraft - b.namedLive) - Math.abs(a.namedDraft - a.namedLive) || a.eventId.localeCompare(b.eventId));
}

/** The line above a preview's table: who was simulated, for how long, and the deliveries on each side. */
export function previewSummary(a: PreviewAnswer, fileName: string): string {
  const over = a.days > 1 ? ` over ${a.days} days` : '';
  const d = a.deliveries.draft - a.deliveries.live;
  return `${a.devices} simulated devices${over}, the same on both sides: ${a.deliveries.live} deliveries now, ${a.deliveries.draft} with ${fileName} (${signed(d)}).`;
}

/** "+3", "−2" or "0": a signed change as the table shows it. */
export function signed(n: number): string {
  return n > 0 ? `+${n}` : n < 0 ? `−${-n}` : '0';
}

interface Counts {
  places?: number;
  offers?: number;
  campaigns?: number;
  apps?: number;
}

function countsText(c: Counts): string {
  return `${c.places ?? 0} places, ${c.offers ?? 0} offers, ${c.campaigns ?? 0} campaigns, ${c.apps ?? 0} app keys`;
}

export function mountImport(root: HTMLElement): () => void {
  let text: string | null = null;
  let fileName = '';
  let checked = false;

  const picker = h('input', { type: 'file', id: 'import-file', accept: '.geojson,.json,application/geo+json,application/json', class: 'visually-hidden-file' });
  const drop = h(
    'div',
    { class: 'dropzone', 'data-dropzone': '' },
    h('p', {}, 'Drop a GeoJSON place file here, or'),
    h('label', { for: 'import-file', class: 'button-like' }, 'Choose a file…'),
    picker,
  );
  const chosen = h('p', { class: 'meta', role: 'status' });
  const dryRun = h('button', { type: 'button', class: 'primary', disabled: true }, 'Check (dry run)');
  const publish = h('button', { type: 'button', class: 'primary', disabled: true }, 'Publish');
  const previewButton = h('button', { type: 'button', disabled: true }, 'Preview');
  const previewDays = select(
    [
      ['1', 'over one day'],
      ['7', 'over one week'],
    ],
    '1',
    { id: 'preview-days', 'aria-label': 'Preview over' },
  );
  const preview = h('div', { class: 'preview-result', 'aria-live': 'polite' });
  const error = h('p', { class: 'form-error', role: 'alert', hidden: true });
  const result = h('div', { class: 'import-result', 'aria-live': 'polite' });

  replace(
    root,
    h('div', { class: 'screen-head' }, h('h1', {}, 'Import a place file')),
    h(
      'section',
      { class: 'card', 'aria-labelledby': 'import-title' },
      h('h2', { id: 'import-title' }, 'Place file'),
      h('p', { class: 'meta' }, 'A GeoJSON FeatureCollection of Point features. The check writes nothing; Publish writes the whole file or nothing.'),
      drop,
      chosen,
      error,
      h('div', { class: 'actions' }, dryRun, previewButton, previewDays, publish),
      result,
      preview,
    ),
  );

  async function take(file: File | undefined): Promise<void> {
    error.hidden = true;
    replace(result);
    replace(preview);
    checked = false;
    publish.disabled = true;
    previewButton.disabled = true;
    if (!file) return;
    if (file.size > MAX_BYTES) {
      text = null;
      dryRun.disabled = true;
      showMessage(error, new Error(`${file.name} is ${(file.size / 1048576).toFixed(1)} MiB: the server takes files up to 1 MiB here. Import larger files with the tovrel-server import command.`));
      return;
    }
    text = await file.text();
    fileName = file.name;
    chosen.textContent = `${file.name}, ${file.size.toLocaleString()} bytes`;
    dryRun.disabled = false;
    await check();
  }

  picker.addEventListener('change', () => void take(picker.files?.[0]));
  drop.addEventListener('dragover', (ev) => {
    ev.preventDefault();
    drop.classList.add('over');
  });
  drop.addEventListener('dragleave', () => drop.classList.remove('over'));
  drop.addEventListener('drop', (ev) => {
    ev.preventDefault();
    drop.classList.remove('over');
    void take(ev.dataTransfer?.files?.[0]);
  });

  function problems(list: Problem[], summary: string): HTMLElement {
    return h(
      'div',
      { class: 'problems' },
      h('p', { class: 'form-error' }, summary),
      labelCells(h(
        'table',
        { class: 'list' },
        h('caption', {}, `${list.length} problem${list.length === 1 ? '' : 's'} in ${fileName}`),
        h('thead', {}, h('tr', {}, ['Feature', 'Member', 'Problem'].map((t) => h('th', { scope: 'col' }, t)))),
        h(
          'tbody',
          {},
          list.map((p) =>
            h(
              'tr',
              { class: 'problem' },
              h('td', {}, p.feature === null ? 'the file' : String(p.feature)),
              h('td', {}, h('code', {}, p.member ?? '')),
              h('td', {}, p.message),
            ),
          ),
        ),
      )),
    );
  }

  async function check(): Promise<void> {
    if (text === null) return;
    error.hidden = true;
    dryRun.disabled = true;
    publish.disabled = true;
    replace(result, h('p', { class: 'meta' }, 'Checking…'));
    try {
      const a = await admin.postRaw<Counts & { valid: boolean }>('import?dry_run=1', text);
      checked = true;
      publish.disabled = false;
      previewButton.disabled = false;
      replace(result, h('p', { class: 'ok' }, `${fileName} is valid: ${countsText(a.data)}. Nothing is written until you publish.`));
    } catch (e) {
      if (e instanceof ApiError && e.problems.length) replace(result, problems(e.problems, `${e.message}. Nothing was written.`));
      else {
        replace(result);
        showMessage(error, e);
      }
    } finally {
      dryRun.disabled = text === null;
    }
  }

  function previewTable(a: PreviewAnswer): HTMLElement {
    const changed = changedOffers(a.offers);
    return h(
      'section',
      { class: 'preview', 'aria-labelledby': 'preview-title' },
      h('h3', { id: 'preview-title' }, 'What publishing would change'),
      h('p', { class: 'preview-summary' }, previewSummary(a, fileName)),
      changed.length
        ? h('div', { class: 'table-wrap' }, labelCells(h(
            'table',
            { class: 'list preview-offers' },
            h('caption', { class: 'visually-hidden' }, `Offers whose deliveries change with ${fileName}`),
            h('thead', {}, h('tr', {}, ['Offer', 'Place', 'Now', 'After', 'Change', 'Why'].map((t) => h('th', { scope: 'col' }, t)))),
            h(
              'tbody',
              {},
              changed.map((o) =>
                h(
                  'tr',
                  { 'data-offer': `${o.eventId}@${o.placeId}` },
                  h('th', { scope: 'row' }, o.eventName || o.eventId),
                  h('td', {}, o.placeId),
                  h('td', {}, String(o.live)),
                  h('td', {}, String(o.draft)),
                  h('td', {}, h('span', { class: `badge ${o.change < 0 ? 'state-disabled' : o.change > 0 ? 'state-running' : 'state-scheduled'}` }, signed(o.change))),
                  h(
                    'td',
                    { class: 'reasons' },
                    o.namedLive !== o.namedDraft ? `named to ${o.namedLive} devices now, ${o.namedDraft} after; ` : '',
                    Object.entries(o.reasons)
                      .filter(([k]) => k !== 'delivered')
                      .map(([k, v]) => `${k} ${signed(v)}`)
                      .join(', '),
                  ),
                ),
              ),
            ),
          )))
        : h('p', {}, 'No offer would be delivered more or less often.'),
    );
  }

  previewButton.addEventListener('click', async () => {
    if (text === null || !checked) return;
    previewButton.disabled = true;
    error.hidden = true;
    replace(preview, h('p', { class: 'meta' }, 'Running the same devices over both catalogues… (some seconds)'));
    try {
      const a = await admin.postRaw<PreviewAnswer>(`preview?import=1&days=${previewDays.value}`, text);
      replace(preview, previewTable(a.data));
    } catch (e) {
      replace(preview);
      showMessage(error, e, (err) => (err.status === 501 ? 'Previews need tovrel-sim installed beside tovrel-server.' : null));
    } finally {
      previewButton.disabled = !checked;
    }
  });

  dryRun.addEventListener('click', () => void check());
  publish.addEventListener('click', async () => {
    if (text === null || !checked) return;
    publish.disabled = true;
    try {
      const a = await admin.postRaw<Counts>('import', text);
      replace(result, h('p', { class: 'ok' }, `Published ${fileName}: ${countsText(a.data)}.`));
      toast(`Published ${fileName}.`);
      checked = false;
      previewButton.disabled = true;
    } catch (e) {
      publish.disabled = false;
      if (e instanceof ApiError && e.problems.length) replace(result, problems(e.problems, `${e.message}. Nothing was written.`));
      else showMessage(error, e);
    }
  });
  return () => {};
}
