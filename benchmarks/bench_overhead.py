# SPDX-License-Identifier: Apache-2.0
"""What a call of the module costs beside the torch operations in it: against plain Python.

Both sides run the same steps on host tensors, with the same stand-ins for cupy and the loader,
whose kernels do nothing. What is left is the cost of the steps themselves. The emulated device is
not in play: its own checks would cover the difference. Processor time is measured, as all work is
on one thread: the turns of other processes do not count.
"""

import argparse
import importlib
import sys
import types
from collections.abc import Callable
from typing import Any

import plain_sum
import torch

from korvex_tools.figures.command import cut_short, host_parser, record
from korvex_tools.figures.timing import Timing, measure, print_table

TARGET = 1.1  # the module's time over plain Python's, at most
JUDGED = "tqx_sum(x)"


# --- Stand-ins


class Kernel:
    def launch(self, *arguments: Any, grid: tuple[int, int, int]) -> None:
        pass

    def function(self, grid: Any, block: Any, arguments: Any) -> None:
        pass


class NativeCubinLoader:
    arch = cubin_path = "none"
    _kernel = Kernel()

    def get_kernel(self, name: str) -> Kernel:
        return self._kernel


class Operand:
    """Says that it is on a CUDA device; what the steps make of it are plain host tensors."""

    is_cuda = True

    def __init__(self, tensor: torch.Tensor):
        self._tensor = tensor
        self.device = tensor.device

    def double(self) -> torch.Tensor:
        return self._tensor

    def numel(self) -> int:
        return self._tensor.numel()


def make_cupy() -> types.ModuleType:
    cupy = types.ModuleType("cupy")
    null = types.SimpleNamespace(synchronize=lambda: None)
    cupy.cuda = types.SimpleNamespace(Stream=types.SimpleNamespace(null=null))
    cupy.from_dlpack = lambda tensor: tensor
    return cupy


def import_runtime() -> types.ModuleType:
    """The module with the stand-ins; the plain functions get the same ones."""
    loader_module = types.ModuleType("korvex.cubin_loader_native")
    loader_module.HAS_CUPY = True
    loader_module.NativeCubinLoader = NativeCubinLoader
    sys.modules.update({"cupy": make_cupy(), loader_module.__name__: loader_module})
    runtime = importlib.import_module("korvex.tqx_runtime")
    plain_sum.cp = runtime.cp
    plain_sum._NATIVE_LOADER = runtime._NATIVE_LOADER
    return runtime


# --- Cases


def cases(runtime: Any, x: Operand) -> dict[str, Callable[[], Any]]:
    return {
        "tqx_sum(x)": lambda: runtime.tqx_sum(x),
        "tqx_sum(x, return_tqx=True)": lambda: runtime.tqx_sum(x, return_tqx=True),
        "tqx_sum(x, exact=False)": lambda: runtime.tqx_sum(x, exact=False),
        "tqx_mean(x)": lambda: runtime.tqx_mean(x),
    }


def repeated(call: Callable[[], Any], times: int) -> Callable[[], None]:
    def run() -> None:
        for _ in range(times):
            call()

    return run


def run_cases(options: argparse.Namespace) -> list[dict[str, Any]]:
    x = Operand(torch.ones(options.n, dtype=torch.float64))
    module_cases, plain_cases = cases(import_runtime(), x), cases(plain_sum, x)
    results = []
    for name in module_cases:
        sides = {"module": module_cases[name], "plain": plain_cases[name]}
        batches = {side: repeated(call, options.calls) for side, call in sides.items()}
        results.append(result_row(name, measure(batches, options.repeats), options.calls))
    return results


def result_row(name: str, timings: dict[str, Timing], calls: int) -> dict[str, Any]:
    module, plain = timings["module"], timings["plain"]
    return {
        "case": name,
        "module_us": round(module.processor_median / calls * 1e6, 2),
        "plain_us": round(plain.processor_median / calls * 1e6, 2),
        "ratio": round(module.processor_median / plain.processor_median, 3),
        # Of the fastest batches: the least disturbed ones.
        "ratio_of_least": round(module.processor_least / plain.processor_least, 3),
    }


def judge(results: list[dict[str, Any]]) -> dict[str, Any]:
    [result] = [result for result in results if result["case"] == JUDGED]
    met = result["ratio"] <= TARGET
    print(f"target: {JUDGED} at most {TARGET} of plain Python: {'met' if met else 'NOT MET'}")
    return {"case": JUDGED, "ratio_at_most": TARGET, "met": met}


def main() -> None:
    parser = host_parser(__doc__, 1000, "elements of the operand", 101, "timed batches")
    parser.add_argument("--calls", type=int, default=200, help="calls in a timed batch (200)")
    options = parser.parse_args()
    cut_short(options, calls=100, repeats=3)
    torch.set_num_threads(1)
    results = run_cases(options)
    print_table(
        f"module and plain Python, n = {options.n}, median of {options.repeats} batches",
        ["case", "module us", "plain us", "ratio", "of least"],
        [[str(value) for value in result.values()] for result in results],
    )
    target = judge(results)
    settings = {"n": options.n, "calls": options.calls, "repeats": options.repeats}
    record("bench_overhead", options, settings, results=results, target=target)


if __name__ == "__main__":
    main()
