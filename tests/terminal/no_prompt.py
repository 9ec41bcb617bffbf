#!/usr/bin/env python3
"""Runs no_prompt.lua with ombrix on a pseudo-terminal that is its controlling
terminal, so an OpenSSL pass-phrase prompt would open it and wait. Fails when
a prompt appears, when the script does not finish in time, or when it does not
report success.

    no_prompt.py OMBRIX DATA_DIR
"""
import os
import pty
import select
import signal
import sys
import time

TIMEOUT = 60


def main():
    ombrix, data = sys.argv[1], sys.argv[2]
    script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "no_prompt.lua")
    pid, fd = pty.fork()  # the child gets a new session with the pty as its terminal
    if pid == 0:
        os.execv(ombrix, [ombrix, script, data])
    output = b""
    deadline = time.monotonic() + TIMEOUT
    while time.monotonic() < deadline:
        ready, _, _ = select.select([fd], [], [], 0.5)
        if not ready:
            if b"pass phrase" in output.lower():
                break  # waiting on the terminal
            continue
        try:
            chunk = os.read(fd, 4096)
        except OSError:  # EIO: the child closed the terminal
            chunk = b""
        if not chunk:
            break
        output += chunk
    finished, status = 0, 0
    while not finished and time.monotonic() < deadline and b"pass phrase" not in output.lower():
        finished, status = os.waitpid(pid, os.WNOHANG)
        time.sleep(0.05)
    if not finished:
        os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)
    text = output.decode(errors="replace")
    sys.stdout.write(text)
    if b"pass phrase" in output.lower():
        sys.exit("FAILED: a routine asked for a pass phrase on the terminal")
    if not finished:
        sys.exit("FAILED: the script did not finish on the terminal")
    if os.waitstatus_to_exitcode(status) != 0 or "no-prompt: ok" not in text:
        sys.exit("FAILED: exit status %d" % os.waitstatus_to_exitcode(status))


if __name__ == "__main__":
    main()
