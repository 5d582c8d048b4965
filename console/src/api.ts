// Same-origin calls to the admin listener: the session cookie travels by itself, and every
// request that changes something carries the CSRF token the session answered.

export interface Problem {
  feature: number | null;
  member: string | null;
  message: string;
}

export class ApiError extends Error {
  constructor(
    readonly status: number,
    message: string,
    readonly member: string | null,
    readonly problems: Problem[],
    readonly body: unknown,
    readonly retryAfter: string | null,
  ) {
    super(message);
  }
}

export interface Answer<T> {
  status: number;
  data: T;
  etag: string | null;
}

let csrf: string | null = null;
let onSignedOut: () => void = () => {};

export function setCsrf(token: string | null): void {
  csrf = token;
}
export function signedIn(): boolean {
  return csrf !== null;
}
export function whenSignedOut(fn: () => void): void {
  onSignedOut = fn;
}

const TIMEOUT_MS = 20000;

async function call<T>(
  method: string,
  url: string,
  body?: unknown,
  opts: { ifMatch?: string | null; raw?: string; noSignOut?: boolean } = {},
): Promise<Answer<T>> {
  const headers: Record<string, string> = { Accept: 'application/json' };
  if (method !== 'GET' && method !== 'HEAD') {
    if (csrf) headers['X-CSRF-Token'] = csrf;
  }
  let payload: string | undefined;
  if (opts.raw !== undefined) {
    payload = opts.raw;
    headers['Content-Type'] = 'application/json';
  } else if (body !== undefined) {
    payload = JSON.stringify(body);
    headers['Content-Type'] = 'application/json';
  }
  if (opts.ifMatch) headers['If-Match'] = opts.ifMatch;
  const ctrl = new AbortController();
  const timer = setTimeout(() => ctrl.abort(), TIMEOUT_MS);
  let res: Response;
  try {
    res = await fetch(url, {
      method,
      headers,
      body: payload,
      credentials: 'same-origin',
      cache: 'no-store',
      signal: ctrl.signal,
    });
  } catch (e) {
    const why = ctrl.signal.aborted ? 'the server did not answer in time' : 'the server cannot be reached';
    throw new ApiError(0, why, null, [], null, null);
  } finally {
    clearTimeout(timer);
  }
  const text = await res.text();
  let data: any = null;
  if (text) {
    try {
      data = JSON.parse(text);
    } catch {
      data = null;
    }
  }
  if (!res.ok) {
    if (res.status === 401 && !opts.noSignOut) {
      csrf = null;
      onSignedOut();
    }
    const message =
      data && typeof data.error === 'string' ? data.error : `the server answered ${res.status} ${res.statusText}`.trim();
    const problems: Problem[] = Array.isArray(data?.problems)
      ? data.problems.map((p: any) => ({
          feature: typeof p?.feature === 'number' ? p.feature : null,
          member: typeof p?.member === 'string' ? p.member : null,
          message: typeof p?.message === 'string' ? p.message : String(p?.message ?? ''),
        }))
      : [];
    const member = data && typeof data.member === 'string' ? data.member : null;
    throw new ApiError(res.status, message, member, problems, data, res.headers.get('Retry-After'));
  }
  return { status: res.status, data: data as T, etag: res.headers.get('ETag') };
}

export const admin = {
  get<T>(path: string) {
    return call<T>('GET', `/admin/v1/${path}`);
  },
  post<T>(path: string, body?: unknown, ifMatch?: string | null) {
    return call<T>('POST', `/admin/v1/${path}`, body ?? {}, { ifMatch });
  },
  postRaw<T>(path: string, raw: string) {
    return call<T>('POST', `/admin/v1/${path}`, undefined, { raw });
  },
  patch<T>(path: string, body: unknown) {
    return call<T>('PATCH', `/admin/v1/${path}`, body);
  },
  del<T>(path: string, ifMatch?: string | null) {
    return call<T>('DELETE', `/admin/v1/${path}`, undefined, { ifMatch });
  },
};

/** The admin token a session was opened with: its name and role (read, support, campaigns, admin). */
export interface SignedInAs {
  token: string;
  role: string;
}
let who: SignedInAs | null = null;

/** Who the console is signed in as; null before a sign-in. */
export function signedInAs(): SignedInAs | null {
  return who;
}

type SessionAnswer = { csrf: string; token?: string; role?: string };

function opened(answer: SessionAnswer): void {
  setCsrf(answer.csrf);
  who = answer.token && answer.role ? { token: answer.token, role: answer.role } : null;
}

export const session = {
  async signIn(token: string): Promise<void> {
    const a = await call<SessionAnswer>('POST', '/console/api/session', { token }, { noSignOut: true });
    opened(a.data);
  },
  async resume(): Promise<boolean> {
    try {
      const a = await call<SessionAnswer>('GET', '/console/api/session', undefined, { noSignOut: true });
      opened(a.data);
      return true;
    } catch {
      return false;
    }
  },
  async signOut(): Promise<void> {
    try {
      await call('DELETE', '/console/api/session', undefined, { noSignOut: true });
    } finally {
      csrf = null;
      onSignedOut();
    }
  },
};

/**
 * The version of one item for If-Match: its own answer's ETag when the server has one, else `fallback`
 * (the list's). A lost session is not hidden behind the fallback.
 */
export async function versionOf(path: string, fallback: string | null): Promise<string | null> {
  try {
    const a = await admin.get<unknown>(path);
    return a.etag ?? fallback;
  } catch (e) {
    if (e instanceof ApiError && e.status === 401) throw e;
    return fallback;
  }
}

/** Path segment for an id or name. */
export function seg(v: string | number): string {
  return encodeURIComponent(String(v));
}
