# SPDX-License-Identifier: Apache-2.0
"""Are the host kernels of one build slower or faster than those of another?

    compare_builds.py BEFORE AFTER

BEFORE and AFTER are folders with the host libraries of two builds of the tree, such as
`build/site-packages/korvex/emulation`. Both are loaded into one process, their kernels run in turns
on one thread, bits are compared first, and what is printed are ratios of processor time: after
over before. Nothing is recorded.
"""

import argparse
import statistics
import time
from collections.abc import Callable
from pathlib import Path

import numpy as np

from korvex.emulation._library import INSTRUCTION_SETS, HostLibrary, best_instruction_set
from korvex_tools.figures.host_kernels import launch_of
from korvex_tools.figures.timing import print_table

SEED = 1954
MATRIX = "tqx_matmul_kernel"
MATRIX_SIDES = (24, 128, 256)
POSITIVE = ("tqx_log_kernel", "tqx_sqrt_kernel")
# Kernels whose time depends on how far apart the exponents of their elements lie.
WIDE = ("sum", "dot", "norm", "var", "cumsum", "prod")

Case = tuple[str, str, dict[str, np.ndarray], dict[str, int]]


def cases(kernels: list[str], n: int) -> list[Case]:
    """Label, kernel, operands and sizes of all that is timed."""
    generator = np.random.default_rng(SEED)
    x, y = generator.standard_normal(n), generator.standard_normal(n)
    scale = np.ldexp(1.0, generator.integers(-60, 61, n))
    found: list[Case] = []
    for name in kernels:
        if name == MATRIX:
            for side in MATRIX_SIDES:
                a, b = (generator.standard_normal(side * side) for _ in "ab")
                sizes = {"M": side, "N": side, "K": side}
                found.append((f"{name}, {side}", name, {"a": a, "b": b}, sizes))
            continue
        operands = {"x": np.abs(x) if name in POSITIVE else x, "y": y}
        found.append((name, name, operands, {"n": n}))
        if any(word in name for word in WIDE):
            found.append((f"{name}, wide", name, {"x": x * scale, "y": y * scale}, {"n": n}))
    return found


def ratios(before: Callable[[int], None], after: Callable[[int], None], repeats: int) -> list[str]:
    """Least over least, median of the ratios of the turns, milliseconds of the least before."""
    taken: dict[bool, list[int]] = {False: [], True: []}
    for turn in range(repeats):
        for is_after in (False, True) if turn % 2 else (True, False):
            begin = time.process_time_ns()
            (after if is_after else before)(1)
            taken[is_after].append(time.process_time_ns() - begin)
    middle = statistics.median(a / b for b, a in zip(taken[False], taken[True], strict=True))
    least = min(taken[True]) / min(taken[False])
    return [f"{least:.3f}", f"{middle:.3f}", f"{min(taken[False]) / 1e6:.3f}"]


def compare(instruction_set: str, options: argparse.Namespace) -> list[list[str]]:
    file = f"libkorvex_host_kernels_{instruction_set}.so"
    libraries = [
        HostLibrary(instruction_set, 1, path=folder / file)
        for folder in (options.before, options.after)
    ]
    kernels = [name for name in libraries[0].kernels if options.kernels in name]
    rows = []
    for label, name, operands, sizes in cases(kernels, options.n):
        calls, outputs = zip(
            *(launch_of(library, name, operands, sizes) for library in libraries), strict=True
        )
        for call in calls:
            call(1)
        for one, other in zip(*outputs, strict=True):
            if one.tobytes() != other.tobytes():
                raise SystemExit(f"{label}, {instruction_set}: the builds leave different bits")
        rows.append([label, *ratios(*calls, options.repeats)])
    return rows


def main() -> None:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("before", type=Path)
    parser.add_argument("after", type=Path)
    parser.add_argument("--n", type=int, default=1_000_000, help="elements (1000000)")
    parser.add_argument("--repeats", type=int, default=21, help="turns (21)")
    parser.add_argument("--kernels", default="", help="only those with this in their name")
    options = parser.parse_args()
    usable = INSTRUCTION_SETS[: INSTRUCTION_SETS.index(best_instruction_set()) + 1]
    for instruction_set in usable:
        title = f"{instruction_set}, n = {options.n}, 1 thread, after / before"
        columns = ["kernel", "least", "median", "before, ms"]
        print_table(title, columns, compare(instruction_set, options))


if __name__ == "__main__":
    main()
