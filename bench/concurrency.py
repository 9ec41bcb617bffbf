#!/usr/bin/env python3
"""Certificate fetches, serially and as ombrix tasks, against local servers.

Starts N TLS servers on 127.0.0.1 (tls_servers.py) that answer each handshake
after DELAY, then times `ombrix fetch_certs.lua serial|tasks PORT...` for each
N; then N silent servers (they accept and never answer) against one. Prints a
Markdown table with wall times and ratios.

    bench/concurrency.py [--ombrix build/ombrix] [--counts 1 50 200] [--delay 0.2]
"""
import argparse
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
CERT = os.path.join(ROOT, "tests", "data", "tls", "server.pem")
KEY = os.path.join(ROOT, "tests", "data", "tls", "server.key")


class Servers:
    def __init__(self, count: int, delay: float, silent: bool = False):
        command = [sys.executable, os.path.join(HERE, "tls_servers.py"), "--count", str(count),
                   "--delay", str(delay), "--cert", CERT, "--key", KEY]
        if silent:
            command.append("--silent")
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        if not line.startswith("PORTS "):
            raise RuntimeError("the servers did not start")
        self.ports = line.split()[1:]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()  # the servers stop when their input ends
        self.process.wait(timeout=30)


def timed(ombrix: str, mode: str, ports) -> tuple[float, str]:
    start = time.monotonic()
    done = subprocess.run([ombrix, os.path.join(HERE, "fetch_certs.lua"), mode, *ports],
                          capture_output=True, text=True, check=True)
    return time.monotonic() - start, done.stdout.strip()


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--ombrix", default=os.path.join(ROOT, "build", "ombrix"))
    parser.add_argument("--counts", type=int, nargs="+", default=[1, 50, 200])
    parser.add_argument("--delay", type=float, default=0.2)
    parser.add_argument("--silent", type=int, default=200, help="silent servers (0: skip)")
    options = parser.parse_args()

    print(f"Handshakes answered after {options.delay * 1000:.0f} ms; wall time of the whole ombrix run.\n")
    print("| servers | serial | tasks | serial / tasks | tasks / tasks at N=1 |")
    print("|---:|---:|---:|---:|---:|")
    base = None
    for count in options.counts:
        with Servers(count, options.delay) as servers:
            serial, serial_out = timed(options.ombrix, "serial", servers.ports)
            tasks, tasks_out = timed(options.ombrix, "tasks", servers.ports)
        base = base or tasks
        print(f"| {count} | {serial:.2f} s | {tasks:.2f} s | {serial / tasks:.1f} | {tasks / base:.2f} |"
              f"  <!-- {serial_out}; {tasks_out} -->")
    if options.silent:
        with Servers(1, 0, silent=True) as one:
            single, _ = timed(options.ombrix, "serial", one.ports)
        with Servers(options.silent, 0, silent=True) as many:
            tasks, out = timed(options.ombrix, "tasks", many.ports)
        print(f"\nSilent servers: one fetch gives up after {single:.2f} s; {options.silent} as tasks end after "
              f"{tasks:.2f} s ({tasks / single:.2f} x the single fetch; {out}).")


if __name__ == "__main__":
    main()
