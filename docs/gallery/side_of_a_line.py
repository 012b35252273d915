# SPDX-License-Identifier: Apache-2.0
"""On which side of a line does a point lie? The sign of a sum of six products."""

import numpy as np

from korvex import exact

SIGNS = np.array(list("-0+"))
side, q, r = 32, (12.0, 12.0), (24.0, 24.0)
steps = np.arange(side) * 2.0**-53  # neighbours of 0.5 that float64 can tell apart
px, py = (axis.ravel() for axis in np.meshgrid(0.5 + steps, 0.5 + steps))

# (qx - px)(ry - py) - (qy - py)(rx - px), as code usually has it
rounded = (q[0] - px) * (r[1] - py) - (q[1] - py) * (r[0] - px)
# the same multiplied out: every product is exact, and so is their sum
ones = np.ones_like(px)
rows = np.stack([px, px, py, py, q[0] * ones, q[1] * ones], axis=1)
kept = exact.matmul(rows, np.array([q[1], -r[1], r[0], -q[0], r[1], -r[0]]))

print("float64                           exact.matmul")
for line in range(side)[::-1]:
    row = slice(line * side, (line + 1) * side)
    signs = [np.sign(values[row]).astype(int) for values in (rounded, kept)]
    print("  ".join("".join(SIGNS[each + 1]) for each in signs))
print(f"# {np.sum(np.sign(rounded) != np.sign(kept))} of {side * side} signs differ")
