import { describe, expect, it } from 'vitest';
import { funnelSeries, funnelSummary, ticks } from '../src/chart';
import type { FunnelRow } from '../src/model';

const row = (day: string, counts: Partial<FunnelRow> = {}): FunnelRow =>
  ({ campaign: 'Spring', campaignId: 1, day, links: 0, ack: 0, seen: 0, saved: 0, declined: 0, ...counts });
const march = (d: number): string => `2026-03-${String(d).padStart(2, '0')}`;

describe('the funnel’s days', () => {
  it('are the last 14, oldest first, whatever order the rows come in', () => {
    const rows = [20, 3, 11, 1, 17, 8, 14, 5, 19, 2, 12, 9, 16, 6, 18, 4, 13, 10, 15, 7].map((d) => row(march(d)));
    expect(funnelSeries(rows).days.map((d) => d.day)).toEqual([7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20].map(march));
  });

  it('take the scale from the days shown, not from older ones', () => {
    const rows = [row(march(1), { links: 1000 }), ...[2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15].map((d) => row(march(d), { links: d % 3, saved: 5 }))];
    expect(funnelSeries(rows).max).toBe(5);
  });

  it('count a stage a row lacks as 0, and scale an empty funnel to 1', () => {
    const partial = { campaign: 'Spring', campaignId: 1, day: march(1), links: 2 } as FunnelRow;
    expect(funnelSeries([partial]).days).toEqual([{ day: march(1), counts: { links: 2, ack: 0, seen: 0, saved: 0, declined: 0 } }]);
    expect(funnelSeries([])).toEqual({ days: [], max: 1 });
    expect(funnelSeries([row(march(1))]).max).toBe(1);
  });
});

describe('the scale', () => {
  it('runs from 0 to the top in at most four whole, rising steps', () => {
    expect(ticks(1)).toEqual([0, 1]);
    expect(ticks(3)).toEqual([0, 1, 2, 3]);
    for (let max = 1; max <= 500; max++) {
      const t = ticks(max);
      expect(t[0]).toBe(0);
      expect(t.at(-1)).toBe(max);
      expect(t.length).toBeLessThanOrEqual(5);
      t.slice(1).forEach((v, i) => {
        expect(Number.isInteger(v)).toBe(true);
        expect(v).toBeGreaterThan(t[i]!);
      });
    }
  });
});

describe('the chart as text', () => {
  it('tells every day and stage, or that there is nothing yet', () => {
    const { days } = funnelSeries([row(march(2), { seen: 1 }), row(march(1), { links: 3, ack: 2 })]);
    expect(funnelSummary('Funnel of Spring by day', days)).toBe(
      'Funnel of Spring by day: 2026-03-01: 3 links, 2 acknowledged, 0 seen, 0 saved, 0 declined; ' +
        '2026-03-02: 0 links, 0 acknowledged, 1 seen, 0 saved, 0 declined',
    );
    expect(funnelSummary('Funnel of Spring by day', [])).toBe('Funnel of Spring by day: no activity yet');
  });
});
