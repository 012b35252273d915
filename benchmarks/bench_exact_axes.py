# SPDX-License-Identifier: Apache-2.0
"""What do exact reductions along an axis cost, beside the rounded ones of NumPy and torch?

`korvex.exact` on one thread, for shapes of many rows, many columns and short rows, along each axis.
Each result is compared with `math.fsum` or rational arithmetic before anything is timed.
"""

import argparse
import math
import os
from collections.abc import Callable
from fractions import Fraction
from typing import Any

os.environ["OPENBLAS_NUM_THREADS"] = "1"

import numpy as np
import torch

from korvex import exact
from korvex.emulation._library import best_instruction_set
from korvex_tools.figures.command import cut_short, host_parser, record
from korvex_tools.figures.timing import print_targets, time_part, times_target

SEED = 20130501
TIMES_OF_TORCH = 2.0  # at most, for sums of shapes whose both sides are long
JUDGED_FROM = 10_000_000  # elements

Candidates = dict[str, Callable[[], Any]]


def shapes(n: int) -> list[tuple[int, int]]:
    """Of about n elements: wide, high, and with rows of ten."""
    side = max(10, math.isqrt(n // 10))
    return [(side, 10 * side), (10 * side, side), (n // 10, 10)]


def candidates(x: np.ndarray, axis: int) -> Candidates:
    tensor = torch.from_numpy(x)
    return {
        "numpy.sum": lambda: np.sum(x, axis=axis),
        "torch.sum": lambda: torch.sum(tensor, axis),
        "exact.sum": lambda: exact.sum(x, axis=axis),
        "exact.mean": lambda: exact.mean(x, axis=axis),
        "numpy.var": lambda: np.var(x, axis=axis),
        "exact.var": lambda: exact.var(x, axis=axis),
        "numpy.cumsum": lambda: np.cumsum(x, axis=axis),
        "exact.cumulative_sum": lambda: exact.cumulative_sum(x, axis=axis),
    }


def check_results(x: np.ndarray, axis: int) -> None:
    """All sums, and some of the others, against references that share nothing with the package."""
    lines = np.moveaxis(x, axis, -1)
    sums = exact.sum(x, axis=axis)
    if sums.tolist() != [math.fsum(line.tolist()) for line in lines]:
        raise AssertionError(f"exact.sum of {x.shape} along {axis} is not that of math.fsum")
    numbers = [Fraction(value) for value in lines[0].tolist()]
    mean = sum(numbers) / len(numbers)
    variance = sum((number - mean) ** 2 for number in numbers) / len(numbers)
    found = (float(exact.mean(x, axis=axis)[0]), float(exact.var(x, axis=axis)[0]))
    if found != (float(mean), float(variance)):
        raise AssertionError(f"{found!r}, and the references are {mean!r} and {variance!r}")
    running = np.moveaxis(exact.cumulative_sum(x, axis=axis), axis, -1)
    if not np.array_equal(running[:, -1], sums):
        raise AssertionError("the last running sums are not the sums")


def time_axis(x: np.ndarray, axis: int, options: argparse.Namespace) -> dict[str, Any]:
    check_results(x, axis)
    name = f"{x.shape}, axis={axis}"
    part = time_part(name, candidates(x, axis), x.size, options.repeats)
    if x.size >= JUDGED_FROM and min(x.shape) > 10:
        judge(part)
    return part


def judge(part: dict[str, Any]) -> None:
    times = {row["candidate"]: row["ns_per_element_processor"] for row in part["results"]}
    target = times_target(times, "exact.sum", "torch.sum", TIMES_OF_TORCH)
    part["targets"].append(target)
    print_targets(part["targets"])


def main() -> None:
    parser = host_parser(__doc__, 10_000_000, "elements", 5)
    options = parser.parse_args()
    cut_short(options, n=10_000, repeats=3)
    torch.set_num_threads(1)
    exact.set_threads(1)
    generator = np.random.default_rng(SEED)
    parts = [
        time_axis(x, axis, options)
        for shape in shapes(options.n)
        for x in [generator.standard_normal(shape)]
        for axis in (0, 1)
    ]
    settings = {
        "n": options.n,
        "repeats": options.repeats,
        "seed": SEED,
        "threads": [1],
        "instruction_set": best_instruction_set(),
    }
    record("bench_exact_axes", options, settings, runs=parts)


if __name__ == "__main__":
    main()
