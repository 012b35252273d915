# SPDX-License-Identifier: Apache-2.0
"""What contractions, convolutions and solves cost on the emulated device, in time and memory.

Each function stands against torch's own, which keeps no errors. Results are compared before
anything is timed. Memory is that of torch's allocator and of no other: the most that a call holds
beyond its operands, counted in one call of its own.
"""

import argparse
import os
from collections.abc import Callable
from typing import Any

import torch
from torch.profiler import ProfilerActivity, profile

from korvex import emulation
from korvex_tools.figures.command import cut_short, host_parser, record
from korvex_tools.figures.timing import Timing, measure, print_table

SEED = 19711971
THREADS = 1
TOLERANCE = 1e-9  # of well-conditioned operands: a check that both do the same work

Candidates = dict[str, Callable[[], torch.Tensor]]


def drawn(*shape: int) -> torch.Tensor:
    generator = torch.Generator().manual_seed(SEED + sum(shape))
    return torch.randn(shape, dtype=torch.float64, generator=generator)


# --- Candidates: torch on the host first, then the module on the emulated device


def linear(n: int, tqx: Any) -> Candidates:
    x, weight, bias = drawn(n, n), drawn(n, n), drawn(n)
    here = [operand.to("cuda") for operand in (x, weight, bias)]
    return {
        "torch.nn.functional.linear": lambda: torch.nn.functional.linear(x, weight, bias),
        "tqx_linear": lambda: tqx.tqx_linear(*here),
    }


def einsum(n: int, tqx: Any) -> Candidates:
    a, b = drawn(n, n), drawn(n, n)
    here = [operand.to("cuda") for operand in (a, b)]
    return {
        "torch.einsum ij,jk->ik": lambda: torch.einsum("ij,jk->ik", a, b),
        "tqx_einsum ij,jk->ik": lambda: tqx.tqx_einsum("ij,jk->ik", *here),
        "tqx_einsum ij, jk -> ik (by torch)": lambda: tqx.tqx_einsum("ij, jk -> ik", *here),
    }


def conv2d(n: int, tqx: Any) -> Candidates:
    x, weight = drawn(2, 4, n, n), drawn(8, 4, 3, 3)
    here = [operand.to("cuda") for operand in (x, weight)]
    plain = torch.nn.functional.conv2d
    return {
        "torch.nn.functional.conv2d": lambda: plain(x, weight, padding=1),
        "tqx_conv2d": lambda: tqx.tqx_conv2d(*here, padding=1),
    }


def conv_transpose2d(n: int, tqx: Any) -> Candidates:
    x, weight = drawn(2, 4, n, n), drawn(4, 8, 3, 3)
    here = [operand.to("cuda") for operand in (x, weight)]
    plain = torch.nn.functional.conv_transpose2d
    return {
        "torch.nn.functional.conv_transpose2d": lambda: plain(x, weight, padding=1),
        "tqx_conv_transpose2d": lambda: tqx.tqx_conv_transpose2d(*here, padding=1),
    }


def solve(n: int, tqx: Any) -> Candidates:
    a, b = drawn(n, n) + 4 * n**0.5 * torch.eye(n, dtype=torch.float64), drawn(n, 1)
    here = [operand.to("cuda") for operand in (a, b)]
    return {
        "torch.linalg.solve": lambda: torch.linalg.solve(a, b),
        "tqx_solve, max_iter=0": lambda: tqx.tqx_solve(*here, max_iter=0),
        "tqx_solve, max_iter=1": lambda: tqx.tqx_solve(*here, max_iter=1),
        "tqx_solve": lambda: tqx.tqx_solve(*here),
    }


FAMILIES = {
    "linear": linear,
    "einsum": einsum,
    "conv2d": conv2d,
    "conv_transpose2d": conv_transpose2d,
    "solve": solve,
}


def check_results(candidates: Candidates) -> None:
    results = [call().cpu() for call in candidates.values()]
    for name, result in zip(candidates, results, strict=True):
        if not torch.allclose(result, results[0], rtol=TOLERANCE, atol=TOLERANCE):
            raise AssertionError(f"{name}: not the result of torch")


# --- Memory


def bytes_held(call: Callable[[], Any]) -> int:
    """The most bytes that tensors made during one call hold at a time, the result included."""
    with profile(activities=[ProfilerActivity.CPU], profile_memory=True) as record:
        call()
    held = most = 0
    for event in record.profiler.kineto_results.events():
        if event.name() == "[memory]":
            held += event.nbytes()
            most = max(most, held)
    return most


# --- One family


def run_family(name: str, options: argparse.Namespace) -> dict[str, Any]:
    from korvex import tqx_runtime

    candidates = FAMILIES[name](options.n, tqx_runtime)
    check_results(candidates)
    timings = measure(candidates, options.repeats)
    plain = next(iter(timings.values()))
    results = [
        result_row(label, timing, plain, bytes_held(candidates[label]))
        for label, timing in timings.items()
    ]
    print_table(
        f"{name}, n = {options.n}, median of {options.repeats}, {THREADS} thread",
        ["candidate", "ms", "processor ms", "x torch", "processor", "kB held"],
        [[str(value) for value in row.values()] for row in results],
    )
    return {"family": name, "results": results}


def result_row(label: str, timing: Timing, plain: Timing, held: int) -> dict[str, Any]:
    return {
        "candidate": label,
        "ms": round(timing.median * 1e3, 4),
        "ms_processor": round(timing.processor_median * 1e3, 4),
        "times_torch": round(timing.median / plain.median, 3),
        "times_torch_processor": round(timing.processor_median / plain.processor_median, 3),
        "kilobytes_held": round(held / 1000, 3),
    }


def main() -> None:
    parser = host_parser(__doc__, 64, "rows, or height and width", 9)
    options = parser.parse_args()
    cut_short(options, n=16, repeats=3)
    os.environ.setdefault("KINETO_LOG_LEVEL", "99")  # the profiler's own messages
    torch.set_num_threads(THREADS)
    emulation.activate(threads=THREADS)
    runs = [run_family(name, options) for name in FAMILIES]
    settings = {"n": options.n, "repeats": options.repeats, "seed": SEED, "threads": THREADS}
    record("bench_linalg", options, settings, runs=runs)


if __name__ == "__main__":
    main()
