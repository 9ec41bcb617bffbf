#!/usr/bin/env python3
"""Sampled mutation testing: applies hand-made mutants one at a time to a
scratch copy of the tree, rebuilds it incrementally and runs the suite until
the first failure.

    scripts/mutate.py [--only ID,ID...] [--scratch DIR] [--mutants FILE] [--log FILE]

The mutant list (tests/mutants.txt by default) holds blocks of the form

    @ ID path/in/the/tree
    - exact old text (one or more lines, joined with newlines)
    + new text (no line, or a lone "+", for a deletion)
    = why the mutant survives, when it does (optional)

The old text must occur exactly once in the file; a mutant whose old text is
gone (the code changed since) is reported "not applicable", one whose text
occurs several times "ambiguous". Neither counts towards the score.

The scratch copy (default /work/scratch-mut) mirrors the files of this tree,
rewriting only the ones that differ, so one build directory serves every run
and each mutant costs an incremental rebuild. The suite runs in two phases,
both stopping at the first failure: the GoogleTest binary without its slow
tests, then through ctest the slow tests and every entry that is not a
GoogleTest (Lua checks, examples, guide, terminal, command line). A build
failure is "compile error"; a failing, crashing or timed-out run is "killed".
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# Tests that wait for timeouts: they run in the second phase, last.
SLOW_TESTS = [
    "EventLoopTest.TricklingServerIsGivenUpOnAfterThirtySeconds",
]
NOT_GTEST = r"^(lua|example|guide|terminal|cli)\."
GTEST_TIMEOUT = 240
CTEST_TIMEOUT = 180
BUILD_TIMEOUT = 3600


def parse_mutants(path):
    mutants, current = [], None
    with open(path, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if line.startswith("@ "):
                parts = line[2:].split()
                if len(parts) != 2:
                    sys.exit(f"{path}:{number}: expected '@ ID FILE'")
                current = {"id": parts[0], "file": parts[1], "old": [], "new": [], "note": ""}
                mutants.append(current)
            elif current is None or not line or line.startswith("#"):
                continue
            elif line[0] == "-":
                current["old"].append(line[2:] if line.startswith("- ") else line[1:])
            elif line[0] == "+":
                current["new"].append(line[2:] if line.startswith("+ ") else line[1:])
            elif line[0] == "=":
                current["note"] = line[1:].strip()
            else:
                sys.exit(f"{path}:{number}: line not understood: {line}")
    ids = [m["id"] for m in mutants]
    if len(ids) != len(set(ids)):
        sys.exit(f"{path}: duplicate mutant ids")
    for m in mutants:
        if not m["old"]:
            sys.exit(f"{path}: mutant {m['id']} has no old text")
        m["old"] = "\n".join(m["old"])
        m["new"] = "\n".join(m["new"])
    return mutants


def tree_files(root):
    out = subprocess.run(["git", "-C", root, "ls-files", "-co", "--exclude-standard", "-z"],
                         check=True, capture_output=True).stdout
    return sorted(p for p in out.decode().split("\0") if p and os.path.isfile(os.path.join(root, p)))


def sync(root, target):
    """Makes target hold exactly root's files; touches only those that differ."""
    wanted = set(tree_files(root))
    changed = 0
    for rel in wanted:
        src, dst = os.path.join(root, rel), os.path.join(target, rel)
        with open(src, "rb") as f:
            data = f.read()
        if os.path.exists(dst):
            with open(dst, "rb") as f:
                if f.read() == data:
                    continue
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        with open(dst, "wb") as f:
            f.write(data)
        shutil.copymode(src, dst)
        changed += 1
    for directory, _, files in os.walk(target):
        for name in files:
            rel = os.path.relpath(os.path.join(directory, name), target)
            if rel not in wanted:
                os.remove(os.path.join(directory, name))
                changed += 1
    return changed


def run(command, cwd=None, timeout=None):
    """(status, output); status None on a timeout."""
    try:
        p = subprocess.run(["nice", "-n", "5"] + command, cwd=cwd, timeout=timeout,
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace")
        return p.returncode, p.stdout
    except subprocess.TimeoutExpired as e:
        out = e.stdout.decode(errors="replace") if isinstance(e.stdout, bytes) else (e.stdout or "")
        return None, out


def build(build_dir):
    return run(["cmake", "--build", build_dir], timeout=BUILD_TIMEOUT)


def run_suite(build_dir):
    """None when everything passes, else a short description of the first failure."""
    tests_dir = os.path.join(build_dir, "tests")
    status, out = run([os.path.join(tests_dir, "cryptography_tests"), "--gtest_brief=1", "--gtest_fail_fast",
                       "--gtest_filter=-" + ":".join(SLOW_TESTS)], cwd=tests_dir, timeout=GTEST_TIMEOUT)
    if status is None:
        return "gtest: timed out"
    if status != 0:
        failed = re.findall(r"^\[  FAILED  \] (\S+)", out, re.M)
        return "gtest: " + (failed[0] if failed else f"exit status {status}")
    pattern = NOT_GTEST + "|^(" + "|".join(re.escape(t) for t in SLOW_TESTS) + ")$"
    status, out = run(["ctest", "--test-dir", build_dir, "-R", pattern, "--stop-on-failure", "-j", "2",
                       "--timeout", str(CTEST_TIMEOUT), "--no-tests=error"], timeout=CTEST_TIMEOUT * 20)
    if status is None:
        return "ctest: timed out"
    if status != 0:
        failed = re.findall(r"\d+ - (\S+) \(", out)
        return "ctest: " + (failed[0] if failed else f"exit status {status}")
    return None


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--mutants", default=os.path.join(ROOT, "tests", "mutants.txt"))
    parser.add_argument("--scratch", default="/work/scratch-mut")
    parser.add_argument("--only", help="comma-separated mutant ids")
    parser.add_argument("--log", help="also append each result line to this file")
    parser.add_argument("--no-baseline", action="store_true", help="skip the unmutated run")
    args = parser.parse_args()

    mutants = parse_mutants(args.mutants)
    if args.only:
        chosen = set(args.only.split(","))
        mutants = [m for m in mutants if m["id"] in chosen]
    src = os.path.join(args.scratch, "src")
    build_dir = os.path.join(args.scratch, "build")
    os.makedirs(src, exist_ok=True)
    print(f"scratch copy: {sync(ROOT, src)} files updated", flush=True)
    if not os.path.exists(os.path.join(build_dir, "build.ninja")):
        status, out = run(["cmake", "-S", src, "-B", build_dir, "-G", "Ninja", "-DOMBRIX_TESTS=ON",
                           "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -DNDEBUG"])
        if status != 0:
            sys.exit("configure failed:\n" + out)
    status, out = build(build_dir)
    if status != 0:
        sys.exit("the unmutated tree does not build:\n" + out[-3000:])
    if not args.no_baseline:
        failure = run_suite(build_dir)
        if failure:
            sys.exit(f"the unmutated suite fails ({failure}); fix that first")
        print("unmutated suite passes", flush=True)

    log = open(args.log, "a", encoding="utf-8") if args.log else None
    counts = {"killed": 0, "survived": 0, "compile error": 0, "not applicable": 0, "ambiguous": 0}
    survivors = []
    for m in mutants:
        path = os.path.join(src, m["file"])
        started = time.time()
        original = open(path, encoding="utf-8").read() if os.path.exists(path) else ""
        occurrences = original.count(m["old"])
        detail = ""
        if occurrences == 0:
            verdict = "not applicable"
        elif occurrences > 1:
            verdict = "ambiguous"
        else:
            try:
                with open(path, "w", encoding="utf-8") as f:
                    f.write(original.replace(m["old"], m["new"]))
                status, out = build(build_dir)
                if status != 0:
                    verdict = "compile error"
                    errors = re.findall(r"error: .*", out)
                    detail = errors[0][:100] if errors else ("timed out" if status is None else "")
                else:
                    failure = run_suite(build_dir)
                    verdict, detail = ("killed", failure) if failure else ("survived", m["note"])
            finally:
                with open(path, "w", encoding="utf-8") as f:
                    f.write(original)
        counts[verdict] += 1
        if verdict == "survived":
            survivors.append(m["id"])
        line = f"{m['id']:6} {verdict:15} {m['file']:32} {detail}  [{time.time() - started:.0f} s]"
        print(line, flush=True)
        if log:
            log.write(line + "\n")
            log.flush()
    build(build_dir)  # leave the scratch build unmutated
    scored = counts["killed"] + counts["survived"]
    score = f"{counts['killed']}/{scored} killed ({100.0 * counts['killed'] / scored:.1f} %)" if scored else "nothing scored"
    summary = "score: " + score + "; " + ", ".join(f"{k}: {v}" for k, v in counts.items() if k != "killed")
    print(summary)
    if survivors:
        print("survivors: " + " ".join(survivors))
    if log:
        log.write(summary + "\n")
        log.close()


if __name__ == "__main__":
    main()
