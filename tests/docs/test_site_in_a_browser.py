# SPDX-License-Identifier: Apache-2.0
"""Every page of the site in Chromium: three widths, light and dark, links, pictures, the console.

Skipped where Chromium and its driver are not installed (Debian: chromium, chromium-driver).
"""

from pathlib import Path

import browser
import pytest

DOCS = Path(__file__).resolve().parents[2] / "docs"
PAGES = [str(path.relative_to(DOCS).with_suffix(".html")) for path in sorted(DOCS.rglob("*.md"))]
PAGES += ["genindex.html", "search.html"]

pytestmark = pytest.mark.skipif(
    not browser.is_there(), reason=f"{' and '.join(browser.PROGRAMS)} are not installed"
)


@pytest.fixture(scope="module")
def driver(tmp_path_factory):
    pytest.importorskip("selenium")
    with browser.chromium(tmp_path_factory.mktemp("chromium")) as driver:
        yield driver


@pytest.fixture(scope="module")
def address(site):
    with browser.served(site) as address:
        yield address


@pytest.fixture
def open_page(driver, address, site):
    """A page keeps its theme, and what was searched for, for the pages after it: not here."""
    yield lambda name: browser.Page(driver, f"{address}/{name}", site)
    driver.execute_script("localStorage.clear()")


@pytest.mark.parametrize("name", PAGES)
def test_page_is_whole_and_fits(open_page, name):
    page = open_page(name)
    assert page.reports() == []
    assert page.missing_pictures() == []
    assert page.without_a_name() == []
    assert page.from_elsewhere() == []
    assert page.broken_links() == []
    for width in browser.WIDTHS:
        for theme in browser.THEMES:
            page.show(width, theme)
            assert page.sticking_out() == [], (width, theme)
            if width == browser.WIDTHS[0]:  # colours are the same in all widths
                assert page.hard_to_read() == [], theme
    assert page.reports() == []


COLOURS = """
const value = name => getComputedStyle(document.querySelector("svg.korvex-figure"))
  .getPropertyValue(name).trim();
return [document.body.dataset.theme, value("--paper"),
  getComputedStyle(document.body).backgroundColor];
"""
WHITE, BLACK = ["#ffffff", "rgb(255, 255, 255)"], ["#131416", "rgb(19, 20, 22)"]


@pytest.mark.parametrize("name", ["gallery/index.html", "larger_than_one_machine.html"])
def test_pictures_follow_the_system_and_then_the_button(open_page, driver, name):
    page = open_page(name)
    assert driver.execute_script(COLOURS) == ["auto", *WHITE]
    page.show(1440, "dark")
    assert driver.execute_script(COLOURS) == ["auto", *BLACK]
    button = "document.querySelector('.theme-toggle-header button, button.theme-toggle').click()"
    driver.execute_script(button)
    # From a dark system the button goes to light first, then to dark, then back to the system.
    assert driver.execute_script(COLOURS) == ["light", *WHITE]
    page.show(1440, "light")
    driver.execute_script(button)
    assert driver.execute_script(COLOURS)[0] in ("dark", "auto")
    driver.execute_script("document.body.dataset.theme = 'dark'")
    assert driver.execute_script(COLOURS) == ["dark", *BLACK]


def test_search_finds_the_page_about_sums(open_page, driver):
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.wait import WebDriverWait

    page = open_page("search.html?q=canonical+limbs")
    results = driver.find_element(By.ID, "search-results")
    WebDriverWait(driver, 30).until(
        lambda _: "numerics_sum.html" in results.get_attribute("innerHTML")
    )
    assert page.reports() == []


FAULTY = """<!doctype html><html lang="en"><head><title>Faulty</title>
<link rel="icon" href="data:,"></head><body><article>
<p style="color: #999999; background: #ffffff">pale</p>
<img src="gone.png"><div style="width: 2000px">wide</div>
<a href="gone.html">one</a> <a href="#nowhere">two</a> <a href="javascript:void(0)">three</a>
<a id="here" href="#here">right</a> <a href="https://example.org/">right</a>
<script>console.error("planted")</script></article></body></html>"""


def test_faults_of_a_page_are_seen(driver, tmp_path):
    (tmp_path / "faulty.html").write_text(FAULTY)
    with browser.served(tmp_path) as address:
        page = browser.Page(driver, f"{address}/faulty.html", tmp_path)
        reports = " ".join(page.reports())
        assert "planted" in reports and "gone.png" in reports
        assert [name.rpartition("/")[2] for name in page.missing_pictures()] == ["gone.png"]
        assert len(page.without_a_name()) == 1
        assert page.broken_links() == ["gone.html", "#nowhere", "javascript:void(0)"]
        assert any(text.startswith("the page: ") for text in page.sticking_out())
        assert [text.partition(" ")[0] for text in page.hard_to_read()] == ["P"]
