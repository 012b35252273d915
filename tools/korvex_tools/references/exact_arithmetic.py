# SPDX-License-Identifier: Apache-2.0
"""Exact rational arithmetic on doubles: what a sum, its limbs and its rounding should be.

Imports nothing of the project. A finite double is an integer multiple of 2**-1074, so an exact
sum is one Python integer in that unit; rounding is Python's own division of integers, which is
correctly rounded over the whole range, subnormal results included.
"""

import math
import struct
from fractions import Fraction

UNIT = 1 << 1074  # units of 2**-1074 in 1.0
LARGEST = math.ldexp(2.0 - 2.0**-52, 1023)
SMALLEST = math.ldexp(1.0, -1074)
SMALLEST_NORMAL = math.ldexp(1.0, -1022)
NAN_BITS = 0x7FF8000000000000


def bits(value):
    """The 64 stored bits of a double."""
    return struct.unpack("<Q", struct.pack("<d", value))[0]


def from_bits(pattern):
    return struct.unpack("<d", struct.pack("<Q", pattern))[0]


def units(value):
    """A finite double as an integer multiple of 2**-1074."""
    numerator, denominator = value.as_integer_ratio()
    return numerator * (UNIT // denominator)


def exact_sum(values):
    """The sum of finite doubles, unrounded."""
    return Fraction(sum(map(units, values)), UNIT)


def round_to_double(value):
    """The nearest double, ties to even; infinite where that rounding overflows."""
    value = Fraction(value)
    try:
        return (value.numerator / value.denominator) + 0.0
    except OverflowError:
        return math.inf if value > 0 else -math.inf


def canonical_limbs(value, count):
    """Each limb the rounding of what the limbs before it left over.

    A limb whose rounding overflows is the largest double instead and the next ones take the
    rest; only a last limb that would still overflow makes the whole infinite. Zeros are +0.0.
    """
    limbs = []
    rest = Fraction(value)
    for place in range(count):
        limb = round_to_double(rest)
        if math.isinf(limb):
            if place == count - 1:
                return [limb] + [0.0] * (count - 1)
            limb = math.copysign(LARGEST, limb)
        limbs.append(limb)
        rest -= Fraction(limb)
    return limbs


def sum_limbs(values, count):
    """The limbs of the sum of any doubles, infinities and NaN included."""
    infinities = {v for v in values if math.isinf(v)}
    if any(math.isnan(v) for v in values) or len(infinities) == 2:
        return [from_bits(NAN_BITS)] + [0.0] * (count - 1)
    if infinities:
        return [infinities.pop()] + [0.0] * (count - 1)
    return canonical_limbs(exact_sum(values), count)


def exact_dot(x, y):
    """The sum of products of finite doubles, unrounded."""
    return Fraction(sum(units(a) * units(b) for a, b in zip(x, y, strict=True)), UNIT * UNIT)


def dot_limbs(x, y, count):
    """The limbs of the sum of products of any doubles; infinity times zero is NaN."""
    pairs = list(zip(x, y, strict=True))
    infinite = [a * b for a, b in pairs if not (math.isfinite(a) and math.isfinite(b))]
    if infinite:
        return sum_limbs(infinite, count)
    return canonical_limbs(exact_dot(x, y), count)


def ulp(value):
    """The distance to the next double away from zero, of a finite double."""
    return Fraction(math.ulp(value))


def ulps_off(result, exact):
    """How far a finite double is from an exact value, in units of the last place of that value."""
    return abs(Fraction(result) - exact) / ulp(round_to_double(exact))


def stated_value(value):
    """What a limb's decimal form states: the leading bit of the mantissa counts as always set.

    So subnormal limbs, infinities and NaN come out as other numbers than they are.
    """
    if value == 0.0:
        return Fraction(0)
    pattern = bits(value)
    mantissa = pattern & (2**52 - 1) | 2**52
    size = Fraction(2) ** ((pattern >> 52 & 2047) - 1075) * mantissa
    return -size if pattern >> 63 else size


def round_to_digits(value, digits=1000):
    """The nearest number of so many decimal digits, ties to even, of one with finitely many."""
    value = Fraction(value)
    places = value.denominator.bit_length()  # no prime 2 or 5 is in there more often
    number, rest = divmod(abs(value.numerator) * 10**places, value.denominator)
    assert rest == 0, "no finite decimal"
    surplus = max(len(str(number)) - digits, 0)
    quotient, rest = divmod(number, 10**surplus)
    half = 5 * 10 ** (surplus - 1) if surplus else 1
    quotient += rest > half or (rest == half and quotient % 2)
    rounded = Fraction(quotient * 10**surplus, 10**places)
    return -rounded if value < 0 else rounded


def decimal_of_limbs(limbs):
    """Limbs added from the first to the last, each sum rounded to 1000 digits."""
    total = Fraction(0)
    for limb in limbs:
        total = round_to_digits(total + stated_value(limb))
    return total


def collapsed(limbs):
    """Limbs as one double, by the steps of a collapse on Python's own floats."""
    result, carry = limbs[0], 0.0
    for limb in limbs[1:]:
        s = result + limb
        v = s - result
        carry = carry + ((result - (s - v)) + (limb - v))
        result = s
    return result + carry
