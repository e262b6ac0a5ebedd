"""Pages in a browser without a window: what a script in the page measures, and the pixels that are drawn."""
import json
import re
import shutil
import subprocess
import sys
import tempfile
from html import unescape
from pathlib import Path

SKIPPED = 77
# For probes: the text of the element "probe" is JSON.
FUNCTIONS = """
const box = e => { const r = e.getBoundingClientRect(); return [r.left, r.top, r.right, r.bottom]; };
const colour = e => getComputedStyle(e).backgroundColor.match(/[0-9]+/g).slice(0, 3).map(Number);
const all = (root, what) => [...root.querySelectorAll(what)];
const size = [innerWidth, document.documentElement.scrollWidth, document.documentElement.scrollHeight];
"""


def check(condition, what):
    if not condition:
        sys.exit(f"{Path(sys.argv[0]).stem}: {what}")


def near(colour, other):
    return all(abs(a - b) < 10 for a, b in zip(colour, other))


def views(text, expression, picture):
    """The page in a wide light window and in a narrow dark one: for each the value of a JavaScript expression, and a
    function that returns the colour at a position. `picture` names the files of the pictures."""
    chromium = shutil.which("chromium")
    if not chromium or not shutil.which("convert"):
        print("skipped: needs chromium, and convert of ImageMagick")
        sys.exit(SKIPPED)
    check(not re.search(r"""(src|href)=|url\(|@import|https?:""", text), "the page needs other files")
    probe = f"""<pre id="probe" hidden></pre><script>{FUNCTIONS}
document.getElementById("probe").textContent = JSON.stringify({expression});</script></body>"""
    with tempfile.TemporaryDirectory() as folder:
        page = Path(folder, "page.html")
        page.write_text(text.replace("</body>", probe), encoding="utf-8")
        for width, scheme in ((1100, 1), (520, 0)):
            def run(height, *arguments):
                return subprocess.run(
                    [chromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                     "--disable-background-networking", "--disable-sync", "--disable-component-update",
                     "--hide-scrollbars", f"--blink-settings=preferredColorScheme={scheme}",
                     f"--user-data-dir={folder}/{width}", f"--window-size={width},{height}", *arguments,
                     page.as_uri()], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True).stdout
            dom = run(1000, "--dump-dom").decode()
            found = json.loads(unescape(re.search(r'id="probe"[^>]*>(.*?)</pre>', dom, re.DOTALL).group(1)))
            inner, scrolled, height = found["size"]
            check(scrolled <= inner == width, f"the page is wider than the window: {found['size']}")
            shot = f"{picture}-{width}.png"
            run(height, f"--screenshot={shot}")
            yield found, pixels(shot)
            print(f"checked {shot}")


def pixels(picture):
    ppm = subprocess.run(["convert", picture, "-depth", "8", "ppm:-"], stdout=subprocess.PIPE, check=True).stdout
    header = re.match(rb"P6\s(\d+)\s\d+\s255\s", ppm)
    width, start = int(header.group(1)), header.end()

    def pixel(x, y):
        at = start + 3 * (round(y) * width + round(x))
        return tuple(ppm[at:at + 3])
    return pixel
