# SPDX-License-Identifier: Apache-2.0
"""How fast exact sums are on the emulated device, against math.fsum and the plain float sums.

Kernels are called straight in the host libraries, and through tqx_sum. Each result is compared with
that of math.fsum, which rounds correctly, before anything is timed.
"""

import argparse
import ctypes
import math
from collections.abc import Callable
from typing import Any

import numpy as np
import torch

from korvex import emulation
from korvex.emulation._library import HostLibrary, best_instruction_set, usable_instruction_sets
from korvex_tools.figures.command import cut_short, host_parser, record
from korvex_tools.figures.timing import (
    Timing,
    measure,
    nanoseconds,
    print_table,
    print_targets,
    threads_target,
    threads_text,
)

SEED = 20130501
ONE = (1, 1, 1)
JUDGED_FROM = 10_000_000  # elements: below, the cost of a call hides that of the sum
FSUM = "math.fsum, list"
MANY = 2  # threads of the parallel candidates
SPECIALS = {"NaN": math.nan, "infinity": math.inf}
TIMES_WITH_A_SPECIAL = 1.2  # of the time without, at most, where the first one is not finite

Candidates = dict[str, Callable[[], Any]]


def normal(count: int) -> np.ndarray:
    return np.random.default_rng(SEED).standard_normal(count)


def wide(count: int) -> np.ndarray:
    """Normal values over 120 binades."""
    generator = np.random.default_rng(SEED + 1)
    return generator.standard_normal(count) * 2.0 ** generator.uniform(-60.0, 60.0, count)


# Name, generator, how many times faster than math.fsum one thread is to be, and the nanoseconds
# that it may take an element: what the best known exact methods take, xsum's large accumulator 0.9
# and a vectorised binned sum with a fallback 0.6, gives them their size.
DATA = {
    "N(0,1)": (normal, 8.0, 1.0),
    "N(0,1) * 2^U(-60,60)": (wide, 15.0, 2.0),
}


# --- Candidates


def kernel_call(
    library: HostLibrary, name: str, values: np.ndarray, threads: int
) -> Callable[[], Any]:
    """A function that launches one kernel on the values; it returns its first output."""
    row = library.kernels[name]
    out, out_err = np.zeros(4), np.zeros(1)
    arrays = [values, out] if row.form == "function" else [values, out, out_err]

    def call() -> float:
        library.threads = threads
        pointers = [ctypes.c_void_p(array.ctypes.data) for array in arrays]
        library.launch(row, ONE, ONE, [*pointers, ctypes.c_int64(values.size)])
        return out[0]

    return call


def runtime_call(values: np.ndarray, threads: int, exact: bool) -> Callable[[], torch.Tensor]:
    emulation.activate(threads=threads)
    from korvex import tqx_runtime

    x = torch.from_numpy(values).to("cuda")

    def call() -> torch.Tensor:
        emulation.activate(threads=threads)
        return tqx_runtime.tqx_sum(x, exact=exact)

    return call


def torch_call(values: np.ndarray, threads: int) -> Callable[[], torch.Tensor]:
    tensor = torch.from_numpy(values)

    def call() -> torch.Tensor:
        torch.set_num_threads(threads)
        return torch.sum(tensor)

    return call


def exact_candidates(values: np.ndarray) -> Candidates:
    """By name; the one-thread kernel, and the parallel one on one thread and on several."""
    candidates: Candidates = {}
    best = best_instruction_set()
    for instruction_set in usable_instruction_sets():
        library = HostLibrary(instruction_set, 1)
        for name, threads in [
            ("tqx_sum_seq_kernel", 1),
            ("tqx_sum_kernel", 1),
            ("tqx_sum_kernel", MANY),
        ]:
            label = f"{name}, {instruction_set}, {threads_text(threads)}"
            candidates[label] = kernel_call(library, name, values, threads)
    candidates[f"tqx_sum, {best}, 1 thread"] = runtime_call(values, 1, exact=True)
    candidates[f"tqx_sum(exact=False), {best}, {threads_text(MANY)}"] = runtime_call(
        values, MANY, exact=False
    )
    return candidates


def all_candidates(values: np.ndarray, exact: Candidates) -> Candidates:
    """In the order in which they run.

    The idle threads of torch wait by spinning for some milliseconds. So its sum on several threads
    comes last, before the long math.fsum; anywhere else it would add to another's processor time.
    """
    value_list = values.tolist()
    return {
        FSUM: lambda: math.fsum(value_list),
        "numpy.sum": lambda: np.sum(values),
        "torch.sum, 1 thread": torch_call(values, 1),
        **exact,
        f"torch.sum, {threads_text(MANY)}": torch_call(values, MANY),
    }


# --- One kind of data


def check_results(candidates: Candidates, expected: float) -> None:
    """Every exact sum, as one float, is that of math.fsum: nothing wrong is timed.

    Collapsing could be an ulp off for a sum near a midpoint; the fixed seed gives none.
    """
    for name, call in candidates.items():
        result = float(call())
        if result != expected:
            raise AssertionError(f"{name}: {result!r}, and math.fsum gives {expected!r}")


def run_data(name: str, options: argparse.Namespace) -> dict[str, Any]:
    """Times all candidates on one kind of data, and prints the table."""
    generate, times_faster, most = DATA[name]
    values = generate(options.n)
    exact = exact_candidates(values)
    check_results(exact, math.fsum(values))
    timings = measure(all_candidates(values, exact), options.repeats)
    results = [result_row(label, timings, options.n) for label in timings]
    show_table(name, options, results)
    targets = judge(results, times_faster, most) if options.n >= JUDGED_FROM else []
    return {"data": name, "results": results, "targets": targets}


def result_row(label: str, timings: dict[str, Timing], count: int) -> dict[str, Any]:
    timing, fsum = timings[label], timings[FSUM]
    return {
        "candidate": label,
        "ns_per_element": nanoseconds(timing.median, count),
        "ns_per_element_least": nanoseconds(timing.least, count),
        "ns_per_element_most": nanoseconds(timing.most, count),
        "ns_per_element_processor": nanoseconds(timing.processor_median, count),
        "times_faster_than_fsum": round(fsum.median / timing.median, 2),
        "times_faster_than_fsum_processor": round(
            fsum.processor_median / timing.processor_median, 2
        ),
    }


def show_table(name: str, options: argparse.Namespace, results: list[dict[str, Any]]) -> None:
    print_table(
        f"{name}, n = {options.n}, median of {options.repeats}, ns per element",
        ["candidate", "median", "least", "most", "processor", "x fsum", "x fsum, processor"],
        [
            [label, *(f"{time:.3f}" for time in figures[:4]), *(f"{x:.1f}" for x in figures[4:])]
            for label, *figures in (result.values() for result in results)
        ],
    )


def judge(results: list[dict[str, Any]], times_faster: float, most: float) -> list[dict[str, Any]]:
    """Whether one thread with the best instruction set is fast enough; what two threads gain."""
    best = best_instruction_set()
    by_name = {result["candidate"]: result for result in results}
    targets = []
    for name in (f"tqx_sum_seq_kernel, {best}, 1 thread", f"tqx_sum, {best}, 1 thread"):
        row = by_name[name]
        ratio = min(value for key, value in row.items() if key.startswith("times_faster"))
        targets.append(
            {"candidate": name, "times_faster_at_least": times_faster, "met": ratio >= times_faster}
        )
        met = row["ns_per_element_processor"] <= most
        targets.append({"candidate": name, "ns_at_most": most, "met": met})
    one, many = (f"tqx_sum_kernel, {best}, {threads_text(threads)}" for threads in (1, MANY))
    times = (by_name[name]["ns_per_element_least"] for name in (one, many))
    targets.append(threads_target(many, *times))
    print_targets(targets)
    return targets


def run_specials(options: argparse.Namespace) -> dict[str, Any]:
    """Times the kernels on one thread where the first element is NaN or infinite, and where not."""
    library = HostLibrary(best_instruction_set(), 1)
    candidates = {}
    for name in ("tqx_sum_seq_kernel", "tqx_sum_kernel"):
        for first in ("as drawn", *SPECIALS):
            values = normal(options.n)
            values[0] = SPECIALS.get(first, values[0])
            candidates[f"{name}, first {first}"] = kernel_call(library, name, values, 1)
    timings = measure(candidates, options.repeats)
    rows = []
    for label, timing in timings.items():
        without = timings[f"{label.split(',')[0]}, first as drawn"]
        ratio = round(timing.processor_median / without.processor_median, 2)
        rows.append({"candidate": label, "times_without": ratio})
    print_table(
        f"special first element, n = {options.n}, {library.instruction_set}, 1 thread",
        ["candidate", "x time without"],
        [[row["candidate"], f"{row['times_without']:.2f}"] for row in rows],
    )
    if options.n < JUDGED_FROM:
        return {"results": rows, "targets": []}
    targets = [
        {
            "candidate": row["candidate"],
            "times_without_at_most": TIMES_WITH_A_SPECIAL,
            "met": row["times_without"] <= TIMES_WITH_A_SPECIAL,
        }
        for row in rows
        if not row["candidate"].endswith("as drawn")
    ]
    print_targets(targets)
    return {"results": rows, "targets": targets}


def main() -> None:
    parser = host_parser(__doc__, 10_000_000, "elements", 21)
    options = parser.parse_args()
    cut_short(options, n=100_000, repeats=3)
    runs = [run_data(name, options) for name in DATA]
    settings = {"n": options.n, "repeats": options.repeats, "seed": SEED, "threads": [1, MANY]}
    record("bench_sum", options, settings, runs=runs, specials=run_specials(options))


if __name__ == "__main__":
    main()
