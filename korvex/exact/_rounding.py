# SPDX-License-Identifier: Apache-2.0
"""Correct rounding of ratios of integers, and of their square roots, to a binary format.

Rounding is to nearest, ties to even, once, from the exact value; what rounds beyond the largest
finite number is an infinity, and what rounds to zero is +0, as everywhere in this package. Results
are Python floats, which hold the numbers of every format.
"""

from __future__ import annotations

import math
from typing import NamedTuple


class Format(NamedTuple):
    """A binary floating-point format."""

    precision: int  # bits of a normal number's significand
    least_exponent: int  # of the last place of subnormal numbers
    end_exponent: int  # finite numbers lie below 2**end_exponent


FORMATS = {
    "float64": Format(53, -1074, 1024),
    "float32": Format(24, -149, 128),
    "float16": Format(11, -24, 16),
    "bfloat16": Format(8, -133, 128),
}


def round_ratio(numerator: int, denominator: int, name: str = "float64") -> float:
    """Return numerator / denominator, correctly rounded; the denominator is positive."""
    form = FORMATS[name]
    magnitude = abs(numerator)
    if magnitude == 0:
        return 0.0
    quantum = _quantum(_floor_log2(magnitude, denominator), form)
    dividend, divisor = _shifted(magnitude, denominator, quantum)
    quotient, rest = divmod(dividend, divisor)
    result = _rounded(quotient, 2 * rest - divisor, quantum, form)
    return -result if numerator < 0 and result else result


def round_root(numerator: int, denominator: int, name: str = "float64") -> float:
    """Return the root of numerator / denominator, correctly rounded; neither is negative."""
    form = FORMATS[name]
    if numerator == 0:
        return 0.0
    quantum = _quantum(_floor_log2(numerator, denominator) // 2, form)
    dividend, divisor = _shifted(numerator, denominator, 2 * quantum)
    # The floor of the root of a number is that of the root of the number's floor.
    root = math.isqrt(dividend // divisor)
    beyond_midpoint = 4 * dividend - (2 * root + 1) ** 2 * divisor
    return _rounded(root, beyond_midpoint, quantum, form)


def _floor_log2(numerator: int, denominator: int) -> int:
    exponent = numerator.bit_length() - denominator.bit_length()
    low, high = _shifted(numerator, denominator, exponent)
    return exponent if low >= high else exponent - 1


def _quantum(exponent: int, form: Format) -> int:
    """The exponent of the last place of numbers whose first bit stands for 2**exponent."""
    return max(exponent - form.precision + 1, form.least_exponent)


def _shifted(numerator: int, denominator: int, exponent: int) -> tuple[int, int]:
    """Two integers whose ratio is numerator / denominator / 2**exponent."""
    if exponent < 0:
        return numerator << -exponent, denominator
    return numerator, denominator << exponent


def _rounded(floor: int, beyond_midpoint: int, quantum: int, form: Format) -> float:
    """`floor` last places, or one more: by the sign of what lies beyond the midpoint of the two."""
    significand = floor + (beyond_midpoint > 0 or (beyond_midpoint == 0 and floor % 2 == 1))
    if significand.bit_length() + quantum > form.end_exponent:
        return math.inf
    return math.ldexp(significand, quantum)  # exact: the number belongs to the format
