#!/usr/bin/env python3
"""Starts pathweave-host many times and sends SIGTERM after a random 0-30 ms.

Every run must end by itself (a hang is killed after --timeout seconds and counted) and,
when the service had started, leave the history file saved. Prints the hangs and the
distribution of the stop latency (SIGTERM to exit).

  bench/stop_race.py --host BUILD/host/app/pathweave-host \
      --plugin BUILD/vpn/PhoneHome/libPhoneHome.so --install-dir DIR [--runs 2000]

DIR is the plug-in's installation directory (PW_INSTALL_DIR of that build).
"""
import argparse
import os
import random
import signal
import statistics
import subprocess
import sys
import tempfile
import time


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--host", required=True)
    parser.add_argument("--plugin", required=True)
    parser.add_argument("--install-dir", required=True)
    parser.add_argument("--runs", type=int, default=2000)
    parser.add_argument("--max-delay-ms", type=float, default=30.0)
    parser.add_argument("--timeout", type=float, default=10.0)
    args = parser.parse_args()

    history = os.path.join(args.install_dir, "CustomerExperienceFeedback", "history")
    work = tempfile.mkdtemp(prefix="stop-race-")
    settings = os.path.join(work, "host.conf")
    with open(settings, "w") as f:
        f.write("log=file\nlog_file=%s\n" % os.path.join(work, "host.log"))

    hangs, unsaved, latencies, killed = 0, 0, [], 0
    for _ in range(args.runs):
        if os.path.exists(history):
            os.remove(history)
        host = subprocess.Popen([args.host, "--plugin", args.plugin, "--settings", settings, "run"],
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(random.uniform(0, args.max_delay_ms) / 1000.0)
        sent = time.monotonic()
        host.send_signal(signal.SIGTERM)
        try:
            host.wait(timeout=args.timeout)
        except subprocess.TimeoutExpired:
            hangs += 1
            host.kill()
            host.wait()
            continue
        latencies.append((time.monotonic() - sent) * 1000.0)
        if host.returncode == -signal.SIGTERM:
            killed += 1  # before the host took over the signal: nothing had started
            continue
        # A run stopped before the plug-in was loaded has no service and no history.
        if host.returncode == 0 and not os.path.exists(history):
            unsaved += 1

    latencies.sort()
    pick = lambda q: latencies[min(len(latencies) - 1, int(q * len(latencies)))]
    print("runs %d, hangs %d, ended by the signal itself (before start-up) %d, "
          "clean exits without a saved history %d" % (args.runs, hangs, killed, unsaved))
    if latencies:
        print("stop latency ms: median %.1f, p90 %.1f, p99 %.1f, max %.1f, mean %.1f" %
              (pick(0.5), pick(0.9), pick(0.99), latencies[-1], statistics.mean(latencies)))
    return 1 if hangs or unsaved else 0


if __name__ == "__main__":
    sys.exit(main())
