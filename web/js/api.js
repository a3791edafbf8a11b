// Calls to the web API server: JSON bodies, the session cookie and the CSRF
// header, and one place that handles a session that ended.

const ENTRY = '/webapi/entry.cgi';
const STORE_KEY = 'kestondri.session';

export class ApiError extends Error {
  constructor(code, errors = null) {
    super(`error ${code}`);
    this.code = code;
    this.errors = errors;
  }
}

async function post(body, token) {
  const headers = { 'Content-Type': 'application/json' };
  if (token) headers['X-Kest-CSRF-Token'] = token;
  let response;
  try {
    response = await fetch(ENTRY, {
      method: 'POST',
      headers,
      body: JSON.stringify(body),
      credentials: 'same-origin',
      cache: 'no-store',
    });
  } catch {
    throw new ApiError(0);
  }
  let answer;
  try {
    answer = await response.json();
  } catch {
    throw new ApiError(response.ok ? 121 : 105);
  }
  if (!answer || answer.success !== true) {
    const error = (answer && answer.error) || {};
    throw new ApiError(Number.isInteger(error.code) ? error.code : 117, error.errors || null);
  }
  return answer.data;
}

export class Api {
  // `onSessionLost(code)` shows the sign-in form and resolves once the user
  // signed in again (it may never resolve).
  constructor(onSessionLost) {
    this.onSessionLost = onSessionLost;
    this.session = null;
    this.relogin = null;
    try {
      // Per tab: the cookie is HttpOnly, the CSRF token lives here so that a
      // reload keeps the session.
      const saved = JSON.parse(sessionStorage.getItem(STORE_KEY) || 'null');
      if (saved && typeof saved.token === 'string') this.session = saved;
    } catch {
      this.session = null;
    }
  }

  get account() {
    return this.session ? this.session.account : '';
  }

  get isAdmin() {
    return Boolean(this.session && this.session.isAdmin);
  }

  async login(account, password) {
    const data = await post({ api: 'KEST.API.Auth', method: 'login', version: 1, account, passwd: password });
    this.session = { token: data.csrf_token, account: data.account, isAdmin: Boolean(data.is_admin) };
    sessionStorage.setItem(STORE_KEY, JSON.stringify(this.session));
    return this.session;
  }

  async logout() {
    const token = this.session && this.session.token;
    this.forget();
    if (!token) return;
    try {
      await post({ api: 'KEST.API.Auth', method: 'logout', version: 1 }, token);
    } catch {
      // Signed out here either way; the server's session expires on its own.
    }
  }

  forget() {
    this.session = null;
    sessionStorage.removeItem(STORE_KEY);
  }

  // One method call. A session that ended is renewed through the sign-in
  // form and the call is made again, once.
  async call(api, method, params = {}) {
    for (let attempt = 0; ; attempt += 1) {
      try {
        if (!this.session) throw new ApiError(106);
        return await post({ ...params, api, method, version: 1 }, this.session.token);
      } catch (error) {
        if (!(error instanceof ApiError) || (error.code !== 106 && error.code !== 108) || attempt > 0) {
          throw error;
        }
        this.forget();
        if (!this.relogin) {
          this.relogin = Promise.resolve(this.onSessionLost(error.code)).finally(() => {
            this.relogin = null;
          });
        }
        await this.relogin;
      }
    }
  }
}

// The address of a file for the browser: shown in place, or saved.
export function fileUrl(reference, download = false) {
  const query = new URLSearchParams({ path: reference });
  if (download) query.set('download', '1');
  return `/webapi/file?${query}`;
}

// Asks for the first byte of a file, so that a refusal can be told in words
// before the browser leaves for it. Resolves to 0 when it may be opened, or
// to the error's code.
export async function checkFile(url) {
  try {
    const response = await fetch(url, { headers: { Range: 'bytes=0-0' }, credentials: 'same-origin', cache: 'no-store' });
    // 416: an empty file, which has no first byte.
    if (response.ok || response.status === 416) {
      if (response.body) response.body.cancel();
      return 0;
    }
    const answer = await response.json().catch(() => null);
    return (answer && answer.error && answer.error.code) || 105;
  } catch {
    return 0;
  }
}
