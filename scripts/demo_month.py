#!/usr/bin/env python3
"""Plays five weeks of the feedback service's schedule in about a minute.

The real host program runs the real plug-in on a host clock that starts on 1 January 2027
and runs SCALE times faster than real time, against the local HTTPS feedback server (real
certificates, checked under the production host name). Along the way: the first report
600 s after start, daily crash checks with one crash dump appearing, a threat report
dropped into the watched directory, a server outage that the post retry timer rides out,
a restart in the middle after which the schedule continues from the history, and the
second monthly report. It ends with a summary of what the server received.

  demo_month.py --build BUILD --work WORK [--scale 50000] [--days 35]
"""
import argparse
import calendar
import os
import shutil
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tools", "feedback-server"))
from localserver import LocalServer, bdecode, bencode_dict, make_certs  # noqa: E402

START = calendar.timegm((2027, 1, 1, 0, 0, 0))
DAY = 86400


def date(seconds):
    return time.strftime("%Y-%m-%d %H:%M", time.gmtime(seconds))


class Demo:
    def __init__(self, args):
        self.args = args
        self.build = args.build
        self.work = args.work
        self.feedback = os.path.join(args.install, "CustomerExperienceFeedback")
        self.modules = os.path.join(self.work, "modules")
        self.crash = os.path.join(self.work, "crash", "vpn") + "/"
        self.threats = os.path.join(self.work, "threats") + "/"
        self.host = None
        self.server = None
        self.host_started = 0.0  # real time at the host's start
        self.clock_at_start = START  # host time at the host's start

    def now(self):
        """The host clock's current time, as the demo follows it."""
        return self.clock_at_start + (time.monotonic() - self.host_started) * self.args.scale

    def wait_until(self, when):
        delay = (when - self.now()) / self.args.scale
        if delay > 0:
            time.sleep(delay)

    def say(self, text):
        print("  %s  %s" % (date(self.now()) if self.host else " " * 16, text), flush=True)

    def prepare(self):
        shutil.rmtree(self.work, ignore_errors=True)
        shutil.rmtree(self.feedback, ignore_errors=True)
        for directory in (self.modules, self.crash, self.feedback,
                          os.path.join(self.threats, "\\*")):
            os.makedirs(directory)
        self.server = LocalServer(self.work, make_certs(os.path.join(self.work, "certs")))
        self.port = self.server.port
        with open(os.path.join(self.feedback, "CustomerExperience_Feedback.xml"), "w") as xml:
            xml.write('<?xml version="1.0"?>\n<Feedback>\n  <ServiceDisable>false</ServiceDisable>\n'
                      '  <IncludeCrashReport>true</IncludeCrashReport>\n'
                      '  <CustomerID>demo-customer</CustomerID>\n</Feedback>\n')
        self.deposit_module_data(1)
        with open(os.path.join(self.work, "modules.conf"), "w") as conf:
            for key, name in (("VpnPhoneHomeFile", "vpn.dat"),
                              ("WebSecurityPhoneHomeFile", "websec.dat"),
                              ("TelemetryPhoneHomeFile", "telemetry.dat")):
                conf.write("%s=%s\n" % (key, os.path.join(self.modules, name)))
            conf.write("VpnModule=%s\nTelemetryModule=%s\n" % (self.crash, self.threats))

    def deposit_module_data(self, month):
        """What the client's modules have gathered: one bencode file per module."""
        data = {"vpn.dat": {b"connects": 40 + month, b"tunnel_failures": month,
                            b"protocol": b"ikev2"},
                "websec.dat": {b"blocked_pages": 7 * month, b"engine_version": b"3.2.1"},
                "telemetry.dat": {b"samples": 1200 * month}}
        for name, entries in data.items():
            with open(os.path.join(self.modules, name), "wb") as out:
                out.write(bencode_dict(entries))

    def start_host(self, clock_start):
        conf = os.path.join(self.work, "host.conf")
        with open(conf, "w") as out:
            out.write("log=file\nlog_file=%s\n" % os.path.join(self.work, "host.log"))
            out.write("ca_file=%s\n" % os.path.join(self.work, "certs", "ca.pem"))
            out.write("connect_to=feedback.pathweave.example:443:127.0.0.1:%d\n" % self.port)
            out.write("time_scale=%d\nclock_start=%d\n" % (self.args.scale, clock_start))
        self.clock_at_start = clock_start
        self.host_started = time.monotonic()
        self.host = subprocess.Popen(
            [os.path.join(self.build, "host", "app", "pathweave-host"),
             "--plugin", os.path.join(self.build, "vpn", "PhoneHome", "libPhoneHome.so"),
             "--settings", conf, "--modules", os.path.join(self.work, "modules.conf"), "run"])

    def stop_host(self):
        stopped_at = self.now()
        self.host.send_signal(signal.SIGTERM)
        if self.host.wait(30) != 0:
            raise SystemExit("the host did not stop cleanly")
        self.host = None
        return stopped_at

    def wait_for_requests(self, count, seconds=20.0):
        deadline = time.monotonic() + seconds
        while len(self.server.bodies()) < count and time.monotonic() < deadline:
            time.sleep(0.005)
        return len(self.server.bodies()) >= count

    def play(self):
        days = self.args.days
        print("== five weeks of schedule at %dx (1 day = %.1f s)" %
              (self.args.scale, DAY / self.args.scale))
        self.start_host(START)
        self.say("host started; history is empty, so the first report is due in 600 s")
        self.wait_for_requests(1)
        self.say("first report delivered")

        self.wait_until(START + 3 * DAY + 3600)
        dump = os.path.join(self.crash, "vpnagent.core")
        with open(dump, "wb") as out:
            out.write(b"ELF core of the vpn agent\0\1\2\3" * 64)
        os.utime(dump, (self.now(), self.now()))
        self.say("a crash dump appears in the vpn module's crash directory")

        self.wait_until(START + 5 * DAY + 7200)
        incident = os.path.join(self.work, "incident.txt")
        with open(incident, "w") as out:
            out.write("blocked connection to a known phishing host")
        open(os.path.join(self.threats, "\\*", "incident"), "w").close()
        os.rename(incident, self.threats + "\\*incident")
        self.say("the telemetry module drops a threat report into the watched directory")

        self.wait_until(START + 8 * DAY)
        self.server.set_mode("ok", fail_next=2)
        dump2 = os.path.join(self.crash, "vpnagent.2.core")
        with open(dump2, "wb") as out:
            out.write(b"second core\0" * 32)
        os.utime(dump2, (self.now(), self.now()))
        self.say("the feedback server goes down (it will answer 500 twice); a second crash "
                 "dump appears")

        self.wait_until(START + 15 * DAY)
        stopped = self.stop_host()
        self.say_at(stopped, "host stopped (SIGTERM); the history is saved")
        self.deposit_module_data(2)
        self.start_host(int(stopped))
        self.say("host restarted with its clock going on from %s" % date(stopped))

        self.wait_until(START + days * DAY)
        self.say("%d days played; stopping" % days)
        self.stop_host()

    def say_at(self, when, text):
        print("  %s  %s" % (date(when), text), flush=True)

    def summary(self):
        print("== what the feedback server received")
        print("  %-3s %-6s %-9s %-33s %7s  %s" %
              ("seq", "answer", "kind", "collection period", "bytes", "content"))
        bodies = self.server.bodies()
        number = 0
        for index, body in enumerate(bodies):
            # A report the server refused comes again: only its last arrival was accepted.
            # Reports are numbered as written and, here, delivered in that order.
            status = "500" if body in bodies[index + 1:] else "200"
            payload, _ = bdecode(body[len(b"data="):])
            start, end, level3 = payload[3]
            quality = level3.get(b"QualityImprovementData", {})
            if b"CrashReports" in quality:
                kind = "crash"
                content = "crash dumps of " + ", ".join(
                    m.decode() for m in sorted(quality[b"CrashReports"]))
            elif b"ThreatReports" in quality:
                kind = "threat"
                content = "incident: " + quality[b"ThreatReports"][b"ThreatIncident"].decode()
            else:
                kind = "feedback"
                content = "modules: " + ", ".join(
                    m.decode() for m in sorted(quality.get(b"ModuleData", {})))
            number += status == "200"
            print("  %-3s %-6s %-9s %s .. %s %7d  %s" %
                  (number if status == "200" else "", status, kind, date(start), date(end), len(body), content))
        left = sorted(os.listdir(os.path.join(self.feedback, "outbound")))
        print("== outbound directory: %s" % (", ".join(left) if left else "empty (all delivered)"))
        print("== history (%s)" % os.path.join(self.feedback, "history"))
        with open(os.path.join(self.feedback, "history")) as history:
            for line in history.read().splitlines():
                key, _, value = line.partition(":")
                shown = date(int(value)) if key.startswith("last_") and key != \
                    "last_sequence_number" and value.isdigit() else value
                print("  %-22s %s" % (key, shown))
        print("== logs: %s (host), %s (server's records)" %
              (os.path.join(self.work, "host.log"), self.server.records))

    def close(self):
        if self.host is not None and self.host.poll() is None:
            self.host.kill()
        if self.server is not None:
            self.server.stop()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True)
    parser.add_argument("--install", required=True, help="the build's PW_INSTALL_DIR")
    parser.add_argument("--work", required=True)
    parser.add_argument("--scale", type=int, default=50000)
    parser.add_argument("--days", type=int, default=35)
    demo = Demo(parser.parse_args())
    try:
        demo.prepare()
        demo.play()
        demo.summary()
    finally:
        demo.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
