# SPDX-License-Identifier: Apache-2.0
"""What do large inputs cost, in time and in memory, and does any function hold more than it needs?

Each function and size runs in a process of its own, and torch's own function in another. Memory is
the most that a call holds beyond its operands, in copies: units of one operand. It stands beside
the copies that the steps of the function call for: outputs and what they are worked out from. On
the host it is the growth of the peak of the resident set, on a GPU that of torch's allocator.
"""

import argparse
import json
import os
import re
import subprocess
import sys
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any, NamedTuple

import torch

from korvex_tools.figures.command import add_quick_and_output
from korvex_tools.figures.records import RESULTS_FOLDER, write_results
from korvex_tools.figures.timing import print_table

SEED = 1961
SLACK = 0.1  # copies: what a process needs beside its tensors, for large inputs
JUDGED_FROM = 1_000_000  # elements: below, what the process needs shows
MOST_SECONDS = 300.0  # of one process
# glibc keeps freed memory for itself below a threshold that grows with use; fixed, every tensor has
# pages of its own, and they go when it goes.
MAPPED_TENSORS = {"MALLOC_MMAP_THRESHOLD_": str(1 << 18)}


class Case(NamedTuple):
    """One function: how it and its rival are called, and the copies its steps call for."""

    call: Callable[[Any], Callable[..., Any]]
    rival: Callable[..., Any]
    operands: int
    copies: int  # of an operand, held at a time at most
    reason: str


def function(name: str, **options: Any) -> Callable[[Any], Callable[..., Any]]:
    return lambda tqx: lambda *operands: getattr(tqx, name)(*operands, **options)


def running_sum(x: torch.Tensor) -> torch.Tensor:
    return torch.cumsum(x, 0)


LIMBS = "a few limbs"
PAIR = "value, error, and their sum"
# Contiguous float64 operands are passed on as they are, so no copy of them is expected.
CASES = {
    "tqx_sum": Case(function("tqx_sum"), torch.sum, 1, 0, LIMBS),
    "tqx_sum(exact=False)": Case(function("tqx_sum", exact=False), torch.sum, 1, 0, LIMBS),
    "tqx_dot": Case(function("tqx_dot"), torch.dot, 2, 0, LIMBS),
    "tqx_dot(exact=False)": Case(function("tqx_dot", exact=False), torch.dot, 2, 0, LIMBS),
    "tqx_add": Case(function("tqx_add"), torch.add, 2, 3, PAIR),
    "tqx_add(return_tqx=True)": Case(
        function("tqx_add", return_tqx=True),
        torch.add,
        2,
        5,
        "TwoSum: s, v, both differences, and their sum",
    ),
    "tqx_mul": Case(function("tqx_mul"), torch.mul, 2, 3, PAIR),
    "tqx_mul(return_tqx=True)": Case(
        function("tqx_mul", return_tqx=True), torch.mul, 2, 2, "value and error"
    ),
    "tqx_exp": Case(function("tqx_exp"), torch.exp, 1, 1, "the result"),
    "tqx_var": Case(function("tqx_var"), torch.var, 1, 0, LIMBS),
    "tqx_norm": Case(function("tqx_norm"), torch.linalg.vector_norm, 1, 0, LIMBS),
    "tqx_cumsum": Case(function("tqx_cumsum"), running_sum, 1, 2, "value and error"),
    "tqx_matmul": Case(
        function("tqx_matmul"), torch.matmul, 2, 10, "three limbs, and seven for their collapse"
    ),
    "tqx_matmul(return_tqx=True)": Case(
        function("tqx_matmul", return_tqx=True), torch.matmul, 2, 3, "three limbs"
    ),
}
MATRIX = "tqx_matmul"
QUICK = ("tqx_sum", "tqx_add", "tqx_cumsum", "tqx_matmul")


# --- One process


def resident(field: str) -> int:
    """Bytes of the resident set: VmRSS now, VmHWM at its peak."""
    text = Path("/proc/self/status").read_text()
    return 1024 * int(re.search(rf"^{field}:\s*(\d+) kB$", text, re.MULTILINE)[1])


class HostMemory:
    def start(self) -> None:
        Path("/proc/self/clear_refs").write_text("5")  # the peak starts anew
        self._before = resident("VmRSS")

    def grown(self) -> int:
        return resident("VmHWM") - self._before


class DeviceMemory:
    def start(self) -> None:
        torch.cuda.synchronize()
        torch.cuda.reset_peak_memory_stats()
        self._before = torch.cuda.memory_allocated()

    def grown(self) -> int:
        torch.cuda.synchronize()
        return torch.cuda.max_memory_allocated() - self._before


def drawn(shape: tuple[int, ...], place: str, seed: int) -> torch.Tensor:
    generator = torch.Generator(place).manual_seed(seed)
    return torch.randn(shape, dtype=torch.float64, device=place, generator=generator)


def measure_one(name: str, n: int, side: str, gpu: bool, repeats: int) -> dict[str, float]:
    """In a process of its own: seconds of a call, and the bytes that the first one added."""
    case = CASES[name]
    shape = (n, n) if name.startswith(MATRIX) else (n,)
    torch.set_num_threads(1)
    place = "cuda" if gpu else "cpu"
    operands = [drawn(shape, place, SEED + number) for number in range(case.operands)]
    call = case.rival
    if side == "korvex":
        if not gpu:
            from korvex import emulation

            emulation.activate(threads=1)
            for number in range(case.operands):
                operands[number] = operands[number].to("cuda")
        from korvex import tqx_runtime

        call = case.call(tqx_runtime)
    few = [operand[:2, :2] if len(shape) == 2 else operand[:2] for operand in operands]
    call(*few)  # what the first call of all loads is not counted
    memory = DeviceMemory() if gpu else HostMemory()
    memory.start()
    seconds = [timed(call, operands, gpu)]
    grown = memory.grown()
    seconds += [timed(call, operands, gpu) for _ in range(repeats - 1)]
    return {"seconds": min(seconds), "bytes": grown, "operand": 8 * operands[0].numel()}


def timed(call: Callable[..., Any], operands: list[torch.Tensor], gpu: bool) -> float:
    begin = time.perf_counter()
    result = call(*operands)
    if gpu:
        torch.cuda.synchronize()
    del result
    return time.perf_counter() - begin


# --- All processes


def run_process(name: str, n: int, side: str, options: argparse.Namespace) -> dict[str, float]:
    command = [sys.executable, __file__, "--one", name, "--side", side, "--n", str(n)]
    command += ["--repeats", str(options.repeats)] + ["--gpu"] * options.gpu
    left = min(MOST_SECONDS, options.deadline - time.monotonic())
    output = subprocess.run(
        command,
        capture_output=True,
        text=True,
        check=True,
        timeout=max(left, 0.1),
        env=os.environ | MAPPED_TENSORS,
    ).stdout
    return json.loads(output)


def run_case(
    name: str, n: int, rivals: dict[Any, dict[str, float]], options: argparse.Namespace
) -> dict[str, Any] | None:
    """None where time or the memory of a GPU is over. A rival runs once for all its forms."""
    rival = (CASES[name].rival, n)
    try:
        ours = run_process(name, n, "korvex", options)
        if rival not in rivals:
            rivals[rival] = run_process(name, n, "torch", options)
    except subprocess.TimeoutExpired:
        print(f"{name}, {n}: no time left", flush=True)
        return None
    except subprocess.CalledProcessError as failure:
        if "OutOfMemoryError" not in failure.stderr:
            raise
        print(f"{name}, {n}: no memory left on this device", flush=True)
        return None
    theirs = rivals[rival]
    steps = n**3 if name.startswith(MATRIX) else n
    return {
        "candidate": name,
        "n": n,
        "seconds": round(ours["seconds"], 6),
        "torch_seconds": round(theirs["seconds"], 6),
        "ns_per_element": round(ours["seconds"] / steps * 1e9, 3),
        "copies": round(max(ours["bytes"], 0) / ours["operand"], 3),
        "copies_expected": CASES[name].copies,
        "torch_copies": round(max(theirs["bytes"], 0) / theirs["operand"], 3),
    }


def judge(results: list[dict[str, Any]]) -> list[dict[str, Any]]:
    targets = []
    for row in results:
        elements = row["n"] ** 2 if row["candidate"].startswith(MATRIX) else row["n"]
        if elements < JUDGED_FROM:
            continue
        most = row["copies_expected"] + SLACK
        met = row["copies"] <= most
        target = {"candidate": row["candidate"], "n": row["n"], "copies_at_most": most, "met": met}
        targets.append(target)
        verdict = "met" if met else "NOT MET"
        print(f"target: {row['candidate']}, {row['n']}: at most {most} copies: {verdict}")
    return targets


def planned(options: argparse.Namespace) -> list[tuple[str, int]]:
    sizes, sides = [options.n // 10, options.n], [options.matrix // 2, options.matrix]
    if options.gpu or options.quick:
        sizes, sides = sizes[-1:], sides[-1:]
    names = QUICK if options.quick else CASES
    return [(name, n) for name in names for n in (sides if name.startswith(MATRIX) else sizes)]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--n", type=int, help="elements (100000000; 1000000000 on a GPU)")
    parser.add_argument("--matrix", type=int, help="rows and columns (2048; 8192 on a GPU)")
    parser.add_argument("--repeats", type=int, default=2, help="calls in a process (2)")
    parser.add_argument("--gpu", action="store_true", help="on a GPU, not the emulated device")
    parser.add_argument("--seconds", type=float, default=3600.0, help="stop after (3600)")
    add_quick_and_output(parser)
    parser.add_argument("--json", action="store_true", help="print the record as the last line")
    parser.add_argument("--one", choices=CASES, help="one function, in this process")
    parser.add_argument("--side", choices=("korvex", "torch"), default="korvex")
    options = parser.parse_args()
    options.n = options.n or (1_000_000_000 if options.gpu else 100_000_000)
    options.matrix = options.matrix or (8192 if options.gpu else 2048)
    if options.one:
        figures = measure_one(options.one, options.n, options.side, options.gpu, options.repeats)
        print(json.dumps(figures))
        return
    if options.quick:
        options.n, options.matrix, options.repeats = min(options.n, 100_000), 16, 1
    options.deadline = time.monotonic() + options.seconds
    rivals: dict[Any, dict[str, float]] = {}
    rows = [run_case(name, n, rivals, options) for name, n in planned(options)]
    results = [row for row in rows if row]
    print_table(
        "least time and peak memory beyond the operands; ns a multiply-add for products",
        ["function", "n", "s", "torch, s", "ns", "copies", "expected", "torch"],
        [[str(value) for value in row.values()] for row in results],
    )
    targets = judge(results)
    settings = {
        "n": options.n,
        "matrix": options.matrix,
        "repeats": options.repeats,
        "seed": SEED,
        "threads": 1,
        "device": "gpu" if options.gpu else "emulated",
    }
    content = {"settings": settings, "results": results, "targets": targets}
    folder = options.output or (None if options.quick or options.gpu else RESULTS_FOLDER)
    if folder:
        write_results("bench_large", folder, content)
    if options.json:
        print(json.dumps(content))


if __name__ == "__main__":
    main()
