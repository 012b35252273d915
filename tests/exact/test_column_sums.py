# SPDX-License-Identifier: Apache-2.0
"""Sums down the columns of a matrix: against rational numbers, in every format and layout."""

import exact_oracle as oracle
import numpy as np
import pytest
from exact_arrays import MAX, REAL_DTYPES, drawn, extremes, float_lists, numpy_dtype
from exact_oracle import bits, numbers_of
from hypothesis import given
from hypothesis import strategies as st

from korvex.exact import _native

FORMATS = ("float64", "float32", "float16", "bfloat16")


def column_sums(x, form="float64", threads=1):
    is_bfloat16 = x.dtype.name == "bfloat16"
    out = np.empty(x.shape[1], np.uint16 if form == "bfloat16" else form)
    values = x.view(np.uint16) if is_bfloat16 else x
    _native.column_sums(values, out, form, threads, "bfloat16" if is_bfloat16 else None)
    return out.view(numpy_dtype(form)) if form == "bfloat16" else out


def expected(x, form="float64"):
    columns = [numbers_of(np.ascontiguousarray(x[:, i])) for i in range(x.shape[1])]
    return [bits(oracle.rounded(oracle.exact_sum(each), form)) for each in columns]


def found(x, form="float64", threads=1):
    return [bits(float(value)) for value in column_sums(x, form, threads)]


@pytest.mark.parametrize("form", FORMATS)
@pytest.mark.parametrize("name", REAL_DTYPES)
def test_every_format(name, form):
    ends = extremes(name)
    rows = [np.tile(ends, 3), drawn(name, 3 * ends.size), np.roll(np.tile(ends, 3), 1)]
    x = np.stack(rows)
    assert found(x, form) == expected(x, form)


@given(rows=st.lists(float_lists.filter(len), min_size=1, max_size=5))
def test_columns_against_rational_numbers(rows):
    width = min(map(len, rows))
    x = np.array([row[:width] for row in rows])
    for form in FORMATS:
        assert found(x, form) == expected(x, form)


@given(values=st.lists(st.floats(), min_size=3, max_size=3))
def test_specials(values):
    x = np.array([[value, 1.0] for value in values])
    assert found(x) == expected(x)


def test_what_overflows_on_the_way_returns():
    x = np.array([[MAX, MAX, -0.0, 2.0**-1074], [MAX, MAX, -0.0, MAX], [-MAX, 1.0, -0.0, -MAX]])
    assert column_sums(x)[[0, 3]].tolist() == [MAX, 2.0**-1074]
    assert column_sums(x)[1] == np.inf and not np.signbit(column_sums(x)[2])


def test_ties_that_a_far_last_bit_decides():
    """Three binades apart: the sum of errors is not exact, so the column is summed in full."""
    far = 2.0**-500
    x = np.array([[1.0, 1.0, 1.0], [2.0**-53, 2.0**-53, 2.0**-53], [far, -far, 0.0]])
    x = np.vstack([x, [[2.0**-200] * 3], [[-(2.0**-200)] * 3]])
    assert column_sums(x).tolist() == [1 + 2.0**-52, 1.0, 1.0]
    x = np.array([[1.0], [2.0**-24], [2.0**-60]])
    assert column_sums(x, "float32").tolist() == [1 + 2.0**-23]


@pytest.mark.parametrize("threads", [1, 3])
def test_layouts_and_threads(threads, usable_instruction_sets):
    x = np.random.default_rng(2).standard_normal((5, 200_000)) * 1e10
    x[3] = -x[1]
    whole = column_sums(x, threads=threads)
    assert [bits(value) for value in whole[:300]] == expected(x[:, :300])
    for name in usable_instruction_sets:
        _native.set_instruction_set(name)
        assert np.array_equal(column_sums(x, threads=threads), whole)
    assert np.array_equal(column_sums(np.asfortranarray(x)), whole)
    assert np.array_equal(column_sums(x[:, ::-1])[::-1], whole)
    assert np.array_equal(column_sums(x[::-1]), whole)


def test_matrices_without_rows_or_columns():
    assert column_sums(np.empty((0, 3))).tolist() == [0.0] * 3
    assert column_sums(np.empty((3, 0))).size == 0


def test_wrong_arguments():
    with pytest.raises(ValueError, match="x must have 2 dimensions, but has 1"):
        _native.column_sums(np.ones(2), np.ones(2), "float64", 1)
    with pytest.raises(ValueError, match=r"out must have shape \(2,\), but has \(3,\)"):
        _native.column_sums(np.ones((2, 2)), np.ones(3), "float64", 1)
