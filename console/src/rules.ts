// Campaign rules as the campaign form writes them, one line of text each, and as the admin API takes them.

export interface ScheduleWindow {
  days: string[];
  from: string;
  to: string;
}

export interface Schedule {
  timeZone: string;
  windows: ScheduleWindow[];
}

export interface FrequencyCap {
  count: number;
  per: 'hour' | 'day' | 'week';
}

export const DAYS = ['mon', 'tue', 'wed', 'thu', 'fri', 'sat', 'sun'] as const;
const TIME = /^([01]\d|2[0-3]):[0-5]\d$|^24:00$/;

/** A rule's text that cannot be read: what is wrong, in words for the field. */
export class RuleTextError extends Error {}

/** "mon-fri", "sat,sun" or "tue": the days, in week order. */
function parseDays(text: string): string[] {
  const days = new Set<string>();
  for (const part of text.split(',').map((p) => p.trim().toLowerCase()).filter(Boolean)) {
    const [a, b] = part.split('-').map((d) => d.trim());
    const from = DAYS.indexOf(a as (typeof DAYS)[number]);
    const to = b === undefined ? from : DAYS.indexOf(b as (typeof DAYS)[number]);
    if (from < 0 || to < 0) throw new RuleTextError(`"${part}" is not a day: use mon … sun, or a range like mon-fri`);
    for (let i = from; ; i = (i + 1) % 7) {
      days.add(DAYS[i]!);
      if (i === to) break;
    }
  }
  return DAYS.filter((d) => days.has(d));
}

/** "mon-fri 11:30-14:00; sat 10:00-12:00": windows, one per ";". Empty text: none. */
export function parseWindows(text: string): ScheduleWindow[] {
  const windows: ScheduleWindow[] = [];
  for (const part of text.split(';').map((p) => p.trim()).filter(Boolean)) {
    const m = /^(.+?)\s+(\d{1,2}:\d{2})\s*-\s*(\d{1,2}:\d{2})$/.exec(part);
    if (!m) throw new RuleTextError(`"${part}" is not a window: write days then hours, like mon-fri 11:30-14:00`);
    const [from, to] = [m[2]!.padStart(5, '0'), m[3]!.padStart(5, '0')];
    if (!TIME.test(from) || !TIME.test(to) || from === '24:00') throw new RuleTextError(`"${part}": hours are 00:00 to 24:00`);
    windows.push({ days: parseDays(m[1]!), from, to });
  }
  return windows;
}

/** Days in the shortest words: "mon-fri", "sat,sun", "mon,wed,fri". */
function daysText(days: readonly string[]): string {
  const on = DAYS.map((d) => days.includes(d));
  const runs: string[] = [];
  for (let i = 0; i < 7; ) {
    if (!on[i]) {
      i++;
      continue;
    }
    let j = i;
    while (j + 1 < 7 && on[j + 1]) j++;
    runs.push(j - i >= 2 ? `${DAYS[i]}-${DAYS[j]}` : DAYS.slice(i, j + 1).join(','));
    i = j + 1;
  }
  return runs.join(',');
}

export function windowsText(windows: readonly ScheduleWindow[] | undefined): string {
  return (windows ?? []).map((w) => `${daysText(w.days)} ${w.from}-${w.to}`).join('; ');
}

/** "1/day, 3/week": caps, one per ",". Empty text: none. */
export function parseCaps(text: string): FrequencyCap[] {
  const caps: FrequencyCap[] = [];
  for (const part of text.split(',').map((p) => p.trim()).filter(Boolean)) {
    const m = /^(\d+)\s*(?:\/|per|a|an)\s*(hour|day|week)$/i.exec(part);
    if (!m || Number(m[1]) < 1) throw new RuleTextError(`"${part}" is not a cap: write a count and hour, day or week, like 1/day`);
    caps.push({ count: Number(m[1]), per: m[2]!.toLowerCase() as FrequencyCap['per'] });
  }
  return caps;
}

export function capsText(caps: readonly FrequencyCap[] | undefined): string {
  return (caps ?? []).map((c) => `${c.count}/${c.per}`).join(', ');
}
