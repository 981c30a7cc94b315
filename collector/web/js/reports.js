// Reports: the filterable list, newest first, a page at a time from the API's cursor.
import { apiPath, el, fill, fillForm, getJson, pageParams, pager, run, reportColumns, table } from './common.js';

const kFilters = ['kind', 'machine', 'customer', 'version', 'module', 'since', 'until'];

run(async () => {
    const params = pageParams({ limit: '25' });
    fillForm(document.querySelector('form.filters'), params);
    const query = { limit: params.limit, after: params.after };
    for (const name of kFilters) query[name] = params[name];
    const listing = await getJson(apiPath(['reports'], query));
    const reports = listing.reports ?? [];
    fill('list', reports.length > 0
        ? table(reportColumns(), reports, { id: 'report-table' })
        : el('p', { class: 'muted', text: 'No reports match.' }));
    fill('pager', pager('reports.html', params, listing.next));
});
