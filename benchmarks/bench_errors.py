# SPDX-License-Identifier: Apache-2.0
"""How wrong are sums and dot products as cancellation grows?

The relative error against exact rational arithmetic, over the condition number: the sum of the
magnitudes over the magnitude of the sum, twice that for dot products. Vectors are those of Ogita,
Rump and Oishi, Accurate sum and dot product, 2005, algorithm 6.1; sums get the products and their
errors as addends. No time is taken, so the figures depend on the machine only through torch and
NumPy.
"""

import argparse
import math
import random
from collections.abc import Callable
from fractions import Fraction
from typing import Any

import numpy as np
import torch
from plain_sums import (
    compensated_dot,
    compensated_sum,
    double_double_sum,
    sum_of_rounded_products,
    two_product,
)

from korvex import emulation, exact
from korvex_tools.figures.command import add_quick_and_output, record
from korvex_tools.figures.timing import print_table

SEED = 2005
EXPONENTS = tuple(range(0, 104, 4))  # condition numbers 10^0 to 10^100

Vector = list[float]


# --- Vectors


def ill_conditioned(n: int, condition: float, source: random.Random) -> tuple[Vector, Vector]:
    """Two vectors whose dot product has about this condition number."""
    bits = math.log2(condition)
    half = n // 2
    exponents = [round(source.uniform(0, bits / 2)) for _ in range(half)]
    exponents[0], exponents[-1] = round(bits / 2) + 1, 0
    x = [_drawn(source, exponent) for exponent in exponents]
    y = [_drawn(source, exponent) for exponent in exponents]
    exact = dot_of(x, y)
    for place in range(n - half):
        exponent = round(bits / 2 * (1 - place / (n - half - 1)))
        x.append(_drawn(source, exponent))
        wanted = Fraction(_drawn(source, exponent))
        y.append(float((wanted - exact) / Fraction(x[-1])))
        exact += Fraction(x[-1]) * Fraction(y[-1])
    order = list(range(n))
    source.shuffle(order)
    return [x[i] for i in order], [y[i] for i in order]


def _drawn(source: random.Random, exponent: int) -> float:
    return math.ldexp(source.uniform(-1, 1) or 0.5, exponent)


def addends_of(x: Vector, y: Vector, source: random.Random) -> Vector:
    """Numbers with the same exact sum as the products."""
    addends = [part for a, b in zip(x, y, strict=True) for part in two_product(a, b)]
    source.shuffle(addends)
    return addends


def dot_of(x: Vector, y: Vector) -> Fraction:
    return sum((Fraction(a) * Fraction(b) for a, b in zip(x, y, strict=True)), Fraction())


# --- Candidates


def candidates_of_sum(tqx: Any) -> dict[str, Callable[[Vector], float]]:
    return {
        "torch.sum": lambda v: torch.tensor(v, dtype=torch.float64).sum().item(),
        "numpy.sum": lambda v: float(np.sum(v)),
        "compensated sum": compensated_sum,
        "double-double sum": double_double_sum,
        "math.fsum": math.fsum,
        "tqx_sum": lambda v: float(tqx.tqx_sum(on_device(v))),
        "exact.sum": lambda v: float(exact.sum(np.array(v))),
    }


def candidates_of_dot(tqx: Any) -> dict[str, Callable[[Vector, Vector], float]]:
    return {
        "torch.dot": lambda x, y: torch.dot(*map(_float64, (x, y))).item(),
        "numpy.dot": lambda x, y: float(np.dot(x, y)),
        "math.fsum of products": sum_of_rounded_products,
        "compensated dot": compensated_dot,
        "math.sumprod": math.sumprod,
        "tqx_dot": lambda x, y: float(tqx.tqx_dot(*map(on_device, (x, y)))),
        "exact.vecdot": lambda x, y: float(exact.vecdot(np.array(x), np.array(y))),
    }


def _float64(values: Vector) -> torch.Tensor:
    return torch.tensor(values, dtype=torch.float64)


def on_device(values: Vector) -> torch.Tensor:
    return _float64(values).to("cuda")


# --- Errors


def relative_error(result: float, exact: Fraction) -> float:
    return float(abs((Fraction(result) - exact) / exact))


def run(operation: str, options: argparse.Namespace) -> dict[str, Any]:
    from korvex import tqx_runtime

    is_dot = operation == "dot"
    candidates = (candidates_of_dot if is_dot else candidates_of_sum)(tqx_runtime)
    results = []
    for exponent in EXPONENTS[:: options.every]:
        worst = dict.fromkeys(candidates, 0.0)
        conditions = []
        for number in range(options.vectors):
            source = random.Random(f"{SEED} {exponent} {number}")
            operands: tuple[Vector, ...] = ill_conditioned(options.n, 10.0**exponent, source)
            true_value = dot_of(*operands)
            if not is_dot:
                operands = (addends_of(*operands, source),)
            conditions.append(condition_of(operands, true_value))
            for name, call in candidates.items():
                worst[name] = max(worst[name], relative_error(call(*operands), true_value))
        condition = float(np.median(conditions))
        results += [
            {"candidate": name, "condition": float(f"{condition:.3e}"), "error": float(f"{e:.3e}")}
            for name, e in worst.items()
        ]
    print_table(
        f"{operation}, n = {options.n}, largest relative error of {options.vectors}",
        ["candidate", "condition", "error"],
        [[str(value) for value in row.values()] for row in results],
    )
    return {"operation": operation, "results": results}


def condition_of(operands: tuple[Vector, ...], exact: Fraction) -> float:
    magnitudes = [[abs(value) for value in operand] for operand in operands]
    if len(operands) == 2:
        return float(2 * dot_of(*magnitudes) / abs(exact))
    return float(sum(map(Fraction, magnitudes[0])) / abs(exact))


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--n", type=int, default=100, help="pairs of a vector (100)")
    parser.add_argument("--vectors", type=int, default=10, help="for each condition number (10)")
    add_quick_and_output(parser)
    options = parser.parse_args()
    options.every = 8 if options.quick else 1
    if options.quick:
        options.vectors = 2
    torch.set_num_threads(1)
    emulation.activate(threads=1)
    runs = [run(operation, options) for operation in ("sum", "dot")]
    settings = {"n": options.n, "vectors": options.vectors, "seed": SEED}
    record("bench_errors", options, settings, runs=runs)


if __name__ == "__main__":
    main()
