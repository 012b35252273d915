# SPDX-License-Identifier: Apache-2.0
"""The table of refined solves, made as a user makes it.

The figures are those of a machine's own factorisation, so the table in the documents is held
against bounds and not against what this machine prints.
"""

import re
from pathlib import Path

import pytest
from example_run import run_example

TREE = Path(__file__).resolve().parents[2]
CONDITIONS = [f"1e{exponent}" for exponent in range(2, 17, 2)]
UNIT = 2.0**-53


def table_of(text):
    rows = re.findall(r"^\| (1e\d+) \| (.+) \|$", text, re.MULTILINE)
    return {condition: [float(cell) for cell in cells.split(" | ")] for condition, cells in rows}


@pytest.fixture(scope="module")
def printed():
    return run_example("refined_solves", "--systems", 2)


def check(table):
    assert list(table) == CONDITIONS
    for condition, (plain, unrefined, *refined) in table.items():
        assert plain == unrefined and len(refined) == 6
        gain = 4 * 10 * UNIT * float(condition)
        if gain < 0.01:
            assert plain > 1 and max(refined[2:]) <= 1 + 2 * gain


def test_table_says_which_device_it_is_of(printed):
    assert printed.returncode == 0 and printed.stderr == ""
    assert printed.stdout.startswith(("device: emulated", "device: CUDA"))


def test_printed_table_keeps_the_bounds(printed):
    check(table_of(printed.stdout))


def test_table_in_the_documents_keeps_the_bounds():
    check(table_of((TREE / "docs" / "solvers.md").read_text()))


@pytest.mark.parametrize("arguments", [("--systems", 0), ("--systems", "many"), ("--wrong",)])
def test_useless_argument_is_refused(arguments):
    refused = run_example("refined_solves", *arguments)
    assert refused.returncode == 2 and refused.stdout == ""
