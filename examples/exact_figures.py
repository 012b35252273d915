# SPDX-License-Identifier: Apache-2.0
"""What is known about one sum: its limbs, its exact decimals, and how far float sums are off.

Errors are measured by rational arithmetic: four limbs are four rational numbers, their sum is the
exact sum, and a float's distance from it is counted in the last place of the nearest float64.
"""

import math
import sys
from dataclasses import dataclass
from decimal import Context, Decimal
from fractions import Fraction
from typing import Any

import numpy as np
import torch
from sum_device import SumDevice

# Any sum of four limbs fits: at most 309 digits before the point and 1074 behind it.
_WIDE = Context(prec=1400)
_MEAN = Context(prec=1000)
_SMALLEST_NORMAL = sys.float_info.min


@dataclass(frozen=True)
class SumFigures:
    """All there is to show about one set of values."""

    count: int
    limbs: list[float]
    total: Decimal  # as to_decimal gives it, with its limits
    mean: Decimal
    result: Any  # the TQXResult that the figures were read from
    checksum: str  # its checksum, all 64 characters
    float_sums: dict[str, float]

    @property
    def is_finite(self) -> bool:
        return all(map(math.isfinite, self.limbs))

    @property
    def exact_total(self) -> Fraction:
        """The sum of the limbs. Precondition: is_finite."""
        return sum(map(Fraction, self.limbs), Fraction(0))

    @property
    def exact_mean(self) -> Fraction:
        """Precondition: is_finite."""
        return self.exact_total / self.count

    @property
    def total_is_exact(self) -> bool:
        """Whether to_decimal gave the sum of the limbs, unrounded."""
        return self.is_finite and Fraction(self.total) == self.exact_total

    @property
    def has_subnormal_limb(self) -> bool:
        return any(0.0 < abs(limb) < _SMALLEST_NORMAL for limb in self.limbs)


def figures_of(device: SumDevice, values: np.ndarray) -> SumFigures:
    """Runs the sums. Precondition: at least one value, all float64."""
    runtime = device.runtime
    x = device.tensor(values)
    result = runtime.tqx_sum(x, return_tqx=True)
    with np.errstate(over="ignore", invalid="ignore"):
        numpy_sum = float(np.sum(values))
    return SumFigures(
        count=values.size,
        limbs=[limb.item() for limb in result.limbs],
        total=result.to_decimal(),
        mean=runtime.tqx_mean_exact(x),
        result=result,
        checksum=runtime.tqx_checksum_hex(result),
        float_sums={
            "numpy.sum": numpy_sum,
            "torch.sum": torch.sum(x).item(),
            "tqx_sum": result.item(),
        },
    )


def nearest_float(value: Fraction) -> float:
    """The float64 nearest to a rational number: Python's division of integers rounds once."""
    try:
        return value.numerator / value.denominator
    except OverflowError:
        return math.inf if value > 0 else -math.inf


def ulps_off(result: float, exact: Fraction) -> Fraction:
    """Signed distance of a finite float from the exact value, in the value's last place.

    Precondition: the exact value is not 0, which has no last place.
    """
    nearest = nearest_float(exact)
    last_place = math.ulp(nearest if math.isfinite(nearest) else sys.float_info.max)
    return (Fraction(result) - exact) / Fraction(last_place)


def exact_decimal(value: Fraction) -> Decimal:
    """A sum of limbs, unrounded: its denominator is a power of two."""
    return _WIDE.divide(Decimal(value.numerator), Decimal(value.denominator))


def mean_decimal(value: Fraction) -> Decimal:
    """A quotient rounded once, to as many digits as tqx_mean_exact gives."""
    return _MEAN.divide(Decimal(value.numerator), Decimal(value.denominator))


def decimal_text(value: Decimal, digits: int) -> str:
    """The value in full if `digits` digits do, else its first ones and how many there are."""
    sign, all_digits, exponent = value.normalize(_WIDE).as_tuple()
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
