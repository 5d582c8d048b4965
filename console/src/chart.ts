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

/** Grouped bars: one group per UTC day, one bar per stage of the funnel. */
export function funnelChart(rows: FunnelRow[], label: string): SVGSVGElement {
  const days = [...new Set(rows.map((r) => r.day ?? ''))].sort().slice(-14);
  const byDay = new Map(rows.map((r) => [r.day ?? '', r]));
  const max = Math.max(1, ...rows.flatMap((r) => STAGES.map((s) => r[s] ?? 0)));
  const W = 560;
  const H = 180;
  const left = 36;
  const bottom = 24;
  const top = 10;
  const plotW = W - left - 8;
  const plotH = H - top - bottom;
  const root = svg('svg', { viewBox: `0 0 ${W} ${H}`, class: 'chart', role: 'img' });
  const summary = days.length
    ? `${label}: ${days
        .map((d) => {
          const r = byDay.get(d)!;
          return `${d}: ${STAGES.map((s) => `${r[s] ?? 0} ${STAGE_LABEL[s].toLowerCase()}`).join(', ')}`;
        })
        .join('; ')}`
    : `${label}: no activity yet`;
  root.setAttribute('aria-label', summary);
  const title = svg('title', {});
  title.textContent = summary;
  root.appendChild(title);
  // Axis and a few grid lines.
  const ticks = max <= 4 ? max : 4;
  for (let i = 0; i <= ticks; i++) {
    const v = Math.round((max * i) / ticks);
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
  days.forEach((d, i) => {
    const r = byDay.get(d)!;
    const gx = left + i * groupW + (groupW - barW * STAGES.length) / 2;
    STAGES.forEach((s, j) => {
      const v = r[s] ?? 0;
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
