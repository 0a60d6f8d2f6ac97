// Hash routes, so every page and tab is an ordinary link:
//   #/  #/hosts/<id>/<tab>  #/search?kind=&value=&extra=  #/schedule  #/audit
import { api, get, setToken, ApiError } from './api.js';
import { el, append, clear, text, time, dataTable } from './dom.js';
import { hostPage } from './host.js';

const view = document.getElementById('view');
let generation = 0;
let cleanups = [];

// Pages register timers here; they stop when the page is left.
export function onLeave(fn) { cleanups.push(fn); }
export function current(gen) { return gen === generation; }

function parseRoute() {
  const hash = location.hash.replace(/^#/, '') || '/';
  const [path, query] = hash.split('?');
  return { parts: path.split('/').filter(Boolean).map(decodeURIComponent), query: new URLSearchParams(query || '') };
}

async function route() {
  cleanups.forEach((fn) => fn());
  cleanups = [];
  const gen = ++generation;
  const { parts, query } = parseRoute();
  const page = parts[0] || 'fleet';
  document.querySelectorAll('header nav a').forEach((a) =>
    a.classList.toggle('current', a.dataset.page === (page === 'hosts' ? 'fleet' : page)));
  const target = el('div');
  try {
    if (page === 'fleet') await fleetPage(target);
    else if (page === 'hosts' && /^\d+$/.test(parts[1] || '')) await hostPage(target, Number(parts[1]), parts[2] || 'overview', query, gen);
    else if (page === 'search') await searchPage(target, query);
    else if (page === 'schedule') await schedulePage(target);
    else if (page === 'audit') await auditPage(target);
    else append(target, el('h1', {}, 'Not found'), el('p', {}, el('a', { href: '#/' }, 'Back to the fleet')));
  } catch (e) {
    showError(target, e);
  }
  if (gen !== generation) return;
  clear(view).append(target);
}

export function showError(target, e) {
  clear(target);
  if (e instanceof ApiError && e.status === 401) {
    const input = el('input', { type: 'password', 'aria-label': 'Token', autocomplete: 'off' });
    append(target, el('h1', {}, 'Sign in'),
           el('form', { class: 'order', onsubmit: (ev) => { ev.preventDefault(); setToken(input.value.trim()); route(); } },
              el('label', {}, 'Admin token ', input), el('button', { type: 'submit' }, 'Sign in')));
    return;
  }
  append(target, el('h1', {}, 'Something went wrong'), el('p', { class: 'error' }, e.message || String(e)));
}

// ---- Fleet

function newestReport(host) {
  const times = Object.values(host.latest || {}).filter(Boolean).map((t) => Date.parse(t)).filter((t) => !isNaN(t));
  return times.length ? new Date(Math.max(...times)).toISOString() : '';
}

// A host is not reporting when nothing came for twice the shortest enabled
// interval (minutes) of the schedule; null when no task is enabled.
export function staleAfterMs(tasks) {
  const intervals = (tasks || []).filter((t) => t.enabled && t.interval > 0).map((t) => t.interval);
  return intervals.length ? 2 * Math.min(...intervals) * 60000 : null;
}

export function markReporting(hosts, tasks, now) {
  const staleMs = staleAfterMs(tasks);
  for (const h of hosts) {
    h.lastReport = newestReport(h);
    h.notReporting = staleMs !== null && (!h.lastReport || now - Date.parse(h.lastReport) > staleMs);
  }
  return staleMs;
}

async function fleetPage(target) {
  const [hosts, schedule] = await Promise.all([get('/api/hosts'), get('/api/schedule').catch(() => null)]);
  const staleMs = markReporting(hosts, schedule && schedule.tasks, Date.now());
  const online = hosts.filter((h) => h.online).length;
  const card = (label, n, hint) => el('div', { class: 'card', title: hint || '' }, el('div', { class: 'n' }, n), label);
  append(target, el('h1', {}, 'Fleet'),
         el('div', { class: 'cards' }, card('hosts', hosts.length), card('online', online),
            card('offline', hosts.length - online),
            card('not reporting', staleMs === null ? '–' : hosts.filter((h) => h.notReporting).length,
                 staleMs === null ? 'no enabled task in the schedule' : `no report for ${staleMs / 60000} minutes`)));
  const columns = [
    { title: 'Name', value: (h) => h.hostname || `host ${h.id}`,
      render: (h) => el('a', { href: `#/hosts/${h.id}/overview` }, h.hostname || `host ${h.id}`) },
    { title: 'Status', value: (h) => (h.online ? 'online' : 'offline') + (h.notReporting ? ', not reporting' : ''),
      render: (h) => el('span', { class: h.notReporting ? 'status-stale' : h.online ? 'status-online' : 'status-offline' },
                        (h.online ? 'online' : 'offline') + (h.notReporting ? ', not reporting' : '')) },
    { title: 'IP', value: (h) => h.ip },
    { title: 'OS', value: (h) => h.os },
    { title: 'Agent', value: (h) => h.agentVersion },
    { title: 'Last seen', value: (h) => h.lastSeen, render: (h) => time(h.lastSeen) },
    { title: 'Last report', value: (h) => h.lastReport, render: (h) => time(h.lastReport) },
  ];
  target.append(dataTable(columns, hosts, { csvName: 'hosts.csv', sortIndex: 0 }));
}

// ---- Search

const SEARCH_KINDS = {
  package: { label: 'Package', extra: 'version', extraLabel: 'Version (optional)' },
  port: { label: 'Listening port' },
  service: { label: 'Service', extra: 'state', extraLabel: 'State (optional)' },
  process: { label: 'Process' },
  startup: { label: 'Start-up entry' },
};

async function searchPage(target, query) {
  const kind = SEARCH_KINDS[query.get('kind')] ? query.get('kind') : 'package';
  const value = query.get('value') || '';
  const extra = query.get('extra') || '';
  const kindSelect = el('select', { name: 'kind', 'aria-label': 'Search by' },
                        Object.entries(SEARCH_KINDS).map(([k, v]) => el('option', { value: k, selected: k === kind }, v.label)));
  kindSelect.value = kind;
  const valueInput = el('input', { type: 'text', name: 'value', value, 'aria-label': 'Value', required: true });
  const extraInput = el('input', { type: 'text', name: 'extra', value: extra });
  const syncExtra = () => {
    const k = SEARCH_KINDS[kindSelect.value];
    extraInput.hidden = !k.extra;
    extraInput.placeholder = k.extraLabel || '';
    extraInput.setAttribute('aria-label', k.extraLabel || 'extra');
  };
  kindSelect.addEventListener('change', syncExtra);
  syncExtra();
  const form = el('form', { class: 'order', onsubmit: (ev) => {
    ev.preventDefault();
    const q = new URLSearchParams({ kind: kindSelect.value, value: valueInput.value.trim() });
    if (SEARCH_KINDS[kindSelect.value].extra && extraInput.value.trim()) q.set('extra', extraInput.value.trim());
    location.hash = `#/search?${q}`;
  } }, kindSelect, valueInput, extraInput, el('button', { type: 'submit' }, 'Search'));
  append(target, el('h1', {}, 'Search'), form);
  if (!value) return;
  const q = new URLSearchParams({ [kind]: value });
  if (SEARCH_KINDS[kind].extra && extra) q.set(SEARCH_KINDS[kind].extra, extra);
  const results = await get(`/api/search?${q}`);
  // One row per matching item, with its host.
  const rows = [];
  const keys = [];
  for (const r of results)
    for (const m of r.matches || []) {
      rows.push({ host: r.host, match: m });
      for (const k of Object.keys(m)) if (!keys.includes(k)) keys.push(k);
    }
  append(target, el('p', { class: 'muted' }, `${results.length} host${results.length === 1 ? '' : 's'}, ${rows.length} matching item${rows.length === 1 ? '' : 's'}`));
  const columns = [
    { title: 'Host', value: (r) => r.host.hostname || `host ${r.host.id}`,
      render: (r) => el('a', { href: `#/hosts/${r.host.id}/overview` }, r.host.hostname || `host ${r.host.id}`) },
    { title: 'IP', value: (r) => r.host.ip },
    ...keys.map((k) => ({ title: k, value: (r) => r.match[k] })),
  ];
  target.append(dataTable(columns, rows, { csvName: `search-${kind}.csv` }));
}

// ---- Schedule

async function schedulePage(target) {
  const schedule = await get('/api/schedule');
  const status = el('p', { class: 'muted', role: 'status' });
  const rows = schedule.tasks.map((t) => ({
    task: t,
    enabled: el('input', { type: 'checkbox', checked: t.enabled, 'aria-label': `${t.name} enabled` }),
    runOnStart: el('input', { type: 'checkbox', checked: t.runOnStart, 'aria-label': `${t.name} run on start` }),
    interval: el('input', { type: 'number', min: 1, value: t.interval, 'aria-label': `${t.name} interval`, class: 'interval' }),
  }));
  const tbody = el('tbody', {}, rows.map((r) => el('tr', {}, el('td', {}, String(r.task.task)), el('td', {}, r.task.name),
                                                  el('td', {}, r.enabled), el('td', {}, r.runOnStart), el('td', {}, r.interval))));
  const reload = el('input', { type: 'checkbox', checked: true });
  const save = async (ev) => {
    ev.preventDefault();
    const edits = rows.map((r) => ({ name: r.task.name, enabled: r.enabled.checked, runOnStart: r.runOnStart.checked,
                                     interval: Number(r.interval.value) }))
      .filter((e, i) => e.enabled !== rows[i].task.enabled || e.runOnStart !== rows[i].task.runOnStart ||
                        e.interval !== rows[i].task.interval);
    status.className = 'muted';
    try {
      const res = await api('PUT', '/api/schedule', reload.checked ? { tasks: edits, reload: 'all' } : { tasks: edits });
      status.textContent = `Saved${res.orders.length ? `; reload ordered for ${res.orders.length} host(s)` : ''}.`;
      rows.forEach((r, i) => Object.assign(r.task, res.tasks[i]));
    } catch (e) {
      status.className = 'error';
      status.textContent = `Not saved: ${e.message}`;
    }
  };
  append(target, el('h1', {}, 'Schedule'), el('p', { class: 'muted' }, `File: ${text(schedule.file)}. Intervals in minutes.`),
         el('form', { onsubmit: save },
            el('div', { class: 'scroll' }, el('table', {}, el('thead', {}, el('tr', {}, ['#', 'Task', 'Enabled', 'Run on start', 'Interval'].map((h) => el('th', {}, h)))), tbody)),
            el('div', { class: 'toolbar' }, el('label', {}, reload, ' push the reload to every online host'),
               el('button', { type: 'submit' }, 'Save')), status));
}

// ---- Audit

async function auditPage(target) {
  const rows = await get('/api/audit');
  const columns = [
    { title: 'Time', value: (r) => r.time, render: (r) => time(r.time) },
    { title: 'From', value: (r) => r.source },
    { title: 'What', value: (r) => r.what },
    { title: 'Target', value: (r) => r.target },
    { title: 'Outcome', value: (r) => r.outcome },
  ];
  append(target, el('h1', {}, 'Audit'), dataTable(columns, rows, { csvName: 'audit.csv' }));
}

window.addEventListener('hashchange', route);
route();
