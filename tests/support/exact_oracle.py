# SPDX-License-Identifier: Apache-2.0
"""What `korvex.exact` should give, in rational numbers: nothing of the package is used here.

Every function takes Python numbers; infinities and NaN are floats. Rounding is that of `round` on
fractions, which is to nearest with ties to even, at the last place that the format has there.
"""

import math
from fractions import Fraction

import numpy as np

# Precision, exponent of the last place of subnormal numbers, end of the exponents.
FORMATS = {
    "float64": (53, -1074, 1024),
    "float32": (24, -149, 128),
    "float16": (11, -24, 16),
    "bfloat16": (8, -133, 128),
}

LARGEST = (2.0 - 2.0**-52) * 2.0**1023


def finite(value):
    return not isinstance(value, float) or math.isfinite(value)


def special_sum(values):
    """What infinities and NaN make of a sum; None if there are none."""
    specials = [value for value in values if not finite(value)]
    return (
        math.fsum(specials)
        if specials and len({*map(str, specials)}) == 1
        else (math.nan if specials else None)
    )


def exact_sum(values):
    """The exact sum, or the special value."""
    special = special_sum(values)
    return sum(map(Fraction, values), Fraction()) if special is None else special


def products(x, y):
    return [
        Fraction(a) * Fraction(b) if finite(a) and finite(b) else float(a) * float(b)
        for a, b in zip(x, y, strict=True)
    ]


def exact_variance(values, correction=0):
    """The sum of the squared deviations over n - correction: not the formula of the package."""
    divisor = len(values) - Fraction(correction)
    if not values or special_sum(values) is not None or divisor <= 0:
        return math.nan
    mean = exact_sum(values) / len(values)
    return sum(((Fraction(v) - mean) ** 2 for v in values), Fraction()) / divisor


def rounded(value, form="float64"):
    """An exact value rounded once; floats are special values and stay as they are."""
    if isinstance(value, float) or value == 0:
        return float(value)
    precision, least, end = FORMATS[form]
    place = Fraction(2) ** max(floor_log2(abs(value)) - precision + 1, least)
    result = round(value / place) * place
    magnitude = math.inf if abs(result) >= Fraction(2) ** end else abs(float(result))
    return -magnitude if value < 0 and magnitude else magnitude  # a zero result is +0


def rounded_root(value, form="float64"):
    """The root of a rational number rounded once, by trying the numbers of the format around it."""
    if isinstance(value, float) or value == 0:
        return abs(float(value))
    precision, least, end = FORMATS[form]
    place = Fraction(2) ** max(floor_log2(value) // 2 - precision + 1, least)
    low, high = 0, 2 ** (precision + 1)
    while high - low > 1:
        middle = (low + high) // 2
        low, high = (middle, high) if (middle * place) ** 2 <= value else (low, middle)
    midpoint = (low + Fraction(1, 2)) * place
    up = midpoint**2 < value or (midpoint**2 == value and low % 2 == 1)
    result = (low + up) * place
    return math.inf if result >= Fraction(2) ** end else float(result)


def floor_log2(value):
    exponent = value.numerator.bit_length() - value.denominator.bit_length()
    return exponent if Fraction(2) ** exponent <= value else exponent - 1


def limbs_of(value, count):
    """Canonical limbs.

    One that would overflow is the largest float64 where others follow; where the last one would
    still overflow, all is an infinity.
    """
    if isinstance(value, float):
        return (value, *[0.0] * (count - 1))
    limbs = []
    for place in range(count):
        limb = rounded(value)
        if math.isinf(limb):
            if place == count - 1:
                return (limb, *[0.0] * (count - 1))
            limb = math.copysign(LARGEST, limb)
        limbs.append(limb)
        value -= Fraction(limb)
    return tuple(limbs)


def numbers_of(array):
    """The elements as Python numbers, also of bfloat16 of NumPy and of tensors."""
    if hasattr(array, "detach"):
        return array.detach().cpu().reshape(-1).tolist()
    if array.dtype.name == "bfloat16":
        array = array.astype(np.float32)
    return array.reshape(-1).tolist()


def bits(value):
    """The bits of a number, all NaN alike: equal exactly where results are the same."""
    return "NaN" if math.isnan(value) else float(value).hex()
