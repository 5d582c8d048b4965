#!/usr/bin/env node
// Panning the console's map at city zoom, with a city-sized catalogue beside a small one.
//
//   node bench/console/pan_bench.mjs [--places N] [--baseline N] [--pans K] [--zoom Z]
//        [--server build/dev/server/tovrel-server] [--dist build/dev/share/tovrel/console]
//        [--chromium /usr/bin/chromium] [--timeout S] [--headed]
//
// For each catalogue (the baseline of --baseline places first, then --places places, both spread over
// the same 40 km × 40 km around 48.137,11.575, each place with one offer of one of 20 campaigns) the
// script writes a place file, imports it with `tovrel-server import` (timed), serves it on 127.0.0.1,
// opens the console in headless Chromium at 1280×800, signs in, opens #/map, zooms to --zoom with the
// map's zoom control and drags the map K times. Printed: the import time, the time until the first
// view is drawn, each pan's time (end of the drag to the new view's circles drawn), the median and p90,
// the ratio of the medians (N places / baseline), and the gzip -9 bytes of the scripts the page loads
// before the map is opened and with it. The goals (≤ 1500 ms a pan at city zoom, ≤ 300 KB of script)
// are shown as PASS or OVER; they do not change the exit status: 0 when the run completed, 1 when it
// failed. Times are wall-clock on this machine: on a machine busy with other work they run high.

import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import zlib from 'node:zlib';
import { createRequire } from 'node:module';
import { parseArgs } from 'node:util';
import { fileURLToPath } from 'node:url';

import { startTovrelServer } from '../../tests/console/tovrel_server.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const repo = path.resolve(here, '../..');
const consoleDir = path.join(repo, 'console');
const require = createRequire(path.join(consoleDir, 'package.json'));

const USAGE = `usage: node bench/console/pan_bench.mjs [options]
  --places N     places of the measured catalogue (default 100000)
  --baseline N   places of the baseline catalogue, same area (default 1000)
  --pans K       drags of the map per catalogue (default 10)
  --zoom Z       the zoom the pans are made at (default 14: a few streets wide)
  --server PATH  tovrel-server (default build/dev/server/tovrel-server)
  --dist DIR     the built console (default build/dev/share/tovrel/console)
  --chromium P   Chromium (default /usr/bin/chromium)
  --timeout S    the whole run at most (default 1200)
  --headed       show the browser
  --help         this text`;

let args;
try {
  ({ values: args } = parseArgs({
    options: {
      places: { type: 'string', default: '100000' },
      baseline: { type: 'string', default: '1000' },
      pans: { type: 'string', default: '10' },
      zoom: { type: 'string', default: '14' },
      server: { type: 'string', default: path.join(repo, 'build/dev/server/tovrel-server') },
      dist: { type: 'string', default: path.join(repo, 'build/dev/share/tovrel/console') },
      chromium: { type: 'string', default: '/usr/bin/chromium' },
      timeout: { type: 'string', default: '1200' },
      headed: { type: 'boolean', default: false },
      help: { type: 'boolean', default: false },
    },
  }));
} catch (e) {
  console.error(`${e.message}\n${USAGE}`);
  process.exit(2);
}
if (args.help) {
  console.log(USAGE);
  process.exit(0);
}
const whole = (name, min) => {
  const v = Number(args[name]);
  if (!Number.isInteger(v) || v < min) {
    console.error(`--${name} must be a whole number ≥ ${min}\n${USAGE}`);
    process.exit(2);
  }
  return v;
};
const N = whole('places', 1);
const BASE = whole('baseline', 1);
const PANS = whole('pans', 1);
const ZOOM = whole('zoom', 3);
const TIMEOUT_S = whole('timeout', 10);
for (const [what, p] of [['--server', args.server], ['--chromium', args.chromium], ['--dist', path.join(args.dist, 'index.html')]]) {
  if (!fs.existsSync(p)) {
    console.error(`${what}: ${p} does not exist`);
    process.exit(2);
  }
}
const { chromium } = require('playwright-core');

const GOAL_PAN_MS = 1500;
const GOAL_SCRIPT_BYTES = 300 * 1024;
const CENTRE = { lat: 48.137, lon: 11.575 };
const HALF_KM = 20;
const CAMPAIGNS = 20;
const WAIT_MS = 15_000;
const PAN_WAIT_MS = 120_000;
const FIRST_VIEW_WAIT_MS = 600_000;

// ---------------------------------------------------------------- clean-up

const tmp = fs.mkdtempSync(path.join(os.tmpdir(), 'tovrel-pan-bench-'));
let server = null;
let browser = null;
let ending = false;

function killServer() {
  if (server && server.exitCode === null && server.signalCode === null) server.kill('SIGKILL');
}
process.on('exit', () => {
  killServer();
  fs.rmSync(tmp, { recursive: true, force: true });
});
async function end(status, message) {
  if (ending) return;
  ending = true;
  if (message) console.error(message);
  try {
    await Promise.race([browser?.close(), new Promise((r) => setTimeout(r, 5000))]);
  } catch {}
  await stopServer();
  process.exit(status);
}
for (const signal of ['SIGINT', 'SIGTERM', 'SIGHUP']) process.on(signal, () => void end(1, `stopped by ${signal}`));
setTimeout(() => void end(1, `the run took over ${TIMEOUT_S} s`), TIMEOUT_S * 1000).unref();

// ---------------------------------------------------------------- the place file

/** A small seeded generator (mulberry32): the same catalogue on every run. */
function random(seed) {
  let a = seed >>> 0;
  return () => {
    a = (a + 0x6d2b79f5) >>> 0;
    let t = a;
    t = Math.imul(t ^ (t >>> 15), t | 1);
    t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
}

/** Writes N places spread evenly over 40 km × 40 km around the centre, one offer each. */
async function writePlaces(file, count) {
  const rnd = random(20260415);
  const dLat = HALF_KM / 111.32;
  const dLon = HALF_KM / (111.32 * Math.cos((CENTRE.lat * Math.PI) / 180));
  const campaigns = Array.from({ length: CAMPAIGNS }, (_, i) => ({ name: `Campaign ${String(i + 1).padStart(2, '0')}`, startDate: '2020-01-01', endDate: '2035-12-31' }));
  const out = fs.createWriteStream(file);
  const write = (s) => (out.write(s) ? null : new Promise((r) => out.once('drain', r)));
  await write(`{"type":"FeatureCollection","properties":${JSON.stringify({ apps: [{ key: 'bench-key', name: 'Bench' }], campaigns })},"features":[\n`);
  for (let i = 1; i <= count; i++) {
    const lat = +(CENTRE.lat + (rnd() * 2 - 1) * dLat).toFixed(6);
    const lon = +(CENTRE.lon + (rnd() * 2 - 1) * dLon).toFixed(6);
    const campaign = campaigns[Math.floor(rnd() * CAMPAIGNS)].name;
    const feature = {
      type: 'Feature',
      geometry: { type: 'Point', coordinates: [lon, lat] },
      properties: {
        placeId: i,
        name: `Place ${i}`,
        radius: [40, 60, 80, 100, 150][Math.floor(rnd() * 5)],
        offers: [{ eventId: i, campaign, eventName: `Offer ${i}`, alertText: `Show this at place ${i}.`, eventTypeId: 1 + Math.floor(rnd() * 3) }],
      },
    };
    await write(`${i > 1 ? ',' : ''}${JSON.stringify(feature)}\n`);
  }
  await write(']}\n');
  await new Promise((resolve, reject) => out.end((e) => (e ? reject(e) : resolve())));
}

// ---------------------------------------------------------------- the server

const serverLog = [];

async function startServer(db, tokenFile) {
  const started = await startTovrelServer({ binary: args.server, db, tokenFile, dist: args.dist, log: serverLog, waitMs: WAIT_MS });
  server = started.process;
  return `http://${started.admin}`;
}

async function stopServer() {
  const s = server;
  if (!s || s.exitCode !== null || s.signalCode !== null) return;
  const gone = new Promise((r) => s.once('exit', r));
  s.kill('SIGTERM');
  await Promise.race([gone, new Promise((r) => setTimeout(r, 5000))]);
  if (s.exitCode === null && s.signalCode === null) {
    s.kill('SIGKILL');
    await Promise.race([gone, new Promise((r) => setTimeout(r, 2000))]);
  }
}

// ---------------------------------------------------------------- what the page reports

// Runs in the page before its own scripts. It counts the map's place requests (GET /admin/v1/places?...)
// from the call of fetch until the body has been read, and remembers the time of the last pointerup.
function instrument() {
  const b = { inflight: 0, anyInflight: 0, started: 0, starts: [], lastStart: -1, lastDone: -1, lastUrl: '', up: -1 };
  window.__bench = b;
  const original = window.fetch;
  window.fetch = function (input, init) {
    const url = typeof input === 'string' ? input : input instanceof URL ? input.href : input.url;
    const places = /\/admin\/v1\/places\?/.test(url);
    const admin = /\/admin\/v1\//.test(url);
    if (!admin) return original.call(this, input, init);
    b.anyInflight++;
    if (places) {
      b.inflight++;
      b.started++;
      b.lastStart = performance.now();
      b.starts.push(b.lastStart);
      if (b.starts.length > 1000) b.starts.splice(0, 500);
      b.lastUrl = url;
    }
    let open = true;
    const close = () => {
      if (!open) return;
      open = false;
      b.anyInflight--;
      if (places) {
        b.inflight--;
        b.lastDone = performance.now();
      }
    };
    return original.call(this, input, init).then(
      (res) => {
        for (const m of ['text', 'json', 'arrayBuffer', 'blob']) {
          const read = res[m].bind(res);
          res[m] = () => read().finally(close);
        }
        return res;
      },
      (e) => {
        close();
        throw e;
      },
    );
  };
  addEventListener('pointerup', (e) => (b.up = e.timeStamp), true);
  addEventListener('mouseup', (e) => (b.up = Math.max(b.up, e.timeStamp)), true);
}

// The signal that a view is drawn. A move of the map (a drag's end, a zoom) makes the map screen ask
// for the places of the new box, page after page; each page's circles go to Leaflet's canvas, which
// paints them in its next animation frame. So the view counts as drawn when
//   1. a places request started after the gesture ended (the moveend of this gesture was handled),
//   2. no places request is in flight and the last body has been read (the next page, if any, is
//      asked for in the same task as the previous body is handled, so a frame never sees the gap),
//   3. and that stayed so over two animation frames: the canvas redraw requested while the last page
//      was merged ran in the first of them, and the second starts after that frame was presented.
// The time is that of the second frame, minus the pointerup's timestamp (the same clock).
// `initial` also waits for every other admin request (the campaigns and offers that colour the
// circles) and for the status line.
function waitDrawn({ initial, limit }) {
  const b = window.__bench;
  const since = initial ? 0 : b.up;
  const t0 = performance.now();
  return new Promise((resolve) => {
    let calm = 0;
    const tick = () => {
      const now = performance.now();
      if (now - t0 > limit) return resolve({ timeout: true, ms: now - since, url: b.lastUrl });
      const status = document.querySelector('.map-status')?.textContent ?? '';
      const settled =
        b.lastStart >= since && b.inflight === 0 && b.lastDone >= b.lastStart && (!initial || (b.anyInflight === 0 && /place/.test(status)));
      calm = settled ? calm + 1 : 0;
      if (calm >= 2) return resolve({ timeout: false, ms: now - since, url: b.lastUrl, pages: initial ? b.started : b.starts.filter((x) => x >= since).length, status });
      requestAnimationFrame(tick);
    };
    requestAnimationFrame(tick);
  });
}

/** The zoom of the last box asked for: Leaflet's bounds span the map's width in pixels at 256·2^z a turn. */
async function currentZoom(page) {
  return page.evaluate(() => {
    const m = /bbox=([-\d.]+),([-\d.]+),([-\d.]+),([-\d.]+)/.exec(window.__bench.lastUrl);
    if (!m) return null;
    let dLon = Number(m[3]) - Number(m[1]);
    if (dLon <= 0) dLon += 360;
    const width = document.getElementById('map').clientWidth;
    return Math.log2((width * 360) / (256 * dLon));
  });
}

// ---------------------------------------------------------------- one catalogue

const median = (xs) => quantile(xs, 0.5);
function quantile(xs, q) {
  const s = [...xs].sort((a, b) => a - b);
  if (!s.length) return NaN;
  const i = (s.length - 1) * q;
  const lo = Math.floor(i);
  return s[lo] + (s[Math.min(lo + 1, s.length - 1)] - s[lo]) * (i - lo);
}

// The drags, in pixels: a loop that leaves the centre by at most two steps (~5 km at zoom 14), so every
// view stays inside the catalogue's area, and half of each new view was not on screen before.
const DRAGS = [[-420, 0], [0, -320], [420, 0], [420, 0], [0, 320], [0, 320], [-420, 0], [-420, 0], [0, -320], [0, -320], [420, 0], [0, 320]];

async function measure(count, { scripts }) {
  const dir = fs.mkdtempSync(path.join(tmp, `run-${count}-`));
  const file = path.join(dir, 'places.geojson');
  const db = path.join(dir, 'db.sqlite');
  const tokenFile = path.join(dir, 'admin-token');
  const token = `pan-bench-${Math.random().toString(36).slice(2)}${Math.random().toString(36).slice(2)}`;
  fs.writeFileSync(tokenFile, `${token}\n`, { mode: 0o600 });
  fs.chmodSync(tokenFile, 0o600);
  const r = { places: count };

  let t = performance.now();
  await writePlaces(file, count);
  r.writeMs = performance.now() - t;
  r.fileBytes = fs.statSync(file).size;

  t = performance.now();
  const imp = spawnSync(args.server, ['import', file, '--db', db], { encoding: 'utf8', timeout: 600_000, killSignal: 'SIGKILL' });
  r.importMs = performance.now() - t;
  if (imp.status !== 0) throw new Error(`import of ${count} places failed (${imp.status ?? imp.signal}): ${(imp.stderr || imp.stdout || '').slice(-2000)}`);
  fs.rmSync(file);
  console.log(`${count} places: file ${(r.fileBytes / 1e6).toFixed(1)} MB written in ${(r.writeMs / 1000).toFixed(1)} s, imported in ${(r.importMs / 1000).toFixed(1)} s`);

  const adm = await startServer(db, tokenFile);
  const ctx = await browser.newContext({ viewport: { width: 1280, height: 800 }, baseURL: adm });
  ctx.setDefaultTimeout(WAIT_MS);
  try {
    const page = await ctx.newPage();
    await page.addInitScript(instrument);
    const errors = [];
    page.on('pageerror', (e) => errors.push(String(e)));

    // Every script the page loads, and whether the map had been opened when it came.
    const loaded = [];
    let mapOpened = false;
    page.on('response', (res) => {
      const url = res.url();
      if (res.request().resourceType() !== 'script' && !/\.m?js(\?|$)/.test(url)) return;
      const withMap = mapOpened;
      loaded.push(
        res.body().then(
          (body) => ({ url, withMap, bytes: body.length, gzip: zlib.gzipSync(body, { level: 9 }).length }),
          () => ({ url, withMap, bytes: 0, gzip: 0 }),
        ),
      );
    });

    await page.goto(`${adm}/console/`, { waitUntil: 'load', timeout: WAIT_MS });
    await page.locator('#signin input[type="password"]').fill(token);
    await page.locator('#signin button[type="submit"]').click();
    await page.locator('nav a[data-screen="overview"][aria-current="page"]').waitFor();
    await page.waitForLoadState('networkidle', { timeout: WAIT_MS }).catch(() => {});

    mapOpened = true;
    t = performance.now();
    await page.evaluate(() => (location.hash = '#/map'));
    await page.locator('nav a[data-screen="map"][aria-current="page"]').waitFor();
    await page.locator('#map').waitFor();
    const first = await page.evaluate(waitDrawn, { initial: true, limit: FIRST_VIEW_WAIT_MS });
    if (first.timeout) throw new Error(`the first view of ${count} places was not drawn in ${FIRST_VIEW_WAIT_MS / 1000} s`);
    r.firstViewMs = performance.now() - t;
    r.firstStatus = first.status;
    r.firstPages = first.pages;
    r.firstZoom = await currentZoom(page);
    console.log(`  first view: ${(r.firstViewMs / 1000).toFixed(1)} s, ${first.pages} places requests, zoom ${r.firstZoom?.toFixed(1)}, "${first.status}"`);

    // To the pans' zoom with the map's own control, one step at a time, each step's view drawn.
    for (let i = 0; i < 20; i++) {
      const z = await currentZoom(page);
      if (z !== null && Math.abs(z - ZOOM) < 0.5) break;
      const control = z === null || z < ZOOM ? '.leaflet-control-zoom-in' : '.leaflet-control-zoom-out';
      const s0 = performance.now();
      await page.locator(control).click();
      const step = await page.evaluate(waitDrawn, { initial: false, limit: PAN_WAIT_MS });
      if (step.timeout) throw new Error(`a zoom step was not drawn in ${PAN_WAIT_MS / 1000} s`);
      console.log(`  zoom step to ${(await currentZoom(page))?.toFixed(1)}: ${Math.round(performance.now() - s0)} ms`);
    }
    r.zoom = await currentZoom(page);
    if (r.zoom === null || Math.abs(r.zoom - ZOOM) >= 0.5) throw new Error(`the map did not reach zoom ${ZOOM} (it is at ${r.zoom})`);

    const box = await page.locator('#map').boundingBox();
    const cx = box.x + box.width / 2;
    const cy = box.y + box.height / 2;
    r.pans = [];
    for (let i = 0; i < PANS; i++) {
      const [dx, dy] = DRAGS[i % DRAGS.length];
      const x0 = cx - dx / 2;
      const y0 = cy - dy / 2;
      await page.mouse.move(x0, y0);
      await page.mouse.down();
      await page.mouse.move(x0 + dx, y0 + dy, { steps: 12 });
      // Still for longer than the 50 ms Leaflet looks back over, then one pixel: the drag ends without
      // inertia, so its moveend comes with the pointerup and the time is that of the new view alone.
      await page.waitForTimeout(80);
      await page.mouse.move(x0 + dx + 1, y0 + dy);
      await page.waitForTimeout(60);
      await page.mouse.up();
      const pan = await page.evaluate(waitDrawn, { initial: false, limit: PAN_WAIT_MS });
      if (pan.timeout) throw new Error(`pan ${i + 1} was not drawn in ${PAN_WAIT_MS / 1000} s (last request ${pan.url})`);
      r.pans.push(pan.ms);
      r.lastStatus = pan.status;
      console.log(`  pan ${i + 1}: ${Math.round(pan.ms)} ms, ${pan.pages} places request${pan.pages === 1 ? '' : 's'}, "${pan.status}"`);
    }
    if (await page.locator('.place-form:not([hidden])').count()) throw new Error('a drag opened the place form: the pans were taken for clicks');
    if (errors.length) throw new Error(`script errors: ${errors.join(' | ')}`);

    if (scripts) {
      const all = await Promise.all(loaded);
      const byUrl = new Map();
      for (const s of all) if (!byUrl.has(s.url)) byUrl.set(s.url, s);
      const list = [...byUrl.values()];
      r.scripts = {
        firstGzip: list.filter((s) => !s.withMap).reduce((a, s) => a + s.gzip, 0),
        mapGzip: list.reduce((a, s) => a + s.gzip, 0),
        files: list.map((s) => `${path.basename(new URL(s.url).pathname)}${s.withMap ? ' (map)' : ''}: ${s.bytes} B, ${s.gzip} B gzip`),
      };
    }
  } finally {
    await ctx.close().catch(() => {});
    await stopServer();
    server = null;
    fs.rmSync(dir, { recursive: true, force: true });
  }
  r.median = median(r.pans);
  r.p90 = quantile(r.pans, 0.9);
  return r;
}

/** The scripts of the built console, gzip -9 each: the entry's import graph, and the map's chunk. */
function scriptsOnDisk() {
  const assets = path.join(args.dist, 'assets');
  const files = fs.readdirSync(assets).filter((f) => f.endsWith('.js'));
  const sizes = Object.fromEntries(files.map((f) => [f, zlib.gzipSync(fs.readFileSync(path.join(assets, f)), { level: 9 }).length]));
  const html = fs.readFileSync(path.join(args.dist, 'index.html'), 'utf8');
  const entry = files.filter((f) => html.includes(`assets/${f}`));
  return { first: entry.reduce((a, f) => a + sizes[f], 0), all: files.reduce((a, f) => a + sizes[f], 0), sizes };
}

// ---------------------------------------------------------------- the run

try {
  const cpus = os.cpus().length;
  const load = os.loadavg()[0];
  console.log(`pan benchmark: ${BASE} places (baseline) and ${N} places over 40 km × 40 km, ${PANS} pans at zoom ${ZOOM}, 1280×800`);
  console.log(`machine: ${cpus} cores, load average ${load.toFixed(2)} at the start${load > cpus / 2 ? ' (busy: the times run high)' : ''}`);
  browser = await chromium.launch({ executablePath: args.chromium, headless: !args.headed, timeout: 30_000, args: ['--no-sandbox', '--disable-gpu'] });
  const base = await measure(BASE, { scripts: true });
  const big = await measure(N, { scripts: false });
  const disk = scriptsOnDisk();
  const kb = (b) => `${(b / 1024).toFixed(1)} KB`;
  const ms = (x) => `${Math.round(x)}`;
  const ratio = big.median / base.median;
  const goal = (ok) => (ok ? 'PASS' : 'OVER');

  console.log('\nscripts loaded (network, gzip -9):');
  for (const f of base.scripts.files) console.log(`  ${f}`);
  console.log(`  on disk: first load ${kb(disk.first)}, every chunk ${kb(disk.all)}`);

  console.log('\n| places | import (s) | first view (s) | median pan (ms) | p90 pan (ms) | ratio to baseline | goal ≤ 1500 ms |');
  console.log('|---:|---:|---:|---:|---:|---:|---|');
  for (const x of [base, big]) {
    const isBase = x === base;
    console.log(`| ${x.places.toLocaleString('en')} | ${(x.importMs / 1000).toFixed(1)} | ${(x.firstViewMs / 1000).toFixed(1)} | ${ms(x.median)} | ${ms(x.p90)} | ${isBase ? '1.00 (baseline)' : ratio.toFixed(2)} | ${goal(x.p90 <= GOAL_PAN_MS)} (p90) |`);
  }
  console.log('\n| script, gzip -9 | bytes | goal ≤ 300 KB |');
  console.log('|---|---:|---|');
  console.log(`| first load (before the map) | ${kb(base.scripts.firstGzip)} | ${goal(base.scripts.firstGzip <= GOAL_SCRIPT_BYTES)} |`);
  console.log(`| with the map | ${kb(base.scripts.mapGzip)} | ${goal(base.scripts.mapGzip <= GOAL_SCRIPT_BYTES)} |`);
  console.log(`\nratio (median pan, ${N.toLocaleString('en')} places / ${BASE.toLocaleString('en')} places): ${ratio.toFixed(2)}`);
  console.log(`status line after the last pan: ${BASE} places: "${base.lastStatus}"; ${N} places: "${big.lastStatus}"`);
  console.log(`load average at the end: ${os.loadavg()[0].toFixed(2)} on ${cpus} cores`);
  await end(0);
} catch (e) {
  if (serverLog.length) console.error(`--- last lines of the server\n${serverLog.slice(-10).join('\n')}`);
  await end(1, `the run failed: ${e?.stack ?? e}`);
}
