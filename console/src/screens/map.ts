import L from 'leaflet';
import 'leaflet/dist/leaflet.css';
import { admin, ApiError, seg, versionOf } from '../api';
import { button, confirmButton, field, h, input, replace, select as selectEl, type Field } from '../dom';
import { clearErrors, conflictNotice, formError, showError, showMessage, toast } from '../forms';
import { campaignColour, loadCampaigns, loadOffers, type Campaign, type Offer, type Place } from '../model';
import { boxParam, keptToBox, placesPage, staleIds, viewBox } from '../places';
import { savedTiles, saveTiles, tileLayer } from '../tiles';

const PAGE = 1000;
const MAX_PAGES = 100; // 100,000 places at most
const NEW_CAMPAIGN = '__new__';

interface PlacesPage {
  places: Place[];
  next: number | null;
}

interface OfferBlock {
  box: HTMLFieldSetElement;
  campaign: Field;
  newName: Field;
  newStart: Field;
  newEnd: Field;
  eventId: Field;
  eventName: Field;
  alertText: Field;
  mediaUrl: Field;
  eventTypeId: Field;
  dwellTime: Field;
}

interface Editing {
  existing: Place | null;
  etag: string | null;
  circle: L.Circle;
  centre: L.Marker;
  edge: L.Marker;
  blocks: OfferBlock[];
  dirty: boolean;
}

export function mountMap(root: HTMLElement): () => void {
  let campaigns: Campaign[] = [];
  const offers = new Map<number, Offer>();
  const places = new Map<number, Place>();
  const circles = new Map<number, L.Circle>();
  let listEtag: string | null = null;
  let bboxMode: 'unknown' | 'yes' | 'no' = 'unknown';
  let allLoaded = false;
  // The highest place id loaded since the map was opened, for a new place's id (the places outside
  // the view leave the map).
  let maxSeenId = 0;
  let loadSeq = 0;
  let editing: Editing | null = null;
  let stopped = false;

  const mapEl = h('div', { class: 'map', id: 'map', role: 'region', 'aria-label': 'Map of places. Click the map to start a new place.' });
  const panel = h('aside', { class: 'panel', 'aria-labelledby': 'panel-title' });
  const status = h('p', { class: 'meta map-status', role: 'status' });
  const top = h('p', { class: 'form-error', role: 'alert', hidden: true });
  replace(
    root,
    h('div', { class: 'screen-head' }, h('h1', {}, 'Map'), status),
    top,
    h('div', { class: 'map-layout' }, mapEl, panel),
  );

  const renderer = L.canvas({ padding: 0.5 });
  const map = L.map(mapEl, { preferCanvas: true, renderer, worldCopyJump: true, attributionControl: false, zoomControl: true }).setView([20, 0], 2);
  let tiles: L.TileLayer | null = null;
  function applyTiles(url: string): void {
    if (tiles) {
      tiles.remove();
      tiles = null;
    }
    if (url) {
      tiles = tileLayer(url);
      tiles.addTo(map);
    }
  }
  applyTiles(savedTiles());

  // ---------- the places on the map ----------

  function campaignOf(p: Place): Campaign | undefined {
    const o = p.offers.length ? offers.get(p.offers[0]!) : undefined;
    return o ? campaigns.find((c) => c.name === o.campaign) : undefined;
  }

  function style(p: Place): L.PathOptions {
    const colour = p.disabled ? '#777777' : campaignColour(campaignOf(p)?.id);
    return { color: colour, fillColor: colour, weight: 1.5, fillOpacity: p.disabled ? 0.08 : 0.3, dashArray: p.disabled ? '4 4' : undefined, renderer };
  }

  function draw(p: Place): void {
    const old = circles.get(p.placeId);
    if (old) {
      old.setLatLng([p.lat, p.lon]);
      old.setRadius(p.radius);
      old.setStyle(style(p));
      return;
    }
    const c = L.circle([p.lat, p.lon], { radius: p.radius, bubblingMouseEvents: false, ...style(p) });
    c.on('click', () => void select(p.placeId));
    c.addTo(map);
    circles.set(p.placeId, c);
  }

  function drop(id: number): void {
    circles.get(id)?.remove();
    circles.delete(id);
    places.delete(id);
  }

  // Circles are added in batches: every addition makes the canvas redraw all circles in view.
  let pending: Place[] = [];
  function merge(list: Place[], page: number): void {
    for (const p of list) {
      places.set(p.placeId, p);
      maxSeenId = Math.max(maxSeenId, p.placeId);
    }
    pending.push(...list);
    if (page === 0 || page % 10 === 9) flush();
  }
  function flush(): void {
    for (const p of pending) if (places.get(p.placeId) === p && editing?.existing?.placeId !== p.placeId) draw(p);
    pending = [];
  }

  function setStatus(): void {
    status.textContent = `${places.size.toLocaleString()} place${places.size === 1 ? '' : 's'} shown${bboxMode === 'no' ? '' : ' in this view'}`;
  }

  async function loadAll(): Promise<void> {
    const seq = ++loadSeq;
    const seen = new Set<number>();
    let after: number | null = null;
    for (let page = 0; page < MAX_PAGES; page++) {
      const a: { data: PlacesPage; etag: string | null } = await admin.get<PlacesPage>(placesPage(PAGE, after));
      if (stopped || seq !== loadSeq) return;
      if (page === 0) listEtag = a.etag;
      a.data.places.forEach((p) => seen.add(p.placeId));
      merge(a.data.places, page);
      setStatus();
      if (a.data.next === null || a.data.next === undefined) {
        flush();
        for (const id of [...places.keys()]) if (!seen.has(id) && editing?.existing?.placeId !== id) drop(id);
        allLoaded = true;
        break;
      }
      after = a.data.next;
    }
    flush();
    setStatus();
  }

  async function loadView(): Promise<void> {
    if (bboxMode === 'no') {
      if (!allLoaded) await loadAll();
      return;
    }
    const b = map.getBounds();
    const area = viewBox(b.getWest(), b.getSouth(), b.getEast(), b.getNorth());
    const box = boxParam(area);
    const seq = ++loadSeq;
    const seen = new Set<number>();
    let after: number | null = null;
    let complete = false;
    for (let page = 0; page < MAX_PAGES; page++) {
      let a: { data: PlacesPage; etag: string | null };
      try {
        a = await admin.get<PlacesPage>(placesPage(PAGE, after, box));
      } catch (err) {
        if (err instanceof ApiError && err.status === 400 && bboxMode !== 'yes') {
          bboxMode = 'no';
          await loadAll();
          return;
        }
        throw err;
      }
      if (stopped || seq !== loadSeq) return;
      if (page === 0) listEtag = a.etag;
      if (bboxMode === 'unknown' && a.data.places.length) {
        // A server that does not know bbox answers every place: page through them all once.
        bboxMode = keptToBox(a.data.places, area) ? 'yes' : 'no';
        if (bboxMode === 'no') {
          await loadAll();
          return;
        }
      }
      a.data.places.forEach((p) => seen.add(p.placeId));
      merge(a.data.places, page);
      setStatus();
      if (a.data.next === null || a.data.next === undefined) {
        complete = true;
        break;
      }
      after = a.data.next;
    }
    flush();
    // The answer is the whole truth for this box: places gone from it were removed or moved. Once it
    // is complete, the places outside the box leave the map too: the canvas redraws every circle it
    // holds at each move, so it holds the view's, not every place seen since the map was opened.
    for (const id of staleIds([...places.values()], seen, area, complete, editing?.existing?.placeId)) drop(id);
    setStatus();
  }

  function reload(): Promise<void> {
    allLoaded = false;
    return loadView().catch((e) => showMessage(top, e));
  }

  map.on('moveend', () => void loadView().catch((e) => showMessage(top, e)));

  async function loadCatalogue(): Promise<void> {
    const [c, o] = await Promise.all([loadCampaigns(), loadOffers()]);
    campaigns = c.list;
    offers.clear();
    o.list.forEach((x) => offers.set(x.eventId, x));
  }

  // ---------- editing one place ----------

  function nextPlaceId(): number {
    let max = maxSeenId;
    for (const id of places.keys()) max = Math.max(max, id);
    return max + 1;
  }

  function nextEventId(blocks: OfferBlock[]): number {
    let max = 0;
    for (const id of offers.keys()) max = Math.max(max, id);
    for (const b of blocks) max = Math.max(max, Number(b.eventId.input.value) || 0);
    return max + 1;
  }

  function handleIcon(kind: string): L.DivIcon {
    return L.divIcon({ className: `handle handle-${kind}`, iconSize: [18, 18], iconAnchor: [9, 9] });
  }

  const placeId = field('Place id', input({ name: 'placeId', type: 'number', min: 1, step: 1, inputmode: 'numeric', required: true }), '/properties/placeId');
  const name = field('Name', input({ name: 'name', maxlength: 200 }), '/properties/name');
  const lat = field('Latitude', input({ name: 'lat', type: 'number', step: 'any', min: -90, max: 90, required: true }), '/geometry/coordinates/1');
  const lon = field('Longitude', input({ name: 'lon', type: 'number', step: 'any', min: -180, max: 180, required: true }), '/geometry/coordinates/0');
  const radius = field('Radius (m)', input({ name: 'radius', type: 'number', step: 'any', min: 1, required: true }), '/properties/radius', 'Drag the round handle on the circle’s edge, or type it.');
  const coordsWrap = h('div', { class: 'coords' }, lat.wrap, lon.wrap);
  coordsWrap.dataset.member = '/geometry';
  const offersBox = h('div', { class: 'offer-blocks' });
  offersBox.dataset.member = '/properties/offers';
  offersBox.appendChild(h('p', { class: 'field-error', hidden: true }));
  const conflict = h('div', { class: 'conflict-box', hidden: true });
  const panelTitle = h('h2', { id: 'panel-title' }, 'Places');
  const save = h('button', { type: 'submit', class: 'primary' }, 'Save place');
  const extra = h('div', { class: 'actions' });
  const form = h(
    'form',
    { class: 'place-form', novalidate: true, hidden: true },
    formError(),
    conflict,
    h('div', { class: 'row' }, placeId.wrap, name.wrap),
    coordsWrap,
    radius.wrap,
    h('h3', {}, 'Offers at this place'),
    offersBox,
    button('Attach an offer', () => addBlock(null), { class: 'secondary', id: 'attach-offer' }),
    h('div', { class: 'actions' }, save, button('Cancel', () => stopEditing())),
    extra,
  );
  const idleHelp = h(
    'div',
    { class: 'idle' },
    h('p', {}, 'Click the map to start a new place, then drag the handle on its edge to set the radius. Select a circle to move, resize, edit, disable or remove it.'),
    button('New place at the map centre', () => startNew(map.getCenter()), { class: 'primary', id: 'new-place' }),
  );
  const goto = field('Find a place by id', input({ type: 'number', min: 1, step: 1, inputmode: 'numeric', name: 'goto' }));
  const gotoForm = h('form', { class: 'goto', novalidate: true }, goto.wrap, h('button', { type: 'submit' }, 'Open place'));
  gotoForm.addEventListener('submit', (ev) => {
    ev.preventDefault();
    const id = Number(goto.input.value);
    if (places.has(id)) void select(id);
    else showMessage(top, new Error(`Place ${goto.input.value} is not on the map in this view.`));
  });
  const tileInput = field('Tile URL template', input({ name: 'tiles', placeholder: 'https://tiles.example/{z}/{x}/{y}.png', value: savedTiles() }), undefined, 'Empty: a plain background.');
  const tileForm = h('details', { class: 'tiles' }, h('summary', {}, 'Map tiles'), tileInput.wrap, button('Apply', () => {
    const v = tileInput.input.value.trim();
    saveTiles(v);
    applyTiles(v);
  }));
  replace(panel, panelTitle, idleHelp, form, gotoForm, tileForm);

  function campaignOptions(): [string, string][] {
    return [...campaigns.map((c): [string, string] => [c.name, c.name]), [NEW_CAMPAIGN, 'New campaign…']];
  }

  function addBlock(o: Offer | null): void {
    if (!editing) return;
    const blocks = editing.blocks;
    const i = blocks.length;
    const base = `/properties/offers/${i}`;
    const campaign = field('Campaign', selectEl(campaignOptions(), o?.campaign ?? (campaigns[0]?.name ?? NEW_CAMPAIGN), { name: 'campaign' }), `${base}/campaign`);
    const newName = field('New campaign name', input({ name: 'campaignName', maxlength: 200 }), `${base}/campaign/name`);
    const newStart = field('Starts', input({ name: 'campaignStart', placeholder: 'YYYY-MM-DD' }), `${base}/campaign/startDate`, 'empty: open');
    const newEnd = field('Ends', input({ name: 'campaignEnd', placeholder: 'YYYY-MM-DD' }), `${base}/campaign/endDate`, 'empty: open');
    const newBox = h('div', { class: 'row new-campaign' }, newName.wrap, newStart.wrap, newEnd.wrap);
    const eventId = field('Offer id', input({ name: 'eventId', type: 'number', min: 1, step: 1, inputmode: 'numeric', value: String(o?.eventId ?? nextEventId(blocks)), readonly: o !== null }), `${base}/eventId`);
    const eventName = field('Offer name', input({ name: 'eventName', maxlength: 200, value: o?.eventName ?? '' }), `${base}/eventName`);
    const alertText = field('Alert text', h('textarea', { name: 'alertText', rows: 2, maxlength: 1000 }), `${base}/alertText`, o && o.alertText === undefined ? 'Stored alert texts are not sent by the server: enter it again.' : undefined);
    alertText.input.value = o?.alertText ?? '';
    const mediaUrl = field('Media URL', input({ name: 'mediaUrl', type: 'text', inputmode: 'url', placeholder: 'https://… or /media/…', value: o?.mediaUrl ?? '' }), `${base}/mediaUrl`);
    const eventTypeId = field('Delivery (event type)', selectEl([['1', '1'], ['2', '2'], ['3', '3']], String(o?.eventTypeId ?? 1), { name: 'eventTypeId' }), `${base}/eventTypeId`);
    const dwellTime = field('Dwell time (min)', input({ name: 'dwellTime', type: 'number', min: 0, max: 1440, step: 1, value: String(o?.dwellTime ?? 0) }), `${base}/dwellTime`);
    const legend = h('legend', {}, o ? `Offer ${o.eventId}` : 'New offer');
    const box = h('fieldset', { class: 'offer-block' }, legend, campaign.wrap, newBox, h('div', { class: 'row' }, eventId.wrap, eventName.wrap), alertText.wrap, mediaUrl.wrap, h('div', { class: 'row' }, eventTypeId.wrap, dwellTime.wrap));
    const block: OfferBlock = { box, campaign, newName, newStart, newEnd, eventId, eventName, alertText, mediaUrl, eventTypeId, dwellTime };
    box.appendChild(button('Detach from this place', () => {
      const k = editing!.blocks.indexOf(block);
      if (k >= 0) editing!.blocks.splice(k, 1);
      box.remove();
      renumber();
      markDirty();
    }, { class: 'secondary' }));
    const syncNew = (): void => {
      newBox.hidden = campaign.input.value !== NEW_CAMPAIGN;
    };
    campaign.input.addEventListener('change', syncNew);
    syncNew();
    box.addEventListener('input', markDirty);
    blocks.push(block);
    offersBox.appendChild(box);
    if (!o) eventName.input.focus();
    markDirty();
  }

  function renumber(): void {
    editing?.blocks.forEach((b, i) => {
      const base = `/properties/offers/${i}`;
      const set = (f: Field, m: string): void => {
        f.wrap.dataset.member = `${base}${m}`;
      };
      set(b.campaign, '/campaign');
      set(b.newName, '/campaign/name');
      set(b.newStart, '/campaign/startDate');
      set(b.newEnd, '/campaign/endDate');
      set(b.eventId, '/eventId');
      set(b.eventName, '/eventName');
      set(b.alertText, '/alertText');
      set(b.mediaUrl, '/mediaUrl');
      set(b.eventTypeId, '/eventTypeId');
      set(b.dwellTime, '/dwellTime');
    });
  }

  function markDirty(): void {
    if (editing) editing.dirty = true;
  }

  function edgeOf(centre: L.LatLng, r: number): L.LatLng {
    // The point r metres east of the centre.
    const dLon = (r / (6371008.8 * Math.cos((centre.lat * Math.PI) / 180))) * (180 / Math.PI);
    return L.latLng(centre.lat, centre.lng + dLon);
  }

  function syncShape(fromFields: boolean): void {
    if (!editing) return;
    if (fromFields) {
      const la = Number(lat.input.value);
      const lo = Number(lon.input.value);
      const r = Number(radius.input.value);
      if (!Number.isFinite(la) || !Number.isFinite(lo) || !Number.isFinite(r) || r <= 0) return;
      editing.circle.setLatLng([la, lo]);
      editing.circle.setRadius(r);
      editing.centre.setLatLng([la, lo]);
    }
    editing.edge.setLatLng(edgeOf(editing.circle.getLatLng(), editing.circle.getRadius()));
  }
  [lat, lon, radius].forEach((f) => f.input.addEventListener('input', () => syncShape(true)));
  [placeId, name].forEach((f) => f.input.addEventListener('input', markDirty));

  function writeFields(c: L.LatLng, r: number): void {
    lat.input.value = c.lat.toFixed(6);
    lon.input.value = L.Util.wrapNum(c.lng, [-180, 180], true).toFixed(6);
    radius.input.value = String(Math.max(1, Math.round(r)));
  }

  function beginShape(centre: L.LatLng, r: number, existing: Place | null, etag: string | null): void {
    stopEditing(true);
    const colour = existing ? style(existing).color : '#0b57d0';
    const circle = L.circle(centre, { radius: r, renderer, color: colour, weight: 3, fillOpacity: 0.15, dashArray: '6 4', interactive: false });
    circle.addTo(map);
    const c = L.marker(centre, { icon: handleIcon('centre'), draggable: true, keyboard: true, title: 'Move the place', alt: 'Move the place', zIndexOffset: 1000 });
    const e = L.marker(edgeOf(centre, r), { icon: handleIcon('edge'), draggable: true, keyboard: true, title: 'Set the radius', alt: 'Set the radius', zIndexOffset: 1000 });
    c.on('drag', () => {
      circle.setLatLng(c.getLatLng());
      e.setLatLng(edgeOf(c.getLatLng(), circle.getRadius()));
      writeFields(c.getLatLng(), circle.getRadius());
      markDirty();
    });
    e.on('drag', () => {
      const r2 = Math.max(1, map.distance(circle.getLatLng(), e.getLatLng()));
      circle.setRadius(r2);
      writeFields(circle.getLatLng(), r2);
      markDirty();
    });
    e.on('dragend', () => e.setLatLng(edgeOf(circle.getLatLng(), circle.getRadius())));
    c.addTo(map);
    e.addTo(map);
    editing = { existing, etag, circle, centre: c, edge: e, blocks: [], dirty: false };
    if (existing) circles.get(existing.placeId)?.remove();
    clearErrors(form);
    conflict.hidden = true;
    replace(offersBox, h('p', { class: 'field-error', hidden: true }));
    writeFields(centre, r);
  }

  function stopEditing(quiet = false): void {
    if (editing) {
      editing.circle.remove();
      editing.centre.remove();
      editing.edge.remove();
      const p = editing.existing ? places.get(editing.existing.placeId) : undefined;
      if (p) {
        circles.delete(p.placeId);
        draw(p);
      }
      editing = null;
    }
    if (quiet) return;
    form.hidden = true;
    idleHelp.hidden = false;
    panelTitle.textContent = 'Places';
    replace(extra);
  }

  function startNew(at: L.LatLng): void {
    if (editing?.dirty) {
      showMessage(top, new Error('Save or cancel the place you are editing first.'));
      return;
    }
    top.hidden = true;
    // A first radius of about a twentieth of the view's width, at least 20 m.
    const b = map.getBounds();
    const r = Math.max(20, Math.round(map.distance(b.getSouthWest(), b.getSouthEast()) / 20));
    beginShape(at, Math.min(r, 50000), null, null);
    panelTitle.textContent = 'New place';
    placeId.input.value = String(nextPlaceId());
    (placeId.input as HTMLInputElement).readOnly = false;
    name.input.value = '';
    replace(extra);
    idleHelp.hidden = true;
    form.hidden = false;
    addBlock(null);
    editing!.dirty = false;
    name.input.focus();
  }

  async function select(id: number): Promise<void> {
    if (editing?.dirty && editing.existing?.placeId !== id) {
      showMessage(top, new Error('Save or cancel the place you are editing first.'));
      return;
    }
    top.hidden = true;
    const p = places.get(id);
    if (!p) return;
    let etag: string | null;
    try {
      etag = await versionOf(`places/${seg(id)}`, listEtag);
    } catch (e) {
      showMessage(top, e);
      return;
    }
    beginShape(L.latLng(p.lat, p.lon), p.radius, p, etag);
    panelTitle.textContent = `Place ${p.placeId}${p.disabled ? ' (disabled)' : ''}`;
    placeId.input.value = String(p.placeId);
    (placeId.input as HTMLInputElement).readOnly = true;
    name.input.value = p.name ?? '';
    for (const eid of p.offers) {
      const o = offers.get(eid);
      if (o) addBlock(o);
    }
    editing!.dirty = false;
    replace(
      extra,
      p.disabled
        ? button('Enable place', () => void placeAction(p, 'enable'), { class: 'secondary' })
        : button('Disable place', () => void placeAction(p, 'disable'), { class: 'secondary' }),
      confirmButton('Remove place', 'Really remove?', () => placeAction(p, 'remove')),
    );
    idleHelp.hidden = true;
    form.hidden = false;
    name.input.focus();
  }

  async function placeAction(p: Place, what: 'enable' | 'disable' | 'remove'): Promise<void> {
    const etag = editing?.existing?.placeId === p.placeId ? editing.etag : null;
    try {
      if (what === 'remove') await admin.del(`places/${seg(p.placeId)}`, etag);
      else await admin.post(`places/${seg(p.placeId)}/${what}`, {}, etag);
      toast(what === 'remove' ? `Removed place ${p.placeId}.` : `${what === 'enable' ? 'Enabled' : 'Disabled'} place ${p.placeId}.`);
      if (editing) editing.dirty = false;
      stopEditing();
      if (what === 'remove') drop(p.placeId);
      await reload();
    } catch (e) {
      if (e instanceof ApiError && e.status === 412) onConflict(p.placeId);
      else showError(form, e);
    }
  }

  function onConflict(id: number): void {
    conflictNotice(conflict, 'place', () => {
      if (editing) editing.dirty = false;
      stopEditing();
      void reload().then(() => (places.has(id) ? select(id) : undefined));
    });
    conflict.querySelector('button')?.focus();
  }

  function offerJson(b: OfferBlock): Record<string, unknown> {
    const o: Record<string, unknown> = {};
    const idText = b.eventId.input.value.trim();
    o.eventId = /^\d+$/.test(idText) ? Number(idText) : idText;
    if (b.campaign.input.value === NEW_CAMPAIGN) {
      const c: Record<string, unknown> = { name: b.newName.input.value.trim() };
      if (b.newStart.input.value.trim()) c.startDate = b.newStart.input.value.trim();
      if (b.newEnd.input.value.trim()) c.endDate = b.newEnd.input.value.trim();
      o.campaign = c;
    } else o.campaign = b.campaign.input.value;
    o.eventName = b.eventName.input.value;
    o.alertText = b.alertText.input.value;
    o.mediaType = 'html';
    o.mediaUrl = b.mediaUrl.input.value.trim();
    o.eventTypeId = Number(b.eventTypeId.input.value);
    const dw = b.dwellTime.input.value.trim();
    o.dwellTime = dw === '' ? 0 : Number(dw);
    const stored = offers.get(Number(idText));
    if (stored?.tags) o.tags = stored.tags;
    if (stored?.mediaType) o.mediaType = stored.mediaType;
    return o;
  }

  form.addEventListener('submit', async (ev) => {
    ev.preventDefault();
    if (!editing) return;
    clearErrors(form);
    conflict.hidden = true;
    const idText = placeId.input.value.trim();
    const feature = {
      type: 'Feature',
      geometry: { type: 'Point', coordinates: [Number(lon.input.value), Number(lat.input.value)] },
      properties: {
        placeId: /^\d+$/.test(idText) ? Number(idText) : idText,
        ...(name.input.value.trim() ? { name: name.input.value.trim() } : {}),
        radius: Number(radius.input.value),
        offers: editing.blocks.map(offerJson),
      },
    };
    save.disabled = true;
    try {
      await admin.post('places', feature, editing.etag);
      const id = Number(idText);
      const at = editing.circle.getLatLng();
      map.setView(at, Math.max(map.getZoom(), 16), { animate: false });
      toast(`Saved place ${id}.`);
      editing.dirty = false;
      stopEditing();
      await loadCatalogue();
      await reload();
      for (const p of places.values()) draw(p);
    } catch (e) {
      if (e instanceof ApiError && e.status === 412) onConflict(Number(idText));
      else showError(form, e);
    } finally {
      save.disabled = false;
    }
  });

  map.on('click', (ev: L.LeafletMouseEvent) => startNew(ev.latlng));

  // ---------- start ----------

  async function start(): Promise<void> {
    // The offers tell each place's campaign (its colour); the places do not wait for them.
    const catalogue = loadCatalogue()
      .then(() => {
        if (stopped) return;
        for (const p of places.values()) if (editing?.existing?.placeId !== p.placeId) draw(p);
      })
      .catch((e) => showMessage(top, e));
    try {
      // Frame the places the first page holds, then load by the view.
      const first = await admin.get<PlacesPage>(placesPage(PAGE, null));
      if (stopped) return;
      listEtag = first.etag;
      if (first.data.places.length) {
        const b = L.latLngBounds(first.data.places.map((p) => [p.lat, p.lon] as [number, number]));
        map.fitBounds(b.pad(0.2), { maxZoom: 16, animate: false });
      }
      await loadView();
    } catch (e) {
      showMessage(top, e);
    }
    await catalogue;
  }
  void start();
  // Leaflet measures its box: once the layout has settled, measure again.
  const ro = new ResizeObserver(() => map.invalidateSize());
  ro.observe(mapEl);

  return () => {
    stopped = true;
    ro.disconnect();
    map.remove();
  };
}
