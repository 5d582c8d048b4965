import { describe, expect, it } from 'vitest';
import { boxParam, inBox, keptToBox, placesPage, staleIds, viewBox } from '../src/places';

const at = (placeId: number, lat: number, lon: number) => ({ placeId, lat, lon });
const city = { w: 13.3, s: 52.4, e: 13.5, n: 52.6 };

describe('a box', () => {
  it('holds the places on its edges', () => {
    expect([at(1, 52.4, 13.3), at(2, 52.6, 13.5), at(3, 52.5, 13.4)].every((p) => inBox(p, city))).toBe(true);
    expect([at(4, 52.39, 13.4), at(5, 52.5, 13.51)].some((p) => inBox(p, city))).toBe(false);
  });

  it('crosses the antimeridian when its west lies east of its east', () => {
    const pacific = { w: 170, s: -30, e: -170, n: 30 };
    expect([175, 180, -180, -175].map((lon) => inBox(at(1, 0, lon), pacific))).toEqual([true, true, true, true]);
    expect([0, 160, -160].map((lon) => inBox(at(1, 0, lon), pacific))).toEqual([false, false, false]);
  });

  it('of a view zoomed out past the world is the world', () => {
    expect(viewBox(-400, -95, 400, 95)).toEqual({ w: -180, s: -90, e: 180, n: 90 });
    expect(viewBox(13.3, 52.4, 13.5, 52.6)).toEqual(city);
  });

  it('is asked for to six decimals', () => {
    expect(boxParam({ w: -0.1234565001, s: -90, e: 1e-7, n: 52.5 })).toBe('-0.123457,-90.000000,0.000000,52.500000');
  });
});

describe('a page of places', () => {
  it('is asked for after the last id, 0 included, in the box first', () => {
    expect(placesPage(1000, null)).toBe('places?limit=1000');
    expect(placesPage(1000, 0)).toBe('places?limit=1000&after=0');
    expect(placesPage(1000, 2500, '1.000000,2.000000,3.000000,4.000000')).toBe('places?bbox=1.000000,2.000000,3.000000,4.000000&limit=1000&after=2500');
  });

  it('keeps to its box within the rounding of the box asked for', () => {
    const view = viewBox(10.0000004, 50, 11, 51);
    expect(boxParam(view).startsWith('10.000000,')).toBe(true);
    expect(keptToBox([at(1, 50.5, 10.0000001), at(2, 51, 11)], view)).toBe(true);
    expect(keptToBox([at(1, 50.5, 10.5), at(2, 50.5, 9.999)], view)).toBe(false);
  });
});

describe('after a box is loaded', () => {
  const shown = [at(1, 52.5, 13.4), at(2, 52.5, 13.45), at(3, 48.1, 11.6)];

  it('the places gone from the box leave the map at once, those outside it once the answer is complete', () => {
    expect(staleIds(shown, new Set([1]), city, false)).toEqual([2]);
    expect(staleIds(shown, new Set([1]), city, true)).toEqual([2, 3]);
    expect(staleIds(shown, new Set([1, 2]), city, true)).toEqual([3]);
  });

  it('the place being edited stays, in the box or out of it', () => {
    expect(staleIds(shown, new Set([1]), city, true, 2)).toEqual([3]);
    expect(staleIds(shown, new Set([1]), city, true, 3)).toEqual([2]);
  });
});
