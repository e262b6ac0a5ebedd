#!/usr/bin/env python3
"""Prints the results of compare.py as tables.

usage: table.py COMPARISON.json
"""
import json
import statistics
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
LATENCY_TITLES = {
    "tail": "Tail latency: 100 MiB/s in pieces of 16 KiB, 400 reads/s of 256 KiB",
    "tail_slow": "Tail latency, every write delayed by 2 ms: 64 MiB/s in pieces of 16 KiB, 256 reads/s of 256 KiB",
    "behind": "One read of 256 KiB behind 64 stores, every write delayed by 10 ms",
}
# Participants that keep complete blocks in memory even if the disk is idle: a kill of the process loses them.
LOSING = {"rocksdb": "no write-ahead log: a kill of the process loses up to 64 MiB"}
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


def mark(name):
    return NAMES[name] + (" *" if name in LOSING else "")


def print_latency(workload, results):
    kinds = ["drain", "read"] if workload == "behind" else ["read", "piece"]
    points = ["p50", "p99", "p99.9", "max"]
    print(f"\n{LATENCY_TITLES[workload]}; us from the time when the operation was due")
    print(f"  {'':14}" + "".join(f"{f'{kind} {point}':>12}" for kind in kinds for point in points)
          + f"{'not sent':>10}{'CPU s/GiB':>11}{'peak MiB':>10}")
    for name, result in results.items():
        latencies = result["latencies"]
        unsent = latencies.get("unsent", {"count": 0})["count"] / sum(latencies[kind]["count"] for kind in kinds)
        print(f"  {mark(name):14}"
              + "".join(f"{number(latencies[kind][point]):>12}" for kind in kinds for point in points)
              + f"{unsent:>10.0%}{result['cpu_per_gib']:>11.2f}{result['growth'] / MIB:>10.0f}")
    idle = [result["latencies"]["loop"] for result in results.values()]
    print("  the loop alone, median of the participants: "
          + ", ".join(f"{point} {number(statistics.median(each[point] for each in idle))}" for point in points))
    for name in LOSING.keys() & results.keys():
        print(f"  * not compared: {LOSING[name]}")
    for line in latency_goals(workload, results):
        print(f"  this library: {line}")


def verdict(goal, reached, note=""):
    return f"{goal}; {'reached' if reached else 'NOT reached'}{note}"


def latency_goals(workload, results):
    """One line per goal, and one for the baseline. Participants that lose data are not compared."""
    own = results.get("filemanager", {}).get("latencies")
    if not own:
        return
    if workload == "behind":
        for point, limit in (("p50", 12_000), ("p99", 25_000)):
            yield verdict(f"goal: read {point} at most {limit:,}", own["read"][point] <= limit)
        return
    yield verdict("goal: piece p99.9 below 100", own["piece"]["p99.9"] < 100,
                  f"; of the calls alone, without the delay of the loop: {number(own['call']['p99.9'])}")
    for point in ("p99", "p99.9"):
        others = {name: own["read"][point] / result["latencies"]["read"][point]
                  for name, result in results.items() if name != "filemanager"}
        faster = [f"{NAMES[name]} ({speed:.2f} times as fast)" for name, speed in others.items()
                  if speed > 1 and name not in LOSING and name != "plaincalls"]
        yield verdict(f"goal: read {point} not above that of another store", not faster,
                      f"; faster: {', '.join(faster)}" if faster else "")
        if "plaincalls" in others:
            yield f"read {point} is {others['plaincalls']:.2f} times that of plain calls; no goal"


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        report = json.load(file)
    print(machine_line(report))
    for workload, results in report["workloads"].items():
        print_workload(workload, results)
    for workload, results in report["latency"].items():
        print_latency(workload, results)
    for name, package in report["missing"].items():
        print(f"\nleft out: {NAMES[name]}, package {package} is not installed")


if __name__ == "__main__":
    main()
