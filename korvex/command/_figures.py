# SPDX-License-Identifier: Apache-2.0
"""What is known about one exact sum, and how far float sums are off.

Errors are measured by rational arithmetic: a float's distance from the exact value is counted in
the last place of the nearest float64.
"""

from __future__ import annotations

import math
import sys
from dataclasses import dataclass
from decimal import ROUND_HALF_EVEN, Context, Decimal
from fractions import Fraction

from korvex import exact

MEAN_DIGITS = 1000
_MEAN = Context(prec=MEAN_DIGITS, rounding=ROUND_HALF_EVEN)


@dataclass(frozen=True)
class Figures:
    """All there is to show about one column."""

    total: exact.Sum
    missing: int
    float_sums: dict[str, float]

    @property
    def is_finite(self) -> bool:
        """Whether there is an exact value: no element is infinite or NaN."""
        return self.total.to_decimal(1).is_finite()

    @property
    def value(self) -> Fraction:
        """Precondition: is_finite."""
        return self.total.to_fraction()

    @property
    def mean(self) -> Decimal:
        """The exact mean, rounded once to MEAN_DIGITS digits. Precondition: some value."""
        if not self.is_finite:
            return self.total.to_decimal()
        mean = self.value / self.total.count
        return _MEAN.divide(Decimal(mean.numerator), Decimal(mean.denominator))

    @property
    def needs_more_limbs(self) -> bool:
        """Whether four limbs are not the whole sum."""
        return self.is_finite and self.value != sum(map(Fraction, self.limbs), Fraction(0))

    @property
    def limbs(self) -> tuple[float, ...]:
        return self.total.limbs(4)


def nearest_float(value: Fraction) -> float:
    """The float64 nearest to a rational number: Python's division of integers rounds once."""
    try:
        return value.numerator / value.denominator
    except OverflowError:
        return math.inf if value > 0 else -math.inf


def ulps_off(result: float, value: Fraction) -> Fraction:
    """Signed distance of a finite float from the exact value, in the value's last place.

    Precondition: the exact value is not 0, which has no last place.
    """
    nearest = nearest_float(value)
    last_place = math.ulp(nearest if math.isfinite(nearest) else sys.float_info.max)
    return (Fraction(result) - value) / Fraction(last_place)


def distance_text(float_sum: float, figures: Figures) -> str:
    """How far a float sum is from the exact one."""
    if not figures.is_finite:
        return ""
    value = figures.value
    if not math.isfinite(float_sum):
        return "not a number" if math.isnan(float_sum) else "overflowed"
    if Fraction(float_sum) == value:
        return "exact"
    if value == 0:
        return "off by all of itself: the exact sum is 0"
    tag = ", the nearest float64" if float_sum == nearest_float(value) else ""
    return ulps_text(ulps_off(float_sum, value)) + tag


def decimal_of_ratio(value: Fraction, digits: int = 17) -> str:
    """Rounded to some digits; a float would overflow for distances like 1e600 last places."""
    context = Context(prec=digits, rounding=ROUND_HALF_EVEN)
    return str(context.divide(Decimal(value.numerator), Decimal(value.denominator)))


def ulps_text(ulps: Fraction) -> str:
    if abs(ulps) < Fraction(1, 1000):
        return "under 0.001 ulp"
    if abs(ulps) < 1000:
        return f"{float(ulps):+.3f} ulp"
    return f"{Context(prec=4).divide(Decimal(ulps.numerator), Decimal(ulps.denominator)):+.3E} ulp"


def decimal_text(value: Decimal, digits: int) -> str:
    """The value in full if `digits` digits do, else its first ones and how many there are."""
    if not value.is_finite():
        return str(value)
    sign, all_digits, exponent = value.normalize(Context(prec=2000)).as_tuple()
    digits_before_point = len(all_digits) + int(exponent)
    if len(all_digits) > digits:
        shown, power = _place_point(all_digits[:digits], digits_before_point)
        power += f" (first {digits} of {len(all_digits)} digits)"
        return "-" * sign + shown + "..." + power
    trailing_zeros = max(0, digits_before_point - len(all_digits))
    if len(all_digits) + trailing_zeros <= digits:
        all_digits += (0,) * trailing_zeros
    return "-" * sign + "".join(_place_point(all_digits, digits_before_point))


def _place_point(digits: tuple[int, ...], digits_before_point: int) -> tuple[str, str]:
    """Digits and power of 0.001234, 1234.5 or 1.2345E+300; the power is empty where none is due."""
    text = "".join(map(str, digits))
    if -5 < digits_before_point <= 0:
        return "0." + "0" * -digits_before_point + text, ""
    in_front = digits_before_point if 0 < digits_before_point <= len(text) else 1
    power = "" if in_front == digits_before_point else f"E{digits_before_point - 1:+d}"
    fraction = "." + text[in_front:] if len(text) > in_front else ""
    return text[:in_front] + fraction, power
