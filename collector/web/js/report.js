// One report: its stored fields, its dumps and threat text, the report itself as a tree
// that opens a level at a time, and downloads of what was received.
import {
    apiPath, el, fill, formatBytes, formatTime, getJson, listCell, machineCell, pageParams, run,
    untrusted, formatCount,
} from './common.js';

// Children of a tree node shown at once; more behind a button, so a report with a huge
// dictionary opens without building it all.
const kChildrenAtOnce = 200;
// Levels open at first: down to the report dictionary's own keys.
const kLevelsOpen = 4;

function scalarNode(value) {
    if (value === null) return el('span', { class: 'kind', text: 'null' });
    if (typeof value === 'string') return untrusted(value);
    return el('span', { class: 'number', text: String(value) });
}

function keyNode(key) {
    return typeof key === 'number' ? el('span', { class: 'key', text: '[' + key + ']' }) : el('span', { class: 'key' }, untrusted(key, 80));
}

// A node of the tree: containers are <details> whose children are made when opened.
function treeNode(key, value, openLevels = 0) {
    if (value === null || typeof value !== 'object') {
        return el('div', { class: 'leaf' }, key === undefined ? [] : [keyNode(key), ': '], scalarNode(value));
    }
    const entries = Array.isArray(value) ? value.map((item, index) => [index, item]) : Object.entries(value);
    const kind = Array.isArray(value) ? 'list of ' + formatCount(entries.length) : 'dictionary of ' + formatCount(entries.length);
    const summary = el('summary', {}, key === undefined ? [] : [keyNode(key), ' '], el('span', { class: 'kind', text: kind }));
    const details = el('details', {}, summary);
    let shown = 0;
    const more = el('button', { type: 'button', class: 'tree-more' });
    const showMore = () => {
        const end = Math.min(entries.length, shown + kChildrenAtOnce);
        for (; shown < end; shown += 1) {
            details.insertBefore(treeNode(entries[shown][0], entries[shown][1], Math.max(0, openLevels - 1)), more);
        }
        more.textContent = 'show ' + formatCount(Math.min(kChildrenAtOnce, entries.length - shown)) + ' more';
        more.hidden = shown >= entries.length;
    };
    more.addEventListener('click', showMore);
    details.append(more);
    details.addEventListener('toggle', () => {
        if (details.open && shown === 0) showMore();
    });
    if (openLevels > 0) {
        showMore();
        details.open = true;
    }
    return details;
}

function fieldList(pairs) {
    const list = el('dl', { class: 'fields' });
    for (const [label, value] of pairs) {
        if (value === undefined) continue;
        list.append(el('dt', { text: label }), el('dd', {}, value));
    }
    return list;
}

run(async () => {
    const { id } = pageParams();
    if (!/^\d+$/.test(id ?? '')) throw new Error('No report id in the address.');
    const report = await getJson(apiPath(['reports', id]));
    document.title = 'Report ' + id + ' \u2013 Pathweave collector';
    fill('title', 'Report ' + id + ' (' + report.kind + ')');
    const period = report.period_start || report.period_end
        ? formatTime(report.period_start) + ' to ' + formatTime(report.period_end) + ' (client clock)'
        : undefined;
    fill('fields', fieldList([
        ['Received', formatTime(report.received)],
        ['Kind', report.kind],
        ['Damaged because', report.damaged_reason ? untrusted(report.damaged_reason) : undefined],
        ['Machine', machineCell(report.machine_id)],
        ['Customer', untrusted(report.customer_id)],
        ['Version', untrusted(report.version)],
        ['Collection period', period],
        ['Modules', listCell(report.modules, 50)],
        ['Operating system', report.os ? untrusted([report.os.name, report.os.details].filter((part) => part).join(' ')) : undefined],
        ['Locale', report.os ? untrusted(report.os.locale) : undefined],
        ['Client address', report.client_address ? untrusted(report.client_address) : undefined],
        ['Arrived again', report.duplicates?.length ? report.duplicates.map(formatTime).join(', ') : undefined],
        ['Size', formatBytes(report.size)],
        ['SHA-256', el('code', { text: report.sha256 ?? '' })],
    ]));
    const dumps = report.crash_dumps ?? [];
    if (dumps.length > 0) {
        document.getElementById('dumps-panel').hidden = false;
        fill('dumps', el('ul', {}, dumps.map((dump) => el('li', {},
            el('a', { href: apiPath(['reports', id, 'crash', dump.module]), download: true, class: 'dump' }, untrusted(dump.module, 80)),
            ' ' + formatBytes(dump.size) + (dump.repeat ? ', a repeat of an earlier dump' : '') + ', SHA-256 ',
            el('code', { text: dump.sha256 ?? '' })))));
    }
    if (report.threat_incident !== undefined && report.threat_incident !== null) {
        document.getElementById('threat-panel').hidden = false;
        fill('threat', untrusted(report.threat_incident, 2000));
    }
    document.getElementById('raw').href = apiPath(['reports', id, 'raw']);
    // The report as the client wrote it when the collector hands it out, else everything
    // the collector keeps of it.
    const whole = report.report !== undefined && report.report !== null;
    fill('tree', whole ? [] : el('p', { class: 'muted', text: 'As the collector keeps it:' }),
        treeNode(undefined, whole ? report.report : report, kLevelsOpen));
});
