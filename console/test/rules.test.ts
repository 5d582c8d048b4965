import { describe, expect, it } from 'vitest';
import { capsText, parseCaps, parseWindows, RuleTextError, windowsText } from '../src/rules';

describe('rules as the campaign form writes them', () => {
  it('reads windows with day ranges, lists and nights across midnight, and writes them back', () => {
    const w = parseWindows('Mon-Fri 11:30-14:00; sat,sun 9:00 - 12:00; fri 22:00-02:00; sat-mon 00:00-24:00');
    expect(w).toEqual([
      { days: ['mon', 'tue', 'wed', 'thu', 'fri'], from: '11:30', to: '14:00' },
      { days: ['sat', 'sun'], from: '09:00', to: '12:00' },
      { days: ['fri'], from: '22:00', to: '02:00' },
      { days: ['mon', 'sat', 'sun'], from: '00:00', to: '24:00' },
    ]);
    expect(windowsText(w)).toBe('mon-fri 11:30-14:00; sat,sun 09:00-12:00; fri 22:00-02:00; mon,sat,sun 00:00-24:00');
    expect(parseWindows(windowsText(w))).toEqual(w);
    expect(parseWindows('  ')).toEqual([]);
  });

  it('refuses what it cannot read, saying what is wrong', () => {
    for (const bad of ['weekdays 11:30-14:00', 'mon 11:30', 'mon 25:00-26:00', 'mon 24:00-01:00', 'mon 11:3-14:00']) {
      expect(() => parseWindows(bad), bad).toThrow(RuleTextError);
    }
  });

  it('reads caps per hour, day or week and refuses a count of none', () => {
    expect(parseCaps('1/day, 3 per week,2 an hour')).toEqual([
      { count: 1, per: 'day' },
      { count: 3, per: 'week' },
      { count: 2, per: 'hour' },
    ]);
    expect(capsText(parseCaps('1/day, 3/week'))).toBe('1/day, 3/week');
    for (const bad of ['0/day', 'daily', '1/month', '-1/day']) expect(() => parseCaps(bad), bad).toThrow(RuleTextError);
  });
});
