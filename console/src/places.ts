// The map's arithmetic of boxes and pages of places, apart from the map itself.

/** Degrees: west, south, east, north. A box whose west lies east of its east crosses the antimeridian. */
export interface Box {
  w: number;
  s: number;
  e: number;
  n: number;
}

export function inBox(p: { lat: number; lon: number }, b: Box): boolean {
  const lonOk = b.w <= b.e ? p.lon >= b.w && p.lon <= b.e : p.lon >= b.w || p.lon <= b.e;
  return lonOk && p.lat >= b.s && p.lat <= b.n;
}

/** The box of a view, cut to the world's: a view zoomed out past it shows world copies. */
export function viewBox(west: number, south: number, east: number, north: number): Box {
  return { w: Math.max(-180, west), s: Math.max(-90, south), e: Math.min(180, east), n: Math.min(90, north) };
}

/** The bbox parameter of a box: west,south,east,north to six decimals (about 0.1 m). */
export function boxParam(b: Box): string {
  return [b.w, b.s, b.e, b.n].map((v) => v.toFixed(6)).join(',');
}

/** The address of a page of places after the id `after` (the first page for null), in a box when given. */
export function placesPage(limit: number, after: number | null, bbox?: string): string {
  return `places?${bbox !== undefined ? `bbox=${bbox}&` : ''}limit=${limit}${after !== null ? `&after=${after}` : ''}`;
}

/** Whether a page keeps to the box it was asked for: a server that does not know bbox answers every place. */
export function keptToBox(list: { lat: number; lon: number }[], b: Box): boolean {
  const margin = 1e-6;
  const wide = { w: b.w - margin, s: b.s - margin, e: b.e + margin, n: b.n + margin };
  return list.every((p) => inBox(p, wide));
}

/**
 * The places to take off the map once a box is loaded: the answer is the whole truth for the box, so
 * those in it the answer no longer has were removed or moved; once the answer is complete the places
 * outside the box go too (the canvas redraws every circle it holds). The place being edited stays.
 */
export function staleIds(
  places: Iterable<{ placeId: number; lat: number; lon: number }>,
  seen: ReadonlySet<number>,
  b: Box,
  complete: boolean,
  editing?: number,
): number[] {
  const out: number[] = [];
  for (const p of places) {
    if (p.placeId === editing) continue;
    if (inBox(p, b) ? !seen.has(p.placeId) : complete) out.push(p.placeId);
  }
  return out;
}
