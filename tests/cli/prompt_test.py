#!/usr/bin/env python3
"""The ombrix prompt driven through a pseudo-terminal: values shown as the
stock Lua prompt shows them (tables by their contents), errors reported
without ending the session, multi-line statements, history (in memory and in
$HOME/.ombrix_history), Ctrl-C dropping a line or stopping code, Ctrl-D
ending with status 0, -i after code, and piped input left alone; Ctrl-C in
scripts and at examples/encrypt_file.lua's password prompt.
Usage: prompt_test.py OMBRIX"""
import os
import pty
import select
import signal
import subprocess
import sys
import tempfile
import termios
import time
import unittest

OMBRIX = sys.argv.pop(1) if len(sys.argv) > 1 else "build/ombrix"
EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples")
TIMEOUT = 60  # seconds; the machine may be busy
UP = "\x1b[A"
# How long the terminal stays quiet after a prompt before keys are typed, so
# the line editor has taken the terminal over.
QUIET = 0.2
ABC_SHA256 = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"


class Session:
    """One ombrix process on a pseudo-terminal, its stderr in a file."""

    def __init__(self, home, *args, greeting=True):
        self.stderr_path = os.path.join(home, "stderr.txt")
        open(self.stderr_path, "w").close()
        self.pid, self.fd = pty.fork()
        if self.pid == 0:  # the child: the terminal is its stdin and stdout
            err = os.open(self.stderr_path, os.O_WRONLY | os.O_APPEND)
            os.dup2(err, 2)
            env = dict(os.environ, TERM="xterm", HOME=home)
            env.pop("OMBRIX_MODULE_PATH", None)
            env.pop("OMBRIX_PASSWORD", None)
            signal.signal(signal.SIGINT, signal.SIG_DFL)  # not ignored, whatever started the test
            os.execve(OMBRIX, [OMBRIX, *args], env)
        self.err_seen = 0
        if greeting:
            self.greeting = self._read_until(("\n> ",))

    def _read_until(self, endings):
        """Reads until the output ends with one of endings and then stays
        quiet for QUIET seconds."""
        text = ""
        deadline = time.time() + TIMEOUT
        while True:
            if text.endswith(endings) and not select.select([self.fd], [], [], QUIET)[0]:
                return text.replace("\r\n", "\n")
            left = deadline - time.time()
            if left <= 0:
                raise AssertionError(f"no prompt after {TIMEOUT}s; got {text!r}")
            if select.select([self.fd], [], [], left)[0]:
                try:
                    chunk = os.read(self.fd, 4096)
                except OSError:  # the process ended
                    raise AssertionError(f"ombrix ended; got {text!r}")
                text += chunk.decode("utf-8", "replace")

    def send(self, keys, more=False):
        """Types keys and Enter; returns (what was printed after the echoed
        line, what went to stderr meanwhile, which prompt came back)."""
        os.write(self.fd, (keys + "\r").encode())
        text = self._read_until(("\n> ", "\n>> "))
        prompt = ">> " if text.endswith("\n>> ") else "> "
        text = text[: -len(prompt)]
        printed = text.split("\n", 1)[1] if "\n" in text else ""
        with open(self.stderr_path, encoding="utf-8", errors="replace") as f:
            err = f.read()
        new_err, self.err_seen = err[self.err_seen:], len(err)
        return printed, new_err, prompt

    def interrupt(self, keys, prompt=True):
        """Types keys, then Ctrl-C a moment later; waits for the prompt."""
        os.write(self.fd, keys.encode())
        time.sleep(0.5)
        os.write(self.fd, b"\x03")
        if prompt:
            self._read_until(("^C\r\n> ",))

    def wait(self):
        """The exit status once the process has ended (-N for signal N)."""
        deadline = time.time() + TIMEOUT
        while time.time() < deadline:
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                return os.waitstatus_to_exitcode(status)
            time.sleep(0.1)
        os.kill(self.pid, signal.SIGKILL)
        raise AssertionError(f"ombrix still runs after {TIMEOUT}s")

    def end(self):
        """Ctrl-D; returns the exit status."""
        os.write(self.fd, b"\x04")
        deadline = time.time() + TIMEOUT
        while time.time() < deadline:  # drain until the terminal closes
            ready, _, _ = select.select([self.fd], [], [], 0.2)
            if ready:
                try:
                    if not os.read(self.fd, 4096):
                        break
                except OSError:
                    break
        _, status = os.waitpid(self.pid, 0)
        os.close(self.fd)
        return os.waitstatus_to_exitcode(status)


# (what is typed, what is printed, what stderr starts with); in order, one session.
LINES = [
    ("1 + 1", "2\n", ""),
    ("1, 'two', nil, true", "1\ttwo\tnil\ttrue\n", ""),
    ("x = 41", "", ""),
    ("x + 1", "42\n", ""),
    ("Data('abc')", 'Data.fromhex("616263")\n', ""),
    ("Data('')", 'Data.fromhex("")\n', ""),
    ('Cryptography.Hash("SHA256", "abc")', f'Data.fromhex("{ABC_SHA256}")\n', ""),
    ("Data(string.rep('A', 64))", 'Data.fromhex("' + "41" * 64 + '")\n', ""),
    ("Data(string.rep('A', 65))", "Data(65 bytes: " + "41" * 64 + "...)\n", ""),
    ("JSON.FromString('{\"a\":[1,2]}')", '{"a":[1,2]}\n', ""),
    ('Ombrix.new("Cryptography.Key")', "Cryptography.Key\n", ""),
    ("Cryptography.X509VectorFromPEM('')", "{}\n", ""),
    ("{1, 'a\"b', {Data('x')}, k = true}", '{1, "a\\"b", {Data.fromhex("78")}, k = true}\n', ""),
    ("setmetatable({}, {__tostring = function() error('no text') end})", "", "ombrix: stdin:1: no text"),
    ("'text'", "text\n", ""),
    ("print('hi')", "hi\n", ""),
    ("error('boom')", "", "ombrix: stdin:1: boom\nstack traceback:"),
    ("JSON.FromString('{')", "", "ombrix: Error.Ombrix.InvalidArgument: Invalid JSON text"),
    ("Cryptography.Hash(1)", "", "ombrix: invalid parameter"),
    ("x = = 1", "", "ombrix: stdin:1: unexpected symbol near '='"),
    ("x", "41\n", ""),
]


class PromptTest(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="ombrix-prompt-")

    def tearDown(self):
        subprocess.run(["rm", "-rf", self.home], check=True)

    def test_values_errors_and_end(self):
        session = Session(self.home)
        self.assertRegex(session.greeting, r"^ombrix \d+\.\d+\.\d+ \(Lua 5\.4")
        self.assertIn("Cryptography ", session.greeting)
        for typed, printed, err in LINES:
            with self.subTest(typed=typed):
                out, got_err, prompt = session.send(typed)
                self.assertEqual(out, printed)
                self.assertEqual(prompt, "> ")
                if err:
                    self.assertTrue(got_err.startswith(err), got_err)
                else:
                    self.assertEqual(got_err, "")
        self.assertEqual(session.end(), 0)

    def test_statement_over_several_lines(self):
        session = Session(self.home)
        self.assertEqual(session.send("function twice(a)")[2], ">> ")
        self.assertEqual(session.send("  return a * 2")[2], ">> ")
        self.assertEqual(session.send("end"), ("", "", "> "))
        self.assertEqual(session.send("twice(21)"), ("42\n", "", "> "))
        self.assertEqual(session.end(), 0)

    def test_ctrl_c(self):
        # (typed before Ctrl-C, a trailing \r running it; what stderr then
        # holds; typed next and what it prints): the session and its
        # variables go on.
        cases = [
            ("", "", "x", "41\n"),
            ("x = 1", "", "x", "41\n"),
            ("for i = 1, 2 do\r", "", "x", "41\n"),
            ("while true do end\r", "interrupted!", "x", "41\n"),
            # A routine is not interrupted: the code stops when it returns. It
            # runs for seconds (3 million rounds took under half a second with
            # SHA extensions, and ended before the Ctrl-C).
            ("y = Cryptography.PKCS5PBKDF2HMAC('p', 's', 20000000, 'SHA256', 8)\r", "interrupted!", "y", "nil\n"),
            ("Ombrix.join(Ombrix.spawn(function() while true do end end))\r", "interrupted!", "x", "41\n"),
        ]
        session = Session(self.home)
        session.send("x = 41")
        for typed, err, then, printed in cases:
            with self.subTest(typed=typed):
                session.interrupt(typed)
                out, got_err, prompt = session.send(then)
                self.assertIn(err, got_err)
                self.assertEqual((out, prompt), (printed, "> "))
        self.assertEqual(session.end(), 0)

    def test_second_ctrl_c_during_a_routine_ends_the_process(self):
        session = Session(self.home)
        session.interrupt("Cryptography.PKCS5PBKDF2HMAC('p', 's', 100000000, 'SHA256', 8)\r", prompt=False)
        time.sleep(0.5)  # two signals at once would be one
        os.write(session.fd, b"\x03")
        self.assertEqual(session.wait(), -signal.SIGINT)

    def test_scripts_keep_the_default_sigint(self):
        child = subprocess.Popen([OMBRIX, "-e", "print('running') io.stdout:flush() while true do end"],
                                 stdout=subprocess.PIPE, text=True,
                                 preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
        self.assertEqual(child.stdout.readline(), "running\n")
        child.send_signal(signal.SIGINT)
        self.assertEqual(child.wait(TIMEOUT), -signal.SIGINT)
        child.stdout.close()

    def test_password_prompt_restores_echo_on_ctrl_c(self):
        plain = os.path.join(self.home, "plain.txt")
        with open(plain, "w", encoding="utf-8") as f:
            f.write("secret\n")
        session = Session(self.home, os.path.join(EXAMPLES, "encrypt_file.lua"), plain, greeting=False)
        deadline = time.time() + TIMEOUT
        while termios.tcgetattr(session.fd)[3] & termios.ECHO:  # until it asks
            self.assertLess(time.time(), deadline, "echo never went off")
            time.sleep(0.1)
        time.sleep(QUIET)
        os.write(session.fd, b"\x03")
        self.assertEqual(session.wait(), -signal.SIGINT)
        # The reading shell, interrupted too, may still be running its trap.
        deadline = time.time() + 5
        while not termios.tcgetattr(session.fd)[3] & termios.ECHO:
            self.assertLess(time.time(), deadline, "echo stayed off")
            time.sleep(0.05)

    def test_history_in_memory_and_across_sessions(self):
        session = Session(self.home)
        session.send("n = 1")
        self.assertEqual(session.send("n = n + 1; return n")[0], "2\n")
        self.assertEqual(session.send(UP)[0], "3\n")  # the line again, run again
        self.assertEqual(session.send("'remembered'")[0], "remembered\n")
        self.assertEqual(session.end(), 0)
        with open(os.path.join(self.home, ".ombrix_history"), encoding="utf-8") as f:
            self.assertIn("'remembered'", f.read())
        session = Session(self.home)
        self.assertEqual(session.send(UP)[0], "remembered\n")
        self.assertEqual(session.end(), 0)

    def test_prompt_after_code(self):
        session = Session(self.home, "-i", "-e", "y = 5")
        self.assertEqual(session.send("y * 2")[0], "10\n")
        self.assertEqual(session.end(), 0)

    def test_failing_code_gives_no_prompt(self):
        result = subprocess.run([OMBRIX, "-i", "-e", "error('early')"], stdin=subprocess.DEVNULL,
                                capture_output=True, text=True, timeout=TIMEOUT)
        self.assertEqual(result.returncode, 1)
        self.assertIn("ombrix: (command line):1: early", result.stderr)

    def test_piped_input(self):
        # (arguments, input, stdout): piped input is a script unless -i asks for the prompt.
        cases = [
            ([], "x = 1 + 1\nprint(x)\n", "2\n"),
            ([], "1 + 1\n", None),  # a script, so not an expression to show
            (["-i"], "1 + 1\nz = 3\nz\n", "2\n3\n"),
        ]
        for args, stdin, stdout in cases:
            with self.subTest(args=args, stdin=stdin):
                result = subprocess.run([OMBRIX, *args], input=stdin, capture_output=True, text=True,
                                        timeout=TIMEOUT, env=dict(os.environ, HOME=self.home))
                if stdout is None:
                    self.assertEqual(result.returncode, 1)
                    self.assertIn("unexpected symbol", result.stderr)
                else:
                    self.assertEqual((result.returncode, result.stdout, result.stderr), (0, stdout, ""))


if __name__ == "__main__":
    unittest.main()
