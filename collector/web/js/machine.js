// One machine's history: its reports in time order, what it ran (versions and operating
// systems) and since when, and its reports per day.
import { drawChart } from './graphs.js';
import {
    apiPath, dayOf, el, fill, formatTime, getJson, kKinds, pageParams, reportColumns, run, table,
    untrusted, formatCount,
} from './common.js';

// The runs of one value in time order that the API hands out: {KEY, first, last}.
function runTable(runs, key, heading, id) {
    return table([
        [heading, (r) => untrusted(r[key], 80)],
        ['From (UTC)', (r) => formatTime(r.first)],
        ['To (UTC)', (r) => formatTime(r.last)],
    ], runs ?? [], { id });
}

run(async () => {
    const { id } = pageParams();
    if (!id) throw new Error('No machine id in the address.');
    const answer = await getJson(apiPath(['machines', id]));
    const reports = answer.reports ?? [];
    fill('title', 'Machine ', untrusted(id, 64));
    fill('fields', el('dl', { class: 'fields' },
        el('dt', { text: 'Reports' }), el('dd', { id: 'machine-reports', text: formatCount(reports.length) }),
        el('dt', { text: 'First report' }), el('dd', { text: reports.length ? formatTime(reports[0].received) : '\u2013' }),
        el('dt', { text: 'Latest report' }), el('dd', { text: reports.length ? formatTime(reports[reports.length - 1].received) : '\u2013' })));

    const first = reports.length ? Math.floor(Date.parse(reports[0].received) / 86400000) : 0;
    const last = reports.length ? Math.floor(Date.parse(reports[reports.length - 1].received) / 86400000) : -1;
    const labels = [];
    for (let day = first; day <= last; day += 1) labels.push(dayOf(day));
    drawChart('chart-machine', {
        labels, stacked: true,
        series: kKinds.map((kind) => ({
            label: kind,
            data: labels.map((label) => reports.filter((r) => r.kind === kind && dayOf(r.received) === label).length),
        })),
    });
    fill('versions', runTable(answer.versions, 'version', 'Version', 'version-runs'));
    fill('systems', runTable(answer.os, 'os', 'Operating system', 'os-runs'));
    fill('list', table(reportColumns({ withMachine: false }), [...reports].reverse(), { id: 'machine-table' }));
});
