# SPDX-License-Identifier: Apache-2.0
"""How does the time of an exact sum, dot and matrix product grow with its size?

On one thread of the emulated device, beside plain torch and NumPy and beside the exact peers of
the standard library, each up to the size that it can be waited for. `make figures` draws it.
"""

import argparse
import math
import time
from collections.abc import Callable
from fractions import Fraction
from typing import Any

import numpy as np
import torch
from plain_products import double_double, rational

from korvex import emulation
from korvex.emulation._library import HostLibrary, best_instruction_set
from korvex_tools.figures.command import host_parser, record
from korvex_tools.figures.host_kernels import launch_of
from korvex_tools.figures.timing import print_table

SEED = 1947
BATCH_SECONDS = 0.005  # of calls that are timed together, at least
LARGEST_LIST = 1_000_000  # elements of the lists of math.fsum and math.sumprod
LARGEST_FRACTIONS = 1_000
LARGEST_FRACTION_MATRIX = 24
LARGEST_TORCH_PAIRS = 256
SIDES = (8, 16, 24, 32, 64, 128, 256, 512)

Candidates = dict[str, Callable[[], Any]]


def normal(count: int, seed: int) -> np.ndarray:
    return np.random.default_rng(SEED + seed).standard_normal(count)


def kernel_call(name: str, operands: dict[str, np.ndarray], sizes: dict[str, int]) -> Any:
    call, _ = launch_of(HostLibrary(best_instruction_set(), 1), name, operands, sizes)
    return lambda: call(1)


def on_device(*arrays: np.ndarray) -> list[torch.Tensor]:
    return [torch.from_numpy(array).to("cuda") for array in arrays]


# --- Candidates of one size


def sums(n: int, tqx: Any) -> Candidates:
    x = normal(n, 0)
    host, [device] = torch.from_numpy(x), on_device(x)
    candidates: Candidates = {
        "torch.sum": lambda: torch.sum(host),
        "numpy.sum": lambda: np.sum(x),
        "tqx_sum_seq_kernel": kernel_call("tqx_sum_seq_kernel", {"x": x}, {"n": n}),
        "tqx_sum": lambda: tqx.tqx_sum(device),
    }
    if n <= LARGEST_LIST:
        values = x.tolist()
        candidates["math.fsum, list"] = lambda: math.fsum(values)
    return candidates


def dots(n: int, tqx: Any) -> Candidates:
    x, y = normal(n, 1), normal(n, 2)
    host, device = [torch.from_numpy(v) for v in (x, y)], on_device(x, y)
    candidates: Candidates = {
        "torch.dot": lambda: torch.dot(*host),
        "tqx_dot_seq_kernel": kernel_call("tqx_dot_seq_kernel", {"x": x, "y": y}, {"n": n}),
        "tqx_dot": lambda: tqx.tqx_dot(*device),
    }
    if n <= LARGEST_LIST:
        lists = [v.tolist() for v in (x, y)]
        candidates["math.sumprod, lists"] = lambda: math.sumprod(*lists)
    if n <= LARGEST_FRACTIONS:
        pairs = [list(map(Fraction, v)) for v in (x.tolist(), y.tolist())]
        candidates["Fraction"] = lambda: sum(map(Fraction.__mul__, *pairs), Fraction())
    return candidates


def products(n: int, tqx: Any) -> Candidates:
    a, b = (normal(n * n, seed).reshape(n, n) for seed in (3, 4))
    host, device = [torch.from_numpy(v) for v in (a, b)], on_device(a, b)
    sizes = {"M": n, "N": n, "K": n}
    candidates: Candidates = {
        "torch.matmul": lambda: torch.matmul(*host),
        "tqx_matmul_kernel": kernel_call("tqx_matmul_kernel", {"a": a, "b": b}, sizes),
        "tqx_matmul": lambda: tqx.tqx_matmul(*device),
    }
    if n <= LARGEST_TORCH_PAIRS:
        candidates["two doubles in torch"] = lambda: double_double(*host)
    if n <= LARGEST_FRACTION_MATRIX:
        candidates["Fraction"] = lambda: rational(*host)
    return candidates


# Name, candidates, sizes, steps of one size, and what a step is.
OPERATIONS: dict[str, tuple[Callable[[int, Any], Candidates], Callable[[int], int], str]] = {
    "sum": (sums, lambda n: n, "element"),
    "dot": (dots, lambda n: n, "pair"),
    "matmul": (products, lambda n: n**3, "multiply-add"),
}


def sizes_of(name: str, options: argparse.Namespace) -> list[int]:
    if name == "matmul":
        return [side for side in SIDES if side <= options.matrix]
    decades = 2 * math.log10(options.n)
    return [round(10 ** (half / 2)) for half in range(4, int(decades + 1e-9) + 1)]


# --- Timing


def seconds_of(call: Callable[[], Any], repeats: int) -> float:
    """Processor seconds of one call: the least of some batches, as the work is on one thread."""
    call()
    begin = time.process_time()
    call()
    once = max(time.process_time() - begin, 1e-7)
    calls = max(1, int(BATCH_SECONDS / once))
    least = math.inf
    for _ in range(repeats if once < 1 else 1):
        begin = time.process_time()
        for _ in range(calls):
            call()
        least = min(least, (time.process_time() - begin) / calls)
    return least


def run_operation(name: str, options: argparse.Namespace) -> dict[str, Any]:
    from korvex import tqx_runtime

    make, steps, step = OPERATIONS[name]
    results = [
        {
            "candidate": candidate,
            "n": n,
            "ns_per_step": round(seconds_of(call, options.repeats) / steps(n) * 1e9, 4),
        }
        for n in sizes_of(name, options)
        for candidate, call in make(n, tqx_runtime).items()
    ]
    print_table(
        f"{name}, least of {options.repeats}, one thread, processor time",
        ["candidate", "n", f"ns a {step}"],
        [[str(value) for value in row.values()] for row in results],
    )
    return {"operation": name, "step": step, "results": results}


def main() -> None:
    parser = host_parser(__doc__, 10_000_000, "most elements", 7, "timed batches")
    parser.add_argument("--matrix", type=int, default=512, help="most rows (512)")
    options = parser.parse_args()
    if options.quick:
        options.n, options.matrix, options.repeats = min(options.n, 1000), 16, 2
    torch.set_num_threads(1)
    emulation.activate(threads=1)
    runs = [run_operation(name, options) for name in OPERATIONS]
    settings = {
        "n": options.n,
        "matrix": options.matrix,
        "repeats": options.repeats,
        "seed": SEED,
        "threads": 1,
        "instruction_set": best_instruction_set(),
    }
    record("bench_curves", options, settings, runs=runs)


if __name__ == "__main__":
    main()
