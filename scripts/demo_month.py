#!/usr/bin/env python3
"""Plays five weeks of the feedback service's schedule in about a minute.

The real host program runs the real plug-in on a host clock that starts on 1 January 2027
and runs SCALE times faster than real time, against pathweave-collector, the feedback
server, on the same simulated clock (real certificates, checked under the production host
name). Along the way: the first report 600 s after start, daily crash checks with one
crash dump appearing, a threat report dropped into the watched directory, a collector
outage during which a report waits in the outbound directory, a restart in the middle
after which the schedule continues from the history (and posts what waited), and the
second monthly report. It ends with the collector's own summary, then leaves the
dashboard running over what was received until Enter is pressed (--no-wait: at once).

  demo_month.py --build BUILD --work WORK [--scale 50000] [--days 35] [--no-wait]
"""
import argparse
import calendar
import json
import os
import secrets
import shutil
import signal
import socket
import subprocess
import sys
import time
import urllib.request

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tools", "feedback-server"))
from localserver import bencode_dict, make_certs  # noqa: E402

START = calendar.timegm((2027, 1, 1, 0, 0, 0))
DAY = 86400


def date(seconds):
    return time.strftime("%Y-%m-%d %H:%M", time.gmtime(seconds))


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Collector:
    """pathweave-collector on loopback: the receiving listener under the production host
    name's certificate, the dashboard on a port of its own, a SQLite store in WORK."""

    def __init__(self, build, work, certs):
        self.program = os.path.join(build, "collector", "pathweave-collector")
        self.directory = os.path.join(work, "collector")
        os.makedirs(self.directory)
        self.port = free_port()
        self.dashboard_port = free_port()
        self.token = secrets.token_hex(16)
        self.log = os.path.join(work, "collector.log")
        self.certs = certs
        self.process = None

    def settings(self, clock_start, scale):
        path = os.path.join(self.directory, "collector.conf")
        with open(path, "w") as out:
            out.write("listen=127.0.0.1:%d\n" % self.port)
            out.write("cert_file=%s\nkey_file=%s\n" % (os.path.join(self.certs, "server.pem"),
                                                       os.path.join(self.certs, "server.key")))
            out.write("database=%s\n" % os.path.join(self.directory, "collector.db"))
            out.write("state_directory=%s\n" % self.directory)
            out.write("dashboard_listen=127.0.0.1:%d\ndashboard_token=%s\n" %
                      (self.dashboard_port, self.token))
            out.write("log=file\nlog_file=%s\n" % self.log)
            out.write("time_scale=%d\nclock_start=%d\n" % (scale, clock_start))
        return path

    def start(self, clock_start, scale):
        self.config = self.settings(clock_start, scale)
        self.clock_start, self.scale = clock_start, scale
        self.started = time.monotonic()
        self.process = subprocess.Popen([self.program, "--config", self.config, "serve"])
        deadline = time.monotonic() + 30
        while True:
            try:
                self.api("/api/stats/daily?days=1")
                return
            except OSError:
                if time.monotonic() > deadline or self.process.poll() is not None:
                    raise SystemExit("the collector did not start; see " + self.log)
                time.sleep(0.02)

    def now(self):
        """The collector's clock, as the demo follows it."""
        return self.clock_start + (time.monotonic() - self.started) * self.scale

    def stop(self):
        if self.process is not None and self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(30)
        self.process = None

    def fetch(self, path):
        request = urllib.request.Request("http://127.0.0.1:%d%s" % (self.dashboard_port, path))
        request.add_header("Authorization", "Bearer " + self.token)
        with urllib.request.urlopen(request, timeout=10) as answer:
            return answer.read()

    def api(self, path):
        return json.loads(self.fetch(path))

    def stored(self):
        return len(self.api("/api/reports?limit=1000")["reports"])

    def command(self, *args):
        return subprocess.run([self.program, "--config", self.config] + list(args), check=True,
                              capture_output=True, text=True).stdout


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
        self.collector = None
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
        self.collector = Collector(self.build, self.work,
                                   make_certs(os.path.join(self.work, "certs")))
        self.port = self.collector.port
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

    def wait_for_reports(self, count, seconds=20.0):
        deadline = time.monotonic() + seconds
        while self.collector.stored() < count and time.monotonic() < deadline:
            time.sleep(0.01)
        return self.collector.stored() >= count

    def play(self):
        days = self.args.days
        print("== five weeks of schedule at %dx (1 day = %.1f s)" %
              (self.args.scale, DAY / self.args.scale))
        # The host's clock starts where the collector's has come to, so that both agree.
        self.collector.start(START, self.args.scale)
        self.start_host(int(self.collector.now()))
        self.say("collector and host started on the same clock; the history is empty, so "
                 "the first report is due in 600 s")
        self.wait_for_reports(1)
        self.say("first report delivered and stored")

        self.wait_until(START + 3 * DAY + 6 * 3600)
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

        self.wait_until(START + 9 * DAY + 12 * 3600)
        self.collector.stop()
        dump2 = os.path.join(self.crash, "vpnagent.2.core")
        with open(dump2, "wb") as out:
            out.write(b"second core\0" * 32)
        os.utime(dump2, (self.now(), self.now()))
        self.say("the collector is stopped for maintenance; a second crash dump appears")

        self.wait_until(START + 12 * DAY + 12 * 3600)
        waiting = sorted(os.listdir(os.path.join(self.feedback, "outbound")))
        self.collector.start(int(self.now()), self.args.scale)
        self.say("the collector is back; waiting on the client: %s (its post and four retries "
                 "failed; the next trigger sends it)" % (", ".join(waiting) or "none"))

        self.wait_until(START + 15 * DAY)
        stopped = self.stop_host()
        self.say_at(stopped, "host stopped (SIGTERM); the history is saved")
        self.deposit_module_data(2)
        self.start_host(int(self.collector.now()))
        self.say("host restarted, its clock going on with the collector's; what waited is "
                 "posted 5 minutes after the start")

        self.wait_until(START + days * DAY)
        self.say("%d days played; stopping" % days)
        self.end = self.stop_host()
        self.collector.stop()

    def say_at(self, when, text):
        print("  %s  %s" % (date(when), text), flush=True)

    def summary(self):
        # From here on the collector runs in real time from the demo's last moment, so that
        # the dashboard's "last N days" are the demo's days.
        self.collector.start(int(self.end), 1)
        print("== what the collector stored (pathweave-collector export)")
        print("  %-3s %-16s %-9s %-33s %7s  %s" %
              ("id", "received", "kind", "collection period", "bytes", "content"))
        reports = [json.loads(line) for line in self.collector.command("export").splitlines()]
        for report in reports:
            if report["crash_dumps"]:
                content = "crash dumps of " + ", ".join(
                    "%s (%s)" % (d["module"], "repeat" if d["repeat"] else "new")
                    for d in report["crash_dumps"])
            elif report["threat_incident"] is not None:
                content = "incident: " + report["threat_incident"]
            else:
                content = "modules: " + ", ".join(sorted(report["module_data"] or {}))
            period = "%s .. %s" % (report["period_start"][:16].replace("T", " "),
                                   report["period_end"][:16].replace("T", " "))
            print("  %-3s %-16s %-9s %s %7d  %s" % (
                report["id"], report["received"][:16].replace("T", " "), report["kind"], period,
                report["size"], content))
        print("== pathweave-collector stats")
        for line in self.collector.command("stats").splitlines():
            print("  " + line)
        last = os.path.join(self.work, "last-report.cef")
        with open(last, "wb") as out:
            out.write(self.collector.fetch("/api/reports/%d/raw" % reports[-1]["id"]))
        left = sorted(os.listdir(os.path.join(self.feedback, "outbound")))
        print("== outbound directory: %s" % (", ".join(left) if left else "empty (all delivered)"))
        print("== history (%s)" % os.path.join(self.feedback, "history"))
        with open(os.path.join(self.feedback, "history")) as history:
            for line in history.read().splitlines():
                key, _, value = line.partition(":")
                shown = date(int(value)) if key.startswith("last_") and key != \
                    "last_sequence_number" and value.isdigit() else value
                print("  %-22s %s" % (key, shown))
        print("== logs: %s (host), %s (collector)" %
              (os.path.join(self.work, "host.log"), self.collector.log))
        print("== pathweave-host status")
        sys.stdout.flush()
        subprocess.run([os.path.join(self.build, "host", "app", "pathweave-host"), "--plugin",
                        os.path.join(self.build, "vpn", "PhoneHome", "libPhoneHome.so"), "status"],
                       check=True)
        print("== the last report the collector stored, as cefdump shows it (%s)" % last)
        dump = subprocess.run([os.path.join(self.build, "tools", "cefdump", "cefdump"), last],
                              check=True, capture_output=True, text=True).stdout
        print(dump[:1500])

    def dashboard(self):
        # The 90-day range holds the whole demo.
        address = "http://127.0.0.1:%d/?days=90" % self.collector.dashboard_port
        shot = os.path.join(self.work, "dashboard-overview.png")
        screenshot(address, self.collector.token, shot)
        print("== the dashboard: %s (sign in with the token %s)" % (address, self.collector.token))
        print("   a screenshot of its overview: %s" % shot)
        if not self.args.no_wait:
            try:
                input("   press Enter to stop the collector and end the demo ")
            except EOFError:
                pass

    def close(self):
        if self.host is not None and self.host.poll() is None:
            self.host.kill()
        if self.collector is not None:
            self.collector.stop()


def screenshot(address, token, path):
    """The dashboard's overview in headless Chromium, once the page says it is complete."""
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.support.ui import WebDriverWait
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    profile = os.path.join(os.path.dirname(path), "chromium")
    for argument in ("--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
                     "--disable-background-networking", "--disable-component-update",
                     "--disable-sync", "--window-size=1280,1000", "--user-data-dir=" + profile):
        options.add_argument(argument)
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    try:
        driver.execute_cdp_cmd("Network.enable", {})
        driver.execute_cdp_cmd("Network.setExtraHTTPHeaders",
                               {"headers": {"Authorization": "Bearer " + token}})
        driver.get(address)
        WebDriverWait(driver, 30).until(lambda d: d.execute_script(
            "return document.documentElement.dataset.complete"))
        driver.save_screenshot(path)
    finally:
        driver.quit()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True)
    parser.add_argument("--install", required=True, help="the build's PW_INSTALL_DIR")
    parser.add_argument("--work", required=True)
    parser.add_argument("--scale", type=int, default=50000)
    parser.add_argument("--days", type=int, default=35)
    parser.add_argument("--no-wait", action="store_true",
                        help="end once the dashboard's screenshot is saved")
    demo = Demo(parser.parse_args())
    try:
        demo.prepare()
        demo.play()
        demo.summary()
        demo.dashboard()
    finally:
        demo.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
