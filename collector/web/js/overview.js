// Overview: reports per day by kind, active machines, duplicates and damaged, breakdowns
// by version, operating system and locale, and the latest reports, over a chosen range.
import { drawChart } from './graphs.js';
import {
    apiPath, breakdownRows, dayOf, fill, formatCount, getJson, kKinds, pageParams, rangeDays,
    rangePicker, reportColumns, run, table, tile, untrusted, compareVersions,
} from './common.js';

function breakdownTable(rows, heading, byVersion = false) {
    const sorted = byVersion ? [...rows].sort((a, b) => compareVersions(b.value, a.value)) : rows;
    if (sorted.length === 0) return document.createTextNode('No reports in this range.');
    return table([[heading, (r) => untrusted(r.value, 60)], ['Reports', (r) => formatCount(r.count)]], sorted,
        { class: 'breakdown' });
}

run(async () => {
    const params = pageParams();
    const days = rangeDays(params, 30);
    fill('range', rangePicker('', params, days));
    const breakdown = (by) => getJson(apiPath(['stats', 'breakdown'], { by, days }));
    const [daily, versions, systems, locales, latest] = await Promise.all([
        getJson(apiPath(['stats', 'daily'], { days })),
        breakdown('version'),
        breakdown('os'),
        breakdown('locale'),
        getJson(apiPath(['reports'], { limit: 20 })),
    ]);

    const rows = daily.days ?? [];
    const total = (key) => rows.reduce((sum, day) => sum + Number(day[key] ?? 0), 0);
    const latestDay = rows.length > 0 ? rows[rows.length - 1] : {};
    fill('tiles',
        tile('total-reports', 'reports in ' + days + ' days', kKinds.reduce((sum, kind) => sum + total(kind), 0)),
        kKinds.map((kind) => tile('total-' + kind, kind, total(kind))),
        tile('total-duplicates', 'duplicates', total('duplicates')),
        tile('machines-latest', 'active machines on ' + dayOf(latestDay.day ?? ''), Number(latestDay.machines ?? 0)));

    const labels = rows.map((day) => dayOf(day.day));
    drawChart('chart-kinds', {
        labels, stacked: true,
        series: kKinds.map((kind) => ({ label: kind, data: rows.map((day) => Number(day[kind] ?? 0)) })),
    });
    drawChart('chart-machines', {
        type: 'line', labels,
        series: [{ label: 'machines', data: rows.map((day) => Number(day.machines ?? 0)), colour: 4 }],
    });
    drawChart('chart-faults', {
        labels,
        series: [
            { label: 'duplicates', data: rows.map((day) => Number(day.duplicates ?? 0)), colour: 5 },
            { label: 'damaged', data: rows.map((day) => Number(day.damaged ?? 0)), colour: 3 },
        ],
    });
    fill('by-version', breakdownTable(breakdownRows(versions), 'Version', true));
    fill('by-os', breakdownTable(breakdownRows(systems), 'Operating system'));
    fill('by-locale', breakdownTable(breakdownRows(locales), 'Locale'));
    fill('latest', table(reportColumns(), latest.reports ?? [], { id: 'latest-table' }));
});
