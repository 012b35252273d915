# SPDX-License-Identifier: Apache-2.0
"""x / sqrt(mean of squares + eps), correctly rounded by whole numbers alone.

|result| is compared with midpoints exactly: value^2 = x^2 n / T is rational, so are the squares of
midpoints. Imports nothing of the project.
"""

import math
from fractions import Fraction

from korvex_tools.references.exact_arithmetic import LARGEST, round_to_double


def rms_norm(values, eps):
    """The list of results; every rule for what is not finite stands here once more."""
    n = len(values)
    if n == 0:
        return []
    if math.isnan(eps) or eps == -math.inf or any(map(math.isnan, values)):
        return [math.nan] * n
    if eps == math.inf or any(map(math.isinf, values)):
        return [math.nan if math.isinf(v) else math.copysign(0.0, v) for v in values]
    total = sum((Fraction(v) ** 2 for v in values), n * Fraction(eps))
    if total < 0:
        return [math.nan] * n
    if total == 0:
        return [math.copysign(math.inf, v) if v else math.nan for v in values]
    return [math.copysign(_rounded_root(Fraction(v) ** 2 * n / total), v) for v in values]


def _rounded_root(square):
    """RN(sqrt(square)): a root of 120 bits, nudged off midpoints that it is not on."""
    if square == 0:
        return 0.0
    shift = (square.denominator.bit_length() - square.numerator.bit_length()) // 2 + 120
    scaled = square * Fraction(4) ** shift
    whole = math.isqrt(math.floor(scaled))
    if whole * whole != scaled:  # the root lies strictly between whole and whole + 1
        root = Fraction(2 * whole + 1, 2)
    else:
        root = Fraction(whole)
    root = root / Fraction(2) ** shift if shift >= 0 else root * 2**-shift
    return math.inf if root >= Fraction(LARGEST) + Fraction(2) ** 970 else round_to_double(root)
