"""Runs pathweave-collector for the scripted tests: certificates, a settings file, free
loopback ports, the program itself, TLS posts and reports, and what the store kept.

Environment (set by CTest): PW_COLLECTOR (the program), PW_COLLECTOR_WORK (a scratch
directory).
"""
import json
import os
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import time
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tools", "feedback-server"))
from localserver import make_certs  # noqa: E402
from collector_pytools import bencode  # noqa: E402,F401 (the tests take it from here)

PROGRAM = os.environ.get("PW_COLLECTOR", "pathweave-collector")
WORK = os.environ.get("PW_COLLECTOR_WORK", "/tmp/pw-collector-tests")
SERVER_NAME = "feedback.pathweave.example"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def certificates():
    directory = os.path.join(WORK, "certs")
    if not os.path.exists(os.path.join(directory, "server.pem")):
        make_certs(directory)
    return directory


def wait_for(condition, seconds=20.0):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if condition():
            return True
        time.sleep(0.02)
    return condition()


def report(machine="f7767a46386a76c454df13f192200202c13d6887", period=(1795474062, 1795474662),
           quality=None, **fields):
    """A report as a client writes it; `fields` replace report dictionary entries."""
    details = {b"OSType": b"Linux", b"OSMajorVersion": 6, b"OSMinorVersion": 18,
               b"OSBuildVersion": 44, b"OSVersionDetails": b"6.18.44", b"OSName": b"Linux",
               b"OSLocale": b"C.UTF-8"}
    top = {b"CustomerId": b"test", b"MachineId": machine.encode(), b"OSDetails": details,
           b"PWVersion": b"5.1.00123", b"PhoneHomeFormatVersion": b"1.0",
           b"QualityImprovementData": quality if quality is not None else
           {b"ModuleData": {b"VpnModule": {b"connects": 42}}}}
    for key, value in fields.items():
        (details if key.startswith("OS") else top)[key.encode()] = value
    return bencode([7, machine.encode(), 3, [period[0], period[1], top]])


class Collector:
    """One collector process on its own ports and store."""

    def __init__(self, name, database=None, extra=None):
        self.dir = os.path.join(WORK, name)
        shutil.rmtree(self.dir, ignore_errors=True)
        os.makedirs(self.dir)
        certs = certificates()
        self.port, self.dashboard = free_port(), free_port()
        self.database = database or os.path.join(self.dir, "collector.db")
        self.log_path = os.path.join(self.dir, "collector.log")
        settings = {"listen": "127.0.0.1:%d" % self.port,
                    "cert_file": os.path.join(certs, "server.pem"),
                    "key_file": os.path.join(certs, "server.key"),
                    "database": self.database, "log": "file", "log_file": self.log_path,
                    "dashboard_listen": "127.0.0.1:%d" % self.dashboard,
                    "dashboard_token": "off", "state_directory": self.dir}
        settings.update(extra or {})
        self.conf = os.path.join(self.dir, "collector.conf")
        with open(self.conf, "w") as out:
            out.writelines("%s=%s\n" % item for item in settings.items())
        self.process = None
        self.context = ssl.create_default_context(cafile=os.path.join(certs, "ca.pem"))

    def command(self, *args):
        return [PROGRAM, "--config", self.conf] + list(args)

    def start(self, prefix=()):
        self.process = subprocess.Popen(list(prefix) + self.command("serve"))
        if not wait_for(lambda: self.process.poll() is not None or self.healthy()):
            raise AssertionError("the collector did not come up\n" + self.log())
        if self.process.poll() is not None:
            raise AssertionError("the collector exited with %s\n%s"
                                 % (self.process.returncode, self.log()))
        self.pid = self.process.pid
        if prefix:  # the collector is the prefix's (strace's) child
            with open("/proc/%d/task/%d/children" % (self.pid, self.pid)) as children:
                self.pid = int(children.read().split()[0])
        return self

    def healthy(self):
        try:
            return self.request(b"GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n", timeout=2)[0] == 200
        except OSError:
            return False

    def connections_open(self):
        """Receiving connections the collector holds, from its metrics (the dashboard's
        listener, so that asking adds none)."""
        with urllib.request.urlopen("http://127.0.0.1:%d/metrics" % self.dashboard,
                                    timeout=10) as answer:
            for line in answer.read().decode().splitlines():
                if line.startswith("pathweave_collector_connections_open "):
                    return int(float(line.split()[1]))
        return -1

    def stop(self):
        """SIGTERM: drains and exits; the exit status."""
        if self.process.poll() is None:
            os.kill(self.pid, signal.SIGTERM)
        return self.process.wait(30)

    def log(self):
        with open(self.log_path, errors="replace") as log:
            return log.read()

    def connect(self, timeout=10, port=None):
        """A TLS connection to the receiving listener, or to `port`."""
        raw = socket.create_connection(("127.0.0.1", port or self.port), timeout=timeout)
        return self.context.wrap_socket(raw, server_hostname=SERVER_NAME)

    def request(self, data, timeout=10, port=None):
        """Sends `data` on a new connection; the first answer (status, headers, body), or
        status 0 when the connection ends without one."""
        with self.connect(timeout, port) as tls:
            tls.sendall(data)
            return (read_answers(tls, 1) or [(0, {}, b"")])[0]

    def post(self, body, headers=b""):
        """POSTs `body` (bytes after the request line's headers) on a new connection."""
        return self.request(upload(body, headers))

    def exported(self):
        """Every stored report as `export` prints it."""
        out = subprocess.run(self.command("export"), check=True, capture_output=True,
                             timeout=120).stdout
        return [json.loads(line) for line in out.splitlines() if line.strip()]

    def stored(self):
        """SHA-256 of every stored report."""
        return [line["sha256"] for line in self.exported()]


def upload(body, headers=b"", length=None):
    """A POST /cef/upload request carrying `body`."""
    length = len(body) if length is None else length
    return (b"POST /cef/upload HTTP/1.1\r\nHost: %s\r\nUser-Agent: Pathweave\r\n"
            b"Content-Type: application/x-www-form-urlencoded\r\nContent-Length: %d\r\n%s\r\n"
            % (SERVER_NAME.encode(), length, headers)) + body


def read_answers(tls, count, bodiless=()):
    """Reads `count` answers; fewer when the server closes first. The answers numbered in
    `bodiless` (those to HEAD requests) have a Content-Length but no body."""
    data, answers = b"", []
    while len(answers) < count:
        end = data.find(b"\r\n\r\n")
        if end >= 0:
            head = data[:end].decode("latin-1").split("\r\n")
            headers = {k.lower(): v.strip() for k, v in (h.split(":", 1) for h in head[1:])}
            size = 0 if len(answers) in bodiless else int(headers.get("content-length", "0"))
            if len(data) >= end + 4 + size:
                answers.append((int(head[0].split()[1]), headers, data[end + 4:end + 4 + size]))
                data = data[end + 4 + size:]
                continue
        try:
            chunk = tls.recv(65536)
        except (ConnectionError, ssl.SSLError):
            chunk = b""
        if not chunk:
            break
        data += chunk
    return answers
