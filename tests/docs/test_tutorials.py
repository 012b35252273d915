# SPDX-License-Identifier: Apache-2.0
"""The tutorials print what is kept beside them, on whatever device the tests run."""

import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

FOLDER = Path(__file__).resolve().parents[2] / "docs" / "tutorials"
PROGRAMS = sorted(FOLDER.glob("*.py"))


def environment():
    """Programs take a GPU where torch finds one: tests of the emulated device hide it."""
    emulated = os.environ.get("KORVEX_TEST_DEVICE") == "emulated"
    return os.environ | ({"CUDA_VISIBLE_DEVICES": ""} if emulated else {})


@pytest.mark.parametrize("program", PROGRAMS, ids=lambda path: path.stem)
def test_program_prints_what_is_kept(program, tmp_path):
    run = subprocess.run(
        [sys.executable, "-W", "error", program],
        cwd=tmp_path,
        env=environment(),
        capture_output=True,
        text=True,
        timeout=300,
    )
    assert (run.returncode, run.stderr) == (0, "")
    assert run.stdout == program.with_suffix(".txt").read_text()


def test_there_are_five_of_at_most_sixty_lines():
    assert len(PROGRAMS) == 5
    assert all(len(program.read_text().splitlines()) <= 60 for program in PROGRAMS)


@pytest.mark.parametrize("program", PROGRAMS, ids=lambda path: path.stem)
def test_page_shows_program_and_output(program):
    page = program.with_suffix(".md").read_text()
    shown = re.findall(r"<!-- (?:program|output): (\S+) -->", page)
    assert shown == [program.name, program.with_suffix(".txt").name]
    code = program.read_text().partition("\n")[2].strip()
    assert f"```python\n{code}\n```\n" in page
    assert f"```text\n{program.with_suffix('.txt').read_text().strip()}\n```\n" in page
    assert program.stem in (FOLDER / "index.md").read_text().split()
