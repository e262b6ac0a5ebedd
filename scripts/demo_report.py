"""Makes the report of a demonstration conference: one HTML page that needs no other file."""
import math
from html import escape

MIB = 1 << 20
BINS = 120  # most steps of a lane
BIN_SECONDS = 0.25  # shortest step; nodes report five times in a second
CELLS = 480  # most cells of a block map
SOURCE, PEERS, SENT = 2, 3, 4  # positions in a node's totals
EDGE_LABELS = 6  # most labels below a histogram, about

STYLE = """
:root { color-scheme: light dark; --page: #ffffff; --card: #f5f7f9; --text: #17202a; --soft: #56616d;
  --line: #d3d9df; --source: #1763b6; --peers: #c95c06; --sent: #66788a; --mark: #a3161c; --down: #a3161c22; }
@media (prefers-color-scheme: dark) { :root { --page: #11161c; --card: #1a2129; --text: #e8edf2;
  --soft: #a2adb9; --line: #37414c; --source: #5aa7f2; --peers: #f2a049; --sent: #8fa1b3;
  --mark: #ff8f8a; --down: #ff8f8a2b; } }
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 2rem 1.25rem 3rem; max-width: 68rem; background: var(--page);
  color: var(--text); font: 1rem/1.5 system-ui, "Segoe UI", "Noto Sans", "DejaVu Sans", sans-serif; }
h1 { font-size: 1.7rem; line-height: 1.2; margin: 0 0 .3rem; overflow-wrap: anywhere; }
h2 { font-size: 1.2rem; margin: 2.4rem 0 .3rem; }
h3 { font-size: 1rem; margin: 1.4rem 0 .3rem; }
p { margin: 0 0 .8rem; max-width: 46rem; }
.soft, small { color: var(--soft); font-weight: 400; }
.figures { display: flex; flex-wrap: wrap; gap: .8rem; margin: 1.2rem 0 0; padding: 0; }
.figures div { flex: 1 1 9rem; padding: .7rem 1rem; border-radius: .5rem; background: var(--card); }
.figures b { display: block; font-size: 1.5rem; line-height: 1.3; font-variant-numeric: tabular-nums; }
.legend { display: flex; flex-wrap: wrap; gap: .2rem 1.2rem; margin: .4rem 0 .8rem; padding: 0;
  list-style: none; font-size: .875rem; }
.legend i { display: inline-block; width: .8rem; height: .8rem; margin-right: .4rem; border-radius: 2px; }
.lane { display: grid; grid-template-columns: 9rem 3.2rem 1fr; }
.lane + .lane { margin-top: .7rem; }
.name { font-weight: 600; line-height: 1.3; }
.name small { display: block; font-weight: 400; font-size: .78rem; }
.scale, .marks, .axis, .unit { position: relative; font-size: .75rem; color: var(--soft); }
.unit { grid-column: 2; align-self: end; text-align: right; padding-right: .4rem; }
.scale span { position: absolute; right: .4rem; transform: translateY(-50%); line-height: 1; }
.marks { grid-column: 3; height: 1.15rem; }
.marks.two { height: 2.15rem; }
.marks span { position: absolute; bottom: 0; color: var(--mark); white-space: nowrap; line-height: 1.2; }
.marks .ok { color: var(--soft); }
.marks .left { transform: translateX(-100%); }
.marks .high { bottom: 1rem; }
.plot { display: block; width: 100%; height: 6rem; background: var(--card); }
.axis { height: 2.6rem; margin-left: 12.2rem; }
.axis span { position: absolute; top: .3rem; transform: translateX(-50%); }
.axis b { position: absolute; top: 1.3rem; width: 100%; text-align: center; font-weight: 400; }
.source { fill: var(--source); background: var(--source); }
.peer { fill: var(--peers); background: var(--peers); }
.loads { fill: var(--source); background: var(--source); }
.stores { fill: var(--peers); background: var(--peers); }
.sent, .stored { fill: var(--sent); background: var(--sent); }
.grid { stroke: var(--line); } .zero { stroke: var(--soft); } .mark { stroke: var(--mark); stroke-width: 2; }
.grid, .zero, .mark, .ok { vector-effect: non-scaling-stroke; }
line.ok { stroke: var(--soft); stroke-dasharray: 3 3; }
.down { fill: var(--down); }
.pair { display: grid; grid-template-columns: repeat(auto-fit, minmax(min(22rem, 100%), 1fr)); gap: .7rem 2rem; }
.histogram { display: grid; grid-template-columns: 3.2rem 1fr; }
.histogram .caption { grid-column: 2; font-size: .875rem; }
.histogram .axis { grid-column: 2; height: 1.6rem; margin: 0; white-space: nowrap; }
.map { display: grid; grid-template-columns: repeat(auto-fill, 11px); gap: 2px; }
.map i { height: 11px; border-radius: 2px; }
.missing { border: 1px solid var(--soft); }
.damaged { background: var(--mark); border: 3px double var(--page); }
.scroll { overflow-x: auto; }
table { border-collapse: collapse; font-size: .9rem; font-variant-numeric: tabular-nums; }
th, td { padding: .25rem 1.2rem .25rem 0; text-align: right; }
td { white-space: nowrap; }
th:first-child, td:first-child { text-align: left; }
th { font-weight: 600; } tr { border-bottom: 1px solid var(--line); }
code { font-size: .85em; overflow-wrap: anywhere; }
@media (max-width: 40rem) {
  .lane { grid-template-columns: 2.8rem 1fr; }
  .name { grid-column: 1 / 3; grid-row: 1; } .name small { display: inline; margin-left: .5rem; }
  .unit { grid-column: 1; } .marks { grid-column: 2; } .axis { margin-left: 2.8rem; }
}
@media print { .plot, .map i, .legend i { print-color-adjust: exact; } }
"""


def mib(count):
    return f"{count / MIB:,.1f} MiB"


def nice(value):
    """The next higher round number."""
    power = 10 ** math.floor(math.log10(max(value, 0.1)))
    return next(step * power for step in (1, 2, 2.5, 5, 10) if step * power >= value * 0.999)


def at(history, seconds, key):
    """A total at a time, by linear interpolation between two reports."""
    before, value = 0, 0
    for time, total in history:
        if time >= seconds:
            part = (seconds - before) / (time - before) if time > before else 1
            return value + part * (total[key] - value)
        before, value = time, total[key]
    return value


def rates(node, edges, key):
    """MiB per second between each pair of neighbouring edges."""
    totals = [at(node["history"], edge, key) for edge in edges]
    return [(after - before) / MIB / (right - left) for before, after, left, right
            in zip(totals, totals[1:], edges, edges[1:])]


def area(lower, upper, place):
    """A path between two step lines; `place` maps a value to a vertical position."""
    step = 1000 / len(upper)

    def line(values):
        return [f"{(i + side) * step:.1f} {place(value):.1f}"
                for i, value in enumerate(values) for side in (0, 1)]
    return "M" + "L".join(line(upper) + line(lower)[::-1]) + "Z"


def downtimes(node, end):
    """The intervals without a process."""
    since = None
    for seconds, event in node["marks"] + [(end, "started")]:
        if event in ("killed", "stopped"):
            since = seconds
        elif since is not None and event in ("started", "restarted"):
            yield since, min(seconds, end)
            since = None


def lane(node, edges, high, low):
    end, zero = edges[-1], 100 * high / (high + low)

    def place(value):
        return zero - 100 * value / (high + low)

    def across(seconds):
        return 1000 * seconds / end
    source, peers, sent = (rates(node, edges, key) for key in (SOURCE, PEERS, SENT))
    both = [a + b for a, b in zip(source, peers)]
    none = [0] * len(both)
    shapes = [f'<line class="grid" x1="{across(x):.1f}" x2="{across(x):.1f}" y2="100"/>'
              for x in ticks(end)]
    shapes += [f'<rect class="down" x="{across(a):.1f}" width="{across(b - a):.1f}" height="100"/>'
               for a, b in downtimes(node, end)]
    for name, lower, upper in (("source", none, source), ("peer", source, both),
                               ("sent", none, [-each for each in sent])):
        if any(upper[i] != lower[i] for i in range(len(upper))):
            shapes.append(f'<path class="{name}" d="{area(lower, upper, place)}"/>')
    shapes.append(f'<line class="zero" x2="1000" y1="{zero:.1f}" y2="{zero:.1f}"/>')
    labels, last = [], -100
    for seconds, event in node["marks"]:
        if event in ("started", "ended"):
            continue
        x, kind = across(seconds), "ok" if event == "complete" else "mark"
        shapes.append(f'<line class="{kind}" x1="{x:.1f}" x2="{x:.1f}" y2="100"/>')
        high_row = x - last < 220 and "high" not in (labels[-1] if labels else "")
        kind = " ".join(filter(None, [kind if kind == "ok" else "", "left" if x > 800 else "",
                                      "high" if high_row else ""]))
        labels.append(f'<span class="{kind}" style="left:{x / 10:.1f}%">{event} {seconds:.1f} s</span>')
        last = x
    two = " two" if any("high" in label for label in labels) else ""
    received = node["total"][SOURCE] + node["total"][PEERS]
    received = f'<small class="soft">received {mib(received)}</small>' if received else ""
    scale = "".join(f'<span style="top:{top:.1f}%">{text}</span>' for top, text in
                    ((7, f"{high:g}"), (zero, "0"), (93, f"{low:g}")))
    return (f'<div class="lane"><div class="unit">MiB/s</div>'
            f'<div class="marks{two}">{"".join(labels)}</div>'
            f'<div class="name">{escape(node["name"])}{received}'
            f'<small class="soft">sent {mib(node["total"][SENT])}</small></div>'
            f'<div class="scale">{scale}</div>'
            f'<svg class="plot" viewBox="0 0 1000 100" preserveAspectRatio="none" role="img" '
            f'aria-label="{escape(node["name"])}: transfer rate over time">{"".join(shapes)}</svg></div>')


def ticks(end):
    step = nice(end / 8)
    return [i * step for i in range(int(end / step * 1.0001) + 1)]


def lanes(run):
    end = max(run["seconds"], BIN_SECONDS)
    count = max(1, min(BINS, int(end / BIN_SECONDS)))
    edges = [end * i / count for i in range(count + 1)]
    nodes = run["nodes"]
    high = nice(max(a + b for node in nodes for a, b in
                    zip(rates(node, edges, SOURCE), rates(node, edges, PEERS))))
    low = nice(max(each for node in nodes for each in rates(node, edges, SENT)))
    axis = "".join(f'<span style="left:{100 * x / end:.1f}%">{x:g}</span>' for x in ticks(end))
    return (f'<h3>{escape(run["title"])}</h3>' +
            "".join(lane(node, edges, high, low) for node in nodes) +
            f'<div class="axis">{axis}<b>seconds since the start</b></div>')


def legend(entries):
    return '<ul class="legend">' + "".join(
        f'<li><i class="{name}"></i>{text}</li>' for name, text in entries) + "</ul>"


def duration(us):
    for limit, unit in ((1000, "µs"), (1000, "ms"), (math.inf, "s")):
        if us < limit:
            return f"{us:.1f}".removesuffix(".0") + f" {unit}" if us < 10 else f"{us:.0f} {unit}"
        us /= limit


def interval(bucket, last):
    """The durations that a bucket counts; see FMHistogram."""
    if bucket == 0:
        return f"below {duration(1)}"
    low, high = duration(2 ** (bucket - 1)), duration(2 ** bucket)
    return f"{low} or longer" if bucket == last else f"{low} to {high}"


def histogram(title, loads, stores, first, end):
    """Two bars per bucket, for the buckets from `first` to `end` - 1."""
    high, step = nice(max(loads + stores)), 1000 / (end - first)
    bars = []
    for side, name, counts in ((0.08, "loads", loads), (0.5, "stores", stores)):
        for bucket in range(first, end):
            if counts[bucket] > 0:
                height = max(1, 100 * counts[bucket] / high)  # one operation of many stays visible
                bars.append(f'<rect class="{name}" x="{(bucket - first + side) * step:.1f}" width="{0.42 * step:.1f}" '
                            f'y="{100 - height:.1f}" height="{height:.1f}"><title>'
                            f'{interval(bucket, len(counts) - 1)}, {name}: {counts[bucket]}</title></rect>')
    every = math.ceil((end - first) / EDGE_LABELS)
    axis = "".join(f'<span style="left:{(edge - first) * step / 10:.1f}%">{duration(2 ** (edge - 1)) if edge else 0}'
                   '</span>' for edge in range(first, end, every))
    caption = f"{sum(loads)} loads, {sum(stores)} stores"
    return (f'<div class="histogram"><div class="caption"><b>{title}</b> <span class="soft">{caption}</span></div>'
            f'<div class="scale"><span style="top:7%">{high:g}</span><span style="top:93%">0</span></div>'
            f'<svg class="plot" viewBox="0 0 1000 100" preserveAspectRatio="none" role="img" '
            f'aria-label="{title}: {caption}">{"".join(bars)}</svg>'
            f'<div class="axis">{axis}</div></div>')


def latencies(runs):
    """Two histograms for the server of each run, all with the same horizontal scale."""
    servers = [(run["title"], node["histograms"]) for run in runs for node in run["nodes"]
               if node["role"] == "server" and any(map(any, node["histograms"].values()))]
    used = [bucket for _, each in servers for counts in each.values()
            for bucket, count in enumerate(counts) if count > 0]
    return "".join(
        f'<h3>{escape(title)}</h3><div class="pair">' +
        "".join(histogram(what, each[f"load_{key}"], each[f"store_{key}"], min(used), max(used) + 1)
                for what, key in (("Wait in the queue", "wait"), ("Time on the disk", "disk"))) + "</div>"
        for title, each in servers)


def block_map(cache):
    blocks = {number: (state, origin) for number, state, origin in cache["blocks"]}
    per_cell = max(1, math.ceil(cache["slots"] / CELLS))
    cells = []
    for first in range(1, cache["slots"] + 1, per_cell):
        last = min(first + per_cell - 1, cache["slots"])
        found = [blocks.get(number, ("missing", "")) for number in range(first, last + 1)]
        states = {state for state, _ in found}
        origins = [origin for _, origin in found]
        if states == {"stored"}:
            kind = max(("source", "peer", "stored"), key=lambda each: origins.count(
                "" if each == "stored" else each))
        else:
            kind = "missing" if states <= {"stored", "missing"} else "damaged"
        number = f"block {first}" if first == last else f"blocks {first} to {last}"
        origin = {"source": ", from the server or presenter", "peer": ", from peers"}.get(kind, "")
        cells.append(f'<i class="{kind}" title="{number}: {", ".join(sorted(states))}{origin}"></i>')
    size = f"A cell is {per_cell} block{'s' * (per_cell > 1)}." if cells else ""
    return (f'<h3>{escape(cache["name"])} <small>{escape(cache["text"])}. {size}</small></h3>'
            f'<div class="map" role="img" aria-label="block map of {escape(cache["name"])}">'
            f'{"".join(cells)}</div>' if cells else
            f'<h3>{escape(cache["name"])} <small>{escape(cache["text"])}</small></h3>')


def table(nodes):
    rows = "".join(f"<tr><td>{escape(node['name'])}</td>" + "".join(
        f"<td>{node['total'][key] / MIB:,.1f}</td>" for key in (SOURCE, PEERS, SENT)) + "</tr>"
        for node in nodes)
    return ('<div class="scroll"><table><tr><th>MiB</th><th>received from presenter or server</th>'
            f"<th>received from peers</th><th>sent</th></tr>{rows}</table></div>")


def page(report):
    main = report["runs"][0]
    share = 100 * report["saved"] / max(1, report["received"])
    clients = sum(node["role"] == "client" for node in main["nodes"])
    figures = "".join(f"<div><b>{value}</b>{text}</div>" for value, text in (
        (mib(report["size"]), "size of the file"), (f"{main['seconds']:.1f} s", "duration"),
        (mib(report["received"]), f"received by {clients} clients"),
        (f"{share:.0f} %", "of that came from peers")))
    rough = " Nodes were killed and restarted during the transfer." if report["rough"] else ""
    return f"""<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Conference: {escape(report["file"])}</title><style>{STYLE}</style></head><body>
<h1>Conference: {escape(report["file"])}</h1>
<p class="soft">A presenter offered the file, a server stored it, and clients fetched it from the server
and from each other.{rough} All copies are identical to the file.</p>
<div class="figures">{figures}</div>
<h2>Transfer over time</h2>
<p class="soft">One lane per node, in MiB per second: received above the line, sent below it.</p>
{legend((("source", "received from the presenter or the server"), ("peer", "received from peers"),
         ("sent", "sent")))}
{"".join(map(lanes, report["runs"]))}
<h2>Latency of the server's disk</h2>
<p class="soft">Loads and stores of the server by duration: the wait in the queue of the read/write thread, and the
time on the disk. Each step of the horizontal scale doubles the duration. The vertical scale is the number of loads
or stores.</p>
{legend((("loads", "loads"), ("stores", "stores")))}
{latencies(report["runs"])}
<h2>Caches on disk</h2>
<p class="soft">The blocks that each cache holds after the conference, as <code>fmcache show</code> reports
them, coloured by origin.</p>
{legend((("source", "from the presenter or the server"), ("peer", "from peers"),
         ("missing", "missing"), ("damaged", "damaged")))}
{"".join(map(block_map, report["caches"]))}
<h2>Totals</h2>
{table(main["nodes"])}
<p></p><p class="soft">Statistics of the server's file manager: <code>{escape(report["statistics"])}</code></p>
</body></html>
"""
