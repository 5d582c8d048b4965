// Small DOM helpers. Text is always set as text nodes: nothing here parses HTML.

type Attr = string | number | boolean | null | undefined | ((ev: any) => void);
export type Child = Node | string | number | null | undefined | false;

export function h<K extends keyof HTMLElementTagNameMap>(
  tag: K,
  attrs: Record<string, Attr> = {},
  ...children: (Child | Child[])[]
): HTMLElementTagNameMap[K] {
  const el = document.createElement(tag);
  for (const [name, value] of Object.entries(attrs)) {
    if (value === null || value === undefined || value === false) continue;
    if (typeof value === 'function') {
      el.addEventListener(name.replace(/^on/, ''), value as EventListener);
    } else if (value === true) {
      el.setAttribute(name, '');
    } else {
      el.setAttribute(name, String(value));
    }
  }
  append(el, children);
  return el;
}

export function append(parent: Node, children: (Child | Child[])[]): void {
  for (const c of children.flat()) {
    if (c === null || c === undefined || c === false) continue;
    parent.appendChild(typeof c === 'string' || typeof c === 'number' ? document.createTextNode(String(c)) : c);
  }
}

export function clear(el: Element): void {
  while (el.firstChild) el.removeChild(el.firstChild);
}

export function replace(el: Element, ...children: (Child | Child[])[]): void {
  clear(el);
  append(el, children);
}

let uid = 0;
export function nextId(prefix: string): string {
  uid += 1;
  return `${prefix}-${uid}`;
}

/** A labelled form field. `member` is the JSON Pointer the server names in its errors. */
export interface Field {
  wrap: HTMLDivElement;
  input: HTMLInputElement | HTMLSelectElement | HTMLTextAreaElement;
  error: HTMLParagraphElement;
}

export function field(
  label: string,
  input: HTMLInputElement | HTMLSelectElement | HTMLTextAreaElement,
  member?: string,
  hint?: string,
): Field {
  const id = input.id || nextId('f');
  input.id = id;
  const error = h('p', { class: 'field-error', id: `${id}-err`, hidden: true });
  const hintEl = hint ? h('p', { class: 'hint', id: `${id}-hint` }, hint) : null;
  input.setAttribute('aria-describedby', [hintEl ? `${id}-hint` : '', `${id}-err`].filter(Boolean).join(' '));
  const wrap = h('div', { class: 'field' }, h('label', { for: id }, label), input, hintEl, error);
  if (member !== undefined) wrap.dataset.member = member;
  return { wrap, input, error };
}

export function input(attrs: Record<string, Attr> = {}): HTMLInputElement {
  return h('input', { type: 'text', ...attrs });
}

export function select(options: [string, string][], value?: string, attrs: Record<string, Attr> = {}): HTMLSelectElement {
  const s = h('select', attrs, options.map(([v, t]) => h('option', { value: v }, t)));
  if (value !== undefined) s.value = value;
  return s;
}

export function button(text: string, onclick: (ev: MouseEvent) => void, attrs: Record<string, Attr> = {}): HTMLButtonElement {
  return h('button', { type: 'button', ...attrs, onclick }, text);
}

/**
 * "••••" and the last four characters of a secret; a secret shorter than 12 characters shows none, so
 * that most of a key is never on the page.
 */
export function mask(secret: string): string {
  return secret.length < 12 ? '••••' : `••••${secret.slice(-4)}`;
}

/** A button that asks once more before it acts (no modal dialogs). */
export function confirmButton(text: string, confirmText: string, action: () => Promise<void> | void, attrs: Record<string, Attr> = {}): HTMLButtonElement {
  let armed = 0;
  const label = typeof attrs['aria-label'] === 'string' ? (attrs['aria-label'] as string) : null;
  const setLabel = (on: boolean): void => {
    if (label) b.setAttribute('aria-label', on ? `${confirmText} (${label})` : label);
  };
  const b = button(
    text,
    () => {
      if (!armed) {
        b.textContent = confirmText;
        b.classList.add('armed');
        setLabel(true);
        armed = window.setTimeout(() => {
          armed = 0;
          b.textContent = text;
          b.classList.remove('armed');
          setLabel(false);
        }, 5000);
        return;
      }
      window.clearTimeout(armed);
      armed = 0;
      b.textContent = text;
      b.classList.remove('armed');
      setLabel(false);
      void action();
    },
    { class: 'danger', ...attrs },
  );
  return b;
}

/** Gives each cell its column's heading, shown beside it where the table stacks on small screens. */
export function labelCells(table: HTMLTableElement): HTMLTableElement {
  const heads = [...table.querySelectorAll('thead th')].map((th) => th.textContent ?? '');
  table.querySelectorAll('tbody tr').forEach((tr) => {
    [...tr.children].forEach((cell, i) => {
      if (heads[i] && cell.tagName === 'TD') cell.setAttribute('data-label', heads[i]!);
    });
  });
  return table;
}
