#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Trains a small model on 1, 2, 3 and 4 processes: do the weights come out with the same bits?

Every process has some of the micro-batches of a step. With `exact.GradientAccumulator` one checksum
of the weights comes out for any number of processes; with plain gradients, added by
`torch.distributed`, it depends on them. Micro-batches of another size give other weights, as each
gradient is rounded before it is added: `--micro-batch 1` is the unit that is free of such a cut.

    python examples/train_over_processes.py --processes 1 2 3 4 --micro-batch 8
"""

import argparse
import hashlib
import os
import tempfile

import torch
import torch.distributed as dist

# The functions of this module keep the group of its import, and an optimizer imports it: before
# there is a group, that is none. Otherwise destroy_process_group would not end the group's
# threads, and one that still ran as the interpreter ended would abort the process.
import torch.distributed.nn
import torch.multiprocessing as processes

from korvex import exact

SAMPLES_OF_STEP = 48
FEATURES = 16


def samples(step: int) -> tuple[torch.Tensor, torch.Tensor]:
    """The samples of a step, the same in every process."""
    generator = torch.Generator().manual_seed(step)
    x = torch.randn(SAMPLES_OF_STEP, FEATURES, generator=generator)
    return x, x.square().sum(dim=1, keepdim=True)


def train(is_exact: bool, options: argparse.Namespace) -> str:
    """Train with the micro-batches of this process; the SHA-256 of the weights."""
    torch.manual_seed(0)
    model = torch.nn.Sequential(
        torch.nn.Linear(FEATURES, 32), torch.nn.Tanh(), torch.nn.Linear(32, 1)
    )
    optimizer = torch.optim.SGD(model.parameters(), lr=1e-4, momentum=0.9)
    gradients = exact.GradientAccumulator(model.parameters())
    for step in range(options.steps):
        optimizer.zero_grad()
        x, y = samples(step)
        batches = list(zip(x.split(options.micro_batch), y.split(options.micro_batch), strict=True))
        for inputs, wanted in batches[dist.get_rank() :: dist.get_world_size()]:
            (model(inputs) - wanted).square().sum().backward()
            if is_exact:
                gradients.add()
        if is_exact:
            gradients.all_reduce()
            gradients.set_gradients()
        else:
            add_plain_gradients(model)
        optimizer.step()
    words = [parameter.detach().numpy().tobytes() for parameter in model.parameters()]
    return hashlib.sha256(b"".join(words)).hexdigest()


def add_plain_gradients(model: torch.nn.Module) -> None:
    for parameter in model.parameters():
        if parameter.grad is None:  # a process without a micro-batch
            parameter.grad = torch.zeros_like(parameter)
        dist.all_reduce(parameter.grad)


def run_rank(rank: int, count: int, folder: str, options: argparse.Namespace) -> None:
    os.environ.setdefault("GLOO_SOCKET_IFNAME", "lo")  # all processes are on this machine
    torch.set_num_threads(1)  # a gradient depends on it
    dist.init_process_group("gloo", f"file://{folder}/store", rank=rank, world_size=count)
    checksums = {"exact": train(True, options), "plain": train(False, options)}
    if rank == 0:
        for kind, checksum in checksums.items():
            print(f"{kind}  {checksum}  {count} processes", flush=True)
    dist.destroy_process_group()


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--processes", type=int, nargs="+", default=[1, 2, 3, 4])
    parser.add_argument("--micro-batch", type=int, default=8, help="samples of a micro-batch (8)")
    parser.add_argument("--steps", type=int, default=20)
    options = parser.parse_args()
    for count in options.processes:
        with tempfile.TemporaryDirectory() as folder:
            processes.spawn(run_rank, (count, folder, options), nprocs=count)


if __name__ == "__main__":
    main()
