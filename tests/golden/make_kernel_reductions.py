# SPDX-License-Identifier: Apache-2.0
"""Golden digests of the single-block reductions. Run it to write kernel_reductions.json."""

import math
from fractions import Fraction

from korvex_tools.references import exact_arithmetic
from korvex_tools.references import exact_reductions as exact
from korvex_tools.verify import golden
from korvex_tools.verify.golden import Case

REFERENCE = "whole numbers and fractions, rounded once; MPFR at 4000 bits for logarithms"

INPUTS = {
    "uniform": lambda: golden.uniform("reduction", 2000),
    "wide": lambda: golden.wide("reduction", 1500),
    "any bits": lambda: golden.patterns("reduction", 600),
    "integers": lambda: golden.integers("reduction", 1025, 1, 9),
    "near one": lambda: [1.0 + v / 8 for v in golden.uniform("near one", 1024)],
    "a large mean": lambda: [1e9 + v * 2.0**-20 for v in golden.integers("mean", 1023, 0, 3)],
    "logits": lambda: [v * 30 for v in golden.uniform("logits", 1000)],
    "one large": lambda: [0.0, *(v * 300 - 400 for v in golden.uniform("low", 500))],
    "subnormal": lambda: [v * 5e-324 for v in golden.integers("small", 257, 1, 2**20)],
    "largest": lambda: [exact_arithmetic.LARGEST] * 3 + [-exact_arithmetic.LARGEST] * 3,
    "one infinity": lambda: [1.0, -math.inf, 2.0],
    "a NaN": lambda: [math.inf, math.nan, 1.0],
    "nothing": list,
    "one": lambda: [0.1],
    "special": lambda: golden.SPECIAL,
}


def folded(values):
    first, second = exact.product_limbs(values)
    return first + second


def root_of_variance(values):
    variance = exact.variance(values)
    return variance if math.isnan(variance) else math.sqrt(variance)


# Name of a case, the reference, the call.
FUNCTIONS = {
    "tqx_var": (exact.variance, lambda m, x: m.tqx_var(x)),
    "tqx_std": (root_of_variance, lambda m, x: m.tqx_std(x)),
    "tqx_norm": (exact.norm, lambda m, x: m.tqx_norm(x)),
    "tqx_prod limbs": (exact.product_limbs, lambda m, x: m.tqx_prod(x, return_tqx=True)),
    "tqx_prod": (folded, lambda m, x: m.tqx_prod(x)),
    "tqx_cumsum limbs": (exact.prefix_limbs, lambda m, x: m.tqx_cumsum(x, return_tqx=True)),
    "tqx_cumsum": (lambda v: exact.prefix_limbs(v)[0], lambda m, x: m.tqx_cumsum(x)),
    "tqx_logsumexp": (exact.logsumexp, lambda m, x: m.tqx_logsumexp(x)),
}


def _cases():
    for name, (expected, run) in FUNCTIONS.items():
        for kind, inputs in INPUTS.items():
            yield Case(f"{name}, {kind}", lambda inputs=inputs: (inputs(),), expected, run)


# Many short rows, one deviation each: a root that is not rounded correctly is wrong for a few in a
# thousand of them.
ROWS = {
    "rows of 0, 0, n": lambda: [[0.0, 0.0, float(n)] for n in range(1, 1001)],
    "uniform rows": lambda: golden.rows(golden.uniform("deviation", 4500), 3),
    "wide rows": lambda: golden.rows(golden.wide("deviation", 4000, -300, 300), 4),
}


def exact_root(value):
    """The square root of a double, rounded once, by whole numbers."""
    square = Fraction(value) * Fraction(4) ** 700  # a multiple of 2**-1074 has an even power left
    root = math.isqrt(square.numerator << 200)
    assert square.denominator == 1
    more = Fraction(int(root * root != square.numerator << 200), 4)
    return exact_arithmetic.round_to_double((root + more) / (Fraction(2) ** 800))


def deviations(rows):
    return [exact_root(exact.variance(row)) for row in rows]


def _deviations():
    for kind, rows in ROWS.items():
        yield Case(
            f"tqx_std, {kind}",
            lambda rows=rows: (rows(),),
            deviations,
            lambda m, x: [m.tqx_std(row) for row in x],
        )


CASES = [*_cases(), *_deviations()]

if __name__ == "__main__":
    golden.write(__file__, CASES, REFERENCE)
