#!/usr/bin/env python3
"""Draws what was measured.

usage: chart.py comparison COMPARISON.json OUTPUT.svg
       chart.py growth GROWTH.json COMPARISON.json OUTPUT.svg

The first file of "growth" is what the growth benchmark writes with --benchmark_out.
"""
import json
import math
import sys
from xml.sax.saxutils import escape

import table

STYLE = """
  text { font: 12px system-ui, sans-serif; fill: #1f2328; }
  .title { font-weight: 600; font-size: 13px; } .head { font-weight: 600; font-size: 16px; }
  .small { font-size: 10.5px; fill: #59636e; } .axis { stroke: #c8cfd6; stroke-width: 1; }
  .bar { fill: #6e7781; } .own { fill: #1a7f5a; } .limit { fill: #c9a227; }
  .line { fill: none; stroke: #1a7f5a; stroke-width: 2; } .dot { fill: #1a7f5a; }
  .memory { stroke: #b35900; stroke-dasharray: 5 3; } .memorydot { fill: #b35900; }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3; } .small { fill: #9198a1; } .axis { stroke: #3d444d; }
    .bar { fill: #9aa4af; } .own { fill: #3fb68b; } .limit { fill: #d9b84a; }
    .line { stroke: #3fb68b; } .dot { fill: #3fb68b; } .memory { stroke: #f0883e; } .memorydot { fill: #f0883e; }
  }"""


def text(x, y, content, kind="", anchor="start"):
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{kind}" text-anchor="{anchor}">{escape(content)}</text>'


def write_svg(path, width, height, parts):
    with open(path, "w", encoding="utf-8") as file:
        file.write(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height:.0f}" '
                   f'width="{width}" height="{height:.0f}">\n<style>{STYLE}\n</style>\n')
        file.write("\n".join(parts) + "\n</svg>\n")


def decades(low, high):
    return range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1)


class LogScale:
    """Whole decades, from the one below the least to the one above the most, two at the least."""

    def __init__(self, values, start, length):
        self.exponents = decades(min(values), max(values))
        if len(self.exponents) < 3:
            self.exponents = range(self.exponents[0], self.exponents[0] + 3)
        self.start, self.length = start, length

    def at(self, value):
        span = max(1, self.exponents[-1] - self.exponents[0])
        return self.start + (math.log10(value) - self.exponents[0]) / span * self.length


def short(value):
    if value >= 1_000_000:
        return f"{value / 1_000_000:g}M"
    return f"{value / 1000:g}k" if value >= 1000 else f"{value:g}"


def tick(exponent):
    return short(10.0 ** exponent)


# --- The comparison ------------------------------------------------------------------------------

WIDTH, LEFT, BARS, ROW = 860, 110, 560, 17


def panel(workload, results, top):
    title, unit, measure, more_is_better = table.ROWS[workload]
    values = {name: measure(result) for name, result in results.items()}
    scale = LogScale(values.values(), LEFT, BARS)
    better = "more is better" if more_is_better else "less is better"
    parts = [text(12, top + 14, title, "title"),
             text(WIDTH - 12, top + 14, f"{unit}, {better}", "small", "end")]
    bottom = top + 24 + ROW * len(values)
    for exponent in scale.exponents:
        x = scale.at(10.0 ** exponent)
        parts.append(f'<line x1="{x:.1f}" y1="{top + 22}" x2="{x:.1f}" y2="{bottom}" class="axis"/>')
        parts.append(text(x, bottom + 12, tick(exponent), "small", "middle"))
    order = sorted(values, key=values.get, reverse=more_is_better)
    for row, name in enumerate(order):
        y = top + 25 + row * ROW
        kind = {"filemanager": "own", "limit": "limit", "kept": "limit"}.get(name, "bar")
        end = scale.at(values[name])
        parts.append(text(LEFT - 8, y + 11, table.NAMES[name], "", "end"))
        # Dots and no bars: on a logarithmic axis the length of a bar means nothing.
        parts.append(f'<line x1="{LEFT}" y1="{y + 7}" x2="{LEFT + BARS}" y2="{y + 7}" class="axis"/>')
        parts.append(f'<circle cx="{end:.1f}" cy="{y + 7}" r="5" class="{kind}"/>')
        ratio = table.ratio(workload, results, name)
        parts.append(text(LEFT + BARS + 12, y + 11, f"{table.number(values[name])}  ({ratio:.2f})", "small"))
    return parts, bottom + 30


def draw_comparison(report, path):
    parts = [text(12, 24, "The library beside others and beside the limit", "head"),
             text(12, 42, table.machine_line(report), "small"),
             text(12, 57, "Logarithmic axes. In brackets: in relation to the limit, 1 is as good and less is worse.", "small")]
    top = 72.0
    for workload, results in report["workloads"].items():
        drawn, top = panel(workload, results, top)
        parts += drawn
    if report["missing"]:
        names = ", ".join(table.NAMES[name] for name in report["missing"])
        parts.append(text(12, top + 8, f"Left out, not installed: {names}", "small"))
        top += 20
    write_svg(path, WIDTH, top, parts)


# --- Growth --------------------------------------------------------------------------------------

GROWTH = {
    "CreateFile": ("create a file", "open files"), "FindFile": ("find an open file", "open files"),
    "TickOverFiles": ("tick, each idle file", "open files"),
    "DetachFile": ("close a temporary file", "open files"),
    "CreateBlock": ("create a block", "slots"), "FindBlock": ("find a block", "slots"),
    "CollectOverSlots": ("collect memory, each slot", "slots"),
    "CloseFile": ("close a file, each block", "slots"), "LoadFile": ("load a file, each block", "slots"),
    "AddRetrieve": ("record a request", "requests"), "GetRetrieveType": ("answer a request", "requests"),
    "CancelRetrieve": ("cancel any request", "requests"),
}
COLUMNS, CELL, CELL_HEIGHT = 3, 282, 190
SMALLEST_OBJECT = 16


def growth_points(measured):
    """Time of one operation and bytes of one object, by the number of objects."""
    points = {}
    for run in measured["benchmarks"]:
        if run.get("aggregate_name") != "median":
            continue
        name, count = run["run_name"].split("/")[:2]
        points.setdefault(name, []).append((int(count), run["real_time"], run["bytes"]))
    return points


def curve(xs, ys, across, up, kind, dot):
    path = " ".join(f"{across.at(x):.1f},{up(y):.1f}" for x, y in zip(xs, ys))
    dots = [f'<circle cx="{across.at(x):.1f}" cy="{up(y):.1f}" r="2.5" class="{dot}"/>' for x, y in zip(xs, ys)]
    return [f'<polyline points="{path}" class="line {kind}"/>'] + dots


def growth_cell(name, points, left, top):
    title, of_what = GROWTH[name]
    counts, times, sizes = zip(*sorted(points))
    # An object that only found room in what malloc had at hand shows no size; few of them do.
    memory = [(count, size) for count, size in zip(counts, sizes) if size >= 1]
    has_memory = max(sizes) >= SMALLEST_OBJECT
    values = list(times) + [size for _, size in memory if has_memory]
    across, height = LogScale(counts, left + 40, CELL - 64), CELL_HEIGHT - 66
    upward = LogScale(values, 0, height)

    def up(value):
        return top + 28 + height - upward.at(value)

    parts = [text(left + 8, top + 14, title, "title")]
    for exponent in upward.exponents:
        y = up(10.0 ** exponent)
        parts.append(f'<line x1="{left + 40}" y1="{y:.1f}" x2="{left + CELL - 24}" y2="{y:.1f}" class="axis"/>')
        parts.append(text(left + 36, y + 4, tick(exponent), "small", "end"))
    for count in counts:
        parts.append(text(across.at(count), top + height + 42, short(count), "small", "middle"))
    parts.append(text(left + CELL / 2, top + height + 56, of_what, "small", "middle"))
    parts += curve(counts, times, across, up, "", "dot")
    if has_memory:
        parts += curve(*zip(*memory), across, up, "memory", "memorydot")
    return parts


def draw_growth(measured, report, path):
    points = growth_points(measured)
    parts = [text(12, 24, "Cost as the work grows", "head"),
             text(12, 42, table.machine_line(report).split(";", maxsplit=1)[0] + "; medians", "small"),
             text(12, 57, "Line: nanoseconds of one operation. Dashed: bytes of one object. Both axes are "
                          "logarithmic; flat is best.", "small")]
    shown = [name for name in GROWTH if name in points]
    for place, name in enumerate(shown):
        left, top = 4 + place % COLUMNS * CELL, 72 + place // COLUMNS * CELL_HEIGHT
        parts += growth_cell(name, points[name], left, top)
    write_svg(path, WIDTH, 72 + math.ceil(len(shown) / COLUMNS) * CELL_HEIGHT, parts)


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
