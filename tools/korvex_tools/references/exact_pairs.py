# SPDX-License-Identifier: Apache-2.0
"""What the kernels of two operands should leave: value and error from rational arithmetic.

Imports nothing of the project. Where an operand or a result is not finite, the rules stand here
once more: a sum follows its six operations, a product or quotient has no error.
"""

import math
from fractions import Fraction

from korvex_tools.references.exact_arithmetic import bits, round_to_double


def six_operations(a, b):
    """TwoSum by the floats of the interpreter, which are IEEE doubles rounded to nearest."""
    s = a + b
    v = s - a
    return s, (a - (s - v)) + (b - v)


def sum_pair(x, y):
    return six_operations(x, y)


def difference_pair(x, y):
    return six_operations(x, -y)


def product_pair(x, y):
    value = x * y
    if not math.isfinite(value):
        return value, 0.0
    return value, round_to_double(Fraction(x) * Fraction(y) - Fraction(value))


def quotient(x, y):
    """x / y as IEEE 754 has it, division by zero included."""
    if not (math.isfinite(x) and math.isfinite(y)) or y == 0.0:
        return _special_quotient(x, y)
    magnitude = round_to_double(abs(Fraction(x) / Fraction(y)))
    return math.copysign(magnitude, _sign(x) * _sign(y))


def quotient_pair(x, y):
    value = quotient(x, y)
    if not (math.isfinite(value) and math.isfinite(y)):
        return value, 0.0
    return value, round_to_double(Fraction(x) / Fraction(y) - Fraction(value))


def _special_quotient(x, y):
    if math.isnan(x) or math.isnan(y) or abs(x) == abs(y) == math.inf or x == y == 0.0:
        return math.nan
    size = 0.0 if abs(y) == math.inf else math.inf
    return math.copysign(size, _sign(x) * _sign(y))


def _sign(x):
    return math.copysign(1.0, x)


PAIRS = {
    "tqx_add_kernel": sum_pair,
    "tqx_sub_kernel": difference_pair,
    "tqx_mul_kernel": product_pair,
    "tqx_div_kernel": quotient_pair,
}


def canonical_bits(value):
    """The bits that a kernel writes: every NaN as the one that all kernels share."""
    return 0x7FF8000000000000 if math.isnan(value) else bits(value)


def expected_bits(kernel, x, y):
    """The two lists of bits that a kernel writes for lists of operands."""
    pairs = [PAIRS[kernel](a, b) for a, b in zip(x, y, strict=True)]
    return [canonical_bits(v) for v, _ in pairs], [canonical_bits(e) for _, e in pairs]
