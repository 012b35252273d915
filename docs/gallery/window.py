# SPDX-License-Identifier: Apache-2.0
"""The sum of the last ten readings, one of which is huge: float64 never gets over it."""

import numpy as np

from korvex import exact

x = np.random.default_rng(4).integers(1, 1000, 60) / 100.0
x[20] = 1e17
width, plain, window = 10, 0.0, exact.Sum()

print("step  float64  exact.Sum")
for step in range(len(x)):
    plain += x[step]
    window.add(x[step : step + 1])
    if step >= width:
        plain -= x[step - width]
        window.subtract(x[step - width : step - width + 1])
    if not 20 <= step < 30:  # the huge reading is in the window for ten steps
        print(f"{step:4}  {plain:7.2f}  {float(window):9.2f}")
