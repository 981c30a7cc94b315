"""Runs the local feedback server (feedback_server.py) from Python and reads what it
received; the bencode helpers to decode reports and to write module data files.

Used by the demo and by the end-to-end tests:

    certs = make_certs(directory)
    server = LocalServer(work, certs, "server")     # or "untrusted", "expired", ...
    server.set_mode("error")                         # see feedback_server.py's modes
    server.bodies()                                  # bodies the server read whole
"""
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))


def make_certs(directory):
    """The test CA and the server certificates (make_certs.sh) in `directory`."""
    subprocess.run(["bash", os.path.join(HERE, "make_certs.sh"), directory], check=True,
                   stdout=subprocess.DEVNULL)
    return directory


def bdecode(data):
    """Decodes one bencode value, iteratively (reports may nest deeply); returns
    (value, offset after it)."""
    stack, at = [], 0
    while True:
        lead = data[at:at + 1]
        if lead in (b"l", b"d"):
            stack.append(([], lead))
            at += 1
            continue
        if lead == b"e":
            items, kind = stack.pop()
            value = items if kind == b"l" else dict(zip(items[0::2], items[1::2]))
            at += 1
        elif lead == b"i":
            end = data.index(b"e", at)
            value, at = int(data[at + 1:end]), end + 1
        else:
            colon = data.index(b":", at)
            length = int(data[at:colon])
            value, at = data[colon + 1:colon + 1 + length], colon + 1 + length
        if not stack:
            return value, at
        stack[-1][0].append(value)


def bencode_dict(entries):
    """A flat dictionary of byte-string keys and integer or byte-string values."""
    out = b"d"
    for key in sorted(entries):
        value = entries[key]
        out += b"%d:%s" % (len(key), key)
        out += b"i%de" % value if isinstance(value, int) else b"%d:%s" % (len(value), value)
    return out + b"e"


class LocalServer:
    """feedback_server.py on 127.0.0.1 with the certificate `cert` from `certs`."""

    def __init__(self, work, certs, cert="server"):
        self.records = os.path.join(work, "received-" + cert)
        self.control = os.path.join(work, "control-" + cert)
        os.makedirs(self.records, exist_ok=True)
        self.set_mode("ok")
        self.process = subprocess.Popen(
            [sys.executable, os.path.join(HERE, "feedback_server.py"),
             "--cert", os.path.join(certs, cert + ".pem"),
             "--key", os.path.join(certs, cert + ".key"), "--record-dir", self.records,
             "--control", self.control, "--io-timeout", "300"],
            stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        if not line.startswith("PORT "):
            raise RuntimeError("the feedback server did not start: %r" % line)
        self.port = int(line.split()[1])

    def set_mode(self, mode, **options):
        with open(self.control, "w") as control:
            control.write("mode=%s\n" % mode)
            for key, value in options.items():
                control.write("%s=%s\n" % (key, value))

    def forget(self):
        for name in os.listdir(self.records):
            os.remove(os.path.join(self.records, name))

    def requests(self):
        """Recorded requests in arrival order: (meta lines, body bytes)."""
        found = []
        for name in sorted(os.listdir(self.records)):
            if name.endswith(".meta"):
                base = os.path.join(self.records, name[:-5])
                with open(base + ".meta") as meta, open(base + ".body", "rb") as body:
                    found.append((meta.read().splitlines(), body.read()))
        return found

    def bodies(self):
        """Bodies the server read whole, in arrival order."""
        return [body for meta, body in self.requests() if "partial 0" in meta]

    def stop(self):
        self.process.terminate()
        self.process.wait(10)
        self.process.stdout.close()
