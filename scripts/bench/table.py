#!/usr/bin/env python3
"""Prints what compare.py has measured as tables.

usage: table.py COMPARISON.json
"""
import json
import sys

MIB = 1 << 20


def throughput(result):
    return result["bytes"] / MIB / result["seconds"]


def per_second(result):
    return result["operations"] / result["seconds"]


def nanoseconds(result):
    return result["seconds"] / result["operations"] * 1e9


def microseconds(result):
    return result["seconds"] / result["operations"] * 1e6


def milliseconds(result):
    return result["seconds"] / result["operations"] * 1e3


# What a row of the comparison is called, in which unit, and whether more of it is better.
ROWS = {
    "write": ("1,024 blocks of 256 KiB written in 16 KiB pieces", "MiB/s", throughput, True),
    "read": ("read back from disk, random order, one after the other", "MiB/s", throughput, True),
    "read8": ("read back from disk, random order, 8 in flight", "MiB/s", throughput, True),
    "resident": ("4 KiB of a block in memory", "ns", nanoseconds, False),
    "reopen": ("reopen: first of 1,024 blocks", "ms", milliseconds, False),
    "reopen_small": ("reopen: first of 50,000 small blocks", "ms", milliseconds, False),
    "files": ("open one of 2,000 files, read, close", "us", microseconds, False),
    "small": ("50,000 blocks of 1 KiB, handed over one by one", "/s", per_second, True),
    "small_batched": ("50,000 blocks of 1 KiB, handed over 1,000 at once", "/s", per_second, True),
    "mixed": ("writes, reads, owners in 64 files, memory limit reached", "operations/s", per_second, True),
}
NAMES = {"limit": "limit", "kept": "limit, kept", "filemanager": "this library", "lmdb": "LMDB", "sqlite": "SQLite",
         "leveldb": "LevelDB", "rocksdb": "RocksDB", "libtorrent": "libtorrent", "stdio": "naive stdio"}


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def ratio(workload, results, name):
    """How close to the limit: 1 is as good, less is worse."""
    _, _, measure, more_is_better = ROWS[workload]
    own, limit = measure(results[name]), measure(results["limit"])
    return own / limit if more_is_better else limit / own


def machine_line(report):
    about = report["machine"]
    return (f"{about['date']}, {about['processor']}, {about['cores']} cores, Linux {about['kernel']}, "
            f"{about['file_system']}; medians of {report['rounds']} rounds by turns")


def print_workload(workload, results):
    title, unit, measure, _ = ROWS[workload]
    print(f"\n{title}")
    print(f"  {'':14}{unit:>14}{'of limit':>10}{'fastest':>12}{'slowest':>12}{'CPU s':>9}"
          f"{'peak MiB':>10}{'allocations':>13}")
    for name, result in results.items():
        spread = [measure({**result, "seconds": result[key]}) for key in ("fastest", "slowest")]
        print(f"  {NAMES[name]:14}{number(measure(result)):>14}{ratio(workload, results, name):>10.2f}"
              f"{number(spread[0]):>12}{number(spread[1]):>12}{result['cpu']:>9.3f}"
              f"{result['peak'] / MIB:>10.0f}{result['allocations']:>13,}")


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        report = json.load(file)
    print(machine_line(report))
    for workload, results in report["workloads"].items():
        print_workload(workload, results)
    for name, package in report["missing"].items():
        print(f"\nleft out: {NAMES[name]}, its package is not installed ({package})")


if __name__ == "__main__":
    main()
