import './style.css';
import { session, signedIn, signedInAs, whenSignedOut } from './api';
import { button, field, h, input, replace } from './dom';
import { formError, showError } from './forms';
import { mountOverview } from './screens/overview';
import { mountCampaigns } from './screens/campaigns';
import { mountImport } from './screens/import';
import { mountApps } from './screens/apps';
import { mountWebhooks } from './screens/webhooks';

type Mount = (root: HTMLElement) => () => void;

const screens: { path: string; title: string; load: () => Promise<Mount> | Mount }[] = [
  { path: 'overview', title: 'Overview', load: () => mountOverview },
  // The map and its library are fetched only when the map is opened.
  { path: 'map', title: 'Map', load: () => import('./screens/map').then((m) => m.mountMap) },
  { path: 'campaigns', title: 'Campaigns', load: () => mountCampaigns },
  { path: 'devices', title: 'Devices', load: () => import('./screens/devices').then((m) => m.mountDevices) },
  { path: 'import', title: 'Import', load: () => mountImport },
  { path: 'apps', title: 'Apps', load: () => mountApps },
  { path: 'webhooks', title: 'Webhooks', load: () => mountWebhooks },
];

const app = document.getElementById('app')!;
let unmount: () => void = () => {};
let routeToken = 0;

function currentPath(): string {
  const m = /^#\/([a-z]+)/.exec(location.hash);
  const p = m?.[1] ?? 'overview';
  return screens.some((s) => s.path === p) ? p : 'overview';
}

function shell(): { main: HTMLElement } {
  const nav = h(
    'nav',
    { 'aria-label': 'Console' },
    h(
      'ul',
      {},
      screens.map((s) => h('li', {}, h('a', { href: `#/${s.path}`, 'data-screen': s.path }, s.title))),
    ),
  );
  const out = button('Sign out', () => void session.signOut(), { class: 'signout' });
  const as = signedInAs();
  const who = h('p', { class: 'who' }, as ? `${as.token} · ${as.role}` : '');
  const header = h('header', { class: 'top' }, h('p', { class: 'brand' }, 'Tovrel console'), nav, who, out);
  const main = h('main', { id: 'main', tabindex: '-1' });
  const toastEl = h('div', { id: 'toast', class: 'toast', role: 'status', hidden: true });
  replace(app, header, main, toastEl);
  return { main };
}

async function route(): Promise<void> {
  if (!signedIn()) return;
  const token = ++routeToken;
  unmount();
  unmount = () => {};
  let main = document.getElementById('main');
  if (!main) main = shell().main;
  const path = currentPath();
  document.querySelectorAll<HTMLAnchorElement>('nav a').forEach((a) => {
    if (a.dataset.screen === path) a.setAttribute('aria-current', 'page');
    else a.removeAttribute('aria-current');
  });
  const s = screens.find((x) => x.path === path)!;
  document.title = `${s.title} · Tovrel console`;
  replace(main, h('p', { class: 'loading' }, 'Loading…'));
  let mount: Mount;
  try {
    mount = await s.load();
  } catch {
    replace(main, h('p', { class: 'form-error', role: 'alert' }, 'This screen could not be loaded. Reload the page.'));
    return;
  }
  if (token !== routeToken) return;
  replace(main);
  main.className = `screen-${path}`;
  unmount = mount(main);
}

function signInScreen(message?: string): void {
  unmount();
  unmount = () => {};
  routeToken++;
  const tokenInput = input({ type: 'password', name: 'token', autocomplete: 'current-password', required: true });
  const f = field('Admin token', tokenInput, '/token');
  const err = formError();
  const submit = h('button', { type: 'submit', class: 'primary' }, 'Sign in');
  const form = h(
    'form',
    { class: 'signin', novalidate: true },
    h('h1', {}, 'Tovrel console'),
    h('p', {}, 'Sign in with the admin token of this server.'),
    err,
    f.wrap,
    submit,
  );
  if (message) {
    err.textContent = message;
    err.hidden = false;
  }
  form.addEventListener('submit', async (ev) => {
    ev.preventDefault();
    const token = tokenInput.value.trim();
    if (!token) {
      showError(form, new Error('Enter the admin token.'));
      return;
    }
    submit.disabled = true;
    try {
      await session.signIn(token);
      tokenInput.value = '';
      shell();
      await route();
      document.getElementById('main')?.focus();
    } catch (e) {
      showError(form, e);
      tokenInput.focus();
    } finally {
      submit.disabled = false;
    }
  });
  replace(app, h('main', { id: 'signin', class: 'signin-page' }, form));
  document.title = 'Sign in · Tovrel console';
  tokenInput.focus();
}

whenSignedOut(() => signInScreen('You are signed out. Sign in again to go on.'));
window.addEventListener('hashchange', () => void route());

async function start(): Promise<void> {
  replace(app, h('p', { class: 'loading' }, 'Loading…'));
  if (await session.resume()) {
    shell();
    await route();
  } else {
    signInScreen();
  }
}

void start();
