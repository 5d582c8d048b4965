import { describe, expect, it } from 'vitest';
import { campaignColour, campaignState, parseDate, utcDay } from '../src/model';

const utc = (...parts: [number, number, number, number?, number?, number?]): number => Date.UTC(parts[0], parts[1] - 1, parts[2], parts[3] ?? 0, parts[4] ?? 0, parts[5] ?? 0);
const campaign = (startDate: string | null, endDate: string | null, disabled = false) => ({ startDate, endDate, disabled });

it('runs away from UTC, where local and UTC days differ', () => {
  expect(new Date(utc(2026, 1, 1)).getDate()).toBe(31);
});

describe('a campaign’s dates', () => {
  it('read a bare date as a UTC day: a start at its first second, an end at its last', () => {
    expect(parseDate('2026-03-01', false)).toBe(utc(2026, 3, 1) / 1000);
    expect(parseDate('2026-03-31', true)).toBe(utc(2026, 3, 31, 23, 59, 59) / 1000);
    expect(parseDate('2024-02-29', true)).toBe(utc(2024, 2, 29, 23, 59, 59) / 1000);
  });

  it('read a time with its offset, an end at that second', () => {
    expect(parseDate('2026-03-01T08:00+02:00', false)).toBe(utc(2026, 3, 1, 6) / 1000);
    expect(parseDate('2026-03-01T08:00:00-03:30', true)).toBe(utc(2026, 3, 1, 11, 30) / 1000);
    expect(parseDate('2026-12-31T23:30:00Z', true)).toBe(utc(2026, 12, 31, 23, 30) / 1000);
  });

  it('are none when empty or unreadable', () => {
    for (const text of [null, undefined, '', 'soon', '2026-13-01', '2026-00-10']) expect(parseDate(text, false)).toBeNull();
  });
});

describe('a campaign’s state', () => {
  const spring = campaign('2026-03-01', '2026-03-31');

  it('turns at midnight UTC, not local midnight', () => {
    expect(campaignState(spring, utc(2026, 2, 28, 23, 59, 59))).toBe('scheduled');
    expect(campaignState(spring, utc(2026, 3, 1))).toBe('running');
    expect(campaignState(spring, utc(2026, 3, 31, 23, 59, 59))).toBe('running');
    expect(campaignState(spring, utc(2026, 4, 1))).toBe('ended');
  });

  it('turns at the instant of a time with an offset', () => {
    const morning = campaign('2026-03-01T08:00+02:00', '2026-03-01T08:00-03:30');
    expect(campaignState(morning, utc(2026, 3, 1, 5, 59, 59))).toBe('scheduled');
    expect(campaignState(morning, utc(2026, 3, 1, 6))).toBe('running');
    expect(campaignState(morning, utc(2026, 3, 1, 11, 30))).toBe('running');
    expect(campaignState(morning, utc(2026, 3, 1, 11, 30, 1))).toBe('ended');
  });

  it('is open on a side without a date, or with one it cannot read', () => {
    const now = utc(2026, 6, 1);
    expect(campaignState(campaign(null, null), now)).toBe('running');
    expect(campaignState(campaign('', '2026-07-01'), now)).toBe('running');
    expect(campaignState(campaign('next week', '2026-05-31'), now)).toBe('ended');
  });

  it('is disabled whatever its dates say', () => {
    for (const [s, e] of [['2030-01-01', null], [null, '2020-01-01'], [null, null]] as const) expect(campaignState(campaign(s, e, true), utc(2026, 6, 1))).toBe('disabled');
  });
});

describe('a creation time', () => {
  it('shows its UTC day', () => {
    expect(utcDay(utc(2025, 12, 31, 23, 59, 59) / 1000)).toBe('2025-12-31');
    expect(utcDay(utc(2026, 1, 1) / 1000)).toBe('2026-01-01');
  });

  it('shows nothing when there is none or no date can hold it', () => {
    for (const t of [0, null, undefined, Number.NaN, 1e20]) expect(utcDay(t)).toBe('');
  });
});

it('gives every campaign id, negative too, a colour', () => {
  for (const id of [0, 1, 9, 10, -3, 2 ** 31]) expect(campaignColour(id)).toMatch(/^#[0-9a-f]{6}$/);
});
