# SPDX-License-Identifier: Apache-2.0
"""What do exact sums over processes cost, beside plain collectives of torch.distributed?

Processes on this machine talk over loopback by gloo. An accumulator's all_reduce stands beside a
plain one of a tensor with as many words, sums of tensors element by element beside plain ones of
the same tensor, and steps of training beside steps with plain gradients. Bytes are those that
loopback carried meanwhile, headers and confirmations included; others must be silent there.
"""

import argparse
import hashlib
import json
import os
import signal
import statistics
import tempfile
import time
from collections.abc import Callable
from datetime import timedelta
from pathlib import Path
from typing import Any

import numpy as np
import torch
import torch.distributed as dist

from korvex import exact
from korvex_tools.figures.command import cut_short, host_parser, record
from korvex_tools.figures.timing import print_table

PROCESSES = (2, 3, 4)
SECONDS = 300  # at most, for one number of processes
CALLS = 20  # of a short call in one round
MICRO_BATCHES = 12
STATES = {"Sum": exact.Sum, "Dot": exact.Dot, "Moments": exact.Moments}
DTYPES = {"float64": torch.float64, "float32": torch.float32, "bfloat16": torch.bfloat16}
HEADERS = ["candidate", "ms", "plain ms", "times plain", "message", "kB", "plain kB"]

# Its name in releases of torch from 2.13 on, and before.
plain_reduce_scatter = getattr(dist, "reduce_scatter_single", None) or dist.reduce_scatter_tensor

Call = Callable[[], Any]


def loopback_bytes() -> int:
    """Bytes that the loopback interface has carried."""
    lines = Path("/proc/self/net/dev").read_text().splitlines()
    [fields] = [line.split(":")[1].split() for line in lines if line.strip().startswith("lo:")]
    return int(fields[0])


def timed(call: Call, calls: int) -> tuple[float, int]:
    """Seconds of one call and bytes that it moved, with all processes in step before."""
    dist.barrier()
    before, begin = loopback_bytes(), time.perf_counter()
    for _ in range(calls):
        call()
    seconds = time.perf_counter() - begin
    dist.barrier()
    return seconds / calls, (loopback_bytes() - before) // calls


def compared(name: str, call: Call, plain: Call, calls: int, repeats: int) -> dict[str, Any]:
    """Medians of rounds that take turns."""
    rounds: dict[Call, list[tuple[float, int]]] = {call: [], plain: []}
    for _ in range(repeats + 1):
        for each, taken in rounds.items():
            taken.append(timed(each, calls))
    seconds, moved = zip(*rounds[call][1:], strict=True)
    plain_seconds, plain_moved = zip(*rounds[plain][1:], strict=True)
    ms, plain_ms = (statistics.median(each) * 1e3 for each in (seconds, plain_seconds))
    return {
        "candidate": name,
        "ms": round(ms, 4),
        "ms_plain": round(plain_ms, 4),
        "times_plain": round(ms / plain_ms, 3),
        "message_bytes": 0,
        "loopback_bytes": int(statistics.median(moved)),
        "loopback_bytes_plain": int(statistics.median(plain_moved)),
    }


# --- What is compared, in every process


def states(options: argparse.Namespace) -> list[dict[str, Any]]:
    rows = []
    x = np.random.default_rng(dist.get_rank()).standard_normal(1000)
    for name, kind in STATES.items():
        total = kind()
        total.add(*[x] * (2 if kind is exact.Dot else 1))
        words = torch.from_numpy(total.state.copy())
        found = compared(
            f"{name}.all_reduce",
            lambda total=total: total.copy().all_reduce(),
            lambda words=words: dist.all_reduce(words.clone()),
            CALLS,
            options.repeats,
        )
        rows.append(found | {"message_bytes": 8 * words.numel()})
    return rows


def elements(options: argparse.Namespace) -> list[dict[str, Any]]:
    rows = []
    generator = torch.Generator().manual_seed(dist.get_rank())
    for name, dtype in DTYPES.items():
        t = torch.randn(options.n, generator=generator).to(dtype)
        out = torch.empty(options.n // dist.get_world_size(), dtype=dtype)
        whole = t[: out.numel() * dist.get_world_size()]
        found = compared(
            f"exact.all_reduce, {name}",
            lambda t=t: exact.all_reduce(t.clone()),
            lambda t=t: dist.all_reduce(t.clone()),
            1,
            options.repeats,
        )
        rows.append(found | {"message_bytes": t.numel() * t.element_size()})
        found = compared(
            f"exact.reduce_scatter_tensor, {name}",
            lambda out=out, whole=whole: exact.reduce_scatter_tensor(out, whole),
            lambda out=out, whole=whole: plain_reduce_scatter(out, whole.clone()),
            1,
            options.repeats,
        )
        rows.append(found | {"message_bytes": whole.numel() * t.element_size()})
    return rows


class Training:
    """A small model and its micro-batches, every process with its own of them."""

    def __init__(self, width: int, is_exact: bool) -> None:
        torch.manual_seed(1)
        layers = [torch.nn.Linear(width, width), torch.nn.Tanh(), torch.nn.Linear(width, 1)]
        self.model = torch.nn.Sequential(*layers)
        self.optimizer = torch.optim.SGD(self.model.parameters(), lr=0.01)
        self.gradients = exact.GradientAccumulator(self.model.parameters()) if is_exact else None
        self.batches = [torch.randn(8, width) for _ in range(MICRO_BATCHES)]

    def step(self) -> None:
        self.optimizer.zero_grad()
        for batch in self.batches[dist.get_rank() :: dist.get_world_size()]:
            self.model(batch).square().mean().backward()
            if self.gradients:
                self.gradients.add()
        if self.gradients:
            self.gradients.all_reduce()
            self.gradients.set_gradients()
        else:
            for parameter in self.model.parameters():
                dist.all_reduce(parameter.grad)
        self.optimizer.step()

    def checksum(self) -> str:
        words = [p.detach().numpy().tobytes() for p in self.model.parameters()]
        return hashlib.sha256(b"".join(words)).hexdigest()


def training(options: argparse.Namespace) -> list[dict[str, Any]]:
    width = max(8, int(options.n**0.5) // 4)
    ours, plain = Training(width, True), Training(width, False)
    found = compared("training step", ours.step, plain.step, 1, options.repeats)
    assert ours.gradients is not None
    hashes = {"exact": ours.checksum(), "plain": plain.checksum()}
    return [found | {"message_bytes": ours.gradients.nbytes, "weights": hashes}]


PARTS = {"states": states, "elements": elements, "training": training}


# --- Processes


def run_rank(folder: str, rank: int, processes: int, options: argparse.Namespace) -> None:
    signal.alarm(SECONDS)
    torch.set_num_threads(1)
    store, timeout = f"file://{folder}/store", timedelta(seconds=60)
    dist.init_process_group("gloo", store, rank=rank, world_size=processes, timeout=timeout)
    exact.set_threads(1)
    found = {name: part(options) for name, part in PARTS.items()}
    if rank == 0:
        Path(folder, "found.json").write_text(json.dumps(found))
    dist.destroy_process_group()


def run_processes(processes: int, options: argparse.Namespace) -> dict[str, Any]:
    """What the first process measured. Forks: none has a thread yet."""
    with tempfile.TemporaryDirectory() as folder:
        children = []
        for rank in range(processes):
            child = os.fork()
            if child == 0:
                try:
                    run_rank(folder, rank, processes, options)
                finally:
                    os._exit(0)
            children.append(child)
        for child in children:
            os.waitpid(child, 0)
        found: dict[str, Any] = json.loads(Path(folder, "found.json").read_text())
    return found


def main() -> None:
    parser = host_parser(__doc__, 1_000_000, "elements of a tensor", 21)
    options = parser.parse_args()
    cut_short(options, n=2000, repeats=2)
    os.environ["GLOO_SOCKET_IFNAME"] = "lo"
    runs, hashes = [], {}
    for processes in PROCESSES:
        for name, results in run_processes(processes, options).items():
            for row in results:
                row["candidate"] += f", {processes} processes"
                hashes[processes] = row.pop("weights", hashes.get(processes))
            runs.append({"data": name, "processes": processes, "results": results})
            show(name, results)
    equal = {kind: len({each[kind] for each in hashes.values()}) for kind in ("exact", "plain")}
    print(f"\nweights after training in {PROCESSES} processes, different hashes: {equal}")
    settings = {"n": options.n, "repeats": options.repeats, "micro_batches": MICRO_BATCHES}
    record("bench_processes", options, settings | {"hashes_of_weights": equal}, runs=runs)


def show(name: str, results: list[dict[str, Any]]) -> None:
    cells = [
        [
            row["candidate"],
            f"{row['ms']:.3f}",
            f"{row['ms_plain']:.3f}",
            f"{row['times_plain']:.2f}",
            str(row["message_bytes"]),
            f"{row['loopback_bytes'] / 1e3:.1f}",
            f"{row['loopback_bytes_plain'] / 1e3:.1f}",
        ]
        for row in results
    ]
    print_table(f"{name}, medians", HEADERS, cells)


if __name__ == "__main__":
    main()
