// The admin API. With a token configured, the console asks for it once per
// browser session and keeps it in sessionStorage.

const TOKEN_KEY = 'edr-console-token';

export class ApiError extends Error {
  constructor(status, message) { super(message); this.status = status; }
}

export async function api(method, path, body) {
  const headers = {};
  const token = sessionStorage.getItem(TOKEN_KEY);
  if (token) headers.Authorization = `Bearer ${token}`;
  if (body !== undefined) headers['Content-Type'] = 'application/json';
  const res = await fetch(path, { method, headers, body: body === undefined ? undefined : JSON.stringify(body),
                                  cache: 'no-store' });
  const type = res.headers.get('Content-Type') || '';
  const data = type.startsWith('application/json') ? await res.json().catch(() => null) : await res.text();
  if (!res.ok) {
    if (res.status === 401) sessionStorage.removeItem(TOKEN_KEY);
    throw new ApiError(res.status, (data && data.error) || `HTTP ${res.status}`);
  }
  return data;
}

export const get = (path) => api('GET', path);

export function setToken(token) {
  if (token) sessionStorage.setItem(TOKEN_KEY, token);
  else sessionStorage.removeItem(TOKEN_KEY);
}
