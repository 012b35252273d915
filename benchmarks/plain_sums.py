# SPDX-License-Identifier: Apache-2.0
"""Sums and dot products with some of their rounding errors kept, as a user could write them."""

import math
from collections.abc import Iterable


def two_sum(a: float, b: float) -> tuple[float, float]:
    """Knuth, TAOCP 2, 4.2.2."""
    total = a + b
    b_part = total - a
    return total, (a - (total - b_part)) + (b - b_part)


def two_product(a: float, b: float) -> tuple[float, float]:
    """Dekker 1971, with the split of Veltkamp; the operands must be far from overflow."""
    product = a * b
    a_high, b_high = _high_half(a), _high_half(b)
    a_low, b_low = a - a_high, b - b_high
    rest = ((product - a_high * b_high) - a_low * b_high) - a_high * b_low
    return product, a_low * b_low - rest


def _high_half(a: float) -> float:
    scaled = 134217729.0 * a  # 2^27 + 1
    return scaled - (scaled - a)


def compensated_sum(values: Iterable[float]) -> float:
    """Neumaier 1974: errors are gathered beside the sum, and added once at the end."""
    total = error = 0.0
    for value in values:
        total, lost = two_sum(total, value)
        error += lost
    return total + error


def double_double_sum(values: Iterable[float]) -> float:
    """Value and error are put in order after each step."""
    high = low = 0.0
    for value in values:
        total, lost = two_sum(high, value)
        high, low = two_sum(total, low + lost)
    return high + low


def compensated_dot(x: Iterable[float], y: Iterable[float]) -> float:
    """Dot2 of Ogita, Rump and Oishi 2005: as if worked out in twice the precision."""
    total = error = 0.0
    for a, b in zip(x, y, strict=True):
        product, product_error = two_product(a, b)
        total, lost = two_sum(total, product)
        error += lost + product_error
    return total + error


def sum_of_rounded_products(x: Iterable[float], y: Iterable[float]) -> float:
    return math.fsum(a * b for a, b in zip(x, y, strict=True))
