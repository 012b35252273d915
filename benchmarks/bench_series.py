# SPDX-License-Identifier: Apache-2.0
"""What a series function or a transform costs beside its torch operations: against plain Python.

Both sides run the same steps on host tensors that say they are on a CUDA device. The operations of
torch that each side makes are counted first and must be equal; what is left to compare is the cost
of the steps between them. Processor time on one thread, as in bench_overhead.py.
"""

import argparse
from collections.abc import Callable
from typing import Any

import plain_series
import torch
from bench_overhead import import_runtime, repeated, result_row
from torch.overrides import TorchFunctionMode

from korvex_tools.figures.command import host_parser, record
from korvex_tools.figures.timing import measure, print_table

TARGET = 1.1  # the module's time over plain Python's, at most, for every function


class Operand:
    """Says that it is on a CUDA device; what the steps make of it are plain host tensors."""

    is_cuda = True

    def __init__(self, tensor: torch.Tensor):
        self._tensor = tensor
        self.device = tensor.device
        self.shape = tensor.shape

    def double(self) -> torch.Tensor:
        return self._tensor

    def clone(self) -> torch.Tensor:
        return self._tensor.clone()


class Counter(TorchFunctionMode):
    """Inside it, every function of torch that is called counts."""

    def __init__(self) -> None:
        super().__init__()
        self.count = 0

    def __torch_function__(
        self, function: Any, types: Any, args: Any = (), kwargs: Any = None
    ) -> Any:
        self.count += 1
        return function(*args, **(kwargs or {}))


def operation_count(call: Callable[[], Any]) -> int:
    counter = Counter()
    with counter:
        call()
    return counter.count


def cases(side: Any, n: int) -> dict[str, Callable[[], Any]]:
    generator = torch.Generator().manual_seed(3)
    numbers = torch.rand(n, dtype=torch.float64, generator=generator)
    x = Operand(numbers)
    row = Operand(numbers[:64].repeat(64)[:64])
    odd = Operand(row.double()[:63])
    spectrum = Operand(torch.complex(row.double(), row.double()))
    arctangent = side.tqx_atan
    # The quotient that tqx_atan2 hands on is a plain host tensor: both sides wrap it again.
    side.tqx_atan = lambda quotient: arctangent(Operand(quotient))
    return {
        "tqx_sin(x)": lambda: side.tqx_sin(x),
        "tqx_cos(x)": lambda: side.tqx_cos(x),
        "tqx_tan(x)": lambda: side.tqx_tan(x),
        "tqx_asin(x)": lambda: side.tqx_asin(x),
        "tqx_acos(x)": lambda: side.tqx_acos(x),
        "tqx_atan(x)": lambda: arctangent(x),
        "tqx_atan2(x, x)": lambda: side.tqx_atan2(x, x),
        "tqx_sinh(x)": lambda: side.tqx_sinh(x),
        "tqx_cosh(x)": lambda: side.tqx_cosh(x),
        "tqx_cosh(x, 200)": lambda: side.tqx_cosh(x, 200),
        "tqx_fft, length 64": lambda: side.tqx_fft(row),
        "tqx_ifft, length 64": lambda: side.tqx_ifft(spectrum),
        "tqx_rfft, length 63": lambda: side.tqx_rfft(odd),
    }


def run_cases(options: argparse.Namespace) -> list[dict[str, Any]]:
    module_cases, plain_cases = cases(import_runtime(), options.n), cases(plain_series, options.n)
    results = []
    for name in module_cases:
        sides = {"module": module_cases[name], "plain": plain_cases[name]}
        counts = {side: operation_count(call) for side, call in sides.items()}
        if len(set(counts.values())) != 1:
            raise SystemExit(f"{name}: the operations are not the same in number: {counts}")
        batches = {side: repeated(call, options.calls) for side, call in sides.items()}
        row = result_row(name, measure(batches, options.repeats), options.calls)
        results.append({"case": name, "operations": counts["module"]} | row)
    return results


def judge(results: list[dict[str, Any]]) -> dict[str, Any]:
    slow = [result["case"] for result in results if result["ratio"] > TARGET]
    verdict = f"NOT MET by {', '.join(slow)}" if slow else "met"
    print(f"target: every case at most {TARGET} of plain Python: {verdict}")
    return {"ratio_at_most": TARGET, "met": not slow}


def main() -> None:
    parser = host_parser(__doc__, 100, "elements of the operand", 51, "timed batches")
    parser.add_argument("--calls", type=int, default=10, help="calls in a timed batch (10)")
    options = parser.parse_args()
    if options.quick:
        options.calls, options.repeats = 1, min(options.repeats, 3)
    torch.set_num_threads(1)
    results = run_cases(options)
    print_table(
        f"module and plain Python, n = {options.n}, median of {options.repeats} batches",
        ["case", "operations", "module us", "plain us", "ratio", "of least"],
        [[str(value) for value in result.values()] for result in results],
    )
    target = judge(results)
    settings = {"n": options.n, "calls": options.calls, "repeats": options.repeats}
    record("bench_series", options, settings, results=results, target=target)


if __name__ == "__main__":
    main()
