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
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import mutants as syntax

ROOT = Path(__file__).resolve().parents[2]
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
    files = sorted([*(ROOT / "util").rglob("*.[hc]*"), *Path(__file__).parent.glob("*.py")])
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
    options = {"BUILD_SHARED_LIBS": "OFF", "CMAKE_BUILD_TYPE": "RelWithDebInfo", "CMAKE_CXX_FLAGS": f"-w -I{WORK}",
               "CMAKE_CXX_FLAGS_RELWITHDEBINFO": "-O1 -D_GLIBCXX_ASSERTIONS", "FILEMANAGER_QUICK_DRIVERS": "ON",
               "FILEMANAGER_PRECOMPILE": "ON", "FILEMANAGER_WERROR": "OFF", "FILEMANAGER_BUILD_EXAMPLES": "OFF",
               "FILEMANAGER_BUILD_TOOLS": "ON" if with_tool else "OFF"}
    quietly(["cmake", "-S", SOURCE, "-B", BUILD, "-G", "Ninja", *(f"-D{key}={value}" for key, value in options.items())])
    quietly(["cmake", "--build", BUILD, "--parallel", str(arguments.jobs), "--target", "tests/all",
             *(["fmcache"] if with_tool else [])])


def quietly(command):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if done.returncode:
        sys.exit("\n".join(line for line in done.stdout.splitlines()[-200:]))


class Case:
    """One test case, in a process of its own."""

    def __init__(self, name, command, **environment):
        self.name, self.command, self.environment = name, command, environment
        self.seconds, self.reached = 0.0, b""

    def run(self, limit, **environment):
        """Returns whether the case passes. One that takes longer than `limit` seconds fails."""
        with tempfile.TemporaryDirectory(dir=scratch, ignore_cleanup_errors=True) as folder:
            os.chmod(folder, 0o711)  # some tests change to another user
            process = subprocess.Popen(
                self.command, cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                start_new_session=True, env={**os.environ, **self.environment, **environment, "TMPDIR": folder})
            try:
                return process.wait(limit) == 0
            except subprocess.TimeoutExpired:
                return False
            finally:
                try:
                    os.killpg(process.pid, signal.SIGKILL)  # and what the case has started
                except ProcessLookupError:
                    pass
                process.wait()

    def measure(self, count):
        """Without a mutant: the time of the case, and the mutants that it executes."""
        path = WORK / "reached" / re.sub(r"\W", "-", self.name)
        path.write_bytes(bytes(count + 1))
        begin = time.monotonic()
        passes = self.run(600, FILEMANAGER_MUTANTS_REACHED=str(path))
        self.seconds, self.reached = time.monotonic() - begin, path.read_bytes()
        return passes


def cases(with_tool):
    for program in sorted((BUILD / "tests").glob("*_test")):
        listed = subprocess.run([program, "--gtest_list_tests"], check=True, text=True, stdout=subprocess.PIPE).stdout
        suite = ""
        for line in listed.splitlines():
            line = line.split("#")[0].rstrip()
            if not line.startswith(" "):
                suite = line
                continue
            name = f"{suite}{line.strip()}"
            command = [program, f"--gtest_filter={name}"]
            if program.name != "simulator_test":
                yield Case(f"{program.name}.{name}", command)
            elif "Seeds." in name:  # first few programs, then others
                for first, programs in ((0, 400), (400, arguments.programs)):
                    yield Case(f"{program.name}.{name} ({programs // 4} programs)", command,
                               FILEMANAGER_SEED=str(first), FILEMANAGER_SEEDS=str(programs))
            elif "BothThreads" not in name:  # takes a minute
                yield Case(f"{program.name}.{name}", command)
    if with_tool:
        for script in sorted((SOURCE / "tests").glob("fmcache*_test.sh")):
            yield Case(script.stem, ["bash", script, BUILD / "tools/fmcache/fmcache", BUILD])


def killers(mutant, suite):
    """The cases that fail with the mutant: the first one, or the first two if it matters whether there is only one."""
    failed = []
    for case in suite:
        if case.reached[mutant.number] and not case.run(10 * case.seconds + 5, FILEMANAGER_MUTANT=str(mutant.number)):
            failed.append(case.name)
            if len(failed) > arguments.needed:
                break
    return failed


def reasons():
    """Pairs of a pattern and the reason why mutants that it matches survive."""
    lines = [line for line in LISTED.read_text("utf-8").splitlines() if line and not line.startswith("#")]
    pairs = [line.split("  # ", 1) for line in lines]
    return [(re.compile(re.escape(pattern.strip()).replace(r"\*", ".*")), reason) for pattern, reason in pairs]


def report(results, suite):
    listed, counts, unlisted = reasons(), collections.Counter(), 0
    only = collections.Counter(failed[0] for _, failed in results if len(failed) == 1)
    for mutant, failed in results:
        reason = None if failed else next((text for each, text in listed if each.fullmatch(str(mutant))), "unlisted")
        counts["killed" if failed else "equivalent" if reason.startswith("equivalent") else
               "unlisted" if reason == "unlisted" else "listed"] += 1
        if reason == "unlisted":
            reached = any(case.reached[mutant.number] for case in suite)
            print(f"survives{'' if reached else ', no test executes it'}: {mutant}")
    survived = counts["listed"] + counts["unlisted"]
    relevant = counts["killed"] + survived
    print(f"mutate: {len(results)} mutants, {counts['killed']} killed, {counts['equivalent']} equivalent, "
          f"{survived} survive ({counts['unlisted']} without a reason in {LISTED.name}); "
          f"{100 * counts['killed'] / max(relevant, 1):.1f} % of those that are not equivalent are killed")
    if arguments.needed:
        lines = [f"{only[case.name]:5} {case.seconds:7.2f} s  {case.name}" for case in suite]
        (WORK / "needed.txt").write_text("\n".join(sorted(lines)) + "\n")
        print("mutate: number of mutants that only one case kills, per case: build/mutate/needed.txt")
    return counts["unlisted"] == 0


def parse_arguments():
    parser = argparse.ArgumentParser(prog="run mutate", add_help=False)
    parser.add_argument("--count", type=int)
    parser.add_argument("--date", default=datetime.date.today().isoformat())
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--needed", action="store_true")
    parser.add_argument("--programs", type=int, default=8000)
    parser.add_argument("--jobs", type=int, default=len(os.sched_getaffinity(0)))
    parser.add_argument("files", nargs="*", metavar="FILE")
    return parser.parse_args()


def main():
    WORK.mkdir(parents=True, exist_ok=True)
    (WORK / "reached").mkdir(exist_ok=True)
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    found = find_mutants()
    build(found, not arguments.quick)
    pool = concurrent.futures.ThreadPoolExecutor(arguments.jobs)
    suite = list(cases(not arguments.quick))
    for case, passes in zip(suite, pool.map(lambda case: case.measure(len(found)), suite)):
        if not passes:
            sys.exit(f"mutate: without a mutant this test fails: {case.name}")
    suite.sort(key=lambda case: case.seconds)
    chosen = [each for each in found if not arguments.files or each.file in arguments.files]
    random.Random(arguments.date).shuffle(chosen)
    chosen = chosen[:arguments.count]
    with open(WORK / "results.txt", "w", 1) as log:
        results = []
        for mutant, failed in zip(chosen, pool.map(lambda each: killers(each, suite), chosen)):
            results.append((mutant, failed))
            print(f"{mutant.number}\t{mutant}\t{'; '.join(failed) or 'survives'}", file=log)
    sys.exit(0 if report(results, suite) else 1)


if __name__ == "__main__":
    arguments = parse_arguments()
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(dir=memory, prefix="filemanager-mutate-", ignore_cleanup_errors=True) as scratch:
        os.chmod(scratch, 0o711)
        main()
