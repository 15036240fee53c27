# SPDX-License-Identifier: LGPL-2.1-or-later
"""The web site in a browser: widths of a phone and of a laptop, light and dark, links and search.

usage: site.py SITE
"""

import functools
import html.parser
import http.server
import pathlib
import re
import shutil
import sys
import threading

import tap

SITE = pathlib.Path(sys.argv[1]).resolve()
PAGES = sorted(path.name for path in SITE.glob("*.html"))
WIDTHS = 390, 1280
SCHEMES = "light", "dark"
ELSEWHERE = "https://docs.gtk.org/", "https://gitlab.gnome.org/GNOME/gi-docgen"

# Elements that reach out of the window, unless something around them inside the window scrolls.
CUT_OFF = """
const inside = box => box.left > -1 && box.right < innerWidth + 1;
const scrolls = e => /auto|scroll/.test(getComputedStyle(e).overflowX)
  && inside(e.getBoundingClientRect());
const reachable = e => e && (scrolls(e) || reachable(e.parentElement));
return [...document.body.querySelectorAll('*')]
  .filter(e => e.checkVisibility() && e.getBoundingClientRect().width > 0)
  .filter(e => !inside(e.getBoundingClientRect()) && !reachable(e.parentElement))
  .map(e => e.outerHTML.slice(0, 80));
"""
# Text whose colour is too near to the colour behind it.
FAINT = """
const channels = text => text.match(/[\\d.]+/g).map(Number);
const light = colour => channels(colour).slice(0, 3).map(c => c / 255)
  .map(c => c <= 0.04 ? c / 12.9 : ((c + 0.055) / 1.055) ** 2.4)
  .reduce((sum, c, i) => sum + c * [0.2126, 0.7152, 0.0722][i], 0);
const solid = colour => (channels(colour)[3] ?? 1) > 0.5;
const behind = e => !e ? 'rgb(255, 255, 255)' : solid(getComputedStyle(e).backgroundColor)
  ? getComputedStyle(e).backgroundColor : behind(e.parentElement);
const contrast = (a, b) => Math.exp(Math.abs(Math.log((light(a) + 0.05) / (light(b) + 0.05))));
return [...document.body.querySelectorAll('*')]
  .filter(e => e.checkVisibility())
  .filter(e => [...e.childNodes].some(n => n.nodeType === 3 && n.data.trim()))
  .filter(e => solid(getComputedStyle(e).color))
  .filter(e => contrast(getComputedStyle(e).color, behind(e)) < 3)
  .map(e => e.outerHTML.slice(0, 80));
"""
WIDE_CODE = """
return [...document.querySelectorAll('#main pre')].filter(e => e.scrollWidth > e.clientWidth)
  .map(e => e.textContent.slice(0, 80));
"""
# Copy buttons, each with whether it overlaps the code.
BUTTONS = """
return [...document.querySelectorAll('.copy-button')].map(button => {
  const mine = button.getBoundingClientRect();
  const code = button.parentElement.querySelector('pre').getBoundingClientRect();
  return mine.width > 0 && mine.left < code.right && mine.right > code.left
    && mine.top < code.bottom && mine.bottom > code.top;
});
"""
# The share of light pixels in a plot, as the browser draws it in the current colour scheme.
BRIGHTNESS = """
const done = arguments[1], plot = new Image();
plot.onerror = () => done(-1);
plot.onload = () => {
  const canvas = document.createElement('canvas');
  canvas.width = canvas.height = 200;
  const context = canvas.getContext('2d');
  context.drawImage(plot, 0, 0, 200, 200);
  const pixels = context.getImageData(0, 0, 200, 200).data;
  let sum = 0;
  for (let i = 0; i < pixels.length; i += 4)
    sum += pixels[i + 3] > 127 && pixels[i] + pixels[i + 1] + pixels[i + 2] > 384;
  done(sum / 40000);
};
plot.src = arguments[0];
"""


class Links(html.parser.HTMLParser):
    """Collects where a page links to, and what in it can be linked to."""

    def __init__(self, page):
        super().__init__()
        self.targets, self.anchors = [], {""}
        self.feed((SITE / page).read_text())

    def handle_starttag(self, tag, attributes):
        attributes = dict(attributes)
        self.targets += [attributes[key] for key in ("href", "src") if key in attributes]
        self.anchors.add(attributes.get("id", ""))


class Handler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *_):
        pass


@functools.cache
def address():
    handler = functools.partial(Handler, directory=SITE)
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return f"http://127.0.0.1:{server.server_port}/"


def open_browser():
    options = selenium.webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for argument in "--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu", \
            "--hide-scrollbars":
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return selenium.webdriver.Chrome(options=options, service=Service(DRIVER))


def look(width, scheme):
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": width, "height": 800, "deviceScaleFactor": 1, "mobile": width < 700})
    browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
        "features": [{"name": "prefers-color-scheme", "value": scheme}]})


def complaints():
    return [entry["message"] for entry in browser.get_log("browser")]


def all_links_resolve():
    links = {page: Links(page) for page in PAGES}
    for page, found in links.items():
        for target in found.targets:
            if target.startswith(("data:", *ELSEWHERE)):
                continue
            name, _, anchor = target.partition("#")
            assert (SITE / (name or page)).is_file(), f"{page}: {target}"
            if (name or page) in links:
                assert anchor in links[name or page].anchors, f"{page}: {target}"


def every_page_fits():
    complaints()
    for page in PAGES:
        browser.get(address() + page)
        for width in WIDTHS:
            for scheme in SCHEMES:
                look(width, scheme)
                for script in CUT_OFF, FAINT:
                    found = browser.execute_script(script)
                    assert not found, f"{page}, {width} px, {scheme}: {found}"
        found = browser.execute_script(WIDE_CODE) + complaints()
        assert not found, f"{page}: {found}"


def copy_buttons_cover_nothing():
    for width in WIDTHS:
        look(width, "light")
        browser.get(address() + "index.html")
        buttons = browser.execute_script(BUTTONS)
        assert buttons and not any(buttons), (width, buttons)


def plots_follow_the_colour_scheme():
    browser.get(address() + "index.html")
    plots = [path.name for path in SITE.glob("*.svg")]
    assert plots
    for plot in plots:
        shares = {}
        for scheme in SCHEMES:
            look(1280, scheme)
            shares[scheme] = browser.execute_async_script(BRIGHTNESS, plot)
        assert 0 < shares["dark"] < 0.5, f"{plot}: {shares}"


def start_page_introduces():
    browser.get(address() + "index.html")
    text = browser.find_element(By.ID, "main").text
    assert "#include <zelgvc/zelgvc.h>" in text and "messages over an established socket" in text
    assert not re.search(r"^(Website|Source)$|\.example\b", text, re.MULTILINE), text


def search_finds(query, base):
    """From the keyboard to the section that the first result leads to."""
    look(390, "light")
    complaints()
    browser.get(base + "index.html")
    box = browser.find_element(By.ID, "search-input")
    box.click()
    box.send_keys(query)
    results = WebDriverWait(browser, 60).until(
        lambda _: browser.find_elements(By.CSS_SELECTOR, "#search-results > *"))
    hit = " ".join(part.text for part in results[:2]).lower()
    assert all(word in hit for word in query.split()), hit
    assert not browser.execute_script(CUT_OFF)
    link = results[0].find_element(By.TAG_NAME, "a")
    page, _, anchor = link.get_attribute("href").rpartition("/")[2].partition("#")
    link.click()
    WebDriverWait(browser, 60).until(lambda _: page in browser.current_url)
    assert not anchor or browser.find_elements(By.ID, anchor), (page, anchor)
    found = complaints()
    assert not found, found


try:
    import selenium.webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import WebDriverWait
except ImportError:
    selenium = None
CHROMIUM, DRIVER = shutil.which("chromium"), shutil.which("chromedriver")
if not (selenium and CHROMIUM and DRIVER):
    print("1..0 # SKIP chromium, chromedriver or python3-selenium is missing")
    sys.exit(0)

browser = open_browser()
try:
    status = tap.run([
        ("/site/all-links-resolve", all_links_resolve),
        ("/site/every-page-fits", every_page_fits),
        ("/site/copy-buttons-cover-nothing", copy_buttons_cover_nothing),
        ("/site/plots-follow-the-colour-scheme", plots_follow_the_colour_scheme),
        ("/site/start-page-introduces", start_page_introduces),
        *((f"/site/search-finds/{query}/{kind}", functools.partial(search_finds, query, base))
          for query in ("timeout", "cancel", "wrong key")
          for kind, base in (("http", address()), ("file", SITE.as_uri() + "/"))),
    ])
finally:
    browser.quit()
sys.exit(status)
