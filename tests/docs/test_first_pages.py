# SPDX-License-Identifier: Apache-2.0
"""The pages for a first hour: what stands on them runs, and names what there is."""

import re
import shutil
import subprocess
import tomllib
from pathlib import Path

import page_code
import pytest

TREE = Path(__file__).resolve().parents[2]
DOCS = TREE / "docs"


def test_quick_start_runs_as_it_stands(module):
    names, examples = page_code.run_code((DOCS / "quick_start.md").read_text())
    assert examples > 15
    assert names["tqx"] is module


def test_only_the_last_block_of_the_quick_start_needs_torch():
    blocks = page_code.blocks_of((DOCS / "quick_start.md").read_text(), "pycon")
    assert [("torch" in block) for block in blocks] == [False] * (len(blocks) - 1) + [True]


def test_larger_than_memory_runs_as_it_stands():
    pytest.importorskip("pyarrow")
    _, examples = page_code.run_code((DOCS / "larger_than_memory.md").read_text())
    assert examples > 30


def test_installation_names_extras_and_targets_that_there_are():
    text = (DOCS / "installation.md").read_text()
    project = tomllib.loads((TREE / "pyproject.toml").read_text())["project"]
    named = {extra for extras in re.findall(r"\[([\w,]+)\]\"", text) for extra in extras.split(",")}
    assert {"cli", "torch", "cuda13"} <= named <= project["optional-dependencies"].keys()
    targets = set(re.findall(r"^([\w-]+):", (TREE / "Makefile").read_text(), re.MULTILINE))
    assert set(re.findall(r"(?:`|\$ |=\S+ )make ([a-z-]+)", text)) <= targets
    assert "korvex-tqx" not in text  # what was just built is installed, never a name from an index


def test_installation_quotes_the_message_about_compilers():
    message = "No C++20 compiler found"
    assert message in (DOCS / "installation.md").read_text()
    assert message in (TREE / "scripts" / "find_compiler.sh").read_text()


def test_without_a_way_to_install_a_browser_nothing_fails(tmp_path):
    for name in ("bash", "id"):
        (tmp_path / name).symlink_to(shutil.which(name))
    run = subprocess.run(
        [tmp_path / "bash", TREE / "scripts" / "install_browser.sh"],
        env={"PATH": str(tmp_path)},
        capture_output=True,
        text=True,
    )
    assert (run.returncode, run.stderr) == (0, "")
    assert re.fullmatch(
        "Chromium is not installed, and its tests will be skipped: (not root|no apt-get).\n",
        run.stdout,
    )


def test_performance_begins_with_three_pictures_and_their_answers():
    text = (DOCS / "performance.md").read_text()
    parts = re.split(r"^## ", text, flags=re.MULTILINE)
    for part, answer, picture in zip(
        parts[1:4], ("sums", "dots", "products"), ("sum", "dot", "matmul"), strict=True
    ):
        assert f"<!-- figures: answer_{answer} -->\n**" in part
        assert part.count("![") == 1 and f"(time_of_{picture}.svg)" in part
    # What is longer than a screen waits behind a line; the targets that were missed do not.
    tables = re.split(r"<details>.*?</details>", text, flags=re.DOTALL)
    assert sum(line.startswith("| ") for part in tables for line in part.splitlines()) < 40
