#!/usr/bin/env node
// End-to-end test of the browser console: a real tovrel-server on 127.0.0.1, Debian's Chromium
// driven headless through playwright-core, and axe-core for accessibility.
//
//   node tests/console/console.test.mjs --server build/dev/server/tovrel-server \
//        --dist console/dist --screenshots /tmp/shots --chromium /usr/bin/chromium \
//        [--postgres URL | --postgres-self | --prefer-postgres]
//
// The store is a fresh SQLite file by default. --postgres URL uses a PostgreSQL database that exists;
// --postgres-self starts a PostgreSQL server of the test's own (initdb in a temporary folder, as the
// user "nobody" when run as root, on a free port of 127.0.0.1), checks what the console wrote with psql
// against it, and removes it at exit. On PostgreSQL the screenshots are named console-NAME-postgres.png,
// beside those of the SQLite run. --prefer-postgres is --postgres-self where PostgreSQL is installed and
// the SQLite run elsewhere: the browser's side of the flow is the same on either store, so one run of it
// is enough where the store's own suites already cover both.
// Exit 0 when every step passed; 77 (skipped) when --postgres-self finds no PostgreSQL installed;
// otherwise non-zero, naming the steps that failed.

import { execFile, execFileSync, spawn, spawnSync } from 'node:child_process';
import crypto from 'node:crypto';
import fs from 'node:fs';
import { createServer } from 'node:http';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import { createRequire } from 'node:module';
import { parseArgs } from 'node:util';
import { fileURLToPath } from 'node:url';

import { startTovrelServer } from './tovrel_server.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const consoleDir = path.resolve(here, '../../console');
const require = createRequire(path.join(consoleDir, 'package.json'));
const { chromium } = require('playwright-core');
const axeSource = fs.readFileSync(require.resolve('axe-core/axe.min.js'), 'utf8');

const { values: args } = parseArgs({
  options: {
    server: { type: 'string' },
    sim: { type: 'string' },
    dist: { type: 'string', default: path.join(consoleDir, 'dist') },
    screenshots: { type: 'string' },
    chromium: { type: 'string', default: '/usr/bin/chromium' },
    postgres: { type: 'string' },
    'postgres-self': { type: 'boolean', default: false },
    'prefer-postgres': { type: 'boolean', default: false },
    headed: { type: 'boolean', default: false },
  },
});
if (!args.server || [args.postgres, args['postgres-self'], args['prefer-postgres']].filter(Boolean).length > 1) {
  console.error('usage: console.test.mjs --server PATH_TO_tovrel-server [--dist DIR] [--screenshots DIR] [--chromium PATH] [--postgres URL | --postgres-self | --prefer-postgres]');
  process.exit(2);
}
const ownPostgres = args['postgres-self'] || (args['prefer-postgres'] && Boolean(postgresBinaries()));
const onPostgres = Boolean(args.postgres || ownPostgres);
const OVERALL_MS = 120_000;
const WAIT_MS = 10_000;
const CSP = "default-src 'self'; img-src 'self' data: https:";

// ---------------------------------------------------------------- bookkeeping

const results = { passed: 0, failed: 0, skipped: 0 };
const failures = [];
let current = 'starting';
let server = null;
let browser = null;
/** The PostgreSQL server of --postgres-self: its programs, folder, port, process and user. */
const pg = { bin: '', folder: '', data: '', log: '', port: 0, proc: null, as: {} };
const tmp = fs.mkdtempSync(path.join(os.tmpdir(), 'tovrel-console-'));
const shots = args.screenshots ? path.resolve(args.screenshots) : path.join(tmp, 'shots');
fs.mkdirSync(shots, { recursive: true });
/** Where the screenshot NAME goes: the PostgreSQL run keeps its own beside the SQLite run's. */
const shotFile = (name) => path.join(shots, `console-${name}${onPostgres ? '-postgres' : ''}.png`);

class Skip extends Error {}

async function step(name, fn, { critical = false } = {}) {
  current = name;
  const t0 = Date.now();
  try {
    await fn();
    results.passed++;
    console.log(`ok    ${name} (${Date.now() - t0} ms)`);
  } catch (e) {
    if (e instanceof Skip) {
      results.skipped++;
      console.log(`skip  ${name}: ${e.message}`);
      return;
    }
    results.failed++;
    failures.push(name);
    console.log(`FAIL  ${name}: ${e?.stack ?? e}`);
    if (critical) await finish();
  }
}

function assert(cond, message) {
  if (!cond) throw new Error(message);
}

function stopServer() {
  if (server && server.exitCode === null) {
    server.kill('SIGTERM');
    const s = server;
    setTimeout(() => s.exitCode === null && s.kill('SIGKILL'), 3000).unref();
  }
}

let finishing = false;
async function finish() {
  if (finishing) return;
  finishing = true;
  try {
    await Promise.race([browser?.close(), new Promise((r) => setTimeout(r, 5000))]);
  } catch {}
  const serverGone = server && server.exitCode === null && server.signalCode === null ? new Promise((r) => server.once('exit', r)) : null;
  stopServer();
  // PostgreSQL goes after the server that uses it.
  if (serverGone) await Promise.race([serverGone, new Promise((r) => setTimeout(r, 3000))]);
  const postgresLog = pgLog();
  await stopPostgresAndWait();
  if (postgresLog && results.failed) {
    console.log('--- last lines of PostgreSQL');
    console.log(postgresLog.split('\n').filter(Boolean).slice(-10).join('\n'));
  }
  if (serverLog.length && results.failed) {
    console.log('--- last lines of the server');
    console.log(serverLog.slice(-20).join('\n'));
  }
  console.log(`screenshots: ${shots}`);
  console.log(`${results.passed} passed, ${results.failed} failed, ${results.skipped} skipped`);
  if (results.failed) console.log(`failed steps: ${failures.join('; ')}`);
  process.exit(results.failed ? 1 : 0);
}

const overall = setTimeout(() => {
  console.log(`FAIL  the test ran over ${OVERALL_MS / 1000} s, during: ${current}`);
  results.failed++;
  failures.push(`timeout during ${current}`);
  void finish();
}, OVERALL_MS);
overall.unref();
process.on('exit', () => {
  stopServer();
  stopPostgres();
  fs.rmSync(tmp, { recursive: true, force: true });
});
for (const signal of ['SIGINT', 'SIGTERM', 'SIGHUP']) process.on(signal, () => void finish());

function withTimeout(p, ms, what) {
  let t;
  return Promise.race([p, new Promise((_, rej) => (t = setTimeout(() => rej(new Error(`${what}: no answer in ${ms} ms`)), ms)))]).finally(() => clearTimeout(t));
}

async function http(method, url, { body, headers = {} } = {}) {
  const res = await withTimeout(
    fetch(url, { method, headers: { 'Content-Type': 'application/json', ...headers }, body: body === undefined ? undefined : typeof body === 'string' ? body : JSON.stringify(body) }),
    WAIT_MS,
    `${method} ${url}`,
  );
  const text = await res.text();
  let json = null;
  try {
    json = JSON.parse(text);
  } catch {}
  return { status: res.status, json, text, headers: res.headers };
}

// ---------------------------------------------------------------- PostgreSQL of the test's own

/** The folder of PostgreSQL's programs: pg_config's, else the newest Debian install; one with PostGIS first. */
function postgresBinaries() {
  const candidates = [];
  try {
    candidates.push(execFileSync('pg_config', ['--bindir'], { encoding: 'utf8', timeout: 5000, stdio: ['ignore', 'pipe', 'ignore'] }).trim());
  } catch {}
  const root = '/usr/lib/postgresql';
  if (fs.existsSync(root)) {
    const versions = fs.readdirSync(root).sort((a, b) => parseFloat(b) - parseFloat(a));
    candidates.push(...versions.map((v) => path.join(root, v, 'bin')));
  }
  const usable = candidates.filter((d) => d && ['postgres', 'initdb', 'pg_ctl', 'pg_isready', 'psql'].every((p) => fs.existsSync(path.join(d, p))));
  const withPostgis = usable.find((d) => {
    try {
      const share = execFileSync(path.join(d, 'pg_config'), ['--sharedir'], { encoding: 'utf8', timeout: 5000, stdio: ['ignore', 'pipe', 'ignore'] }).trim();
      return fs.existsSync(path.join(share, 'extension', 'postgis.control'));
    } catch {
      return false;
    }
  });
  return withPostgis ?? usable[0] ?? '';
}

/** uid and gid of "nobody", whom PostgreSQL runs as when the test runs as root (it refuses root). */
function unprivileged() {
  if (process.getuid() !== 0) return {};
  let entry = '';
  try {
    entry = execFileSync('getent', ['passwd', 'nobody'], { encoding: 'utf8', timeout: 5000 }).trim();
  } catch {}
  const [, , uid, gid] = entry.split(':');
  assert(uid && gid, 'running as root and there is no user "nobody" to run PostgreSQL as');
  return { uid: Number(uid), gid: Number(gid) };
}

function pgLog() {
  try {
    return pg.log ? fs.readFileSync(pg.log, 'utf8') : '';
  } catch {
    return '';
  }
}

/** Runs one of PostgreSQL's programs as its user, output to the log; resolves its exit status. */
function runPg(program, argv, ms) {
  return new Promise((resolve, reject) => {
    const log = fs.openSync(pg.log, 'a');
    const child = spawn(path.join(pg.bin, program), argv, { ...pg.as, stdio: ['ignore', log, log] });
    fs.closeSync(log);
    const t = setTimeout(() => {
      child.kill('SIGKILL');
      reject(new Error(`${program} did not end in ${ms} ms: ${pgLog().slice(-2000)}`));
    }, ms);
    child.once('error', (e) => {
      clearTimeout(t);
      reject(e);
    });
    child.once('exit', (code, signal) => {
      clearTimeout(t);
      resolve(code ?? signal);
    });
  });
}

/** A port of 127.0.0.1 that nothing listens on now. */
function freePort() {
  return new Promise((resolve, reject) => {
    const s = net.createServer();
    s.once('error', reject);
    s.listen(0, '127.0.0.1', () => {
      const { port } = s.address();
      s.close(() => resolve(port));
    });
  });
}

function pgReady() {
  return new Promise((resolve) => {
    execFile(path.join(pg.bin, 'pg_isready'), ['-q', '-h', '127.0.0.1', '-p', String(pg.port), '-U', 'postgres', '-d', 'postgres', '-t', '1'], { timeout: 3000 }, (err) => resolve(!err));
  });
}

/** One SQL statement against the test's own server, by psql; its rows as text, fields split by |. */
function psql(database, sql) {
  return new Promise((resolve, reject) => {
    execFile(
      path.join(pg.bin, 'psql'),
      ['-X', '-q', '-A', '-t', '-v', 'ON_ERROR_STOP=1', '-h', '127.0.0.1', '-p', String(pg.port), '-U', 'postgres', '-d', database, '-c', sql],
      { timeout: WAIT_MS, encoding: 'utf8' },
      (err, stdout, stderr) => (err ? reject(new Error(`psql ${sql}: ${stderr || err.message}`)) : resolve(stdout.trim())),
    );
  });
}

const PG_DATABASE = 'tovrel_console';

/** initdb in a temporary folder, the server on a free port of 127.0.0.1, and an empty database: its address. */
async function startPostgres() {
  pg.bin ||= postgresBinaries();
  assert(pg.bin, 'PostgreSQL is not installed');
  pg.as = unprivileged();
  pg.folder = fs.mkdtempSync(path.join(os.tmpdir(), 'tovrel-console-pg-'));
  fs.chmodSync(pg.folder, 0o700);
  if (pg.as.uid !== undefined) fs.chownSync(pg.folder, pg.as.uid, pg.as.gid);
  pg.data = path.join(pg.folder, 'data');
  pg.log = path.join(pg.folder, 'server.log');
  const initdb = await runPg('initdb', ['-D', pg.data, '-A', 'trust', '-U', 'postgres', '-E', 'UTF8', '--locale=C', '-N'], 60_000);
  assert(initdb === 0, `initdb failed (${initdb}): ${pgLog().slice(-2000)}`);
  for (let attempt = 0; attempt < 5 && !pg.proc; attempt++) {
    pg.port = await freePort();
    const log = fs.openSync(pg.log, 'a');
    const proc = spawn(
      path.join(pg.bin, 'postgres'),
      ['-D', pg.data, '-k', pg.folder, '-p', String(pg.port), '-c', 'listen_addresses=127.0.0.1', '-c', 'fsync=off', '-c', 'synchronous_commit=off', '-c', 'full_page_writes=off'],
      { ...pg.as, stdio: ['ignore', log, log] },
    );
    fs.closeSync(log);
    proc.once('error', () => {});
    const until = Date.now() + 15_000;
    while (Date.now() < until && proc.exitCode === null && proc.signalCode === null) {
      if (await pgReady()) {
        pg.proc = proc;
        break;
      }
      await new Promise((r) => setTimeout(r, 100));
    }
    // Stopped (most likely another program took the port: try another) or never ready.
    if (!pg.proc && proc.exitCode === null && proc.signalCode === null) proc.kill('SIGKILL');
  }
  assert(pg.proc, `PostgreSQL did not start: ${pgLog().slice(-2000)}`);
  // tovrel-server makes its schema, PostGIS included, in the empty database itself.
  await psql('postgres', `CREATE DATABASE ${PG_DATABASE}`);
  return `postgresql://postgres@127.0.0.1:${pg.port}/${PG_DATABASE}`;
}

/** Stops the server at once (its data is thrown away) and removes its folder. Synchronous: exit handlers call it. */
function stopPostgres() {
  const proc = pg.proc;
  pg.proc = null;
  if (proc && proc.exitCode === null && proc.signalCode === null) {
    const stopped = spawnSync(path.join(pg.bin, 'pg_ctl'), ['stop', '-D', pg.data, '-m', 'immediate', '-w', '-t', '10'], { ...pg.as, stdio: 'ignore', timeout: 15_000, killSignal: 'SIGKILL' });
    if (stopped.status !== 0) {
      try {
        proc.kill('SIGKILL');
      } catch {}
    }
  }
  if (pg.folder) {
    const folder = pg.folder;
    pg.folder = '';
    pg.log = '';
    try {
      fs.rmSync(folder, { recursive: true, force: true, maxRetries: 3 });
    } catch {}
  }
}

/** stopPostgres, but waits (bounded) for the server to end, so that it leaves no zombie behind. */
async function stopPostgresAndWait() {
  const proc = pg.proc;
  if (proc && proc.exitCode === null && proc.signalCode === null) {
    const gone = new Promise((r) => proc.once('exit', r));
    proc.kill('SIGQUIT'); // immediate shutdown
    await Promise.race([gone, new Promise((r) => setTimeout(r, 10_000))]);
    if (proc.exitCode === null && proc.signalCode === null) {
      proc.kill('SIGKILL');
      await Promise.race([gone, new Promise((r) => setTimeout(r, 2000))]);
    }
  }
  stopPostgres();
}

/** The count psql finds for a query of the test's own database; null when the store is not ours to read. */
async function pgCount(sql) {
  if (!pg.port) return null;
  return Number(await psql(PG_DATABASE, sql));
}

// ---------------------------------------------------------------- the server

if (ownPostgres) {
  pg.bin = postgresBinaries();
  if (!pg.bin) {
    // As the C++ suites do without PostgreSQL: skipped, not failed (77: CTest's SKIP_RETURN_CODE).
    console.log('skip  the flow on PostgreSQL: PostgreSQL is not installed (no pg_config --bindir nor /usr/lib/postgresql/*/bin with initdb; scripts/setup.sh installs it)');
    console.log('0 passed, 0 failed, 1 skipped');
    process.exit(77);
  }
}

const serverLog = [];
const token = `console-test-${Math.random().toString(36).slice(2)}${Math.random().toString(36).slice(2)}`;
const tokenFile = path.join(tmp, 'admin-token');
fs.writeFileSync(tokenFile, `${token}\n`, { mode: 0o600 });
fs.chmodSync(tokenFile, 0o600);
let pub = '';
let adm = '';

await step('the server starts and reports its listeners', async () => {
  assert(fs.existsSync(path.join(args.dist, 'index.html')), `${args.dist}/index.html is missing: run npm run build in console/`);
  const db = ownPostgres ? await startPostgres() : (args.postgres ?? path.join(tmp, 'db.sqlite'));
  const started = await startTovrelServer({ binary: args.server, db, tokenFile, dist: args.dist, log: serverLog, waitMs: WAIT_MS, sim: args.sim });
  server = started.process;
  const line = started;
  pub = `http://${line.listen}`;
  adm = `http://${line.admin}`;
  if (pg.port) {
    const postgis = await psql(PG_DATABASE, "SELECT extversion FROM pg_extension WHERE extname = 'postgis'");
    assert(postgis, 'the server runs on a database without PostGIS');
  }
}, { critical: true });

// ---------------------------------------------------------------- the browser

await step('Chromium starts', async () => {
  browser = await chromium.launch({ executablePath: args.chromium, headless: !args.headed, timeout: 20_000, args: ['--no-sandbox', '--disable-gpu'] });
}, { critical: true });

/** A browser context whose console pages carry the CSP the console must work under. */
async function newContext(viewport = { width: 1280, height: 800 }) {
  const ctx = await browser.newContext({ viewport, baseURL: adm });
  ctx.setDefaultTimeout(WAIT_MS);
  await ctx.route(/\/console\/(index\.html)?(\?.*)?(#.*)?$/, async (route) => {
    const res = await route.fetch();
    const headers = res.headers();
    if (!headers['content-security-policy']) headers['content-security-policy'] = CSP;
    await route.fulfill({ response: res, headers });
  });
  return ctx;
}

function watch(page) {
  const w = { dialogs: [], csp: [], errors: [] };
  page.on('dialog', (d) => {
    w.dialogs.push(d.message());
    void d.dismiss().catch(() => {});
  });
  page.on('console', (m) => {
    if (m.type() === 'error' && /Content Security Policy/i.test(m.text())) w.csp.push(m.text());
  });
  page.on('pageerror', (e) => w.errors.push(String(e)));
  return w;
}

async function axe(page, screen) {
  await page.evaluate(`${axeSource};0`);
  const out = await page.evaluate(async () => {
    // eslint-disable-next-line no-undef
    const r = await axe.run(document, { resultTypes: ['violations'] });
    return r.violations.map((v) => ({ id: v.id, impact: v.impact, help: v.help, nodes: v.nodes.slice(0, 3).map((n) => n.target.join(' ')) }));
  });
  for (const v of out) console.log(`      axe ${screen}: ${v.impact} ${v.id}: ${v.help} (${v.nodes.join(', ')})`);
  const bad = out.filter((v) => v.impact === 'serious' || v.impact === 'critical');
  assert(bad.length === 0, `axe finds ${bad.length} serious or critical violations on ${screen}: ${bad.map((v) => v.id).join(', ')}`);
}

async function shot(page, name) {
  await page.waitForTimeout(150);
  await page.screenshot({ path: shotFile(name) });
}

async function go(page, screen) {
  await page.evaluate((s) => (location.hash = `#/${s}`), screen);
  await page.locator(`nav a[data-screen="${screen}"][aria-current="page"]`).waitFor();
  await page.locator('main h1').first().waitFor();
}

/** Calls the admin API from inside the page, with its cookie and CSRF token. */
async function adminFromPage(page, method, p, body) {
  return page.evaluate(
    async ({ method, p, body }) => {
      const s = await fetch('/console/api/session', { credentials: 'same-origin' });
      const { csrf } = await s.json();
      const r = await fetch(`/admin/v1/${p}`, {
        method,
        credentials: 'same-origin',
        headers: { 'Content-Type': 'application/json', ...(method === 'GET' ? {} : { 'X-CSRF-Token': csrf }) },
        body: body === undefined ? undefined : JSON.stringify(body),
      });
      const text = await r.text();
      let json = null;
      try {
        json = JSON.parse(text);
      } catch {}
      return { status: r.status, json, etag: r.headers.get('ETag') };
    },
    { method, p, body },
  );
}

async function signIn(page, tok) {
  await page.locator('#signin input[type="password"]').fill(tok);
  await page.locator('#signin button[type="submit"]').click();
}

const ctx = await newContext();
const page = await ctx.newPage();
const seen = watch(page);

await step('the sign-in screen loads under the CSP, with a password field', async () => {
  const res = await page.goto(`${adm}/console/`, { waitUntil: 'load', timeout: WAIT_MS });
  assert(res && res.status() === 200, `GET /console/ answered ${res?.status()}`);
  const field = page.locator('#signin input[type="password"]');
  await field.waitFor();
  assert(await page.locator('label[for]').filter({ hasText: 'Admin token' }).count() === 1, 'the token field has no label');
  await shot(page, 'signin');
  await axe(page, 'sign-in');
}, { critical: true });

await step('a wrong token is refused with the server\'s own words', async () => {
  const answer = page.waitForResponse((r) => r.url().endsWith('/console/api/session') && r.request().method() === 'POST');
  await signIn(page, 'not-the-admin-token-at-all');
  const r = await answer;
  assert(r.status() === 401, `a wrong token answered ${r.status()}`);
  const said = (await r.json()).error;
  const err = page.locator('#signin .form-error');
  await err.waitFor();
  const shown = await err.textContent();
  assert(said && shown.includes(said), `the form shows "${shown}", the server said "${said}"`);
  assert(await page.locator('nav').count() === 0, 'the console opened after a wrong token');
});

await step('the right token opens the overview, and a reload resumes the session', async () => {
  await signIn(page, token);
  await page.locator('nav a[data-screen="overview"][aria-current="page"]').waitFor();
  const cookies = await ctx.cookies();
  assert(cookies.length > 0, 'no session cookie was set');
  assert(cookies.every((c) => c.httpOnly), 'the session cookie is readable by scripts (not HttpOnly)');
  assert(cookies.some((c) => c.sameSite === 'Strict'), `the session cookie is not SameSite=Strict: ${JSON.stringify(cookies.map((c) => c.sameSite))}`);
  await page.reload();
  await page.locator('nav a[data-screen="overview"]').waitFor();
  assert(await page.locator('#signin').count() === 0, 'a reload asked for the token again');
  const who = (await page.locator('header .who').textContent()) ?? '';
  assert(who === 'admin-token-file · admin', `the header names the session's token as "${who}"`);
}, { critical: true });

// ---------------------------------------------------------------- apps

const appKey = `console-test-app-${Date.now()}`;
let deviceKey = appKey;
await step('apps: add a key, see it masked, rotate it', async () => {
  await go(page, 'apps');
  await page.getByLabel('Name', { exact: true }).fill('Console test app');
  await page.getByLabel('Key', { exact: true }).fill(appKey);
  await page.getByRole('button', { name: 'Add app' }).click();
  const row = page.locator('tr[data-app="Console test app"]');
  await row.waitFor();
  const masked = await row.locator('code.masked').textContent();
  assert(masked === `••••${appKey.slice(-4)}`, `the key shows as "${masked}"`);
  assert(!(await page.locator('main').textContent()).includes(appKey), 'the whole key is on the page');
  await row.getByRole('button', { name: /^Rotate/ }).click();
  await row.getByRole('button', { name: /^Really rotate\?/ }).click();
  await page.locator('.fresh-key:not([hidden])').waitFor();
  const list = await adminFromPage(page, 'GET', 'apps');
  const app = list.json.apps.find((a) => a.name === 'Console test app');
  assert(app && app.key !== appKey, 'the key did not change');
  deviceKey = app.key;
  const fresh = await page.locator('.fresh-key code').textContent();
  assert(fresh === `••••${app.key.slice(-4)}`, `the new key shows as "${fresh}"`);
  await shot(page, 'apps');
  await axe(page, 'apps');
});

await step('webhooks: an endpoint\'s secret is shown once; a test event arrives signed and its attempt is listed', async () => {
  const got = [];
  const receiver = createServer((req, res) => {
    let body = '';
    req.on('data', (c) => (body += c));
    req.on('end', () => {
      got.push({ headers: req.headers, body });
      res.writeHead(204);
      res.end();
    });
  });
  await new Promise((resolve) => receiver.listen(0, '127.0.0.1', resolve));
  try {
    await go(page, 'webhooks');
    await page.getByLabel('URL', { exact: true }).fill(`http://127.0.0.1:${receiver.address().port}/hooks`);
    await page.getByLabel('visit.linked').check();
    await page.getByLabel(/Allow plain http/).check();
    await page.getByRole('button', { name: 'Add endpoint' }).click();
    await page.locator('.fresh-key:not([hidden])').waitFor();
    const secret = (await page.locator('.fresh-key code').textContent()) ?? '';
    assert(/^whsec_[A-Za-z0-9+/]{43}=$/.test(secret), `the secret shows as "${secret}"`);
    const row = page.locator('tr[data-endpoint]').first();
    await row.waitFor();
    assert(!(await row.textContent()).includes(secret), 'the listing shows the whole secret');
    assert((await row.textContent()).includes('visit.linked'), 'the listing does not name the event type');
    await row.getByRole('button', { name: /^Send test/ }).click();
    for (let i = 0; i < 100 && got.length === 0; i++) await page.waitForTimeout(100);
    assert(got.length === 1, `the receiver got ${got.length} requests`);
    const { headers, body } = got[0];
    const key = Buffer.from(secret.slice('whsec_'.length), 'base64');
    const expected = crypto.createHmac('sha256', key).update(`${headers['webhook-id']}.${headers['webhook-timestamp']}.${body}`).digest('base64');
    assert(headers['webhook-signature'] === `v1,${expected}`, `the signature ${headers['webhook-signature']} is not v1,${expected}`);
    assert(JSON.parse(body).type === 'webhook.test', `the body is ${body}`);
    await row.getByRole('button', { name: /^Attempts to/ }).click();
    const attempt = page.locator('table.attempts tbody tr').first();
    await attempt.waitFor();
    assert((await attempt.textContent()).includes('204'), `the attempt reads "${await attempt.textContent()}"`);
    await shot(page, 'webhooks');
    await axe(page, 'webhooks');
  } finally {
    receiver.close();
  }
});

// ---------------------------------------------------------------- map: draw a place

const PLACE = { id: 0, lat: 48.137154, lon: 11.5754, name: 'Console Test Square' };
const CAMPAIGN = 'Console Spring';
let eventId = 0;

await step('map: the keyboard alone starts a place and cancels it', async () => {
  await go(page, 'map');
  const b = page.getByRole('button', { name: 'New place at the map centre' });
  await b.focus();
  await page.keyboard.press('Enter');
  await page.locator('.place-form:not([hidden])').waitFor();
  assert(await page.evaluate(() => document.activeElement?.getAttribute('name')) === 'name', 'the name field has not the focus');
  const outline = await page.evaluate(() => getComputedStyle(document.activeElement).outlineStyle);
  assert(outline !== 'none', 'the focused field shows no outline');
  await page.locator('.place-form').getByRole('button', { name: 'Cancel' }).focus();
  await page.keyboard.press('Enter');
  await page.locator('.place-form[hidden]').waitFor({ state: 'attached' });
});

await step('map: a click starts a place, dragging its edge sets the radius', async () => {
  await go(page, 'map');
  const map = page.locator('#map');
  await map.waitFor();
  await page.waitForTimeout(300);
  const box = await map.boundingBox();
  await page.mouse.click(box.x + box.width * 0.5, box.y + box.height * 0.5);
  await page.locator('.place-form:not([hidden])').waitFor();
  const r0 = Number(await page.locator('input[name="radius"]').inputValue());
  const edge = page.locator('.handle-edge');
  const eb = await edge.boundingBox();
  await page.mouse.move(eb.x + eb.width / 2, eb.y + eb.height / 2);
  await page.mouse.down();
  await page.mouse.move(eb.x + eb.width / 2 + 40, eb.y + eb.height / 2, { steps: 5 });
  await page.mouse.up();
  const r1 = Number(await page.locator('input[name="radius"]').inputValue());
  assert(r1 > r0, `dragging the edge outwards left the radius at ${r1} (was ${r0})`);
});

await step('map: a bad radius is refused and shown', async () => {
  const form = page.locator('.place-form');
  await form.locator('input[name="radius"]').fill('0');
  await form.locator('input[name="eventName"]').fill('x');
  await form.locator('textarea[name="alertText"]').fill('x');
  await form.locator('select[name="campaign"]').selectOption('__new__');
  await form.locator('input[name="campaignName"]').fill(CAMPAIGN);
  await form.getByRole('button', { name: 'Save place' }).click();
  const err = form.locator('.field-error:not([hidden]), .form-error:not([hidden])').first();
  await err.waitFor();
  const text = await err.textContent();
  assert(/radius/i.test(text), `the error says "${text}"`);
  const atField = await form.locator('[data-member="/properties/radius"] .field-error:not([hidden])').count();
  if (!atField) console.log('      note: the server named no member for the radius: shown at the top of the form');
});

await step('map: name the place, attach an offer of a new campaign, save', async () => {
  const form = page.locator('.place-form');
  PLACE.id = Number(await form.locator('input[name="placeId"]').inputValue());
  eventId = Number(await form.locator('input[name="eventId"]').inputValue());
  await form.locator('input[name="name"]').fill(PLACE.name);
  await form.locator('input[name="lat"]').fill(String(PLACE.lat));
  await form.locator('input[name="lon"]').fill(String(PLACE.lon));
  await form.locator('input[name="radius"]').fill('80');
  await form.locator('select[name="campaign"]').selectOption('__new__');
  await form.locator('input[name="campaignName"]').fill(CAMPAIGN);
  await form.locator('input[name="campaignStart"]').fill('2020-01-01');
  await form.locator('input[name="campaignEnd"]').fill('2035-12-31');
  await form.locator('input[name="eventName"]').fill('Free coffee');
  await form.locator('textarea[name="alertText"]').fill('Show this at the counter.');
  await form.locator('input[name="mediaUrl"]').fill('/media/console-test.html');
  await shot(page, 'map-place');
  await axe(page, 'map (editing a place)');
  await form.getByRole('button', { name: 'Save place' }).click();
  await page.locator('.place-form[hidden]').waitFor({ state: 'attached' });
  const places = await adminFromPage(page, 'GET', 'places?limit=1000');
  const p = places.json.places.find((x) => x.placeId === PLACE.id);
  assert(p, `place ${PLACE.id} was not written`);
  assert(p.radius === 80 && Math.abs(p.lat - PLACE.lat) < 1e-6, `place ${PLACE.id} is ${JSON.stringify(p)}`);
  assert(p.offers.includes(eventId), `place ${PLACE.id} carries offers ${p.offers}, not ${eventId}`);
  const stored = await pgCount(`SELECT count(*) FROM places JOIN place_offers ON place = id WHERE id = ${PLACE.id} AND radius = 80 AND offer = ${eventId}`);
  assert(stored === null || stored === 1, `PostgreSQL holds ${stored} rows of place ${PLACE.id} with offer ${eventId}`);
  await page.locator('.map-status').filter({ hasText: /1 place/ }).waitFor();
  await shot(page, 'map');
  await axe(page, 'map');
});

await step('map: a click on a circle selects it; its centre handle moves it', async () => {
  // After saving, the map is centred on the place.
  const box = await page.locator('#map').boundingBox();
  await page.mouse.click(box.x + box.width / 2, box.y + box.height / 2);
  await page.locator('#panel-title').filter({ hasText: `Place ${PLACE.id}` }).waitFor();
  assert(await page.locator('input[name="placeId"]').inputValue() === String(PLACE.id), 'another place opened');
  const c = await page.locator('.handle-centre').boundingBox();
  await page.mouse.move(c.x + c.width / 2, c.y + c.height / 2);
  await page.mouse.down();
  await page.mouse.move(c.x + c.width / 2 + 30, c.y + c.height / 2, { steps: 4 });
  await page.mouse.up();
  const lon = Number(await page.locator('input[name="lon"]').inputValue());
  assert(lon > PLACE.lon, `dragging the centre east left the longitude at ${lon}`);
  await page.locator('.place-form').getByRole('button', { name: 'Cancel' }).click();
  await page.locator('.place-form[hidden]').waitFor({ state: 'attached' });
  const stored = (await adminFromPage(page, 'GET', 'places?limit=1000')).json.places.find((x) => x.placeId === PLACE.id);
  assert(Math.abs(stored.lon - PLACE.lon) < 1e-6, 'a cancelled move was saved');
});

// ---------------------------------------------------------------- a device over HTTP

let sessionKey = '';
async function nearby() {
  const r = await http('POST', `${pub}/v2/place`, { body: { sessionKey, coordinatesList: [{ lat: String(PLACE.lat), lon: String(PLACE.lon) }], distanceThreshold: '500' } });
  assert(r.status === 200, `/v2/place answered ${r.status} ${r.text}`);
  return r.json.places;
}

await step('a device sees the offer and links it; the overview counts the link', async () => {
  const s = await http('POST', `${pub}/v1/session`, { body: { deviceId: 'CONSOLE-TEST-DEVICE', deviceType: 'iOS', deviceModel: 'iPhone', sdkkey: deviceKey } });
  assert(s.status === 200 && s.json?.sessionKey, `/v1/session answered ${s.status} ${s.text}`);
  sessionKey = s.json.sessionKey;
  const found = (await nearby()).filter((r) => r.eventId === String(eventId));
  assert(found.length === 1, `/v2/place near the place has ${found.length} records of offer ${eventId}`);
  assert(found[0].alertText === 'Show this at the counter.' && found[0].campaignName === CAMPAIGN, `the record is ${JSON.stringify(found[0])}`);
  const l = await http('POST', `${pub}/v1/deviceevent/link`, { body: { sessionKey, eventId: String(eventId), placeId: String(PLACE.id) } });
  assert(l.status === 200 && l.json.places[0].deviceEventId, `the link answered ${l.status} ${l.text}`);
  const u = await http('POST', `${pub}/v1/deviceevent/update`, { body: { sessionKey, deviceEventId: l.json.places[0].deviceEventId, statusCode: 'ack' } });
  assert(u.status === 200, `the update answered ${u.status}`);
  await go(page, 'overview');
  const card = page.locator(`section[data-campaign="${CAMPAIGN}"]`);
  await card.locator('td[data-stage="links"]').filter({ hasText: /^1$/ }).waitFor({ timeout: 12_000 });
  await card.locator('td[data-stage="ack"]').filter({ hasText: /^1$/ }).waitFor({ timeout: 12_000 });
  const state = await card.locator('.badge').first().textContent();
  assert(state === 'running', `the campaign shows as ${state}`);
  assert(await card.locator('svg.chart rect.bar').count() >= 5, 'the chart draws no bars');
  await shot(page, 'overview');
  await axe(page, 'overview');
});

// ---------------------------------------------------------------- devices

await step("devices: a device's record and its day on the map, bookmarkable; export, and erase another", async () => {
  // Six location checks walking north through the place, uploaded as the component does.
  const start = Math.floor(Date.now() / 1000) - 300;
  const day = new Date(start * 1000).toISOString().slice(0, 10);
  const checks = [...Array(6).keys()].map((i) => ({
    timestamp: String(start + 40 * i),
    lat: (PLACE.lat - 0.0006 + 0.00024 * i).toFixed(6),
    lng: PLACE.lon.toFixed(6),
    location_accuracy: '10',
    distance_from_target: '30',
    target_size: '50',
  }));
  const log = await http('POST', `${pub}/v1/log`, { body: { deviceid: 'CONSOLE-TEST-DEVICE', message: { targeting_updates: checks } } });
  assert(log.status === 200, `/v1/log answered ${log.status} ${log.text}`);
  await go(page, 'devices');
  await page.getByLabel('Device ID').fill('CONSOLE-TEST-DEVICE');
  await page.getByLabel('Day (UTC)').fill(day);
  await page.getByRole('button', { name: 'Look up' }).click();
  await page.locator('.day-summary').filter({ hasText: /positions from/ }).waitFor();
  assert((await page.locator('path.day-check').count()) >= 3, 'the map draws fewer than three location checks');
  assert((await page.locator('path.day-track').count()) === 1, 'the map draws no track');
  assert((await page.locator('path.day-place.linked').count()) === 1, 'the linked place is not marked on the map');
  assert((await page.locator('table.links tbody tr').count()) === 1, 'the day does not list its link');
  const hash = await page.evaluate(() => location.hash);
  assert(hash === `#/devices/CONSOLE-TEST-DEVICE/${day}`, `the look-up is not in the address: ${hash}`);
  await shot(page, 'device');
  await axe(page, 'devices');
  const exported = await adminFromPage(page, 'GET', 'devices/CONSOLE-TEST-DEVICE/export');
  assert(exported.status === 200 && exported.json.logMessages.count >= 1, `the export answered ${exported.status}`);
  assert((await page.locator('a[download]').getAttribute('href')) === '/admin/v1/devices/CONSOLE-TEST-DEVICE/export', 'no export link');
  // The address alone brings the same day back.
  await page.reload();
  await page.locator('.day-summary').filter({ hasText: /positions from/ }).waitFor();

  const other = await http('POST', `${pub}/v1/session`, { body: { deviceId: 'CONSOLE-ERASE-ME', deviceType: 'Android', deviceModel: 'Pixel', sdkkey: deviceKey } });
  assert(other.status === 200, `/v1/session answered ${other.status}`);
  await page.getByLabel('Device ID').fill('CONSOLE-ERASE-ME');
  await page.getByRole('button', { name: 'Look up' }).click();
  await page.locator('.day-summary').filter({ hasText: /No positions/ }).waitFor();
  await page.getByRole('button', { name: 'Erase this device' }).click();
  await page.getByRole('button', { name: /^Really erase/ }).click();
  await page.locator('#toast').filter({ hasText: /Erased CONSOLE-ERASE-ME: 1 session, 0 links/ }).waitFor();
  const gone = await adminFromPage(page, 'GET', 'devices/CONSOLE-ERASE-ME');
  assert(gone.status === 404, `the erased device still answers ${gone.status}`);
  await page.getByRole('button', { name: 'Look up' }).click();
  await page.locator('.field-error:not([hidden])').filter({ hasText: /holds nothing on CONSOLE-ERASE-ME/ }).waitFor();
});

// ---------------------------------------------------------------- campaigns

await step('campaigns: removing a campaign with offers is explained, disabling it hides its offer', async () => {
  await go(page, 'campaigns');
  const row = page.locator(`tr[data-campaign="${CAMPAIGN}"]`);
  await row.waitFor();
  await row.getByRole('button', { name: `Remove ${CAMPAIGN}` }).click();
  await row.getByRole('button', { name: /^Really remove\?/ }).click();
  const err = page.locator('main > .form-error:not([hidden])');
  await err.waitFor();
  assert(/still has offers/i.test(await err.textContent()), `the refusal says "${await err.textContent()}"`);
  await row.getByRole('button', { name: `Disable ${CAMPAIGN}` }).click();
  await row.locator('.badge[data-state="disabled"]').waitFor();
  const found = (await nearby()).filter((r) => r.eventId === String(eventId));
  assert(found.length === 0, 'the offer of a disabled campaign is still served');
  await row.getByRole('button', { name: `Enable ${CAMPAIGN}` }).click();
  await row.locator('.badge[data-state="running"]').waitFor();
});

await step('campaigns: create one, then edit its dates and cap; a scheduled campaign says so', async () => {
  const form = page.locator('form[aria-labelledby="campaign-form-title"]');
  await form.locator('input[name="name"]').fill('Console Autumn');
  await form.locator('input[name="startDate"]').fill('2034-09-01');
  await form.locator('input[name="endDate"]').fill('not a date');
  await form.getByRole('button', { name: 'Create campaign' }).click();
  await form.locator('.field-error:not([hidden]), .form-error:not([hidden])').first().waitFor();
  await form.locator('input[name="endDate"]').fill('2034-11-30');
  await form.getByRole('button', { name: 'Create campaign' }).click();
  const row = page.locator('tr[data-campaign="Console Autumn"]');
  await row.locator('.badge[data-state="scheduled"]').waitFor();
  await row.getByRole('button', { name: 'Edit Console Autumn' }).click();
  await form.locator('input[name="perDeviceCap"]').fill('2');
  await form.locator('input[name="startDate"]').fill('2020-01-01');
  await form.getByRole('button', { name: 'Save campaign' }).click();
  await row.locator('.badge[data-state="running"]').waitFor();
  assert((await row.locator('td').nth(3).textContent()) === '2', 'the cap was not saved');
});

await step('campaigns: rules (schedule, caps, priority, control group) are saved, refused when unreadable, and shown again', async () => {
  const form = page.locator('form[aria-labelledby="campaign-form-title"]');
  const row = page.locator('tr[data-campaign="Console Autumn"]');
  await row.getByRole('button', { name: 'Edit Console Autumn' }).click();
  await form.locator('input[name="windows"]').fill('mon-fri 11:30-14:00');
  await form.getByRole('button', { name: 'Save campaign' }).click();
  await form.locator('[data-member="/schedule/timeZone"] .field-error:not([hidden])').waitFor();
  await form.locator('input[name="timeZone"]').fill('Mars/Olympus');
  await form.getByRole('button', { name: 'Save campaign' }).click();
  await form.locator('.field-error:not([hidden]), .form-error:not([hidden])').filter({ hasText: /Mars\/Olympus/ }).first().waitFor();
  await form.locator('input[name="timeZone"]').fill('Europe/Berlin');
  await form.locator('input[name="windows"]').fill('mon-fri 11:30-14:00; sat 10:00-12:00');
  await form.locator('input[name="caps"]').fill('1/day, 3/week');
  await form.locator('input[name="priority"]').fill('10');
  await form.locator('input[name="controlGroup"]').fill('10');
  await shot(page, 'campaign-rules');
  await form.getByRole('button', { name: 'Save campaign' }).click();
  await page.locator('#toast').filter({ hasText: 'Saved Console Autumn.' }).waitFor();
  const saved = (await adminFromPage(page, 'GET', 'campaigns')).json.campaigns.find((c) => c.name === 'Console Autumn');
  assert(saved.schedule?.timeZone === 'Europe/Berlin' && saved.schedule.windows.length === 2, `the schedule is ${JSON.stringify(saved.schedule)}`);
  assert(JSON.stringify(saved.caps) === '[{"count":1,"per":"day"},{"count":3,"per":"week"}]', `the caps are ${JSON.stringify(saved.caps)}`);
  assert(saved.priority === 10 && saved.controlGroup === 0.1 && saved.perDeviceCap === 2, `the campaign is ${JSON.stringify(saved)}`);
  await row.getByRole('button', { name: 'Edit Console Autumn' }).click();
  assert((await form.locator('input[name="windows"]').inputValue()) === 'mon-fri 11:30-14:00; sat 10:00-12:00', 'the windows are not shown again');
  assert((await form.locator('input[name="controlGroup"]').inputValue()) === '10', 'the control group is not shown again');
  await axe(page, 'campaigns (rules)');
  await form.getByRole('button', { name: 'Cancel' }).click();
});

await step('campaigns: the offer preview shows the alert as a device would and a sandboxed page', async () => {
  const row = page.locator(`tr[data-offer="${eventId}"]`);
  await row.getByRole('button', { name: `Preview offer ${eventId}` }).click();
  const frame = page.locator('.preview iframe');
  await frame.waitFor();
  assert((await frame.getAttribute('sandbox')) === '', 'the media page is not in an empty sandbox');
  await page.locator('.preview .n-title').filter({ hasText: 'Free coffee' }).waitFor();
  await shot(page, 'campaigns');
  await axe(page, 'campaigns');
});

// ---------------------------------------------------------------- import

function feature(id, props) {
  return { type: 'Feature', geometry: { type: 'Point', coordinates: [11.58, 48.14] }, properties: { placeId: id, radius: 50, offers: [], ...props } };
}

await step('import: three faulty features are listed, nothing is written', async () => {
  const file = {
    type: 'FeatureCollection',
    features: [
      feature(9101, { radius: -5 }),
      feature(9102, { offers: [{ eventId: 9201, campaign: CAMPAIGN, eventName: 'x', alertText: 'y', eventTypeId: 7 }] }),
      feature(9103, { dwelltime: 3 }),
      feature(9104, {}),
    ],
  };
  await go(page, 'import');
  await page.locator('#import-file').setInputFiles({ name: 'faulty.geojson', mimeType: 'application/geo+json', buffer: Buffer.from(JSON.stringify(file)) });
  await page.locator('tr.problem').nth(2).waitFor();
  const rows = await page.locator('tr.problem').allTextContents();
  assert(rows.length === 3, `${rows.length} problems are listed: ${rows.join(' | ')}`);
  for (const f of ['1', '2', '3']) assert(rows.some((r) => r.startsWith(f)), `no problem names feature ${f}: ${rows.join(' | ')}`);
  assert(rows.some((r) => r.includes('/features/1/properties/offers/0/eventTypeId')), `no problem names the member eventTypeId: ${rows.join(' | ')}`);
  assert(await page.getByRole('button', { name: 'Publish' }).isDisabled(), 'Publish is offered for a faulty file');
  const places = await adminFromPage(page, 'GET', 'places?limit=1000');
  assert(!places.json.places.some((p) => p.placeId >= 9101 && p.placeId <= 9104), 'a faulty import wrote places');
  const written = await pgCount('SELECT (SELECT count(*) FROM places WHERE id BETWEEN 9101 AND 9104) + (SELECT count(*) FROM offers WHERE id = 9201)');
  assert(written === null || written === 0, `a faulty import left ${written} rows in PostgreSQL`);
  await shot(page, 'import');
  await axe(page, 'import');
});

await step('import: a valid file is checked, previewed, then published', async () => {
  const offer = { eventId: 9302, campaign: 'Imported corner days', eventName: 'Corner sale', alertText: 'Round the corner', eventTypeId: 3 };
  const file = { type: 'FeatureCollection', properties: { campaigns: [{ name: 'Imported corner days' }] }, features: [feature(9301, { name: 'Imported corner', offers: [offer] })] };
  await page.locator('#import-file').setInputFiles({ name: 'good.geojson', mimeType: 'application/geo+json', buffer: Buffer.from(JSON.stringify(file)) });
  await page.locator('.import-result .ok').filter({ hasText: 'is valid' }).waitFor();
  if (args.sim) {
    // A budget of 100 device-days: over a week, 14 devices.
    await page.locator('#preview-days').selectOption('7');
    await page.getByRole('button', { name: 'Preview' }).click();
    await page.locator('.preview-summary').filter({ hasText: /14 simulated devices over 7 days/ }).waitFor({ timeout: 30_000 });
    const row = page.locator('tr[data-offer="9302@9301"]');
    await row.waitFor();
    assert(/named to 0 devices now/.test(await row.locator('td.reasons').textContent()), 'the new offer is not shown as new');
    await shot(page, 'import-preview');
    await axe(page, 'import (preview)');
  }
  let places = await adminFromPage(page, 'GET', 'places?limit=1000');
  assert(!places.json.places.some((p) => p.placeId === 9301), 'the dry run wrote the place');
  assert([null, 0].includes(await pgCount('SELECT count(*) FROM places WHERE id = 9301')), 'the dry run wrote the place to PostgreSQL');
  await page.getByRole('button', { name: 'Publish' }).click();
  await page.locator('.import-result .ok').filter({ hasText: 'Published' }).waitFor();
  places = await adminFromPage(page, 'GET', 'places?limit=1000');
  assert(places.json.places.some((p) => p.placeId === 9301), 'publishing wrote nothing');
  assert([null, 1].includes(await pgCount("SELECT count(*) FROM places WHERE id = 9301 AND name = 'Imported corner'")), 'the published place is not in PostgreSQL');
});

await step('map: disable, then remove a place', async () => {
  await go(page, 'map');
  await page.locator('.map-status').filter({ hasText: /place/ }).waitFor();
  const open = async () => {
    await page.getByLabel('Find a place by id').fill('9301');
    await page.getByRole('button', { name: 'Open place' }).click();
    await page.locator('#panel-title').filter({ hasText: 'Place 9301' }).waitFor();
  };
  await open();
  await page.getByRole('button', { name: 'Disable place' }).click();
  await page.locator('.place-form[hidden]').waitFor({ state: 'attached' });
  let p = (await adminFromPage(page, 'GET', 'places?limit=1000')).json.places.find((x) => x.placeId === 9301);
  assert(p && p.disabled === true, `place 9301 is ${JSON.stringify(p)}`);
  await open();
  await page.locator('#panel-title').filter({ hasText: 'disabled' }).waitFor();
  await page.getByRole('button', { name: 'Remove place' }).click();
  await page.getByRole('button', { name: 'Really remove?' }).click();
  await page.locator('.place-form[hidden]').waitFor({ state: 'attached' });
  p = (await adminFromPage(page, 'GET', 'places?limit=1000')).json.places.find((x) => x.placeId === 9301);
  assert(!p, 'place 9301 is still there');
});

// ---------------------------------------------------------------- hostile text

const HOSTILE = '<img src=x onerror=alert(1)>';
await step('a hostile offer name stays text on every screen', async () => {
  const r = await adminFromPage(page, 'POST', 'places', {
    type: 'Feature',
    geometry: { type: 'Point', coordinates: [11.5761, 48.1372] },
    properties: { placeId: 9401, name: '<b onmouseover=alert(2)>x</b>', radius: 30, offers: [{ eventId: 9402, campaign: CAMPAIGN, eventName: HOSTILE, alertText: '<script>alert(3)</script>', eventTypeId: 1 }] },
  });
  assert(r.status === 200 || r.status === 201, `POST places answered ${r.status} ${JSON.stringify(r.json)}`);
  const before = seen.dialogs.length;
  await go(page, 'overview');
  await page.locator(`section[data-campaign="${CAMPAIGN}"] details summary`).click();
  await page.locator('[data-offer="9402"] .offer-name').filter({ hasText: HOSTILE }).waitFor();
  await go(page, 'campaigns');
  await page.locator('tr[data-offer="9402"] .offer-name').filter({ hasText: HOSTILE }).waitFor();
  await page.getByRole('button', { name: 'Preview offer 9402' }).click();
  await page.locator('.preview .n-title').filter({ hasText: HOSTILE }).waitFor();
  await go(page, 'map');
  await page.locator('.map-status').filter({ hasText: /place/ }).waitFor();
  await page.getByLabel('Find a place by id').fill('9401');
  await page.getByRole('button', { name: 'Open place' }).click();
  await page.locator('input[name="eventName"]').first().waitFor();
  assert((await page.locator('input[name="eventName"]').first().inputValue()) === HOSTILE, 'the offer name was altered in the form');
  await page.getByRole('button', { name: 'Cancel' }).click();
  await page.waitForTimeout(300);
  assert(await page.locator('img[src="x"], b[onmouseover]').count() === 0, 'the hostile markup became elements');
  assert(seen.dialogs.length === before, `a dialog fired: ${seen.dialogs.join(' | ')}`);
});

// ---------------------------------------------------------------- conflicts between two editors

await step('two editors of one place: the second sees the conflict', async () => {
  const probe = await adminFromPage(page, 'GET', `places/${PLACE.id}`);
  const list = await adminFromPage(page, 'GET', 'places?limit=1000');
  if (!probe.etag && !list.etag) throw new Skip('the server answers no ETag for places (neither GET places/ID nor GET places): conflicts cannot be detected');
  const ctxB = await newContext();
  try {
    const pageB = await ctxB.newPage();
    await pageB.goto(`${adm}/console/#/map`);
    await signIn(pageB, token);
    const open = async (p) => {
      await go(p, 'map');
      await p.locator('.map-status').filter({ hasText: /place/ }).waitFor();
      await p.getByLabel('Find a place by id').fill(String(PLACE.id));
      await p.getByRole('button', { name: 'Open place' }).click();
      await p.locator('.place-form:not([hidden]) textarea[name="alertText"]').first().waitFor();
    };
    await open(page);
    await open(pageB);
    for (const [p, n] of [[page, 'first'], [pageB, 'second']]) {
      const form = p.locator('.place-form');
      await form.locator('input[name="name"]').fill(`${PLACE.name} (${n})`);
      const alert = form.locator('textarea[name="alertText"]').first();
      if (!(await alert.inputValue())) await alert.fill('Show this at the counter.');
    }
    await page.locator('.place-form').getByRole('button', { name: 'Save place' }).click();
    await page.locator('.place-form[hidden]').waitFor({ state: 'attached' });
    await pageB.locator('.place-form').getByRole('button', { name: 'Save place' }).click();
    await pageB.locator('.conflict').waitFor();
    await pageB.getByRole('button', { name: 'Reload' }).waitFor();
    await pageB.screenshot({ path: shotFile('map-conflict') });
    const p = (await adminFromPage(page, 'GET', 'places?limit=1000')).json.places.find((x) => x.placeId === PLACE.id);
    assert(p.name === `${PLACE.name} (first)`, `the second editor overwrote the first: ${p.name}`);
  } finally {
    await ctxB.close();
  }
});

// ---------------------------------------------------------------- CSRF, origins, the public listener

await step('a change without the CSRF header, or from a foreign Origin, is refused', async () => {
  const noHeader = await page.evaluate(async () => {
    const r = await fetch('/admin/v1/campaigns', { method: 'POST', credentials: 'same-origin', headers: { 'Content-Type': 'application/json' }, body: '{"name":"Forged"}' });
    return r.status;
  });
  assert(noHeader === 403, `a POST without X-CSRF-Token answered ${noHeader}`);
  const cookie = (await ctx.cookies()).map((c) => `${c.name}=${c.value}`).join('; ');
  const csrf = (await adminFromPage(page, 'GET', 'campaigns')) && (await page.evaluate(async () => (await (await fetch('/console/api/session')).json()).csrf));
  const foreign = await http('POST', `${adm}/admin/v1/campaigns`, { body: { name: 'Forged' }, headers: { Cookie: cookie, 'X-CSRF-Token': csrf, Origin: 'http://evil.example' } });
  assert(foreign.status === 403, `a POST from a foreign Origin answered ${foreign.status}`);
  const list = await adminFromPage(page, 'GET', 'campaigns');
  assert(!list.json.campaigns.some((c) => c.name === 'Forged'), 'a refused POST wrote a campaign');
});

await step('the public listener does not serve the console', async () => {
  for (const p of ['/console/', '/console/index.html', '/console/api/session']) {
    const r = await http('GET', `${pub}${p}`);
    assert(r.status === 404, `GET ${p} on the public listener answered ${r.status}`);
  }
});

// ---------------------------------------------------------------- small screens, sign-out

await step('every screen at 390×844', async () => {
  const small = await newContext({ width: 390, height: 844 });
  try {
    const p = await small.newPage();
    await p.goto(`${adm}/console/`);
    await p.locator('#signin').waitFor();
    await p.screenshot({ path: shotFile('signin-390') });
    await signIn(p, token);
    for (const s of ['overview', 'map', 'campaigns', 'devices', 'import', 'apps', 'webhooks']) {
      await go(p, s);
      await p.waitForTimeout(400);
      const wide = await p.evaluate(() => {
        const over = [...document.querySelectorAll('body *')].filter((e) => e.getBoundingClientRect().right > window.innerWidth + 1 && !e.closest('.leaflet-container'));
        return { width: document.documentElement.scrollWidth, over: over.slice(0, 3).map((e) => `${e.tagName.toLowerCase()}.${e.className}`) };
      });
      assert(wide.width <= 392, `${s} is ${wide.width} px wide at 390: ${wide.over.join(', ')}`);
      await p.screenshot({ path: shotFile(`${s}-390`), fullPage: false });
    }
  } finally {
    await small.close();
  }
});

await step('a lost session returns to the sign-in screen; signing out ends the session', async () => {
  const other = await newContext();
  try {
    const p = await other.newPage();
    await p.goto(`${adm}/console/`);
    await signIn(p, token);
    await p.locator('nav').waitFor();
    await other.clearCookies();
    await p.evaluate(() => (location.hash = '#/campaigns'));
    await p.locator('#signin').waitFor();
  } finally {
    await other.close();
  }
  await page.getByRole('button', { name: 'Sign out' }).click();
  await page.locator('#signin').waitFor();
  const status = await page.evaluate(async () => (await fetch('/console/api/session')).status);
  assert(status === 401, `the session still answers ${status} after signing out`);
});

await step('repeated wrong tokens are slowed down with 429 and the wait is shown', async () => {
  // Last: the address is refused for the rest of the minute.
  const p = await (await newContext()).newPage();
  await p.goto(`${adm}/console/`);
  let last = 0;
  for (let i = 0; i < 8 && last !== 429; i++) {
    const answer = p.waitForResponse((r) => r.url().endsWith('/console/api/session') && r.request().method() === 'POST');
    await signIn(p, `wrong-token-number-${i}`);
    const r = await answer;
    last = r.status();
    if (last === 429) assert(r.headers()['retry-after'], '429 without Retry-After');
  }
  assert(last === 429, `8 wrong tokens in a row were never answered 429 (last: ${last})`);
  await p.locator('#signin .form-error').filter({ hasText: /try again in \d+ s/ }).waitFor();
});

await step('no CSP violations and no script errors on the way', async () => {
  assert(seen.csp.length === 0, `CSP refused: ${seen.csp.join(' | ')}`);
  assert(seen.errors.length === 0, `script errors: ${seen.errors.join(' | ')}`);
});

await finish();
