#!/usr/bin/env python3
"""Runs the comparison and writes what it measured as JSON.

usage: compare.py PROGRAMS OUTPUT [--rounds N] [--share N] [--only WORKLOAD,...]

PROGRAMS is the directory of the participants' programs (compare_NAME). For each workload all of them are
started, and each does the work once to count its allocations and to check every byte. Then the rounds
begin: one round of each participant by turns, so that whatever else the machine does falls on all of them
alike. Each begins with the work by nobody's clock, because memory that lay idle while the others had their
turn may have to be fetched back from the host of a virtual machine. The figures are medians.
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

PARTICIPANTS = ["limit", "kept", "filemanager", "lmdb", "sqlite", "leveldb", "rocksdb", "libtorrent", "stdio"]
PACKAGES = {"lmdb": "liblmdb-dev", "sqlite": "libsqlite3-dev", "leveldb": "libleveldb-dev",
            "rocksdb": "librocksdb-dev", "libtorrent": "libtorrent-rasterbar-dev"}
WORKLOADS = ["write", "read", "read8", "resident", "reopen", "reopen_small", "files", "small",
             "small_batched", "mixed"]
# The limit of whoever keeps what it reads, where that makes a difference.
KEEPING = {"read", "read8"}
# Those that hand over many blocks at once when told to; the others would only do "small" again.
BATCHING = {"limit", "lmdb", "sqlite", "leveldb", "rocksdb"}


class Child:
    """A participant's program, which does a round whenever it is told."""

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
            sys.exit(f"{self.process.args[0]} failed at its end")


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
        order.append(order.pop(0))  # nobody is always the first
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
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--share", type=int, default=1, help="do only that part of the work")
    parser.add_argument("--only", default=",".join(WORKLOADS))
    options = parser.parse_args()

    programs = {name: options.programs / f"compare_{name}" for name in PARTICIPANTS}
    missing = [name for name, program in programs.items() if not program.exists()]
    for name in missing:
        del programs[name]
    directory = tempfile.mkdtemp(prefix="filemanager-compare-")
    report = {"machine": machine(directory), "rounds": options.rounds,
              "missing": {name: PACKAGES.get(name, "this tree") for name in missing}, "workloads": {}}
    try:
        for workload in options.only.split(","):
            print(f"compare: {workload}", file=sys.stderr)
            taking_part = {name: program for name, program in programs.items()
                           if (workload != "small_batched" or name in BATCHING)
                           and (workload in KEEPING or name != "kept")}
            report["workloads"][workload] = run_workload(workload, taking_part, options.rounds,
                                                         options.share, directory)
            options.output.write_text(json.dumps(report, indent=1) + "\n", encoding="utf-8")
    finally:
        shutil.rmtree(directory)  # at the end, as creating files is slow after removing many


if __name__ == "__main__":
    main()
