import L from 'leaflet';
import 'leaflet/dist/leaflet.css';
import { admin, ApiError, seg, signedInAs } from '../api';
import { confirmButton, field, h, input, labelCells, replace } from '../dom';
import { clearErrors, formError, showError, showMessage, toast } from '../forms';
import { utcDay, type Place } from '../model';
import {
  clockTime,
  devicePath,
  linkState,
  longestGap,
  parseDevicePath,
  todayUtc,
  trackBox,
  type DeviceDay,
  type DeviceLink,
  type DeviceRecord,
} from '../day';
import { savedTiles, tileLayer } from '../tiles';

/** Places this far around the track are drawn: the component watches the places near it, not only those it entered. */
const PLACE_MARGIN_M = 500;
/** A stretch without positions longer than this is pointed out: the track across it is a guess. */
const GAP_NOTED_S = 600;

function when(seconds: number | null | undefined): string {
  return seconds ? `${utcDay(seconds)} ${clockTime(seconds)}` : '—';
}

function count(n: number, what: string): string {
  return `${n} ${what}${n === 1 ? '' : 's'}`;
}

function minutes(seconds: number): string {
  return seconds >= 5400 ? `${(seconds / 3600).toFixed(1)} h` : `${Math.round(seconds / 60)} min`;
}

function recordCard(d: DeviceRecord, onErase: () => Promise<void>): HTMLElement {
  const rows: [string, string][] = [
    ['Type', [d.deviceType, d.deviceModel].filter(Boolean).join(' · ') || '—'],
    ['App key', d.appKey || '—'],
    ['First seen (UTC)', when(d.firstSeen)],
    ['Last seen (UTC)', when(d.lastSeen)],
    ['Sessions', String(d.sessions.length)],
    ['Links', String(d.links.length)],
    ['Log messages', String(d.logMessages.count)],
  ];
  const mayErase = signedInAs()?.role === 'admin';
  return h(
    'section',
    { class: 'card', 'aria-labelledby': 'device-title' },
    h('div', { class: 'card-head' }, h('h2', { id: 'device-title' }, h('code', {}, d.deviceId))),
    h('dl', { class: 'facts' }, rows.flatMap(([k, v]) => [h('dt', {}, k), h('dd', {}, v)])),
    d.tags.length
      ? h('p', { class: 'meta tags' }, 'Tags: ', d.tags.flatMap((t, i) => [i ? ', ' : '', h('code', {}, `${t.group ? `${t.group}/` : ''}${t.tag}=${t.value}`)]))
      : null,
    h(
      'div',
      { class: 'actions' },
      h('a', { class: 'button-like', href: `/admin/v1/devices/${seg(d.deviceId)}/export`, download: `device-${d.deviceId}.json` }, 'Export everything (JSON)'),
      mayErase ? confirmButton('Erase this device', 'Really erase it everywhere?', onErase) : null,
    ),
  );
}

function linksTable(links: DeviceLink[], caption: string): HTMLElement {
  if (!links.length) return h('p', {}, 'No links that day.');
  return h(
    'div',
    { class: 'table-wrap' },
    labelCells(
      h(
        'table',
        { class: 'list links' },
        h('caption', { class: 'visually-hidden' }, caption),
        h('thead', {}, h('tr', {}, ['Linked (UTC)', 'Offer', 'Place', 'Now', 'Answers'].map((t) => h('th', { scope: 'col' }, t)))),
        h(
          'tbody',
          {},
          links.map((l) =>
            h(
              'tr',
              { 'data-link': String(l.deviceEventId) },
              h('td', {}, clockTime(l.linkedAt)),
              h('td', {}, String(l.offerId)),
              h('td', {}, String(l.placeId)),
              h('td', {}, h('span', { class: `badge ${l.suppressed ? 'state-disabled' : 'state-running'}` }, linkState(l))),
              h('td', {}, l.statuses.map((s) => `${s.status} ${clockTime(s.at)}`).join(', ') || '—'),
            ),
          ),
        ),
      ),
    ),
  );
}

export function mountDevices(root: HTMLElement): () => void {
  const top = h('p', { class: 'form-error', role: 'alert', hidden: true });
  const idField = field('Device ID', input({ name: 'deviceId', required: true, maxlength: 256, autocomplete: 'off', spellcheck: 'false' }), '/deviceId', 'The deviceId the component sends.');
  const dayField = field('Day (UTC)', input({ name: 'date', type: 'date', required: true, value: todayUtc() }), '/date');
  const form = h(
    'form',
    { class: 'card form lookup', 'aria-label': 'Look up a device', novalidate: true },
    formError(),
    h('div', { class: 'lookup-row' }, idField.wrap, dayField.wrap, h('button', { type: 'submit', class: 'primary' }, 'Look up')),
  );
  const result = h('div', { class: 'device-result' });
  replace(
    root,
    h('div', { class: 'screen-head' }, h('h1', {}, 'Devices')),
    h('p', { class: 'meta' }, 'What the service holds on one device, and where the device said it was on a day.'),
    top,
    form,
    result,
  );

  let map: L.Map | null = null;
  let asked = 0;
  function dropMap(): void {
    map?.remove();
    map = null;
  }

  function drawDay(mapEl: HTMLElement, day: DeviceDay, places: Place[]): void {
    dropMap();
    const m = L.map(mapEl, { attributionControl: false, zoomControl: true });
    map = m;
    const tiles = savedTiles();
    if (tiles) tileLayer(tiles).addTo(m);
    const linked = new Set(day.links.map((l) => l.placeId));
    for (const p of places) {
      L.circle([p.lat, p.lon], {
        radius: p.radius,
        className: linked.has(p.placeId) ? 'day-place linked' : 'day-place',
        color: linked.has(p.placeId) ? '#2e8b57' : '#6b7a90',
        weight: linked.has(p.placeId) ? 3 : 1.5,
        fillOpacity: linked.has(p.placeId) ? 0.25 : 0.08,
      })
        .bindTooltip(`${p.name || `Place ${p.placeId}`}${linked.has(p.placeId) ? ' (linked)' : ''}`)
        .addTo(m);
    }
    const track = day.positions.map((p) => [p.lat, p.lon] as [number, number]);
    L.polyline(track, { className: 'day-track', color: '#0b57d0', weight: 3, opacity: 0.8 }).addTo(m);
    for (const p of day.positions) {
      L.circleMarker([p.lat, p.lon], {
        radius: p.kind === 'check' ? 4 : 6,
        className: `day-${p.kind}`,
        color: p.kind === 'check' ? '#0b57d0' : '#d35400',
        weight: 1.5,
        fillOpacity: 0.9,
      })
        .bindTooltip(`${clockTime(p.at)} UTC · ${p.kind} · accuracy ${Math.round(p.accuracy)} m`)
        .addTo(m);
    }
    m.fitBounds(L.latLngBounds(track).pad(0.15), { maxZoom: 17 });
  }

  async function erase(id: string): Promise<void> {
    top.hidden = true;
    try {
      const r = await admin.del<{ erased: Record<string, number> }>(`devices/${seg(id)}`);
      const e = r.data.erased;
      const counts = [
        count(e.sessions ?? 0, 'session'),
        count(e.links ?? 0, 'link'),
        count(e.statuses ?? 0, 'answer'),
        count(e.tags ?? 0, 'tag'),
        count(e.logMessages ?? 0, 'log message'),
      ].join(', ');
      dropMap();
      replace(result);
      history.replaceState(null, '', '#/devices');
      toast(`Erased ${id}: ${counts}.`);
    } catch (e) {
      showMessage(top, e);
    }
  }

  async function lookUp(id: string, date: string): Promise<void> {
    const ask = ++asked;
    top.hidden = true;
    replace(result, h('p', { class: 'loading' }, 'Loading…'));
    let record: DeviceRecord;
    let day: DeviceDay;
    try {
      [record, day] = await Promise.all([
        admin.get<DeviceRecord>(`devices/${seg(id)}`).then((a) => a.data),
        admin.get<DeviceDay>(`devices/${seg(id)}/day?date=${date}`).then((a) => a.data),
      ]);
    } catch (e) {
      if (ask !== asked) return;
      replace(result);
      if (e instanceof ApiError && e.status === 404) showError(form, new ApiError(404, `The service holds nothing on ${id}.`, '/deviceId', [], null, null));
      else showError(form, e, (err) => (err.status === 400 ? err.message : null));
      return;
    }
    const box = trackBox(day.positions, PLACE_MARGIN_M);
    let places: Place[] = [];
    if (box) {
      try {
        places = (await admin.get<{ places: Place[] }>(`places?limit=1000&bbox=${box}`)).data.places.filter((p) => !p.disabled);
      } catch {
        // The day is worth showing without the circles.
      }
    }
    if (ask !== asked) return;
    history.replaceState(null, '', devicePath(id, date));
    const gap = longestGap(day.positions);
    const first = day.positions[0];
    const last = day.positions[day.positions.length - 1];
    const summary = first && last
      ? `${count(day.positions.length, 'position')} from ${clockTime(first.at)} to ${clockTime(last.at)} UTC, ${count(day.links.length, 'link')}.` +
        (gap && gap.seconds > GAP_NOTED_S ? ` Nothing for ${minutes(gap.seconds)} after ${clockTime(gap.from)}: the track across it is a guess.` : '')
      : `No positions on ${date}: the device uploaded no diagnostics that day.`;
    const mapEl = h('div', { id: 'device-map', class: 'device-map', role: 'region', 'aria-label': `Where ${id} was on ${date}` });
    replace(
      result,
      h(
        'section',
        { class: 'card day', 'aria-labelledby': 'day-title' },
        h('h2', { id: 'day-title' }, `The day, ${date}`),
        h('p', { class: 'meta day-summary', role: 'status' }, summary),
        first ? mapEl : null,
        first
          ? h(
              'p',
              { class: 'meta legend' },
              h('span', { class: 'key key-track' }), ' track  ',
              h('span', { class: 'key key-check' }), ' location check  ',
              h('span', { class: 'key key-location' }), ' stored position  ',
              h('span', { class: 'key key-linked' }), ' place linked that day',
            )
          : null,
        h('h3', {}, 'Links that day'),
        linksTable(day.links, `Links of ${id} on ${date}`),
      ),
      recordCard(record, () => erase(id)),
    );
    if (first) drawDay(mapEl, day, places);
  }

  form.addEventListener('submit', (ev) => {
    ev.preventDefault();
    clearErrors(form);
    const id = idField.input.value.trim();
    const date = dayField.input.value;
    if (!id) {
      showError(form, new ApiError(400, 'Which device? Enter its deviceId.', '/deviceId', [], null, null));
      return;
    }
    if (!/^\d{4}-\d{2}-\d{2}$/.test(date)) {
      showError(form, new ApiError(400, 'Pick a day.', '/date', [], null, null));
      return;
    }
    void lookUp(id, date);
  });

  const linked = parseDevicePath(location.hash);
  if (linked) {
    idField.input.value = linked.id;
    dayField.input.value = linked.date;
    void lookUp(linked.id, linked.date);
  }
  return () => {
    asked++;
    dropMap();
  };
}
