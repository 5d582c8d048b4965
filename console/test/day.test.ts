import { describe, expect, it } from 'vitest';
import { clockTime, devicePath, linkState, longestGap, parseDevicePath, todayUtc, trackBox } from '../src/day';

describe("a device's day", () => {
  it('tells times and the day in UTC, whatever the zone the browser is in', () => {
    // 2025-06-01 23:30:00 UTC is 21:00 the same day in St. John's: local time would show it.
    expect(clockTime(1748820600)).toBe('23:30:00');
    expect(todayUtc(1748820600_000)).toBe('2025-06-01');
    expect(clockTime(Number.NaN)).toBe('');
    expect(clockTime(1e20)).toBe('');
  });

  it('finds the longest stretch without a position, and none with one position', () => {
    expect(longestGap([])).toBeNull();
    expect(longestGap([{ at: 5 }])).toBeNull();
    expect(longestGap([{ at: 0 }, { at: 60 }, { at: 1260 }, { at: 1320 }])).toEqual({ seconds: 1200, from: 60 });
  });

  it('says where a link stands: held back, cleared, or its latest status', () => {
    const link = { suppressed: false, clearedAt: null, statuses: [] as { status: string; at: number }[] };
    expect(linkState(link)).toBe('linked');
    expect(linkState({ ...link, statuses: [{ status: 'ack', at: 1 }, { status: 'seen', at: 2 }] })).toBe('seen');
    expect(linkState({ ...link, clearedAt: 5, statuses: [{ status: 'ack', at: 1 }] })).toBe('cleared');
    expect(linkState({ ...link, suppressed: true, suppressedBy: 'quiet-hours' })).toBe('held back (quiet-hours)');
  });

  it('round-trips a device and day through the hash, odd characters included', () => {
    for (const id of ['6F1C-AB', 'a/b c', 'ümlaut?#&']) {
      expect(parseDevicePath(devicePath(id, '2026-11-26'))).toEqual({ id, date: '2026-11-26' });
    }
    expect(parseDevicePath('#/devices')).toBeNull();
    expect(parseDevicePath('#/devices/X/yesterday')).toBeNull();
    expect(parseDevicePath('#/devices/%E0%A4%A/2026-11-26')).toBeNull();
  });

  it('asks for the places around the track within the world', () => {
    expect(trackBox([], 500)).toBeNull();
    const [w, s, e, n] = trackBox([{ lat: 48.1, lon: 11.5 }, { lat: 48.2, lon: 11.6 }], 1000)!.split(',').map(Number);
    expect(s).toBeCloseTo(48.1 - 1000 / 111_320, 6);
    expect(n).toBeCloseTo(48.2 + 1000 / 111_320, 6);
    expect(11.5 - w!).toBeGreaterThan(1000 / 111_320);
    expect(e! - 11.6).toBeGreaterThan(1000 / 111_320);
    const pole = trackBox([{ lat: 89.999, lon: 179.999 }], 5000)!.split(',').map(Number);
    expect(pole[2]).toBeLessThanOrEqual(180);
    expect(pole[3]).toBeLessThanOrEqual(90);
  });
});
