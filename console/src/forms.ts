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

/**
 * Of the fields' members (JSON Pointers), the index of the one that names the member the server named,
 * or the longest that holds it; -1 for none. A field without a member takes no error.
 */
export function fieldOf(fields: readonly string[], member: string): number {
  let best = -1;
  fields.forEach((m, i) => {
    if (m === '') return;
    if ((member === m || member.startsWith(`${m}/`)) && (best < 0 || m.length > fields[best]!.length)) best = i;
  });
  return best;
}

/** The text that tells an answer's error: the server's words, what the screen adds, when to try again. */
export function errorText(err: unknown, explain?: (e: ApiError) => string | null): string {
  let text = err instanceof Error ? err.message : String(err);
  if (err instanceof ApiError) {
    const extra = explain?.(err);
    if (extra) text = `${text} ${extra}`;
    if (err.status === 429 && err.retryAfter) text = `${text} (try again in ${err.retryAfter} s)`;
  }
  return text;
}

/**
 * Where an answer's messages go, in the server's order: the answer's own (`text`) at the field of its
 * member, then each problem's message at the field of the problem's member. A problem that only repeats
 * the answer (the server names its one problem both ways) is not told twice, and one without words tells
 * the answer's. Members no field holds are left out: the caller shows `text` at the top of the form when
 * nothing found a field.
 */
export function placeErrors(err: ApiError, text: string, fields: readonly string[]): { field: number; message: string }[] {
  const told: { member: string | null; message: string }[] = [
    { member: err.member, message: text },
    ...err.problems
      .filter((p) => !(p.member === err.member && p.message === err.message))
      .map((p) => ({ member: p.member, message: p.message || text })),
  ];
  const out: { field: number; message: string }[] = [];
  for (const { member, message } of told) {
    if (!member) continue;
    const field = fieldOf(fields, member);
    if (field >= 0) out.push({ field, message });
  }
  return out;
}

/** Shows an answer's error beside the field its member names, else at the top of the form. */
export function showError(form: HTMLElement, err: unknown, explain?: (e: ApiError) => string | null): void {
  clearErrors(form);
  const top = form.querySelector<HTMLElement>('.form-error');
  if (!(err instanceof ApiError)) {
    if (top) {
      top.textContent = errorText(err);
      top.hidden = false;
    }
    return;
  }
  const text = errorText(err, explain);
  const wraps = [...form.querySelectorAll<HTMLElement>('[data-member]')];
  let placed = false;
  for (const { field, message } of placeErrors(err, text, wraps.map((el) => el.dataset.member ?? ''))) {
    const wrap = wraps[field]!;
    const e = wrap.querySelector<HTMLElement>('.field-error');
    const inp = wrap.querySelector<HTMLElement>('input,select,textarea');
    if (e) {
      e.textContent = e.textContent ? `${e.textContent} ${message}` : message;
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
  el.textContent = errorText(err, explain);
  el.hidden = false;
}

/** Copies `text` to the clipboard, or selects it for the user where the browser refuses. */
export async function copy(text: string, what: string): Promise<void> {
  try {
    await navigator.clipboard.writeText(text);
    toast(`Copied ${what}.`);
  } catch {
    // Clipboard refused (not a secure context, or no permission): select it for the user.
    const ta = h('textarea', { class: 'copy-fallback', 'aria-label': what, readonly: true });
    ta.value = text;
    document.body.appendChild(ta);
    ta.select();
    const ok = document.execCommand('copy');
    ta.remove();
    toast(ok ? `Copied ${what}.` : 'The browser refused to copy.');
  }
}

/**
 * How a screen runs a change from one of its buttons: `top` hidden, the request awaited, `done` toasted and
 * the screen refreshed; a failure is shown in `top` (in the words of `explain` where it has some).
 */
export function actions(top: HTMLElement, refresh: () => Promise<void>) {
  return async (p: Promise<unknown>, done: string, explain?: (e: ApiError) => string | null): Promise<void> => {
    top.hidden = true;
    try {
      await p;
      toast(done);
      await refresh();
    } catch (e) {
      showMessage(top, e, explain);
      top.scrollIntoView({ block: 'nearest' });
    }
  };
}
