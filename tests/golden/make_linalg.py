# SPDX-License-Identifier: Apache-2.0
"""Golden digests of the linear algebra. Run it to write linalg.json: python make_linalg.py

Only what every device must give; products themselves stand in products.json. Not here, since
torch's own arithmetic decides the last bits: tqx_einsum of equations that go to torch,
tqx_conv_transpose2d where blocks overlap (torch's fold adds there), and tqx_solve, tqx_inv and
tqx_det of matrices that a factorisation rounds (solve and LU are LAPACK's or cuSOLVER's). Rows
whose names say "exact in torch" use operands with which torch's part has nothing to round.
"""

import functools
from fractions import Fraction

from korvex_tools.references import exact_linear
from korvex_tools.references.exact_arithmetic import (
    dot_limbs,
    exact_dot,
    exact_sum,
    round_to_double,
)
from korvex_tools.verify import golden
from korvex_tools.verify.golden import Case

REFERENCE = "exact sums of products as fractions, rounded by Python's integer division"
KINDS = {"uniform": golden.uniform, "wide": golden.wide, "integers": golden.integers}
UNROUNDED = ", exact in torch"


# ---- operands ----


def nested(values, *extents):
    """A flat list as nested lists of those extents."""
    for extent in reversed(extents[1:]):
        values = golden.rows(values, extent)
    return values


def operands(kind, seed, *shapes):
    values = []
    for place, shape in enumerate(shapes):
        count = 1
        for extent in shape:
            count *= extent
        flat = KINDS[kind](f"linalg {seed} {place}", count)
        values.append(nested(flat, *shape))
    return tuple(values)


# ---- references ----


def columns(matrix):
    return [list(column) for column in zip(*matrix, strict=True)]


def rounded_product(a, b):
    turned = columns(b)
    return [[round_to_double(exact_dot(row, column)) for column in turned] for row in a]


def linear(x, weight, bias):
    product = rounded_product(x, columns(weight))
    return [[p + c for p, c in zip(row, bias, strict=True)] for row in product]


def squares(pred, target):
    differences = [p - t for p, t in zip(pred, target, strict=True)]
    return exact_sum([d * d for d in differences])


def rounded(values):
    if isinstance(values, Fraction):
        return round_to_double(values)
    return [rounded(v) for v in values]


def convolution(x, weight, stride, padding):
    return rounded(exact_linear.convolution(x, weight, stride, padding))


def blocks_apart(x, weight):
    """The transposed convolution with the kernel as its stride: each place has one contribution."""
    kernel_height, kernel_width = len(weight[0][0]), len(weight[0][0][0])

    def element(member, k, row, column):
        i, j = row % kernel_height, column % kernel_width
        taps = [channel[k][i][j] for channel in weight]
        pixels = [plane[row // kernel_height][column // kernel_width] for plane in member]
        return round_to_double(exact_dot(pixels, taps))

    height, width = len(x[0][0]) * kernel_height, len(x[0][0][0]) * kernel_width
    return [
        [
            [[element(member, k, row, column) for column in range(width)] for row in range(height)]
            for k in range(len(weight[0]))
        ]
        for member in x
    ]


# ---- systems that need no rounding ----


def exchanged_powers():
    """A permutation of rows of a diagonal of powers of two."""
    order, powers = (2, 0, 3, 1), (8.0, -0.25, 2.0**-30, 2.0**20)
    return [[powers[i] if j == order[i] else 0.0 for j in range(4)] for i in range(4)]


def solution(matrix, right):
    return [round_to_double(v) for v in exact_linear.solve(matrix, right)]


def inverse(matrix):
    units = [[float(i == j) for j in range(4)] for i in range(4)]
    return columns([solution(matrix, unit) for unit in units])


def determinant(matrix):
    """By expansion along the first row."""
    if not matrix:
        return Fraction(1)
    minors = [[row[:j] + row[j + 1 :] for row in matrix[1:]] for j in range(len(matrix))]
    return sum(
        (-1) ** j * Fraction(head) * determinant(minor)
        for j, (head, minor) in enumerate(zip(matrix[0], minors, strict=True))
    )


def _cases():
    for kind in KINDS:
        matrices = functools.partial(operands, kind, "matrices", (9, 17), (17, 6))
        yield Case(
            f"tqx_einsum ij,jk->ik, {kind}",
            matrices,
            rounded_product,
            lambda m, a, b: m.tqx_einsum("ij,jk->ik", a, b),
        )
        yield Case(
            f"tqx_einsum i,i-> limbs, {kind}",
            functools.partial(operands, kind, "vectors", (300,), (300,)),
            lambda x, y: dot_limbs(x, y, 4),
            lambda m, x, y: m.tqx_einsum("i,i->", x, y, return_tqx=True),
        )
        yield Case(
            f"tqx_linear, {kind}",
            functools.partial(operands, kind, "linear", (9, 17), (6, 17), (6,)),
            linear,
            lambda m, x, weight, bias: m.tqx_linear(x, weight, bias),
        )
        pairs = functools.partial(operands, kind, "loss", (300,), (300,))
        yield Case(
            f"tqx_mse_loss sum, {kind}",
            pairs,
            lambda p, t: round_to_double(squares(p, t)),
            lambda m, p, t: m.tqx_mse_loss(p, t, "sum"),
        )
        images = functools.partial(operands, kind, "images", (2, 3, 7, 6), (4, 3, 3, 2))
        for stride, padding in ((1, 0), (2, 1)):
            yield Case(
                f"tqx_conv2d stride {stride} padding {padding}, {kind}",
                images,
                functools.partial(convolution, stride=stride, padding=padding),
                functools.partial(
                    lambda m, x, weight, stride, padding: m.tqx_conv2d(x, weight, stride, padding),
                    stride=stride,
                    padding=padding,
                ),
            )
        yield Case(
            f"tqx_conv_transpose2d of blocks apart, {kind}{UNROUNDED}",
            functools.partial(operands, kind, "turned", (2, 3, 4, 5), (3, 4, 2, 2)),
            blocks_apart,
            lambda m, x, weight: m.tqx_conv_transpose2d(x, weight, stride=2),
        )
    yield Case(
        f"tqx_solve of exchanged powers of two{UNROUNDED}",
        lambda: (exchanged_powers(), [3.0, -5.0, 7.0, 11.0]),
        solution,
        lambda m, a, b: m.tqx_solve(a, b),
    )
    yield Case(
        f"tqx_inv of exchanged powers of two{UNROUNDED}",
        lambda: (exchanged_powers(),),
        inverse,
        lambda m, a: m.tqx_inv(a) + 0.0,  # a zero that is solved for may have either sign
    )
    yield Case(
        f"tqx_det of exchanged powers of two{UNROUNDED}",
        lambda: (exchanged_powers(),),
        lambda a: round_to_double(determinant(a)),
        lambda m, a: m.tqx_det(a),
    )


CASES = [*_cases()]

if __name__ == "__main__":
    golden.write(__file__, CASES, REFERENCE)
