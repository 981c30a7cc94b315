#!/usr/bin/python3
# Read speeds of the collector's JSON API and dashboard pages on a given store.
#
# For each store named (a SQLite file, a postgresql:// URI) it starts `pathweave-collector
# serve` on it (dashboard on a loopback port, behind a token; nothing is written to the
# store but what serve itself keeps), then measures:
#   api    /api/reports unfiltered, with each single filter, with every pair of filters and
#          a few triples, each over the same random cursors (after=); the daily figures and
#          each breakdown over 365 days. p50 and p99 in ms, from request to the whole answer,
#          on one kept-alive connection; the goal of each row beside it, and the serving
#          process's CPU time per request (with SQLite that includes the queries; with
#          PostgreSQL they run in the server's own processes), which a busy machine
#          changes far less than the wall-clock figures.
#   pages  each dashboard page in headless Chromium, warm browser (one load first), the
#          median of LOADS loads of the time from navigation to the page's data-complete
#          marker (its own performance clock).
#
# usage: read_bench.py --collector PROGRAM STORE... [--cursors N] [--loads N] [--no-pages]
#                      [--no-api]
import argparse
import http.client
import itertools
import json
import os
import random
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.parse

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'tests', 'collector'))
from collector_pytools import start_browser  # noqa: E402

TOKEN = 'read-bench-' + os.urandom(8).hex()
SINGLE_GOAL_MS, COMBINED_GOAL_MS, FIGURES_GOAL_MS = 50, 500, 200
OVERVIEW_GOAL_MS, PAGE_GOAL_MS = 1500, 2000


def free_port():
    with socket.socket() as probe:
        probe.bind(('127.0.0.1', 0))
        return probe.getsockname()[1]


class Collector:
    def __init__(self, program, database, directory):
        self.directory = directory
        os.makedirs(directory + '/state', exist_ok=True)
        subprocess.run(['openssl', 'req', '-x509', '-newkey', 'rsa:2048', '-nodes', '-days', '2', '-subj',
                        '/CN=127.0.0.1', '-keyout', directory + '/key.pem', '-out', directory + '/cert.pem'],
                       check=True, capture_output=True)
        self.port = free_port()
        config = directory + '/collector.conf'
        # A long retention: serve's daily purge must not shorten a store made for measuring.
        with open(config, 'w') as settings:
            settings.write('listen=127.0.0.1:%d\ncert_file=%s/cert.pem\nkey_file=%s/key.pem\ndatabase=%s\n'
                           'state_directory=%s/state\ndashboard_listen=127.0.0.1:%d\ndashboard_token=%s\n'
                           'retention_days=36500\nlog=file\nlog_file=%s/collector.log\n'
                           % (free_port(), directory, directory, database, directory, self.port, TOKEN,
                              directory))
        self.process = subprocess.Popen([program, '--config', config, 'serve'],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.connection = None
        # Opening an older store brings its schema up to date first (indexes built).
        deadline = time.time() + 1800
        while True:
            try:
                self.get('/api/stats/daily?days=1')
                return
            except (OSError, http.client.HTTPException):
                self.connection = None
                if time.time() > deadline or self.process.poll() is not None:
                    self.stop()
                    raise RuntimeError('the collector did not start; see %s/collector.log' % directory)
                time.sleep(0.2)

    def base(self):
        return 'http://127.0.0.1:%d' % self.port

    def get(self, path):
        # One request on the kept-alive connection: (status, body, seconds).
        if self.connection is None:
            self.connection = http.client.HTTPConnection('127.0.0.1', self.port, timeout=60)
        began = time.perf_counter()
        self.connection.request('GET', path, headers={'Authorization': 'Bearer ' + TOKEN})
        answer = self.connection.getresponse()
        body = answer.read()
        return answer.status, body, time.perf_counter() - began

    def api(self, path):
        status, body, _ = self.get(path)
        if status != 200:
            raise RuntimeError('%s answered %d: %s' % (path, status, body[:200]))
        return json.loads(body)

    def cpu_seconds(self):
        # The serving process's user and system time (with SQLite, the queries' too).
        with open('/proc/%d/stat' % self.process.pid) as stat:
            fields = stat.read().rsplit(')', 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf('SC_CLK_TCK')

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(timeout=60)
        except subprocess.TimeoutExpired:
            self.process.kill()


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(share * (len(ordered) - 1))))]


def sample_store(collector, rng):
    # Filter values taken from the store itself, and the span of its times received.
    newest = collector.api('/api/reports?limit=1000')['reports']
    days = [d for d in collector.api('/api/stats/daily?days=3650')['days']
            if sum(int(d[k]) for k in ('feedback', 'crash', 'threat', 'damaged'))]
    if not newest or not days:
        raise RuntimeError('the store is empty')
    modules = collector.api('/api/modules')['modules']
    versions = collector.api('/api/stats/breakdown?by=version&days=3650')['values']
    customers = collector.api('/api/stats/breakdown?by=customer&days=3650')['values']
    first = int(time.mktime(time.strptime(days[0]['day'], '%Y-%m-%d'))) - time.timezone
    last = int(time.time())
    span = last - first
    machine = rng.choice([r for r in newest if not r['unknown_machine']])['machine_id']
    values = {
        # The rarest kind and a module of middling count: the sparsest intersections.
        'kind': 'threat',
        'machine': machine,
        'customer': customers[len(customers) // 2]['value'],
        'version': versions[-1]['value'],
        'module': sorted(modules, key=lambda m: m['reports'])[len(modules) // 2]['name'],
        'since': time.strftime('%Y-%m-%d', time.gmtime(first + span // 2)),
        'until': time.strftime('%Y-%m-%d', time.gmtime(first + span // 4 * 3)),
    }
    return values, first, last, newest


def api_matrix(collector, values, first, last, cursors, rng):
    names = list(values)
    combinations = [()] + [(n,) for n in names] + list(itertools.combinations(names, 2))
    combinations += [('kind', 'version', 'since'), ('kind', 'customer', 'module'), ('kind', 'module', 'until'),
                     ('customer', 'version', 'since'), ('kind', 'version', 'customer', 'since')]
    positions = ['%d-%d' % (rng.randrange(first, last), 2 ** 53) for _ in range(cursors)]
    rows = []
    for combination in combinations:
        query = {name: values[name] for name in combination}
        timings = []
        cpu = collector.cpu_seconds()
        for cursor in positions:
            path = '/api/reports?' + urllib.parse.urlencode(dict(query, after=cursor))
            status, _, seconds = collector.get(path)
            if status != 200:
                raise RuntimeError('%s answered %d' % (path, status))
            timings.append(seconds * 1000)
        goal = SINGLE_GOAL_MS if len(combination) <= 1 else COMBINED_GOAL_MS
        cpu = (collector.cpu_seconds() - cpu) * 1000 / len(positions)
        rows.append(('reports ' + ('+'.join(combination) or 'unfiltered'), timings, goal, cpu))
    figures = ['/api/stats/daily?days=365'] + ['/api/stats/breakdown?by=%s&days=365' % by for by in
                                               ('version', 'os', 'locale', 'customer', 'crash_module')]
    figures += ['/api/stats/crashes?days=365']
    for path in figures:
        cpu = collector.cpu_seconds()
        timings = [collector.get(path)[2] * 1000 for _ in range(max(20, cursors // 5))]
        cpu = (collector.cpu_seconds() - cpu) * 1000 / len(timings)
        rows.append((path[5:], timings, FIGURES_GOAL_MS, cpu))
    return rows


def page_load(driver, url):
    # Milliseconds from navigation to the page's data-complete marker.
    driver.get(url)
    deadline = time.time() + 120
    while True:
        state = driver.execute_script('return [document.documentElement.dataset.complete ?? null, '
                                      'document.documentElement.dataset.completeMs ?? null]')
        if state[0] == '1':
            return float(state[1])
        if state[0] is not None or time.time() > deadline:
            raise RuntimeError('%s did not complete: %s' % (url, state[0]))
        time.sleep(0.02)


def page_timings(collector, newest, loads, directory):
    crash = next((r for r in newest if r['kind'] == 'crash'), newest[0])
    machine = next(r for r in newest if not r['unknown_machine'])['machine_id']
    pages = [('overview', '/', OVERVIEW_GOAL_MS), ('overview, 365 days', '/?days=365', OVERVIEW_GOAL_MS),
             ('crashes', '/crashes.html', PAGE_GOAL_MS), ('crashes, 365 days', '/crashes.html?days=365', PAGE_GOAL_MS),
             ('threats', '/threats.html', PAGE_GOAL_MS),
             ('modules', '/modules.html?module=VpnModule&field=connects&days=365', PAGE_GOAL_MS),
             ('reports', '/reports.html', PAGE_GOAL_MS),
             ('report', '/report.html?id=%s' % crash['id'], PAGE_GOAL_MS),
             ('machine', '/machine.html?id=%s' % machine, PAGE_GOAL_MS)]
    driver = start_browser(directory, TOKEN)
    rows = []
    try:
        for name, path, goal in pages:
            page_load(driver, collector.base() + path)  # warms the browser's cache
            timings = [page_load(driver, collector.base() + path) for _ in range(loads)]
            rows.append(('page ' + name, timings, goal, None))
    finally:
        driver.quit()
    return rows


def print_table(title, rows, pages):
    print('\n## ' + title)
    if pages:
        print('| Page | median ms | max ms | goal ms | |')
        print('|---|---:|---:|---:|---|')
    else:
        print('| Query | p50 ms | p99 ms | goal ms (p99) | | collector CPU ms per request |')
        print('|---|---:|---:|---:|---|---:|')
    failed = 0
    for name, timings, goal, cpu in rows:
        low, high = (statistics.median(timings), max(timings)) if pages else (percentile(timings, 0.5),
                                                                              percentile(timings, 0.99))
        met = (low if pages else high) <= goal
        failed += not met
        print('| %s | %.1f | %.1f | %d | %s |%s' % (name, low, high, goal, 'ok' if met else 'MISSED',
                                                 '' if cpu is None else ' %.1f |' % cpu))
    sys.stdout.flush()
    return failed


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--collector', required=True)
    parser.add_argument('stores', nargs='+')
    parser.add_argument('--cursors', type=int, default=100)
    parser.add_argument('--loads', type=int, default=5)
    parser.add_argument('--no-pages', action='store_true')
    parser.add_argument('--no-api', action='store_true')
    parser.add_argument('--seed', type=int, default=7)
    args = parser.parse_args()
    missed = 0
    for store in args.stores:
        backend = 'PostgreSQL' if store.startswith('postgres') else 'SQLite'
        directory = tempfile.mkdtemp(prefix='pw-read-bench-')
        collector = Collector(args.collector, store, directory)
        try:
            rng = random.Random(args.seed)
            values, first, last, newest = sample_store(collector, rng)
            print('\n# %s (%s)\nfilters: %s' % (backend, store, json.dumps(values)))
            if not args.no_api:
                missed += print_table(backend + ': API', api_matrix(collector, values, first, last, args.cursors,
                                                                    rng), False)
            if not args.no_pages:
                missed += print_table(backend + ': pages', page_timings(collector, newest, args.loads, directory),
                                      True)
        finally:
            collector.stop()
            shutil.rmtree(directory, ignore_errors=True)
    print('\n%d figures missed their goal' % missed)
    return 1 if missed else 0


if __name__ == '__main__':
    sys.exit(main())
