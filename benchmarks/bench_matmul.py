# SPDX-License-Identifier: Apache-2.0
"""How fast is an exact matrix product on the emulated device?

Against `torch.matmul` in float64, against a product in two doubles per element written with torch
operations, and on the smallest size against `Fraction`. Exact elements are compared with rational
arithmetic before anything is timed.
"""

import argparse
import ctypes
import random
from collections.abc import Callable
from fractions import Fraction
from typing import Any

import torch
from plain_products import double_double, rational

from korvex.emulation._library import HostLibrary, best_instruction_set, usable_instruction_sets
from korvex_tools.figures.command import host_parser, record
from korvex_tools.figures.timing import (
    Timing,
    measure,
    nanoseconds,
    print_table,
    print_targets,
    threads_target,
)

SEED = 20050601
KERNEL = "tqx_matmul_kernel"
MANY = 2  # threads of the parallel candidate
# Nanoseconds for a multiply-add of N(0,1) on one thread, at most.
MOST_NANOSECONDS, MOST_NANOSECONDS_PLAIN = 1.5, 4.0  # best and plain instruction set
JUDGED_FROM = 128  # below, the start of a thread shows
LARGEST_FOR_TORCH_PAIRS = 512
FRACTION_SIZE = 24

Candidates = dict[str, Callable[[], Any]]


def matrices(size: int) -> tuple[torch.Tensor, torch.Tensor]:
    generator = torch.Generator().manual_seed(SEED + size)
    return tuple(torch.randn(size, size, generator=generator, dtype=torch.float64) for _ in "ab")


# --- Candidates


def kernel_call(
    library: HostLibrary, a: torch.Tensor, b: torch.Tensor, threads: int
) -> Callable[[], list[torch.Tensor]]:
    """A function that launches the kernel; it returns the three limbs."""
    row = library.kernels[KERNEL]
    m, k = a.shape
    n = b.shape[1]
    limbs = [torch.zeros(m, n, dtype=torch.float64) for _ in range(3)]
    grid = ((n + 15) // 16, (m + 15) // 16, 1)

    def call() -> list[torch.Tensor]:
        library.threads = threads
        pointers = [ctypes.c_void_p(array.data_ptr()) for array in (a, b, *limbs)]
        library.launch(row, grid, (16, 16, 1), [*pointers, *map(ctypes.c_int64, (m, n, k))])
        return limbs

    return call


def exact_candidates(a: torch.Tensor, b: torch.Tensor) -> Candidates:
    best = best_instruction_set()
    candidates: Candidates = {}
    for instruction_set in usable_instruction_sets():
        library = HostLibrary(instruction_set, 1)
        candidates[f"{KERNEL}, {instruction_set}, 1 thread"] = kernel_call(library, a, b, 1)
    candidates[f"{KERNEL}, {best}, {MANY} threads"] = kernel_call(HostLibrary(best, 1), a, b, MANY)
    return candidates


def torch_call(a: torch.Tensor, b: torch.Tensor) -> Callable[[], torch.Tensor]:
    def call() -> torch.Tensor:
        torch.set_num_threads(1)
        return torch.matmul(a, b)

    return call


def all_candidates(a: torch.Tensor, b: torch.Tensor) -> Candidates:
    candidates: Candidates = {"torch.matmul, 1 thread": torch_call(a, b)}
    if a.shape[0] <= LARGEST_FOR_TORCH_PAIRS:
        candidates["two doubles in torch, 1 thread"] = lambda: double_double(a, b)
    if a.shape[0] <= FRACTION_SIZE:
        candidates["Fraction"] = lambda: rational(a, b)
    return candidates | exact_candidates(a, b)


# --- One size


def check_results(a: torch.Tensor, b: torch.Tensor) -> None:
    """A few elements: the sum of the three limbs is exact, or within the last limb's ulp."""
    source = random.Random(SEED)
    places = [(source.randrange(a.shape[0]), source.randrange(b.shape[1])) for _ in range(8)]
    for name, call in exact_candidates(a, b).items():
        limbs = call()
        for i, j in places:
            [[expected]] = rational(a[i : i + 1], b[:, j : j + 1])
            found = sum(Fraction(limb[i, j].item()) for limb in limbs)
            if abs(found - expected) > abs(expected) / 2**159:
                raise AssertionError(f"{name}, element {i}, {j}: off by {float(found - expected)}")


def run_size(size: int, options: argparse.Namespace) -> dict[str, Any]:
    """Times all candidates on one size, and prints the table."""
    a, b = matrices(size)
    check_results(a, b)
    timings = measure(all_candidates(a, b), options.repeats)
    results = [result_row(label, timing, size**3) for label, timing in timings.items()]
    print_table(
        f"{size} x {size} x {size}, median of {options.repeats}, ns per multiply-add",
        ["candidate", "median", "least", "most", "processor"],
        [
            [label, *(f"{time:.3f}" for time in figures)]
            for label, *figures in (result.values() for result in results)
        ],
    )
    targets = judge(results) if size >= JUDGED_FROM else []
    return {"size": size, "results": results, "targets": targets}


def result_row(label: str, timing: Timing, products: int) -> dict[str, Any]:
    return {
        "candidate": label,
        "ns_per_multiply_add": nanoseconds(timing.median, products),
        "ns_per_multiply_add_least": nanoseconds(timing.least, products),
        "ns_per_multiply_add_most": nanoseconds(timing.most, products),
        "ns_per_multiply_add_processor": nanoseconds(timing.processor_median, products),
    }


def judge(results: list[dict[str, Any]]) -> list[dict[str, Any]]:
    """Whether one thread is fast enough, by processor time, and what two threads gain."""
    by_name = {result["candidate"]: result for result in results}
    best = best_instruction_set()
    targets = []
    for instruction_set, most in {"base": MOST_NANOSECONDS_PLAIN, best: MOST_NANOSECONDS}.items():
        name = f"{KERNEL}, {instruction_set}, 1 thread"
        met = by_name[name]["ns_per_multiply_add_processor"] <= most
        targets.append({"candidate": name, "ns_at_most": most, "met": met})
    one, many = f"{KERNEL}, {best}, 1 thread", f"{KERNEL}, {best}, {MANY} threads"
    times = (by_name[name]["ns_per_multiply_add_least"] for name in (one, many))
    targets.append(threads_target(many, *times))
    print_targets(targets)
    return targets


def main() -> None:
    parser = host_parser(__doc__, 512, "largest size", 15)
    parser.add_argument("--large", action="store_true", help="also 2048; takes minutes")
    options = parser.parse_args()
    sizes = [size for size in (FRACTION_SIZE, 64, 128, 256, 512) if size <= options.n]
    if options.quick:
        sizes, options.repeats = [FRACTION_SIZE], min(options.repeats, 3)
    elif options.large:
        sizes.append(2048)
    runs = [run_size(size, options) for size in sizes]
    settings = {"n": sizes[-1], "sizes": sizes, "repeats": options.repeats, "seed": SEED}
    record("bench_matmul", options, settings, runs=runs)


if __name__ == "__main__":
    main()
