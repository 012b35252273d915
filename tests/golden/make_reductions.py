# SPDX-License-Identifier: Apache-2.0
"""Golden digests of the reductions. Run it to write reductions.json: python make_reductions.py"""

import math

from korvex_tools.references import exact_arithmetic as exact
from korvex_tools.verify import golden
from korvex_tools.verify.golden import Case

REFERENCE = "integers in units of 2**-1074, rounded by Python's division (exact_arithmetic.py)"


# ---- sums ----


def cancelling(seed, count):
    """Values of very different size whose sum is the last one alone."""
    values = golden.wide(seed, count, -900, 900)
    order = [*values, *(-v for v in reversed(values)), 2.0**-1000]
    return order[::2] + order[1::2]


SUMMANDS = {
    "uniform": lambda: golden.uniform("sum", 2000),
    "wide": lambda: golden.wide("sum", 2000),
    "any bits": lambda: golden.patterns("sum", 2000),
    "integers": lambda: golden.integers("sum", 1025),
    "cancelling": lambda: cancelling("sum", 700),
    "overflow midway": lambda: [2.0**1023] * 2 + [-(2.0**1023)] * 2 + [2.0**-1074],
    "overflow for good": lambda: [exact.LARGEST] * 5,
    "largest limbs": lambda: [exact.LARGEST] * 3 + [1.0],
    "one every 53 binades": lambda: [2.0**k for k in range(265, -1, -53)],
    "subnormal": lambda: [v * 5e-324 for v in golden.integers("small", 255, 0, 2**20)],
    "zeros": lambda: [-0.0, -0.0, 0.0],
    "one infinity": lambda: [1.0, -math.inf, 2.0],
    "both infinities": lambda: [math.inf, 1.0, -math.inf],
    "a NaN": lambda: [math.inf, math.nan, 1.0],
    "nothing": list,
    "special": lambda: golden.SPECIAL,
}


def four(values):
    return exact.sum_limbs(values, 4)


def _sums():
    for kind, inputs in SUMMANDS.items():
        yield Case(
            f"tqx_sum limbs, {kind}",
            lambda inputs=inputs: (inputs(),),
            four,
            lambda m, x: m.tqx_sum(x, return_tqx=True),
        )
        yield Case(
            f"tqx_sum, {kind}",
            lambda inputs=inputs: (inputs(),),
            lambda values: exact.collapsed(four(values)),
            lambda m, x: m.tqx_sum(x),
        )
        yield Case(
            f"tqx_sum parallel limbs, {kind}",
            lambda inputs=inputs: (inputs(),),
            lambda values: exact.sum_limbs(values, 2),
            lambda m, x: m.tqx_sum(x, exact=False, return_tqx=True),
        )
        yield Case(
            f"tqx_sum parallel, {kind}",
            lambda inputs=inputs: (inputs(),),
            lambda values: sum(exact.sum_limbs(values, 2)),
            lambda m, x: m.tqx_sum(x, exact=False),
        )
        yield Case(
            f"tqx_sum_exact, {kind}",
            lambda inputs=inputs: (inputs(),),
            lambda values: exact.decimal_of_limbs(four(values)),
            lambda m, x: m.tqx_sum_exact(x),
        )


CASES = [*_sums()]

if __name__ == "__main__":
    golden.write(__file__, CASES, REFERENCE)
