# SPDX-License-Identifier: Apache-2.0
"""Ratios and roots of integers are rounded once, in every format, at every border."""

import math
from fractions import Fraction

import exact_oracle as oracle
import pytest
from exact_oracle import FORMATS, bits
from hypothesis import given
from hypothesis import strategies as st

from korvex.exact._rounding import round_ratio, round_root

EACH_FORMAT = pytest.mark.parametrize("form", FORMATS)


def ratio(value, form):
    return round_ratio(value.numerator, value.denominator, form)


def root(value, form):
    return round_root(value.numerator, value.denominator, form)


def power(exponent):
    return Fraction(2) ** exponent


integers = st.integers(-(2**200), 2**200) | st.builds(
    lambda a, b: a << b, st.integers(-(2**60), 2**60), st.integers(0, 1200)
)


@EACH_FORMAT
@given(numerator=integers, denominator=integers.filter(bool).map(abs))
def test_ratio_is_the_nearest_number(form, numerator, denominator):
    expected = oracle.rounded(Fraction(numerator, denominator), form)
    assert bits(round_ratio(numerator, denominator, form)) == bits(expected)


@EACH_FORMAT
@given(numerator=integers.map(abs), denominator=integers.filter(bool).map(abs))
def test_root_is_the_nearest_number(form, numerator, denominator):
    expected = oracle.rounded_root(Fraction(numerator, denominator), form)
    assert bits(round_root(numerator, denominator, form)) == bits(expected)


@given(numerator=integers, denominator=integers.filter(bool).map(abs))
def test_ratio_is_that_of_true_division_in_float64(numerator, denominator):
    try:
        expected = numerator / denominator
    except OverflowError:
        expected = math.inf if numerator > 0 else -math.inf
    assert bits(round_ratio(numerator, denominator) + 0.0) == bits(expected + 0.0)


@EACH_FORMAT
def test_ties_go_to_even(form):
    precision = FORMATS[form][0]
    one_place = power(1 - precision)
    for odd in (1, 3, 5):
        midpoint = 1 + odd * one_place / 2
        even = 1 + (odd + 1) // 2 // 2 * 2 * one_place
        assert ratio(midpoint, form) == even
        assert ratio(-midpoint, form) == -even
        assert ratio(midpoint + power(-3000), form) == 1 + (odd + 1) // 2 * one_place
        assert ratio(midpoint - power(-3000), form) == 1 + odd // 2 * one_place


@EACH_FORMAT
def test_root_of_a_squared_midpoint_goes_to_even(form):
    one_place = power(1 - FORMATS[form][0])
    for odd in (1, 3, 5):
        midpoint = 1 + odd * one_place / 2
        assert root(midpoint**2, form) == 1 + (odd + 1) // 2 // 2 * 2 * one_place
        assert root(midpoint**2 + power(-3000), form) == 1 + (odd + 1) // 2 * one_place
        assert root(midpoint**2 - power(-3000), form) == 1 + odd // 2 * one_place


@EACH_FORMAT
def test_subnormal_numbers_have_their_own_last_place(form):
    precision, least, _ = FORMATS[form]
    smallest = power(least)
    assert ratio(smallest, form) == smallest
    assert ratio(smallest / 2, form) == 0
    assert ratio(smallest / 2 + power(-5000), form) == smallest
    assert ratio(smallest * Fraction(3, 2), form) == 2 * smallest
    assert ratio(smallest * Fraction(5, 2), form) == 2 * smallest
    assert bits(ratio(-smallest / 4, form)) == bits(0.0)
    normal = power(least + precision - 1)
    assert ratio(normal - smallest / 2, form) == normal
    assert ratio(normal - smallest, form) == normal - smallest
    assert root(smallest**2, form) == smallest
    assert root((smallest * Fraction(3, 2)) ** 2, form) == 2 * smallest
    assert root((smallest / 2) ** 2, form) == 0


@EACH_FORMAT
def test_what_rounds_beyond_the_largest_number_is_an_infinity(form):
    precision, _, end = FORMATS[form]
    largest = power(end) - power(end - precision)
    midpoint = power(end) - power(end - precision - 1)
    assert ratio(largest, form) == largest
    assert ratio(midpoint - power(-3000), form) == largest
    assert ratio(midpoint, form) == math.inf
    assert ratio(-midpoint, form) == -math.inf
    assert root((midpoint - power(-3000)) ** 2, form) == largest
    assert root(midpoint**2, form) == math.inf


@EACH_FORMAT
def test_zero(form):
    assert bits(round_ratio(0, 7, form)) == bits(0.0)
    assert bits(round_root(0, 7, form)) == bits(0.0)
