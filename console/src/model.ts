import { admin } from './api';
import type { FrequencyCap, Schedule } from './rules';

export interface Campaign {
  id: number;
  name: string;
  startDate: string | null;
  endDate: string | null;
  perDeviceCap: number | null;
  disabled: boolean;
  offers: number;
  schedule?: Schedule;
  caps?: FrequencyCap[];
  priority?: number;
  controlGroup?: number;
}

export interface Offer {
  eventId: number;
  campaign: string;
  eventName: string;
  alertText?: string;
  tags?: string;
  mediaType: string;
  mediaUrl: string;
  dwellTime: number;
  eventTypeId: number;
  disabled: boolean;
  places: number;
}

export interface Place {
  placeId: number;
  name: string | null;
  lat: number;
  lon: number;
  radius: number;
  offers: number[];
  disabled: boolean;
}

export interface App {
  key: string;
  name: string;
  createdAt: number;
  disabled: boolean;
}

export interface FunnelRow {
  campaign: string;
  campaignId: number;
  eventId?: number;
  eventName?: string;
  day?: string;
  links: number;
  ack: number;
  seen: number;
  saved: number;
  declined: number;
}

export interface Funnel {
  campaigns: FunnelRow[];
  offers: FunnelRow[];
  days?: { campaigns: FunnelRow[]; offers: FunnelRow[] };
}

export type CampaignState = 'scheduled' | 'running' | 'ended' | 'disabled';

const DATE_ONLY = /^\d{4}-\d{2}-\d{2}$/;

/** Seconds since 1970 of a place-file date; a bare end date means its last second (UTC). */
export function parseDate(text: string | null | undefined, end: boolean): number | null {
  if (!text) return null;
  if (DATE_ONLY.test(text)) {
    const t = Date.parse(`${text}T00:00:00Z`);
    if (Number.isNaN(t)) return null;
    return t / 1000 + (end ? 86399 : 0);
  }
  const t = Date.parse(text);
  return Number.isNaN(t) ? null : t / 1000;
}

export function campaignState(c: Pick<Campaign, 'startDate' | 'endDate' | 'disabled'>, nowMs = Date.now()): CampaignState {
  if (c.disabled) return 'disabled';
  const now = nowMs / 1000;
  const start = parseDate(c.startDate, false);
  const end = parseDate(c.endDate, true);
  if (start !== null && now < start) return 'scheduled';
  if (end !== null && now > end) return 'ended';
  return 'running';
}

/** The UTC day (YYYY-MM-DD) of seconds since 1970; empty for none (0) or a time no date can hold. */
export function utcDay(seconds: number | null | undefined): string {
  if (!seconds || !Number.isFinite(seconds)) return '';
  const d = new Date(seconds * 1000);
  return Number.isNaN(d.getTime()) ? '' : d.toISOString().slice(0, 10);
}

const PALETTE = ['#1f6fb2', '#c0392b', '#2e8b57', '#8e44ad', '#d35400', '#16a085', '#b8860b', '#c2185b', '#34495e', '#6d4c41'];

export function campaignColour(id: number | undefined): string {
  if (id === undefined) return '#777777';
  return PALETTE[Math.abs(id) % PALETTE.length]!;
}

export async function loadCampaigns(): Promise<{ list: Campaign[]; etag: string | null }> {
  const a = await admin.get<{ campaigns: Campaign[] }>('campaigns');
  return { list: a.data.campaigns ?? [], etag: a.etag };
}

export async function loadOffers(): Promise<{ list: Offer[]; etag: string | null }> {
  const a = await admin.get<{ offers: Offer[] }>('offers');
  return { list: a.data.offers ?? [], etag: a.etag };
}

export async function loadApps(): Promise<App[]> {
  const a = await admin.get<{ apps: App[] }>('apps');
  return a.data.apps ?? [];
}
