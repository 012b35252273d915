# SPDX-License-Identifier: Apache-2.0
"""The chained sums: what the program prints, and the loss that it finds, against rational sums."""

import re
from fractions import Fraction

import numpy as np
import pytest
from example_run import load_example, run_example

SETS = ["alike", "unlike", "very unlike", "unlike, taken back"]


def run(*arguments):
    process = run_example("chained_sums", *arguments)
    return process.returncode, process.stdout, process.stderr


def rows(output):
    """By the name of the set: limbs, first drop, drops, loss, plain loss, three counts."""
    found = {}
    for line in output.splitlines():
        match = re.fullmatch(
            r"(\w[\w, ]*?)\s+(\d+)\s+(\d+|none)\s+(\d+)\s+(\S+)\s+(\S+)\s+(.+/.+)", line
        )
        if match:
            found[match[1]] = match.groups()[1:]
    return found


@pytest.fixture(scope="module")
def long_run():
    return run("--tensors", 40, "--values", 300, "--columns", 5)


def test_run_succeeds_and_names_the_device(long_run):
    code, output, errors = long_run
    assert (code, errors) == (0, "")
    assert re.match(r"device: (emulated \(.+\)|CUDA): .+\n40 tensors of 300 values", output)
    assert list(rows(output)) == SETS


@pytest.mark.parametrize("name", SETS)
def test_cap_acts_from_the_fourth_addition_on(long_run, name):
    limbs, first_drop, drops, loss, plain_loss, _ = rows(long_run[1])[name]
    assert (limbs, first_drop) == ("4", "4") and int(drops) > 20
    assert loss.startswith("2^-") and plain_loss.startswith("2^-")


@pytest.mark.parametrize("name", SETS)
def test_exact_sum_of_the_same_values_is_nearest_throughout(long_run, name):
    counts = rows(long_run[1])[name][-1].split()
    assert counts[2] == "5/5"


def test_four_tensors_lose_nothing():
    code, output, errors = run("--tensors", 4, "--values", 300, "--columns", 5)
    assert (code, errors) == (0, "")
    assert [row[1:4] for row in rows(output).values()] == [("none", "0", "none")] * 4


@pytest.mark.parametrize("arguments", [["--tensors", "0"], ["--columns", "x"], ["more"]])
def test_wrong_arguments_are_refused(arguments):
    code, output, errors = run(*arguments)
    assert code == 2 and output == "" and "usage: chained_sums.py" in errors


# ---- the figures ----


@pytest.fixture(scope="module")
def example():
    """The program as a module, on the device of this run."""
    return load_example("chained_sums")


@pytest.fixture(scope="module")
def chain(example):
    tensors = list(example.tensors_of(60, False, 30, 50))
    return tensors, example.add_all(tensors, 3)


def test_followed_sums_are_the_rational_ones(chain):
    tensors, found = chain
    for place, column in enumerate((0, 24, 49)):
        exact = sum(Fraction(float(tensor[column])) for tensor in tensors)
        assert found.exact[place] == exact


def test_plain_sums_are_those_of_numpy(chain):
    tensors, found = chain
    total = tensors[0]
    for tensor in tensors[1:]:
        total = total + tensor
    assert found.plain == total[[0, 24, 49]].tolist()


def test_loss_is_the_worst_distance_over_the_largest_addend(chain):
    tensors, found = chain
    largest = max(abs(tensor[[0, 24, 49]]).max() for tensor in tensors)
    worst = max(abs(h - e) for h, e in zip(found.held, found.exact, strict=True))
    assert found.loss() == worst / Fraction(float(largest)) > 0


def test_set_that_is_taken_back_sums_to_zero(example):
    tensors = list(example.tensors_of(60, True, 6, 20))
    assert len(tensors) == 6 and not np.array_equal(tensors[0], tensors[1])
    for column in range(20):
        assert sum(Fraction(float(tensor[column])) for tensor in tensors) == 0


def test_values_are_the_same_on_every_machine(example):
    first = next(example.tensors_of(2, False, 1, 3)).tolist()
    assert [value.hex() for value in first] == [
        "-0x1.9116d021f2b1bp+1",
        "0x1.3572d686ec1ebp-1",
        "-0x1.d71ad42f73719p+1",
    ]
