# SPDX-License-Identifier: Apache-2.0
"""How fast exact sums are on a GPU: the kernels alone, and whole calls, against torch.sum.

Kernels are launched through the driver and timed by its events, so no Python stands between. A call
is timed on the clock, from Python to the result that has arrived. The last line printed is JSON.
"""

import argparse
import statistics
import time
from collections.abc import Callable
from typing import Any

import torch

from korvex_tools import kernel_table
from korvex_tools.figures.command import gpu_parser, record_and_print
from korvex_tools.figures.timing import print_table
from korvex_tools.gpu.cuda_device import choose_device

SEED = 20130501
ROW = kernel_table.rows()["tqx_sum_kernel"]  # which says how the package launches it
SEQUENTIAL_NS_TARGET = 13.0  # an element, of N(0,1)
PARALLEL_RATIO_TARGET = 1.15  # of torch.sum in float64, for the largest n

Work = Callable[[], Any]


def normal(count: int, where: str) -> torch.Tensor:
    return torch.randn(count, dtype=torch.float64, device=where)


def wide(count: int, where: str) -> torch.Tensor:
    """Normal values over 120 binades."""
    exponents = torch.rand(count, dtype=torch.float64, device=where) * 120 - 60
    return normal(count, where) * torch.exp2(exponents)


def any_bits(count: int, where: str) -> torch.Tensor:
    """Every finite pattern of bits alike."""
    patterns = torch.randint(-(2**63), 2**63 - 1, (count,), dtype=torch.int64, device=where)
    values = patterns.view(torch.float64)
    return torch.where(torch.isfinite(values), values, torch.ones_like(values))


DATA = {"N(0,1)": normal, "N(0,1) * 2^U(-60,60)": wide, "any bits": any_bits}


# --- The kernels alone


class Kernels:
    """Launches on one tensor; each method gives the median of seconds."""

    def __init__(self, device, x: torch.Tensor, repeats: int) -> None:
        self._device = device
        self._x = x
        self._repeats = repeats
        self._outputs = [device.allocate(4), device.allocate(1)]

    def _median(self, work: Work) -> float:
        work()
        self._device.wait()
        return statistics.median(self._device.seconds(work) for _ in range(self._repeats))

    def sequential(self) -> float:
        arguments = (self._x.data_ptr(), self._outputs[0], self._x.numel())
        return self._median(
            lambda: self._device.launch("tqx_sum_seq_kernel", (1, 1, 1), (1, 1, 1), *arguments)
        )

    def parallel(self, blocks_per_multiprocessor: int) -> float:
        n = self._x.numel()
        needed = max(1, -(-n // ROW.elements_per_block))
        blocks = min(needed, blocks_per_multiprocessor * self._device.multiprocessors)
        arguments = (self._x.data_ptr(), *self._outputs, n)
        return self._median(
            lambda: self._device.launch(ROW.name, (blocks, 1, 1), (ROW.block, 1, 1), *arguments)
        )

    def torch_sum(self) -> float:
        return self._median(lambda: torch.sum(self._x))


def time_sequential(device, where: str, options: argparse.Namespace) -> list[dict[str, Any]]:
    rows = []
    for name, generate in DATA.items():
        for n in (options.n // 1000, options.n // 10):
            seconds = Kernels(device, generate(n, where), 3).sequential()
            rows.append({"data": name, "n": n, "ns_per_element": round(seconds / n * 1e9, 3)})
    print_table(
        "one thread, ns per element",
        ["data", "n", "ns"],
        [[row["data"], str(row["n"]), f"{row['ns_per_element']:.2f}"] for row in rows],
    )
    return rows


def time_parallel(device, where: str, options: argparse.Namespace) -> list[dict[str, Any]]:
    rows = []
    for name, generate in DATA.items():
        for n in (options.n // 10_000, options.n // 100, options.n // 10, options.n):
            kernels = Kernels(device, generate(n, where), options.repeats)
            ours, theirs = kernels.parallel(ROW.blocks_per_multiprocessor), kernels.torch_sum()
            rows.append(
                {
                    "data": name,
                    "n": n,
                    "microseconds": round(ours * 1e6, 2),
                    "torch_sum_microseconds": round(theirs * 1e6, 2),
                    "ratio": round(ours / theirs, 3),
                }
            )
    print_table(
        "all blocks, microseconds",
        ["data", "n", "exact", "torch.sum", "ratio"],
        [[str(value) for value in row.values()] for row in rows],
    )
    return rows


def time_clamps(device, where: str, options: argparse.Namespace) -> list[dict[str, Any]]:
    """The same launch with more and with fewer blocks."""
    kernels = Kernels(device, normal(options.n, where), options.repeats)
    rows = [
        {"blocks_per_multiprocessor": blocks, "microseconds": kernels.parallel(blocks) * 1e6}
        for blocks in (1, 2, 4, 8, 16, 32, 64)
    ]
    print_table(
        f"all blocks, n = {options.n}, by blocks for each multiprocessor",
        ["blocks", "microseconds"],
        [[str(row["blocks_per_multiprocessor"]), f"{row['microseconds']:.2f}"] for row in rows],
    )
    return rows


# --- Whole calls


def time_calls(where: str, options: argparse.Namespace) -> list[dict[str, Any]]:
    from korvex import tqx_runtime

    rows = []
    for n in (100, options.n // 1000, options.n):
        x = normal(n, "cpu").to("cuda") if where == "cpu" else normal(n, where)
        calls = {
            "tqx_sum(exact=False)": lambda x=x: tqx_runtime.tqx_sum(x, exact=False),
            "torch.sum": lambda x=x: torch.sum(x),
        }
        if n < options.n:
            calls["tqx_sum"] = lambda x=x: tqx_runtime.tqx_sum(x)
        for name, call in calls.items():
            microseconds = clock_median(call, options.repeats) * 1e6
            rows.append({"call": name, "n": n, "microseconds": round(microseconds, 2)})
    print_table(
        "calls from Python, microseconds",
        ["call", "n", "microseconds"],
        [[str(value) for value in row.values()] for row in rows],
    )
    return rows


def clock_median(call: Work, repeats: int) -> float:
    times = []
    for _ in range(repeats + 1):
        begin = time.perf_counter()
        call().item()  # waits for the result
        times.append(time.perf_counter() - begin)
    return statistics.median(times[1:])


# --- Targets


def judge(runs: dict[str, Any]) -> list[dict[str, Any]]:
    sequential = [row for row in runs["sequential"] if row["data"] == "N(0,1)"][-1]
    parallel = [row for row in runs["parallel"] if row["data"] == "N(0,1)"][-1]
    targets = [
        ("one thread, ns an element", sequential["ns_per_element"], SEQUENTIAL_NS_TARGET),
        ("all blocks, times torch.sum", parallel["ratio"], PARALLEL_RATIO_TARGET),
    ]
    rows = [
        {"what": what, "measured": measured, "at_most": target, "met": measured <= target}
        for what, measured, target in targets
    ]
    for row in rows:
        verdict = "met" if row["met"] else "NOT MET"
        print(f"target: {row['what']}: {row['measured']}, at most {row['at_most']}: {verdict}")
    return rows


def main() -> None:
    options = gpu_parser(__doc__, "elements of the largest sums").parse_args()
    torch.manual_seed(SEED)
    device, where = choose_device(options.emulated), "cpu" if options.emulated else "cuda"
    runs: dict[str, Any] = {
        "sequential": time_sequential(device, where, options),
        "parallel": time_parallel(device, where, options),
        "clamps": time_clamps(device, where, options),
    }
    if options.emulated:
        from korvex import emulation

        emulation.activate()
    runs["calls"] = time_calls(where, options)
    content = {"device": device.name(), "runs": runs, "targets": judge(runs)}
    record_and_print("bench_gpu_sum", options, content)


if __name__ == "__main__":
    main()
