# SPDX-License-Identifier: Apache-2.0
"""The gallery: programs print what is kept, pictures are drawn from that, pages show both."""

import re
import subprocess
import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest

DOCS = Path(__file__).resolve().parents[2] / "docs"
GALLERY = DOCS / "gallery"
PROGRAMS = sorted(GALLERY.glob("*.py"))
PAGES = [page for page in sorted(DOCS.rglob("*.md")) if "<!-- end -->" in page.read_text()]
SVG = "{http://www.w3.org/2000/svg}"


@pytest.fixture(scope="module")
def gallery():
    pytest.importorskip("matplotlib")  # the colours of all pictures are kept beside its settings
    from korvex_tools import gallery

    return gallery


@pytest.mark.parametrize("program", PROGRAMS, ids=lambda path: path.stem)
def test_program_prints_what_is_kept(program, tmp_path):
    run = subprocess.run(
        [sys.executable, "-P", "-W", "error", program],
        cwd=tmp_path,
        capture_output=True,
        text=True,
        timeout=300,
    )
    assert (run.returncode, run.stderr) == (0, "")
    assert run.stdout == program.with_suffix(".txt").read_text()


@pytest.mark.parametrize("program", PROGRAMS, ids=lambda path: path.stem)
def test_picture_is_drawn_from_what_is_printed(gallery, program):
    text = program.with_suffix(".txt").read_text()
    picture = program.with_suffix(".svg").read_text()
    assert gallery.drawn(program.stem, text) == picture
    root = ElementTree.fromstring(picture)
    assert root.get("class") == "korvex-figure" and root.get("aria-label")
    # Another number gives another picture: a map has a sign changed, a table the end of a curve.
    lines = text.splitlines()
    if "+" in lines[1] and set(lines[1]) <= set("+-0 "):
        lines[1] = lines[1][:-1] + "+"
    else:
        cells = lines[-2].split()
        lines[-2] = " ".join([*cells[:-1], str(float(cells[-1]) * 0.5 + 1e-16)])
    assert gallery.drawn(program.stem, "\n".join(lines)) != picture


def test_six_programs_of_less_than_thirty_lines():
    assert len(PROGRAMS) == 6
    assert all(len(program.read_text().splitlines()) < 30 for program in PROGRAMS)
    for suffix in (".txt", ".svg"):
        assert {path.stem for path in GALLERY.glob(f"*{suffix}")} == {p.stem for p in PROGRAMS}


def test_lines_fit_the_page():
    """A block of code is that wide where the site shows it on a screen."""
    wide = [
        f"{path.name}: {line}"
        for path in PROGRAMS
        for line in path.read_text().splitlines()[1:]
        if len(line) > 92
    ]
    assert wide == []


# ---- programs in pages ----


@pytest.mark.parametrize("page", PAGES, ids=lambda path: str(path.relative_to(DOCS)))
def test_page_shows_its_programs_as_they_are(gallery, page):
    assert gallery.with_programs(page) == page.read_text()


def test_a_changed_program_would_be_noticed(gallery, tmp_path):
    (tmp_path / "one.py").write_text("# SPDX-License-Identifier: Apache-2.0\nprint(1)\n")
    page = tmp_path / "page.md"
    page.write_text("<!-- program: one.py -->\n```python\nprint(2)\n```\n<!-- end -->\n")
    assert gallery.with_programs(page) == (
        "<!-- program: one.py -->\n```python\nprint(1)\n```\n<!-- end -->\n"
    )


def test_no_page_leaves_a_program_to_the_site():
    """Code hosts show a page as it is, without what only Sphinx puts in."""
    assert [
        page.name for page in DOCS.rglob("*.md") if "{literalinclude}" in page.read_text()
    ] == []
    assert len(PAGES) == 7  # the gallery, five tutorials, the schema of records


def test_gallery_shows_program_picture_and_output_of_each():
    text = (GALLERY / "index.md").read_text()
    for kind, name in (("program", "py"), ("output", "txt")):
        shown = re.findall(rf"<!-- {kind}: (\w+)\.{name} -->", text)
        assert sorted(shown) == [program.stem for program in PROGRAMS]
    assert sorted(re.findall(r"\]\((\w+)\.svg\)", text)) == [p.stem for p in PROGRAMS]
