# SPDX-License-Identifier: Apache-2.0
"""What keeping the error of a sum, product or quotient costs on the emulated device.

The kernels of all host libraries, called straight, and the functions of the module stand against
torch's operation, which keeps no error, and against value and error worked out in torch operations.
All results are compared bit by bit before anything is timed.
"""

import argparse
import ctypes
from collections.abc import Callable
from typing import Any

import plain_pairs
import torch

from korvex import emulation
from korvex.emulation._library import HostLibrary, usable_instruction_sets
from korvex_tools.figures.command import cut_short, host_parser, record
from korvex_tools.figures.timing import Timing, measure, nanoseconds, print_table

SEED = 19711971
ONE = (1, 1, 1)
BYTES = 32  # an element: two operands read, value and error written
THREADS = 1

# Function of the module, torch's operation, the same with its error in torch operations.
OPERATIONS = {
    "tqx_add": (torch.add, plain_pairs.add),
    "tqx_sub": (torch.sub, plain_pairs.subtract),
    "tqx_mul": (torch.mul, plain_pairs.multiply),
    "tqx_div": (torch.div, plain_pairs.divide),
}

Pair = tuple[torch.Tensor, torch.Tensor]
Candidates = dict[str, Callable[[], Any]]


def operands(count: int) -> Pair:
    generator = torch.Generator().manual_seed(SEED)
    return tuple(torch.randn(count, dtype=torch.float64, generator=generator) for _ in range(2))


# --- Candidates


def kernel_call(library: HostLibrary, name: str, x: torch.Tensor, y: torch.Tensor) -> Callable:
    """A function that launches one kernel on the operands; it returns value and error."""
    out, out_err = torch.empty_like(x), torch.empty_like(x)
    pointers = [ctypes.c_void_p(tensor.data_ptr()) for tensor in (x, y, out, out_err)]
    row = library.kernels[f"{name}_kernel"]

    def call() -> Pair:
        library.launch(row, ONE, (row.block, 1, 1), [*pointers, ctypes.c_int64(x.numel())])
        return out, out_err

    return call


def module_call(name: str, x: torch.Tensor, y: torch.Tensor, return_tqx: bool) -> Callable:
    from korvex import tqx_runtime

    function = getattr(tqx_runtime, name)
    x, y = x.to("cuda"), y.to("cuda")
    return lambda: function(x, y, return_tqx=return_tqx)


def candidates_of(name: str, x: torch.Tensor, y: torch.Tensor) -> Candidates:
    operation, plain_pair = OPERATIONS[name]
    candidates: Candidates = {
        f"torch.{operation.__name__}": lambda: operation(x, y),
        f"{name}, error in torch operations": lambda: plain_pair(x, y),
    }
    for instruction_set in usable_instruction_sets():
        library = HostLibrary(instruction_set, THREADS)
        candidates[f"{name}_kernel, {instruction_set}"] = kernel_call(library, name, x, y)
    candidates[f"{name}(x, y)"] = module_call(name, x, y, False)
    candidates[f"{name}(x, y, return_tqx=True)"] = module_call(name, x, y, True)
    return candidates


def check_results(name: str, candidates: Candidates) -> None:
    """One value everywhere, and one error where there is one; a zero may have either sign."""
    results = {label: call() for label, call in candidates.items()}
    value, error = results[f"{name}, error in torch operations"]
    for label, result in results.items():
        parts = result.limbs if hasattr(result, "limbs") else result
        parts = parts if isinstance(parts, tuple | list) else (parts,)
        for part, expected in zip(parts, (value, error), strict=False):
            if not torch.equal(part.cpu(), expected):
                raise AssertionError(f"{label}: not the result of the torch operations")


# --- One operation


def run_operation(name: str, options: argparse.Namespace) -> dict[str, Any]:
    x, y = operands(options.n)
    candidates = candidates_of(name, x, y)
    check_results(name, candidates)
    timings = measure(candidates, options.repeats)
    plain = next(iter(timings.values()))
    results = [result_row(label, timing, plain, options.n) for label, timing in timings.items()]
    print_table(
        f"{name}, N(0,1), n = {options.n}, median of {options.repeats}, {THREADS} thread",
        ["candidate", "ns", "processor ns", f"GB/s at {BYTES} bytes", "x torch", "processor"],
        [[label, *(f"{x:.2f}" for x in figures)] for label, *figures in map(dict.values, results)],
    )
    return {"operation": name, "results": results}


def result_row(label: str, timing: Timing, plain: Timing, count: int) -> dict[str, Any]:
    return {
        "candidate": label,
        "ns_per_element": nanoseconds(timing.median, count),
        "ns_per_element_processor": nanoseconds(timing.processor_median, count),
        "gigabytes_per_second": round(BYTES * count / timing.median / 1e9, 4),
        "times_torch": round(timing.median / plain.median, 3),
        "times_torch_processor": round(timing.processor_median / plain.processor_median, 3),
    }


def main() -> None:
    parser = host_parser(__doc__, 2_000_000, "elements", 9)
    options = parser.parse_args()
    cut_short(options, n=50_000, repeats=3)
    torch.set_num_threads(THREADS)
    emulation.activate(threads=THREADS)
    runs = [run_operation(name, options) for name in OPERATIONS]
    settings = {"n": options.n, "repeats": options.repeats, "seed": SEED, "threads": THREADS}
    record("bench_elementwise", options, settings, runs=runs)


if __name__ == "__main__":
    main()
