# SPDX-License-Identifier: Apache-2.0
"""What does the emulated device of one build cost around its kernels, beside that of another?

    compare_emulation.py BEFORE AFTER

BEFORE and AFTER are folders to import korvex from, such as `build/site-packages`. Each runs in a
process of its own, in turns, on arrays of so few elements that the kernels take next to nothing.
What is printed is the least processor time of a call, after over before; then that of operations
of torch, and what the emulated device adds to it. Nothing is recorded.
"""

import argparse
import functools
import importlib
import json
import os
import subprocess
import sys
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

from korvex_tools.figures.timing import print_table

CALLS = 500  # in a batch


def cases(n: int) -> dict[str, Callable[[], Any]]:
    """What is timed, on the emulated device that this process activates."""
    import torch

    from korvex import emulation

    emulation.activate(threads=1)
    runtime: Any = importlib.import_module("korvex.tqx_runtime")
    torch.set_num_threads(1)
    x = torch.ones(n, dtype=torch.float64).cuda()
    out = torch.zeros(4, dtype=torch.float64).cuda()
    view = runtime.cp.from_dlpack
    x_view, out_view = view(x), view(out)
    kernel = runtime._NATIVE_LOADER.get_kernel("tqx_sum_seq_kernel")
    one = (1, 1, 1)
    return {
        "from_dlpack": lambda: view(x),
        "launch of tqx_sum_seq_kernel": lambda: kernel.function(one, one, (x_view, out_view, n)),
        "the same with from_dlpack": lambda: kernel.function(one, one, (view(x), view(out), n)),
        "x.double()": lambda: x.double(),
        "tqx_sum(x, return_tqx=True)": lambda: runtime.tqx_sum(x, return_tqx=True),
        "tqx_sum(x)": lambda: runtime.tqx_sum(x),
    }


def operations(n: int) -> dict[str, tuple[Callable[[], Any], Callable[[], Any]]]:
    """Operations of torch, each on CPU tensors and on emulated ones."""
    import torch

    named: dict[str, Callable[[Any, Any], Any]] = {
        "x + y": lambda x, y: x + y,
        "x - 1.0": lambda x, y: x - 1.0,
        "1.0 - x": lambda x, y: 1.0 - x,
        "x == y": lambda x, y: x == y,
        "x.abs()": lambda x, y: x.abs(),
        "torch.abs(x)": lambda x, y: torch.abs(x),
        "x / y": lambda x, y: x / y,
        "x / 3.0": lambda x, y: x / 3.0,
        "x.div_(1.0)": lambda x, y: x.div_(1.0),
        "torch.div(x, 3.0)": lambda x, y: torch.div(x, 3.0),
        "x.sqrt()": lambda x, y: x.sqrt(),
        "x.clone().sqrt_()": lambda x, y: x.clone().sqrt_(),
        "torch.sqrt(x)": lambda x, y: torch.sqrt(x),
        "x ** 0.5": lambda x, y: x**0.5,
        "x % 2.0": lambda x, y: x % 2.0,
        "x.fmod(y)": lambda x, y: x.fmod(y),
        "x.sum(dim=0)": lambda x, y: x.sum(dim=0),
        "x @ y": lambda x, y: x @ y,
        "x.view(-1, 1)": lambda x, y: x.view(-1, 1),
        "x[0]": lambda x, y: x[0],
        "x[0] = 1.0": lambda x, y: x.__setitem__(0, 1.0),
        "x.copy_(y)": lambda x, y: x.copy_(y),
        "x.shape": lambda x, y: x.shape,
        "x.numel()": lambda x, y: x.numel(),
        "x.device": lambda x, y: x.device,
        "torch.stack([x, y])": lambda x, y: torch.stack([x, y]),
        "torch.where(x > y, x, y)": lambda x, y: torch.where(x > y, x, y),
        "torch.empty_like(x)": lambda x, y: torch.empty_like(x),
    }
    hosts = [torch.ones(n, dtype=torch.float64) for _ in range(2)]
    emulated = [host.cuda() for host in hosts]
    return {
        name: (functools.partial(call, *hosts), functools.partial(call, *emulated))
        for name, call in named.items()
    }


def least(call: Callable[[], Any], repeats: int) -> float:
    """Microseconds of a call in the batch that took least."""
    taken = []
    for _ in range(repeats):
        begin = time.process_time()
        for _ in range(CALLS):
            call()
        taken.append((time.process_time() - begin) / CALLS)
    return min(taken) * 1e6


Times = dict[str, dict[str, list[float]]]  # by table and row


def own_times(options: argparse.Namespace) -> Times:
    """The times in this process."""
    calls = {name: [least(call, options.repeats)] for name, call in cases(options.n).items()}
    pairs = operations(options.n).items()
    both = {name: [least(call, options.repeats) for call in pair] for name, pair in pairs}
    return {"calls": calls, "operations": both}


def times_of(folder: Path, options: argparse.Namespace) -> Times:
    """The times in a process that imports korvex from a folder."""
    numbers = ["--n", str(options.n), "--repeats", str(options.repeats)]
    command = [sys.executable, "-P", __file__, str(folder), "-", *numbers]
    paths = [str(folder.resolve()), os.environ.get("PYTHONPATH")]
    environment = os.environ | {"PYTHONPATH": os.pathsep.join(filter(None, paths))}
    done = subprocess.run(command, check=True, capture_output=True, text=True, env=environment)
    times: Times = json.loads(done.stdout)
    return times


def least_of_turns(turns: list[Times], table: str, name: str) -> list[float]:
    return [min(times) for times in zip(*(turn[table][name] for turn in turns), strict=True)]


def print_calls(n: int, before: list[Times], after: list[Times]) -> None:
    rows = []
    for name in before[0]["calls"]:
        [old], [new] = (least_of_turns(side, "calls", name) for side in (before, after))
        rows.append([name, f"{old:.1f}", f"{new:.1f}", f"{new / old:.2f}"])
    print_table(f"n = {n}, microseconds", ["call", "before", "after", "ratio"], rows)


def print_operations(n: int, before: list[Times], after: list[Times]) -> None:
    rows = []
    for name in before[0]["operations"]:
        old_host, old = least_of_turns(before, "operations", name)
        host, new = least_of_turns(after, "operations", name)
        figures = (host, new, old - old_host, new - host)
        rows.append([name, *(f"{figure:.2f}" for figure in figures)])
    columns = ["operation", "CPU tensor", "emulated, after", "added before", "added after"]
    print_table(f"operations of torch, n = {n}, microseconds", columns, rows)


def main() -> None:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("before", type=Path)
    parser.add_argument("after", help="- times the folder before it, and prints JSON")
    parser.add_argument("--n", type=int, default=100, help="elements (100)")
    parser.add_argument("--repeats", type=int, default=5, help="batches of a turn (5)")
    parser.add_argument("--turns", type=int, default=3, help="processes of each (3)")
    options = parser.parse_args()
    if options.after == "-":
        found = importlib.import_module("korvex").__file__
        assert Path(str(found)).is_relative_to(options.before.resolve()), found
        print(json.dumps(own_times(options)))
        return
    folders = (options.before, Path(options.after))
    turns = [[times_of(folder, options) for folder in folders] for _ in range(options.turns)]
    before, after = ([turn[side] for turn in turns] for side in (0, 1))
    print_calls(options.n, before, after)
    print_operations(options.n, before, after)


if __name__ == "__main__":
    main()
