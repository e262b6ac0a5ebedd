#!/usr/bin/env python3
"""Tests of scripts/demo.

usage: demo_test.py output DEMO PROGRAM
       demo_test.py slow DEMO PROGRAM SLOW_DISK_LIBRARY
       demo_test.py report PAGE BLOCKS
"""
import collections
import fcntl
import os
import pty
import re
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import time
from pathlib import Path
from urllib.error import HTTPError
from urllib.request import urlopen

from browser import check, views

NODES = ["server", "presenter", "client-1", "client-2", "client-3", "visitor", "server", "latecomer"]


def run(*command):
    done = subprocess.run([*map(str, command)], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return done.returncode, done.stdout


def pipe_format(demo, program):
    status, text = run(demo, program, "--sample", 2, "--seconds", 1)
    check(status == 0, f"the conference failed:\n{text}")
    check("\x1b" not in text and "\r" not in text, "control characters in a pipe")
    main, _ = text.split("Later run")
    steps = collections.defaultdict(list)
    for name, percent in re.findall(r"^  (\S+) +(\d+) %: .*sent [\d.]+ MiB$", main, re.MULTILINE):
        steps[name].append(int(percent))
    check(sorted(steps) == sorted(NODES[:5]), f"lines of other nodes: {dict(steps)}")
    for name, percents in steps.items():
        check(percents == sorted(set(percents)) and percents[-1] == 100 and
              all(each % 10 == 0 for each in percents), f"steps of {name}: {percents}")
    order = [text.find(each) for each in ("Conference:", " %: ", "identical copy", "Sent:", "On disk", "Later run",
                                          "latecomer 100 %")]
    check(-1 not in order and order == sorted(order), f"parts in another order:\n{text}")
    received, source, peers = map(float, re.search(
        r"received ([\d.]+) MiB: ([\d.]+) MiB from the server, ([\d.]+) MiB from each", main).groups())
    check(received >= 6 and abs(source + peers - received) < 0.2, f"sums differ:\n{main}")


def narrow_terminal(demo, program):
    columns, rows = 33, 6
    main, side = pty.openpty()
    fcntl.ioctl(side, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
    process = subprocess.Popen([demo, program, "--sample", "1", "--seconds", "1", "--clients", "8"],
                               stdout=side, stderr=side,
                               env={k: v for k, v in os.environ.items() if k not in ("COLUMNS", "LINES")})
    os.close(side)
    output = b""
    try:
        while chunk := os.read(main, 65536):
            output += chunk
    except OSError:  # the end, on Linux
        pass
    check(process.wait() == 0, f"the conference failed:\n{output.decode()}")
    # Messages are printed above the table and are not drawn again, so that the terminal may wrap them.
    frames = [[line for line in each.split("\r\n\r\n")[0].splitlines() if not line.startswith("  * ")]
              for each in output.decode().split("\x1b[J")[1:]]
    check(len(frames) > 10, "nothing was drawn")
    for frame in frames:
        check(len(frame) < rows and max(map(len, frame)) <= columns, f"does not fit: {frame}")
    check(frames[5][3] == "and 8 more nodes", f"hidden nodes are not counted: {frames[5]}")


def no_progress(demo):
    """The timeout runs from the last progress, not from the start; the message comes last."""
    with tempfile.TemporaryDirectory() as folder:
        node = Path(folder, "node")
        node.write_text("#!/bin/sh\nfor i in 1 2 3 4 5 6; do\n"
                        "echo progress $i 12 0 0 0 0; sleep 0.5; done\nexec sleep 100\n")
        node.chmod(0o700)
        begin = time.monotonic()
        status, text = run(demo, node, "--sample", 1, "--timeout", 2)
    check(status == 1 and time.monotonic() - begin > 4.2, f"the timeout came before the end of the progress:\n{text}")
    check(text.endswith("\ndemo: no progress for 2 s while waiting until the server listens\n"), f"the end:\n{text}")


def check_metrics(url):
    """The server stores to a slow disk. tests/lanes_test.cpp tests the text of the figures."""
    host, port = re.search(r"//(.*):(\d+)/", url).groups()
    with socket.create_connection((host, port)) as idle:
        idle.sendall(b"GET /metrics")  # a request that does not end must not delay others
        figures = {}
        deadline = time.monotonic() + 10
        while figures.get("filemanager_stores_total", "0") == "0" and time.monotonic() < deadline:
            with urlopen(url, timeout=10) as answer:
                kind, text = answer.headers["Content-Type"], answer.read().decode("ascii")
            figures = dict(line.rsplit(" ", 1) for line in text.splitlines())
        check(kind == "text/plain; version=0.0.4; charset=utf-8" and text.endswith("\n# EOF\n"), f"{kind}:\n{text}")
        check(int(figures["filemanager_stores_total"]) > 0, f"no store:\n{text}")
        check(figures['filemanager_store_disk_seconds_bucket{le="0.016384"}'] == "0", f"a store of 20 ms:\n{text}")
    try:
        urlopen(url.replace("/metrics", "/other"), timeout=10)
        check(False, "a path that does not exist was answered")
    except HTTPError as error:
        check(error.code == 404, f"status {error.code} for a path that does not exist")


def slow_disk(demo, program, library):
    """The figures of the server while it stores to a slow disk, and the longest turn of all event loops."""
    command = [demo, program, "--sample", "4", "--seconds", "1", "--clients", "1",
               "--slow-disk", "20", "--slow-disk-library", library]
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True) as process:
        text = ""
        for line in process.stdout:
            text += line
            if re.search(r"^  server +\d+ %", line) and "server 100 %" not in text:  # it has blocks
                check_metrics(re.search(r"server answers at (\S+)", text).group(1))
                break
        text += process.stdout.read()
    check(process.returncode == 0, f"the conference failed:\n{text}")
    turn = re.search(r"^Longest turn of an event loop: ([\d.]+) ms, on \S+\. ", text, re.MULTILINE)
    # A generous limit, because other processes may use the processors.
    check(turn and 0 < float(turn.group(1)) < 1000, f"the longest turn:\n{text}")


PROBE = """{size, colours,
  lanes: all(document, ".lane").map(e => [e.querySelector(".name").firstChild.data,
    all(e, ".plot path").map(p => p.getAttribute("class")), all(e, ".marks span").map(m => m.textContent)]),
  histograms: all(document, ".histogram").map(e => [e.querySelector(".caption").textContent,
    all(e, "rect").map(b => [b.getAttribute("class"), b.textContent.match(/[0-9]+$/)[0]])]),
  maps: all(document, ".map").map(e => all(e, "i").map(c => [c.className, drawn(c)]))}"""
SHAPES = {"server": ["source", "sent"], "presenter": ["sent"], "latecomer": ["source"]}
MARKS = {"server": ["stopped", "restarted"], "client-1": ["killed", "restarted", "complete"]}


def check_page(found, blocks):
    check([name for name, _, _ in found["lanes"]] == NODES, f"other lanes: {found['lanes']}")
    for name, shapes, marks in found["lanes"][:5] + found["lanes"][7:]:
        check(shapes == SHAPES.get(name, ["source", "peer", "sent"]), f"{name} shows {shapes}")
        events = [each.split()[0] for each in marks]
        check(events == MARKS.get(name, ["complete"] if "source" in shapes else []), f"marks of {name}: {events}")
    for index, (caption, bars) in enumerate(found["histograms"]):
        loads, stores = (sum(int(count) for kind, count in bars if kind == name) for name in ("loads", "stores"))
        check(f" {loads} loads, {stores} stores" in caption, f"bars of {caption}: {bars}")
        # The conference stores every block, and the later run loads every block.
        check(stores >= blocks if index < 2 else (loads, stores) == (blocks, 0), f"histogram {index}: {caption}")
    check([len(cells) for cells in found["maps"]] == [blocks] * 4, "other numbers of cells")
    for index, cells in enumerate(found["maps"]):
        kinds = {kind for kind, _ in cells}
        check(kinds == ({"source"} if index == 0 else {"source", "peer"}), f"map {index}: {kinds}")
        for kind, drawn in cells:
            check(drawn == found["colours"][kind], f"map {index}: {drawn} for {kind}")


if sys.argv[1] == "report":
    for found in views(Path(sys.argv[2]).read_text(encoding="utf-8"), PROBE):
        check_page(found, int(sys.argv[3]))
elif sys.argv[1] == "slow":
    slow_disk(*sys.argv[2:])
else:
    no_progress(sys.argv[2])
    pipe_format(*sys.argv[2:])
    narrow_terminal(*sys.argv[2:])
