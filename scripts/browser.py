"""Pages in a browser without a window: what a script in the page measures."""
import json
import re
import shutil
import subprocess
import sys
import tempfile
from html import unescape
from pathlib import Path

SKIPPED = 77
# For probes: the text of the element "probe" is JSON. `drawn` is the colour in the middle of an element.
FUNCTIONS = """
const box = e => { const r = e.getBoundingClientRect(); return [r.left, r.top, r.right, r.bottom]; };
const colour = e => e && getComputedStyle(e).backgroundColor;
const drawn = e => { const [l, t, r, b] = box(e); return colour(document.elementFromPoint((l + r) / 2, (t + b) / 2)); };
const all = (root, what) => [...root.querySelectorAll(what)];
const size = [innerWidth, document.documentElement.scrollWidth];
const colours = Object.fromEntries(all(document, ".legend i").map(e => [e.className, colour(e)]));
"""


def check(condition, what):
    if not condition:
        sys.exit(f"{Path(sys.argv[0]).stem}: {what}")


def views(text, expression):
    """The page in a wide light window and in a narrow dark one: for each the value of a JavaScript expression."""
    chromium = shutil.which("chromium")
    if not chromium:
        print("skipped: needs chromium")
        sys.exit(SKIPPED)
    check(not re.search(r"""(src|href)=|url\(|@import|https?:""", text), "the page needs other files")
    probe = f"""<pre id="probe" hidden></pre><script>{FUNCTIONS}
document.getElementById("probe").textContent = JSON.stringify({expression});</script></body>"""
    with tempfile.TemporaryDirectory() as folder:
        page = Path(folder, "page.html")
        page.write_text(text.replace("</body>", probe), encoding="utf-8")
        for width, scheme in ((1100, 1), (520, 0)):
            dom = subprocess.run(  # the window is higher than the page, because `drawn` measures inside it
                [chromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                 "--disable-background-networking", "--disable-sync", "--disable-component-update",
                 f"--blink-settings=preferredColorScheme={scheme}", f"--user-data-dir={folder}/{width}",
                 f"--window-size={width},9000", "--hide-scrollbars", "--dump-dom", page.as_uri()],
                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True).stdout.decode()
            found = json.loads(unescape(re.search(r'id="probe"[^>]*>(.*?)</pre>', dom, re.DOTALL).group(1)))
            check(found["size"][1] <= found["size"][0] == width, f"the page is wider than the window: {found['size']}")
            yield found
