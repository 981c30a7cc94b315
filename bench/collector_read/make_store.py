#!/usr/bin/python3
# Builds a store of a simulated fleet for the read benchmark: bodies as clients post them
# (about 95% feedback, 4% crash reports with a 64 KiB dump, 1% threat reports), from
# MACHINES machines, received over the last DAYS days, loaded with `pathweave-collector
# import --received` one day at a time, so that every rollup is the importer's own.
#
# usage: make_store.py COLLECTOR CONFIG REPORTS [--machines N] [--days N] [--seed N]
#   CONFIG is a collector settings file whose `database` names the store to fill.
import argparse
import base64
import hashlib
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time

LOCALES = ['en_US.UTF-8', 'de_DE.UTF-8', 'fr_FR.UTF-8', 'C.UTF-8', 'ja_JP.UTF-8', 'pt_BR.UTF-8', 'en_GB.UTF-8']
VERSIONS = ['5.1.00123', '5.1.00123', '5.1.00120', '5.0.00988', '4.9.00870']
KERNELS = [('6.1.0-18-686-pae', 6, 1, 76), ('6.1.0-25-686', 6, 1, 106), ('5.10.0-28-686-pae', 5, 10, 209),
           ('6.6.30-i686', 6, 6, 30)]
CRASH_MODULES = ['VpnModule', 'OstraModule', 'WebSecurityModule', 'GuiModule', 'DownloaderModule']
DUMP_SIZE = 64 * 1024

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'tests', 'collector'))
from collector_pytools import bencode  # noqa: E402


class Fleet:
    def __init__(self, machines, seed, start):
        self.random = random.Random(seed)
        self.machines = []
        for i in range(machines):
            traits = self.random.getrandbits(64)
            self.machines.append({
                'id': hashlib.sha1(b'pathweave-read-machine-%d-%d' % (seed, i)).hexdigest(),
                'customer': 'release' if traits % 10 == 0 else 'customer-%d' % (1 + traits % 400),
                'version': VERSIONS[(traits >> 12) % len(VERSIONS)],
                'kernel': KERNELS[(traits >> 20) % len(KERNELS)],
                'locale': LOCALES[(traits >> 28) % len(LOCALES)],
                'scanner': (traits >> 36) % 3 == 0,
                'end': start - self.random.randrange(30 * 86400),
                'reports': 0,
            })
        self.pool = self.random.randbytes(2 * DUMP_SIZE)

    def module_data(self, machine):
        r = self.random
        data = {'TelemetryModule': {'samples': 600 + r.randrange(1200)},
                'VpnModule': {'connects': r.randrange(60), 'protocol': r.choice(['ikev2', 'ssl', 'ipsec']),
                              'tunnel_failures': 1 + r.randrange(3) if r.randrange(8) == 0 else 0},
                'WebSecurityModule': {'blocked_pages': r.randrange(40),
                                      'engine_version': r.choice(['3.2.1', '3.2.0', '3.1.7'])}}
        if machine['scanner']:
            data['OstraModule'] = {'detections': int(r.randrange(16) == 0), 'files_scanned': r.randrange(50000)}
        return data

    def body(self):
        r = self.random
        draw = r.randrange(100)
        kind = 'feedback' if draw < 95 else ('crash' if draw < 99 else 'threat')
        m = self.machines[r.randrange(len(self.machines))]
        start = m['end']
        m['end'] = start + 600 + r.randrange(3000)
        m['reports'] += 1
        release, major, minor, build = m['kernel']
        quality = {}
        if kind == 'feedback' or r.randrange(4) == 0:
            quality['ModuleData'] = self.module_data(m)
        if kind == 'crash':
            module = r.choice(CRASH_MODULES)
            header = ('core dump of %s on %s report %d\n' % (module, m['id'], m['reports'])).encode()
            offset = r.randrange(DUMP_SIZE)
            dump = header + self.pool[offset:offset + DUMP_SIZE - len(header)]
            quality['CrashReports'] = {module: {'CrashData': base64.b64encode(dump).decode()}}
        elif kind == 'threat':
            quality['ThreatReports'] = {'ThreatIncident': 'blocked connection to 203.0.113.%d:%d by vpnagent'
                                        % (1 + r.randrange(254), 1024 + r.randrange(60000))}
        fields = {'CustomerId': m['customer'], 'MachineId': m['id'],
                  'OSDetails': {'OSBuildVersion': build, 'OSLocale': m['locale'], 'OSMajorVersion': major,
                                'OSMinorVersion': minor, 'OSName': 'Linux', 'OSType': 'Linux',
                                'OSVersionDetails': release},
                  'PWVersion': m['version'], 'PhoneHomeFormatVersion': '1.0', 'QualityImprovementData': quality}
        return b'data=' + bencode([7, m['id'], 3, [start, m['end'], fields]])


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('collector')
    parser.add_argument('config')
    parser.add_argument('reports', type=int)
    parser.add_argument('--machines', type=int, default=100000)
    parser.add_argument('--days', type=int, default=365)
    parser.add_argument('--seed', type=int, default=1)
    args = parser.parse_args()
    today = int(time.time()) // 86400
    first = today - args.days + 1
    fleet = Fleet(args.machines, args.seed, first * 86400)
    work = tempfile.mkdtemp(prefix='pw-read-store-')
    began = time.time()
    try:
        for index in range(args.days):
            day = first + index
            count = args.reports * (index + 1) // args.days - args.reports * index // args.days
            folder = os.path.join(work, str(day))
            os.mkdir(folder)
            for n in range(count):
                with open(os.path.join(folder, '%07d' % n), 'wb') as out:
                    out.write(fleet.body())
            # Reports of a day arrive at one time: the day's noon.
            subprocess.run([args.collector, '--config', args.config, 'import', '--received',
                            str(day * 86400 + 43200), folder], check=True, stdout=subprocess.DEVNULL)
            shutil.rmtree(folder)
            if index % 30 == 29:
                print('day %d of %d, %.0f s' % (index + 1, args.days, time.time() - began), flush=True)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print('%d reports in %.0f s' % (args.reports, time.time() - began))


if __name__ == '__main__':
    sys.exit(main())
