#!/usr/bin/env python3
"""Tests of scripts/demo: demo_test.py output DEMO PROGRAM, or demo_test.py report PAGE BLOCKS."""
import collections
import fcntl
import json
import os
import pty
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import termios
import time
from html import unescape
from pathlib import Path

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
    frames = [each.split("\r\n\r\n")[0].splitlines() for each in output.decode().split("\x1b[J")[1:]]
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


# Chromium runs it in a copy of the page: reports where things are and what colour they should have. Lines are hidden,
# because their smooth edges can have the colour of an area.
PROBE = """<style>.plot line { visibility: hidden; }</style><pre id="probe" hidden></pre><script>
const box = e => { const r = e.getBoundingClientRect(); return [r.left, r.top, r.right, r.bottom]; };
const colour = e => getComputedStyle(e).backgroundColor.match(/[0-9]+/g).slice(0, 3).map(Number);
const all = (root, what) => [...root.querySelectorAll(what)];
document.getElementById("probe").textContent = JSON.stringify({
  size: [innerWidth, document.documentElement.scrollWidth, document.documentElement.scrollHeight],
  colours: all(document, ".legend i").map(e => [e.className, colour(e)]),
  lanes: all(document, ".lane").map(e => ({name: e.querySelector(".name").firstChild.data,
    box: box(e.querySelector(".plot")), marks: all(e, ".marks span").map(m => m.textContent)})),
  maps: all(document, ".map").map(e => all(e, "i").map(c => [c.className, colour(c), box(c)]))});
</script>"""


class Browser:
    def __init__(self, program, page, width, dark):
        self.command = [program, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                        "--no-first-run", "--disable-background-networking", "--disable-sync",
                        "--disable-component-update", "--hide-scrollbars",
                        f"--blink-settings=preferredColorScheme={0 if dark else 1}"]
        self.page, self.width = page, width

    def run(self, height, *arguments):
        with tempfile.TemporaryDirectory() as profile:
            return subprocess.run([*self.command, f"--user-data-dir={profile}", *arguments,
                                   f"--window-size={self.width},{height}", self.page.as_uri()],
                                  stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True).stdout

    def probe(self):
        dom = self.run(1000, "--dump-dom").decode()
        return json.loads(unescape(re.search(r'id="probe"[^>]*>(.*?)</pre>', dom, re.DOTALL).group(1)))

    def pixels(self, picture, height):
        self.run(height, f"--screenshot={picture}")
        ppm = subprocess.run(["convert", picture, "-depth", "8", "ppm:-"], stdout=subprocess.PIPE,
                             check=True).stdout
        header = re.match(rb"P6\s(\d+)\s\d+\s255\s", ppm)
        stride, start = int(header.group(1)), header.end()

        def pixel(x, y):
            at = start + 3 * (y * stride + x)
            return tuple(ppm[at:at + 3])
        return pixel


def near(colour, other):
    return all(abs(a - b) < 10 for a, b in zip(colour, other))


def check_page(browser, picture, blocks):
    found = browser.probe()
    width, scrolled, height = found["size"]
    check(scrolled <= width == browser.width, f"the page is wider than the window: {found['size']}")
    pixel = browser.pixels(picture, height)
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
    check([len(cells) for cells in found["maps"]] == [blocks] * 4, "other numbers of cells")
    for node, cells in zip(("server", "client-1", "client-2", "client-3"), found["maps"]):
        kinds = {kind for kind, _, _ in cells}
        check(kinds == ({"source"} if node == "server" else {"source", "peer"}), f"{node}: {kinds}")
        check(len({tuple(box) for _, _, box in cells}) == blocks, f"cells of {node} overlap")
        for kind, colour, (left, top, right, bottom) in cells:
            drawn = pixel(round((left + right) / 2), round((top + bottom) / 2))
            check(near(drawn, colour) and near(colour, colours[kind]), f"{node}: {drawn} for {kind}")


def report(page, blocks):
    chromium = shutil.which("chromium")
    if not chromium or not shutil.which("convert"):
        print("skipped: needs chromium, and convert of ImageMagick")
        sys.exit(SKIPPED)
    text = page.read_text(encoding="utf-8")
    check(not re.search(r"""(src|href)=|url\(|@import|https?:""", text), "the page needs other files")
    with tempfile.TemporaryDirectory() as folder:
        copy = Path(folder, "page.html")
        copy.write_text(text.replace("</body>", PROBE + "</body>"), encoding="utf-8")
        for width, dark in ((1100, False), (520, True)):
            picture = page.with_name(f"report-{width}.png")
            check_page(Browser(chromium, copy, width, dark), picture, blocks)
            print(f"checked {picture}")


if sys.argv[1] == "report":
    report(Path(sys.argv[2]).resolve(), int(sys.argv[3]))
else:
    with tempfile.TemporaryDirectory() as scratch:
        no_progress(sys.argv[2], Path(scratch))
    pipe_format(*sys.argv[2:])
    narrow_terminal(*sys.argv[2:])
