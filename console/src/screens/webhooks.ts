import { admin, ApiError, seg } from '../api';
import { button, confirmButton, field, h, input, labelCells, replace } from '../dom';
import { actions, clearErrors, copy, formError, showError, showMessage } from '../forms';
import { utcDay } from '../model';

/** An endpoint as the admin API lists it (its secret only by its last four characters). */
export interface Endpoint {
  id: number;
  url: string;
  eventTypes: string[];
  enabled: boolean;
  includeDevice: boolean;
  secretHint: string;
  previousSecretUntil: number | null;
  disabledReason: string | null;
  createdAt: number;
}

/** One delivery attempt, newest first. */
export interface Attempt {
  messageId: string;
  type: string;
  at: number;
  status: number;
  seconds: number;
  error: string;
}

export const EVENT_TYPES = [
  'visit.linked',
  'offer.acknowledged',
  'offer.seen',
  'offer.saved',
  'offer.declined',
  'device.tagged',
  'device.cleared',
  'session.started',
] as const;

/** What an endpoint's events column says: "every event" or the types by name. */
export function eventsLabel(types: readonly string[]): string {
  return types.length === 0 || types.includes('*') ? 'every event' : types.join(', ');
}

/** What an attempt's status column says: the HTTP status, or that no answer came and why. */
export function attemptLabel(a: Pick<Attempt, 'status' | 'error'>): string {
  return a.status === 0 ? `no answer (${a.error || 'unknown'})` : String(a.status);
}

export function mountWebhooks(root: HTMLElement): () => void {
  let endpoints: Endpoint[] = [];
  const top = h('p', { class: 'form-error', role: 'alert', hidden: true });
  const url = field('URL', input({ name: 'url', type: 'url', required: true, maxlength: 2048, placeholder: 'https://' }), '/url');
  const boxes = EVENT_TYPES.map((t) => {
    const box = input({ type: 'checkbox', name: 'eventTypes', value: t });
    return { t, box, label: h('label', { class: 'check' }, box, ` ${t}`) };
  });
  const device = input({ type: 'checkbox', name: 'includeDevice' });
  const plain = input({ type: 'checkbox', name: 'allowHttp' });
  const form = h(
    'form',
    { class: 'card form', 'aria-labelledby': 'hook-form-title', novalidate: true },
    h('h2', { id: 'hook-form-title' }, 'Add an endpoint'),
    formError(),
    h('div', { class: 'row' }, url.wrap),
    h('fieldset', { class: 'checks' }, h('legend', {}, 'Events (none ticked: every event)'), boxes.map((b) => b.label)),
    h('div', { class: 'check-row' }, h('label', { class: 'check' }, device, ' Include the device’s identifier'), h('label', { class: 'check' }, plain, ' Allow plain http')),
    h('div', { class: 'actions' }, h('button', { type: 'submit', class: 'primary' }, 'Add endpoint')),
  );
  const table = h('div', { class: 'table-wrap' });
  const fresh = h('div', { class: 'fresh-key', hidden: true, role: 'status' });
  const attempts = h('section', { class: 'card', 'aria-labelledby': 'attempts-title', hidden: true });
  replace(
    root,
    h('div', { class: 'screen-head' }, h('h1', {}, 'Webhooks')),
    h('p', { class: 'meta' }, 'Visits, answers, tags and sessions are sent, signed, to these addresses. A secret is shown once, when it is made.'),
    top,
    fresh,
    form,
    h('section', { class: 'card', 'aria-labelledby': 'hooks-title' }, h('h2', { id: 'hooks-title' }, 'Endpoints'), table),
    attempts,
  );

  function announce(label: string, secret: string): void {
    replace(fresh, h('p', {}, `${label}: `, h('code', {}, secret), ' '), button('Copy secret', () => void copy(secret, 'the secret')));
    fresh.hidden = false;
  }

  form.addEventListener('submit', async (ev) => {
    ev.preventDefault();
    clearErrors(form);
    const target = url.input.value.trim();
    if (!target) {
      showError(form, new ApiError(400, 'An endpoint needs a URL.', '/url', [], null, null));
      return;
    }
    const ticked = boxes.filter((b) => b.box.checked).map((b) => b.t);
    const body: Record<string, unknown> = { url: target, includeDevice: device.checked, allowHttp: plain.checked };
    if (ticked.length) body.eventTypes = ticked;
    try {
      const e = await admin.post<Endpoint & { secret: string }>('webhooks', body);
      form.reset();
      announce(`Secret of ${e.data.url} (shown this once)`, e.data.secret);
      await refresh();
    } catch (e) {
      showError(form, e, (err) => (err.status === 400 ? err.message.replace(/^url: /, '') : null));
    }
  });

  const act = actions(top, () => refresh());

  async function showAttempts(e: Endpoint): Promise<void> {
    try {
      const r = await admin.get<{ attempts: Attempt[] }>(`webhooks/${seg(e.id)}/attempts?limit=20`);
      replace(
        attempts,
        h('h2', { id: 'attempts-title' }, `Latest attempts to ${e.url}`),
        r.data.attempts.length
          ? h('div', { class: 'table-wrap' }, labelCells(h(
              'table',
              { class: 'list attempts' },
              h('thead', {}, h('tr', {}, ['When (UTC)', 'Event', 'Answer', 'Time'].map((t) => h('th', { scope: 'col' }, t)))),
              h(
                'tbody',
                {},
                r.data.attempts.map((a) =>
                  h(
                    'tr',
                    { 'data-message': a.messageId },
                    h('td', {}, `${utcDay(a.at)} ${new Date(a.at * 1000).toISOString().slice(11, 19)}`),
                    h('td', {}, a.type),
                    h('td', {}, h('span', { class: `badge ${a.status >= 200 && a.status < 300 ? 'state-running' : 'state-disabled'}` }, attemptLabel(a))),
                    h('td', {}, `${Math.round(a.seconds * 1000)} ms`),
                  ),
                ),
              ),
            )))
          : h('p', {}, 'No attempts yet: events are sent within a second of being written.'),
      );
      attempts.hidden = false;
    } catch (err) {
      showMessage(top, err);
    }
  }

  function render(): void {
    replace(
      table,
      endpoints.length
        ? labelCells(h(
            'table',
            { class: 'list' },
            h('thead', {}, h('tr', {}, ['URL', 'Events', 'Secret', 'Status', 'Actions'].map((t) => h('th', { scope: 'col' }, t)))),
            h(
              'tbody',
              {},
              endpoints.map((e) =>
                h(
                  'tr',
                  { 'data-endpoint': String(e.id) },
                  h('th', { scope: 'row' }, h('code', { class: 'url' }, e.url)),
                  h('td', {}, eventsLabel(e.eventTypes), e.includeDevice ? ' (with the device)' : ''),
                  h('td', {}, h('code', { class: 'masked' }, e.secretHint), e.previousSecretUntil ? ' (rotating)' : ''),
                  h('td', {}, h('span', { class: `badge ${e.enabled ? 'state-running' : 'state-disabled'}` }, e.enabled ? 'on' : e.disabledReason === 'gone' ? 'gone (410)' : 'disabled')),
                  h(
                    'td',
                    { class: 'actions' },
                    button('Send test', () => void act(admin.post(`webhooks/${seg(e.id)}/test`), `A test event is on its way to ${e.url}.`), { 'aria-label': `Send test to ${e.url}`, disabled: !e.enabled }),
                    button('Attempts', () => void showAttempts(e), { 'aria-label': `Attempts to ${e.url}` }),
                    confirmButton('Rotate', 'Really rotate?', async () => {
                      top.hidden = true;
                      try {
                        const r = await admin.post<{ secret: string }>(`webhooks/${seg(e.id)}/rotate`);
                        announce(`New secret of ${e.url} (the old one signs beside it for a day)`, r.data.secret);
                        await refresh();
                      } catch (err) {
                        showMessage(top, err);
                      }
                    }, { class: 'secondary', 'aria-label': `Rotate the secret of ${e.url}` }),
                    button(e.enabled ? 'Disable' : 'Enable', () => void act(admin.patch(`webhooks/${seg(e.id)}`, { enabled: !e.enabled }), `${e.enabled ? 'Disabled' : 'Enabled'} ${e.url}.`), { 'aria-label': `${e.enabled ? 'Disable' : 'Enable'} ${e.url}` }),
                    confirmButton('Remove', 'Really remove?', () => act(admin.del(`webhooks/${seg(e.id)}`), `Removed ${e.url}.`), { 'aria-label': `Remove ${e.url}` }),
                  ),
                ),
              ),
            ),
          ))
        : h('p', {}, 'No endpoints yet.'),
    );
  }

  async function refresh(): Promise<void> {
    try {
      endpoints = (await admin.get<{ endpoints: Endpoint[] }>('webhooks')).data.endpoints;
      render();
    } catch (e) {
      showMessage(top, e);
    }
  }
  void refresh();
  return () => {};
}
