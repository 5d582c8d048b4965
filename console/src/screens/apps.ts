import { admin, ApiError, seg } from '../api';
import { button, confirmButton, field, h, input, labelCells, mask, replace } from '../dom';
import { actions, clearErrors, copy, formError, showError, showMessage } from '../forms';
import { loadApps, utcDay, type App } from '../model';

export function mountApps(root: HTMLElement): () => void {
  let apps: App[] = [];
  const top = h('p', { class: 'form-error', role: 'alert', hidden: true });
  const name = field('Name', input({ name: 'name', required: true, maxlength: 200 }), '/name');
  const key = field('Key', input({ name: 'key', autocomplete: 'off', spellcheck: 'false' }), '/key', 'empty: a random key');
  const form = h(
    'form',
    { class: 'card form', 'aria-labelledby': 'app-form-title', novalidate: true },
    h('h2', { id: 'app-form-title' }, 'Add an app'),
    formError(),
    h('div', { class: 'row' }, name.wrap, key.wrap),
    h('div', { class: 'actions' }, h('button', { type: 'submit', class: 'primary' }, 'Add app')),
  );
  const table = h('div', { class: 'table-wrap' });
  const fresh = h('div', { class: 'fresh-key', hidden: true, role: 'status' });
  replace(
    root,
    h('div', { class: 'screen-head' }, h('h1', {}, 'Apps')),
    h('p', { class: 'meta' }, 'An app key lets an app start sessions. Keys are shown masked; copy one to hand it to an app.'),
    top,
    fresh,
    form,
    h('section', { class: 'card', 'aria-labelledby': 'apps-title' }, h('h2', { id: 'apps-title' }, 'App keys'), table),
  );

  function announce(label: string, k: string): void {
    replace(fresh, h('p', {}, `${label}: `, h('code', {}, mask(k)), ' '), button('Copy key', () => void copy(k, 'the key')));
    fresh.hidden = false;
  }

  form.addEventListener('submit', async (ev) => {
    ev.preventDefault();
    clearErrors(form);
    const body: Record<string, string> = { name: name.input.value.trim() };
    if (!body.name) {
      showError(form, new ApiError(400, 'An app needs a name.', '/name', [], null, null));
      return;
    }
    if (key.input.value.trim()) body.key = key.input.value.trim();
    try {
      const a = await admin.post<{ key: string; name: string }>('apps', body);
      form.reset();
      announce(`New key of ${a.data.name}`, a.data.key);
      await refresh();
    } catch (e) {
      showError(form, e);
    }
  });

  const act = actions(top, () => refresh());

  function render(): void {
    replace(
      table,
      apps.length
        ? labelCells(h(
            'table',
            { class: 'list' },
            h('thead', {}, h('tr', {}, ['Name', 'Key', 'Added', 'Status', 'Actions'].map((t) => h('th', { scope: 'col' }, t)))),
            h(
              'tbody',
              {},
              apps.map((a) =>
                h(
                  'tr',
                  { 'data-app': a.name },
                  h('th', { scope: 'row' }, a.name),
                  h('td', {}, h('code', { class: 'masked' }, mask(a.key)), ' ', button('Copy', () => void copy(a.key, `the key of ${a.name}`), { 'aria-label': `Copy the key of ${a.name}` })),
                  h('td', {}, utcDay(a.createdAt)),
                  h('td', {}, h('span', { class: `badge ${a.disabled ? 'state-disabled' : 'state-running'}` }, a.disabled ? 'disabled' : 'on')),
                  h(
                    'td',
                    { class: 'actions' },
                    confirmButton('Rotate', 'Really rotate?', async () => {
                      top.hidden = true;
                      try {
                        const r = await admin.post<{ key: string; previous: string }>(`apps/${seg(a.key)}/rotate`);
                        announce(`New key of ${a.name} (sessions of the old key stay valid)`, r.data.key);
                        await refresh();
                      } catch (e) {
                        showMessage(top, e);
                      }
                    }, { class: 'secondary', 'aria-label': `Rotate the key of ${a.name}` }),
                    a.disabled
                      ? button('Enable', () => void act(admin.post(`apps/${seg(a.key)}/enable`), `Enabled ${a.name}.`), { 'aria-label': `Enable ${a.name}` })
                      : button('Disable', () => void act(admin.post(`apps/${seg(a.key)}/disable`), `Disabled ${a.name}.`), { 'aria-label': `Disable ${a.name}` }),
                    confirmButton('Remove', 'Really remove?', () => act(admin.del(`apps/${seg(a.key)}`), `Removed ${a.name}.`), { 'aria-label': `Remove ${a.name}` }),
                  ),
                ),
              ),
            ),
          ))
        : h('p', {}, 'No app keys yet.'),
    );
  }

  async function refresh(): Promise<void> {
    try {
      apps = await loadApps();
      render();
    } catch (e) {
      showMessage(top, e);
    }
  }
  void refresh();
  return () => {};
}
