# SPDX-License-Identifier: Apache-2.0
"""The tests' own instruments: what they measure with is measured here."""

import math
from fractions import Fraction

import gmpy2
import pytest
from call_recorder import Recorder
from hypothesis import given
from hypothesis import strategies as st

from korvex_tools.references.exact_arithmetic import (
    LARGEST,
    SMALLEST,
    bits,
    canonical_limbs,
    exact_sum,
    from_bits,
    round_to_double,
    sum_limbs,
    ulps_off,
)

FINITE = st.integers(0, 2**64 - 1).map(from_bits).filter(math.isfinite)


# ---- exact arithmetic ----


@given(st.fractions())
def test_rounding_agrees_with_mpfr(value):
    with gmpy2.context(gmpy2.ieee(64)):
        expected = float(gmpy2.mpfr(gmpy2.mpq(value.numerator, value.denominator)))
    assert round_to_double(value) == expected


@given(FINITE, FINITE)
def test_rounding_a_sum_of_two_agrees_with_the_processor(a, b):
    assert round_to_double(exact_sum([a, b])) == a + b


@pytest.mark.parametrize(
    "value, expected",
    [
        (Fraction(LARGEST) + Fraction(2**969), LARGEST),
        (Fraction(LARGEST) + Fraction(2**970), math.inf),
        (-Fraction(2**1024), -math.inf),
        (Fraction(SMALLEST) / 2, 0.0),
        (Fraction(SMALLEST) * 3 / 4, SMALLEST),
        (-Fraction(SMALLEST) / 4, 0.0),
        (Fraction(0), 0.0),
    ],
)
def test_rounding_at_the_ends_of_the_range(value, expected):
    assert bits(round_to_double(value)) == bits(expected)


@given(st.lists(FINITE, max_size=4))
def test_four_limbs_hold_any_four_doubles_below_overflow(values):
    limbs = canonical_limbs(exact_sum(values), 4)
    if LARGEST not in map(abs, limbs):
        assert sum(map(Fraction, limbs)) == exact_sum(values)


@given(st.lists(FINITE, max_size=12))
def test_each_limb_is_at_most_half_an_ulp_of_the_one_before(values):
    limbs = canonical_limbs(exact_sum(values), 4)
    if LARGEST not in map(abs, limbs):
        for limb, following in zip(limbs, limbs[1:], strict=False):
            assert following == 0.0 or abs(following) <= math.ulp(limb) / 2


def test_limbs_at_overflow():
    assert canonical_limbs(Fraction(LARGEST) * 2, 2) == [LARGEST, LARGEST]
    assert canonical_limbs(Fraction(LARGEST) * 5 / 2, 2) == [math.inf, 0.0]
    assert canonical_limbs(-Fraction(LARGEST) * 4, 4) == [-LARGEST] * 4
    assert canonical_limbs(-Fraction(LARGEST) * 5, 4) == [-math.inf, 0.0, 0.0, 0.0]


def test_limbs_of_special_values():
    assert sum_limbs([1.0, math.inf], 2) == [math.inf, 0.0]
    for values in ([math.nan], [math.inf, -math.inf], [math.inf, math.nan]):
        assert list(map(bits, sum_limbs(values, 2))) == [0x7FF8000000000000, 0]


def test_distance_in_ulps():
    assert ulps_off(1.0, Fraction(1)) == 0
    assert ulps_off(1.0 + 2.0**-52, Fraction(1)) == 1
    assert ulps_off(1.0, 1 + Fraction(1, 2**53)) == Fraction(1, 2)


# ---- the recorder ----


def test_recorder_names_results_as_the_script_does():
    recorder = Recorder("""
        x.double
        wide = x.double()
        s = wide + 1
        -s
        bool((-s))
        out[2]
        out[:3]
        f((a, 1), [b], k=None)
    """)
    x, out, f = recorder.spy("x"), recorder.spy("out"), recorder.spy("f")
    assert not not -(x.double() + 1)
    out[2], out[:3]
    f((recorder.spy("a"), 1), [recorder.spy("b")], k=None)
    recorder.check()


@pytest.mark.parametrize(
    "script",
    ["x.a\nx.b\nx.c", "x.a", "x.b\nx.a", "", "x.a\nx.b()"],
    ids=["too few", "too many", "other order", "unexpected", "other kind"],
)
def test_recorder_notices_a_difference(script):
    recorder = Recorder(script)
    x = recorder.spy("x")
    _ = x.a, x.b
    with pytest.raises(AssertionError):
        recorder.check()


def test_recorder_tells_an_operation_in_place_from_an_operator():
    recorder = Recorder("x + 1")
    x = recorder.spy("x")
    x += 1
    with pytest.raises(AssertionError):
        recorder.check()


def test_recorder_returns_and_raises_what_it_is_given():
    failure = KeyError("given")
    recorder = Recorder(
        "n = x.numel()\nx.fail", returns={"n": 5, "x.numel": len}, raises={"x.fail": failure}
    )
    x = recorder.spy("x")
    assert x.numel is len
    with pytest.raises(KeyError) as caught:
        _ = x.fail
    assert caught.value is failure
