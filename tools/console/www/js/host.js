// One host: its inventory in tabs, its history and its orders.
import { api, get } from './api.js';
import { el, append, clear, text, time, dataTable, columnsOf, keyValues } from './dom.js';
import { onLeave, current } from './app.js';

const TABS = [
  ['overview', 'Overview'], ['software', 'Software'], ['processes', 'Processes'], ['services', 'Services'],
  ['network', 'Network'], ['startup', 'Start-up'], ['firewall', 'Firewall'], ['history', 'History'],
  ['orders', 'Orders'], ['raw', 'Raw'],
];
const CATEGORIES = ['agent', 'hardware', 'software', 'processes', 'services', 'network', 'startup', 'firewall'];

// The list each list category reports, and the columns to show first.
const LISTS = {
  software: [['InstallSoft', ['Name', 'Version', 'Description', 'InstallDate', 'Size']]],
  processes: [['Process', ['Name', 'ProcessId', 'PID', 'User', 'CommandLine']]],
  services: [['Services', ['Name', 'State', 'StartMode', 'Description']]],
  network: [['ListeningPorts', ['Protocol', 'LocalIP', 'LocalPort', 'ProcessName']],
            ['TCPConnections', ['Protocol', 'LocalIP', 'LocalPort', 'RemoteIP', 'RemotePort', 'State', 'ProcessName']]],
  startup: [['Startup_Apps', ['Name', 'User', 'Location', 'Command', 'Description']]],
};

function none(what) { return el('p', { class: 'muted' }, `No ${what} report yet.`); }

function listTables(host, category) {
  const body = host.reports && host.reports[category];
  if (!body) return none(category);
  const out = [];
  for (const [key, preferred] of LISTS[category]) {
    const rows = Array.isArray(body[key]) ? body[key] : [];
    if (LISTS[category].length > 1) out.push(el('h2', {}, key));
    out.push(dataTable(columnsOf(rows, preferred), rows, { csvName: `${host.hostname || host.id}-${key}.csv`, sortIndex: rows.length ? 0 : -1 }));
  }
  return out;
}

export async function hostPage(target, id, tab, query, gen) {
  if (!TABS.some(([t]) => t === tab)) tab = 'overview';
  const host = await get(`/api/hosts/${id}`);
  const name = host.hostname || `host ${id}`;
  document.title = `${name} · edr-console`;
  append(target,
         el('p', { class: 'muted' }, el('a', { href: '#/' }, 'Fleet'), ' / ', name),
         el('h1', {}, name),
         el('p', {}, el('span', { class: host.online ? 'status-online' : 'status-offline' }, host.online ? 'online' : 'offline'),
            ` · ${text(host.ip)} · ${text(host.os)} · agent ${text(host.agentVersion)} · last seen `, time(host.lastSeen)),
         el('nav', { class: 'tabs', 'aria-label': 'Host' },
            TABS.map(([t, label]) => el('a', { href: `#/hosts/${id}/${t}`, class: t === tab ? 'current' : '',
                                               'aria-current': t === tab ? 'page' : false }, label))));
  const panel = el('section', { id: `tab-${tab}` });
  target.append(panel);
  switch (tab) {
    case 'overview': {
      const info = { Id: host.id, Name: host.hostname, IP: host.ip, OS: host.os, 'Agent version': host.agentVersion };
      append(panel, keyValues(info), el('h2', {}, 'Times'),
             el('div', { class: 'scroll' }, el('table', { class: 'kv' }, el('tbody', {},
               [['First seen', host.firstSeen], ['Last seen', host.lastSeen],
                ...CATEGORIES.map((c) => [`Latest ${c} report`, (host.latest || {})[c]])]
                 .map(([k, v]) => el('tr', {}, el('th', { scope: 'row' }, k), el('td', {}, time(v))))))),
             el('h2', {}, 'Hardware'), host.reports && host.reports.hardware ? keyValues(host.reports.hardware) : none('hardware'));
      break;
    }
    case 'software': case 'processes': case 'services': case 'network': case 'startup':
      append(panel, listTables(host, tab));
      break;
    case 'firewall':
      append(panel, host.reports && host.reports.firewall ? keyValues(host.reports.firewall) : none('firewall'));
      break;
    case 'history':
      await historyTab(panel, id, query);
      break;
    case 'orders':
      ordersTab(panel, id, gen);
      break;
    case 'raw':
      for (const c of CATEGORIES)
        append(panel, el('h2', {}, c), host.reports && host.reports[c] ? el('pre', {}, JSON.stringify(host.reports[c], null, 2)) : none(c));
      break;
  }
}

// ---- History: change rows as a timeline, and a diff between two snapshots

function fieldChanges(row) {
  const keys = [...new Set([...Object.keys(row.old || {}), ...Object.keys(row.new || {})])];
  if (!keys.length) return '';
  return el('div', {}, keys.map((k) => el('div', {}, `${k}: `,
    el('span', { class: 'old' }, text((row.old || {})[k])), ' → ', el('span', { class: 'new' }, text((row.new || {})[k])))));
}

async function historyTab(panel, id, query) {
  const category = CATEGORIES.includes(query.get('category')) ? query.get('category') : '';
  const select = el('select', { 'aria-label': 'Category', onchange: () => {
    location.hash = `#/hosts/${id}/history${select.value ? `?category=${select.value}` : ''}`;
  } }, el('option', { value: '' }, 'All categories'), CATEGORIES.map((c) => el('option', { value: c, selected: c === category }, c)));
  select.value = category;
  const rows = await get(`/api/hosts/${id}/changes${category ? `?category=${category}` : ''}`);
  const columns = [
    { title: 'Time', value: (r) => r.time, render: (r) => time(r.time) },
    { title: 'Category', value: (r) => r.category },
    { title: 'Change', value: (r) => r.change },
    { title: 'Item', value: (r) => r.key },
    { title: 'Old → new', value: (r) => `${text(r.old)} → ${text(r.new)}`, render: fieldChanges },
  ];
  append(panel, el('div', { class: 'toolbar' }, el('label', {}, 'Category ', select)),
         el('div', { class: 'timeline' }, dataTable(columns, rows, { csvName: `host-${id}-changes.csv` })));
  await diffSection(panel, id, category || 'software');
}

// Items of a body by a key that stays put between reports.
function itemsOf(category, body) {
  const items = new Map();
  const lists = LISTS[category];
  if (!lists) {
    for (const [k, v] of Object.entries(body || {})) items.set(k, v);
    return items;
  }
  for (const [list] of lists)
    for (const item of Array.isArray(body && body[list]) ? body[list] : []) {
      const base = category === 'software' ? item.PackageName || item.Name
        : category === 'services' ? item.Name
        : category === 'startup' ? `${item.Location} ${item.Name}`
        : JSON.stringify(item);
      let key = lists.length > 1 ? `${list}: ${base}` : String(base);
      for (let n = 2; items.has(key); n++) key = `${base} (${n})`;
      items.set(key, item);
    }
  return items;
}

export function diffBodies(category, a, b) {
  const before = itemsOf(category, a), after = itemsOf(category, b);
  const out = [];
  for (const [k, v] of before) {
    if (!after.has(k)) out.push({ change: 'removed', key: k, old: v });
    else if (JSON.stringify(after.get(k)) !== JSON.stringify(v)) out.push({ change: 'changed', key: k, old: v, new: after.get(k) });
  }
  for (const [k, v] of after) if (!before.has(k)) out.push({ change: 'added', key: k, new: v });
  return out;
}

async function diffSection(panel, id, category) {
  const snaps = await get(`/api/hosts/${id}/snapshots?category=${category}`);
  append(panel, el('h2', {}, `Compare two ${category} snapshots`));
  if (snaps.length < 2) {
    panel.append(el('p', { class: 'muted' }, `${snaps.length} ${category} snapshot${snaps.length === 1 ? '' : 's'} kept: nothing to compare yet.`));
    return;
  }
  const option = (s) => el('option', { value: s.hash }, `${new Date(s.firstSeen).toLocaleString()} – ${new Date(s.lastSeen).toLocaleString()}`);
  const a = el('select', { 'aria-label': 'Older snapshot' }, snaps.map(option));
  const b = el('select', { 'aria-label': 'Newer snapshot' }, snaps.map(option));
  const sorted = [...snaps].sort((x, y) => Date.parse(x.firstSeen) - Date.parse(y.firstSeen));
  a.value = sorted[sorted.length - 2].hash;
  b.value = sorted[sorted.length - 1].hash;
  const out = el('div');
  const compare = async () => {
    clear(out).append(el('p', { class: 'muted' }, 'Comparing…'));
    try {
      const [x, y] = await Promise.all([get(`/api/hosts/${id}/snapshots/${a.value}`), get(`/api/hosts/${id}/snapshots/${b.value}`)]);
      const rows = diffBodies(category, x, y);
      const columns = [
        { title: 'Change', value: (r) => r.change, render: (r) => el('span', { class: `diff-${r.change}` }, r.change) },
        { title: 'Item', value: (r) => r.key },
        { title: 'Old', value: (r) => r.old },
        { title: 'New', value: (r) => r.new },
      ];
      clear(out).append(dataTable(columns, rows, { csvName: `host-${id}-${category}-diff.csv` }));
    } catch (e) {
      clear(out).append(el('p', { class: 'error' }, e.message));
    }
  };
  append(panel, el('div', { class: 'toolbar' }, a, ' → ', b, el('button', { type: 'button', onclick: compare }, 'Compare')), out);
}

// ---- Orders: a form per kind, and this host's orders, refreshed while shown

const ORDER_FORMS = [
  ['terminal', 'Run a command', [['command', 'text', 'Command'], ['asUser', 'checkbox', 'as the logged-in user']]],
  ['osquery', 'osquery', [['query', 'text', 'SQL query']]],
  ['report', 'Report now', [['category', ['hardware', 'software', 'processes', 'services', 'network', 'startup', 'firewall', 'agent'], 'Category']]],
  ['kill', 'Kill a process', [['pid', 'number', 'PID']]],
  ['service', 'Service', [['name', 'text', 'Unit'], ['action', ['start', 'stop', 'restart', 'mask', 'enable', 'disable'], 'Action']]],
  ['startup', 'Start-up entry', [['name', 'text', 'Name'], ['enable', ['true', 'false'], 'Enable']]],
  ['firewall', 'Firewall', [['enable', ['true', 'false'], 'Enable']]],
  ['reload-schedule', 'Reload the schedule', []],
  ['update', 'Update the agent', []],
  ['reset-trace-log', 'Reset the trace log', []],
];

function orderForm(id, kind, title, fields, status, refresh) {
  const inputs = {};
  const form = el('form', { class: 'order', 'data-kind': kind }, el('strong', {}, title));
  for (const [name, type, label] of fields) {
    const input = Array.isArray(type)
      ? el('select', { name, 'aria-label': label }, type.map((v) => el('option', { value: v }, v)))
      : el('input', { type, name, 'aria-label': label, placeholder: type === 'checkbox' ? undefined : label,
                      required: type !== 'checkbox' });
    inputs[name] = [input, type];
    form.append(type === 'checkbox' ? el('label', {}, input, ` ${label}`) : input);
  }
  form.append(el('button', { type: 'submit' }, 'Send'));
  form.addEventListener('submit', async (ev) => {
    ev.preventDefault();
    const order = { kind };
    for (const [name, [input, type]] of Object.entries(inputs))
      order[name] = type === 'checkbox' ? input.checked : type === 'number' ? Number(input.value)
        : name === 'enable' ? input.value === 'true' : input.value;
    try {
      const created = await api('POST', `/api/hosts/${id}/orders`, order);
      status.className = 'muted';
      status.textContent = `Order ${created.id} (${kind}) ${created.state}.`;
      refresh();
    } catch (e) {
      status.className = 'error';
      status.textContent = `Order refused: ${e.message}`;
    }
  });
  return form;
}

export function orderResult(result) {
  if (result === undefined || result === null) return null;
  if (Array.isArray(result.Output) && result.Output.every((r) => r && typeof r === 'object'))
    return dataTable(columnsOf(result.Output), result.Output, { pageSize: 50, csvName: 'osquery.csv' });
  if (typeof result.Output === 'string') return el('pre', { class: 'output' }, result.Output);
  return el('pre', { class: 'output' }, JSON.stringify(result, null, 2));
}

function ordersTab(panel, id, gen) {
  const status = el('p', { class: 'muted', role: 'status' });
  const list = el('div', { class: 'orders' });
  let last = '';
  const refresh = async () => {
    let orders;
    try { orders = await get(`/api/hosts/${id}/orders`); } catch (e) { status.className = 'error'; status.textContent = e.message; return; }
    const now = JSON.stringify(orders);
    if (now === last || !current(gen)) return;
    last = now;
    clear(list);
    if (!orders.length) list.append(el('p', { class: 'muted' }, 'No orders yet.'));
    for (const o of orders.slice(0, 50))
      list.append(el('section', { class: 'order-item', 'data-order-id': o.id, 'data-state': o.state },
        el('h2', {}, `#${o.id} ${o.kind} `, el('span', { class: `state-${o.state}` }, o.state)),
        el('p', { class: 'muted' }, 'created ', time(o.created), o.sent ? [' · sent ', time(o.sent)] : '',
           o.finished ? [' · finished ', time(o.finished)] : ''),
        el('code', {}, text(o.text)), orderResult(o.result)));
    if (orders.length > 50) list.append(el('p', { class: 'muted' }, `${orders.length - 50} older orders not shown.`));
  };
  append(panel, el('div', { class: 'orders-layout' },
    el('div', {}, el('h2', {}, 'Send an order'), ORDER_FORMS.map(([kind, title, fields]) => orderForm(id, kind, title, fields, status, refresh)), status),
    el('div', {}, el('h2', {}, 'Orders'), list)));
  refresh();
  const timer = setInterval(refresh, 2000);
  onLeave(() => clearInterval(timer));
}
