# SPDX-License-Identifier: Apache-2.0
"""One sum in a thousand orders: how far float64 is off, and how often."""

import math
from collections import Counter

import numpy as np

from korvex import exact

random = np.random.default_rng(1)
x = random.random(1000) * 2.0 ** random.integers(-30, 30, 1000)

off, sums = Counter(), set()
for _ in range(1000):
    random.shuffle(x)
    value = exact.sum(x)
    sums.add(float(value))
    off[round((np.cumsum(x)[-1] - value) / math.ulp(value))] += 1

print("ulps  orders")
for ulps, orders in sorted(off.items()):
    print(f"{ulps:4}  {orders:6}")
print(f"# exact.sum gave {len(sums)} value")
