# SPDX-License-Identifier: Apache-2.0
"""Matrix products that a user could write: two doubles per element, and exact rationals."""

from fractions import Fraction

import torch

SPLITTER = 134217729.0  # 2**27 + 1


def two_sum(a: torch.Tensor, b: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
    total = a + b
    b_part = total - a
    return total, (a - (total - b_part)) + (b - b_part)


def split(a: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
    scaled = SPLITTER * a
    high = scaled - (scaled - a)
    return high, a - high


def double_double(a: torch.Tensor, b: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
    """Value and error of each element: Dekker's product and one TwoSum for each step of k."""
    high = torch.zeros(a.shape[0], b.shape[1], dtype=torch.float64)
    low = torch.zeros_like(high)
    a_high, a_low = split(a)
    b_high, b_low = split(b)
    for k in range(a.shape[1]):
        product = torch.outer(a[:, k], b[k])
        error = torch.outer(a_high[:, k], b_high[k]) - product
        error = error + torch.outer(a_high[:, k], b_low[k]) + torch.outer(a_low[:, k], b_high[k])
        error = error + torch.outer(a_low[:, k], b_low[k])
        high, rest = two_sum(high, product)
        low = low + (rest + error)
    return two_sum(high, low)


def rational(a: torch.Tensor, b: torch.Tensor) -> list[list[Fraction]]:
    rows = [list(map(Fraction, row)) for row in a.tolist()]
    columns = [list(map(Fraction, column)) for column in b.t().tolist()]
    return [
        [sum((x * y for x, y in zip(row, column, strict=True)), Fraction()) for column in columns]
        for row in rows
    ]
