import { describe, expect, it } from 'vitest';
import { ApiError } from '../src/api';
import { mask } from '../src/dom';
import { campaignBody, previewAddress } from '../src/screens/campaigns';

describe('a masked key', () => {
  it('shows the last four characters of a long key and nothing else of it', () => {
    const key = '3f9a0c1d2e4b5a6978877665544332211';
    expect(mask(key)).toBe('••••2211');
    expect(mask(key)).not.toContain(key.slice(-5));
  });

  it('never shows most of a key, however short', () => {
    for (let n = 0; n <= 40; n++) {
      const key = 'k'.repeat(n);
      const shown = mask(key).replace(/^••••/, '').length;
      expect(shown * 3).toBeLessThanOrEqual(n);
    }
    expect(mask('abc')).toBe('••••');
    expect(mask('')).toBe('••••');
  });
});

describe('the campaign form', () => {
  const form = (f: Partial<Parameters<typeof campaignBody>[0]>) => campaignBody({ name: 'Spring', startDate: '', endDate: '', perDeviceCap: '', ...f });
  const refusedAt = (b: ReturnType<typeof campaignBody>): string | null => (b instanceof ApiError ? b.member : null);

  it('sends what is filled in, trimmed', () => {
    expect(form({ name: '  Spring ', startDate: ' 2026-03-01', endDate: '  ' })).toEqual({ name: 'Spring', startDate: '2026-03-01' });
    expect(form({ perDeviceCap: ' 0 ' })).toEqual({ name: 'Spring', perDeviceCap: 0 });
    expect(form({ perDeviceCap: '12' })).toEqual({ name: 'Spring', perDeviceCap: 12 });
  });

  it('refuses a missing name and a cap that is not a whole number of 0 or more, at their fields', () => {
    expect(refusedAt(form({ name: '   ' }))).toBe('/name');
    for (const cap of ['-1', '1.5', 'two', 'Infinity']) expect(refusedAt(form({ perDeviceCap: cap }))).toBe('/perDeviceCap');
  });

  it('sends the lunch offer’s rules as the place file writes them', () => {
    expect(form({ timeZone: ' Europe/Berlin ', windows: 'mon-fri 11:30-14:00', caps: '1/day, 3/week', priority: '10', controlGroup: '10' })).toEqual({
      name: 'Spring',
      schedule: { timeZone: 'Europe/Berlin', windows: [{ days: ['mon', 'tue', 'wed', 'thu', 'fri'], from: '11:30', to: '14:00' }] },
      caps: [{ count: 1, per: 'day' }, { count: 3, per: 'week' }],
      priority: 10,
      controlGroup: 0.1,
    });
    expect(form({ controlGroup: '0', priority: '' })).toEqual({ name: 'Spring' });
  });

  it('refuses a schedule without its zone or windows, and shares outside 0 to 100 %, at their fields', () => {
    expect(refusedAt(form({ windows: 'mon 09:00-10:00' }))).toBe('/schedule/timeZone');
    expect(refusedAt(form({ timeZone: 'Europe/Berlin' }))).toBe('/schedule/windows');
    expect(refusedAt(form({ timeZone: 'Europe/Berlin', windows: 'weekdays' }))).toBe('/schedule/windows');
    expect(refusedAt(form({ caps: 'often' }))).toBe('/caps');
    expect(refusedAt(form({ priority: '1.5' }))).toBe('/priority');
    for (const share of ['100', '-1', 'x']) expect(refusedAt(form({ controlGroup: share }))).toBe('/controlGroup');
  });
});

describe('an offer’s preview', () => {
  it('finds a page of the server’s content folder under the console, other addresses as they are', () => {
    expect(previewAddress('/media/spring.html')).toBe('/console/content/media/spring.html');
    expect(previewAddress('//cdn.example/spring.html')).toBe('//cdn.example/spring.html');
    expect(previewAddress('https://shop.example/spring')).toBe('https://shop.example/spring');
  });
});
