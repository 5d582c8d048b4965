import { afterEach, beforeEach, describe, expect, it, vi } from 'vitest';
import { admin, ApiError, seg, session, setCsrf, signedIn, versionOf, whenSignedOut } from '../src/api';

interface Reply {
  status?: number;
  statusText?: string;
  body?: string;
  headers?: Record<string, string>;
}

let sent: { url: string; init: RequestInit }[] = [];
const signedOut = vi.fn();

/** The server answers these, one a request, in order; an Error is a network failure. */
function serve(...replies: (Reply | Error)[]): void {
  vi.stubGlobal(
    'fetch',
    vi.fn(async (url: string, init: RequestInit) => {
      sent.push({ url, init });
      const r = replies.shift() ?? {};
      if (r instanceof Error) throw r;
      return new Response(r.body ?? '', { status: r.status ?? 200, statusText: r.statusText ?? '', headers: r.headers });
    }),
  );
}

const header = (i: number, name: string): string | null => new Headers(sent[i]!.init.headers).get(name);

async function refused(p: Promise<unknown>): Promise<ApiError> {
  const e = await p.then(
    () => null,
    (x: unknown) => x,
  );
  expect(e).toBeInstanceOf(ApiError);
  return e as ApiError;
}

beforeEach(() => {
  sent = [];
  setCsrf(null);
  signedOut.mockClear();
  whenSignedOut(signedOut);
});
afterEach(() => {
  vi.unstubAllGlobals();
  vi.useRealTimers();
});

describe('an answer the server refused', () => {
  it('tells the status when the body is not JSON, or has no words', async () => {
    serve({ status: 502, statusText: 'Bad Gateway', body: '<html>proxy error</html>' }, { status: 500, body: '{"error": 7}' });
    const html = await refused(admin.get('campaigns'));
    expect([html.status, html.message, html.member, html.problems, html.body]).toEqual([502, 'the server answered 502 Bad Gateway', null, [], null]);
    expect((await refused(admin.get('campaigns'))).message).toBe('the server answered 500');
  });

  it('drops a member and problems of the wrong shape', async () => {
    serve({ status: 400, body: '{"error": "bad body", "member": ["/name"], "problems": {"0": {"member": "/name"}}}' });
    const e = await refused(admin.post('campaigns', {}));
    expect([e.message, e.member, e.problems]).toEqual(['bad body', null, []]);
  });

  it('keeps of each problem what has the right type', async () => {
    const problems = [null, { feature: '3', member: 5, message: 42 }, { feature: 2, member: '/features/2/geometry', message: 'not a Point' }];
    serve({ status: 400, body: JSON.stringify({ error: '3 problems in the file', problems }) });
    expect((await refused(admin.postRaw('import', '{}'))).problems).toEqual([
      { feature: null, member: null, message: '' },
      { feature: null, member: null, message: '42' },
      { feature: 2, member: '/features/2/geometry', message: 'not a Point' },
    ]);
  });

  it('carries Retry-After', async () => {
    serve({ status: 429, body: '{"error": "too many tries"}', headers: { 'Retry-After': '30' } });
    expect((await refused(session.signIn('x'))).retryAfter).toBe('30');
  });

  it('is status 0 when the server cannot be reached, or does not answer in 20 s', async () => {
    serve(new TypeError('fetch failed'));
    expect(await refused(admin.get('apps'))).toMatchObject({ status: 0, message: 'the server cannot be reached' });
    vi.useFakeTimers();
    vi.stubGlobal('fetch', (_url: string, init: RequestInit) => new Promise((_, reject) => init.signal!.addEventListener('abort', () => reject(new Error('aborted')))));
    const slow = refused(admin.get('apps'));
    await vi.advanceTimersByTimeAsync(20000);
    expect(await slow).toMatchObject({ status: 0, message: 'the server did not answer in time' });
  });
});

describe('what a request carries', () => {
  it('sends the anti-forgery token with changes only', async () => {
    setCsrf('tok');
    serve({}, {}, {});
    await admin.get('campaigns');
    await admin.post('campaigns', { name: 'Spring' });
    await admin.del('apps/k');
    expect(sent.map((_, i) => header(i, 'X-CSRF-Token'))).toEqual([null, 'tok', 'tok']);
    expect(sent[1]).toMatchObject({ url: '/admin/v1/campaigns', init: { method: 'POST', body: '{"name":"Spring"}' } });
    expect(header(1, 'Content-Type')).toBe('application/json');
  });

  it('sends If-Match only with a version', async () => {
    serve({}, {}, {}, {});
    await admin.post('places', {}, '"v1"');
    await admin.post('places', {}, null);
    await admin.del('places/3', '');
    await admin.del('places/3', 'W/"3"');
    expect(sent.map((_, i) => header(i, 'If-Match'))).toEqual(['"v1"', null, null, 'W/"3"']);
  });

  it('posts {} without a body, and a raw file as it is', async () => {
    serve({}, {});
    await admin.post('apps/k/rotate');
    await admin.postRaw('import?dry_run=1', '{"type": "FeatureCollection" }');
    expect(sent.map((s) => s.init.body)).toEqual(['{}', '{"type": "FeatureCollection" }']);
  });

  it('answers the data and the ETag; an empty body is null', async () => {
    serve({ body: '', headers: { ETag: '"7"' } });
    expect(await admin.get('campaigns/1')).toEqual({ status: 200, data: null, etag: '"7"' });
  });

  it('keeps an id or key one path segment', () => {
    expect(seg('a/b?c#d e')).toBe('a%2Fb%3Fc%23d%20e');
    expect(seg(12)).toBe('12');
  });
});

describe('the session', () => {
  it('ends at the first 401 of a call, once, and later changes carry no token', async () => {
    setCsrf('tok');
    serve({ status: 401, body: '{"error": "sign in"}' }, {});
    await refused(admin.post('campaigns/1/disable'));
    expect(signedOut).toHaveBeenCalledTimes(1);
    expect(signedIn()).toBe(false);
    await admin.post('campaigns/1/disable');
    expect(header(1, 'X-CSRF-Token')).toBeNull();
  });

  it('does not sign out at a wrong token, and takes the token of a right one', async () => {
    serve({ status: 401, body: '{"error": "wrong token"}' }, { body: '{"csrf": "c1"}' }, {});
    expect((await refused(session.signIn('bad'))).message).toBe('wrong token');
    expect([signedOut.mock.calls.length, signedIn()]).toEqual([0, false]);
    await session.signIn('good');
    await admin.post('apps', { name: 'x' });
    expect(sent[1]!.init.body).toBe('{"token":"good"}');
    expect(header(2, 'X-CSRF-Token')).toBe('c1');
  });

  it('signs out even when the server cannot be reached', async () => {
    setCsrf('tok');
    serve(new TypeError('offline'));
    await refused(session.signOut());
    expect(header(0, 'X-CSRF-Token')).toBe('tok');
    expect([signedOut.mock.calls.length, signedIn()]).toEqual([1, false]);
  });

  it('resumes a session the server knows, quietly not one it has forgotten', async () => {
    serve({ status: 401, body: '{}' }, { body: '{"csrf": "c2"}' });
    expect(await session.resume()).toBe(false);
    expect(signedOut).not.toHaveBeenCalled();
    expect(await session.resume()).toBe(true);
    expect(signedIn()).toBe(true);
  });
});

describe('the version an edit sends back', () => {
  it('is the item’s own ETag when it has one', async () => {
    serve({ body: '{}', headers: { ETag: '"item-3"' } });
    expect(await versionOf('places/3', '"list"')).toBe('"item-3"');
    expect(sent[0]!.url).toBe('/admin/v1/places/3');
  });

  it('is the list’s when the item has none or cannot be read', async () => {
    serve({ body: '{}' }, { status: 404, body: '{"error": "no place 3"}' }, new TypeError('offline'));
    for (let i = 0; i < 3; i++) expect(await versionOf('places/3', '"list"')).toBe('"list"');
  });

  it('does not hide a lost session', async () => {
    serve({ status: 401, body: '{}' });
    expect((await refused(versionOf('campaigns/1', '"list"'))).status).toBe(401);
  });
});
