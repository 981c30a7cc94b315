// What every page shares: building elements (report data only ever as text), showing
// untrusted text isolated and cut, fetching from the API, formatting, and the
// data-complete marker that tells a test or a benchmark that the page is drawn (and when).

// An element with attributes and children; strings become text nodes, never markup.
export function el(tag, attributes = {}, ...children) {
    const node = document.createElement(tag);
    for (const [name, value] of Object.entries(attributes)) {
        if (value === undefined || value === null || value === false) continue;
        if (name === 'text') node.textContent = String(value);
        else node.setAttribute(name, value === true ? '' : String(value));
    }
    for (const child of children.flat()) {
        if (child === undefined || child === null) continue;
        node.append(child instanceof Node ? child : document.createTextNode(String(child)));
    }
    return node;
}

// A link to one of our own pages with its query built from `params`: the address always
// starts with our path, whatever the values hold.
export function pageLink(page, params, ...children) {
    return el('a', { href: pageHref(page, params) }, ...children);
}

export function pageHref(page, params = {}) {
    const query = new URLSearchParams();
    for (const [name, value] of Object.entries(params)) {
        if (value !== undefined && value !== null && value !== '') query.set(name, value);
    }
    const text = query.toString();
    return '/' + page + (text ? '?' + text : '');
}

// An API address under /api/, each path segment escaped.
export function apiPath(segments, params = {}) {
    const path = '/api/' + segments.map((s) => encodeURIComponent(String(s))).join('/');
    const query = new URLSearchParams();
    for (const [name, value] of Object.entries(params)) {
        if (value !== undefined && value !== null && value !== '') query.set(name, value);
    }
    const text = query.toString();
    return path + (text ? '?' + text : '');
}

const kCutLength = 160;

// Text from a report: isolated for right-to-left and control characters (<bdi dir=auto>),
// cut after `max` characters with a button that shows it whole and cuts it again.
export function untrusted(value, max = kCutLength) {
    const text = value === undefined || value === null ? '' : String(value);
    const shown = el('bdi', { class: 'ut', dir: 'auto' });
    const holder = el('span', { class: 'ut-holder' }, shown);
    if (text.length <= max) {
        shown.textContent = text;
        return holder;
    }
    shown.textContent = text.slice(0, max) + '\u2026';
    const toggle = el('button', { type: 'button', class: 'ut-more' });
    toggle.textContent = 'show all ' + formatCount(text.length) + ' characters';
    let whole = false;
    toggle.addEventListener('click', () => {
        whole = !whole;
        shown.textContent = whole ? text : text.slice(0, max) + '\u2026';
        toggle.textContent = whole ? 'cut' : 'show all ' + formatCount(text.length) + ' characters';
        holder.classList.toggle('ut-whole', whole);
    });
    holder.append(' ', toggle);
    return holder;
}

// A label for a chart axis or legend: one line, cut, drawn on the canvas as text.
export function chartLabel(value, max = 40) {
    const text = String(value ?? '').replace(/[\u0000-\u001f\u007f\u202a-\u202e\u2066-\u2069]/g, ' ');
    return text.length > max ? text.slice(0, max) + '\u2026' : text;
}

// A count as shown: digits grouped; counts beyond 2^53 arrive as text and stay exact.
export function formatCount(value) {
    if (typeof value === 'string') return value.replace(/\B(?=(\d{3})+(?!\d))/g, ',');
    if (typeof value !== 'number' || !Number.isFinite(value)) return '\u2013';
    return Math.round(value).toLocaleString('en-US');
}

export function formatNumber(value, digits = 2) {
    if (typeof value !== 'number' || !Number.isFinite(value)) return '\u2013';
    return value.toLocaleString('en-US', { maximumFractionDigits: digits });
}

export function formatBytes(value) {
    const bytes = Number(value);
    if (!Number.isFinite(bytes)) return '\u2013';
    const units = ['B', 'KiB', 'MiB', 'GiB'];
    let size = bytes;
    let unit = 0;
    while (size >= 1024 && unit < units.length - 1) {
        size /= 1024;
        unit += 1;
    }
    return (unit === 0 ? String(size) : size.toFixed(1)) + ' ' + units[unit];
}

// An ISO 8601 UTC time from the API as "YYYY-MM-DD HH:MM:SS UTC"; anything else as is.
export function formatTime(iso) {
    if (typeof iso === 'number') iso = new Date(iso * 1000).toISOString();
    if (typeof iso !== 'string') return '\u2013';
    const match = /^(\d{4}-\d{2}-\d{2})T(\d{2}:\d{2}:\d{2})/.exec(iso);
    return match ? match[1] + ' ' + match[2] + ' UTC' : iso;
}

// The UTC day of an ISO time or day text, "YYYY-MM-DD".
export function dayOf(value) {
    if (typeof value === 'number') return new Date(value * 86400000).toISOString().slice(0, 10);
    return String(value ?? '').slice(0, 10);
}

// The first moment of a range, from the daily figures' first day: the days are the
// collector's (its clock may run apart from the browser's, as in a demonstration).
export function rangeStart(daily) {
    const first = daily?.days?.[0]?.day;
    return first ? dayOf(first) + 'T00:00:00Z' : undefined;
}

// Versions ordered as versions: "5.10.2" after "5.9.7", numeric parts as numbers.
export function compareVersions(a, b) {
    const split = (v) => String(v).split(/(\d+)/).filter((part) => part !== '');
    const left = split(a);
    const right = split(b);
    for (let i = 0; i < Math.min(left.length, right.length); i += 1) {
        const x = left[i];
        const y = right[i];
        const numeric = /^\d+$/.test(x) && /^\d+$/.test(y);
        if (numeric) {
            const difference = x.replace(/^0+/, '').length - y.replace(/^0+/, '').length;
            if (difference !== 0) return difference;
            const order = x.replace(/^0+/, '').localeCompare(y.replace(/^0+/, ''));
            if (order !== 0) return order;
        } else if (x !== y) {
            return x < y ? -1 : 1;
        }
    }
    return left.length - right.length;
}

export class ApiError extends Error {
    constructor(status, message) {
        super(message);
        this.status = status;
    }
}

// GETs an API address and parses its JSON. Without a session the login form takes over.
export async function getJson(path) {
    const response = await fetch(path, { credentials: 'same-origin', headers: { Accept: 'application/json' } });
    if (response.status === 401) {
        window.location.assign('/login');
        throw new ApiError(401, 'the dashboard token is needed');
    }
    let body = null;
    try {
        body = await response.json();
    } catch (error) {
        throw new ApiError(response.status, 'the answer to ' + path + ' is not JSON');
    }
    if (!response.ok) {
        const message = body && typeof body.error === 'string' ? body.error : 'status ' + response.status;
        throw new ApiError(response.status, message);
    }
    return body;
}

// The page's query parameters, with defaults, and the range in days (one of the picker's).
export function pageParams(defaults = {}) {
    const query = new URLSearchParams(window.location.search);
    const params = { ...defaults };
    for (const [name, value] of query.entries()) params[name] = value;
    return params;
}

export const kRanges = [7, 30, 90, 365];

export function rangeDays(params, fallback = 30) {
    const days = Number.parseInt(params.days, 10);
    return kRanges.includes(days) ? days : fallback;
}

// The range picker: links that keep the page's other parameters and change `days`.
export function rangePicker(page, params, days) {
    const nav = el('nav', { class: 'range', 'aria-label': 'range' }, 'Range: ');
    for (const choice of kRanges) {
        const link = pageLink(page, { ...params, days: choice, after: undefined }, choice + ' days');
        if (choice === days) link.setAttribute('aria-current', 'true');
        nav.append(link, ' ');
    }
    return nav;
}

// Fills a GET form's fields from the page's parameters, so a bookmarked view shows them.
export function fillForm(form, params) {
    for (const field of form.elements) {
        if (field.name && params[field.name] !== undefined) field.value = params[field.name];
    }
}

export function showError(message) {
    const box = document.getElementById('error');
    box.textContent = message;
    box.hidden = false;
}

// A table of `rows`: `columns` are [heading, row => cell content (Node or text)].
export function table(columns, rows, attributes = {}) {
    const head = el('tr', {}, columns.map(([heading]) => el('th', { scope: 'col' }, heading)));
    const body = el('tbody');
    for (const row of rows) body.append(el('tr', {}, columns.map(([, cell]) => el('td', {}, cell(row)))));
    return el('div', { class: 'table-wrap' }, el('table', attributes, el('thead', {}, head), body));
}

// Replaces the children of the element with id `id`.
export function fill(id, ...children) {
    const node = document.getElementById(id);
    node.replaceChildren(...children.flat());
    return node;
}

// The pages of the header's navigation: one list for every page.
const kNavigation = [
    ['/', 'Overview'], ['/crashes.html', 'Crashes'], ['/threats.html', 'Threats'],
    ['/modules.html', 'Module data'], ['/reports.html', 'Reports'],
];

// The header every page shares, built into its <header id="top">; the current page marked.
function buildHeader() {
    const header = document.getElementById('top');
    if (!header) return;
    const here = location.pathname === '/index.html' ? '/' : location.pathname;
    const nav = el('nav', { 'aria-label': 'pages' }, kNavigation.map(([href, label]) =>
        el('a', { href, 'aria-current': href === here ? 'page' : null, text: label })));
    header.replaceChildren(el('span', { class: 'name', text: 'Pathweave collector' }), nav,
        el('span', { class: 'utc', text: 'All times in UTC' }), el('a', { href: '/logout', text: 'Log out' }));
}

// Runs the page's loader and then marks the page complete: data-complete="1" once every
// request has answered and every chart is drawn, "error" when something failed (shown).
export function run(loader) {
    const finish = (state) => {
        requestAnimationFrame(() => requestAnimationFrame(() => {
            // Milliseconds since navigation began, for the read benchmark.
            document.documentElement.dataset.completeMs = String(Math.round(performance.now()));
            document.documentElement.dataset.complete = state;
        }));
    };
    buildHeader();
    Promise.resolve()
        .then(loader)
        .then(() => finish('1'))
        .catch((error) => {
            showError(error instanceof ApiError ? 'The collector answered: ' + error.message : String(error));
            finish('error');
        });
}

// Runs `worker` over `items` with at most `width` at a time, keeping the order.
export async function mapLimited(items, width, worker) {
    const results = new Array(items.length);
    let next = 0;
    const lane = async () => {
        while (next < items.length) {
            const index = next;
            next += 1;
            results[index] = await worker(items[index], index);
        }
    };
    await Promise.all(Array.from({ length: Math.min(width, items.length) }, lane));
    return results;
}

// The rows of a breakdown answer, largest first: [{value, count, repeats}].
export function breakdownRows(body) {
    const rows = Array.isArray(body?.values) ? body.values : [];
    return rows.map((row) => ({ value: row.value ?? '', count: Number(row.count ?? 0), repeats: Number(row.repeats ?? 0) }));
}

// A figure tile: a big number and what it counts; `id` lets a reader find it.
export function tile(id, label, value) {
    return el('div', { class: 'tile', id }, el('div', { class: 'value', text: formatCount(value) }),
        el('div', { class: 'label', text: label }));
}

export const kKinds = ['feedback', 'crash', 'threat', 'damaged'];

// The common columns of a report listing.
export function reportColumns({ withMachine = true } = {}) {
    const columns = [
        ['Received (UTC)', (r) => pageLink('report.html', { id: r.id }, formatTime(r.received))],
        ['Kind', (r) => r.kind],
    ];
    if (withMachine) {
        columns.push(['Machine', (r) => machineCell(r.machine_id)]);
    }
    columns.push(
        ['Customer', (r) => untrusted(r.customer_id, 60)],
        ['Version', (r) => untrusted(r.version, 40)],
        ['Modules', (r) => listCell(r.modules)],
        ['Size', (r) => formatBytes(r.size)],
    );
    return columns;
}

const kUnknownMachine = 'a29d7ba62ff9e1dafe055e7c35f002cfac5f9afb';

export function machineCell(id) {
    if (!id) return el('span', { class: 'muted', text: 'none' });
    if (id === kUnknownMachine) return el('span', { class: 'muted', text: 'unknown machine' });
    return pageLink('machine.html', { id }, untrusted(id, 40));
}

// A list of report texts (module names), each isolated, separated by commas.
export function listCell(values, max = 8) {
    const items = Array.isArray(values) ? values : [];
    const cell = el('span');
    items.slice(0, max).forEach((value, index) => {
        if (index > 0) cell.append(', ');
        cell.append(untrusted(value, 40));
    });
    if (items.length > max) cell.append(' and ' + (items.length - max) + ' more');
    return cell;
}

// A listing's "next page" link: the same view from the cursor the API handed out.
export function pager(page, params, next) {
    const links = [];
    if (params.after) links.push(pageLink(page, { ...params, after: undefined }, 'Newest'));
    if (next !== null && next !== undefined) links.push(pageLink(page, { ...params, after: next }, 'Older'));
    return links;
}
