# SPDX-License-Identifier: Apache-2.0
"""How fast single-block reductions are on the emulated device, against torch's own and Python's.

Each is called through the module on one thread; torch's own function runs on one thread on a host
tensor, and the Python reference is one that does not lose digits either: statistics.variance, or
rational numbers, or MPFR at 200 bits, on fewer elements. Results are compared before anything is
timed.
"""

import argparse
import itertools
import math
import statistics
from collections.abc import Callable
from fractions import Fraction
from typing import Any

import gmpy2
import numpy as np
import torch

from korvex import emulation
from korvex_tools.figures.command import cut_short, host_parser, record
from korvex_tools.figures.timing import Timing, measure, print_table

SEED = 20130501
REFERENCE_COUNT = 2000  # elements for the references in Python, at most
_WORKING_BITS = 200


def exact_product(values: list[float]) -> float:
    ratios = [value.as_integer_ratio() for value in values]
    top, bottom = (math.prod(part) for part in zip(*ratios, strict=True))
    return float(top / bottom)


def exact_prefixes(values: list[float]) -> list[float]:
    sums = itertools.accumulate(map(Fraction, values))
    return [total.numerator / total.denominator for total in sums]


def exact_norm(values: list[float]) -> float:
    squares = sum((Fraction(value) ** 2 for value in values), Fraction())
    with gmpy2.context(precision=_WORKING_BITS):
        return float(gmpy2.sqrt(gmpy2.mpq(squares)))


def exact_logsumexp(values: list[float]) -> float:
    with gmpy2.context(precision=_WORKING_BITS):
        return float(gmpy2.log(sum(map(gmpy2.exp, values))))


# Name of the function, torch's own, the reference in Python.
FUNCTIONS: dict[str, tuple[Callable[[Any], Any], Callable[[list[float]], Any]]] = {
    "tqx_var": (torch.var, statistics.variance),
    "tqx_norm": (torch.linalg.vector_norm, exact_norm),
    "tqx_prod": (torch.prod, exact_product),
    "tqx_cumsum": (lambda x: torch.cumsum(x, 0), exact_prefixes),
    "tqx_logsumexp": (lambda x: torch.logsumexp(x, 0), exact_logsumexp),
}


def values_for(name: str, count: int) -> np.ndarray:
    normal = np.random.default_rng(SEED).standard_normal(count)
    return 1.0 + normal / 64 if name == "tqx_prod" else normal


def run_function(name: str, options: argparse.Namespace) -> list[dict[str, Any]]:
    from korvex import tqx_runtime

    function = getattr(tqx_runtime, name)
    torch_function, reference = FUNCTIONS[name]
    values = values_for(name, options.n)
    host = torch.from_numpy(values)
    few = values[: min(options.n, REFERENCE_COUNT)]
    x, x_few, few_list = host.to("cuda"), torch.from_numpy(few).to("cuda"), few.tolist()
    expected = np.asarray(reference(few_list))
    if not np.array_equal(function(x_few).cpu().numpy(), expected):
        raise AssertionError(f"{name}: not the reference's result")
    timings = measure(
        {
            name: lambda: function(x),
            f"{name}: torch's own": lambda: torch_function(host),
            f"{name}: Python reference": lambda: reference(few_list),
        },
        options.repeats,
    )
    counts = [values.size, values.size, few.size]
    return result_rows(timings, counts)


def result_rows(timings: dict[str, Timing], counts: list[int]) -> list[dict[str, Any]]:
    times = [
        timing.processor_median / count * 1e9
        for timing, count in zip(timings.values(), counts, strict=True)
    ]
    return [
        {
            "candidate": label,
            "n": count,
            "ns_per_element_processor": round(time, 3),
            "times_of_module": round(time / times[0], 3),
        }
        for label, count, time in zip(timings, counts, times, strict=True)
    ]


def main() -> None:
    parser = host_parser(__doc__, 1_000_000, "elements", 5)
    options = parser.parse_args()
    cut_short(options, n=1000, repeats=2)
    torch.set_num_threads(1)
    emulation.activate(threads=1)
    results = [row for name in FUNCTIONS for row in run_function(name, options)]
    print_table(
        f"median of {options.repeats}, one thread, processor time",
        ["candidate", "n", "ns per element", "times of module"],
        [[str(value) for value in row.values()] for row in results],
    )
    settings = {"n": options.n, "repeats": options.repeats, "seed": SEED, "threads": 1}
    record("bench_reductions", options, settings, results=results)


if __name__ == "__main__":
    main()
