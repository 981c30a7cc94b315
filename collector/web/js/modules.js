// Module data: pick a module and one of its fields; integers as their daily sum and mean,
// texts as their most frequent values per day.
import { drawChart } from './graphs.js';
import {
    apiPath, chartLabel, dayOf, el, fill, fillForm, formatCount, formatNumber, getJson, pageParams,
    rangeDays, rangePicker, run, table, untrusted,
} from './common.js';

const kTopValues = 8;

function option(value, selected) {
    const node = el('option', { value, text: chartLabel(value, 80) });
    node.selected = selected;
    return node;
}

function fieldPath(field) {
    return field.path ?? field.field ?? '';
}

function topOf(day) {
    return (day.top ?? []).map((entry) => Array.isArray(entry)
        ? { value: entry[0], count: Number(entry[1]) }
        : { value: entry.value, count: Number(entry.count) });
}

function showIntegers(field, labels) {
    const byDay = new Map((field.days ?? []).map((d) => [dayOf(d.day), d]));
    const sums = labels.map((label) => Number(byDay.get(label)?.sum ?? 0));
    const means = labels.map((label) => {
        const day = byDay.get(label);
        if (!day || Number(day.count) === 0) return null;
        return day.mean !== undefined ? Number(day.mean) : Number(day.sum) / Number(day.count);
    });
    drawChart('chart-field', {
        type: 'line', labels,
        series: [{ label: 'sum', data: sums, colour: 0 }, { label: 'mean', data: means, colour: 2 }],
    });
    fill('figures', table([
        ['Day (UTC)', (d) => dayOf(d.day)],
        ['Reports', (d) => formatCount(Number(d.count))],
        ['Sum', (d) => formatCount(d.sum)],
        ['Mean', (d) => formatNumber(d.mean !== undefined ? Number(d.mean) : Number(d.sum) / Number(d.count))],
        ['Min', (d) => formatCount(d.min)],
        ['Max', (d) => formatCount(d.max)],
    ], [...(field.days ?? [])].reverse(), { id: 'field-table' }));
}

function showTexts(field, labels) {
    const byDay = new Map((field.days ?? []).map((d) => [dayOf(d.day), topOf(d)]));
    const totals = new Map();
    for (const top of byDay.values()) {
        for (const { value, count } of top) totals.set(value, (totals.get(value) ?? 0) + count);
    }
    const values = [...totals.entries()].sort((a, b) => b[1] - a[1]).slice(0, kTopValues).map(([value]) => value);
    drawChart('chart-field', {
        labels, stacked: true,
        series: values.map((value) => ({
            label: value,
            data: labels.map((label) => byDay.get(label)?.find((entry) => entry.value === value)?.count ?? 0),
        })),
    });
    const rows = [...(field.days ?? [])].reverse();
    fill('figures', table([
        ['Day (UTC)', (d) => dayOf(d.day)],
        ['Reports', (d) => formatCount(Number(d.count))],
        ['Most frequent values', (d) => {
            const list = el('ol', { class: 'top' });
            for (const { value, count } of topOf(d)) list.append(el('li', {}, untrusted(value, 80), ' \u00d7 ' + formatCount(count)));
            return list;
        }],
    ], rows, { id: 'field-table' }));
}

run(async () => {
    const params = pageParams();
    const days = rangeDays(params, 30);
    fill('range', rangePicker('modules.html', params, days));
    const form = document.getElementById('picker');
    fillForm(form, { days: String(days) });

    const listing = await getJson(apiPath(['modules']));
    const modules = (listing.modules ?? []).map((m) => (typeof m === 'string' ? m : m.name));
    if (modules.length === 0) {
        fill('field-note', 'No module has reported data yet.');
        drawChart('chart-field', { labels: [], series: [] });
        return;
    }
    const module = modules.includes(params.module) ? params.module : modules[0];
    fill('module', modules.map((name) => option(name, name === module)));
    document.getElementById('module').addEventListener('change', () => {
        document.getElementById('field').value = '';
        form.submit();
    });

    const [answer, daily] = await Promise.all([
        getJson(apiPath(['modules', module, 'fields'], { days })),
        getJson(apiPath(['stats', 'daily'], { days })),
    ]);
    const fields = answer.fields ?? [];
    const field = fields.find((f) => fieldPath(f) === params.field) ?? fields[0];
    fill('field', fields.map((f) => option(fieldPath(f), f === field)));
    if (!field) {
        fill('field-note', 'This module reported no fields in the range.');
        drawChart('chart-field', { labels: [], series: [] });
        return;
    }
    fill('field-note', 'Field ', untrusted(fieldPath(field), 120), ' of ', untrusted(module, 80),
        ': ' + (field.kind === 'text' ? 'text, its most frequent values per day' : 'integer, its sum and mean per day') + '.');
    const labels = (daily.days ?? []).map((d) => dayOf(d.day));
    if (field.kind === 'text') showTexts(field, labels);
    else showIntegers(field, labels);
});
