# SPDX-License-Identifier: Apache-2.0
"""Golden digests of dot and matrix products. Run it to write products.json."""

import math

from korvex_tools.references import exact_arithmetic as exact
from korvex_tools.verify import golden
from korvex_tools.verify.golden import Case

REFERENCE = "integers in units of 2**-2148, rounded by Python's division (exact_arithmetic.py)"


# ---- dot products ----


def drawn(make, count, *options):
    return lambda: (make("x of a dot", count, *options), make("y of a dot", count, *options))


def cancelling():
    """Products of very different size that leave the last one alone."""
    x, y = golden.wide("x", 500, -400, 400), golden.wide("y", 500, -400, 400)
    return [*x, *(-v for v in reversed(y)), 2.0**-537], [*y, *reversed(x), 2.0**-537]


FACTORS = {
    "uniform": drawn(golden.uniform, 2000),
    "wide": drawn(golden.wide, 2000),
    "very wide": drawn(golden.wide, 1500, -1000, 1000),
    "any bits": drawn(golden.patterns, 1500),
    "integers": drawn(golden.integers, 1025),
    "cancelling": cancelling,
    "products that underflow": lambda: ([2.0**-600, 5e-324, 1.0], [2.0**-475, 5e-324, 2.0**-1000]),
    "products below every limb": lambda: ([2.0**-600, 1.0], [2.0**-600, -1.0]),
    "overflow midway": lambda: ([2.0**512] * 2 + [1.0], [2.0**512, -(2.0**512), 1.0]),
    "overflow for good": lambda: ([exact.LARGEST] * 2, [3.0] * 2),
    "largest limbs": lambda: ([exact.LARGEST, 1.0], [3.0, 1.0]),
    "zeros": lambda: ([-0.0, 0.0, 1.0], [1.0, -5.0, -0.0]),
    "one infinity": lambda: ([1.0, -math.inf, 2.0], [1.0, 2.0, 3.0]),
    "both infinities": lambda: ([math.inf, 1.0, 2.0], [1.0, -math.inf, 3.0]),
    "infinity times zero": lambda: ([math.inf, 1.0], [0.0, 1.0]),
    "a NaN": lambda: ([math.nan, 1.0], [0.0, 1.0]),
    "nothing": lambda: ([], []),
    "special": golden.special_pairs,
}


def _dots():
    for kind, inputs in FACTORS.items():
        yield Case(
            f"tqx_dot limbs, {kind}",
            inputs,
            lambda x, y: exact.dot_limbs(x, y, 4),
            lambda m, x, y: m.tqx_dot(x, y, return_tqx=True),
        )
        yield Case(
            f"tqx_dot, {kind}",
            inputs,
            lambda x, y: exact.collapsed(exact.dot_limbs(x, y, 4)),
            lambda m, x, y: m.tqx_dot(x, y),
        )
        yield Case(
            f"tqx_dot parallel limbs, {kind}",
            inputs,
            lambda x, y: exact.dot_limbs(x, y, 3),
            lambda m, x, y: m.tqx_dot(x, y, exact=False, return_tqx=True),
        )
        yield Case(
            f"tqx_dot_exact, {kind}",
            inputs,
            lambda x, y: exact.decimal_of_limbs(exact.dot_limbs(x, y, 4)),
            lambda m, x, y: m.tqx_dot_exact(x, y),
        )


# ---- matrix products ----


def matrices(make, rows, columns, inner, *options):
    def inputs():
        a = make(f"a {rows}", rows * inner, *options)
        b = make(f"b {columns}", inner * columns, *options)
        return golden.rows(a, inner), golden.rows(b, columns)

    return inputs


def with_specials():
    """Rows and columns that hold every special value, among others that hold none."""
    a, b = matrices(golden.uniform, 24, 9, 21)()
    for i, value in enumerate(golden.SPECIAL):
        a[i][i] = value
    b[3][2], b[4][4], b[5][6] = 0.0, -math.inf, math.nan
    return a, b


MATRICES = {
    "uniform": matrices(golden.uniform, 20, 33, 40),
    "wide": matrices(golden.wide, 17, 18, 40),
    "very wide": matrices(golden.wide, 9, 10, 40, -1000, 1000),
    "any bits": matrices(golden.patterns, 7, 11, 30),
    "integers": matrices(golden.integers, 33, 5, 17),
    "one row": matrices(golden.uniform, 1, 40, 150),
    "one column": matrices(golden.uniform, 40, 1, 150),
    "long": matrices(golden.wide, 3, 5, 700, -10, 10),
    "no inner extent of more than 1": matrices(golden.uniform, 5, 6, 1),
    "special": with_specials,
}


def product_limbs(a, b):
    """The three limbs, each as all elements row by row."""
    elements = [exact.dot_limbs(row, column, 3) for row in a for column in zip(*b, strict=True)]
    return [list(limb) for limb in zip(*elements, strict=True)]


def _matrix_products():
    for kind, inputs in MATRICES.items():
        yield Case(
            f"tqx_matmul limbs, {kind}",
            inputs,
            product_limbs,
            lambda m, a, b: m.tqx_matmul(a, b, return_tqx=True),
        )
        yield Case(
            f"tqx_matmul, {kind}",
            inputs,
            lambda a, b: [
                exact.collapsed(limbs) for limbs in zip(*product_limbs(a, b), strict=True)
            ],
            lambda m, a, b: m.tqx_matmul(a, b),
        )
        yield Case(
            f"tqx_bmm, {kind}",
            inputs,
            lambda a, b: [
                exact.collapsed(limbs) for limbs in zip(*product_limbs(a, b), strict=True)
            ],
            lambda m, a, b: m.tqx_bmm(a.unsqueeze(0), b.unsqueeze(0)),
        )


CASES = [*_dots(), *_matrix_products()]

if __name__ == "__main__":
    golden.write(__file__, CASES, REFERENCE)
