import { describe, expect, it } from 'vitest';
import { changedOffers, previewSummary, signed, type PreviewOffer } from '../src/screens/import';

const offer = (eventId: string, live: number, draft: number, namedLive = 10, namedDraft = 10): PreviewOffer => ({
  eventId,
  placeId: '1',
  eventName: eventId,
  live,
  draft,
  change: draft - live,
  namedLive,
  namedDraft,
  reasons: {},
});

describe('a preview', () => {
  it('shows the offers whose deliveries or reach change, the largest change first', () => {
    const shown = changedOffers([offer('a', 5, 5), offer('b', 5, 7), offer('c', 9, 0), offer('d', 0, 0, 0, 12), offer('e', 3, 1)]);
    expect(shown.map((o) => o.eventId)).toEqual(['c', 'b', 'e', 'd']);
  });

  it('says how many days its devices ran only when they ran more than one', () => {
    const answer = { devices: 14, days: 7, deliveries: { live: 9, draft: 4 }, offers: [] };
    expect(previewSummary(answer, 'a.geojson')).toBe('14 simulated devices over 7 days, the same on both sides: 9 deliveries now, 4 with a.geojson (−5).');
    expect(previewSummary({ ...answer, days: 1 }, 'a.geojson')).toMatch(/^14 simulated devices, the same/);
  });

  it('signs its changes, with a true minus', () => {
    expect([signed(3), signed(-2), signed(0)]).toEqual(['+3', '−2', '0']);
  });
});
