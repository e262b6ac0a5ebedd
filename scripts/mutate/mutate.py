#!/usr/bin/env python3
"""Changes the library in one place at a time and runs the tests that execute this place, until one fails.

All mutants are in one build: build/mutate/source is a copy of the tree in which the environment variable
FILEMANAGER_MUTANT selects one by its number. `mutate.py --help` describes the arguments, survivors.txt its format.
"""
import argparse
import collections
import concurrent.futures
import datetime
import hashlib
import os
import pickle
import random
import re
import resource
import shutil
import subprocess
import sys
import time
from pathlib import Path

import mutants as syntax
import suite

ROOT = suite.ROOT
WORK = ROOT / "build" / "mutate"
SOURCE, BUILD = WORK / "source", WORK / "build"
LISTED = Path(__file__).with_name("survivors.txt")

HEADER = """#pragma once
extern int g_mutant;
extern unsigned char* g_mutantsReached;
inline bool MUTANT(int number) {
    g_mutantsReached[number] = 1;
    return number == g_mutant;
}
"""
# Tests redirect open and close. The mapping is shared with the processes that a test forks.
SELECTION = """#include "mutant.h"
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cstdlib>
namespace { unsigned char s_reached[COUNT]; }
int g_mutant;
unsigned char* g_mutantsReached = s_reached;
__attribute__((constructor(101))) static void Select() {
    if (const char* number = std::getenv("FILEMANAGER_MUTANT"))
        g_mutant = std::atoi(number);
    const char* path = std::getenv("FILEMANAGER_MUTANTS_REACHED");
    if (!path)
        return;
    const int file = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, O_RDWR, 0));
    void* bytes = ::mmap(nullptr, COUNT, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ::syscall(SYS_close, file);
    if (bytes == MAP_FAILED)
        std::abort();
    g_mutantsReached = static_cast<unsigned char*>(bytes);
}
"""


def find_mutants():
    """All mutants, numbered from 1. They are kept until a source of the library or this tool changes."""
    files = sorted([*(ROOT / "util").rglob("*.[hc]*"), Path(syntax.__file__)])
    digest = hashlib.sha256(b"".join(path.read_bytes() for path in files)).hexdigest()
    kept = WORK / "mutants.pickle"
    if kept.exists():
        former, found = pickle.loads(kept.read_bytes())
        if former == digest:
            return found
    found = list(syntax.Parser(ROOT, WORK).mutants())
    for number, each in enumerate(found, 1):
        each.number = number
    kept.write_bytes(pickle.dumps((digest, found)))
    return found


def write(path, content):
    """Writes a file unless it has this content, so that the build repeats only what changes."""
    if not path.exists() or path.read_bytes() != content:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)


def build(found, with_tool):
    by_file = collections.defaultdict(list)
    for each in found:
        by_file[each.file].append(each)
    names = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT, check=True, text=True,
                           stdout=subprocess.PIPE).stdout.split("\n")
    for name in filter(lambda name: (ROOT / name).is_file(), names):
        content = (ROOT / name).read_bytes()
        if name in by_file:
            content = syntax.instrument(content.decode("latin-1"), by_file[name]).encode("latin-1")
        write(SOURCE / name, content)
        shutil.copymode(ROOT / name, SOURCE / name)
    write(WORK / "mutant.h", HEADER.encode())
    write(SOURCE / "util/runtime/mutant.cpp", SELECTION.replace("COUNT", str(len(found) + 1)).encode())
    suite.build(SOURCE, BUILD, f"-w -I{WORK}", "-O1", with_tool, arguments.jobs)


def measure(case, count):
    """Without a mutant: the time of a case, and the mutants that it executes. Returns whether the case passes."""
    path = WORK / "reached" / re.sub(r"\W", "-", case.name)
    path.write_bytes(bytes(count + 1))
    begin = time.monotonic()
    passes = case.run(600, FILEMANAGER_MUTANTS_REACHED=str(path))
    case.seconds, case.reached = time.monotonic() - begin, path.read_bytes()
    return passes


def killers(mutant, tests):
    """The cases that fail with the mutant: the first one, or the first two if it matters whether there is only one."""
    failed = []
    for case in tests:
        if case.reached[mutant.number] and not case.run(10 * case.seconds + 5, FILEMANAGER_MUTANT=str(mutant.number)):
            failed.append(case.name)
            if len(failed) > arguments.needed:
                break
    return failed


def report(results, tests):
    listed, counts, unlisted = suite.reasons(LISTED), collections.Counter(), 0
    only = collections.Counter(failed[0] for _, failed in results if len(failed) == 1)
    for mutant, failed in results:
        reason = None if failed else next((text for each, text in listed if each.fullmatch(str(mutant))), "unlisted")
        counts["killed" if failed else "equivalent" if reason.startswith("equivalent") else
               "unlisted" if reason == "unlisted" else "listed"] += 1
        if reason == "unlisted":
            reached = any(case.reached[mutant.number] for case in tests)
            print(f"survives{'' if reached else ', no test executes it'}: {mutant}")
    survived = counts["listed"] + counts["unlisted"]
    relevant = counts["killed"] + survived
    print(f"mutate: {len(results)} mutants, {counts['killed']} killed, {counts['equivalent']} equivalent, "
          f"{survived} survive ({counts['unlisted']} without a reason in {LISTED.name}); "
          f"{100 * counts['killed'] / max(relevant, 1):.1f} % of those that are not equivalent are killed")
    if arguments.needed:
        lines = [f"{only[case.name]:5} {case.seconds:7.2f} s  {case.name}" for case in tests]
        (WORK / "needed.txt").write_text("\n".join(sorted(lines)) + "\n")
        print("mutate: number of mutants that only one case kills, per case: build/mutate/needed.txt")
    if arguments.least is not None:
        return 100 * counts["killed"] >= arguments.least * relevant
    return counts["unlisted"] == 0


def parse_arguments():
    parser = argparse.ArgumentParser(prog="run mutate", add_help=False)
    parser.add_argument("--count", type=int)
    parser.add_argument("--date", default=datetime.date.today().isoformat())
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--needed", action="store_true")
    parser.add_argument("--programs", type=int, default=2000)
    parser.add_argument("--least", type=float)
    parser.add_argument("--jobs", type=int, default=suite.JOBS)
    parser.add_argument("files", nargs="*", metavar="FILE")
    return parser.parse_args()


def main():
    WORK.mkdir(parents=True, exist_ok=True)
    (WORK / "reached").mkdir(exist_ok=True)
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    found = find_mutants()
    build(found, not arguments.quick)
    pool = concurrent.futures.ThreadPoolExecutor(arguments.jobs)
    tests = list(suite.cases(SOURCE, BUILD, arguments.programs, not arguments.quick))
    for case, passes in zip(tests, pool.map(lambda case: measure(case, len(found)), tests)):
        if not passes:
            sys.exit(f"mutate: without a mutant this test fails: {case.name}")
    tests.sort(key=lambda case: case.seconds)
    chosen = [each for each in found if not arguments.files or each.file in arguments.files]
    if arguments.quick:
        chosen = [each for each in chosen if any(case.reached[each.number] for case in tests)]
    random.Random(arguments.date).shuffle(chosen)
    chosen = chosen[:arguments.count]
    with open(WORK / "results.txt", "w", 1) as log:
        results = []
        for mutant, failed in zip(chosen, pool.map(lambda each: killers(each, tests), chosen)):
            results.append((mutant, failed))
            print(f"{mutant.number}\t{mutant}\t{'; '.join(failed) or 'survives'}", file=log)
    sys.exit(0 if report(results, tests) else 1)


if __name__ == "__main__":
    arguments = parse_arguments()
    with suite.scratch_directory():
        main()
