# SPDX-License-Identifier: Apache-2.0
"""How much faster are the parallel kernels of the emulated device on two threads than on one?

Each kernel runs with either number in turns; their bits are compared first. Only a round that the
system left alone shows what splitting costs: one that had two processors used about twice as much
processor time as passed on the clock. So the least times are compared, and rounds go on until the
fastest on two threads had its processors, or patience ends. What it had stands beside its time:
well below 2, other processes were at work, or threads waited for each other.

A kernel that does little more than read and write is held up by memory, which the processors
share. How much a second processor gains then is a fact of the machine: torch's operation with the
same operands, which keeps no error, shows it in the same run.
"""

import argparse
import time
from collections.abc import Callable
from typing import Any

import numpy as np
import torch

from korvex.emulation._library import HostLibrary, best_instruction_set
from korvex_tools.figures.command import add_quick_and_output
from korvex_tools.figures.host_kernels import launch_of
from korvex_tools.figures.records import RESULTS_FOLDER, write_results
from korvex_tools.figures.timing import (
    TIMES_ON_TWO_THREADS,
    print_table,
    print_targets,
    threads_target,
)

SEED = 1967
MANY = 2
# Kernels of one thread by their contract: they add in the order of their elements.
SEQUENTIAL = ("tqx_sum_seq_kernel", "tqx_dot_seq_kernel")
MATRIX = "tqx_matmul_kernel"
# Elements of a kernel as a share of --n: so many that the start of a thread does not show, and so
# few that a round is short and likely to be left alone.
SHARES = {"tqx_sum_kernel": 1.0, "tqx_dot_kernel": 0.5, "tqx_var_kernel": 0.5}
USUAL_SHARE = 0.3
POSITIVE = ("tqx_log_kernel", "tqx_sqrt_kernel")
LEFT_ALONE = 1.9  # processors
# Held up by memory, with torch's operation.
BOUND_BY_MEMORY = {
    "tqx_add_kernel": torch.add,
    "tqx_sub_kernel": torch.sub,
    "tqx_mul_kernel": torch.mul,
    "tqx_relu_kernel": torch.clamp_min,
    "tqx_neg_kernel": torch.neg,
}


def operands_and_sizes(name: str, n: int) -> tuple[dict[str, np.ndarray], dict[str, int]]:
    generator = np.random.default_rng(SEED)
    if name == MATRIX:
        side = round((13.4 * n) ** (1 / 3))
        a, b = (generator.standard_normal(side * side) for _ in "ab")
        return {"a": a, "b": b}, {"M": side, "N": side, "K": side}
    count = int(n * SHARES.get(name, USUAL_SHARE))
    x, y = (generator.standard_normal(count) for _ in "xy")
    return {"x": np.abs(x) if name in POSITIVE else x, "y": y}, {"n": count}


def rounds_of(call: Any, options: argparse.Namespace) -> dict[int, list[tuple[float, float]]]:
    """Seconds on the clock and of processor time, by number of threads."""
    taken: dict[int, list[tuple[float, float]]] = {1: [], MANY: []}
    deadline = time.perf_counter() + options.patience
    while len(taken[1]) < options.repeats or (
        processors_of_fastest(taken[MANY]) < LEFT_ALONE and time.perf_counter() < deadline
    ):
        for threads, times in taken.items():
            begin, processor_begin = time.perf_counter(), time.process_time()
            call(threads)
            processor_end, end = time.process_time(), time.perf_counter()
            times.append((end - begin, processor_end - processor_begin))
    return taken


def processors_of_fastest(rounds: list[tuple[float, float]]) -> float:
    clock, processor = min(rounds)
    return processor / clock


def least_processor(rounds: list[tuple[float, float]]) -> float:
    return min(processor for _, processor in rounds)


def torch_call(name: str, operands: dict[str, np.ndarray]) -> Callable[[int], None]:
    operation = BOUND_BY_MEMORY[name]
    x, y = (torch.from_numpy(operands[key]) for key in "xy")
    others = {torch.neg: (), torch.clamp_min: (0.0,)}.get(operation, (y,))
    out = torch.empty_like(x)

    def call(threads: int) -> None:
        torch.set_num_threads(threads)
        operation(x, *others, out=out)

    return call


def times_faster(taken: dict[int, list[tuple[float, float]]]) -> float:
    return round(min(taken[1])[0] / min(taken[MANY])[0], 2)


def run_kernel(library: HostLibrary, name: str, options: argparse.Namespace) -> dict[str, Any]:
    operands, sizes = operands_and_sizes(name, options.n)
    call, outputs = launch_of(library, name, operands, sizes)
    call(1)
    expected = [output.tobytes() for output in outputs]
    call(MANY)
    if [output.tobytes() for output in outputs] != expected:
        raise AssertionError(f"{name}: other bits on {MANY} threads than on 1")
    taken = rounds_of(call, options)
    row = {
        "candidate": name,
        "n": max(sizes.values()),
        "milliseconds_1_thread": round(min(taken[1])[0] * 1e3, 3),
        f"milliseconds_{MANY}_threads": round(min(taken[MANY])[0] * 1e3, 3),
        "times_faster": times_faster(taken),
        "times_faster_of_medians": round(
            float(np.median(taken[1], axis=0)[0] / np.median(taken[MANY], axis=0)[0]), 2
        ),
        "processors_had": round(processors_of_fastest(taken[MANY]), 2),
        # Of processor time: what the work grows by when it is split.
        "processor_time_grows_by": round(
            least_processor(taken[MANY]) / least_processor(taken[1]), 3
        ),
        "rounds": len(taken[1]),
    }
    if name in BOUND_BY_MEMORY:
        row["torch_times_faster"] = times_faster(rounds_of(torch_call(name, operands), options))
    return row


def target_of(row: dict[str, Any]) -> dict[str, Any]:
    """As the other kernels where memory allows it, else nine tenths of what it allows."""
    one, many = row["milliseconds_1_thread"], row[f"milliseconds_{MANY}_threads"]
    least = TIMES_ON_TWO_THREADS
    if "torch_times_faster" in row:
        least = min(least, round(0.9 * row["torch_times_faster"], 2))
    return threads_target(row["candidate"], one, many, least)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument(
        "--n",
        type=int,
        default=10_000_000,
        help="elements of a sum; other kernels get fewer (10000000)",
    )
    parser.add_argument("--repeats", type=int, default=61, help="timed rounds, at least (61)")
    parser.add_argument("--patience", type=float, default=5.0, help="seconds a kernel (5)")
    parser.add_argument("--kernel", action="append", help="only this one; may be repeated")
    add_quick_and_output(parser)
    options = parser.parse_args()
    if options.quick:
        options.n, options.repeats, options.patience = min(options.n, 300_000), 3, 0.0
    library = HostLibrary(best_instruction_set(), 1)
    names = [name for name in library.kernels if name not in SEQUENTIAL]
    chosen = [name for name in names if name in (options.kernel or names)]
    results = [run_kernel(library, name, options) for name in chosen]
    print_table(
        f"{library.instruction_set}, least of {options.repeats} rounds or more",
        [
            "kernel",
            "n",
            "ms, 1 thread",
            f"ms, {MANY} threads",
            "times",
            "of medians",
            "processors",
            "work",
            "rounds",
            "torch",
        ],
        [
            [*map(str, row.values()), *([] if "torch_times_faster" in row else ["-"])]
            for row in results
        ],
    )
    targets = [target_of(row) for row in results]
    print_targets(targets)
    folder = options.output or (None if options.quick or options.kernel else RESULTS_FOLDER)
    if folder:
        settings = {
            "n": options.n,
            "repeats": options.repeats,
            "seed": SEED,
            "threads": [1, MANY],
            "instruction_set": library.instruction_set,
        }
        content = {"settings": settings, "results": results, "targets": targets}
        write_results("bench_threads", folder, content)


if __name__ == "__main__":
    main()
