#!/usr/bin/env python3
"""A local HTTPS feedback server: the demo, the tests and the benchmarks post to it.

Binds 127.0.0.1 on a free port, prints "PORT <n>" on stdout once it accepts connections,
and records every request in the record directory as NNNNNN.body (the body bytes as
received) and NNNNNN.meta (written last, by rename, so its presence means the record is
complete):

    method POST
    path /cef/upload
    version HTTP/1.1
    partial 0|1             1 when the connection was closed before the body was read
    length N                bytes of body received
    peer ADDRESS:PORT       the client's end of the connection
    header Name: value      one line per header, in order

The answer is chosen per request by the control file (key=value lines, re-read for every
request; command-line values are the defaults):

    mode=ok          200 with the reply body
    mode=error       500 with the reply body
    mode=notfound    404 with the reply body
    mode=reset       read half of the body, then reset the connection (TCP RST)
    mode=tlsstall    accept the connection, then never answer the TLS handshake
    mode=close       read half of the body, then close the connection without an answer
    mode=stall       read the request, then answer nothing until the client goes away
    mode=garbage     bytes that are not HTTP, then close
    mode=http10      an HTTP/1.0 reply without a length, ended by closing
    mode=nobody      200 with Content-Length 0
    mode=hugeheaders 200 with one 200 KiB header line
    mode=drip        a complete 200 reply written one byte per drip_seconds
    fail_next=N      answer the next N requests with 500, whatever the mode (an outage)
    reply=TEXT       reply body (default "OK")
    reply_size=N     reply body of N bytes of a repeating pattern instead
    reply_nul_at=K   put a NUL byte at offset K of the reply body
    drip_seconds=S   delay between two dripped bytes (default 1)
    delay=S          wait S seconds after recording a request before answering it

Only loopback is ever bound. SIGTERM ends the server at once.
"""

import argparse
import http.server
import os
import select
import signal
import socket
import ssl
import struct
import sys
import threading
import time


class Recorder:
    def __init__(self, directory, record_bodies):
        self.directory = directory
        self.record_bodies = record_bodies
        self.lock = threading.Lock()
        self.sequence = 0

    def record(self, handler, body, partial):
        if not self.directory:
            return
        with self.lock:
            self.sequence += 1
            number = self.sequence
        base = os.path.join(self.directory, "%06d" % number)
        with open(base + ".body", "wb") as out:
            if self.record_bodies:
                out.write(body)
        lines = [
            "method " + handler.command,
            "path " + handler.path,
            "version " + handler.request_version,
            "partial " + ("1" if partial else "0"),
            "length %d" % len(body),
            "peer %s:%d" % handler.client_address[:2],
        ]
        for name, value in handler.headers.items():
            lines.append("header %s: %s" % (name, value))
        with open(base + ".meta.tmp", "w", encoding="utf-8") as out:
            out.write("\n".join(lines) + "\n")
        os.rename(base + ".meta.tmp", base + ".meta")


def read_control(path, defaults):
    settings = dict(defaults)
    if path:
        try:
            with open(path, encoding="utf-8") as control:
                for line in control:
                    line = line.strip()
                    if "=" in line:
                        key, value = line.split("=", 1)
                        settings[key.strip()] = value
        except FileNotFoundError:
            pass
    return settings


def reply_body(settings):
    if settings.get("reply_size"):
        size = int(settings["reply_size"])
        pattern = b"0123456789abcdef"
        body = bytearray((pattern * (size // len(pattern) + 1))[:size])
    else:
        body = bytearray(settings.get("reply", "OK").encode("utf-8"))
    if settings.get("reply_nul_at"):
        at = int(settings["reply_nul_at"])
        if at < len(body):
            body[at] = 0
    return bytes(body)


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True
    server_version = "FeedbackTestServer/1"

    def setup(self):
        self.request.settimeout(self.server.io_timeout)
        super().setup()

    def handle(self):
        if read_control(self.server.control, self.server.defaults).get("mode") == "tlsstall":
            # The client's hello is read and dropped from a plain duplicate of the socket.
            with socket.socket(fileno=os.dup(self.request.fileno())) as raw:
                self.stall(raw)
            return
        try:
            self.request.do_handshake()
            super().handle()
        except (ssl.SSLError, ConnectionError, socket.timeout, OSError):
            pass  # a client that rejects our certificate or goes away

    def log_message(self, *args):
        if self.server.verbose:
            super().log_message(*args)

    def do_GET(self):
        self.serve()

    def do_POST(self):
        self.serve()

    def stall(self, raw=None):
        """Answers nothing until the client goes away (at most two minutes)."""
        raw = raw or self.request
        deadline = time.monotonic() + 120
        while time.monotonic() < deadline and not self.server.stopping:
            readable, _, _ = select.select([raw], [], [], 0.05)
            if readable:
                try:
                    if not raw.recv(4096):
                        return  # the client went away
                except (ssl.SSLError, OSError):
                    return

    def send_raw(self, data):
        self.wfile.write(data)
        self.wfile.flush()

    def serve(self):
        settings = read_control(self.server.control, self.server.defaults)
        mode = settings.get("mode", "ok")
        length = int(self.headers.get("Content-Length") or 0)

        if mode in ("close", "reset"):
            body = self.rfile.read(length // 2) if length > 1 else b""
            self.server.recorder.record(self, body, True)
            self.close_connection = True
            if mode == "reset":
                # A zero linger time makes the close send RST instead of FIN.
                self.request.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                        struct.pack("ii", 1, 0))
                self.request.close()
            else:
                self.request.shutdown(socket.SHUT_RDWR)
            return

        body = self.rfile.read(length) if length > 0 else b""
        self.server.recorder.record(self, body, False)
        if self.server.take_failure(settings):
            mode = "error"
        if settings.get("delay"):
            time.sleep(float(settings["delay"]))

        if mode == "stall":
            self.close_connection = True
            self.stall()
            return
        if mode == "garbage":
            self.close_connection = True
            self.send_raw(b"\x00\x01this is not HTTP at all\r\n\r\n\xff\xfe")
            return
        if mode == "http10":
            self.close_connection = True
            self.send_raw(b"HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n" +
                          reply_body(settings))
            return
        if mode == "nobody":
            self.send_raw(b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")
            return
        if mode == "hugeheaders":
            self.send_raw(b"HTTP/1.1 200 OK\r\nX-Huge: " + b"h" * (200 * 1024) +
                          b"\r\nContent-Length: 2\r\n\r\nOK")
            return
        reply = reply_body(settings)
        status = {"error": b"500 Internal Server Error",
                  "notfound": b"404 Not Found"}.get(mode, b"200 OK")
        message = (b"HTTP/1.1 " + status + b"\r\nContent-Type: text/plain\r\n" +
                   b"Content-Length: %d\r\n\r\n" % len(reply) + reply)
        if mode == "drip":
            self.close_connection = True
            delay = float(settings.get("drip_seconds", "1"))
            for i in range(len(message)):
                self.send_raw(message[i:i + 1])
                if self.server.stopping:
                    return
                time.sleep(delay)
            return
        self.send_raw(message)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = False

    def __init__(self, context, **kwargs):
        super().__init__(("127.0.0.1", 0), Handler)
        self.context = context
        self.stopping = False
        self.failure_lock = threading.Lock()
        self.failure_setting = None
        self.failures_left = 0
        for name, value in kwargs.items():
            setattr(self, name, value)

    def take_failure(self, settings):
        """Counts down fail_next: true while the outage lasts."""
        with self.failure_lock:
            if settings.get("fail_next") != self.failure_setting:
                self.failure_setting = settings.get("fail_next")
                self.failures_left = int(self.failure_setting or 0)
            if self.failures_left > 0:
                self.failures_left -= 1
                return True
            return False

    def get_request(self):
        connection, address = self.socket.accept()
        # The handshake runs in the request's thread (setup), never in the accept loop.
        return (self.context.wrap_socket(connection, server_side=True,
                                         do_handshake_on_connect=False), address)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--cert", required=True)
    parser.add_argument("--key", required=True)
    parser.add_argument("--record-dir", default="")
    parser.add_argument("--no-bodies", action="store_true", help="record lengths, not bodies")
    parser.add_argument("--control", default="", help="control file (see above)")
    parser.add_argument("--mode", default="ok")
    parser.add_argument("--io-timeout", type=float, default=60.0)
    parser.add_argument("--verbose", action="store_true")
    args = parser.parse_args()

    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(args.cert, args.key)

    server = Server(context, recorder=Recorder(args.record_dir, not args.no_bodies),
                    control=args.control, defaults={"mode": args.mode},
                    io_timeout=args.io_timeout, verbose=args.verbose)
    signal.signal(signal.SIGTERM, lambda *_: os._exit(0))
    print("PORT %d" % server.server_address[1], flush=True)
    try:
        server.serve_forever(poll_interval=0.05)
    except KeyboardInterrupt:
        pass
    server.stopping = True
    return 0


if __name__ == "__main__":
    sys.exit(main())
