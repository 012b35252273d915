# SPDX-License-Identifier: Apache-2.0
"""The figures in the documents are those of the records, and one command makes them all anew."""

import json
import re
import shutil
import subprocess
import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
BENCHMARKS = ROOT / "benchmarks"
DOCUMENTS = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]
BLOCK = re.compile(r"<!-- figures: (\w+) -->\n(.*?)<!-- end of figures -->", re.DOTALL)
# A time or a speed as people write it.
FIGURE = re.compile(r"\d(?:\.\d+)? (?:ns|us|µs|ms)\b|\d times faster")
# Targets and clock rates of GPUs, which no benchmark of the host takes.
OTHER_FIGURES = {"gpu.md"}


def run(script, *arguments):
    return subprocess.run(
        [sys.executable, "-P", "-m", f"korvex_tools.figures.{script}", *map(str, arguments)],
        capture_output=True,
        text=True,
        timeout=300,
    )


def blocks():
    return [(path, name) for path in DOCUMENTS for name, _ in BLOCK.findall(path.read_text())]


def copy_of_documents(folder):
    (folder / "docs").mkdir()
    for path in DOCUMENTS:
        shutil.copy(path, folder / path.relative_to(ROOT))
    return folder


def test_documents_agree_with_the_records():
    checked = run("write", "--check")
    assert (checked.returncode, checked.stdout) == (0, "stale: nothing\n"), checked.stderr


def test_documents_quote_figures_in_several_places():
    assert {path.name for path, _ in blocks()} == {
        "README.md",
        "command_line.md",
        "exact.md",
        "larger_than_one_machine.md",
        "performance.md",
        "segments.md",
        "series.md",
        "solvers.md",
    }


def test_no_block_is_empty():
    for path in DOCUMENTS:
        for name, text in BLOCK.findall(path.read_text()):
            assert re.search(r"\d", text), f"{path.name}: {name}"


@pytest.mark.parametrize("document", ["README.md", "docs/performance.md", "docs/series.md"])
def test_changed_figure_is_found_and_mended(tmp_path, document):
    tree = copy_of_documents(tmp_path)
    path = tree / document
    text = path.read_text()
    begin = BLOCK.search(text).start(2)
    digit = re.compile(r"\d").search(text, begin).start()
    path.write_text(text[:digit] + str((int(text[digit]) + 1) % 10) + text[digit + 1 :])
    stale = run("write", "--check", "--root", tree)
    assert (stale.returncode, stale.stdout) == (1, f"stale: {document}\n")
    assert run("write", "--root", tree).returncode == 0
    assert path.read_text() == text


@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: path.name)
def test_time_stands_in_a_marked_place_only(path):
    if path.name not in OTHER_FIGURES:
        assert FIGURE.findall(BLOCK.sub("", path.read_text())) == []


def test_record_of_the_full_run_names_every_part():
    [newest] = sorted(
        (json.loads(path.read_text()) for path in BENCHMARKS.glob("results/figures-*.json")),
        key=lambda record: record["date"],
    )[-1:]
    parts = [part["part"] for part in newest["parts"]]
    scripts = {path.stem for path in BENCHMARKS.glob("bench_*.py") if "_gpu_" not in path.stem}
    assert set(parts) == scripts | {"series_errors", "refined_solves"}
    assert len(parts) == len(set(parts))


def test_pictures_are_drawn_from_the_records(tmp_path):
    pytest.importorskip("matplotlib")
    drawn = run("draw", "--output", tmp_path)
    assert drawn.returncode == 0, drawn.stderr
    names = {path.name for path in tmp_path.glob("*.svg")}
    pages = [
        (ROOT / "docs" / f"{name}.md").read_text() for name in ("performance", "solvers", "exact")
    ]
    shown = {name for page in pages for name in re.findall(r"\((\w+\.svg)\)", page)}
    assert names == shown and len(names) == 6
    assert all((ROOT / "docs" / name).exists() for name in names)
    for path in tmp_path.glob("*.svg"):
        assert texts_of(path) == texts_of(ROOT / "docs" / path.name)


def texts_of(path):
    """All that is written in a picture, the machine and the day among it."""
    root = ElementTree.fromstring(path.read_text())
    assert root.get("class") == "korvex-figure" and root.get("aria-label")
    texts = root.iter("{http://www.w3.org/2000/svg}text")
    found = ["".join("".join(each.itertext()).split()) for each in texts]
    assert len(found) > 10
    return found


def test_colours_of_a_picture_have_a_light_and_a_dark_value():
    from korvex_tools.figures import svg

    body = '<rect fill="#ffffff" stroke="#c1121f"/><text style="fill: #212529">a &amp; b</text>\n'
    text = svg.themed(body, 20, 10, 'a "picture" < b')
    root = ElementTree.fromstring(text)
    rect, words = list(root)[-2:]
    assert rect.attrib == {"style": "fill: var(--paper); stroke: var(--c0)"}
    assert words.attrib == {"style": "fill: var(--ink)"}
    assert root.get("aria-label") == root[0].text == 'a "picture" < b'
    rules = re.findall(r"--(\w+): (#\w+);", root[1].text)
    assert len(rules) == 4 * len(svg.PALETTE) and "prefers-color-scheme: dark" in root[1].text
    with pytest.raises(ValueError, match="does not have: #123456"):
        svg.themed('<rect fill="#123456"/>', 1, 1, "")


@pytest.mark.parametrize("scheme", [0, 1])
def test_colours_stand_out_from_the_paper(scheme):
    """By the contrast of WCAG: 4.5 for text, 3 for what is drawn."""
    from korvex_tools.figures import svg

    def luminance(colour):
        parts = [int(colour[n : n + 2], 16) / 255 for n in (1, 3, 5)]
        linear = [p / 12.92 if p <= 0.04045 else ((p + 0.055) / 1.055) ** 2.4 for p in parts]
        return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]

    paper = luminance(svg.PALETTE["paper"][scheme])
    for name in svg.PALETTE.keys() - {"paper", "grid"}:
        low, high = sorted((luminance(svg.PALETTE[name][scheme]), paper))
        assert (high + 0.05) / (low + 0.05) >= (4.5 if name in ("ink", "quiet") else 3), name


def test_one_part_can_be_tried_without_a_change_to_the_tree():
    kept = {path: path.read_bytes() for path in [*DOCUMENTS, *BENCHMARKS.glob("results/*")]}
    tried = run("make", "--quick", "--only", "bench_errors")
    assert tried.returncode == 0, tried.stderr
    assert re.search(r"^bench_errors +\d+\.\d s$", tried.stdout, re.MULTILINE)
    assert {path: path.read_bytes() for path in kept} == kept
