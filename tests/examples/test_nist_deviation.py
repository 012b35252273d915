# SPDX-License-Identifier: Apache-2.0
"""The deviations of certified data: what the program prints, held against the files themselves."""

import re
from decimal import Decimal, localcontext

import pytest
from example_run import EXAMPLES, run_example

CERTIFIED = {"Michelso": "0.0790105478190518", "Lew": "277.332168044316", "NumAcc4": "0.1"}


@pytest.fixture(scope="module")
def tables():
    """By the name of a set: its rows (value, digits certified, digits stored) and its notes."""
    process = run_example("nist_deviation")
    assert process.returncode == 0, process.stderr
    output = process.stdout
    found = {}
    for block in output.split("\n\n")[1:]:
        title, _, *lines = block.splitlines()
        rows = [re.split(r"\s{2,}", text.strip()) for text in lines if not text.startswith("  !")]
        notes = [text for text in lines if text.startswith("  !")]
        found[title.partition(".")[0]] = ({row[0]: row[1:] for row in rows}, notes)
    return found


@pytest.mark.parametrize("name", CERTIFIED)
def test_certified_value_is_that_of_the_decimals(name):
    with localcontext(prec=60):
        numbers = [Decimal(t) for t in (EXAMPLES / "data" / f"{name}.txt").read_text().split()]
        mean = sum(numbers) / len(numbers)
        variance = sum((number - mean) ** 2 for number in numbers) / (len(numbers) - 1)
        certified = Decimal(CERTIFIED[name])
        assert abs(variance.sqrt() - certified) <= certified * Decimal("5e-15")


@pytest.mark.parametrize("name", CERTIFIED)
def test_deviation_has_every_digit_that_the_stored_values_allow(tables, name):
    rows, _ = tables[name]
    # Two roundings, of the variance and of its root: an error of at most 3 * 2**-54 relative.
    assert float(rows["tqx_std"][2]) >= 15.7
    assert rows["tqx_std"][1] == rows["stored, exactly"][1]


@pytest.mark.parametrize("name", CERTIFIED)
def test_no_other_way_is_nearer_to_the_stored_values(tables, name):
    rows, _ = tables[name]
    for other in ("numpy.std", "torch.std", "sums of squares"):
        assert float(rows[other][2]) <= float(rows["tqx_std"][2])


def test_table_says_where_the_stored_values_are_the_limit(tables):
    assert not tables["Lew"][1]  # whole numbers
    [note] = tables["NumAcc4"][1]
    assert "the stored float64 values are not the decimals" in note
    assert float(tables["NumAcc4"][0]["sums of squares"][2]) < 2
