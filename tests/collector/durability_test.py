#!/usr/bin/env python3
"""Nothing answered 200 is lost: the sync comes before the answer (seen in the system calls
of the running collector), concurrent posts share syncs, and a kill -9 under load loses no
acknowledged report."""
import hashlib
import os
import re
import signal
import threading
import time
import unittest

from collector_harness import Collector, read_answers, report, upload, wait_for

SYNCS = ("fsync", "fdatasync")
READS = ("read", "recvfrom", "recvmsg")
WRITES = ("write", "writev", "sendto", "sendmsg")
# An answer is one TLS record of a short status text: longer than a TLS alert, shorter than
# the handshake's flight with its certificate.
ANSWER_BYTES = range(60, 400)
LINE = re.compile(r"^(\d+)\s+([\d.]+)\s+(?:<\.\.\. (\w+) resumed>|(\w+)\((\d+)<([^>]*)>)"
                  r".*?(?:= (-?\d+)|<unfinished \.\.\.>)")


def post_many(collector, clients, per_client, acknowledged, together=False):
    """`clients` threads, each posting `per_client` distinct reports; SHA-256 of each one
    answered 200 goes into `acknowledged`. `together`: each client first connects, then all
    post at the same moment, one report after another on their connection."""
    barrier = threading.Barrier(clients)

    def client(number):
        tls = collector.connect() if together else None
        if together:
            barrier.wait()
        for i in range(per_client):
            body = report(period=(number, number * 100000 + i + 1))
            try:
                if together:
                    tls.sendall(upload(b"data=" + body))
                    status = read_answers(tls, 1)[0][0]
                else:
                    status = collector.post(b"data=" + body)[0]
            except (OSError, IndexError):
                return
            if status == 200:
                acknowledged.append(hashlib.sha256(body).hexdigest())
        if tls is not None:
            tls.close()
    threads = [threading.Thread(target=client, args=(n,)) for n in range(clients)]
    for thread in threads:
        thread.start()
    return threads


def calls(trace):
    """(syscall, fd, path, start, end, result) from strace -f -ttt -yy output (path: the
    file or socket the fd names), with unfinished calls joined to their ends."""
    pending, out = {}, []
    for line in trace:
        match = LINE.match(line)
        if not match:
            continue
        pid, when, resumed, name, fd, path, result = match.groups()
        if resumed:
            if pid in pending and result is not None:
                name, fd, path, start = pending.pop(pid)
                out.append((name, int(fd), path, start, float(when), int(result)))
        elif result is None:
            pending[pid] = (name, fd, path, float(when))
        else:
            out.append((name, int(fd), path, float(when), float(when), int(result)))
    return sorted(out, key=lambda call: call[4])


class Durability(unittest.TestCase):
    def test_sync_precedes_every_answer_and_posts_share_syncs(self):
        collector = Collector("strace")
        trace_path = os.path.join(collector.dir, "trace")
        # LeakSanitizer cannot run under ptrace: a sanitizer build checks leaks in the other test.
        asan = ":".join(filter(None, [os.environ.get("ASAN_OPTIONS"), "detect_leaks=0"]))
        collector.start(["env", "ASAN_OPTIONS=" + asan, "strace", "-f", "-ttt", "-yy", "-s", "0",
                         "-o", trace_path, "-e", "trace=" + ",".join(SYNCS + READS + WRITES)])
        acknowledged, began = [], time.time()  # strace -ttt shows the same clock
        for thread in post_many(collector, 64, 4, acknowledged, together=True):
            thread.join()
        self.assertEqual(64 * 4, len(acknowledged))
        self.assertEqual(0, collector.stop())
        with open(trace_path) as trace:
            events = calls(trace)
        # Syncs of the store: the database or its write-ahead log, whichever thread made them.
        store = os.path.realpath(collector.database)
        syncs = [call for call in events if call[0] in SYNCS and call[2] in (store, store + "-wal")]
        last_read, answers, checked = {}, 0, 0
        for name, fd, path, start, end, result in events:
            tcp = "TCP" in path
            if start < began:
                continue  # the start-up's health check
            if tcp and name in READS and result > 0:
                last_read[fd] = end
            elif tcp and name in WRITES and result in ANSWER_BYTES:
                answers += 1
                # A sync began after the request arrived and ended before this answer.
                if any(last_read.get(fd, 0) < s[3] and s[4] <= start for s in syncs):
                    checked += 1
        print("answers %d, syncs %d, reports %d: %.3f syncs per report"
              % (answers, len(syncs), len(acknowledged), len(syncs) / len(acknowledged)))
        self.assertGreaterEqual(answers, len(acknowledged))
        self.assertEqual(answers, checked, "answers without a sync between request and answer")
        self.assertLess(len(syncs) / len(acknowledged), 0.2)

    def test_kill_9_under_load_loses_no_acknowledged_report(self):
        collector = Collector("kill9").start()
        acknowledged = []
        threads = post_many(collector, 16, 100000, acknowledged)
        self.assertTrue(wait_for(lambda: len(acknowledged) >= 300, 60))
        os.kill(collector.pid, signal.SIGKILL)
        collector.process.wait()
        for thread in threads:
            thread.join()
        collector.start()
        stored = set(collector.stored())
        lost = set(acknowledged) - stored
        print("acknowledged %d, stored %d after the restart, lost %d"
              % (len(acknowledged), len(stored), len(lost)))
        self.assertEqual(set(), lost)
        collector.stop()


if __name__ == "__main__":
    unittest.main()
