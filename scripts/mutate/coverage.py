#!/usr/bin/env python3
"""Runs the tests with Clang's coverage. Prints the share of the branches that they take, per file of the library, and the
branches of util/filemanager that no test takes and uncovered.txt does not list.

A branch is one outcome of a condition. Conditions inside a macro (lines of the log, assertions) do not count.
"""
import concurrent.futures
import json
import os
import re
import shutil
import subprocess
import sys
import threading
from pathlib import Path

import suite

WORK = suite.ROOT / "build" / "coverage"
LISTED = Path(__file__).with_name("uncovered.txt")


def measure():
    """The report of llvm-cov. Counters are in mapped files, so that processes which end at once count, too."""
    suite.build(suite.ROOT, WORK, "-w -fprofile-instr-generate -fcoverage-mapping -mllvm -runtime-counter-relocation",
                "-O1", True, suite.JOBS, CMAKE_CXX_COMPILER="clang++")
    profiles = WORK / "profiles"
    shutil.rmtree(profiles, ignore_errors=True)
    profiles.mkdir()
    os.environ["LLVM_PROFILE_FILE"] = str(WORK / "listing.profraw")  # of programs that only list their cases
    tests = list(suite.cases(suite.ROOT, WORK, 2000, True))
    with concurrent.futures.ThreadPoolExecutor(suite.JOBS) as pool:
        # A file that two processes create at the same time would lose the counts of one.
        passed = pool.map(lambda case: case.run(
            600, LLVM_PROFILE_FILE=f"{profiles}/{threading.get_ident()}-%m%c.profraw"), tests)
        for case, passes in zip(tests, passed):
            if not passes:
                print(f"coverage: fails: {case.name}", file=sys.stderr)
    merged = WORK / "merged.profdata"
    subprocess.run(["llvm-profdata", "merge", "-o", merged, *profiles.glob("*.profraw")], check=True)
    programs = [*sorted((WORK / "tests").glob("*_test")), WORK / "tools/fmcache/fmcache"]
    command = ["llvm-cov", "export", f"-instr-profile={merged}", "-skip-expansions", "-skip-functions", programs[0],
               *(f"-object={each}" for each in programs[1:])]
    return json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout)["data"][0]["files"]


def untaken(path, branches):
    """A line per outcome that no test takes: the source line with the condition and the outcome in brackets."""
    lines = Path(path).read_bytes().decode("latin-1").split("\n")
    for line, column, end_line, end_column, true, false, *_ in branches:
        text = lines[line - 1]
        end = end_column - 1 if end_line == line else len(text)
        for count, outcome in ((true, "true"), (false, "false")):
            if count == 0:
                marked = f"{text[:column - 1]}[{text[column - 1:end]} never {outcome}]{text[end:]}"
                yield re.sub(r"\s+", " ", re.sub(r"\s*//.*", "", marked)).strip()


def main():
    listed, unlisted = suite.reasons(LISTED), 0
    total = missed = 0
    for file in measure():
        name = Path(file["filename"]).resolve().relative_to(suite.ROOT).as_posix()
        if not name.startswith("util/"):
            continue
        outcomes = {}
        for each in file.get("branches", []):  # one per instance of a template
            taken = outcomes.setdefault(tuple(each[:4]), [0, 0])
            taken[0] += each[4]
            taken[1] += each[5]
        branches = [(*where, *taken) for where, taken in sorted(outcomes.items())]
        if not branches:
            continue
        missing = [f"{name}: {line}" for line in untaken(file["filename"], branches)]
        rest = [line for line in missing if not any(pattern.fullmatch(line) for pattern, _ in listed)]
        print(f"{name:42} {2 * len(branches) - len(missing):5} of {2 * len(branches):5} branches taken, "
              f"{len(rest)} of the others not listed")
        if name.startswith("util/filemanager/"):
            unlisted, missed, total = unlisted + len(rest), missed + len(missing), total + 2 * len(branches)
            print("".join(f"    {line}\n" for line in rest), end="")
    print(f"coverage: tests take {100 * (total - missed) / total:.1f} % of {total} branches of util/filemanager; {unlisted} "
          f"of the others are not in {LISTED.name}")
    sys.exit(1 if unlisted else 0)


if __name__ == "__main__":
    with suite.scratch_directory():
        main()
