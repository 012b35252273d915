# SPDX-License-Identifier: Apache-2.0
"""The variance of readings far from zero, by the textbook, in two passes and exactly."""

from fractions import Fraction

import numpy as np

from korvex import exact


def total(values):
    return np.cumsum(values)[-1]  # one addition after the other


readings = np.random.default_rng(3).integers(0, 64, 1000) / 8.0
print("offset   textbook  two passes  exact.var")
for power in range(13):
    x = readings + 10.0**power
    n, whole = len(x), [Fraction(value) for value in x]
    mean = sum(whole) / n
    true = sum((value - mean) ** 2 for value in whole) / n
    textbook = total(x * x) / n - (total(x) / n) ** 2
    passes = total((x - total(x) / n) ** 2) / n
    found = [Fraction(value) for value in (textbook, passes, exact.var(x))]
    errors = [float(abs(value / true - 1)) for value in found]
    print(f"{10.0**power:.0e}    {errors[0]:.2e}  {errors[1]:.2e}    {errors[2]:.2e}")
