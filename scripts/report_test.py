#!/usr/bin/env python3
"""Tests the page of fmcache report in a browser: what it says of a store, and what is drawn.

usage: report_test.py FMCACHE
"""
import struct
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from browser import check, views

BLOCK = 1000
NAME = "a&<script>alert(1)</script>\x1b\u202e"
# Per file: the cells of its map, one for each block.
MAPS = {"whole": "ssssssssss", "hole": "ssmsssssss", "cut": "ssssssssdd", "old": "ssssssssss", NAME: "ss"}
KINDS = {"s": "stored", "m": "missing", "d": "damaged"}
PROBE = """{size, colours, text: document.body.innerText, scripts: document.scripts.length,
  figures: all(document, ".figures div").map(e => [e.lastChild.previousSibling.textContent, e.firstChild.data]),
  ages: all(document, "#ages i").map(e => [e.className, box(e)]),
  next: all(document, "#next td:first-child").map(e => e.innerText.split("\\n")[0]),
  faults: all(document, "#faults tr").map(e => e.innerText),
  maps: all(document, "#maps tr").slice(1).map(e => [e.cells[0].innerText.split("\\n")[0], e.cells[3].innerText,
    all(e, ".map i").map(c => [c.className, drawn(c), ...box(c)])])}"""


def damage(name, info, data):
    text = bytearray(info.read_bytes())
    after = text.index(name.encode()) + len(name.encode())  # flags, 8 bytes, creation time
    if name == "old":
        struct.pack_into("<I", text, after + 12, int(time.time()) - 30 * 86400)
    if name == "hole":  # the third entry of the table: a block with length 0
        struct.pack_into("<I", text, text.index(struct.pack("<II", 3, BLOCK)) + 4, 0)
    info.write_bytes(text)
    if name == "cut":
        data.write_bytes(data.read_bytes()[:8 * BLOCK])


def check_page(found):
    check(found["scripts"] == 1, "a name has become a script")
    check("a&<script>alert(1)</script>\\x1B\\xE2\\x80\\xAE" in found["text"], "the name is not shown as text")
    for rule in ("older than 7 days: removed from day 9 on", "Sizes are bytes that the file system has allocated"):
        check(rule in found["text"], f"the rule is missing: {rule}")
    figures = {name: number for number, name in found["figures"]}
    check(figures == {"files": "5", "removed in the next run": "1", "kept": "0", "open": "0",
                      "damaged or unreadable": "1"}, f"figures: {figures}")
    check(found["next"][0] == "old" and len(found["next"]) == 5, f"removed next: {found['next']}")
    check(len(found["faults"]) == 2 and all("cut" in each for each in found["faults"]), f"faults: {found['faults']}")
    colours = found["colours"]
    check({name for name, _, _ in found["maps"]} == {"a&<script>alert(1)</script>\\x1B\\xE2\\x80\\xAE", *MAPS} - {NAME},
          f"maps: {found['maps']}")
    for name, state, runs in found["maps"]:
        cells = MAPS.get(name, MAPS[NAME])
        check(state == ("damaged" if name == "cut" else "sound"), f"{name} is {state}")
        left, right = runs[0][2], runs[-1][4]
        check(right - left > 100, f"the map of {name} is narrow")
        for i, cell in enumerate(cells):
            x = left + (i + .5) * (right - left) / len(cells)
            drawn = [colour for _, colour, begin, _, end, _ in runs if begin <= x < end]
            check(drawn == [colours[KINDS[cell]]], f"{name}: block {i + 1} is drawn as {drawn}")
    ages = [(kind, right - left) for kind, (left, _, right, _) in found["ages"]]
    check(ages[0][1] > ages[-1][1] > 0 and ages[-1][0] == "due" and all(size == 0 for _, size in ages[1:-1]),
          f"ages: {ages}")


def main(program):
    with tempfile.TemporaryDirectory() as folder:
        def run(*arguments, data=None):
            return subprocess.run([program, *arguments, "--dir", folder], input=data, stdout=subprocess.PIPE,
                                  check=True).stdout.decode()
        for name, cells in MAPS.items():
            bytes_of_blocks = bytes(range(250)) * (BLOCK // 250) * len(cells)
            stem = run("put", "-", "--name", name, "--block", str(BLOCK), data=bytes_of_blocks).strip()
            damage(name, *(Path(folder, "sdstore", stem + end) for end in (".sdi", ".sdd")))
        text = run("report")
    check("\x1b" not in text and "\u202e" not in text, "a name reaches the page unchanged")
    for found in views(text, PROBE):
        check_page(found)


main(sys.argv[1])
