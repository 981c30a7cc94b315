#!/usr/bin/env python3
"""End-to-end: the real host program and plug-in, on a scaled clock (1000x), against the
real HTTPS feedback server on 127.0.0.1 with certificates made here.

Environment (set by CTest): PW_E2E_HOST (pathweave-host), PW_E2E_PLUGIN (libPhoneHome.so),
PW_E2E_INSTALL_DIR (the plug-in's installation directory), PW_E2E_EMULATOR (optional
command prefix, e.g. qemu-i386 -L /), PW_E2E_WORK (a scratch directory).
"""

import os
import shutil
import signal
import stat
import subprocess
import sys
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tools", "feedback-server"))
from localserver import LocalServer, bdecode, bencode_dict, make_certs  # noqa: E402
HOST = os.environ.get("PW_E2E_HOST", "")
PLUGIN = os.environ.get("PW_E2E_PLUGIN", "")
INSTALL = os.environ.get("PW_E2E_INSTALL_DIR", "")
EMULATOR = os.environ.get("PW_E2E_EMULATOR", "").split()
WORK = os.environ.get("PW_E2E_WORK", "/tmp/pw-e2e")
FEEDBACK = os.path.join(INSTALL, "CustomerExperienceFeedback")
OUTBOUND = os.path.join(FEEDBACK, "outbound")
# A stop must end the host quickly; the bound here only catches a stop that waits for a
# transfer or hangs (the latencies themselves are printed, and measured in bench/).
STOP_BOUND_S = 10.0


def wait_for(condition, seconds=30.0):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if condition():
            return True
        time.sleep(0.02)
    return condition()


class HostFixture(unittest.TestCase):
    """One set of servers (one per certificate) for all tests; a fresh feedback directory
    and host per test."""

    servers = {}

    @classmethod
    def setUpClass(cls):
        shutil.rmtree(WORK, ignore_errors=True)
        os.makedirs(WORK)
        make_certs(os.path.join(WORK, "certs"))

    @classmethod
    def tearDownClass(cls):
        for server in cls.servers.values():
            server.stop()
        cls.servers.clear()

    def server(self, cert="server"):
        if cert not in self.servers:
            self.servers[cert] = LocalServer(WORK, os.path.join(WORK, "certs"), cert)
        server = self.servers[cert]
        server.set_mode("ok")
        server.forget()
        return server

    def setUp(self):
        shutil.rmtree(FEEDBACK, ignore_errors=True)
        self.work = os.path.join(WORK, self.id().split(".")[-1])
        shutil.rmtree(self.work, ignore_errors=True)
        os.makedirs(os.path.join(self.work, "modules"))
        os.makedirs(FEEDBACK)
        self.host = None

    def tearDown(self):
        if self.host is not None and self.host.poll() is None:
            self.host.kill()
            self.host.wait()

    def write_profile(self, inner="<IncludeCrashReport>false</IncludeCrashReport>"):
        with open(os.path.join(FEEDBACK, "CustomerExperience_Feedback.xml"), "w") as profile:
            profile.write('<?xml version="1.0"?>\n<Feedback>%s</Feedback>\n' % inner)

    def start_host(self, modules, port=None, scale=1000, clock_start=None):
        conf = os.path.join(self.work, "host.conf")
        with open(conf, "w") as out:
            out.write("log=file\nlog_file=%s\n" % os.path.join(self.work, "host.log"))
            out.write("ca_file=%s\n" % os.path.join(WORK, "certs", "ca.pem"))
            if port is not None:
                out.write("connect_to=feedback.pathweave.example:443:127.0.0.1:%d\n" % port)
            out.write("time_scale=%d\n" % scale)
            if clock_start is not None:
                out.write("clock_start=%d\n" % clock_start)
        module_conf = os.path.join(self.work, "modules.conf")
        with open(module_conf, "w") as out:
            for key, value in modules.items():
                out.write("%s=%s\n" % (key, value))
        self.host = subprocess.Popen(EMULATOR + [HOST, "--plugin", PLUGIN, "--settings", conf,
                                                 "--modules", module_conf, "run"])

    def stop_host(self):
        """SIGTERM; the host must exit cleanly within the bound. Returns the latency."""
        sent = time.monotonic()
        self.host.send_signal(signal.SIGTERM)
        try:
            code = self.host.wait(STOP_BOUND_S)
        except subprocess.TimeoutExpired:
            self.fail("the host did not stop within %.0f s\n%s" % (STOP_BOUND_S, self.log()))
        self.assertEqual(0, code, self.log())
        return time.monotonic() - sent

    def log(self):
        path = os.path.join(self.work, "host.log")
        if not os.path.exists(path):
            return ""
        with open(path, errors="replace") as log:
            return log.read()

    def module_file(self, name, content):
        path = os.path.join(self.work, "modules", name)
        with open(path, "wb") as out:
            out.write(content)
        return path

    def outbound(self):
        return sorted(os.listdir(OUTBOUND)) if os.path.isdir(OUTBOUND) else []


class EndToEnd(HostFixture):
    def test_module_data_is_collected_posted_and_deleted_privately(self):
        server = self.server()
        vpn = self.module_file("vpn.dat", bencode_dict({b"connects": 42, b"protocol": b"ikev2"}))
        websec = self.module_file("websec.dat", bencode_dict({b"blocked": 7}))
        self.write_profile("<CustomerID>e2e</CustomerID><IncludeCrashReport>false"
                           "</IncludeCrashReport>")
        self.start_host({"VpnPhoneHomeFile": vpn, "WebSecurityPhoneHomeFile": websec},
                        server.port)
        self.assertTrue(wait_for(lambda: len(server.bodies()) >= 1), self.log())
        self.assertTrue(wait_for(lambda: self.outbound() == []), self.log())
        self.stop_host()

        meta, body = server.requests()[0]
        self.assertIn("method POST", meta)
        self.assertTrue(body.startswith(b"data="), body[:20])
        payload, end = bdecode(body[5:])
        self.assertEqual(len(body) - 5, end, "the body is exactly data= and one bencode list")
        level3 = payload[3][2]
        self.assertEqual([7, 3, b"e2e"], [payload[0], payload[2], level3[b"CustomerId"]])
        self.assertEqual({b"VpnModule": {b"connects": 42, b"protocol": b"ikev2"},
                          b"WebSecurityModule": {b"blocked": 7}},
                         level3[b"QualityImprovementData"][b"ModuleData"])
        self.assertFalse(os.path.exists(vpn) or os.path.exists(websec))
        with open(os.path.join(FEEDBACK, "history")) as history:
            self.assertIn("last_sequence_number:2\n", history.read())
        # Nothing the service wrote is open to other users (the host's umask is 077); the
        # feedback directory itself is the test's.
        for directory, names, files in os.walk(FEEDBACK):
            for name in [os.path.join(directory, f) for f in names + files]:
                if not name.endswith(".xml"):
                    self.assertEqual(0, os.stat(name).st_mode & 0o077, name)

    def test_crash_dump_and_threat_report_are_delivered(self):
        server = self.server()
        crash_dir = os.path.join(self.work, "crash") + "/"
        threat_dir = os.path.join(self.work, "threats") + "/"
        # The threat scan lists the directory "\\*" inside the watched one and reads each
        # entry at the watched directory's path + "\\*" + name.
        os.makedirs(os.path.join(threat_dir, "\\*"))
        os.makedirs(crash_dir)
        with open(os.path.join(crash_dir, "vpnagent.core"), "wb") as dump:
            dump.write(b"core\x00\x01\x02")
        self.write_profile("<IncludeCrashReport>true</IncludeCrashReport>")
        self.start_host({"VpnModule": crash_dir, "TelemetryModule": threat_dir}, server.port)
        crash = lambda: [b for b in server.bodies() if b"CrashReports" in b]
        self.assertTrue(wait_for(crash), self.log())
        self.assertIn(b"12:Y29yZQABAg==", crash()[0])  # base64 of the dump's bytes
        time.sleep(0.5)  # the watcher is set up with the first crash check (600 s)
        open(os.path.join(threat_dir, "\\*", "incident"), "w").close()
        incident = threat_dir + "\\*incident"
        with open(os.path.join(self.work, "incident"), "w") as threat:
            threat.write("blocked a page")
        os.rename(os.path.join(self.work, "incident"), incident)  # whole, in one change
        threats = lambda: [b for b in server.bodies() if b"ThreatReports" in b]
        self.assertTrue(wait_for(threats), self.log())
        self.assertIn(b"14:ThreatIncident14:blocked a page", threats()[0])
        self.assertTrue(wait_for(lambda: not os.path.exists(incident)), self.log())
        self.stop_host()

    def test_early_stop_ends_the_host(self):
        for delay in (0.0, 0.005, 0.02, 0.05):
            self.start_host({})
            time.sleep(delay)
            sent = time.monotonic()
            self.host.send_signal(signal.SIGTERM)
            # Before the host takes its signals over, SIGTERM ends it by itself.
            self.assertIn(self.host.wait(STOP_BOUND_S), (0, -signal.SIGTERM), self.log())
            self.assertLess(time.monotonic() - sent, STOP_BOUND_S)


class SimulatedYear(HostFixture):
    SCALE = 1000000  # a day in 86 ms
    DAY = 86400

    def test_a_year_with_restarts_an_upgrade_and_an_outage(self):
        server = self.server()
        self.write_profile()
        history = os.path.join(FEEDBACK, "history")
        with open(history, "w") as out:
            out.write("last_sequence_number:97\n")  # wraps within the year
        clock, runs = 1798761600, []  # 2027-01-01
        for days, upgrade in ((100, False), (100, False), (100, True), (65, False)):
            if upgrade:  # as a previous product version left it
                with open(history) as old:
                    text = old.read()
                with open(history, "w") as out:
                    out.write(text.replace("last_version_number:", "last_version_number:4.9."))
            vpn = self.module_file("vpn.dat", bencode_dict({b"run": len(runs)}))
            self.start_host({"VpnPhoneHomeFile": vpn}, server.port, self.SCALE, clock)
            started = time.monotonic()
            if len(runs) == 1:  # an outage of three days and more, over a monthly report
                time.sleep(15 * self.DAY / self.SCALE)
                seen = len(server.requests())
                server.set_mode("error")
                self.assertTrue(wait_for(lambda: len(server.requests()) > seen, 60))
                time.sleep(3 * self.DAY / self.SCALE)
                server.set_mode("ok")
            time.sleep(max(0, started + days * self.DAY / self.SCALE - time.monotonic()))
            self.stop_host()
            stopped = clock + (time.monotonic() - started) * self.SCALE
            runs.append((clock, stopped))
            clock = int(stopped) + 3600

        self.assertIn("Pathweave version changed", self.log())
        self.assertEqual([], self.outbound(), "every report was delivered")
        reports = sorted({tuple(bdecode(b[5:])[0][3][:2]) for b in server.bodies()})  # decodes
        self.assertGreaterEqual(len(reports), 12, "monthly reports, one per run at least")
        self.assertGreater(len(server.bodies()), len(reports), "the outage refused a post")
        for (start, end), (next_start, _) in zip(reports, reports[1:]):
            self.assertLessEqual(end, next_start, "collection periods follow one another")
        for run_start, run_end in runs:
            first = min(end for _, end in reports if run_start <= end <= run_end)
            self.assertGreaterEqual(first, run_start + 600, "no report sooner than 600 s")
        sequence = 97
        for run_start, run_end in runs:  # 100 is saved, but loads as 1
            sequence = 1 if sequence > 99 else sequence
            for _ in [end for _, end in reports if run_start <= end <= run_end]:
                sequence = 1 if sequence + 1 > 100 else sequence + 1
        with open(history) as saved:
            self.assertIn("last_sequence_number:%d\n" % sequence, saved.read())


KEPT, DELIVERED = "kept", "delivered"
NESTING = 60000


class Faults(HostFixture):
    """One row per fault: the host is started with one module file, the fault is in place
    when the first report is posted, and the host is stopped while it acts on it. Every row:
    no crash, a prompt stop, an undelivered report kept, nothing delivered twice."""

    # Special module files (at the module data path) and what must happen to them.
    def hostile_module(self, kind):
        path = os.path.join(self.work, "modules", "vpn.dat")
        if kind == "fifo":
            os.mkfifo(path)
        elif kind == "device":
            os.mknod(path, 0o600 | stat.S_IFCHR, os.makedev(1, 3))
        elif kind == "dangling":
            os.symlink(os.path.join(self.work, "target.dat"), path)
        elif kind == "bomb":
            self.module_file("vpn.dat", b"d1:k" + b"l" * NESTING + b"e" * NESTING + b"e")
        else:
            self.module_file("vpn.dat", bencode_dict({b"k": 1}))
        return path

    def run_row(self, name, cert, mode, module, expect):
        server = self.server(cert) if cert else None
        port = 1 if mode == "down" else server.port  # nothing listens on port 1
        if server:
            server.set_mode(mode, drip_seconds=1)
        path = self.hostile_module(module)
        self.write_profile()
        self.start_host({"VpnPhoneHomeFile": path}, port)
        report = os.path.join(OUTBOUND, "feedback_data1.cef")
        if expect == DELIVERED:
            self.assertTrue(wait_for(lambda: server.bodies() and not self.outbound()),
                            name + "\n" + self.log())
        else:
            self.assertTrue(wait_for(lambda: os.path.exists(report)), name + "\n" + self.log())
            time.sleep(0.5)  # inside the post (the retry comes 1800 s = 1.8 s later)
        latency = self.stop_host()
        print("%-22s stop %.0f ms" % (name, latency * 1000), file=sys.stderr)

        bodies = server.bodies() if server else []
        if expect == KEPT:
            self.assertEqual(["feedback_data1.cef"], self.outbound(), name)
            with open(report, "rb") as kept:
                payload, _ = bdecode(kept.read())
            self.assertEqual(7, payload[0], name)
            if mode not in ("error", "notfound", "drip", "stall", "garbage"):
                self.assertEqual([], bodies, name + ": no whole body reached the server")
        else:
            self.assertEqual(1, len(bodies), name + ": delivered once")
        if module in ("fifo", "device"):
            self.assertTrue(os.path.exists(path), name + ": a special file is never removed")
        if module == "dangling":
            self.assertTrue(os.path.islink(path), name + ": the link stays")
            self.assertFalse(os.path.exists(os.readlink(path)), name + ": no file made")
        if module == "bomb":
            self.assertIn(b"l" * NESTING, bodies[0], name)
        return bodies

    # fmt: off
    ROWS = [
        # name                   cert          mode        module      expect
        ("server 500",           "server",     "error",    "dict",     KEPT),
        ("server 404",           "server",     "notfound", "dict",     KEPT),
        ("reset mid-body",       "server",     "reset",    "dict",     KEPT),
        ("half a body, close",   "server",     "close",    "dict",     KEPT),
        ("garbage reply",        "server",     "garbage",  "dict",     KEPT),
        ("server down",          None,         "down",     "dict",     KEPT),
        ("stall after request",  "server",     "stall",    "dict",     KEPT),
        ("TLS stall",            "server",     "tlsstall", "dict",     KEPT),
        ("one byte a second",    "server",     "drip",     "dict",     KEPT),
        ("untrusted CA",         "untrusted",  "ok",       "dict",     KEPT),
        ("wrong host name",      "wrongname",  "ok",       "dict",     KEPT),
        ("expired certificate",  "expired",    "ok",       "dict",     KEPT),
        ("self-signed",          "selfsigned", "ok",       "dict",     KEPT),
        ("FIFO at module path",  "server",     "ok",       "fifo",     DELIVERED),
        ("device at module path", "server",    "ok",       "device",   DELIVERED),
        ("dangling module link", "server",     "ok",       "dangling", DELIVERED),
        ("nesting bomb",         "server",     "ok",       "bomb",     DELIVERED),
    ]
    # fmt: on

    def test_faults(self):
        for row in self.ROWS:
            with self.subTest(row[0]):
                self.setUp()
                try:
                    self.run_row(*row)
                finally:
                    self.tearDown()

    def test_disk_full(self):
        try:
            subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", FEEDBACK],
                           check=True, stderr=subprocess.PIPE)
        except (subprocess.CalledProcessError, OSError) as error:
            self.skipTest("cannot mount a small tmpfs here: %s" % error)
        try:
            server = self.server()
            big = self.module_file("vpn.dat", bencode_dict({b"k": b"x" * 100000}))
            self.write_profile()
            self.start_host({"VpnPhoneHomeFile": big}, server.port)
            self.assertTrue(wait_for(lambda: "feedback_data" in self.log() or
                                     not os.path.exists(big)), self.log())
            time.sleep(0.3)
            self.stop_host()
            self.assertEqual([], server.bodies())
        finally:
            subprocess.run(["umount", FEEDBACK], check=False)


if __name__ == "__main__":
    unittest.main(verbosity=2)
