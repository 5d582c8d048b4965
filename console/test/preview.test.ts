import { describe, expect, it } from 'vitest';
import { changedOffers, signed, type PreviewOffer } from '../src/screens/import';

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

  it('signs its changes, with a true minus', () => {
    expect([signed(3), signed(-2), signed(0)]).toEqual(['+3', '−2', '0']);
  });
});
