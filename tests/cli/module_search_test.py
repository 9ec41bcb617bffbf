#!/usr/bin/env python3
"""Where ombrix finds modules, and what --version reports: -m PATH as given,
bare names in OMBRIX_MODULE_PATH, then the installed module folder relative
to the binary, then beside the binary; the not-found message and status 2.
Usage: module_search_test.py OMBRIX MODULE.so PROJECT_VERSION"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

# Real paths: ombrix finds itself through /proc/self/exe, which sees through links.
OMBRIX, MODULE, VERSION = os.path.realpath(sys.argv[1]), os.path.realpath(sys.argv[2]), sys.argv[3]
del sys.argv[1:4]
TIMEOUT = 120


def run(ombrix, *args, module_path=None, cwd=None):
    env = dict(os.environ)
    env.pop("OMBRIX_MODULE_PATH", None)
    if module_path is not None:
        env["OMBRIX_MODULE_PATH"] = module_path
    return subprocess.run([ombrix, *args], capture_output=True, text=True, env=env, cwd=cwd,
                          stdin=subprocess.DEVNULL, timeout=TIMEOUT)


def loaded_from(result):
    """The module path --version names on its Cryptography line."""
    match = re.search(r"^Cryptography \S+ (.*)$", result.stdout, re.M)
    if not match:
        raise AssertionError(f"no module line in {result.stdout!r} (stderr {result.stderr!r})")
    return match.group(1)


class ModuleSearchTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        # A tree shaped like an installation: bin/ombrix (a copy, as /proc/self/exe
        # sees through links) and the module folder it names when a module is missing.
        cls.root = os.path.realpath(tempfile.mkdtemp(prefix="ombrix-search-"))
        cls.bin = os.path.join(cls.root, "tree", "bin")
        os.makedirs(cls.bin)
        cls.ombrix = os.path.join(cls.bin, "ombrix")
        shutil.copy2(OMBRIX, cls.ombrix)
        missing = run(cls.ombrix, "-m", "Nope", "--version")
        searched = missing.stderr.rsplit("searched: ", 1)[-1].strip().split(", ")
        cls.installed = searched[0]
        cls.first = os.path.join(cls.root, "first")
        cls.empty = os.path.join(cls.root, "empty")
        for folder in (cls.installed, cls.first, cls.empty):
            os.makedirs(folder, exist_ok=True)
        for folder in (cls.installed, cls.first, cls.bin):
            os.symlink(MODULE, os.path.join(folder, "libCryptography.so"))
        # A folder whose libCryptography.so is not a file is passed over.
        os.makedirs(os.path.join(cls.empty, "libCryptography.so"))

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.root)

    def test_installed_folder_is_relative_to_the_binary(self):
        prefix = os.path.join(self.root, "tree")
        self.assertRegex(os.path.relpath(self.installed, prefix), r"^lib(/[^/]+)?/ombrix/modules$")

    def test_search_order(self):
        installed = os.path.join(self.installed, "libCryptography.so")
        first = os.path.join(self.first, "libCryptography.so")
        link = os.path.join(self.root, "link-to-ombrix")
        if not os.path.lexists(link):
            os.symlink(self.ombrix, link)
        # (name, ombrix, words before --version, OMBRIX_MODULE_PATH, cwd, module loaded)
        cases = [
            ("default: the installed folder first", self.ombrix, [], None, None, installed),
            ("bare name", self.ombrix, ["-m", "Cryptography"], None, None, installed),
            ("bare file name", self.ombrix, ["-m", "libCryptography.so"], None, None, installed),
            ("OMBRIX_MODULE_PATH first", self.ombrix, ["-m", "Cryptography"], self.first, None, first),
            ("default in OMBRIX_MODULE_PATH", self.ombrix, [], self.first, None, first),
            ("empty entries and non-files skipped", self.ombrix, ["-m", "Cryptography"],
             f"::{self.empty}:/nonexistent:{self.first}:", None, first),
            ("a path is taken as given", self.ombrix, ["-m", "./libCryptography.so"], self.first, self.bin,
             "./libCryptography.so"),
            ("through a link to the binary", link, [], None, None, installed),
            ("the build tree: beside the binary", OMBRIX, [], None, None, os.path.join(os.path.dirname(OMBRIX),
                                                                                       "libCryptography.so")),
        ]
        for name, ombrix, words, module_path, cwd, expected in cases:
            with self.subTest(name):
                result = run(ombrix, *words, "--version", module_path=module_path, cwd=cwd)
                self.assertEqual(result.returncode, 0, result.stderr)
                self.assertEqual(loaded_from(result), expected)

    def test_beside_the_binary_when_not_installed(self):
        installed = os.path.join(self.installed, "libCryptography.so")
        os.rename(installed, installed + ".away")
        try:
            result = run(self.ombrix, "--version")
        finally:
            os.rename(installed + ".away", installed)
        self.assertEqual(loaded_from(result), os.path.join(self.bin, "libCryptography.so"))

    def test_not_found(self):
        # (words, OMBRIX_MODULE_PATH, the folders the message names)
        cases = [
            (["-m", "Nope"], None, [self.installed, self.bin]),
            (["-m", "libNope.so"], None, [self.installed, self.bin]),
            (["-m", "Nope"], f"{self.first}::/x", [self.first, "/x", self.installed, self.bin]),
        ]
        for words, module_path, folders in cases:
            with self.subTest(words=words, module_path=module_path):
                result = run(self.ombrix, *words, "-e", "print('ran')", module_path=module_path)
                self.assertEqual(result.returncode, 2)
                self.assertEqual(result.stdout, "")
                self.assertEqual(result.stderr,
                                 f"ombrix: module {words[1]} (libNope.so) not found; searched: {', '.join(folders)}\n")

    def test_version(self):
        result = run(OMBRIX, "--version")
        self.assertEqual(result.returncode, 0, result.stderr)
        lines = result.stdout.splitlines()
        self.assertEqual(len(lines), 3, lines)
        self.assertRegex(lines[0], rf"^ombrix {re.escape(VERSION)} \(Lua 5\.4\.\d+\)$")
        self.assertEqual(lines[1], f"Cryptography 1.23.7.0 {os.path.join(os.path.dirname(OMBRIX), 'libCryptography.so')}")
        self.assertRegex(lines[2], r"^OpenSSL 3\.\d+\.\d+")
        self.assertEqual(result.stderr, "")


if __name__ == "__main__":
    unittest.main()
