// Threats: incidents per day over a range, their texts, and a search over the texts of
// the range's newest incidents.
import { drawChart } from './graphs.js';
import {
    apiPath, dayOf, el, fill, formatCount, formatTime, getJson, machineCell, mapLimited, pageLink,
    pageParams, pager, rangeDays, rangePicker, rangeStart, run, table, tile, untrusted, fillForm,
} from './common.js';

const kListSize = 25;
// A search reads the incident texts of at most this many of the range's newest threat
// reports (the API lists reports; the texts come with each report).
const kSearchLimit = 500;

async function incidentsOf(reports) {
    return mapLimited(reports, 6, (report) => getJson(apiPath(['reports', report.id])));
}

async function search(since, needle) {
    const found = [];
    let after = null;
    let read = 0;
    do {
        const page = await getJson(apiPath(['reports'], { kind: 'threat', since, limit: 100, after }));
        const details = await incidentsOf(page.reports ?? []);
        read += details.length;
        for (const report of details) {
            if (String(report.threat_incident ?? '').toLowerCase().includes(needle)) found.push(report);
        }
        after = page.next ?? null;
    } while (after !== null && read < kSearchLimit && found.length < kListSize);
    return { found, read, more: after !== null };
}

run(async () => {
    const params = pageParams();
    const days = rangeDays(params, 30);
    fill('range', rangePicker('threats.html', params, days));
    document.querySelector('form.filters input[name=days]').value = String(days);
    fillForm(document.querySelector('form.filters'), params);
    const needle = (params.q ?? '').toLowerCase();

    const daily = await getJson(apiPath(['stats', 'daily'], { days }));
    const since = rangeStart(daily);
    let shown;
    let next = null;
    if (needle !== '') {
        const result = await search(since, needle);
        shown = result.found;
        fill('search-note', formatCount(result.found.length) + ' of the newest ' + formatCount(result.read) +
            ' incidents in the range contain the text' + (result.more ? ' (the search stops there)' : '') + '.');
    } else {
        const listing = await getJson(apiPath(['reports'], { kind: 'threat', since, limit: kListSize, after: params.after }));
        shown = await incidentsOf(listing.reports ?? []);
        next = listing.next ?? null;
    }

    const rows = daily.days ?? [];
    fill('tiles', tile('total-threat', 'threat incidents in ' + days + ' days',
        rows.reduce((sum, d) => sum + Number(d.threat ?? 0), 0)));
    drawChart('chart-threats', {
        labels: rows.map((d) => dayOf(d.day)),
        series: [{ label: 'incidents', data: rows.map((d) => Number(d.threat ?? 0)), colour: 2 }],
    });
    fill('list', table([
        ['Received (UTC)', (r) => pageLink('report.html', { id: r.id }, formatTime(r.received))],
        ['Machine', (r) => machineCell(r.machine_id)],
        ['Version', (r) => untrusted(r.version, 40)],
        ['Incident', (r) => untrusted(r.threat_incident, 300)],
    ], shown, { id: 'threat-table' }));
    fill('pager', needle === '' ? pager('threats.html', params, next) : []);
    if (shown.length === 0) document.getElementById('list').append(el('p', { class: 'muted', text: 'No incidents.' }));
});
