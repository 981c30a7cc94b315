#!/usr/bin/env python3
"""Hostile requests against a running collector, one table: each gets its stated answer,
the collector keeps serving others, stays within its memory, and loses nothing stored."""
import base64
import hashlib
import os
import shutil
import signal
import socket
import ssl
import subprocess
import threading
import time
import unittest
import zlib

from collector_harness import (SERVER_NAME, WORK, Collector, certificates, free_port,
                               make_certs, read_answers, report, upload, wait_for)

MACHINE = "0123456789abcdef0123456789abcdef01234567"
MAX_BODY = 16 * 1024 * 1024 + 5


def crash(data):
    return report(quality={b"CrashReports": {b"VpnModule": {b"CrashData": data}}})


def text_field_variants():
    """Every text field of a report with a NUL, and with invalid UTF-8."""
    fields = ["CustomerId", "PWVersion", "PhoneHomeFormatVersion", "OSType", "OSVersionDetails",
              "OSName", "OSLocale"]
    for field in fields:
        for bad in (b"a\x00b", b"\xff\xfe\xc3"):
            yield "%s %r" % (field, bad), report(**{field: bad})
    yield "module text NUL", report(quality={b"ModuleData": {b"VpnModule": {b"p": b"\x00\xff"}}})
    yield "threat text NUL", report(quality={b"ThreatReports": {b"ThreatIncident": b"x\x00\xff"}})


class Hostile(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        # Its rows run past their deadlines on purpose, all from one address: the guard
        # against slow addresses is tested on a collector of its own.
        cls.collector = Collector("hostile", extra={"header_timeout": "2", "idle_timeout": "5",
                                                    "slow_client_strikes": "0"})
        cls.collector.start()
        cls.kept = []  # SHA-256 of every body answered 200

    @classmethod
    def tearDownClass(cls):
        cls.collector.stop()

    def exchange(self, steps, answers, closing):
        """Sends each step (bytes, or a pause in seconds) on one connection; the answers,
        and whether the server closed the connection after them (when `closing`)."""
        with self.collector.connect(timeout=30) as tls:
            for step in steps:
                if isinstance(step, float):
                    time.sleep(step)
                else:
                    try:
                        tls.sendall(step)
                    except (ConnectionError, ssl.SSLError):
                        break
            got, closed = read_answers(tls, answers), False
            if closing:
                tls.settimeout(10)
                try:
                    closed = tls.recv(1) == b""
                except (ConnectionError, ssl.SSLError):
                    closed = True
                except socket.timeout:
                    pass
            return [status for status, _, _ in got], closed

    def keep(self, *bodies):
        self.kept.extend(hashlib.sha256(body).hexdigest() for body in bodies)

    def bystander(self):
        """An ordinary client is answered while hostile ones are at work."""
        body = report(machine=MACHINE, period=(1, time.monotonic_ns()))
        self.assertEqual(200, self.collector.post(b"data=" + body)[0])
        self.keep(body)

    def test_hostile_requests(self):
        self.bystander()
        deep = b"l" * 1000000 + b"e" * 1000000
        huge = b"16777200:" + b"x" * 16777200
        bomb = zlib.compress(b"\0" * (64 << 20), 9)
        rows = [
            # name, steps, answers expected, closed after them, bodies kept
            ("truncated report", [upload(b"data=" + report()[:-7])], [200], False,
             [report()[:-7]]),
            ("a million levels", [upload(b"data=" + deep)], [200], False, [deep]),
            ("integer past 64 bits", [upload(b"data=" + report(PWVersion=2**70))], [200], False,
             [report(PWVersion=2**70)]),
            ("16 MiB string", [upload(b"data=" + huge)], [200], False, [huge]),
            ("invalid base64 crash", [upload(b"data=" + crash(b"@@not base64@@"))], [200], False,
             [crash(b"@@not base64@@")]),
            ("zip bomb", [upload(b"data=" + bomb, b"Zip: True\r\n")], [200], False, []),
            ("no data= prefix", [upload(report())], [200], False, []),
            ("body cut short", [upload(b"data=" + report(), length=5000)], [], True, []),
            ("Content-Length short of the body",
             [upload(b"data=" + report(period=(5, 6)), length=60)], [200, 400], True, []),
            ("chunked", [b"POST /cef/upload HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked"
                         b"\r\n\r\n5\r\ndata=\r\n0\r\n\r\n"], [400], True, []),
            ("Content-Length and Transfer-Encoding",
             [b"POST /cef/upload HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n"
              b"Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n"], [400], True, []),
            ("no Content-Length", [b"POST /cef/upload HTTP/1.1\r\nHost: x\r\n\r\n"], [411], True,
             []),
            ("over 16 MiB, refused before its body", [upload(b"", length=MAX_BODY + 1)], [413],
             True, []),
            ("other path", [b"GET /cef/other HTTP/1.1\r\nHost: x\r\n\r\n"], [404], False, []),
            ("other method", [b"GET /cef/upload HTTP/1.1\r\nHost: x\r\n\r\n"], [405], False, []),
            ("pipelined", [upload(b"data=" + report(period=(1, 2))) +
                           upload(b"data=" + report(period=(2, 3))) +
                           b"GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n"], [200, 200, 200], False,
             [report(period=(1, 2)), report(period=(2, 3))]),
        ]
        # A slowloris client dribbles its header while the rows run: it is closed at the
        # header deadline, and nobody else waits for it.
        slow = []
        slowloris = threading.Thread(target=lambda: slow.append(self.exchange(
            [step for byte in b"POST /cef/upload HTTP/1.1\r\nHost: x\r\n"
             for step in (bytes([byte]), 0.25)], 1, True)))
        slowloris.start()
        for name, steps, expected, closed, kept in rows:
            with self.subTest(name):
                statuses, was_closed = self.exchange(steps, len(expected) + closed, closed)
                self.assertEqual(expected, statuses)
                if closed:
                    self.assertTrue(was_closed, "the connection stays open")
                self.keep(*kept)
                self.assertIsNone(self.collector.process.poll(), self.collector.log())
                self.bystander()
        slowloris.join()
        self.assertEqual([([], True)], slow, "slowloris")
        for name, body in text_field_variants():
            with self.subTest(name):
                self.assertEqual(200, self.collector.post(b"data=" + body)[0])
                self.keep(body)
        again = self.collector.post(b"data=" + report(period=(1, 2)))
        self.assertEqual((200, b"already stored\n"), (again[0], again[2]))
        with open("/proc/%d/status" % self.collector.process.pid) as status:
            peak = [int(line.split()[1]) for line in status if line.startswith("VmHWM")][0]
        self.assertLess(peak, 1024 * 1024, "peak resident kB")
        self.assertEqual(set(), set(self.kept) - set(self.collector.stored()))

    def test_crowd_and_slow_clients_are_capped_per_address(self):
        """Past the per-address cap a connection is closed at once, without TLS."""
        per_address = 8
        capped = Collector("capped", extra={"max_connections_per_address": str(per_address)})
        capped.start()
        try:
            # The start's health check is counted until the collector sees its end, and
            # the held connections once it has accepted them: the next one is then the
            # first past the cap.
            self.assertTrue(wait_for(lambda: capped.connections_open() == 0))
            held = [socket.create_connection(("127.0.0.1", capped.port)) for _ in range(per_address)]
            self.assertTrue(wait_for(lambda: capped.connections_open() == per_address))
            # Closed at once: well before the handshake deadline (10 s) would close it.
            extra = socket.create_connection(("127.0.0.1", capped.port), timeout=3)
            self.assertEqual(b"", extra.recv(1))
            extra.close()
            for sock in held:
                sock.close()
            # The collector counts a connection until it sees its end: allow it that moment.
            deadline = time.monotonic() + 10
            while not capped.healthy() and time.monotonic() < deadline:
                time.sleep(0.1)
            self.assertTrue(capped.healthy())
        finally:
            capped.stop()

    def test_an_address_that_keeps_overrunning_its_deadlines_is_refused_before_tls(self):
        """After `slow_client_strikes` deadline overruns within a minute, connections from
        that address are closed before the TLS handshake; other addresses are served."""
        guarded = Collector("guarded", extra={"header_timeout": "1", "slow_client_strikes": "2"})
        guarded.start()
        try:
            silent = [socket.create_connection(("127.0.0.1", guarded.port)) for _ in range(2)]
            for sock in silent:
                sock.settimeout(10)
                self.assertEqual(b"", sock.recv(1), "closed at the handshake deadline")
                sock.close()
            with self.assertRaises((ssl.SSLError, ConnectionError)):
                guarded.connect().close()
            other = socket.create_connection(("127.0.0.1", guarded.port), timeout=10,
                                             source_address=("127.0.0.2", 0))
            with guarded.context.wrap_socket(other, server_hostname=SERVER_NAME) as tls:
                tls.sendall(b"GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n")
                self.assertEqual(200, read_answers(tls, 1)[0][0])
            self.assertIn("refusing connections from 127.0.0.1 for 60 s", guarded.log())
        finally:
            guarded.stop()

    def test_head_is_answered_as_get_without_a_body(self):
        """HEAD gets GET's status and header, its Content-Length included, and no body: the
        GET pipelined behind it is then read whole and on its own."""
        self.assertTrue(wait_for(lambda: self.collector.request(
            b"GET /readyz HTTP/1.1\r\nHost: x\r\n\r\n")[0] == 200), "storage not ready")
        for path in (b"/healthz", b"/readyz"):
            with self.subTest(path), self.collector.connect() as tls:
                get = b"GET %s HTTP/1.1\r\nHost: x\r\n\r\n" % path
                tls.sendall(get + b"HEAD" + get[3:] + get)
                first, head, after = read_answers(tls, 3, bodiless=(1,))
                self.assertEqual(200, first[0])
                self.assertEqual((first[0], first[1], b""), head)
                self.assertEqual(first, after)


def served_certificate(port):
    """SHA-256 of the certificate a new connection is shown (not verified: only compared)."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
    with socket.create_connection(("127.0.0.1", port), timeout=10) as raw, \
            context.wrap_socket(raw, server_hostname=SERVER_NAME) as tls:
        return hashlib.sha256(tls.getpeercert(binary_form=True)).hexdigest()


def file_certificate(path):
    with open(path) as pem:
        first = pem.read().split("-----END CERTIFICATE-----")[0] + "-----END CERTIFICATE-----\n"
    return hashlib.sha256(ssl.PEM_cert_to_DER_cert(first)).hexdigest()


def proxied_post(port, context, header, body):
    """A post behind a load balancer: the PROXY header and the TLS ClientHello in one
    segment, as a proxy forwards them; the answer's status."""
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    tls = context.wrap_bio(incoming, outgoing, server_hostname=SERVER_NAME)
    with socket.create_connection(("127.0.0.1", port), timeout=10) as raw:
        first = True
        while True:
            try:
                tls.do_handshake()
                break
            except ssl.SSLWantReadError:
                raw.sendall((header if first else b"") + outgoing.read())
                first = False
                incoming.write(raw.recv(65536))
        tls.write(upload(body))
        raw.sendall(outgoing.read())
        answer = b""
        while b"\r\n\r\n" not in answer:
            chunk = raw.recv(65536)
            if not chunk:
                break
            incoming.write(chunk)
            try:
                answer += tls.read(65536)
            except ssl.SSLWantReadError:
                pass
        return int(answer.split()[1]) if answer else 0


class Reload(unittest.TestCase):
    def test_proxy_header_and_handshake_in_one_segment(self):
        """The bytes after the PROXY header start the TLS handshake; the address the header
        names is the one stored."""
        collector = Collector("proxied", extra={"proxy_protocol": "yes"})
        # Started by hand: its health check would come without a PROXY header.
        collector.process = subprocess.Popen(collector.command("serve"))

        def listening():
            try:
                socket.create_connection(("127.0.0.1", collector.port), timeout=1).close()
                return True
            except OSError:
                return False
        try:
            self.assertTrue(wait_for(listening), collector.log())
            rows = [(b"PROXY TCP4 192.0.2.7 127.0.0.1 4711 443\r\n", "192.0.2.7"),
                    (b"PROXY TCP6 2001:db8::9 ::1 4711 443\r\n", "2001:db8::9")]
            for number, (header, address) in enumerate(rows):
                with self.subTest(address):
                    body = b"data=" + report(period=(10 + number, 20 + number))
                    status = proxied_post(collector.port, collector.context, header, body)
                    self.assertEqual(200, status, collector.log())
                    self.assertIn(address, [r["client_address"] for r in collector.exported()])
        finally:
            collector.process.terminate()
            collector.process.wait(30)

    def test_sighup_reloads_the_certificate_and_reopens_the_log(self):
        """A renewed certificate is served to new connections and a rotated log is
        reopened at its path, without a restart."""
        old, new = certificates(), make_certs(os.path.join(WORK, "certs-renewed"))
        here = os.path.join(WORK, "reload")
        files = {"cert_file": os.path.join(here, "server.pem"),
                 "key_file": os.path.join(here, "server.key")}
        collector = Collector("reload", extra=files)
        for key, name in (("cert_file", "server.pem"), ("key_file", "server.key")):
            shutil.copy(os.path.join(old, name), files[key])
        collector.start()
        try:
            self.assertEqual(file_certificate(os.path.join(old, "server.pem")),
                             served_certificate(collector.port))
            for key, name in (("cert_file", "server.pem"), ("key_file", "server.key")):
                shutil.copy(os.path.join(new, name), files[key] + ".new")
                os.replace(files[key] + ".new", files[key])
            os.rename(collector.log_path, collector.log_path + ".1")
            os.kill(collector.pid, signal.SIGHUP)
            renewed = file_certificate(os.path.join(new, "server.pem"))
            self.assertTrue(wait_for(lambda: served_certificate(collector.port) == renewed))
            self.assertTrue(wait_for(lambda: os.path.exists(collector.log_path) and
                                     "certificate reloaded" in collector.log()))
            with open(collector.log_path + ".1") as rotated:
                before = rotated.read()
            self.assertIn("serving", before)
            self.assertNotIn("certificate reloaded", before)
        finally:
            collector.stop()


class DashboardOffLoopback(unittest.TestCase):
    def test_dashboard_off_loopback_speaks_https_and_wants_the_token(self):
        """Off loopback the dashboard listener speaks HTTPS with the collector's certificate
        (a plain-HTTP request gets no answer), and every request needs the token."""
        token, port = "dashboard-test-token-5f0c9e21a7d4", free_port()
        collector = Collector("dashboard-tls", extra={"dashboard_listen": "0.0.0.0:%d" % port,
                                                      "dashboard_token": token})
        collector.start()
        bearer = "Authorization: Bearer %s\r\n" % token
        form = "token=" + token
        rows = [  # request, status, a header that must hold a text (or None)
            ("GET /api/stats/daily?days=1 HTTP/1.1\r\nHost: x\r\n\r\n", 401, None),
            ("GET /api/stats/daily?days=1 HTTP/1.1\r\nHost: x\r\n%s\r\n" % bearer, 200,
             ("content-type", "application/json")),
            ("GET /metrics HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer wrong\r\n\r\n", 401,
             None),
            ("GET / HTTP/1.1\r\nHost: x\r\n\r\n", 303, ("location", "/login")),
            ("POST /login HTTP/1.1\r\nHost: x\r\nContent-Type: application/x-www-form-urlencoded"
             "\r\nContent-Length: %d\r\n\r\n%s" % (len(form), form), 303,
             ("set-cookie", "Secure")),
        ]
        try:
            for request, status, header in rows:
                with self.subTest(request.split("\r\n")[0]):
                    answer = collector.request(request.encode(), port=port)
                    self.assertEqual(status, answer[0], collector.log())
                    if header:
                        self.assertIn(header[1], answer[1].get(header[0], ""))
            with socket.create_connection(("127.0.0.1", port), timeout=10) as plain:
                plain.sendall(b"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n")
                try:
                    reply = plain.recv(65536)
                except ConnectionError:
                    reply = b""
                self.assertFalse(reply.startswith(b"HTTP/"), reply)
        finally:
            status = collector.stop()
        self.assertEqual(0, status, collector.log())


if __name__ == "__main__":
    unittest.main()
