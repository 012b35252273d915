# SPDX-License-Identifier: Apache-2.0
"""The README: its programs run when they are pasted, and print what stands beside the lines."""

import re
from fractions import Fraction
from pathlib import Path

import page_code
import pytest
from subprocess_run import run_python

TEXT = (Path(__file__).resolve().parents[2] / "README.md").read_text()
PROGRAMS = page_code.blocks_of(TEXT, "python")


def shown(program):
    """What the comments of the lines with `print` say, up to a colon."""
    lines = [line for line in program.splitlines() if line.startswith("print(")]
    return [line.rpartition("  # ")[2].partition(":")[0] for line in lines]


def test_first_program_wants_numpy_alone_and_prints_what_it_says():
    program = PROGRAMS[0]
    after = "import sys\nassert not {'torch', 'cupy', 'korvex.emulation'} & set(sys.modules)\n"
    printed = run_python(program + after).splitlines()
    assert printed[:3] == shown(program)[:3]
    assert shown(program)[3] == "64 digits" and re.fullmatch("[0-9a-f]{64}", printed[3])


def test_second_program_runs_with_or_without_a_gpu():
    program = PROGRAMS[1]
    value, limbs, digits, checksum = run_python(program).splitlines()
    assert float(re.search(r"\d\.\d*", value)[0]) == 1.0 == float(shown(program)[0])
    assert re.findall(r"tensor\(([^,]+),", limbs)[:2] == ["1.", "8.6736e-19"]
    assert Fraction(digits) == 1 + Fraction(1, 2**60)
    assert shown(program)[3].startswith("16 hexadecimal digits")
    assert re.fullmatch("[0-9a-f]{16}", checksum)


def test_there_are_no_other_programs():
    assert len(PROGRAMS) == 2


@pytest.mark.parametrize("early, late", [("**No GPU has run", "![The error"), ("make test ", "##")])
def test_order_of_the_first_screen(early, late):
    """What has met hardware stands ahead of every figure, both commands ahead of the headings."""
    assert 0 < TEXT.index(early) < TEXT.index(late, 10)
