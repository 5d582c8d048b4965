import { admin, ApiError } from '../api';
import { funnelChart, legend, STAGE_LABEL, STAGES } from '../chart';
import { h, replace } from '../dom';
import { campaignState, loadCampaigns, loadOffers, type Campaign, type Funnel, type FunnelRow, type Offer } from '../model';

const REFRESH_MS = 5000;

function totalsTable(row: FunnelRow | undefined, caption: string): HTMLTableElement {
  return h(
    'table',
    { class: 'totals' },
    h('caption', { class: 'visually-hidden' }, caption),
    h('thead', {}, h('tr', {}, STAGES.map((s) => h('th', { scope: 'col' }, STAGE_LABEL[s])))),
    h('tbody', {}, h('tr', {}, STAGES.map((s) => h('td', { 'data-stage': s }, String(row?.[s] ?? 0))))),
  );
}

function dates(c: Campaign): string {
  const from = c.startDate || 'open';
  const to = c.endDate || 'open';
  return `${from} → ${to}`;
}

function campaignCard(c: Campaign, offers: Offer[], funnel: Funnel): HTMLElement {
  const state = campaignState(c);
  const total = funnel.campaigns.find((r) => r.campaignId === c.id || r.campaign === c.name);
  const days = (funnel.days?.campaigns ?? []).filter((r) => r.campaignId === c.id || r.campaign === c.name);
  const headingId = `c-${c.id}`;
  return h(
    'section',
    { class: 'card campaign', 'aria-labelledby': headingId, 'data-campaign': c.name },
    h(
      'div',
      { class: 'card-head' },
      h('h2', { id: headingId }, c.name),
      h('span', { class: `badge state-${state}`, 'data-state': state }, state),
    ),
    h(
      'p',
      { class: 'meta' },
      dates(c),
      c.perDeviceCap !== null && c.perDeviceCap !== undefined ? ` · ${c.perDeviceCap} per device` : '',
    ),
    totalsTable(total, `Funnel of ${c.name}`),
    funnelChart(days, `Funnel of ${c.name} by day`),
    offers.length
      ? h(
          'details',
          { class: 'offers' },
          h('summary', {}, `${offers.length} offer${offers.length === 1 ? '' : 's'}`),
          h(
            'ul',
            {},
            offers.map((o) => {
              const row = funnel.offers.find((r) => r.eventId === o.eventId);
              return h(
                'li',
                { 'data-offer': String(o.eventId) },
                h('span', { class: 'offer-name' }, o.eventName),
                ` #${o.eventId}`,
                o.disabled ? h('span', { class: 'badge state-disabled' }, 'disabled') : null,
                h('span', { class: 'offer-stats' }, ` ${row?.links ?? 0} links · ${row?.saved ?? 0} saved`),
              );
            }),
          ),
        )
      : h('p', { class: 'meta' }, 'No offers.'),
  );
}

export function mountOverview(root: HTMLElement): () => void {
  const status = h('p', { class: 'meta' });
  const list = h('div', { class: 'cards' });
  replace(root, h('div', { class: 'screen-head' }, h('h1', {}, 'Overview'), legend()), status, list);
  let timer = 0;
  let stopped = false;

  async function refresh(): Promise<void> {
    try {
      const [c, o, f] = await Promise.all([loadCampaigns(), loadOffers(), admin.get<Funnel>('funnel?by=day')]);
      if (stopped) return;
      const open = new Set([...list.querySelectorAll<HTMLElement>('details[open]')].map((d) => d.closest<HTMLElement>('[data-campaign]')?.dataset.campaign));
      replace(
        list,
        c.list.length
          ? c.list.map((camp) => campaignCard(camp, o.list.filter((x) => x.campaign === camp.name), f.data))
          : h('p', {}, 'No campaigns yet. Draw a place on the map or import a place file.'),
      );
      list.querySelectorAll<HTMLElement>('[data-campaign]').forEach((card) => {
        if (open.has(card.dataset.campaign)) card.querySelector('details')?.setAttribute('open', '');
      });
      status.textContent = `Updated ${new Date().toLocaleTimeString()}`;
    } catch (e) {
      if (stopped) return;
      status.textContent = `Not updated: ${e instanceof ApiError || e instanceof Error ? e.message : String(e)}`;
    }
    if (!stopped) timer = window.setTimeout(() => void refresh(), REFRESH_MS);
  }
  void refresh();
  return () => {
    stopped = true;
    window.clearTimeout(timer);
  };
}
