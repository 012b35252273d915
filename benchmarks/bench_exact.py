# SPDX-License-Identifier: Apache-2.0
"""What do exact sums, dot products and moments of NumPy arrays cost, beside the rounded ones?

`korvex.exact` on one thread and on two, beside NumPy, torch, the standard library and the kernels
that the emulated device runs for the same values. Each exact result is compared with an exact
reference before anything is timed. Also the cost of a short call, of the import, and of memory.
"""

import argparse
import ctypes
import math
import os
import re
import statistics
import subprocess
import sys
import timeit
from collections.abc import Callable
from fractions import Fraction
from typing import Any

# One thread: the idle ones of a BLAS spin for a while, in the turns of the other candidates.
os.environ["OPENBLAS_NUM_THREADS"] = "1"

import numpy as np
import torch

from korvex import exact
from korvex.emulation._library import HostLibrary, best_instruction_set
from korvex_tools.figures.command import cut_short, host_parser, record
from korvex_tools.figures.memory import held_by
from korvex_tools.figures.timing import (
    print_table,
    print_targets,
    threads_target,
    time_part,
    times_target,
)

SEED = 20130501
ONE = (1, 1, 1)
JUDGED_FROM = 10_000_000  # elements: below, the cost of a call hides that of the sum
FEW = 10  # elements of a short call
SHORT_CALLS = 20_000  # in one timing of short calls
STATISTICS = 100_000  # elements at most for the module of that name
IMPORTS = 11  # timed imports
MEGABYTES_HELD = 1.0  # beside the operands, at most
# The panels of a product by residues (kMostProductBytes in kernels/host/modular_plan.h, and what
# stands on stacks): the same bound whatever the matrices are.
MEGABYTES_HELD_BY_PRODUCTS = 64.0

Candidates = dict[str, Callable[[], Any]]


# --- Candidates


def on_threads(threads: int, call: Callable[[], Any]) -> Callable[[], Any]:
    def with_setting() -> Any:
        exact.set_threads(threads)
        return call()

    return with_setting


def kernel_call(name: str, *operands: np.ndarray) -> Callable[[], float]:
    """A launch of a kernel of the emulated device on one thread; returns its first output."""
    library = HostLibrary(best_instruction_set(), 1)
    row, out = library.kernels[name], np.zeros(4)
    pointers = [ctypes.c_void_p(array.ctypes.data) for array in (*operands, out)]
    count = ctypes.c_int64(operands[0].size)

    def call() -> float:
        library.launch(row, ONE, ONE, [*pointers, count])
        return float(out[0])

    call.kept = operands  # type: ignore[attr-defined]
    return call


def added(kind: type, *operands: np.ndarray) -> Any:
    accumulator = kind()
    accumulator.add(*operands)
    return accumulator


def torch_call(function: Callable[[torch.Tensor], Any], values: np.ndarray) -> Callable[[], Any]:
    tensor = torch.from_numpy(values)
    return lambda: function(tensor)


def sums(x: np.ndarray) -> Candidates:
    values = x.tolist()
    return {
        "numpy.sum": lambda: np.sum(x),
        "torch.sum": torch_call(torch.sum, x),
        "tqx_sum_seq_kernel": kernel_call("tqx_sum_seq_kernel", x),
        "exact.sum": on_threads(1, lambda: exact.sum(x)),
        "exact.Sum.add": on_threads(1, lambda: added(exact.Sum, x)),
        "exact.sum, 2 threads": on_threads(2, lambda: exact.sum(x)),
        "math.fsum, list": lambda: math.fsum(values),
    }


def sums_of_formats(x: np.ndarray) -> Candidates:
    """The same elements in other formats and places; integers in place of fractions."""
    arrays = {
        "float64": x,
        "float32": x.astype(np.float32),
        "float16": x.astype(np.float16),
        "int64": (x * 2.0**60).astype(np.int64),
        "int32": (x * 2.0**28).astype(np.int32),
        "float64, every second": np.repeat(x, 2)[::2],
        "float32, unaligned": unaligned(x.astype(np.float32)),
    }
    found: Candidates = {}
    for name, array in arrays.items():
        found[f"numpy.sum, {name}"] = lambda array=array: np.sum(array)
        found[f"exact.sum, {name}"] = on_threads(1, lambda array=array: exact.sum(array))
    return found


def unaligned(x: np.ndarray) -> np.ndarray:
    raw = np.zeros(x.nbytes + 1, np.uint8)
    shifted = raw[1:].view(x.dtype)
    shifted[:] = x
    return shifted


def dots(x: np.ndarray) -> Candidates:
    y = np.random.default_rng(SEED + 1).standard_normal(x.size)
    x_list, y_list = x.tolist(), y.tolist()
    return {
        "numpy.dot": lambda: np.dot(x, y),
        "tqx_dot_seq_kernel": kernel_call("tqx_dot_seq_kernel", x, y),
        "exact.vecdot": on_threads(1, lambda: exact.vecdot(x, y)),
        "exact.Dot.add": on_threads(1, lambda: added(exact.Dot, x, y)),
        "exact.Dot.add, 2 threads": on_threads(2, lambda: added(exact.Dot, x, y)),
        "math.sumprod, lists": lambda: math.sumprod(x_list, y_list),
    }


def mixed_dots(x: np.ndarray) -> Candidates:
    """Pairs of arrays with two dtypes."""
    others = {
        "float64": x[::-1].copy(),
        "float32": x.astype(np.float32),
        "float16": x.astype(np.float16),
        "int32": (x * 2.0**28).astype(np.int32),
        "int64": (x * 2.0**60).astype(np.int64),
        "bool": x > 0,
    }
    return {
        f"exact.vecdot, float64 with {name}": on_threads(1, lambda y=y: exact.vecdot(x, y))
        for name, y in others.items()
    }


def moments(x: np.ndarray) -> Candidates:
    return {
        "numpy.var": lambda: np.var(x),
        "torch.var": torch_call(torch.var, x),
        "exact.Dot.add": on_threads(1, lambda: added(exact.Dot, x, x)),
        "exact.Moments.add": on_threads(1, lambda: added(exact.Moments, x)),
        "exact.var": on_threads(1, lambda: exact.var(x)),
        "exact.var, 2 threads": on_threads(2, lambda: exact.var(x)),
    }


def pure_python(x: np.ndarray) -> Candidates:
    values = x.tolist()
    return {
        "statistics.pvariance, list": lambda: statistics.pvariance(values),
        "exact.var": on_threads(1, lambda: exact.var(x)),
        "statistics.fmean, list": lambda: statistics.fmean(values),
        "exact.mean": on_threads(1, lambda: exact.mean(x)),
    }


# --- Results are right before they are timed


def check_results(x: np.ndarray) -> None:
    some = x[:2000]
    numbers = [Fraction(value) for value in some.tolist()]
    total = sum(numbers)
    variance = sum((number - total / len(numbers)) ** 2 for number in numbers) / len(numbers)
    expected = {
        "exact.sum": (float(exact.sum(x)), math.fsum(x.tolist())),
        "exact.sum of some": (float(exact.sum(some)), float(total)),
        "exact.vecdot": (
            float(exact.vecdot(some, some)),
            float(sum(number**2 for number in numbers)),
        ),
        "exact.var": (float(exact.var(some)), float(variance)),
    }
    for name, (result, reference) in expected.items():
        if result != reference:
            raise AssertionError(f"{name}: {result!r}, and the reference is {reference!r}")


# --- Parts


def short_calls(options: argparse.Namespace) -> dict[str, Any]:
    """Nanoseconds a call on ten elements, the least of some rounds: what a call costs by itself."""
    x = np.random.default_rng(SEED).standard_normal(FEW)
    values = x.tolist()
    tensor = torch.from_numpy(x)
    candidates: Candidates = {
        "numpy.sum": lambda: np.sum(x),
        "exact.sum": lambda: exact.sum(x),
        "torch.sum": lambda: torch.sum(tensor),
        "exact.sum, torch tensor": lambda: exact.sum(tensor),
        "exact.Sum.add": lambda: added(exact.Sum, x),
        "math.fsum, list": lambda: math.fsum(values),
    }
    exact.set_threads(1)
    calls = 500 if options.quick else SHORT_CALLS
    rows = []
    for label, call in candidates.items():
        least = min(timeit.repeat(call, number=calls, repeat=5))
        rows.append({"candidate": label, "ns_per_call": round(least / calls * 1e9, 1)})
    print_table(
        f"{FEW} elements, ns per call",
        ["candidate", "least"],
        [[row["candidate"], f"{row['ns_per_call']:.0f}"] for row in rows],
    )
    return {"data": f"{FEW} elements", "results": rows, "targets": []}


def imports(options: argparse.Namespace) -> dict[str, Any]:
    """Milliseconds that `from korvex import exact` takes, by `-X importtime`; the median."""
    program = "import numpy; from korvex import exact"
    rounds: dict[str, list[float]] = {"numpy": [], "korvex": [], "korvex.exact": []}
    for _ in range(3 if options.quick else IMPORTS):
        run = subprocess.run(
            [sys.executable, "-P", "-X", "importtime", "-c", program],
            capture_output=True,
            text=True,
            check=True,
        )
        for name, taken in rounds.items():
            found = re.search(rf"\| +(\d+) \| +{re.escape(name)}$", run.stderr, re.MULTILINE)
            taken.append(int(found[1]) / 1000)
    rows = [
        {"candidate": f"import {name}", "ms": round(statistics.median(taken), 2)}
        for name, taken in rounds.items()
    ]
    print_table(
        "imports, ms", ["candidate", "median"], [[r["candidate"], str(r["ms"])] for r in rows]
    )
    return {"data": "imports", "results": rows, "targets": []}


def memory(x: np.ndarray) -> dict[str, Any]:
    """Kilobytes that a call holds beside its operands: the peak of the resident set."""
    narrow = x.astype(np.float32)
    columns = narrow[: x.size // 100 * 100].reshape(100, -1, order="F")
    calls: Candidates = {
        "exact.sum": lambda: exact.sum(x),
        "exact.sum, float32": lambda: exact.sum(narrow),
        "exact.vecdot, float64 with float32": lambda: exact.vecdot(x, narrow),
        "exact.var": lambda: exact.var(x),
        "exact.Moments.add, backwards": lambda: added(exact.Moments, x[::-1]),
        "exact.matmul, float32, column by column": lambda: exact.matmul(columns, columns.T),
    }
    exact.set_threads(1)
    rows = [
        {"candidate": label, "kilobytes_held": held_by(call) // 1000}
        for label, call in calls.items()
    ]
    print_table(
        f"memory, n = {x.size}, kB beside the operands",
        ["candidate", "kB"],
        [[row["candidate"], str(row["kilobytes_held"])] for row in rows],
    )
    return {"data": "memory", "results": rows, "targets": []}


# --- Targets

# By part: a candidate, what it is compared with, and how many times that it may take.
TIMES_OF = {
    "sum": [("exact.sum", "numpy.sum", 1.15), ("exact.sum", "tqx_sum_seq_kernel", 1.1)],
    "formats": [("exact.sum, float32", "exact.sum, float64", 1.0)],
    "dot": [("exact.Dot.add", "tqx_dot_seq_kernel", 1.1)],
    "moments": [("exact.Moments.add", "exact.Dot.add", 1.5)],
    f"{FEW} elements": [("exact.sum", "numpy.sum", 2.0)],
}
TWO_THREADS = {"sum": "exact.sum", "dot": "exact.Dot.add", "moments": "exact.var"}
IMPORT_MILLISECONDS = 50.0


def judge(part: dict[str, Any]) -> None:
    """Puts the targets of a part beside its results, and prints them."""
    name = part["data"]
    times = {row["candidate"]: [*row.values()][-1] for row in part["results"]}
    for candidate, other, most in TIMES_OF.get(name, []):
        part["targets"].append(times_target(times, candidate, other, most))
    if name in TWO_THREADS:
        least = {row["candidate"]: row["ns_per_element_least"] for row in part["results"]}
        one, two = TWO_THREADS[name], f"{TWO_THREADS[name]}, 2 threads"
        part["targets"].append(threads_target(two, least[one], least[two]))
    if name == "imports":
        met = times["import korvex.exact"] <= IMPORT_MILLISECONDS
        target = {"candidate": "import korvex.exact", "ms_at_most": IMPORT_MILLISECONDS}
        part["targets"].append(target | {"met": met})
    if name == "memory":
        for candidate, held in times.items():
            is_product = candidate.startswith("exact.matmul")
            most = MEGABYTES_HELD_BY_PRODUCTS if is_product else MEGABYTES_HELD
            target = {"candidate": candidate, "megabytes_at_most": most}
            part["targets"].append(target | {"met": held <= 1000 * most})
    print_targets(part["targets"])


def main() -> None:
    parser = host_parser(__doc__, 10_000_000, "elements", 21)
    options = parser.parse_args()
    cut_short(options, n=100_000, repeats=3)
    torch.set_num_threads(1)
    x = np.random.default_rng(SEED).standard_normal(options.n)
    check_results(x)
    parts = [
        time_part("sum", sums(x), options.n, options.repeats),
        time_part("formats", sums_of_formats(x), options.n, options.repeats),
        time_part("dot", dots(x), options.n, options.repeats),
        time_part("dot of two dtypes", mixed_dots(x), options.n, options.repeats),
        time_part("moments", moments(x), options.n, options.repeats),
        time_part(
            "standard library",
            pure_python(x[:STATISTICS]),
            min(options.n, STATISTICS),
            options.repeats,
        ),
        short_calls(options),
        imports(options),
        memory(x),
    ]
    if options.n >= JUDGED_FROM:
        for part in parts:
            judge(part)
    settings = {
        "n": options.n,
        "repeats": options.repeats,
        "seed": SEED,
        "threads": [1, 2],
        "instruction_set": best_instruction_set(),
    }
    record("bench_exact", options, settings, runs=parts)


if __name__ == "__main__":
    main()
