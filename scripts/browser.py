"""Pages in a browser without a window: what a script in the page measures, and the pixels that are drawn."""
import json
import re
import shutil
import subprocess
import tempfile
from html import unescape

# For probes: the text of the element "probe" is JSON.
FUNCTIONS = """
const box = e => { const r = e.getBoundingClientRect(); return [r.left, r.top, r.right, r.bottom]; };
const colour = e => getComputedStyle(e).backgroundColor.match(/[0-9]+/g).slice(0, 3).map(Number);
const all = (root, what) => [...root.querySelectorAll(what)];
const size = [innerWidth, document.documentElement.scrollWidth, document.documentElement.scrollHeight];
"""


def find():
    """The browser; None, with a message, if the system has not all that a test of a page needs."""
    chromium = shutil.which("chromium")
    if chromium and shutil.which("convert"):
        return chromium
    print("skipped: needs chromium, and convert of ImageMagick")
    return None


def is_self_contained(text):
    return not re.search(r"""(src|href)=|url\(|@import|https?:""", text)


def with_probe(text, expression):
    """The page with a script that stores the value of a JavaScript expression for Browser.probe."""
    return text.replace("</body>", f"""<pre id="probe" hidden></pre><script>{FUNCTIONS}
document.getElementById("probe").textContent = JSON.stringify({expression});</script></body>""")


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
