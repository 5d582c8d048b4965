import L from 'leaflet';

// The map tiles the Map screen's setting chose, shared by every map of the console.

const TILE_KEY = 'tovrel.console.tiles';

/** The tile URL template saved in this browser; empty: a plain background. */
export function savedTiles(): string {
  return localStorage.getItem(TILE_KEY) ?? '';
}

export function saveTiles(url: string): void {
  localStorage.setItem(TILE_KEY, url);
}

/** A layer of the tiles at `url` (a template with {z}/{x}/{y}). */
export function tileLayer(url: string): L.TileLayer {
  return L.tileLayer(url, { maxZoom: 19, crossOrigin: true });
}
