// A device's record and day as the admin API answers them, and what the device screen says of them.

export interface LinkStatus {
  status: string;
  at: number;
}

export interface DeviceLink {
  deviceEventId: number;
  offerId: number;
  placeId: number;
  campaignId: number;
  suppressed: boolean;
  suppressedBy?: string;
  linkedAt: number;
  clearedAt: number | null;
  statuses: LinkStatus[];
}

export interface DeviceRecord {
  deviceId: string;
  deviceType: string;
  deviceModel: string;
  appKey: string;
  firstSeen: number;
  lastSeen: number;
  sessions: { startedAt: number; appKey: string }[];
  links: DeviceLink[];
  tags: { group: string; tag: string; value: string; updatedAt: number }[];
  logMessages: { count: number; byEvent: Record<string, number> };
}

export interface DayPosition {
  at: number;
  lat: number;
  lon: number;
  accuracy: number;
  kind: 'check' | 'location';
  distanceToTarget?: number;
  targetRadius?: number;
}

export interface DeviceDay {
  deviceId: string;
  date: string;
  positions: DayPosition[];
  links: DeviceLink[];
}

/** "HH:MM:SS" in UTC of seconds since 1970; empty for a time no date can hold. */
export function clockTime(seconds: number): string {
  const d = new Date(seconds * 1000);
  return Number.isFinite(seconds) && !Number.isNaN(d.getTime()) ? d.toISOString().slice(11, 19) : '';
}

/** Today in UTC, as the day input and the API write it. */
export function todayUtc(nowMs = Date.now()): string {
  return new Date(nowMs).toISOString().slice(0, 10);
}

/**
 * The longest time between two positions of a day (sorted by time), where the track is a guess; null
 * with fewer than two positions.
 */
export function longestGap(positions: readonly Pick<DayPosition, 'at'>[]): { seconds: number; from: number } | null {
  let best: { seconds: number; from: number } | null = null;
  for (let i = 1; i < positions.length; i++) {
    const seconds = positions[i]!.at - positions[i - 1]!.at;
    if (!best || seconds > best.seconds) best = { seconds, from: positions[i - 1]!.at };
  }
  return best;
}

/** Where a link stands, in words: held back by a rule, cleared, or its latest status. */
export function linkState(l: Pick<DeviceLink, 'suppressed' | 'suppressedBy' | 'clearedAt' | 'statuses'>): string {
  if (l.suppressed) return l.suppressedBy ? `held back (${l.suppressedBy})` : 'held back';
  if (l.clearedAt) return 'cleared';
  const last = l.statuses.length ? l.statuses[l.statuses.length - 1]! : null;
  return last ? last.status : 'linked';
}

/** The hash of a device's day, so that a look-up can be bookmarked and sent to a colleague. */
export function devicePath(id: string, date: string): string {
  return `#/devices/${encodeURIComponent(id)}/${date}`;
}

/** The device and day of a hash written by devicePath; null for anything else. */
export function parseDevicePath(hash: string): { id: string; date: string } | null {
  const m = /^#\/devices\/([^/]+)\/(\d{4}-\d{2}-\d{2})$/.exec(hash);
  if (!m) return null;
  try {
    const id = decodeURIComponent(m[1]!);
    return id ? { id, date: m[2]! } : null;
  } catch {
    return null;
  }
}

/** The box (west,south,east,north) around a track with `marginM` metres on every side, for places?bbox=. */
export function trackBox(positions: readonly Pick<DayPosition, 'lat' | 'lon'>[], marginM: number): string | null {
  if (!positions.length) return null;
  let s = 90;
  let n = -90;
  let w = 180;
  let e = -180;
  for (const p of positions) {
    s = Math.min(s, p.lat);
    n = Math.max(n, p.lat);
    w = Math.min(w, p.lon);
    e = Math.max(e, p.lon);
  }
  const dLat = marginM / 111_320;
  const widest = Math.min(89, Math.max(Math.abs(s), Math.abs(n)) + dLat);
  const dLon = dLat / Math.cos((widest * Math.PI) / 180);
  const r = (v: number) => Number(v.toFixed(6));
  return [r(Math.max(-180, w - dLon)), r(Math.max(-90, s - dLat)), r(Math.min(180, e + dLon)), r(Math.min(90, n + dLat))].join(',');
}
