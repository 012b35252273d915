# SPDX-License-Identifier: Apache-2.0
"""The exact references once more for a million values at a time.

Whole numbers alone, in units of 2**-1074 (2**-2148 for products), each result rounded once by
Python's division of integers; MPFR where a logarithm or a root over all elements is asked for. The
plain references beside this file say the same of fewer values, and a test compares them. Imports
nothing of the project.
"""

import math

import numpy as np

from korvex_tools.references.exact_arithmetic import LARGEST
from korvex_tools.references.exact_reductions import logsumexp as plain_logsumexp
from korvex_tools.references.exact_rms_norm import rms_norm as plain_rms_norm

WIDE_BITS = 400  # of MPFR: about 300 more than a rounding to a double needs but in rare cases
SURE_BITS = 340  # of which so many are taken for right


def parts(x):
    """Finite doubles as signed mantissas and shifts: the value is m * 2**(shift - 1074)."""
    patterns = x.view(np.uint64)
    fields = (patterns >> np.uint64(52) & np.uint64(2047)).astype(np.int64)
    mantissas = (patterns & np.uint64((1 << 52) - 1)).astype(np.int64)
    mantissas += np.where(fields > 0, 1 << 52, 0)
    return np.where(np.signbit(x), -mantissas, mantissas), np.maximum(fields, 1) - 1


def listed(x):
    return [p.tolist() for p in parts(x)]


def whole(x):
    """Each value as one integer in units of 2**-1074."""
    return [m << shift for m, shift in zip(*listed(x), strict=True)]


def whole_of(value):
    numerator, denominator = value.as_integer_ratio()
    return numerator * ((1 << 1074) // denominator)


def quotient(numerator, denominator):
    """The nearest double, ties to even; zero is +0."""
    try:
        return numerator / denominator + 0.0
    except OverflowError:
        return math.inf if (numerator > 0) == (denominator > 0) else -math.inf


def limbs(total, scale, count):
    """Canonical limbs of total * 2**-scale."""
    found, unit = [], 1 << scale
    for place in range(count):
        limb = quotient(total, unit)
        if math.isinf(limb):
            if place == count - 1:
                return [limb] + [0.0] * (count - 1)
            limb = math.copysign(LARGEST, limb)
        found.append(limb)
        total -= whole_of(limb) << (scale - 1074)
    return found


# ---- sums ----


def total(x):
    """By bins of one exponent: in each, halves of the mantissas add up below 2**53, so exactly."""
    mantissas, shifts = parts(x)
    high, low = mantissas >> 27, mantissas & (2**27 - 1)
    assert x.size <= 2**25
    sums = [np.bincount(shifts, weights=half.astype(np.float64)) for half in (high, low)]
    bins = zip(*(s.astype(np.int64).tolist() for s in sums), strict=True)
    return sum((h * 2**27 + w) << shift for shift, (h, w) in enumerate(bins))


def total_of_products(x, y):
    """In units of 2**-2148."""
    bins = [0] * (2 * 2046)
    for a, s, b, t in zip(*listed(x), *listed(y), strict=True):
        bins[s + t] += a * b
    return sum(value << shift for shift, value in enumerate(bins))


def sum_limbs(x, count):
    return limbs(total(x), 1074, count)


def dot_limbs(x, y, count):
    return limbs(total_of_products(x, y), 2148, count)


def prefix_limbs(x):
    sum_so_far, rows = 0, []
    for value in whole(x):
        sum_so_far += value
        rows.append(limbs(sum_so_far, 1074, 2))
    return np.array(rows).T


def product_limbs(a, b):
    """Of matrices: each of the three limbs as all elements row by row."""
    columns = [whole(np.ascontiguousarray(column)) for column in b.T]
    rows = []
    for row in map(whole, a):
        for column in columns:
            rows.append(limbs(sum(map(int.__mul__, row, column)), 2148, 3))
    return np.array(rows).T


# ---- reductions ----


def mean_and_variance(x):
    n, first, second = x.size, total(x), total_of_products(x, x)
    spread = n * second - first * first
    return [quotient(first, n << 1074), quotient(spread, n * (n - 1) << 2148)]


def norm(x):
    squares = total_of_products(x, x) << 200
    root = math.isqrt(squares)
    # Where the root is not whole, any bit further down shows on which side of it the value lies.
    return [quotient(4 * root + (root * root != squares), 1 << (1074 + 102))]


def product_pair(x):
    """Both limbs of the product of all values, none of which is zero."""
    import gmpy2

    mantissas, shifts = listed(x)
    factors = list(map(gmpy2.mpz, mantissas))
    while len(factors) > 1:
        odd = factors[-1:] if len(factors) % 2 else []
        factors = [a * b for a, b in zip(factors[::2], factors[1::2], strict=False)] + odd
    product, exponent = int(factors[0]), sum(shifts) - 1074 * len(shifts)
    first = _shortened(product, exponent)
    rest = product - (whole_of(first) << (-1074 - exponent))
    return [first, _shortened(rest, exponent)]


def _shortened(number, exponent):
    """RN(number * 2**exponent): the last kept bit says whether anything follows it."""
    cut = max(number.bit_length() - 1300, 0)
    top = (abs(number) >> cut) << 1 | int(number & ((1 << cut) - 1) != 0)
    exponent += cut - 1
    top = -top if number < 0 else top
    return quotient(top << max(exponent, 0), 1 << max(-exponent, 0))


def logsumexp(x):
    import gmpy2
    from gmpy2 import mpfr

    largest = float(x.max())
    with gmpy2.context(precision=WIDE_BITS):
        top = mpfr(largest)
        terms = [gmpy2.exp(mpfr(value) - top) for value in x.tolist()]
        value = top + gmpy2.log(gmpy2.fsum(terms))
        margin = (abs(top) + 100) * mpfr(2) ** -SURE_BITS
        ends = value - margin, value + margin
    low, high = _to_doubles(ends)
    return [low if low == high else plain_logsumexp(x.tolist())]


def rms_norm(x, eps):
    import gmpy2
    from gmpy2 import mpfr

    with gmpy2.context(precision=WIDE_BITS):
        squares = gmpy2.mpq(total_of_products(x, x), x.size << 2148) + gmpy2.mpq(eps)
        factor = 1 / gmpy2.sqrt(mpfr(squares))
        margin = 1 + mpfr(2) ** -SURE_BITS
        ends = (factor / margin, factor * margin)
        wide = [[mpfr(value) * end for value in x.tolist()] for end in ends]
    low, high = map(_to_doubles, wide)
    if low != high:
        return np.array(plain_rms_norm(x.tolist(), eps))
    return np.array(low)


def _to_doubles(wide):
    import gmpy2

    with gmpy2.context(gmpy2.ieee(64)):
        return [float(gmpy2.mpfr(value)) for value in wide]


# ---- pairs ----


def sum_pairs(x, y):
    """The six operations of TwoSum, by the IEEE arithmetic of NumPy."""
    with np.errstate(all="ignore"):
        s = x + y
        v = s - x
        return s, (x - (s - v)) + (y - v)


def difference_pairs(x, y):
    return sum_pairs(x, -y)


def product_pairs(x, y):
    with np.errstate(all="ignore"):
        values = x * y
    finite = np.isfinite(values)
    places = np.flatnonzero(finite)
    errors = np.zeros(x.size)
    rows = zip(whole(x[places]), whole(y[places]), whole(values[places]), strict=True)
    errors[places] = [quotient(a * b - (p << 1074), 1 << 2148) for a, b, p in rows]
    return values, errors


def quotient_pairs(x, y):
    with np.errstate(all="ignore"):
        values = x / y
    places = np.flatnonzero(np.isfinite(values) & np.isfinite(y))
    errors = np.zeros(x.size)
    rows = zip(whole(x[places]), whole(y[places]), whole(values[places]), strict=True)
    errors[places] = [quotient((a << 1074) - q * b, b << 1074) for a, b, q in rows]
    exact = [abs(quotient(a, b)) for a, b in zip(whole(x[places]), whole(y[places]), strict=True)]
    assert np.array_equal(np.abs(values[places]), exact), "NumPy does not divide as IEEE 754 has it"
    return values, errors
