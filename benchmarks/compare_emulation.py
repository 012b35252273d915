# SPDX-License-Identifier: Apache-2.0
"""Does the emulated device of one build take longer around its kernels than that of another?

    compare_emulation.py BEFORE AFTER

BEFORE and AFTER are folders to import korvex from, such as `build/site-packages`. Each runs in a
process of its own, in turns, on arrays of so few elements that the kernels take next to nothing.
What is printed is the least processor time of a call, after over before. Nothing is recorded.
"""

import argparse
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


def least(call: Callable[[], Any], repeats: int) -> float:
    """Microseconds of a call in the batch that took least."""
    taken = []
    for _ in range(repeats):
        begin = time.process_time()
        for _ in range(CALLS):
            call()
        taken.append((time.process_time() - begin) / CALLS)
    return min(taken) * 1e6


def times_of(folder: Path, options: argparse.Namespace) -> dict[str, float]:
    """The times in a process that imports korvex from a folder."""
    numbers = ["--n", str(options.n), "--repeats", str(options.repeats)]
    command = [sys.executable, "-P", __file__, str(folder), "-", *numbers]
    paths = [str(folder.resolve()), os.environ.get("PYTHONPATH")]
    environment = os.environ | {"PYTHONPATH": os.pathsep.join(filter(None, paths))}
    done = subprocess.run(command, check=True, capture_output=True, text=True, env=environment)
    times: dict[str, float] = json.loads(done.stdout)
    return times


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
        print(json.dumps({k: least(f, options.repeats) for k, f in cases(options.n).items()}))
        return
    folders = (options.before, Path(options.after))
    turns = [[times_of(folder, options) for folder in folders] for _ in range(options.turns)]
    rows = []
    for name in turns[0][0]:
        before, after = (min(turn[side][name] for turn in turns) for side in (0, 1))
        rows.append([name, f"{before:.1f}", f"{after:.1f}", f"{after / before:.2f}"])
    print_table(f"n = {options.n}, microseconds", ["call", "before", "after", "ratio"], rows)


if __name__ == "__main__":
    main()
