# SPDX-License-Identifier: Apache-2.0
"""Counting in float16: a plain sum stops growing, the exact one is rounded at the end."""

import numpy as np

from korvex import exact

x = np.ones(60_000, np.float16)
plain = np.cumsum(x, dtype=np.float16)

print("ones   float16  exact.sum")
for count in (10, 100, 500, 1000, 2000, 2500, 3000, 5000, 10_000, 30_000, 60_000):
    kept = exact.sum(x[:count], dtype=np.float16)
    print(f"{count:5}  {plain[count - 1]:7.0f}  {kept:9.0f}")
