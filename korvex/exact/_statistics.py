# SPDX-License-Identifier: Apache-2.0
"""Mean, variance, standard deviation and norm: one correct rounding of an exact value each."""

from __future__ import annotations

import math
import numbers
from fractions import Fraction

from korvex.exact._rounding import round_ratio, round_root
from korvex.exact._state import SQUARES, State


def mean_of(state: State, form: str = "float64") -> float:
    """The mean of a sum's or of moments' elements; NaN of no element."""
    special, count = state.special(), state.counts().elements
    if special is not None:
        return special
    if count == 0:
        return math.nan
    numerator, denominator = state.ratio()
    return round_ratio(numerator, denominator * count, form)


def variance_of(state: State, correction: Fraction, form: str = "float64") -> float:
    """The variance from moments, with the divisor n - correction."""
    ratio = _variance(state, correction)
    return math.nan if ratio is None else round_ratio(*ratio, form)


def deviation_of(state: State, correction: Fraction, form: str = "float64") -> float:
    """The root of the exact variance."""
    ratio = _variance(state, correction)
    return math.nan if ratio is None else round_root(*ratio, form)


def norm_of(state: State, part: int = 0, form: str = "float64") -> float:
    """The root of an exact sum of squares."""
    special = state.special(part)
    if special is not None:
        return abs(special)
    return round_root(*state.ratio(part), form)


def _variance(state: State, correction: Fraction) -> tuple[int, int] | None:
    """The exact variance as a ratio, or None where it is NaN.

    With n elements of sum s and sum of squares q it is (n q - s^2) / (n (n - correction)).
    """
    special, count = state.special(), state.counts().elements
    divisor = count - correction
    if special is not None or count == 0 or divisor <= 0:
        return None
    total, unit = state.ratio()
    squares, _ = state.ratio(SQUARES)  # in units of 1 / unit^2
    numerator = (count * squares - total * total) * divisor.denominator
    return numerator, unit * unit * count * divisor.numerator


_MOST_FACTOR = 2**63 - 1


def divisor_of(count: int, correction: Fraction) -> tuple[int, int] | None:
    """The divisor n - correction as integers over each other, the first 0 where it is not positive.

    None where one is too large for the native half.
    """
    divisor = count - correction
    if count == 0 or divisor <= 0:
        return 0, 1
    if max(divisor.as_integer_ratio()) > _MOST_FACTOR:
        return None
    return divisor.as_integer_ratio()


def checked_correction(correction: object) -> Fraction:
    """The exact value of the argument of that name."""
    if isinstance(correction, bool) or not isinstance(correction, numbers.Real):
        raise TypeError(f"correction must be a real number, not {type(correction).__name__}")
    if isinstance(correction, numbers.Rational):
        return Fraction(correction)
    value = float(correction)
    if not math.isfinite(value):
        raise ValueError(f"correction must be finite, not {value}")
    return Fraction(value)
