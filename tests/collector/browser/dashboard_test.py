#!/usr/bin/python3
# The dashboard in a real browser: headless Chromium through Selenium opens every page
# against a collector that holds a known set of reports (imported with `import`), checks
# the figures shown against the known set and the API, that the console stays clean, and
# that hostile report texts never run (also with the Content-Security-Policy bypassed
# through the DevTools protocol), are shown as the very texts they were, and leave the
# layout whole. Screenshots of the overview and of a report page go to the output directory.
#
# usage: dashboard_test.py COLLECTOR_PROGRAM OUTPUT_DIRECTORY
import base64
import hashlib
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.request

from selenium.webdriver.support.ui import WebDriverWait

PROGRAM, OUTPUT = sys.argv[1], sys.argv[2]
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..'))
from collector_pytools import bencode, start_browser  # noqa: E402

TOKEN = 'browser-test-token-' + os.urandom(8).hex()
NOW = int(time.time())
TODAY = NOW // 86400
UNKNOWN_MACHINE = 'a29d7ba62ff9e1dafe055e7c35f002cfac5f9afb'
MACHINE = {name: hashlib.sha1(name.encode()).hexdigest() for name in ('A', 'B', 'C', 'H')}

# Texts a hostile client can put in every text field. Each marks the page if it ever runs.
MARK = 'document.documentElement.dataset.pwned'
HOSTILE = [
    '<script>%s="script"</script>' % MARK,
    '"><img src=x onerror="%s=\'img\'">' % MARK,
    "'><svg onload=\"%s='svg'\"></svg>" % MARK,
    '</script><script>%s="close"</script>' % MARK,
    'javascript:%s="link"' % MARK,
    '<a href="javascript:%s=1" onmouseover="%s=2">x</a></bdi></td></tr></table>' % (MARK, MARK),
    '\u202eexe.evil \u05e9\u05dc\u05d5\u05dd \u0645\u0631\u062d\u0628\u0627 \u2067isolate me',
    '<b>' + 'W' * (512 * 1024 - 3),
]
SHORT_HOSTILE = [text for text in HOSTILE if len(text) < 200]


def report(machine, days_ago, version, data, customer='acme', locale='C.UTF-8', details='6.1.0-13'):
    end = NOW - days_ago * 86400 - 120 - len(KNOWN)  # a period of its own: never a duplicate
    os_details = {'OSBuildVersion': 13, 'OSLocale': locale, 'OSMajorVersion': 6, 'OSMinorVersion': 1,
                  'OSName': 'Linux', 'OSType': 'Linux', 'OSVersionDetails': details}
    dictionary = {'CustomerId': customer, 'MachineId': machine, 'OSDetails': os_details,
                  'PWVersion': version, 'PhoneHomeFormatVersion': '1.0', 'QualityImprovementData': data}
    return bencode([7, machine, 3, [end - 600, end, dictionary]])


def crash(module, dump):
    return {'CrashReports': {module: {'CrashData': base64.b64encode(dump).decode()}}}


def add(name, kind, days_ago, body, machine=None, version=None, **facts):
    KNOWN.append(dict(name=name, kind=kind, days_ago=days_ago, body=body, machine=machine, version=version,
                      **facts))


KNOWN = []
DUMP_X, DUMP_Y = b'MDMP vpn module dump\x00\x01\x02' * 40, b'MDMP ostra dump\xff' * 25
A, B, C, H = (MACHINE[name] for name in 'ABCH')
for name, machine, days_ago, version, connects, protocol in [
        ('fa0', A, 0, '5.10.2', 3, 'ikev2'), ('fa1', A, 1, '5.10.2', 5, 'ikev2'),
        ('fb1', B, 1, '5.9.7', 7, 'wireguard'), ('fb5', B, 5, '5.9.7', 1, 'ikev2'),
        ('fc40', C, 40, '5.1.00123', 2, 'ikev2')]:
    data = {'ModuleData': {'VpnModule': {'connects': connects, 'protocol': protocol}}}
    add(name, 'feedback', days_ago, report(machine, days_ago, version, data), machine, version,
        connects=connects)
add('fu2', 'feedback', 2, report(UNKNOWN_MACHINE, 2, '5.9.7', {'ModuleData': {'TelemetryModule': {'samples': 50}}}))
add('ca0', 'crash', 0, report(A, 0, '5.10.2', crash('VpnModule', DUMP_X)), A, '5.10.2', dump=DUMP_X)
add('cb2', 'crash', 2, report(B, 2, '5.9.7', crash('OstraModule', DUMP_Y)), B, '5.9.7', dump=DUMP_Y)
add('ca3', 'crash', 3, report(A, 3, '5.10.2', crash('VpnModule', DUMP_X)), A, '5.10.2', dump=DUMP_X)
add('tb1', 'threat', 1, report(B, 1, '5.9.7', {'ThreatReports': {'ThreatIncident': 'blocked 203.0.113.7:4444'}}), B)
add('tc2', 'threat', 2, report(C, 2, '5.9.7', {'ThreatReports': {'ThreatIncident': 'blocked eicar.com download'}}), C)
add('damaged', 'damaged', 0, b'li7e40:' + A.encode())
for index, text in enumerate(HOSTILE):
    data = {'ModuleData': {text: {'note': text}}}
    add('hf%d' % index, 'feedback', 0, report(H, 0, text, data, text, text, text), H, text)
    add('ht%d' % index, 'threat', 0, report(H, 0, text, {'ThreatReports': {'ThreatIncident': text}}), H)
add('hc', 'crash', 0, report(H, 0, '5.10.2', crash(HOSTILE[1], DUMP_Y)), H, '5.10.2', dump=DUMP_Y)
DUPLICATE_OF = 'fa1'  # imported a second time, today


def in_range(entry, days):
    return entry['days_ago'] < days


def count(kind, days):
    return sum(1 for entry in KNOWN if entry['kind'] == kind and in_range(entry, days))


def free_port():
    with socket.socket() as probe:
        probe.bind(('127.0.0.1', 0))
        return probe.getsockname()[1]


class Collector:
    # A collector on a fresh store holding KNOWN, its dashboard on a loopback port.
    def __init__(self, directory):
        self.directory = directory
        self.port = free_port()
        subprocess.run(['openssl', 'req', '-x509', '-newkey', 'rsa:2048', '-nodes', '-days', '2', '-subj',
                        '/CN=127.0.0.1', '-keyout', directory + '/key.pem', '-out', directory + '/cert.pem'],
                       check=True, capture_output=True)
        self.config = directory + '/collector.conf'
        with open(self.config, 'w') as settings:
            settings.write('listen=127.0.0.1:%d\ncert_file=%s/cert.pem\nkey_file=%s/key.pem\n'
                           'database=%s/store.db\nstate_directory=%s\ndashboard_listen=127.0.0.1:%d\n'
                           'dashboard_token=%s\nlog=stderr\n'
                           % (free_port(), directory, directory, directory, directory, self.port, TOKEN))
        for entry in KNOWN + [dict(next(e for e in KNOWN if e['name'] == DUPLICATE_OF), name='dup', days_ago=0)]:
            path = '%s/%s.cef' % (directory, entry['name'])
            with open(path, 'wb') as file:
                file.write(entry['body'])
            received = NOW - entry['days_ago'] * 86400 - 60
            subprocess.run([PROGRAM, '--config', self.config, 'import', '--received', str(received), path],
                           check=True, capture_output=True)
        self.log = open(directory + '/serve.log', 'wb')
        self.process = subprocess.Popen([PROGRAM, '--config', self.config, 'serve'], stderr=self.log)
        deadline = time.time() + 30
        while True:
            try:
                self.get('/api/stats/daily?days=1')
                break
            except (OSError, urllib.error.URLError):
                if time.time() > deadline or self.process.poll() is not None:
                    self.process.kill()
                    raise RuntimeError('the collector did not start; see ' + self.log.name)
                time.sleep(0.2)
        stored = {r['sha256']: r['id'] for r in self.api('/api/reports?limit=1000')['reports']}
        self.ids = {e['name']: stored[hashlib.sha256(e['body']).hexdigest()] for e in KNOWN}

    def base(self):
        return 'http://127.0.0.1:%d' % self.port

    def get(self, path, token=True):
        request = urllib.request.Request(self.base() + path)
        if token:
            request.add_header('Authorization', 'Bearer ' + TOKEN)
        with urllib.request.urlopen(request, timeout=30) as answer:
            return answer.status, dict(answer.headers), answer.read(), answer.geturl()

    def api(self, path):
        return json.loads(self.get(path)[2])

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=30)
        self.log.close()


# What a page shows, read in the page: every report text (all cut texts shown whole first),
# the tiles, the rows of a table, and what would betray markup made from data.
READ_PAGE = '''
for (const button of document.querySelectorAll('button.ut-more')) button.click();
for (const details of document.querySelectorAll('.tree details')) details.open = true;
const texts = new Set([...document.querySelectorAll('bdi.ut')].map((node) => node.textContent));
const tiles = {};
for (const tile of document.querySelectorAll('.tile')) tiles[tile.id] = tile.querySelector('.value').textContent;
const rows = (id) => [...document.querySelectorAll('#' + id + ' tbody tr')].map(
    (row) => [...row.cells].map((cell) => cell.textContent));
return {
    missing: arguments[0].filter((text) => !texts.has(text)),
    tiles, rows: Object.fromEntries(arguments[1].map((id) => [id, rows(id)])),
    pwned: document.documentElement.dataset.pwned ?? null,
    foreign: document.querySelectorAll('main img, main svg, main script, main iframe, main b, ' +
        '[onerror], [onload], [onmouseover], a[href^="javascript:" i]').length,
    notIsolated: [...document.querySelectorAll('bdi.ut')].filter((node) => node.getAttribute('dir') !== 'auto' ||
        getComputedStyle(node).unicodeBidi !== 'isolate').length,
    overflow: document.documentElement.scrollWidth - document.documentElement.clientWidth,
    error: document.getElementById('error').hidden ? null : document.getElementById('error').textContent,
};
'''


class DashboardTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.mkdtemp(prefix='pw-dashboard-')
        cls.collector = Collector(cls.directory)
        try:
            cls.driver = start_browser(cls.directory, TOKEN, console=True)
        except Exception:
            cls.collector.stop()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()
        cls.collector.stop()
        shutil.rmtree(cls.directory, ignore_errors=True)

    def open(self, page, expected_texts=(), tables=()):
        # Loads a page, waits for its marker, and reads it; the console must hold no errors.
        self.driver.get(self.collector.base() + page)
        WebDriverWait(self.driver, 60, poll_frequency=0.05).until(
            lambda driver: driver.execute_script('return document.documentElement.dataset.complete'))
        state = self.driver.execute_script('return document.documentElement.dataset.complete')
        shown = self.driver.execute_script(READ_PAGE, list(expected_texts), list(tables))
        errors = [entry['message'] for entry in self.driver.get_log('browser') if entry['level'] == 'SEVERE']
        self.assertEqual((state, shown['error'], errors), ('1', None, []), page)
        return shown

    def test_figures_match_the_known_set_and_the_api(self):
        for days in (30, 90):
            daily = self.collector.api('/api/stats/daily?days=%d' % days)['days']
            shown = self.open('/?days=%d' % days, tables=['latest-table'])
            for kind in ('feedback', 'crash', 'threat', 'damaged'):
                self.assertEqual(int(shown['tiles']['total-' + kind].replace(',', '')), count(kind, days), kind)
                self.assertEqual(sum(day[kind] for day in daily), count(kind, days), kind)
            self.assertEqual(shown['tiles']['total-duplicates'], '1')
            self.assertEqual(len(shown['rows']['latest-table']), 20)
        self.driver.save_screenshot(os.path.join(OUTPUT, 'dashboard-overview.png'))

        crashes = self.open('/crashes.html', tables=['module-table', 'crash-table'])
        self.assertEqual((crashes['tiles']['total-crash'], crashes['tiles']['total-new'],
                          crashes['tiles']['total-repeats']), (str(count('crash', 30)), '3', '1'))
        modules = {row[0]: row[1:] for row in crashes['rows']['module-table']}
        self.assertEqual(modules['VpnModule'], ['2', '1', '1'])
        self.assertEqual(len(crashes['rows']['crash-table']), count('crash', 30))
        links = self.driver.execute_script(
            'return [...document.querySelectorAll("a.dump")].map((a) => a.getAttribute("href"))')
        dumps = {self.collector.get(link)[2] for link in links}
        self.assertEqual(dumps, {DUMP_X, DUMP_Y})

        fields = self.open('/modules.html?module=VpnModule&field=connects&days=7', tables=['field-table'])
        sums = {row[0]: int(row[2]) for row in fields['rows']['field-table']}
        expected = {}
        for entry in KNOWN:
            if 'connects' in entry and in_range(entry, 7):
                day = time.strftime('%Y-%m-%d', time.gmtime(NOW - entry['days_ago'] * 86400 - 60))
                expected[day] = expected.get(day, 0) + entry['connects']
        self.assertEqual(sums, expected)

        machine = self.open('/machine.html?id=' + A, tables=['machine-table'])
        self.assertEqual(len(machine['rows']['machine-table']), sum(1 for e in KNOWN if e['machine'] == A))

        found = self.open('/threats.html?q=EICAR', tables=['threat-table'])
        self.assertEqual([row[3] for row in found['rows']['threat-table']], ['blocked eicar.com download'])

    def test_versions_are_ordered_as_versions(self):
        self.open('/')
        order = self.driver.execute_script(
            'return [...document.querySelectorAll("#by-version tbody tr")].map((r) => r.cells[0].textContent)')
        self.assertLess(order.index('5.10.2'), order.index('5.9.7'))
        self.assertLess(order.index('5.9.7'), order.index('5.1.00123') if '5.1.00123' in order else len(order))

    def test_reports_page_through_the_api_cursor(self):
        seen = []
        page = '/reports.html?kind=crash&limit=2'
        while page:
            self.open(page)
            seen += self.driver.execute_script(
                'return [...document.querySelectorAll("#report-table tbody a[href^=\'/report.html\']")]'
                '.map((a) => Number(new URL(a.href).searchParams.get("id")))')
            page = self.driver.execute_script(
                'const a = [...document.querySelectorAll("#pager a")].find((l) => l.textContent === "Older");'
                'return a ? a.getAttribute("href") : null')
        crashes = sorted(self.collector.ids[e['name']] for e in KNOWN if e['kind'] == 'crash')
        self.assertEqual(sorted(seen), crashes)

        self.open('/report.html?id=%s' % self.collector.ids['ca0'])
        self.driver.save_screenshot(os.path.join(OUTPUT, 'dashboard-report.png'))
        raw = self.driver.execute_script('return document.getElementById("raw").getAttribute("href")')
        self.assertEqual(self.collector.get(raw)[2], next(e['body'] for e in KNOWN if e['name'] == 'ca0'))

    def test_pages_answer_with_the_security_headers_and_serve_only_their_files(self):
        headers = self.collector.get('/reports.html')[1]
        policy = headers['Content-Security-Policy']
        self.assertIn("script-src 'self';", policy)
        self.assertIn("frame-ancestors 'none'", policy)
        self.assertNotIn('unsafe', policy)
        self.assertEqual((headers['X-Content-Type-Options'], headers['Referrer-Policy']), ('nosniff', 'no-referrer'))
        for path, wanted in [('/', 200), ('/js/common.js', 200), ('/vendor/chart.js/chart.esm.js', 200),
                             ('/vendor/chart.js/chunks/helpers.segment.js', 200), ('/js/', 404), ('/js', 404),
                             ('/../../../../../../../usr/share/javascript/chart.js/chart.js', 404),
                             ('/css/../js/common.js', 404), ('/js/..%2f..%2fCMakeLists.txt', 404),
                             ('/vendor/chart.js/../chart.js/chart.js', 404), ('/vendor/index.html', 404),
                             ('/.git', 404), ('/CMakeLists.txt', 404), ('/vendor/chart.js/Chart.min.js', 404)]:
            try:
                status = self.collector.get(path)[0]
            except urllib.error.HTTPError as error:
                status = error.code
            self.assertEqual(status, wanted, path)
        self.assertTrue(self.collector.get('/crashes.html', token=False)[3].endswith('/login'))

    def test_hostile_texts_never_run_show_as_they_were_and_keep_the_layout(self):
        ids = self.collector.ids
        pages = [('/reports.html?limit=100', HOSTILE), ('/threats.html', HOSTILE), ('/', SHORT_HOSTILE),
                 ('/machine.html?id=' + H, SHORT_HOSTILE), ('/crashes.html', [HOSTILE[1]]),
                 ('/modules.html?module=%s&field=note' % urllib.request.quote(HOSTILE[1]), [HOSTILE[1]])]
        pages += [('/report.html?id=%s' % ids['hf%d' % i], [text]) for i, text in enumerate(HOSTILE)]
        pages += [('/report.html?id=%s' % ids['ht%d' % i], [text]) for i, text in enumerate(HOSTILE)]
        for bypass in (False, True):
            self.driver.execute_cdp_cmd('Page.setBypassCSP', {'enabled': bypass})
            for page, texts in pages:
                shown = self.open(page, texts)
                self.assertEqual((shown['pwned'], shown['foreign'], shown['notIsolated']), (None, 0, 0), page)
                self.assertEqual([len(text) for text in shown['missing']], [], page)
                self.assertLessEqual(shown['overflow'], 0, page)
            # Proof that the policy was really off (or on): an inline script added now.
            self.driver.execute_script('const s = document.createElement("script");'
                                       's.textContent = "document.documentElement.dataset.canary = 1";'
                                       'document.head.append(s);')
            canary = self.driver.execute_script('return document.documentElement.dataset.canary ?? null')
            self.assertEqual(canary, '1' if bypass else None)
            self.driver.get_log('browser')
        self.driver.execute_cdp_cmd('Page.setBypassCSP', {'enabled': False})


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1], verbosity=2)
