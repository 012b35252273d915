# SPDX-License-Identifier: Apache-2.0
"""How near the kernels of two operands come to the speed of a GPU's memory.

Kernels are launched through the driver and timed by its events, so no Python stands between. An
element moves 32 bytes; the measure is a copy inside the device that moves as many, and the target
0.9 of its speed. The last line printed is JSON.
"""

import statistics
from collections.abc import Callable
from typing import Any

import torch

from korvex_tools import kernel_table
from korvex_tools.figures.command import gpu_parser, record_and_print
from korvex_tools.figures.timing import print_table
from korvex_tools.gpu.cuda_device import choose_device

SEED = 19711971
BLOCK = kernel_table.constants()["kElementBlock"]
BYTES = 32  # an element: two operands read, value and error written
RATIO_TARGET = 0.9  # of the speed of a copy, for the largest n
KERNELS = ("tqx_add_kernel", "tqx_sub_kernel", "tqx_mul_kernel", "tqx_div_kernel")

Work = Callable[[], Any]


def seconds(device, work: Work, repeats: int) -> float:
    work()
    device.wait()
    return statistics.median(device.seconds(work) for _ in range(repeats))


def normal(count: int, where: str) -> torch.Tensor:
    return torch.randn(count, dtype=torch.float64, device=where)


def time_kernels(device, where: str, n: int, repeats: int) -> list[dict[str, Any]]:
    """One row for the copy, for torch.add and for each kernel."""
    x, y = normal(n, where), normal(n, where)
    outputs = torch.empty(2 * n, dtype=torch.float64, device=where)
    halves = outputs[:n], outputs[n:]
    both = torch.cat([x, y])
    works: dict[str, Work] = {
        "copy": lambda: outputs.copy_(both),
        "torch.add, 24 bytes": lambda: torch.add(x, y, out=halves[0]),
    }
    arguments = [tensor.data_ptr() for tensor in (x, y, *halves)]
    for name in KERNELS:
        works[name] = lambda name=name: device.launch(
            name, (-(-n // BLOCK), 1, 1), (BLOCK, 1, 1), *arguments, n
        )
    taken = {name: seconds(device, work, repeats) for name, work in works.items()}
    moved = {name: (24 if name.startswith("torch") else BYTES) * n for name in works}
    speeds = {name: moved[name] / taken[name] / 1e9 for name in works}
    return [
        {
            "candidate": name,
            "n": n,
            "microseconds": round(taken[name] * 1e6, 2),
            "gigabytes_per_second": round(speeds[name], 1),
            "ratio_to_copy": round(speeds[name] / speeds["copy"], 3),
        }
        for name in works
    ]


def judge(rows: list[dict[str, Any]]) -> list[dict[str, Any]]:
    largest = max(row["n"] for row in rows)
    targets = []
    for row in rows:
        if row["candidate"] in KERNELS and row["n"] == largest:
            met = row["ratio_to_copy"] >= RATIO_TARGET
            targets.append({**row, "at_least": RATIO_TARGET, "met": met})
            verdict = "met" if met else "NOT MET"
            text = f"{row['ratio_to_copy']} of a copy, at least {RATIO_TARGET}"
            print(f"target: {row['candidate']}: {text}: {verdict}")
    return targets


def main() -> None:
    options = gpu_parser(__doc__, "elements of the largest run").parse_args()
    torch.manual_seed(SEED)
    device, where = choose_device(options.emulated), "cpu" if options.emulated else "cuda"
    rows = []
    for n in (options.n // 100, options.n // 10, options.n):
        rows += time_kernels(device, where, n, options.repeats)
    print_table(
        f"GB/s at {BYTES} bytes an element, medians of {options.repeats}",
        ["candidate", "n", "microseconds", "GB/s", "x copy"],
        [[str(value) for value in row.values()] for row in rows],
    )
    content = {"device": device.name(), "runs": rows, "targets": judge(rows)}
    record_and_print("bench_gpu_elementwise", options, content)


if __name__ == "__main__":
    main()
