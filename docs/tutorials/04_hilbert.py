# SPDX-License-Identifier: Apache-2.0
"""A Hilbert system, solved in float64 and with refinement on exact residuals."""

import math
from fractions import Fraction

import torch

import korvex.emulation

if not torch.cuda.is_available():
    korvex.emulation.activate()
import korvex.tqx_runtime as tqx


def solve_exactly(matrix, right):
    """Gauss-Jordan elimination on fractions: the true solution of the stored numbers."""
    rows = [[*map(Fraction, row), Fraction(b)] for row, b in zip(matrix, right, strict=True)]
    for i in range(len(rows)):
        rows[i] = [value / rows[i][i] for value in rows[i]]
        for j in range(len(rows)):
            if j != i:
                factor = rows[j][i]
                rows[j] = [v - factor * p for v, p in zip(rows[j], rows[i], strict=True)]
    return [row[-1] for row in rows]


def worst_error(solution, exact):
    """Largest error, relative to the largest element of the true solution."""
    errors = [abs(Fraction(x) - e) for x, e in zip(solution, exact, strict=True)]
    return max(errors) / max(map(abs, exact))


# The errors themselves differ between machines; that they are beyond these bounds does not.
print(" n  condition  float64 is off by more than  refined to 2**-52")
for n in (4, 6, 8, 10):
    matrix = [[1.0 / (i + j + 1) for j in range(n)] for i in range(n)]
    right = [1.0] * n
    exact = solve_exactly(matrix, right)
    a = torch.tensor(matrix, device="cuda", dtype=torch.float64)
    b = torch.tensor(right, device="cuda", dtype=torch.float64)

    condition = math.floor(torch.linalg.cond(a.cpu()).log10().item())
    plain = worst_error(torch.linalg.solve(a.cpu(), b.cpu()).tolist(), exact)
    refined = worst_error(tqx.tqx_solve(a, b).tolist(), exact)
    bound = 10.0 ** (condition - 19)
    print(f"{n:2}  1e{condition:<8} {bound:.0e} {plain > bound!s:22} {refined <= 2.0**-52}")
