# SPDX-License-Identifier: Apache-2.0
"""The table and the picture of the errors of the series functions, made as a user makes them."""

import re
import subprocess
import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest
from example_run import run_example

TREE = Path(__file__).resolve().parents[2]
ROW = re.compile(r"\| `(tqx_\w+)` \| (.+?) \| (\de[-+]\d\d)( absolute)? \| (\d+) \|")


def rows_of(text):
    return [line for line in text.splitlines() if line.startswith("| `tqx_")]


@pytest.fixture(scope="module")
def few_points():
    return run_example("series_errors", "--points", 50)


def test_table_says_which_device_it_is_of(few_points):
    assert few_points.returncode == 0 and few_points.stderr == ""
    assert few_points.stdout.startswith(("device: emulated", "device: CUDA"))


def test_table_holds_every_series_function(few_points):
    functions = {ROW.fullmatch(row)[1] for row in rows_of(few_points.stdout)}
    one = {f"tqx_{f}" for f in ("sin", "cos", "tan", "asin", "acos", "atan", "sinh", "cosh")}
    assert functions == one | {"tqx_atan2"}


def test_errors_are_small_where_the_functions_serve_and_large_where_not(few_points):
    errors = {
        (match[1], match[2]): float(match[3])
        for match in map(ROW.fullmatch, rows_of(few_points.stdout))
    }
    assert 0 < errors["tqx_asin", "0 to 0.5"] < 1e-15
    assert 0 < errors["tqx_sinh", "0 to 8"] < 1e-14
    assert 0.01 < errors["tqx_asin", "0.9 to 1"] < 0.1
    assert 0.01 < errors["tqx_atan", "0.1 to 1"] < 0.1


def test_digits_are_those_of_the_error(few_points):
    for match in map(ROW.fullmatch, rows_of(few_points.stdout)):
        # The printed error is rounded up to one digit, so it may stand one step above.
        assert 0.5 * 10.0 ** -(int(match[5]) + 1) < float(match[3]) <= 10.0 ** -int(match[5])


def test_table_in_the_documents_is_what_the_program_prints():
    printed = rows_of(run_example("series_errors", "--emulated").stdout)
    assert rows_of((TREE / "docs" / "series.md").read_text()) == printed and len(printed) > 20


def test_picture_is_drawn(tmp_path):
    pytest.importorskip("matplotlib")
    path = tmp_path / "errors.svg"
    command = [sys.executable, "-P", "-W", "error", "-m", "korvex_tools.figures.series_picture"]
    command += ["--points", "20", "--output", path]
    drawn = subprocess.run(command, capture_output=True, text=True, timeout=300)
    assert drawn.returncode == 0, drawn.stderr
    assert drawn.stdout.endswith(f"drawn: {path.name}\n")
    assert ElementTree.fromstring(path.read_text()).tag.endswith("svg")


@pytest.mark.parametrize("arguments", [("--points", 1), ("--points", "many"), ("--wrong",)])
def test_useless_argument_is_refused(arguments):
    refused = run_example("series_errors", *arguments)
    assert refused.returncode == 2 and refused.stdout == ""
