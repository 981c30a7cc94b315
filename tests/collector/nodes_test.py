#!/usr/bin/env python3
"""Two collector nodes on one PostgreSQL database: concurrent posts to both, duplicates
across nodes, every report stored exactly once; and a database that goes away and comes
back: 503 while it is away, logged once, ingestion resumed by itself."""
import collections
import hashlib
import os
import shutil
import signal
import subprocess
import threading
import unittest

from collector_harness import WORK, Collector, free_port, report, wait_for

PG_BIN = "/usr/lib/postgresql/15/bin"
PG_USER = "postgres"  # the server refuses to run as root


class PostgresServer:
    """A throw-away PostgreSQL server in a temporary directory on a loopback port."""

    def __init__(self):
        self.dir = os.path.join(WORK, "postgres")
        shutil.rmtree(self.dir, ignore_errors=True)
        os.makedirs(self.dir)
        shutil.chown(self.dir, PG_USER)
        self.port = free_port()
        subprocess.run([os.path.join(PG_BIN, "initdb"), "-D", os.path.join(self.dir, "data"),
                        "-U", "collector", "--auth=trust", "--no-sync"], user=PG_USER,
                       check=True, stdout=subprocess.DEVNULL)
        self.uri = "postgresql://collector@127.0.0.1:%d/postgres" % self.port
        self.process = None

    def start(self):
        self.process = subprocess.Popen(
            [os.path.join(PG_BIN, "postgres"), "-D", os.path.join(self.dir, "data"), "-k",
             self.dir, "-h", "127.0.0.1", "-p", str(self.port), "-c", "max_connections=50"],
            user=PG_USER, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        ready = [os.path.join(PG_BIN, "pg_isready"), "-q", "-h", "127.0.0.1", "-p", str(self.port)]
        assert wait_for(lambda: subprocess.run(ready).returncode == 0, 60), "postgres did not start"

    def stop(self):
        if self.process is not None:
            self.process.send_signal(signal.SIGINT)  # fast: it does not wait for clients
            self.process.wait(60)
            self.process = None


class TwoNodes(unittest.TestCase):
    def setUp(self):
        self.postgres = PostgresServer()
        self.postgres.start()
        self.nodes = [Collector("node%d" % n, database=self.postgres.uri).start() for n in (1, 2)]

    def tearDown(self):
        for node in self.nodes:
            node.stop()
        self.postgres.stop()

    def test_concurrent_posts_to_both_nodes_are_stored_exactly_once(self):
        bodies = [report(period=(n, n + 600)) for n in range(200)]
        answers = []

        def client(node, share):
            for body in share:
                answers.append(node.post(b"data=" + body)[0])
        # Every node gets every other report; the ones divisible by 4 go to both nodes at
        # the same time, so that the database has to catch the duplicate.
        threads = []
        for n, node in enumerate(self.nodes):
            mine = [body for i, body in enumerate(bodies) if i % 2 == n or i % 4 == 0]
            for part in range(4):
                threads.append(threading.Thread(target=client, args=(node, mine[part::4])))
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual({200}, set(answers))
        stored = collections.Counter(self.nodes[0].stored())
        self.assertEqual({hashlib.sha256(b).hexdigest() for b in bodies}, set(stored))
        self.assertEqual({1}, set(stored.values()), "a report stored twice")

    def test_a_database_away_gives_503_once_logged_and_ingestion_resumes(self):
        node = self.nodes[0]
        self.postgres.stop()
        for n in range(3):
            status, headers, _ = node.post(b"data=" + report(period=(9000 + n, 9600)))
            self.assertEqual(503, status)
            self.assertIn("retry-after", headers)
        self.postgres.start()
        self.assertTrue(wait_for(lambda: node.post(b"data=" + report(period=(1, 2)))[0] == 200))
        self.assertEqual(1, node.log().count("answering 503 until it is back"), node.log())
        self.assertIn("storage is back", node.log())


if __name__ == "__main__":
    unittest.main()
