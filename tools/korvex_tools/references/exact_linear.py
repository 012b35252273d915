# SPDX-License-Identifier: Apache-2.0
"""Linear algebra and convolutions on fractions: what exact results are. Imports nothing of ours."""

import math
from fractions import Fraction


def solve(a, b):
    """The exact solution of a square system with one right-hand side, by elimination."""
    rows = [[Fraction(v) for v in row] + [Fraction(right)] for row, right in zip(a, b, strict=True)]
    n = len(rows)
    for k in range(n):
        pivot = next(i for i in range(k, n) if rows[i][k])
        rows[k], rows[pivot] = rows[pivot], rows[k]
        rows[k] = [v / rows[k][k] for v in rows[k]]
        for i in range(n):
            if i != k and rows[i][k]:
                rows[i] = [v - rows[i][k] * w for v, w in zip(rows[i], rows[k], strict=True)]
    return [row[n] for row in rows]


def hilbert_scale(n):
    """The least number that makes the Hilbert matrix whole: its doubles are then exact."""
    return math.lcm(*range(1, 2 * n))


def scaled_hilbert(n):
    scale = hilbert_scale(n)
    return [[float(scale // (i + j + 1)) for j in range(n)] for i in range(n)]


def scaled_hilbert_inverse(n):
    """Of `scaled_hilbert(n)`, from binomial coefficients (Choi, Amer. Math. Monthly 90, 1983)."""
    c = math.comb
    return [
        [
            Fraction(
                (-1) ** (i + j)
                * (i + j + 1)
                * c(n + i, n - j - 1)
                * c(n + j, n - i - 1)
                * c(i + j, i) ** 2,
                hilbert_scale(n),
            )
            for j in range(n)
        ]
        for i in range(n)
    ]


def scaled_hilbert_determinant(n):
    """Of `scaled_hilbert(n)`: with c(k) = 1! 2! ... (k-1)!, scale**n * c(n)**4 / c(2n)."""

    def c(k):
        return math.prod(math.factorial(i) for i in range(1, k))

    return Fraction(hilbert_scale(n) ** n * c(n) ** 4, c(2 * n))


# ---- convolutions of nested lists: [member][channel][row][column] ----


def convolution(x, weight, stride, padding):
    """Every element of the output, unrounded."""
    kernel_height, kernel_width = len(weight[0][0]), len(weight[0][0][0])
    height, width = len(x[0][0]), len(x[0][0][0])

    def element(member, kernel, top, left):
        total = Fraction(0)
        for plane, taps in zip(member, kernel, strict=True):
            for i, row in enumerate(taps):
                for j, tap in enumerate(row):
                    if 0 <= top + i < height and 0 <= left + j < width:
                        total += Fraction(plane[top + i][left + j]) * Fraction(tap)
        return total

    tops = range(-padding, height + padding - kernel_height + 1, stride)
    lefts = range(-padding, width + padding - kernel_width + 1, stride)
    return [
        [[[element(member, kernel, t, left) for left in lefts] for t in tops] for kernel in weight]
        for member in x
    ]
