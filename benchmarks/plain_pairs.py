# SPDX-License-Identifier: Apache-2.0
"""Value and error of sum, product and quotient in plain torch operations, the rival of the kernels.

Each is what a program without kernels of its own would write: TwoSum, TwoProduct with the split of
Veltkamp and Dekker, and a quotient with its remainder. Exact away from overflow and underflow.
"""

import torch

Pair = tuple[torch.Tensor, torch.Tensor]

_SPLITTER = 134217729.0  # 2^27 + 1


def add(x: torch.Tensor, y: torch.Tensor) -> Pair:
    total = x + y
    y_part = total - x
    return total, (x - (total - y_part)) + (y - y_part)


def subtract(x: torch.Tensor, y: torch.Tensor) -> Pair:
    return add(x, -y)


def multiply(x: torch.Tensor, y: torch.Tensor) -> Pair:
    product = x * y
    x_high, x_low = _split(x)
    y_high, y_low = _split(y)
    rest = ((product - x_high * y_high) - x_low * y_high) - x_high * y_low
    return product, x_low * y_low - rest


def divide(x: torch.Tensor, y: torch.Tensor) -> Pair:
    quotient = x / y
    product, error = multiply(quotient, y)
    return quotient, ((x - product) - error) / y


def _split(x: torch.Tensor) -> Pair:
    scaled = _SPLITTER * x
    high = scaled - (scaled - x)
    return high, x - high
