// Charts on the Debian package's chart library, in the page's own colours (light or dark,
// as the system prefers). Labels come from reports: they are drawn on the canvas as text
// and cut short, never put into markup.
import { Chart, registerables } from '/vendor/chart.js/chart.esm.js';
import { chartLabel } from './common.js';

Chart.register(...registerables);

const kSeriesVariables = ['--series-1', '--series-2', '--series-3', '--series-4', '--series-5',
    '--series-6', '--series-7', '--series-8'];

function cssVariable(name) {
    return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

export function seriesColour(index) {
    return cssVariable(kSeriesVariables[index % kSeriesVariables.length]);
}

function applyTheme() {
    Chart.defaults.color = cssVariable('--text-muted');
    Chart.defaults.borderColor = cssVariable('--grid');
    Chart.defaults.font.family = getComputedStyle(document.body).fontFamily;
    Chart.defaults.animation = false;
    Chart.defaults.maintainAspectRatio = false;
}

const charts = new Map();

// Draws (or redraws) a chart into the canvas with id `id`. `series`: [{label, data}] over
// the labels; `stacked` stacks bars; `type` 'bar' or 'line'.
export function drawChart(id, { type = 'bar', labels, series, stacked = false, yTitle = '' }) {
    applyTheme();
    const canvas = document.getElementById(id);
    charts.get(id)?.destroy();
    const datasets = series.map((one, index) => ({
        label: chartLabel(one.label),
        data: one.data,
        backgroundColor: seriesColour(one.colour ?? index),
        borderColor: seriesColour(one.colour ?? index),
        borderWidth: type === 'line' ? 2 : 0,
        pointRadius: type === 'line' && labels.length <= 31 ? 2 : 0,
        tension: 0,
        colourIndex: one.colour ?? index,
    }));
    const chart = new Chart(canvas, {
        type,
        data: { labels: labels.map((label) => chartLabel(label)), datasets },
        options: {
            responsive: true,
            interaction: { mode: 'index', intersect: false },
            scales: {
                x: { stacked, ticks: { autoSkip: true, maxRotation: 0 } },
                y: { stacked, beginAtZero: true, title: { display: yTitle !== '', text: yTitle } },
            },
            plugins: { legend: { position: 'bottom' } },
        },
    });
    charts.set(id, chart);
    return chart;
}

// Redraw in the other scheme's colours when the system switches between light and dark.
window.matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => {
    applyTheme();
    for (const chart of charts.values()) {
        for (const dataset of chart.data.datasets) {
            dataset.backgroundColor = seriesColour(dataset.colourIndex);
            dataset.borderColor = seriesColour(dataset.colourIndex);
        }
        chart.update();
    }
});
