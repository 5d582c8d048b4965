import { describe, expect, it } from 'vitest';
import { attemptLabel, eventsLabel } from '../src/screens/webhooks';

describe('webhook labels', () => {
  it('names every event for no list or the wildcard, else the types', () => {
    expect(eventsLabel([])).toBe('every event');
    expect(eventsLabel(['*'])).toBe('every event');
    expect(eventsLabel(['visit.linked', 'offer.seen'])).toBe('visit.linked, offer.seen');
  });
  it('shows a status, or why no answer came', () => {
    expect(attemptLabel({ status: 204, error: '' })).toBe('204');
    expect(attemptLabel({ status: 0, error: 'timeout: 15000 ms' })).toBe('no answer (timeout: 15000 ms)');
    expect(attemptLabel({ status: 0, error: '' })).toBe('no answer (unknown)');
  });
});
