#!/usr/bin/env python3
"""End-to-end: the real host program and plug-in, on a scaled clock (1000x), against the
real HTTPS feedback server on 127.0.0.1 with certificates made here. What the server
received is checked byte for byte against the bencode the plug-in wrote.

Environment (set by CTest): PW_E2E_HOST (pathweave-host), PW_E2E_PLUGIN (libPhoneHome.so),
PW_E2E_INSTALL_DIR (the plug-in's installation directory), PW_E2E_EMULATOR (optional
command prefix, e.g. qemu-i386 -L /), PW_E2E_WORK (a scratch directory).
"""

import hashlib
import os
import shutil
import signal
import subprocess
import sys
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
HOST = os.environ.get("PW_E2E_HOST", "")
PLUGIN = os.environ.get("PW_E2E_PLUGIN", "")
INSTALL = os.environ.get("PW_E2E_INSTALL_DIR", "")
EMULATOR = os.environ.get("PW_E2E_EMULATOR", "").split()
WORK = os.environ.get("PW_E2E_WORK", "/tmp/pw-e2e")
FEEDBACK = os.path.join(INSTALL, "CustomerExperienceFeedback")
OUTBOUND = os.path.join(FEEDBACK, "outbound")


def bdecode(data, at=0):
    """Decodes one bencode value at `at`; returns (value, next offset)."""
    lead = data[at:at + 1]
    if lead == b"i":
        end = data.index(b"e", at)
        return int(data[at + 1:end]), end + 1
    if lead == b"l":
        items, at = [], at + 1
        while data[at:at + 1] != b"e":
            item, at = bdecode(data, at)
            items.append(item)
        return items, at + 1
    if lead == b"d":
        entries, at = {}, at + 1
        while data[at:at + 1] != b"e":
            key, at = bdecode(data, at)
            entries[key], at = bdecode(data, at)
        return entries, at + 1
    colon = data.index(b":", at)
    length = int(data[at:colon])
    return data[colon + 1:colon + 1 + length], colon + 1 + length


def bencode_dict(entries):
    out = b"d"
    for key in sorted(entries):
        value = entries[key]
        out += b"%d:%s" % (len(key), key)
        out += b"i%de" % value if isinstance(value, int) else b"%d:%s" % (len(value), value)
    return out + b"e"


def wait_for(condition, seconds=30.0):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if condition():
            return True
        time.sleep(0.02)
    return condition()


class FeedbackServer:
    def __init__(self, work, cert="server", mode="ok"):
        self.records = os.path.join(work, "received")
        self.control = os.path.join(work, "control")
        os.makedirs(self.records, exist_ok=True)
        self.set_mode(mode)
        certs = os.path.join(WORK, "certs")
        self.process = subprocess.Popen(
            [sys.executable, os.path.join(HERE, "feedback_server.py"), "--cert",
             os.path.join(certs, cert + ".pem"), "--key", os.path.join(certs, cert + ".key"),
             "--record-dir", self.records, "--control", self.control],
            stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        assert line.startswith("PORT "), line
        self.port = int(line.split()[1])

    def set_mode(self, mode):
        with open(self.control, "w") as control:
            control.write("mode=%s\n" % mode)

    def requests(self):
        """Complete requests, in arrival order: (meta lines, body bytes)."""
        found = []
        for name in sorted(os.listdir(self.records)):
            if name.endswith(".meta"):
                base = os.path.join(self.records, name[:-5])
                with open(base + ".meta") as meta, open(base + ".body", "rb") as body:
                    found.append((meta.read().splitlines(), body.read()))
        return found

    def stop(self):
        self.process.terminate()
        self.process.wait(10)


class EndToEnd(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        shutil.rmtree(WORK, ignore_errors=True)
        os.makedirs(WORK)
        subprocess.run(["bash", os.path.join(HERE, "make_certs.sh"), os.path.join(WORK, "certs")],
                       check=True, stdout=subprocess.DEVNULL)

    def setUp(self):
        shutil.rmtree(FEEDBACK, ignore_errors=True)
        self.work = os.path.join(WORK, self.id().split(".")[-1])
        shutil.rmtree(self.work, ignore_errors=True)
        os.makedirs(os.path.join(self.work, "modules"))
        os.makedirs(FEEDBACK)
        self.server = None
        self.host = None

    def tearDown(self):
        if self.host is not None and self.host.poll() is None:
            self.host.kill()
            self.host.wait()
        if self.server is not None:
            self.server.stop()

    def write_profile(self, inner):
        with open(os.path.join(FEEDBACK, "CustomerExperience_Feedback.xml"), "w") as profile:
            profile.write('<?xml version="1.0"?>\n<Feedback>%s</Feedback>\n' % inner)

    def start_host(self, modules):
        conf = os.path.join(self.work, "host.conf")
        with open(conf, "w") as out:
            out.write("log=file\nlog_file=%s\n" % os.path.join(self.work, "host.log"))
            out.write("ca_file=%s\n" % os.path.join(WORK, "certs", "ca.pem"))
            if self.server is not None:
                out.write("connect_to=feedback.pathweave.example:443:127.0.0.1:%d\n"
                          % self.server.port)
            out.write("time_scale=1000\n")
        module_conf = os.path.join(self.work, "modules.conf")
        with open(module_conf, "w") as out:
            for key, value in modules.items():
                out.write("%s=%s\n" % (key, value))
        self.host = subprocess.Popen(EMULATOR + [HOST, "--plugin", PLUGIN, "--settings", conf,
                                                 "--modules", module_conf, "run"])

    def stop_host(self):
        self.host.send_signal(signal.SIGTERM)
        self.assertEqual(0, self.host.wait(60))

    def log(self):
        path = os.path.join(self.work, "host.log")
        if not os.path.exists(path):
            return ""
        with open(path, errors="replace") as log:
            return log.read()

    def module_file(self, name, entries):
        path = os.path.join(self.work, "modules", name)
        with open(path, "wb") as out:
            out.write(bencode_dict(entries))
        return path

    def test_module_data_is_collected_posted_and_deleted(self):
        self.server = FeedbackServer(self.work)
        vpn = self.module_file("vpn.dat", {b"connects": 42, b"protocol": b"ikev2"})
        websec = self.module_file("websec.dat", {b"blocked": 7})
        self.write_profile("<CustomerID>e2e</CustomerID><IncludeCrashReport>false"
                           "</IncludeCrashReport>")
        self.start_host({"VpnPhoneHomeFile": vpn, "WebSecurityPhoneHomeFile": websec})
        self.assertTrue(wait_for(lambda: len(self.server.requests()) >= 1), self.log())
        self.assertTrue(wait_for(lambda: os.listdir(OUTBOUND) == []), self.log())
        self.stop_host()

        meta, body = self.server.requests()[0]
        self.assertIn("method POST", meta)
        self.assertTrue(body.startswith(b"data="), body[:20])
        payload, end = bdecode(body, 5)
        self.assertEqual(len(body), end, "the body is exactly data= and one bencode list")
        self.assertEqual(7, payload[0])
        self.assertEqual(3, payload[2])
        self.assertRegex(payload[1].decode(), "^[0-9a-f]{40}$")
        start, stop, level3 = payload[3]
        self.assertLessEqual(start, stop)
        self.assertEqual(payload[1], level3[b"MachineId"])
        self.assertEqual(b"e2e", level3[b"CustomerId"])
        modules = level3[b"QualityImprovementData"][b"ModuleData"]
        self.assertEqual({b"connects": 42, b"protocol": b"ikev2"}, modules[b"VpnModule"])
        self.assertEqual({b"blocked": 7}, modules[b"WebSecurityModule"])
        self.assertFalse(os.path.exists(vpn))
        self.assertFalse(os.path.exists(websec))

        with open(os.path.join(FEEDBACK, "history")) as history_file:
            history = dict(line.split(":", 1) for line in history_file.read().splitlines())
        self.assertEqual("2", history["last_sequence_number"])
        self.assertNotEqual("", history["last_post"])
        self.assertNotEqual("", history["last_feedback"])

    def start_with_one_module(self, **server):
        """Starts a server with `server` options and the host with one module's file;
        returns the path of the first report."""
        self.server = FeedbackServer(self.work, **server)
        vpn = self.module_file("vpn.dat", {b"k": 1})
        self.write_profile("<IncludeCrashReport>false</IncludeCrashReport>")
        self.start_host({"VpnPhoneHomeFile": vpn})
        return os.path.join(OUTBOUND, "feedback_data1.cef")

    def test_server_error_keeps_the_report_until_a_retry_succeeds(self):
        report = self.start_with_one_module(mode="error")
        self.assertTrue(wait_for(lambda: len(self.server.requests()) >= 1), self.log())
        self.assertTrue(os.path.exists(report))
        with open(report, "rb") as kept_file:
            kept = kept_file.read()
        self.server.set_mode("ok")
        self.assertTrue(wait_for(lambda: not os.path.exists(report)), self.log())
        self.stop_host()
        requests = self.server.requests()
        self.assertGreaterEqual(len(requests), 2)
        self.assertEqual(b"data=" + kept, requests[-1][1])

    def test_untrusted_server_receives_nothing(self):
        report = self.start_with_one_module(cert="wrongname")
        self.assertTrue(wait_for(lambda: os.path.exists(report)), self.log())
        time.sleep(1.0)
        self.stop_host()
        self.assertEqual([], self.server.requests())
        self.assertTrue(os.path.exists(report))

    def test_disabled_service_leaves_its_marker_and_sends_nothing(self):
        self.server = FeedbackServer(self.work)
        self.write_profile("<ServiceDisable>true</ServiceDisable>")
        self.start_host({})
        self.assertEqual(0, self.host.wait(60))
        self.assertTrue(os.path.exists(os.path.join(FEEDBACK, "moduledata", "cefdisable")))
        self.assertEqual([], self.server.requests())


if __name__ == "__main__":
    unittest.main(verbosity=2)
