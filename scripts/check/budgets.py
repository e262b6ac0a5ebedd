#!/usr/bin/env python3
"""Prints what an engineer has to keep in mind of the library, and the share of the tests, each with its budget. Fails if
one grows.

usage: budgets.py [ROOT]

Counted by simple patterns over util/: data members of the three central classes (those of their bases
included), mutexes, atomics, include cycles among the components of util/filemanager (a component is a header
and the source of the same name), lines. The share of the tests: the lines of tests/, testing/, fuzz/ and of the scripts
that test, in per cent of those of util/, tools/ and examples/; blank lines do not count.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
CLASSES = {"CFMBlock": ("fmblock.h", 17), "CFMFile": ("fmfile.h", 16), "CFileManager": ("filemanager.h", 20)}
MUTEXES, ATOMICS, LINES, TEST_SHARE = 8, 24, 7000, 34
# Where the budget is not reached yet: the figure that must not grow.
REACHED = {"lines of util/": 12892, "tests, in per cent of the code": 48.9}


def sources():
    return sorted(path for path in (ROOT / "util").rglob("*") if path.suffix in (".h", ".cpp"))


def without_comments(text):
    return re.sub(r"//[^\n]*|/\*.*?\*/", "", text, flags=re.S)


def body_of(name, text):
    """The text between the braces of a class, without nested braces."""
    start = re.search(rf"\bclass (?:\w+ )?{name}\b[^;{{]*{{", text).end()
    depth, end = 1, start
    while depth:
        depth += {"{": 1, "}": -1}.get(text[end], 0)
        end += 1
    body = text[start:end - 1]
    while re.search(r"{[^{}]*}", body):
        body = re.sub(r"{[^{}]*}", ";", body)
    return body


def members(name, header):
    body = body_of(name, without_comments((ROOT / "util/filemanager" / header).read_text("utf-8")))
    return len(re.findall(r"(?m)\bm_\w+\s*(?:=[^;]*)?;", body))


def cycles():
    folder = ROOT / "util/filemanager"
    includes = {}
    for path in folder.iterdir():
        if path.suffix in (".h", ".cpp"):
            names = re.findall(r'#include "(?:\w+/)*(\w+)\.h"', path.read_text("utf-8"))
            includes.setdefault(path.stem, set()).update(
                each for each in names if (folder / f"{each}.h").exists() and each != path.stem)

    def reaches(start, goal, seen):
        for each in includes.get(start, ()):
            if each == goal or (each not in seen and reaches(each, goal, seen | {each})):
                return True
            seen = seen | {each}
        return False
    return sorted(name for name in includes if reaches(name, name, set()))


def test_share():
    def lines(*patterns):
        files = {path for pattern in patterns for path in ROOT.glob(pattern)}
        return sum(1 for path in files for line in path.read_text("utf-8").splitlines() if line.strip())
    code = lines(*(f"{folder}/**/*.{kind}" for folder in ("util", "tools", "examples") for kind in ("h", "cpp")))
    tests = lines(*(f"{folder}/**/*.{kind}" for folder in ("tests", "testing", "fuzz")
                    for kind in ("h", "cpp", "sh", "py", "yml")), "scripts/*_test.py", "scripts/browser.py")
    return round(100 * tests / code, 1)


def main():
    text = "\n".join(without_comments(path.read_text("utf-8")) for path in sources())
    rows = [(f"data members of {name}", members(name, header), limit)
            for name, (header, limit) in CLASSES.items()]
    rows.append(("mutexes in util/", len(re.findall(r"\bstd::(?:recursive_)?mutex\s+\w+\s*;", text)), MUTEXES))
    rows.append(("atomics in util/", len(re.findall(r"\bstd::atomic(?:<[^;{}()]*>|_flag)\s+\w+\s*[{;=]", text)), ATOMICS))
    in_cycles = cycles()
    rows.append(("components of util/filemanager in an include cycle", len(in_cycles), 0))
    rows.append(("lines of util/", sum(len(path.read_text("utf-8").splitlines()) for path in sources()), LINES))
    rows.append(("tests, in per cent of the code", test_share(), TEST_SHARE))
    over = 0
    for what, count, limit in rows:
        over += count > REACHED.get(what, limit)
        print(f"{what:52} {count:6} of {limit:5}{'  over budget' if count > limit else ''}")
    if in_cycles:
        print("in a cycle: " + ", ".join(in_cycles))
    sys.exit(1 if over else 0)


if __name__ == "__main__":
    main()
