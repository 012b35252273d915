# SPDX-License-Identifier: Apache-2.0
"""A running sum of tenths: how the error of float64 grows with the number of addends."""

from fractions import Fraction

import numpy as np

from korvex import exact

n = 10**6
tenth = Fraction(0.1)  # the float64 that stands for a tenth
plain = np.cumsum(np.full(n, 0.1))
kept = exact.cumulative_sum(np.full(n, 0.1))

print("addends  float64   exact.cumulative_sum")
for power in range(2, 13):
    count = 10 ** (power // 2) * (3 if power % 2 else 1)
    true = count * tenth
    found = [Fraction(sums[count - 1]) for sums in (plain, kept)]
    errors = [float(abs(value / true - 1)) for value in found]
    print(f"{count:7}  {errors[0]:.2e}  {errors[1]:.2e}")
