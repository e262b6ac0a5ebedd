#!/usr/bin/env python3
"""Draws the benchmark results as SVG.

usage: chart.py comparison COMPARISON.json OUTPUT.svg
       chart.py growth GROWTH.json COMPARISON.json OUTPUT.svg

COMPARISON.json is the output of compare.py. GROWTH.json is the --benchmark_out file of growth_bench.
"""
import json
import math
import sys
from xml.sax.saxutils import escape

import table

STYLE = """
  text { font: 12px system-ui, sans-serif; fill: #1f2328; }
  .title { font-weight: 600; font-size: 13px; } .head { font-weight: 600; font-size: 17px; }
  .small { font-size: 11px; fill: #59636e; } .bold { font-weight: 600; }
  .axis { stroke: #d8dee4; stroke-width: 1; } .one { stroke: #c9a227; stroke-width: 2; }
  .other { fill: #6e7781; stroke: #6e7781; } .own { fill: #1a7f5a; stroke: #1a7f5a; }
  .plain { fill: #c9a227; stroke: #c9a227; } .stem { stroke-width: 2; }
  .line { fill: none; stroke: #1a7f5a; stroke-width: 2; }
  .value { paint-order: stroke; stroke: #ffffff; stroke-width: 4; }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3; } .small { fill: #9198a1; } .axis { stroke: #3d444d; } .one { stroke: #d9b84a; }
    .other { fill: #9aa4af; stroke: #9aa4af; } .own { fill: #3fb68b; stroke: #3fb68b; }
    .plain { fill: #d9b84a; stroke: #d9b84a; } .line { stroke: #3fb68b; }
    .value { stroke: #0d1117; }
  }"""
WIDTH = 860


def text(x, y, content, kind="", anchor="start"):
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{kind}" text-anchor="{anchor}">{escape(content)}</text>'


def line(x1, y1, x2, y2, kind):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{kind}"/>'


def dot(x, y, radius, kind):
    return f'<circle cx="{x:.1f}" cy="{y:.1f}" r="{radius}" class="{kind}"/>'


def write_svg(path, height, parts):
    with open(path, "w", encoding="utf-8") as file:
        file.write(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height:.0f}" '
                   f'width="{WIDTH}" height="{height:.0f}">\n<style>{STYLE}\n</style>\n')
        file.write("\n".join(parts) + "\n</svg>\n")


class LogScale:
    """Maps the range from `low` to `high` logarithmically to `length` pixels from `start`."""

    def __init__(self, low, high, start, length):
        self.low, self.span = math.log10(low), math.log10(high) - math.log10(low)
        self.start, self.length = start, length

    def at(self, value):
        return self.start + (math.log10(value) - self.low) / self.span * self.length

    def decades(self):
        """The powers of ten in the range."""
        first, last = math.ceil(self.low - 1e-9), math.floor(self.low + self.span + 1e-9)
        return [10.0 ** exponent for exponent in range(first, last + 1)]


# --- The comparison ------------------------------------------------------------------------------

COLUMN, LEFT, PLOT, ROW = 430, 116, 178, 17
EXPLANATION = [
    "The line at 1.0 is the speed of plain calls. A dot to its right is faster, a dot to its left is slower; "
    "0.5 takes twice as long. Logarithmic axis.",
    "Every file is in the operating system’s page cache: nothing is read from the disk, and no write waits for it.",
    "When blocks are read, 1.0 is “plain calls, kept”: each block gets its own memory, as in a cache. "
    "“plain calls” reuses one buffer."]
KINDS = {"filemanager": "own", "plaincalls": "plain", "plaincalls_kept": "plain"}


def ratios_of(workload, results):
    return {name: table.ratio(workload, results, name) for name in results}


def panel(workload, results, everyone, scale, left, top):
    """One workload: a row for each participant, fastest first. All panels have the same horizontal axis."""
    row, ratios = table.ROWS[workload], ratios_of(workload, results)
    value_right, ratio_right = left + COLUMN - 70, left + COLUMN - 18
    bottom = top + 36 + ROW * len(ratios)
    parts = [text(left + 12, top + 14, row.title, "title"), text(value_right, top + 30, row.unit, "small", "end"),
             text(ratio_right, top + 30, "relative", "small", "end")]
    for decade in scale.decades():
        x = left + scale.at(decade)
        parts += [line(x, top + 34, x, bottom, "one" if decade == 1 else "axis"),
                  text(x, bottom + 13, "1.0" if decade == 1 else f"{decade:g}", "bold" if decade == 1 else "small",
                       "middle")]
    for place, name in enumerate(sorted(ratios, key=ratios.get, reverse=True)):
        y, kind = top + 36 + (place + 0.5) * ROW, KINDS.get(name, "other")
        weight = "bold" if kind == "own" else ""
        parts += [text(left + LEFT - 8, y + 4, table.NAMES[name], weight, "end"),
                  line(left + scale.at(1), y, left + scale.at(ratios[name]), y, f"stem {kind}"),
                  dot(left + scale.at(ratios[name]), y, 4.5, kind),
                  text(value_right, y + 4, table.number(row.measure(results[name])), "small", "end"),
                  text(ratio_right, y + 4, table.ratio_text(ratios[name]), weight, "end")]
    absent = [table.NAMES[name] for name in everyone if name not in results]
    if absent:
        parts += [text(left + 12, bottom + 30, f"{row.absent_because}: " + ", ".join(absent), "small")]
    return parts


def panel_height(results, everyone):
    return 36 + ROW * len(results) + (42 if len(results) < len(everyone) else 26)


def legend(y):
    parts, x = [], 16
    for kind, content in (("own", "this library"), ("other", "other stores"),
                          ("plain", "plain calls: the same work done with pread, pwrite and memcpy only")):
        parts += [dot(x, y - 4, 4.5, kind), text(x + 10, y, content)]
        x += 30 + 7 * len(content)
    return parts


def draw_comparison(report, path):
    workloads = report["workloads"]
    everyone = [name for name in workloads["write"] if name != "plaincalls_kept"]
    values = [ratio for workload, results in workloads.items() for ratio in ratios_of(workload, results).values()]
    scale = LogScale(min(values) / 1.25, max(values) * 1.25, LEFT, PLOT)
    parts = [text(12, 24, "How fast is the library, compared with plain system calls?", "head"),
             *(text(12, 44 + 17 * place, content) for place, content in enumerate(EXPLANATION)),
             *legend(100), text(12, 120, table.machine_line(report), "small")]
    tops = [134.0, 134.0]
    for place, (workload, results) in enumerate(workloads.items()):
        side = place % 2
        parts += panel(workload, results, everyone, scale, side * COLUMN, tops[side])
        tops[side] += panel_height(results, everyone) + 10
        if side == 1:
            tops = [max(tops)] * 2
    if report["missing"]:
        names = ", ".join(table.NAMES[name] for name in report["missing"])
        parts.append(text(12, max(tops) + 8, f"Not installed: {names}", "small"))
        tops = [max(tops) + 20] * 2
    write_svg(path, max(tops), parts)


# --- Growth --------------------------------------------------------------------------------------

# Benchmark: title, what the time is divided by, what the horizontal axis counts, the object whose memory is shown.
GROWTH = {
    "CreateFile": ("Create a file", "per file", "open files", "file"),
    "FindFile": ("Find an open file", "per file, random order", "open files", None),
    "TickOverFiles": ("Run the 60 s timer", "per idle open file", "open files", None),
    "DetachFile": ("Close a temporary file", "per file", "open files", None),
    "CreateBlock": ("Create a block", "per block", "blocks of the file", "block"),
    "FindBlock": ("Find a block", "per block, random order", "blocks of the file", None),
    "CollectOverSlots": ("Look for blocks to evict", "per block", "blocks of the file", None),
    "CloseFile": ("Close a file", "per block", "blocks of the file", None),
    "LoadFile": ("Open a stored file", "per block", "blocks of the file", "block"),
    "AddRetrieve": ("Record a request", "per request", "requests for the block", "request"),
    "GetRetrieveType": ("Answer a request", "per request", "requests for the block", None),
    "CancelRetrieve": ("Cancel a request", "per request, random order", "requests for the block", None),
}
COLUMNS, CELL, CELL_HEIGHT = 3, 282, 208


def growth_points(measured):
    """Time of one operation and bytes of one object, by the number of objects."""
    points = {}
    for run in measured["benchmarks"]:
        if run.get("aggregate_name") != "median":
            continue
        name, count = run["run_name"].split("/")[:2]
        points.setdefault(name, []).append((int(count), run["real_time"], run["bytes"]))
    return points


def short(count):
    if count >= 1_000_000:
        return f"{count / 1_000_000:g}M"
    return f"{count / 1000:g}k" if count >= 1000 else f"{count:g}"


def duration(nanoseconds):
    for unit, size in (("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def whole_decades(values):
    """The powers of ten around the values, at least two decades apart."""
    low, high = math.floor(math.log10(min(values))), math.ceil(math.log10(max(values)))
    return 10.0 ** low, 10.0 ** max(high, low + 2)


def growth_cell(name, points, left, top):
    title, per, of_what, memory_of = GROWTH[name]
    counts, times, sizes = zip(*sorted(points))
    plot_left, plot_right, plot_top, plot_bottom = left + 52, left + CELL - 24, top + 40, top + 150
    across = LogScale(*whole_decades(counts), plot_left, plot_right - plot_left)
    upward = LogScale(*whole_decades(times), plot_bottom, plot_top - plot_bottom)
    parts = [text(left + 8, top + 14, title, "title"), text(left + 8, top + 28, per, "small")]
    for decade in upward.decades():
        y = upward.at(decade)
        parts += [line(plot_left, y, plot_right, y, "axis"),
                  text(plot_left - 5, y + 4, duration(decade), "small", "end")]
    where = [(across.at(count), upward.at(time)) for count, time in zip(counts, times)]
    path = " ".join(f"{x:.1f},{y:.1f}" for x, y in where)
    parts.append(f'<polyline points="{path}" class="line"/>')
    for (x, y), count in zip(where, counts):
        parts += [dot(x, y, 2.5, "own"), text(x, plot_bottom + 14, short(count), "small", "middle")]
    parts += [text(where[0][0], where[0][1] - 8, duration(times[0]), "value", "start"),
              text(where[-1][0], min(where[-1][1], where[-2][1]) - 8, duration(times[-1]), "value", "end"),
              text((plot_left + plot_right) / 2, plot_bottom + 28, of_what, "small", "middle")]
    if memory_of:
        parts.append(text(plot_right, top + 28, f"{sizes[-1]:,.0f} bytes per {memory_of}", "small", "end"))
    return parts


def draw_growth(measured, report, path):
    points = growth_points(measured)
    parts = [text(12, 24, "How does the time of one operation grow with the number of objects?", "head"),
             text(12, 44, "A flat line means that the cost of one operation does not depend on the number of objects. "
                          "Both axes are logarithmic."),
             text(12, 62, table.machine_line(report).split(";", maxsplit=1)[0] + "; medians of 3 runs", "small")]
    shown = [name for name in GROWTH if name in points]
    for place, name in enumerate(shown):
        left, top = 4 + place % COLUMNS * CELL, 78 + place // COLUMNS * CELL_HEIGHT
        parts += growth_cell(name, points[name], left, top)
    write_svg(path, 78 + math.ceil(len(shown) / COLUMNS) * CELL_HEIGHT, parts)


def load(path):
    with open(path, encoding="utf-8") as file:
        return json.load(file)


def main():
    if sys.argv[1] == "comparison":
        draw_comparison(load(sys.argv[2]), sys.argv[3])
    else:
        draw_growth(load(sys.argv[2]), load(sys.argv[3]), sys.argv[4])


if __name__ == "__main__":
    main()
