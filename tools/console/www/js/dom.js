// Building blocks for the pages. Everything an agent reports is untrusted:
// it only ever reaches the page through textContent and attribute values.

export function el(tag, attrs = {}, ...children) {
  const node = document.createElement(tag);
  for (const [k, v] of Object.entries(attrs || {})) {
    if (v === undefined || v === null || v === false) continue;
    if (k === 'class') node.className = v;
    else if (k.startsWith('on')) node.addEventListener(k.slice(2), v);
    else if (k === 'value') node.value = v;
    else if (k === 'checked') node.checked = !!v;
    else node.setAttribute(k, v === true ? '' : String(v));
  }
  append(node, ...children);
  return node;
}

export function append(node, ...children) {
  for (const c of children.flat(Infinity)) {
    if (c === undefined || c === null || c === false) continue;
    node.append(c instanceof Node ? c : document.createTextNode(String(c)));
  }
  return node;
}

export function clear(node) {
  while (node.firstChild) node.firstChild.remove();
  return node;
}

// A value as one line of text: objects and lists as compact JSON.
export function text(v) {
  if (v === undefined || v === null) return '';
  if (typeof v === 'object') return JSON.stringify(v);
  return String(v);
}

// An ISO time in the browser's zone; the full time on hover.
export function time(iso) {
  if (!iso) return el('span', { class: 'muted' }, '—');
  const d = new Date(iso);
  if (isNaN(d)) return document.createTextNode(String(iso));
  const short = d.toLocaleString(undefined, { year: 'numeric', month: 'short', day: 'numeric',
                                              hour: '2-digit', minute: '2-digit' });
  return el('time', { datetime: iso, title: d.toString() }, short);
}

// CSV with a quote before anything a spreadsheet would take for a formula.
export function csvField(v) {
  let s = text(v);
  if (/^[=+\-@]/.test(s)) s = "'" + s;
  if (/[",\r\n]/.test(s)) s = '"' + s.replace(/"/g, '""') + '"';
  return s;
}

export function toCsv(columns, rows) {
  const lines = [columns.map((c) => csvField(c.title)).join(',')];
  for (const r of rows) lines.push(columns.map((c) => csvField(c.value(r))).join(','));
  return lines.join('\r\n') + '\r\n';
}

export function download(name, content, type = 'text/csv') {
  const url = URL.createObjectURL(new Blob([content], { type }));
  const a = el('a', { href: url, download: name });
  document.body.append(a);
  a.click();
  a.remove();
  setTimeout(() => URL.revokeObjectURL(url), 10000);
}

// Columns from the keys of a list of objects, the preferred ones first.
export function columnsOf(rows, preferred = []) {
  const keys = [];
  for (const k of preferred) if (rows.some((r) => r && k in r)) keys.push(k);
  for (const r of rows.slice(0, 500)) for (const k of Object.keys(r || {})) if (!keys.includes(k)) keys.push(k);
  return keys.map((k) => ({ title: k, value: (r) => (r ? r[k] : undefined) }));
}

function compare(a, b) {
  if (typeof a === 'number' && typeof b === 'number') return a - b;
  const na = Number(a), nb = Number(b);
  if (a !== '' && b !== '' && !isNaN(na) && !isNaN(nb)) return na - nb;
  return text(a).localeCompare(text(b), undefined, { numeric: true, sensitivity: 'base' });
}

// A table that filters, sorts by a column and shows one page of rows at a
// time, so lists of thousands stay quick. column: {title, value(row), render?(row)}.
export function dataTable(columns, rows, opts = {}) {
  const pageSize = opts.pageSize || 100;
  let filter = opts.filter || '';
  let sortIndex = opts.sortIndex ?? -1;
  let descending = false;
  let page = 0;
  const haystacks = rows.map((r) => columns.map((c) => text(c.value(r))).join('\u0001').toLowerCase());
  const box = el('div', { class: 'datatable' });
  const count = el('span', { class: 'muted count' });
  const pager = el('span', { class: 'pager' });
  const tbody = el('tbody');
  const headRow = el('tr');
  const search = el('input', { type: 'search', placeholder: 'Filter…', 'aria-label': 'Filter', value: filter,
                               oninput: () => { filter = search.value; page = 0; draw(); } });
  const exportButton = el('button', { type: 'button',
                                      onclick: () => download(opts.csvName || 'export.csv', toCsv(columns, visible())) },
                          'Export CSV');
  columns.forEach((c, i) => {
    headRow.append(el('th', {}, el('button', { type: 'button', onclick: () => {
      descending = sortIndex === i ? !descending : false;
      sortIndex = i; page = 0; draw();
    } }, c.title)));
  });
  append(box, el('div', { class: 'toolbar' }, search, exportButton, count, pager),
         el('div', { class: 'scroll' }, el('table', { class: 'list' }, el('thead', {}, headRow), tbody)));

  function visible() {
    const needle = filter.trim().toLowerCase();
    let idx = rows.map((_, i) => i);
    if (needle) idx = idx.filter((i) => haystacks[i].includes(needle));
    if (sortIndex >= 0) {
      const c = columns[sortIndex];
      idx.sort((a, b) => compare(c.value(rows[a]), c.value(rows[b])) * (descending ? -1 : 1));
    }
    return idx.map((i) => rows[i]);
  }

  function draw() {
    const shown = visible();
    const pages = Math.max(1, Math.ceil(shown.length / pageSize));
    page = Math.min(page, pages - 1);
    clear(tbody);
    for (const r of shown.slice(page * pageSize, (page + 1) * pageSize)) {
      const tr = el('tr');
      for (const c of columns) tr.append(el('td', {}, c.render ? c.render(r) : text(c.value(r))));
      tbody.append(tr);
    }
    if (!shown.length) tbody.append(el('tr', {}, el('td', { colspan: columns.length, class: 'muted' }, 'Nothing to show')));
    [...headRow.children].forEach((th, i) =>
      th.setAttribute('aria-sort', i === sortIndex ? (descending ? 'descending' : 'ascending') : 'none'));
    count.textContent = shown.length === rows.length ? `${rows.length} row${rows.length === 1 ? '' : 's'}` : `${shown.length} of ${rows.length} rows`;
    clear(pager);
    if (pages > 1) {
      append(pager,
             el('button', { type: 'button', disabled: page === 0, onclick: () => { page--; draw(); } }, '‹ Previous'),
             ` page ${page + 1} of ${pages} `,
             el('button', { type: 'button', disabled: page >= pages - 1, onclick: () => { page++; draw(); } }, 'Next ›'));
    }
  }
  draw();
  return box;
}

// An object as a two-column table; nested lists of objects as tables of their own.
export function keyValues(obj) {
  const tbody = el('tbody');
  for (const [k, v] of Object.entries(obj || {})) {
    let cell;
    if (Array.isArray(v) && v.length && v.every((x) => x && typeof x === 'object' && !Array.isArray(x)))
      cell = dataTable(columnsOf(v), v, { pageSize: 50, csvName: `${k}.csv` });
    else if (v && typeof v === 'object' && !Array.isArray(v)) cell = keyValues(v);
    else cell = text(v);
    tbody.append(el('tr', {}, el('th', { scope: 'row' }, k), el('td', {}, cell)));
  }
  return el('div', { class: 'scroll' }, el('table', { class: 'kv' }, tbody));
}
