// Crashes: crash reports per module per day and per version (versions in version order),
// new dumps apart from repeats, and the list of crash reports with a download per dump.
import { drawChart } from './graphs.js';
import {
    apiPath, breakdownRows, compareVersions, dayOf, el, fill, formatBytes, formatCount, getJson,
    mapLimited, pageParams, pager, rangeDays, rangePicker, rangeStart, reportColumns, run, table,
    tile, untrusted,
} from './common.js';

// The per-module figures come from the listing of the range's crash reports, read in
// pages of the API's largest size up to this many reports (the daily totals and the
// new/repeat counts come from the collector's own figures and are never capped).
const kScanLimit = 5000;
const kListSize = 25;

async function scanCrashReports(since) {
    const reports = [];
    let after = null;
    do {
        const page = await getJson(apiPath(['reports'], { kind: 'crash', since, limit: 1000, after }));
        reports.push(...(page.reports ?? []));
        after = page.next ?? null;
    } while (after !== null && reports.length < kScanLimit);
    return { reports, capped: after !== null };
}

// counts[rowKey][module] over the scanned reports.
function countBy(reports, rowKey) {
    const counts = new Map();
    for (const report of reports) {
        const key = rowKey(report);
        if (!counts.has(key)) counts.set(key, new Map());
        const row = counts.get(key);
        for (const module of report.modules ?? []) row.set(module, (row.get(module) ?? 0) + 1);
    }
    return counts;
}

function moduleSeries(counts, keys, modules) {
    return modules.map((module) => ({ label: module, data: keys.map((key) => counts.get(key)?.get(module) ?? 0) }));
}

function dumpLinks(report) {
    const dumps = report.crash_dumps ?? [];
    if (dumps.length === 0) return el('span', { class: 'muted', text: 'none' });
    const cell = el('span', { class: 'dumps' });
    dumps.forEach((dump, index) => {
        if (index > 0) cell.append(el('br'));
        const link = el('a', { href: apiPath(['reports', report.id, 'crash', dump.module]), download: true, class: 'dump' },
            untrusted(dump.module, 40));
        cell.append(link, ' ' + formatBytes(dump.size), dump.repeat ? ' (repeat)' : ' (new)');
    });
    return cell;
}

run(async () => {
    const params = pageParams();
    const days = rangeDays(params, 30);
    fill('range', rangePicker('crashes.html', params, days));
    const [daily, byModule] = await Promise.all([
        getJson(apiPath(['stats', 'daily'], { days })),
        getJson(apiPath(['stats', 'breakdown'], { by: 'crash_module', days })),
    ]);
    const since = rangeStart(daily);
    const [scan, listing] = await Promise.all([
        scanCrashReports(since),
        getJson(apiPath(['reports'], { kind: 'crash', since, limit: kListSize, after: params.after })),
    ]);
    const detailed = await mapLimited(listing.reports ?? [], 6, (report) => getJson(apiPath(['reports', report.id])));

    const dayRows = daily.days ?? [];
    const moduleRows = breakdownRows(byModule);
    // A crash module's count is its new dumps; its repeats are dumps that had arrived before.
    const fresh = moduleRows.reduce((sum, row) => sum + row.count, 0);
    const repeats = moduleRows.reduce((sum, row) => sum + row.repeats, 0);
    fill('tiles',
        tile('total-crash', 'crash reports in ' + days + ' days', dayRows.reduce((sum, d) => sum + Number(d.crash ?? 0), 0)),
        tile('total-new', 'new dumps', fresh),
        tile('total-repeats', 'repeated dumps', repeats),
        tile('total-modules', 'modules that crashed', moduleRows.length));

    const modules = moduleRows.map((row) => row.value);
    const labels = dayRows.map((d) => dayOf(d.day));
    drawChart('chart-module-days', {
        labels, stacked: true, series: moduleSeries(countBy(scan.reports, (r) => dayOf(r.received)), labels, modules),
    });
    const byVersion = countBy(scan.reports, (r) => r.version ?? '');
    const versions = [...byVersion.keys()].sort(compareVersions);
    drawChart('chart-versions', { labels: versions, stacked: true, series: moduleSeries(byVersion, versions, modules) });

    const moduleTable = table([
        ['Module', (r) => untrusted(r.value, 60)],
        ['Crash dumps', (r) => formatCount(r.count + r.repeats)],
        ['New', (r) => formatCount(r.count)],
        ['Repeats', (r) => formatCount(r.repeats)],
    ], moduleRows, { id: 'module-table' });
    fill('by-module', moduleTable,
        scan.capped ? el('p', { class: 'muted', text: 'The charts count the newest ' + formatCount(kScanLimit) + ' crash reports of the range.' }) : []);
    const columns = reportColumns();
    columns.push(['Dumps', (r) => dumpLinks(r)]);
    fill('list', table(columns, detailed, { id: 'crash-table' }));
    fill('pager', pager('crashes.html', params, listing.next));
});
