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
from urllib.parse import urlsplit
from urllib.request import urlopen

import browser
from browser import near

SKIPPED = 77
NODES = ["server", "presenter", "client-1", "client-2", "client-3", "visitor", "server", "latecomer"]


def check(condition, what):
    if not condition:
        sys.exit(f"demo_test: {what}")


def run(*command):
    """The status and the output of a command, both streams in one file."""
    with tempfile.TemporaryFile("w+") as out:
        status = subprocess.run([*map(str, command)], stdout=out, stderr=subprocess.STDOUT).returncode
        out.seek(0)
        return status, out.read()


def pipe_format(demo, program):
    status, text = run(demo, program, "--sample", 2, "--seconds", 1)
    check(status == 0, f"the conference failed:\n{text}")
    check("\x1b" not in text and "\r" not in text, "control characters in a file")
    main, later = text.split("Later run")
    steps = collections.defaultdict(list)
    for name, percent in re.findall(r"^  (\S+) +(\d+) %: .*sent [\d.]+ MiB$", main, re.MULTILINE):
        steps[name].append(int(percent))
    check(sorted(steps) == sorted(NODES[:5]), f"lines of other nodes: {dict(steps)}")
    for name, percents in steps.items():
        check(percents == sorted(set(percents)) and percents[-1] == 100 and
              all(each % 10 == 0 for each in percents), f"steps of {name}: {percents}")
    order = [text.find(each) for each in ("Collecting", "Conference:", " %: ", "identical copy", "Sent:",
                                          "peers saved", "On disk", "Later run", "latecomer 100 %")]
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


def no_progress(demo, folder):
    """The timeout runs from the last progress, not from the start; the message comes last."""
    node = folder / "node"
    node.write_text("#!/bin/sh\nfor i in 1 2 3 4 5 6 7 8 9 10; do\n"
                    "echo progress $i 20 0 0 0 0; sleep 0.4; done\nexec sleep 100\n")
    node.chmod(0o700)
    begin = time.monotonic()
    status, text = run(demo, node, "--sample", 1, "--timeout", 3)
    check(status == 1 and "server     50 %" in text, f"progress was not seen:\n{text}")
    check(6.5 < time.monotonic() - begin < 60, "the timeout came at another time")
    check(text.splitlines()[-1] == "demo: no progress for 3 s while waiting until the server listens",
          f"not the last line:\n{text}")


def fetch(url):
    with urlopen(url, timeout=10) as answer:
        check(answer.headers["Content-Type"] == "text/plain; version=0.0.4; charset=utf-8",
              f"another content type: {answer.headers}")
        lines = answer.read().decode("ascii").splitlines()
    check(lines[-1] == "# EOF", f"not the last line: {lines[-1]}")
    return {name: float(value) for name, value in (line.rsplit(" ", 1) for line in lines if line[0] != "#")}


def check_figures(figures, length, delay):
    """Blocks of 256 KiB are stored one by one, so each store has one entry in each histogram."""
    def figure(name):
        return figures[f"filemanager_{name}"]
    stores, bytes_, pending = figure("stores_total"), figure("store_bytes_total"), figure("pending_bytes")
    check(stores > 0 and bytes_ == stores * 256 * 1024, f"{stores} stores, {bytes_} bytes")
    check(bytes_ <= length and pending <= length and figure("open_files") == 1,
          f"more than the file: {bytes_} stored, {pending} pending")
    check(figure("store_failures_total") == 0 and figure("store_batches_total") == 0, "failures or batches")
    # The figures of a running server: the histograms are read last, the wait of a store is recorded first.
    wait, disk = figure("store_wait_seconds_count"), figure("store_disk_seconds_count")
    check(stores <= disk <= wait + 1 <= stores + 4, f"{stores} stores, histograms count {wait} and {disk}")
    check(figure("store_disk_seconds_sum") >= disk * delay, "a store was faster than the slow disk")
    below = max((limit for limit in re.findall(r'store_disk_seconds_bucket\{le="([\d.]+)"', " ".join(figures))
                 if float(limit) <= delay), key=float)
    check(figure(f'store_disk_seconds_bucket{{le="{below}"}}') == 0, f"a store took less than {below} s")
    for name in ("load_wait", "load_disk", "store_wait", "store_disk"):
        buckets = [value for key, value in figures.items() if key.startswith(f"filemanager_{name}_seconds_bucket")]
        check(len(buckets) == 28 and buckets == sorted(buckets) and
              buckets[-1] == figure(f"{name}_seconds_count"), f"histogram {name}: {buckets}")


def check_other_requests(url):
    address = urlsplit(url)
    try:
        urlopen(url.replace("/metrics", "/other"), timeout=10)
        check(False, "a path that does not exist was answered")
    except HTTPError as error:
        check(error.code == 404, f"status {error.code} for a path that does not exist")
    for request in (b"nonsense\r\n", b"GET /metrics\r\n", b"GET metrics HTTP/1.1\r\n", bytes(8192)):
        with socket.create_connection((address.hostname, address.port), timeout=10) as connection:
            connection.sendall(request)
            try:
                check(connection.recv(1) == b"", f"an answer to {request[:20]!r}")
            except ConnectionResetError:  # the server had not read everything
                pass


def check_metrics(url, length, delay):
    address = urlsplit(url)
    with socket.create_connection((address.hostname, address.port)) as idle:
        idle.sendall(b"GET /metrics")  # a request that does not end must not delay others
        deadline = time.monotonic() + 10
        while (figures := fetch(url))["filemanager_stores_total"] == 0 and time.monotonic() < deadline:
            time.sleep(0.02)
        check_figures(figures, length, delay)
        check_other_requests(url)


def slow_disk(demo, program, library):
    """The figures of the server while it stores to a slow disk, and the longest turn of all event loops."""
    mib, delay = 4, 0.02
    command = [demo, program, "--sample", str(mib), "--seconds", "1", "--clients", "1",
               "--slow-disk", str(1000 * delay), "--slow-disk-library", library]
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True) as process:
        url, lines = "", []
        for line in process.stdout:
            lines.append(line)
            if found := re.search(r"server answers at (\S+)", line):
                url = url or found.group(1)
            if re.search(r"^  server +\d+ %", line):  # it has blocks
                check(url, "no address of the server's figures")
                check_metrics(url, mib << 20, delay)
                break
        lines += process.stdout.readlines()
    text = "".join(lines)
    check(process.returncode == 0, f"the conference failed:\n{text}")
    turn = re.search(r"^Longest turn of an event loop: ([\d.]+) ms, on \S+\. ", text, re.MULTILINE)
    # A generous limit: other processes may use the processors meanwhile.
    check(turn and 0 < float(turn.group(1)) < 1000, f"the longest turn:\n{text}")


# Chromium runs it in a copy of the page: reports where things are and what colour they should have. Lines are hidden,
# because their smooth edges can have the colour of an area.
PROBE = """{size,
  colours: all(document, ".legend i").map(e => [e.className, colour(e)]),
  lanes: all(document, ".lane").map(e => ({name: e.querySelector(".name").firstChild.data,
    box: box(e.querySelector(".plot")), marks: all(e, ".marks span").map(m => m.textContent)})),
  histograms: all(document, ".histogram").map(e => ({caption: e.querySelector(".caption").textContent,
    box: box(e.querySelector(".plot")),
    bars: all(e, "rect").map(b => [b.getAttribute("class"), b.textContent.match(/[0-9]+$/)[0]])})),
  maps: all(document, ".map").map(e => all(e, "i").map(c => [c.className, colour(c), box(c)]))}"""
STYLE = "<style>.plot line { visibility: hidden; }</style></body>"


def check_page(window, picture, blocks):
    found = window.probe()
    width, scrolled, height = found["size"]
    check(scrolled <= width == window.width, f"the page is wider than the window: {found['size']}")
    pixel = window.pixels(picture, height)
    check([lane["name"] for lane in found["lanes"]] == NODES, "other lanes")
    marks = {lane["name"]: [each.split()[0] for each in lane["marks"]] for lane in found["lanes"][:6]}
    check(marks["client-1"] == ["killed", "restarted", "complete"] and marks["visitor"] == ["killed"] and
          marks["server"] == ["stopped", "restarted"], f"other marks: {marks}")
    colours, below = dict(found["colours"]), 0
    for index, lane in enumerate(found["lanes"]):
        left, top, right, bottom = map(round, lane["box"])
        check(below <= top < bottom <= height and right - left > width / 2, f"place of {lane}")
        below = bottom
        seen = {pixel(x, y) for x in range(left, right) for y in range(top, bottom, 2)}
        has = {name for name in ("source", "peer", "sent")
               if any(near(colours[name], each) for each in seen)}
        expected = {"presenter": {"sent"}, "server": {"source", "sent"}, "latecomer": {"source"}}
        expected = {"sent"} if index == 6 else expected.get(lane["name"], {"source", "peer", "sent"})
        check(has == expected or lane["name"] == "visitor", f"{lane['name']} shows {has}")
    check_histograms(found["histograms"], blocks, colours, pixel)
    check([len(cells) for cells in found["maps"]] == [blocks] * 4, "other numbers of cells")
    for node, cells in zip(("server", "client-1", "client-2", "client-3"), found["maps"]):
        kinds = {kind for kind, _, _ in cells}
        check(kinds == ({"source"} if node == "server" else {"source", "peer"}), f"{node}: {kinds}")
        check(len({tuple(box) for _, _, box in cells}) == blocks, f"cells of {node} overlap")
        for kind, colour, (left, top, right, bottom) in cells:
            drawn = pixel(round((left + right) / 2), round((top + bottom) / 2))
            check(near(drawn, colour) and near(colour, colours[kind]), f"{node}: {drawn} for {kind}")


def check_histograms(histograms, blocks, colours, pixel):
    """Two of the conference, in which every block is stored, and two of the later run, which loads every block."""
    check([each["caption"].split(" ")[0] for each in histograms] == ["Wait", "Time"] * 2, "other histograms")
    for index, each in enumerate(histograms):
        shown = dict(re.findall(r"(\d+) (loads|stores)", each["caption"])[i][::-1] for i in (0, 1))
        sums = {name: sum(int(count) for kind, count in each["bars"] if kind == name) for name in shown}
        check(sums == {name: int(count) for name, count in shown.items()}, f"bars of {each}")
        check(sums["stores"] >= blocks if index < 2 else sums == {"loads": blocks, "stores": 0}, f"counts: {sums}")
        left, top, right, bottom = map(round, each["box"])
        seen = {pixel(x, y) for x in range(left, right) for y in range(top, bottom)}
        for name, count in sums.items():
            check(any(near(colours[name], drawn) for drawn in seen) == (count > 0), f"{name} of {each}")


def report(page, blocks):
    chromium = browser.find()
    if not chromium:
        sys.exit(SKIPPED)
    text = page.read_text(encoding="utf-8")
    check(browser.is_self_contained(text), "the page needs other files")
    with tempfile.TemporaryDirectory() as folder:
        copy = Path(folder, "page.html")
        copy.write_text(browser.with_probe(text.replace("</body>", STYLE), PROBE), encoding="utf-8")
        for width, dark in ((1100, False), (520, True)):
            picture = page.with_name(f"report-{width}.png")
            check_page(browser.Browser(chromium, copy, width, dark), picture, blocks)
            print(f"checked {picture}")


if sys.argv[1] == "report":
    report(Path(sys.argv[2]).resolve(), int(sys.argv[3]))
elif sys.argv[1] == "slow":
    slow_disk(*sys.argv[2:])
else:
    with tempfile.TemporaryDirectory() as scratch:
        no_progress(sys.argv[2], Path(scratch))
    pipe_format(*sys.argv[2:])
    narrow_terminal(*sys.argv[2:])
