import { ApiError } from './api';
import { h, replace } from './dom';

/** Clears the errors a form shows. */
export function clearErrors(form: HTMLElement): void {
  form.querySelectorAll<HTMLElement>('.field-error').forEach((e) => {
    e.textContent = '';
    e.hidden = true;
  });
  form.querySelectorAll('[aria-invalid]').forEach((e) => e.removeAttribute('aria-invalid'));
  const top = form.querySelector<HTMLElement>('.form-error');
  if (top) {
    top.textContent = '';
    top.hidden = true;
  }
}

/** The field whose member is the longest prefix of the member the server named. */
function fieldFor(form: HTMLElement, member: string): HTMLElement | null {
  let best: HTMLElement | null = null;
  let bestLen = -1;
  form.querySelectorAll<HTMLElement>('[data-member]').forEach((el) => {
    const m = el.dataset.member ?? '';
    if (m === '') return;
    if ((member === m || member.startsWith(`${m}/`)) && m.length > bestLen) {
      best = el;
      bestLen = m.length;
    }
  });
  return best;
}

/** Shows an answer's error beside the field its member names, else at the top of the form. */
export function showError(form: HTMLElement, err: unknown, explain?: (e: ApiError) => string | null): void {
  clearErrors(form);
  const top = form.querySelector<HTMLElement>('.form-error');
  if (!(err instanceof ApiError)) {
    if (top) {
      top.textContent = err instanceof Error ? err.message : String(err);
      top.hidden = false;
    }
    return;
  }
  let text = err.message;
  const extra = explain?.(err);
  if (extra) text = `${text} ${extra}`;
  if (err.status === 429 && err.retryAfter) text = `${text} (try again in ${err.retryAfter} s)`;
  const members = [err.member, ...err.problems.map((p) => p.member)].filter((m): m is string => !!m);
  let placed = false;
  for (const member of members) {
    const wrap = fieldFor(form, member);
    if (!wrap) continue;
    const e = wrap.querySelector<HTMLElement>('.field-error');
    const inp = wrap.querySelector<HTMLElement>('input,select,textarea');
    if (e) {
      const msg = err.member === member ? text : err.problems.find((p) => p.member === member)?.message ?? text;
      e.textContent = e.textContent ? `${e.textContent} ${msg}` : msg;
      e.hidden = false;
      inp?.setAttribute('aria-invalid', 'true');
      if (!placed) inp?.focus();
      placed = true;
    }
  }
  if (!placed && top) {
    top.textContent = text;
    top.hidden = false;
  }
}

export function formError(): HTMLParagraphElement {
  return h('p', { class: 'form-error', role: 'alert', hidden: true });
}

/** A conflict notice with a Reload button, for a 412 answer. */
export function conflictNotice(into: HTMLElement, what: string, reload: () => void): void {
  replace(
    into,
    h(
      'div',
      { class: 'conflict', role: 'alert' },
      h('p', {}, `Someone else changed this ${what} since you opened it. Your changes were not saved.`),
      h('button', { type: 'button', class: 'primary', onclick: reload }, 'Reload'),
    ),
  );
  into.hidden = false;
}

export function toast(text: string): void {
  const t = document.getElementById('toast');
  if (!t) return;
  t.textContent = text;
  t.hidden = false;
  window.clearTimeout(Number(t.dataset.timer ?? 0));
  t.dataset.timer = String(window.setTimeout(() => (t.hidden = true), 4000));
}

/** Writes an answer's error into one message element. */
export function showMessage(el: HTMLElement, err: unknown, explain?: (e: ApiError) => string | null): void {
  let text = err instanceof Error ? err.message : String(err);
  if (err instanceof ApiError) {
    const extra = explain?.(err);
    if (extra) text = `${text} ${extra}`;
    if (err.status === 429 && err.retryAfter) text = `${text} (try again in ${err.retryAfter} s)`;
  }
  el.textContent = text;
  el.hidden = false;
}
