import { admin, ApiError, seg, versionOf } from '../api';
import { button, confirmButton, field, h, input, labelCells, replace } from '../dom';
import { actions, clearErrors, conflictNotice, formError, showError, showMessage, toast } from '../forms';
import { campaignState, loadCampaigns, loadOffers, type Campaign, type Offer } from '../model';
import { capsText, parseCaps, parseWindows, RuleTextError, windowsText } from '../rules';

const DATE_HINT = 'YYYY-MM-DD, or YYYY-MM-DDTHH:MM with Z or ±HH:MM; empty: open';

/**
 * Where the preview finds an offer's media page. A relative address names a page of the server's
 * content folder, which devices reach on the public listener; the admin listener serves the same
 * folder under /console/content/.
 */
export function previewAddress(mediaUrl: string): string {
  return mediaUrl.startsWith('/') && !mediaUrl.startsWith('//') ? `/console/content${mediaUrl}` : mediaUrl;
}

/** The campaign form's fields, as typed. */
export interface CampaignFields {
  name: string;
  startDate: string;
  endDate: string;
  perDeviceCap: string;
  timeZone?: string;
  windows?: string;
  caps?: string;
  priority?: string;
  controlGroup?: string;
}

function refused(message: string, member: string): ApiError {
  return new ApiError(400, message, member, [], null, null);
}

/**
 * What the campaign form sends: the name, and the dates, cap and rules that are filled in (a campaign
 * saved without a rule has none). What cannot be read is refused here, at its field, before anything is
 * sent; the time zone is the server's to check.
 */
export function campaignBody(form: CampaignFields): Record<string, unknown> | ApiError {
  const body: Record<string, unknown> = { name: form.name.trim() };
  if (!body.name) return refused('A campaign needs a name.', '/name');
  if (form.startDate.trim()) body.startDate = form.startDate.trim();
  if (form.endDate.trim()) body.endDate = form.endDate.trim();
  const capText = form.perDeviceCap.trim();
  if (capText) {
    const n = Number(capText);
    if (!Number.isInteger(n) || n < 0) return refused('The cap is a whole number, 0 or more.', '/perDeviceCap');
    body.perDeviceCap = n;
  }
  const zone = (form.timeZone ?? '').trim();
  try {
    const windows = parseWindows(form.windows ?? '');
    if (windows.length && !zone) return refused('A schedule needs its time zone, like Europe/Berlin.', '/schedule/timeZone');
    if (zone && !windows.length) return refused('A schedule needs at least one window, like mon-fri 11:30-14:00.', '/schedule/windows');
    if (windows.length) body.schedule = { timeZone: zone, windows };
  } catch (e) {
    if (e instanceof RuleTextError) return refused(e.message, '/schedule/windows');
    throw e;
  }
  try {
    const caps = parseCaps(form.caps ?? '');
    if (caps.length) body.caps = caps;
  } catch (e) {
    if (e instanceof RuleTextError) return refused(e.message, '/caps');
    throw e;
  }
  const priority = (form.priority ?? '').trim();
  if (priority) {
    const n = Number(priority);
    if (!Number.isInteger(n)) return refused('The priority is a whole number; higher goes first.', '/priority');
    body.priority = n;
  }
  const control = (form.controlGroup ?? '').trim();
  if (control) {
    const share = Number(control);
    if (!Number.isFinite(share) || share < 0 || share >= 100) return refused('The control group is a share from 0 up to (not including) 100 %.', '/controlGroup');
    if (share > 0) body.controlGroup = share / 100;
  }
  return body;
}

export function mountCampaigns(root: HTMLElement): () => void {
  let campaigns: Campaign[] = [];
  let offers: Offer[] = [];
  let listEtag: string | null = null;
  let editing: { campaign: Campaign; etag: string | null } | null = null;

  // The campaign form: create, or edit the dates and cap of one.
  const name = field('Name', input({ name: 'name', required: true, maxlength: 200 }), '/name');
  const start = field('Start', input({ name: 'startDate', placeholder: '2026-01-01' }), '/startDate', DATE_HINT);
  const end = field('End', input({ name: 'endDate', placeholder: '2026-12-31' }), '/endDate', DATE_HINT);
  const cap = field('Visits per device (cap)', input({ name: 'perDeviceCap', type: 'number', min: 0, step: 1, inputmode: 'numeric' }), '/perDeviceCap', 'empty: no cap');
  const zone = field('Schedule time zone', input({ name: 'timeZone', placeholder: 'Europe/Berlin', maxlength: 64, autocomplete: 'off' }), '/schedule/timeZone', 'a tz database name; empty: any time');
  const windows = field('Schedule windows', input({ name: 'windows', placeholder: 'mon-fri 11:30-14:00; sat 10:00-12:00', maxlength: 2000, autocomplete: 'off' }), '/schedule/windows', 'days and hours, “;” between windows; 22:00-02:00 runs past midnight');
  const caps = field('Frequency caps', input({ name: 'caps', placeholder: '1/day, 3/week', maxlength: 200, autocomplete: 'off' }), '/caps', 'per device: a count per hour, day or week');
  const priority = field('Priority', input({ name: 'priority', type: 'number', step: 1, inputmode: 'numeric', placeholder: '0' }), '/priority', 'higher goes first at a shared place');
  const control = field('Control group (%)', input({ name: 'controlGroup', type: 'number', min: 0, max: 99, step: 'any', placeholder: '0' }), '/controlGroup', 'devices held out to measure lift');
  const formTitle = h('h2', { id: 'campaign-form-title' }, 'New campaign');
  const conflict = h('div', { class: 'conflict-box', hidden: true });
  const submit = h('button', { type: 'submit', class: 'primary' }, 'Create campaign');
  const cancel = button('Cancel', () => resetForm(), { hidden: true });
  const form = h(
    'form',
    { class: 'card form', 'aria-labelledby': 'campaign-form-title', novalidate: true },
    formTitle,
    formError(),
    conflict,
    h('div', { class: 'row' }, name.wrap, start.wrap, end.wrap, cap.wrap),
    h(
      'fieldset',
      { class: 'rules' },
      h('legend', {}, 'Rules'),
      h('div', { class: 'row' }, zone.wrap, windows.wrap),
      h('div', { class: 'row' }, caps.wrap, priority.wrap, control.wrap),
    ),
    h('div', { class: 'actions' }, submit, cancel),
  );

  const table = h('div', { class: 'table-wrap' });
  const offersTable = h('div', { class: 'table-wrap' });
  const preview = h('section', { class: 'card preview', 'aria-labelledby': 'preview-title', hidden: true });
  const top = formError();

  replace(
    root,
    h('div', { class: 'screen-head' }, h('h1', {}, 'Campaigns and offers')),
    top,
    form,
    h('section', { class: 'card', 'aria-labelledby': 'campaigns-title' }, h('h2', { id: 'campaigns-title' }, 'Campaigns'), table),
    h('section', { class: 'card', 'aria-labelledby': 'offers-title' }, h('h2', { id: 'offers-title' }, 'Offers'), offersTable),
    preview,
  );

  function resetForm(): void {
    editing = null;
    form.reset();
    clearErrors(form);
    conflict.hidden = true;
    (name.input as HTMLInputElement).readOnly = false;
    formTitle.textContent = 'New campaign';
    submit.textContent = 'Create campaign';
    submit.disabled = false;
    cancel.hidden = true;
  }

  async function edit(c: Campaign): Promise<void> {
    resetForm();
    const mine = { campaign: c, etag: listEtag };
    editing = mine;
    name.input.value = c.name;
    (name.input as HTMLInputElement).readOnly = true;
    start.input.value = c.startDate ?? '';
    end.input.value = c.endDate ?? '';
    cap.input.value = c.perDeviceCap === null || c.perDeviceCap === undefined ? '' : String(c.perDeviceCap);
    zone.input.value = c.schedule?.timeZone ?? '';
    windows.input.value = windowsText(c.schedule?.windows);
    caps.input.value = capsText(c.caps);
    priority.input.value = c.priority ? String(c.priority) : '';
    control.input.value = c.controlGroup ? String(Math.round(c.controlGroup * 10000) / 100) : '';
    formTitle.textContent = `Edit ${c.name}`;
    submit.textContent = 'Save campaign';
    cancel.hidden = false;
    start.input.focus();
    // The item's own version, when the server gives one; saving waits for it.
    submit.disabled = true;
    try {
      mine.etag = await versionOf(`campaigns/${seg(c.id)}`, listEtag);
    } finally {
      if (editing === mine) submit.disabled = false;
    }
  }

  form.addEventListener('submit', async (ev) => {
    ev.preventDefault();
    clearErrors(form);
    conflict.hidden = true;
    const body = campaignBody({
      name: name.input.value,
      startDate: start.input.value,
      endDate: end.input.value,
      perDeviceCap: cap.input.value,
      timeZone: zone.input.value,
      windows: windows.input.value,
      caps: caps.input.value,
      priority: priority.input.value,
      controlGroup: control.input.value,
    });
    if (body instanceof ApiError) {
      showError(form, body);
      return;
    }
    submit.disabled = true;
    try {
      await admin.post('campaigns', body, editing?.etag ?? null);
      toast(editing ? `Saved ${body.name as string}.` : `Created ${body.name as string}.`);
      resetForm();
      await refresh();
    } catch (e) {
      if (e instanceof ApiError && e.status === 412) {
        const c = editing?.campaign;
        conflictNotice(conflict, 'campaign', () => {
          void refresh().then(() => {
            const fresh = campaigns.find((x) => x.id === c?.id || x.name === c?.name);
            if (fresh) void edit(fresh);
            else resetForm();
          });
        });
      } else showError(form, e);
    } finally {
      submit.disabled = false;
    }
  });

  const act = actions(top, () => refresh());

  function showPreview(o: Offer): void {
    const titleId = 'preview-title';
    const hasAlert = typeof o.alertText === 'string';
    const frame = o.mediaUrl
      ? h('iframe', { sandbox: '', src: previewAddress(o.mediaUrl), title: `Media page of ${o.eventName}`, referrerpolicy: 'no-referrer', loading: 'lazy' })
      : h('p', { class: 'meta' }, 'This offer has no media page.');
    replace(
      preview,
      h('div', { class: 'card-head' }, h('h2', { id: titleId }, `Preview: ${o.eventName}`), button('Close preview', () => (preview.hidden = true))),
      h(
        'div',
        { class: 'preview-body' },
        h(
          'div',
          { class: 'device', 'aria-label': 'As a device shows the alert', role: 'group' },
          h(
            'div',
            { class: 'notification' },
            h('p', { class: 'n-app' }, 'Tovrel · now'),
            h('p', { class: 'n-title' }, o.eventName),
            h('p', { class: 'n-text' }, hasAlert ? o.alertText! : '(the server does not send the alert text)'),
          ),
        ),
        h('div', { class: 'media' }, h('p', { class: 'meta' }, o.mediaUrl || ''), frame),
      ),
    );
    preview.hidden = false;
    preview.querySelector<HTMLButtonElement>('button')?.focus();
  }

  function render(): void {
    replace(
      table,
      campaigns.length
        ? labelCells(h(
            'table',
            { class: 'list' },
            h('thead', {}, h('tr', {}, ['Name', 'Status', 'Start', 'End', 'Cap', 'Offers', 'Actions'].map((t) => h('th', { scope: 'col' }, t)))),
            h(
              'tbody',
              {},
              campaigns.map((c) => {
                const state = campaignState(c);
                return h(
                  'tr',
                  { 'data-campaign': c.name },
                  h('th', { scope: 'row' }, c.name),
                  h('td', {}, h('span', { class: `badge state-${state}`, 'data-state': state }, state)),
                  h('td', {}, c.startDate || 'open'),
                  h('td', {}, c.endDate || 'open'),
                  h('td', {}, c.perDeviceCap === null || c.perDeviceCap === undefined ? '—' : String(c.perDeviceCap)),
                  h('td', {}, String(c.offers ?? 0)),
                  h(
                    'td',
                    { class: 'actions' },
                    button('Edit', () => void edit(c), { 'aria-label': `Edit ${c.name}` }),
                    c.disabled
                      ? button('Enable', () => void act(admin.post(`campaigns/${seg(c.id)}/enable`), `Enabled ${c.name}.`), { 'aria-label': `Enable ${c.name}` })
                      : button('Disable', () => void act(admin.post(`campaigns/${seg(c.id)}/disable`), `Disabled ${c.name}.`), { 'aria-label': `Disable ${c.name}` }),
                    confirmButton('Remove', 'Really remove?', () =>
                      act(admin.del(`campaigns/${seg(c.id)}`), `Removed ${c.name}.`, (e) =>
                        e.status === 409
                          ? `“${c.name}” still has offers: remove its offers below (or the places that carry them) first, or disable the campaign to stop it instead.`
                          : null,
                      ), { 'aria-label': `Remove ${c.name}` }),
                  ),
                );
              }),
            ),
          ))
        : h('p', {}, 'No campaigns yet.'),
    );
    replace(
      offersTable,
      offers.length
        ? labelCells(h(
            'table',
            { class: 'list' },
            h('thead', {}, h('tr', {}, ['Offer', 'Id', 'Campaign', 'Type', 'Places', 'Status', 'Actions'].map((t) => h('th', { scope: 'col' }, t)))),
            h(
              'tbody',
              {},
              offers.map((o) =>
                h(
                  'tr',
                  { 'data-offer': String(o.eventId) },
                  h('th', { scope: 'row', class: 'offer-name' }, o.eventName),
                  h('td', {}, String(o.eventId)),
                  h('td', {}, o.campaign),
                  h('td', {}, String(o.eventTypeId)),
                  h('td', {}, String(o.places ?? 0)),
                  h('td', {}, h('span', { class: `badge ${o.disabled ? 'state-disabled' : 'state-running'}` }, o.disabled ? 'disabled' : 'on')),
                  h(
                    'td',
                    { class: 'actions' },
                    button('Preview', () => showPreview(o), { 'aria-label': `Preview offer ${o.eventId}` }),
                    o.disabled
                      ? button('Enable', () => void act(admin.post(`offers/${seg(o.eventId)}/enable`), `Enabled offer ${o.eventId}.`), { 'aria-label': `Enable offer ${o.eventId}` })
                      : button('Disable', () => void act(admin.post(`offers/${seg(o.eventId)}/disable`), `Disabled offer ${o.eventId}.`), { 'aria-label': `Disable offer ${o.eventId}` }),
                    confirmButton('Remove', 'Really remove?', () => act(admin.del(`offers/${seg(o.eventId)}`), `Removed offer ${o.eventId}.`), { 'aria-label': `Remove offer ${o.eventId}` }),
                  ),
                ),
              ),
            ),
          ))
        : h('p', {}, 'No offers yet. Attach one to a place on the map, or import a place file.'),
    );
  }

  async function refresh(): Promise<void> {
    try {
      const [c, o] = await Promise.all([loadCampaigns(), loadOffers()]);
      campaigns = c.list;
      listEtag = c.etag;
      offers = o.list;
      render();
    } catch (e) {
      showMessage(top, e);
    }
  }
  void refresh();
  return () => {};
}
