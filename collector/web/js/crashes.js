// Crashes: crash reports per module per day and per version (versions in version order),
// new dumps apart from repeats, and the list of crash reports with a download per dump.
// Every figure covers the whole range: the collector counts them (/api/stats/crashes).
import { drawChart } from './graphs.js';
import {
    apiPath, breakdownRows, compareVersions, dayOf, el, fill, formatBytes, formatCount, getJson,
    mapLimited, pageParams, pager, rangeDays, rangePicker, rangeStart, reportColumns, run, table,
    tile, untrusted,
} from './common.js';

const kListSize = 25;

// One series per module over `days`, from rows of {day, module, count}.
function moduleSeries(rows, days, modules) {
    const counts = new Map(modules.map((module) => [module, new Map()]));
    for (const row of rows) counts.get(row.module)?.set(row.day, Number(row.count ?? 0));
    return modules.map((module) => ({ label: module, data: days.map((day) => counts.get(module).get(day) ?? 0) }));
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
    const [daily, byModule, figures] = await Promise.all([
        getJson(apiPath(['stats', 'daily'], { days })),
        getJson(apiPath(['stats', 'breakdown'], { by: 'crash_module', days })),
        getJson(apiPath(['stats', 'crashes'], { days })),
    ]);
    const since = rangeStart(daily);
    const listing = await getJson(apiPath(['reports'], { kind: 'crash', since, limit: kListSize, after: params.after }));
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
    const perDay = (figures.per_day ?? []).map((row) => ({ ...row, day: dayOf(row.day) }));
    drawChart('chart-module-days', { labels, stacked: true, series: moduleSeries(perDay, labels, modules) });
    const perVersion = new Map((figures.per_version ?? []).map((row) => [row.version ?? '', Number(row.count ?? 0)]));
    const versions = [...perVersion.keys()].sort(compareVersions);
    drawChart('chart-versions', {
        labels: versions, series: [{ label: 'crash reports', data: versions.map((v) => perVersion.get(v)) }],
    });

    const moduleTable = table([
        ['Module', (r) => untrusted(r.value, 60)],
        ['Crash dumps', (r) => formatCount(r.count + r.repeats)],
        ['New', (r) => formatCount(r.count)],
        ['Repeats', (r) => formatCount(r.repeats)],
    ], moduleRows, { id: 'module-table' });
    fill('by-module', moduleTable);
    const columns = reportColumns();
    columns.push(['Dumps', (r) => dumpLinks(r)]);
    fill('list', table(columns, detailed, { id: 'crash-table' }));
    fill('pager', pager('crashes.html', params, listing.next));
});
