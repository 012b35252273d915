# SPDX-License-Identifier: Apache-2.0
"""A page of a site as Chromium shows it: what it loads, reports, and how it fits and reads."""

import functools
import http.server
import re
import shutil
import threading
from contextlib import contextmanager
from pathlib import Path
from urllib.parse import unquote, urlsplit

WIDTHS = (390, 820, 1440)  # a phone, a tablet, a screen
THEMES = ("light", "dark")
PROGRAMS = ("chromium", "chromedriver")  # Debian's packages chromium and chromium-driver

# Elements of the page that reach beyond its sides and are in no box that scrolls; what is drawn
# inside a picture counts as the picture.
STICKING_OUT = """
const width = document.documentElement.clientWidth;
const scrolls = e => ["auto", "scroll"].includes(getComputedStyle(e).overflowX);
// The two lists of pages wait beside the page on a phone, and other things for who cannot see it.
const hidden = e => e.closest(".sidebar-drawer, .toc-drawer, .visually-hidden, .skip-to-content");
const out = [];
for (const e of document.querySelectorAll("body *")) {
  const box = e.getBoundingClientRect();
  if (!box.width || !box.height || hidden(e) || e.parentElement.closest("svg")) continue;
  if (box.left >= -1 && box.right <= width + 1) continue;
  let p = e.parentElement;
  while (p && !scrolls(p)) p = p.parentElement;
  if (!p || p === document.documentElement || p === document.body)
    out.push(`${e.tagName} ${e.className} ${Math.round(box.left)} to ${Math.round(box.right)}`);
}
const all = document.documentElement.scrollWidth;
if (all > window.innerWidth) out.push(`the page: ${all}`);
return out;
"""

# Contrast by WCAG 2 of every text, and of what pictures are written in, below what is asked for.
HARD_TO_READ = """
const least = arguments[0];
const canvas = document.createElement("canvas").getContext("2d", {willReadFrequently: true});
const known = new Map();
function rgba(colour) {
  if (!known.has(colour)) {
    canvas.clearRect(0, 0, 1, 1); canvas.fillStyle = colour; canvas.fillRect(0, 0, 1, 1);
    known.set(colour, [...canvas.getImageData(0, 0, 1, 1).data]);
  }
  return known.get(colour);
}
function luminance(colour) {
  const [r, g, b] = colour.slice(0, 3).map(v => v / 255)
    .map(v => v <= 0.04045 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4);
  return 0.2126 * r + 0.7152 * g + 0.0722 * b;
}
function contrast(a, b) {
  const [low, high] = [luminance(a), luminance(b)].sort((x, y) => x - y);
  return (high + 0.05) / (low + 0.05);
}
function ground(e) {
  for (; e; e = e.parentElement) {
    const colour = rgba(getComputedStyle(e).backgroundColor);
    if (colour[3] === 255) return colour;
  }
  return [255, 255, 255, 255];
}
const found = new Set();
const look = (colour, behind, name) => {
  const ratio = contrast(colour, behind);
  const [text, back] = [colour, behind].map(c => c.slice(0, 3));
  if (ratio < least) found.add(`${name}: ${text} on ${back}, ${ratio.toFixed(2)}`);
};
for (const e of document.querySelectorAll("article *")) {
  const own = [...e.childNodes].some(n => n.nodeType === 3 && n.data.trim());
  const shown = e.getClientRects().length && !e.closest(".headerlink, svg");
  if (own && shown) look(rgba(getComputedStyle(e).color), ground(e), `${e.tagName} ${e.className}`);
}
for (const svg of document.querySelectorAll("svg.korvex-figure")) {
  const style = getComputedStyle(svg);
  const value = name => rgba(style.getPropertyValue(name).trim());
  look(value("--ink"), value("--paper"), `${svg.id} on its paper`);
  const drawn = svg.querySelector("text tspan, text");
  look(rgba(getComputedStyle(drawn).fill), ground(svg), `${svg.id} on the page`);
}
return [...found];
"""

MISSING_PICTURES = """
const missing = [...document.images].filter(i => !i.complete || !i.naturalWidth).map(i => i.src);
for (const svg of document.querySelectorAll("article svg.korvex-figure")) {
  const box = svg.getBoundingClientRect();
  if (box.width < 200 || box.height < 100) missing.push(`${svg.id}: ${box.width} by ${box.height}`);
}
return missing;
"""

WITHOUT_A_NAME = """
const named = e => e.getAttribute("aria-label") || e.getAttribute("alt");
return [...document.querySelectorAll("article img, article svg.korvex-figure")]
  .filter(e => !named(e)).map(e => e.outerHTML.slice(0, 80));
"""

FROM_ELSEWHERE = """
return performance.getEntriesByType("resource").map(e => e.name)
  .filter(name => !name.startsWith(location.origin) && !name.startsWith("data:"));
"""


def is_there():
    return all(shutil.which(program) for program in PROGRAMS)


@contextmanager
def served(folder):
    """The folder at an address of this machine, as long as the block runs."""

    class Quiet(http.server.SimpleHTTPRequestHandler):
        def log_message(self, *arguments):
            pass

    handler = functools.partial(Quiet, directory=str(folder))
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
    thread = threading.Thread(target=server.serve_forever)
    thread.start()
    try:
        yield f"http://127.0.0.1:{server.server_port}"
    finally:
        server.shutdown()
        thread.join()
        server.server_close()


@contextmanager
def chromium(folder):
    """A driver of Chromium without a window, which keeps what it stores in the folder."""
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    options = webdriver.ChromeOptions()
    options.binary_location = shutil.which("chromium")
    for argument in ("headless=new", "no-sandbox", "disable-gpu", "disable-dev-shm-usage"):
        options.add_argument(f"--{argument}")
    options.add_argument(f"--user-data-dir={folder}")
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(options=options, service=Service(shutil.which("chromedriver")))
    try:
        driver.set_page_load_timeout(60)
        yield driver
    finally:
        driver.quit()


class Page:
    """One page, loaded once and looked at from all sides; every method returns what is wrong."""

    def __init__(self, driver, address, site):
        self.driver, self.address, self.site = driver, address, Path(site)
        self.driver.get_log("browser")  # what other pages reported
        self.show(WIDTHS[-1], "light")
        self.driver.get(address)
        self.driver.execute_script(
            "document.querySelectorAll('details').forEach(d => { d.open = true; })"
        )

    def show(self, width, theme):
        self.driver.execute_cdp_cmd(
            "Emulation.setDeviceMetricsOverride",
            {"width": width, "height": 900, "deviceScaleFactor": 1, "mobile": width < 600},
        )
        feature = {"name": "prefers-color-scheme", "value": theme}
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [feature]})

    def reports(self):
        """What the console holds."""
        return [entry["message"] for entry in self.driver.get_log("browser")]

    def missing_pictures(self):
        return self.driver.execute_script(MISSING_PICTURES)

    def without_a_name(self):
        return self.driver.execute_script(WITHOUT_A_NAME)

    def from_elsewhere(self):
        return self.driver.execute_script(FROM_ELSEWHERE)

    def sticking_out(self):
        return self.driver.execute_script(STICKING_OUT)

    def hard_to_read(self, least=4.5):
        return self.driver.execute_script(HARD_TO_READ, least)

    def broken_links(self):
        """Links into the site that lead to no file, or to no place in it; links of another kind."""
        script = "return [...document.links].map(a => [a.href, a.getAttribute('href')])"
        origin = urlsplit(self.address).netloc
        broken = []
        for address, written in self.driver.execute_script(script):
            parts = urlsplit(address)
            if parts.netloc != origin:
                if parts.scheme not in ("https", "http"):
                    broken.append(written)
                continue
            path = self.site / unquote(parts.path).lstrip("/")
            path = path / "index.html" if path.is_dir() else path
            if not path.is_file() or parts.fragment and unquote(parts.fragment) not in ids_of(path):
                broken.append(written)
        return broken


@functools.cache
def ids_of(path):
    return set(re.findall(r'\bid="([^"]+)"', path.read_text())) | {"top"}
