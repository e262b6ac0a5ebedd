#!/usr/bin/env python3
"""Counts the instructions of the central operations and compares them with those that are on record.

usage: count.py PROGRAM RECORD [update]

Instructions do not depend on what else the machine does: a change that makes an operation cost more shows
here, whoever runs it. They do depend on the compiler, so another one than the record's is not compared.
"""
import pathlib
import subprocess
import sys
import tempfile

# Where the counting goes on and off: the program's own function on the caller thread, the library's on
# the read/write thread.
OPERATIONS = {
    "piece_write": "*Counted*", "completing_write": "*Counted*", "store": "CFMStore::OnEventFire*",
    "store_together": "CFMStore::OnEventFire*",
    "resident_read": "*Counted*", "load": "CFMBlock::ReadFromFile*", "posting": "*Counted*",
}
BOUND = 1.15  # allocators and locks differ a little from run to run, and a slip that matters is larger


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
        sys.exit(f"count: nothing was counted for {operation}: is {OPERATIONS[operation]} still there?")
    return round(instructions / int(run.stdout))


def read_record(path):
    lines = path.read_text(encoding="utf-8").splitlines()
    numbers = dict(line.split() for line in lines if line and not line.startswith("#"))
    return lines[0].removeprefix("# "), {name: int(number) for name, number in numbers.items()}


def write_record(path, counts):
    lines = [f"# {compiler()}", "# Instructions of one operation in the optimized build with assertions.",
             "# Written by ./run count update, compared by ./run check."]
    path.write_text("\n".join(lines + [f"{name} {number}" for name, number in counts.items()]) + "\n",
                    encoding="utf-8")


def compare(counts, record):
    slipped = False
    for name, number in counts.items():
        change = number / record[name]
        verdict = "MORE THAN BEFORE" if change > BOUND else "fewer, see ./run count update" \
            if change < 1 / BOUND else "as before"
        slipped = slipped or change > BOUND
        print(f"{name:18}{number:>8,} instructions{change * 100 - 100:>+8.1f} %  {verdict}")
    return slipped


def main():
    program, path = sys.argv[1], pathlib.Path(sys.argv[2])
    if sys.argv[3:] != ["update"]:
        built_with, record = read_record(path)
        if built_with != compiler():
            print(f"left out: the record is of {built_with}, this is {compiler()}")
            return
    counts = {operation: count(program, operation) for operation in OPERATIONS}
    if sys.argv[3:] == ["update"]:
        write_record(path, counts)
        print(path.read_text(encoding="utf-8"), end="")
    elif compare(counts, record):
        sys.exit("count: an operation costs more than before; if that is meant, ./run count update")


if __name__ == "__main__":
    main()
