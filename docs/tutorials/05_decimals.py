# SPDX-License-Identifier: Apache-2.0
"""Decimals with every digit, and statistics that do not depend on a large mean."""

import random
import statistics
from fractions import Fraction

import torch

import korvex.emulation

if not torch.cuda.is_available():
    korvex.emulation.activate()
import korvex.tqx_runtime as tqx


def on_device(values):
    return torch.tensor(values, device="cuda", dtype=torch.float64)


# A sum that spans 400 orders of magnitude, digit for digit.
total = tqx.tqx_sum_exact(on_device([1e200, 1.0, -1e200, 2.0**-600, 0.1]))
digits = "".join(map(str, total.normalize().as_tuple().digits))
print("digits of the sum:", len(digits))
print("first and last:   ", digits[:25], "...", digits[-25:])
print("as a fraction:    ", Fraction(total) == 1 + Fraction(2) ** -600 + Fraction(0.1))

# The exact sum, divided once: 1000 digits of a mean.
mean = tqx.tqx_mean_exact(on_device([1.0, 0.0, 0.0]))
print("a third:          ", f"{mean:.12}...", len(mean.as_tuple().digits), "digits")

# Readings of about 1e9 whose spread is about 1.
source = random.Random(5)
readings = [1e9 + source.uniform(-1, 1) for _ in range(1000)]
squares = sum(r * r for r in readings) - sum(readings) ** 2 / len(readings)
x = on_device(readings)
exact = statistics.variance(map(Fraction, readings))
print("textbook variance:", squares / (len(readings) - 1))
print("tqx_var:          ", tqx.tqx_var(x).item())
print("rounded exact:    ", float(exact))
print("tqx_std:          ", tqx.tqx_std(x).item())
