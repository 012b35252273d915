# SPDX-License-Identifier: Apache-2.0
"""What the single-block reductions should leave: rational arithmetic, and MPFR for logarithms.

Imports nothing of the project. Each result is rounded once, from its exact value. gmpy2, which
brings MPFR, is needed for logarithms only.
"""

import math
from fractions import Fraction

from korvex_tools.references import exact_arithmetic as exact

NAN = exact.from_bits(exact.NAN_BITS)
LOG_BITS = 4000  # of working precision: the smallest result beside 1 needs 1200


def mean(values):
    if not values or not all(map(math.isfinite, values)):
        return NAN
    return exact.round_to_double(exact.exact_sum(values) / len(values))


def exact_variance(values):
    """The sum of squared deviations from the exact mean, over n - 1."""
    centre = exact.exact_sum(values) / len(values)
    return sum((Fraction(v) - centre) ** 2 for v in values) / (len(values) - 1)


def variance(values):
    if len(values) < 2 or not all(map(math.isfinite, values)):
        return NAN
    return exact.round_to_double(exact_variance(values))


def norm(values):
    if any(map(math.isnan, values)):
        return NAN
    if any(map(math.isinf, values)):
        return math.inf
    squares = sum(exact.units(v) ** 2 for v in values)  # in units of 2**-2148
    root = math.isqrt(squares << 200)
    # Where the root is not whole, any bit further down shows on which side of it the value lies.
    more = Fraction(int(root * root != squares << 200), 4)
    return exact.round_to_double((root + more) / Fraction(exact.UNIT << 100))


def product_limbs(values):
    negative = sum(math.copysign(1.0, v) < 0 for v in values) % 2
    infinite = any(map(math.isinf, values))
    if any(map(math.isnan, values)) or (infinite and 0.0 in values):
        return [NAN, 0.0]
    if infinite:
        return [-math.inf if negative else math.inf, 0.0]
    # Whole numbers and a power of two: fractions would be reduced at each step.
    ratios = [v.as_integer_ratio() for v in values]
    top = math.prod(a for a, _ in ratios)
    bottom = sum(b.bit_length() - 1 for _, b in ratios)
    value = Fraction(top, 1 << bottom)
    first = exact.round_to_double(value)
    if math.isinf(first):
        return [first, 0.0]
    return [first, exact.round_to_double(value - Fraction(first))]


def prefix_limbs(values):
    """The first and the second limbs of the sums through each element."""
    total, special, rows = 0, [], []
    for value in values:
        if math.isfinite(value):
            total += exact.units(value)
        else:
            special.append(value)
        rows.append(
            exact.sum_limbs(special, 2)
            if special
            else exact.canonical_limbs(Fraction(total, exact.UNIT), 2)
        )
    return [row[0] for row in rows], [row[1] for row in rows]


def logsumexp(values):
    if any(map(math.isnan, values)):
        return NAN
    largest = max(values, default=-math.inf)
    if math.isinf(largest):
        return largest
    finite = [v for v in values if not math.isinf(v)]
    if len(finite) == 1:
        return finite[0] + 0.0  # -0 as +0
    import gmpy2
    from gmpy2 import mpfr

    with gmpy2.context(precision=LOG_BITS):
        rest = sum((gmpy2.exp(mpfr(v) - mpfr(largest)) for v in finite), mpfr(0))
        result = gmpy2.mpq(mpfr(largest) + gmpy2.log(rest))
    return exact.round_to_double(Fraction(int(result.numerator), int(result.denominator)))
