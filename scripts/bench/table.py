#!/usr/bin/env python3
"""Prints the results of compare.py as tables.

usage: table.py COMPARISON.json
"""
import json
import sys
from typing import Callable, NamedTuple, Optional

MIB = 1 << 20


def throughput(result):
    return result["bytes"] / MIB / result["seconds"]


def per_second(result):
    return result["operations"] / result["seconds"]


def nanoseconds(result):
    return result["seconds"] / result["operations"] * 1e9


def microseconds(result):
    return result["seconds"] / result["operations"] * 1e6


class Row(NamedTuple):
    """How the results of one workload are presented."""
    title: str
    unit: str
    measure: Callable
    more_is_better: bool
    baseline: str = "plaincalls"
    goal: Optional[float] = None  # for the library, relative to the baseline
    absent_because: str = ""  # why some participants do not take part


ROWS = {
    "write": Row("Write 256 KiB blocks in pieces of 16 KiB", "MiB/s", throughput, True),
    # Compared with the baseline that keeps the blocks it reads, as a cache has to.
    "read": Row("Read 256 KiB blocks from the page cache, one by one", "MiB/s", throughput, True,
                "plaincalls_kept", 0.8),
    "read8": Row("Read 256 KiB blocks from the page cache, 8 in flight", "MiB/s", throughput, True,
                 "plaincalls_kept", 1.0, "No asynchronous read"),
    "resident": Row("Read 4 KiB of a block in memory", "ns", nanoseconds, False),
    "reopen": Row("Reopen a store of 1,024 blocks, read one", "µs", microseconds, False),
    "reopen_small": Row("Reopen a store of 50,000 blocks, read one", "µs", microseconds, False),
    "files": Row("Open one of 2,000 files, read a block, close it", "µs", microseconds, False),
    "small": Row("Write 1 KiB blocks, one per call", "blocks/s", per_second, True),
    "small_batched": Row("Write 1 KiB blocks, 1,000 per call", "blocks/s", per_second, True,
                         absent_because="No call for many blocks"),
    "mixed": Row("Write, read, change owners; 64 MiB of memory", "operations/s", per_second, True),
}
NAMES = {"plaincalls": "plain calls", "plaincalls_kept": "plain calls, kept", "filemanager": "this library",
         "lmdb": "LMDB", "sqlite": "SQLite", "leveldb": "LevelDB", "rocksdb": "RocksDB", "libtorrent": "libtorrent",
         "stdio": "naive stdio"}


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def ratio(workload, results, name):
    """Speed relative to the baseline: 1.0 is equal, 2.0 is twice as fast."""
    row = ROWS[workload]
    own, baseline = row.measure(results[name]), row.measure(results[row.baseline])
    return own / baseline if row.more_is_better else baseline / own


def ratio_text(value):
    return f"{value:.2f}" if value >= 0.095 else f"{value:.2g}"


def machine_line(report):
    about = report["machine"]
    return (f"{about['date']}, {about['processor']}, {about['cores']} cores, Linux {about['kernel']}, "
            f"{about['file_system']}; medians of {report['rounds']} alternating rounds")


def print_workload(workload, results):
    row = ROWS[workload]
    print(f"\n{row.title} (1.0 is the speed of: {NAMES[row.baseline]})")
    print(f"  {'':18}{row.unit:>14}{'relative':>10}{'fastest':>12}{'slowest':>12}{'CPU s':>9}"
          f"{'peak MiB':>10}{'allocations':>13}")
    for name, result in results.items():
        spread = [row.measure({**result, "seconds": result[key]}) for key in ("fastest", "slowest")]
        print(f"  {NAMES[name]:18}{number(row.measure(result)):>14}{ratio_text(ratio(workload, results, name)):>10}"
              f"{number(spread[0]):>12}{number(spread[1]):>12}{result['cpu']:>9.3f}"
              f"{result['peak'] / MIB:>10.0f}{result['allocations']:>13,}")
    if row.goal:
        reached = "reached" if ratio(workload, results, "filemanager") >= row.goal else "NOT reached"
        print(f"  goal for this library: at least {row.goal} of {NAMES[row.baseline]}; {reached}")


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        report = json.load(file)
    print(machine_line(report))
    for workload, results in report["workloads"].items():
        print_workload(workload, results)
    for name, package in report["missing"].items():
        print(f"\nleft out: {NAMES[name]}, package {package} is not installed")


if __name__ == "__main__":
    main()
