import type { FunnelRow } from './model';

export const STAGES = ['links', 'ack', 'seen', 'saved', 'declined'] as const;
export const STAGE_LABEL: Record<(typeof STAGES)[number], string> = {
  links: 'Links',
  ack: 'Acknowledged',
  seen: 'Seen',
  saved: 'Saved',
  declined: 'Declined',
};
const STAGE_CLASS: Record<(typeof STAGES)[number], string> = {
  links: 's-links',
  ack: 's-ack',
  seen: 's-seen',
  saved: 's-saved',
  declined: 's-declined',
};

const NS = 'http://www.w3.org/2000/svg';

function svg<K extends keyof SVGElementTagNameMap>(tag: K, attrs: Record<string, string | number>): SVGElementTagNameMap[K] {
  const el = document.createElementNS(NS, tag);
  for (const [k, v] of Object.entries(attrs)) el.setAttribute(k, String(v));
  return el;
}

export type Stage = (typeof STAGES)[number];
export interface FunnelDay {
  day: string;
  counts: Record<Stage, number>;
}

/**
 * The chart's series: the last `keep` days of the rows, oldest first (one row a day, the last given for
 * a day standing), a stage a row lacks counted 0, and the top of the scale (at least 1), taken from the
 * days shown.
 */
export function funnelSeries(rows: FunnelRow[], keep = 14): { days: FunnelDay[]; max: number } {
  const byDay = new Map(rows.map((r) => [r.day ?? '', r]));
  const days = [...byDay.keys()]
    .sort()
    .slice(-keep)
    .map((day) => {
      const r = byDay.get(day)!;
      return { day, counts: Object.fromEntries(STAGES.map((s) => [s, r[s] ?? 0])) as Record<Stage, number> };
    });
  const max = Math.max(1, ...days.flatMap((d) => STAGES.map((s) => d.counts[s])));
  return { days, max };
}

/** The values of the scale's grid lines: 0 to `max` in at most four steps, whole numbers. */
export function ticks(max: number): number[] {
  const steps = max <= 4 ? max : 4;
  return Array.from({ length: steps + 1 }, (_, i) => Math.round((max * i) / steps));
}

/** The chart told as text, for screen readers. */
export function funnelSummary(label: string, days: FunnelDay[]): string {
  return days.length
    ? `${label}: ${days
        .map((d) => `${d.day}: ${STAGES.map((s) => `${d.counts[s]} ${STAGE_LABEL[s].toLowerCase()}`).join(', ')}`)
        .join('; ')}`
    : `${label}: no activity yet`;
}

/** Grouped bars: one group per UTC day, one bar per stage of the funnel. */
export function funnelChart(rows: FunnelRow[], label: string): SVGSVGElement {
  const { days, max } = funnelSeries(rows);
  const W = 560;
  const H = 180;
  const left = 36;
  const bottom = 24;
  const top = 10;
  const plotW = W - left - 8;
  const plotH = H - top - bottom;
  const root = svg('svg', { viewBox: `0 0 ${W} ${H}`, class: 'chart', role: 'img' });
  const summary = funnelSummary(label, days);
  root.setAttribute('aria-label', summary);
  const title = svg('title', {});
  title.textContent = summary;
  root.appendChild(title);
  // Axis and a few grid lines.
  for (const v of ticks(max)) {
    const y = top + plotH - (plotH * v) / max;
    root.appendChild(svg('line', { x1: left, x2: W - 8, y1: y, y2: y, class: 'grid' }));
    const t = svg('text', { x: left - 6, y: y + 4, class: 'tick', 'text-anchor': 'end' });
    t.textContent = String(v);
    root.appendChild(t);
  }
  if (days.length === 0) {
    const t = svg('text', { x: left + plotW / 2, y: top + plotH / 2, class: 'empty', 'text-anchor': 'middle' });
    t.textContent = 'No activity yet';
    root.appendChild(t);
    return root;
  }
  const groupW = plotW / days.length;
  const barW = Math.max(2, Math.min(18, (groupW - 8) / STAGES.length));
  days.forEach(({ day: d, counts }, i) => {
    const gx = left + i * groupW + (groupW - barW * STAGES.length) / 2;
    STAGES.forEach((s, j) => {
      const v = counts[s];
      const bh = (plotH * v) / max;
      const rect = svg('rect', {
        x: gx + j * barW,
        y: top + plotH - bh,
        width: barW - 1,
        height: Math.max(0, bh),
        class: `bar ${STAGE_CLASS[s]}`,
      });
      const tt = svg('title', {});
      tt.textContent = `${d} ${STAGE_LABEL[s]}: ${v}`;
      rect.appendChild(tt);
      root.appendChild(rect);
    });
    const t = svg('text', { x: left + i * groupW + groupW / 2, y: H - 6, class: 'tick', 'text-anchor': 'middle' });
    t.textContent = d.slice(5);
    root.appendChild(t);
  });
  return root;
}

export function legend(): HTMLElement {
  const ul = document.createElement('ul');
  ul.className = 'legend';
  for (const s of STAGES) {
    const li = document.createElement('li');
    const sw = document.createElement('span');
    sw.className = `swatch ${STAGE_CLASS[s]}`;
    sw.setAttribute('aria-hidden', 'true');
    li.append(sw, document.createTextNode(STAGE_LABEL[s]));
    ul.appendChild(li);
  }
  return ul;
}
