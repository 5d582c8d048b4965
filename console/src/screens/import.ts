import { admin, ApiError, type Problem } from '../api';
import { h, labelCells, replace } from '../dom';
import { showMessage, toast } from '../forms';

const MAX_BYTES = 1024 * 1024;

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
      h('div', { class: 'actions' }, dryRun, publish),
      result,
    ),
  );

  async function take(file: File | undefined): Promise<void> {
    error.hidden = true;
    replace(result);
    checked = false;
    publish.disabled = true;
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

  dryRun.addEventListener('click', () => void check());
  publish.addEventListener('click', async () => {
    if (text === null || !checked) return;
    publish.disabled = true;
    try {
      const a = await admin.postRaw<Counts>('import', text);
      replace(result, h('p', { class: 'ok' }, `Published ${fileName}: ${countsText(a.data)}.`));
      toast(`Published ${fileName}.`);
      checked = false;
    } catch (e) {
      publish.disabled = false;
      if (e instanceof ApiError && e.problems.length) replace(result, problems(e.problems, `${e.message}. Nothing was written.`));
      else showMessage(error, e);
    }
  });
  return () => {};
}
