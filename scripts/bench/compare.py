#!/usr/bin/env python3
"""Runs the comparison and writes the results as JSON.

usage: compare.py PROGRAMS OUTPUT [--rounds N] [--share N] [--only WORKLOAD,...]

PROGRAMS is the directory of the participants' programs (compare_NAME). For each workload, the script starts
all participants. Each does the work once, not timed, to count its allocations and to compare every byte. Then
the participants alternate, one round each, so that other load on the machine affects all of them. Each round
does the work twice and times the second pass: the host of a virtual machine may have reclaimed memory that
was idle while the other participants ran. The results are medians of the rounds.

The workloads of LATENCY measure the latency of each operation. For these, a first process of each participant
stores the files that are read later, at full speed; a second one runs the rounds, each timed once, with every
write delayed by bench/slowdisk. The results are percentiles of the latencies of all rounds.
"""
import argparse
import datetime
import json
import math
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
LATENCY = {"tail": 0, "tail_slow": 2000, "behind": 10000}  # delay of each write in us
# Participants whose stores wait in a queue. For the others, no read is behind stores.
QUEUEING = {"plaincalls", "filemanager"}
# Workloads in which it makes a difference whether the baseline keeps the blocks that it reads.
KEEPING = {"read", "read8"}
# Participants with a call that stores many blocks at once. For the others "small_batched" equals "small".
BATCHING = {"plaincalls", "lmdb", "sqlite", "leveldb", "rocksdb"}


class Child:
    """A participant's process, which runs one round per call of round()."""

    def __init__(self, program, workload, directory, share, variables=None):
        self.process = subprocess.Popen([program, workload, directory, str(share)], text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        env={**os.environ, **(variables or {})})

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


def percentiles(latencies):
    """In us, by nearest rank."""
    ordered = sorted(latencies)
    result = {name: ordered[math.ceil(share * len(ordered)) - 1]
              for name, share in (("p50", 0.5), ("p99", 0.99), ("p99.9", 0.999))}
    return {**result, "max": ordered[-1], "count": len(ordered)}


def latency_summary(rounds):
    kinds = {kind for each in rounds for kind in each["latencies"]}
    pooled = {kind: [us for each in rounds for us in each["latencies"].get(kind, [])] for kind in kinds}
    return {
        "latencies": {kind: percentiles(pooled[kind]) for kind in sorted(kinds)},
        "cpu_per_gib": sum(each["cpu"] for each in rounds) / sum(each["bytes"] for each in rounds) * (1 << 30),
        "growth": max(each["growth"] for each in rounds),
    }


def run_latency(workload, programs, rounds, share, directory, slow_disk):
    children = {}
    delay = LATENCY[workload]
    variables = {"SLOW_DISK_US": str(delay), "LD_PRELOAD": str(slow_disk)} if delay else {}
    for name, program in programs.items():
        arguments = [program, workload, os.path.join(directory, workload, name), share]
        Child(*arguments).end()
        children[name] = Child(*arguments, variables)
        children[name].round()
    results = {name: [] for name in children}
    order = list(children)
    for _ in range(rounds):
        for name in order:
            results[name].append(children[name].round())
        order.append(order.pop(0))
    for child in children.values():
        child.end()
    return {name: latency_summary(results[name]) for name in results}


def takes_part(name, workload):
    if name == "plaincalls_kept":
        return workload in KEEPING
    return ((workload != "small_batched" or name in BATCHING)
            and (workload != "behind" or name in QUEUEING))


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
    parser.add_argument("--only", default=",".join([*WORKLOADS, *LATENCY]), help="comma-separated workloads")
    options = parser.parse_args()

    programs = {name: options.programs / f"compare_{name}" for name in PARTICIPANTS}
    missing = [name for name, program in programs.items() if not program.exists()]
    for name in missing:
        del programs[name]
    directory = tempfile.mkdtemp(prefix="filemanager-compare-")
    report = {"machine": machine(directory), "rounds": options.rounds,
              "missing": {name: PACKAGES.get(name, "part of this repository") for name in missing},
              "workloads": {}, "latency": {}}
    try:
        for workload in options.only.split(","):
            print(f"compare: {workload}", file=sys.stderr)
            arguments = [workload,
                         {name: program for name, program in programs.items() if takes_part(name, workload)},
                         options.rounds, options.share, directory]
            if workload in LATENCY:
                slow_disk = options.programs.resolve().parent / "slowdisk" / "libslowdisk.so"
                if not slow_disk.exists():  # the loader would start the participants without it
                    sys.exit(f"{slow_disk} is missing")
                report["latency"][workload] = run_latency(*arguments, slow_disk)
            else:
                report["workloads"][workload] = run_workload(*arguments)
            options.output.write_text(json.dumps(report, indent=1) + "\n", encoding="utf-8")
    finally:
        shutil.rmtree(directory)  # only now: removing many files slows down file creation for minutes


if __name__ == "__main__":
    main()
