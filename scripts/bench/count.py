#!/usr/bin/env python3
"""Counts the instructions of the central operations and compares them with the recorded counts.

usage: count.py PROGRAM RECORD [update]

Instruction counts do not depend on the load of the machine, so a change that makes an operation more
expensive shows on any machine. They depend on the compiler: if its version differs from the one that RECORD
names, nothing is compared.
"""
import pathlib
import subprocess
import sys
import tempfile

# The function in which callgrind counts: one of the program for operations of the caller thread, one of the
# library for operations of the read/write thread.
OPERATIONS = {
    "piece_write": "*Counted*", "last_piece_write": "*Counted*", "store": "CFMStoreEvent::OnEventFire*",
    "coalesced_store": "CFMStoreEvent::OnEventFire*",
    "resident_read": "*Counted*", "load": "CFMBlock::ReadFromFile*", "post_event": "*Counted*",
}
BOUND = 1.15  # allocators and locks vary by a few percent from run to run


def compiler():
    def ask(what):
        return subprocess.run(["g++", what], capture_output=True, text=True, check=True).stdout.strip()
    return f"g++ {ask('-dumpversion')} {ask('-dumpmachine')}"


def count(program, operation):
    with tempfile.TemporaryDirectory() as directory:
        output = pathlib.Path(directory, "callgrind.out")
        run = subprocess.run(["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={output}",
                              f"--toggle-collect={OPERATIONS[operation]}", program, operation],
                             capture_output=True, text=True, check=False)
        if run.returncode != 0:
            sys.exit(f"count: {operation} failed\n{run.stderr}")
        totals = [line for line in output.read_text(encoding="utf-8").splitlines()
                  if line.startswith("totals:")]
    instructions = int(totals[0].split()[1])
    if instructions == 0:
        sys.exit(f"count: no instructions were counted for {operation}: does {OPERATIONS[operation]} still exist?")
    return round(instructions / int(run.stdout))


def read_record(path):
    lines = path.read_text(encoding="utf-8").splitlines()
    numbers = dict(line.split() for line in lines if line and not line.startswith("#"))
    return lines[0].removeprefix("# "), {name: int(number) for name, number in numbers.items()}


def write_record(path, counts):
    lines = [f"# {compiler()}", "# Instructions of one operation; preset plain (optimized, with assertions).",
             "# Written by ./run count update, compared by ./run check."]
    path.write_text("\n".join(lines + [f"{name} {number}" for name, number in counts.items()]) + "\n",
                    encoding="utf-8")


def compare(counts, record):
    regressed = False
    for name, number in counts.items():
        change = number / record[name]
        verdict = "MORE THAN RECORDED" if change > BOUND else "fewer: run ./run count update" \
            if change < 1 / BOUND else "as recorded"
        regressed = regressed or change > BOUND
        print(f"{name:18}{number:>8,} instructions{change * 100 - 100:>+8.1f} %  {verdict}")
    return regressed


def main():
    program, path = sys.argv[1], pathlib.Path(sys.argv[2])
    if sys.argv[3:] != ["update"]:
        built_with, record = read_record(path)
        if built_with != compiler():
            print(f"count: not compared: recorded with {built_with}, this compiler is {compiler()}")
            return
    counts = {operation: count(program, operation) for operation in OPERATIONS}
    if sys.argv[3:] == ["update"]:
        write_record(path, counts)
        print(path.read_text(encoding="utf-8"), end="")
    elif compare(counts, record):
        sys.exit("count: an operation needs more instructions than recorded; if that is intended: ./run count update")


if __name__ == "__main__":
    main()
