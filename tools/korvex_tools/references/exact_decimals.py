# SPDX-License-Identifier: Apache-2.0
"""Quotients and roots rounded to 1000 decimal digits, by whole numbers alone.

Ties go to the even digit, as in the decimal context that the module sets. Imports nothing of the
project.
"""

import math
from fractions import Fraction

DIGITS = 1000


def _to_digits(number, more, power):
    """number * 10**power with so many digits; `more`: something follows the last one."""
    surplus = max(len(str(number)) - DIGITS, 0)
    quotient, rest = divmod(number, 10**surplus)
    twice = 2 * rest
    limit = 10**surplus
    above = twice > limit or (twice == limit and (more or quotient % 2 == 1))
    return Fraction(quotient + above) * Fraction(10) ** (power + surplus)


def divided(value, divisor):
    """value / divisor rounded once."""
    value = Fraction(value) / divisor
    size = abs(value)
    if size == 0:
        return value
    power = 0
    while size * 10**power < 10 ** (DIGITS + 2):
        power += DIGITS
    number, rest = divmod(size.numerator * 10**power, size.denominator)
    rounded = _to_digits(number, rest > 0, -power)
    return rounded if value > 0 else -rounded


def root(value):
    """The square root, rounded once."""
    value = Fraction(value)
    if value == 0:
        return value
    power = 0
    while value * 100**power < 100 ** (DIGITS + 2):
        power += DIGITS
    scaled = value * 100**power
    whole = math.floor(scaled)
    number = math.isqrt(whole)
    return _to_digits(number, number * number != scaled, -power)
