#!/usr/bin/env python3
"""Runs the comparison and writes the results as JSON.

usage: compare.py PROGRAMS OUTPUT [--rounds N] [--share N] [--only WORKLOAD,...]

PROGRAMS is the directory of the participants' programs (compare_NAME). For each workload, the script starts
all participants. Each does the work once, not timed, to count its allocations and to compare every byte. Then
the participants alternate, one round each, so that other load on the machine affects all of them. Each round
does the work twice and times the second pass: the host of a virtual machine may have reclaimed memory that
was idle while the other participants ran. The results are medians of the rounds.
"""
import argparse
import datetime
import json
import os
import pathlib
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile

PARTICIPANTS = ["plaincalls", "plaincalls_kept", "filemanager", "lmdb", "sqlite", "leveldb", "rocksdb", "libtorrent",
                "stdio"]
PACKAGES = {"lmdb": "liblmdb-dev", "sqlite": "libsqlite3-dev", "leveldb": "libleveldb-dev",
            "rocksdb": "librocksdb-dev", "libtorrent": "libtorrent-rasterbar-dev"}
WORKLOADS = ["write", "read", "read8", "resident", "reopen", "reopen_small", "files", "small",
             "small_batched", "mixed"]
# Workloads in which it makes a difference whether the baseline keeps the blocks that it reads.
KEEPING = {"read", "read8"}
# Participants with a call that stores many blocks at once. For the others "small_batched" equals "small".
BATCHING = {"plaincalls", "lmdb", "sqlite", "leveldb", "rocksdb"}


class Child:
    """A participant's process, which runs one round per call of round()."""

    def __init__(self, program, workload, directory, share):
        self.process = subprocess.Popen([program, workload, directory, str(share)], text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def round(self):
        self.process.stdin.write("round\n")
        self.process.stdin.flush()
        answer = self.process.stdout.readline()
        if not answer:
            sys.exit(f"{self.process.args[0]} {self.process.args[1]} failed")
        return json.loads(answer)

    def end(self):
        self.process.stdin.close()
        if self.process.wait() != 0:
            sys.exit(f"{self.process.args[0]} failed while it closed its store")


def summary(first, rounds):
    return {
        "seconds": statistics.median(each["seconds"] for each in rounds),
        "fastest": min(each["seconds"] for each in rounds),
        "slowest": max(each["seconds"] for each in rounds),
        "cpu": statistics.median(each["cpu"] for each in rounds),
        "peak": max(each["peak"] for each in rounds),
        "allocations": first["allocations"],
        "operations": first["operations"],
        "bytes": first["bytes"],
    }


def run_workload(workload, programs, rounds, share, directory):
    children, first, results = {}, {}, {}
    for name, program in programs.items():
        children[name] = Child(program, workload, os.path.join(directory, workload, name), share)
        first[name] = children[name].round()
        if not first[name]["can"]:
            children.pop(name).end()
            continue
        results[name] = []
    order = list(children)
    for _ in range(rounds):
        for name in order:
            children[name].round()
            results[name].append(children[name].round())
        order.append(order.pop(0))  # each round starts with another participant
    for child in children.values():
        child.end()
    return {name: summary(first[name], results[name]) for name in results}


def file_system(path):
    lines = subprocess.run(["df", "--output=fstype", path], capture_output=True, text=True,
                           check=True).stdout.split()
    return lines[-1]


def machine(directory):
    model = "unknown processor"
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        for line in info:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
    return {"date": datetime.date.today().isoformat(), "processor": model, "cores": os.cpu_count(),
            "kernel": platform.release().split("-")[0], "file_system": file_system(directory)}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("programs", type=pathlib.Path)
    parser.add_argument("output", type=pathlib.Path)
    parser.add_argument("--rounds", type=int, default=5, help="timed rounds per participant")
    parser.add_argument("--share", type=int, default=1, choices=range(1, 17), metavar="N",
                        help="divide the amount of work by N, 1 to 16")
    parser.add_argument("--only", default=",".join(WORKLOADS), help="comma-separated workloads")
    options = parser.parse_args()

    programs = {name: options.programs / f"compare_{name}" for name in PARTICIPANTS}
    missing = [name for name, program in programs.items() if not program.exists()]
    for name in missing:
        del programs[name]
    directory = tempfile.mkdtemp(prefix="filemanager-compare-")
    report = {"machine": machine(directory), "rounds": options.rounds,
              "missing": {name: PACKAGES.get(name, "part of this repository") for name in missing}, "workloads": {}}
    try:
        for workload in options.only.split(","):
            print(f"compare: {workload}", file=sys.stderr)
            taking_part = {name: program for name, program in programs.items()
                           if (workload != "small_batched" or name in BATCHING)
                           and (workload in KEEPING or name != "plaincalls_kept")}
            report["workloads"][workload] = run_workload(workload, taking_part, options.rounds,
                                                         options.share, directory)
            options.output.write_text(json.dumps(report, indent=1) + "\n", encoding="utf-8")
    finally:
        shutil.rmtree(directory)  # only now: removing many files slows down file creation for minutes


if __name__ == "__main__":
    main()
