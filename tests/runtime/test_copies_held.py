# SPDX-License-Identifier: Apache-2.0
"""How many copies of an operand a function holds at a time: those its steps call for, no more.

Bytes are those of torch's allocator, counted allocation by allocation, so the figures are the same
in every run. What a kernel allocates for itself is seen in processes of their own, by the system.
"""

import json
import os
import subprocess
import sys
from pathlib import Path

import device
import pytest
import reference_runtime
import torch
from torch.profiler import ProfilerActivity, profile

BENCHMARK = Path(__file__).resolve().parents[2] / "benchmarks" / "bench_large.py"
COUNT = 4_000_000
SIDE = 500
SMALL = 0.001  # copies: a few limbs of a result

# Function, options, operands, and the copies that its steps call for at a time: at most.
VECTORS = [
    ("tqx_sum", {}, 1, 0),
    ("tqx_sum", {"return_tqx": True}, 1, 0),
    ("tqx_sum", {"exact": False}, 1, 0),
    ("tqx_dot", {}, 2, 0),
    ("tqx_dot", {"exact": False}, 2, 0),
    ("tqx_var", {}, 1, 0),
    ("tqx_norm", {}, 1, 0),
    ("tqx_prod", {}, 1, 0),
    ("tqx_logsumexp", {}, 1, 0),
    ("tqx_exp", {}, 1, 1),  # the result
    ("tqx_mul", {"return_tqx": True}, 2, 2),  # value and error
    ("tqx_cumsum", {}, 1, 2),  # value and error
    ("tqx_add", {}, 2, 3),  # value, error, and their sum
    ("tqx_mul", {}, 2, 3),
    ("tqx_add", {"return_tqx": True}, 2, 5),  # TwoSum: s, v, both differences, and their sum
]
MATRICES = [
    ("tqx_matmul", {"return_tqx": True}, 2, 3),  # three limbs
    ("tqx_matmul", {}, 2, 10),  # and seven for their collapse
]


def bytes_held(call):
    """The most bytes that tensors made during a call hold at a time, its result included."""
    return (bytes_held_on_host if device.choose().emulated else bytes_held_on_gpu)(call)


def bytes_held_on_gpu(call):
    torch.cuda.synchronize()
    torch.cuda.reset_peak_memory_stats()
    before = torch.cuda.memory_allocated()
    result = call()
    torch.cuda.synchronize()
    del result
    return torch.cuda.max_memory_allocated() - before


def bytes_held_on_host(call):
    with profile(activities=[ProfilerActivity.CPU], profile_memory=True) as record:
        call()
    held = most = 0
    for event in record.profiler.kineto_results.events():
        if event.name() == "[memory]":
            held += event.nbytes()
            most = max(most, held)
    return most


def operands(count, *shape):
    values = torch.linspace(0.5, 1.5, COUNT if not shape else SIDE * SIDE, dtype=torch.float64)
    return [device.to_device(values.reshape(*shape) if shape else values) for _ in range(count)]


def copies_held(runtime, name, options, places):
    getattr(runtime, name)(*(x[:2, :2] if x.dim() == 2 else x[:2] for x in places), **options)
    held = bytes_held(lambda: getattr(runtime, name)(*places, **options))
    return held / (8 * places[0].numel())


def label(case):
    return f"{case[0]} {case[1]}" if isinstance(case, tuple) else None


@pytest.mark.parametrize("case", VECTORS, ids=label)
def test_function_of_a_vector_holds_the_copies_of_its_steps(module, case):
    name, options, count, expected = case
    held = copies_held(module, name, options, operands(count))
    assert expected <= held <= expected + SMALL


@pytest.mark.parametrize("case", MATRICES, ids=label)
def test_matrix_product_holds_the_copies_of_its_steps(module, case):
    name, options, count, expected = case
    held = copies_held(module, name, options, operands(count, SIDE, SIDE))
    assert expected <= held <= expected + SMALL


@pytest.mark.parametrize("case", [*VECTORS, *MATRICES], ids=label)
def test_module_holds_no_more_than_the_same_steps_in_python(module, monkeypatch, case):
    for name in ("torch", "cp", "_NATIVE_LOADER"):
        monkeypatch.setattr(reference_runtime, name, getattr(module, name))
    name, options, count, _ = case
    places = operands(count, *((SIDE, SIDE) if case in MATRICES else ()))
    ours, theirs = (
        copies_held(side, name, options, places) for side in (module, reference_runtime)
    )
    assert ours <= theirs + SMALL


def test_operand_that_is_not_contiguous_is_copied_once(module):
    [x] = operands(1)
    held = bytes_held(lambda: module.tqx_sum(x[::2]))
    assert 1 <= held / (8 * COUNT / 2) <= 1 + SMALL


@pytest.mark.parametrize(
    ("case", "n", "expected", "panels"),
    [
        ("tqx_sum", COUNT, 0, 0),
        ("tqx_var", COUNT, 0, 0),
        ("tqx_cumsum", COUNT, 2, 0),
        ("tqx_matmul(return_tqx=True)", 1000, 3, 64 << 20),  # of residues: at most, for any size
    ],
)
def test_kernel_holds_next_to_nothing_of_its_own(case, n, expected, panels):
    if not device.choose().emulated:
        pytest.skip("kernels for a GPU allocate nothing")
    if "libasan" in os.environ.get("LD_PRELOAD", ""):
        pytest.skip("a sanitizer keeps what was freed")
    command = [sys.executable, BENCHMARK, "--one", case, "--n", str(n), "--repeats", "1"]
    environment = os.environ | {"MALLOC_MMAP_THRESHOLD_": str(1 << 18)}
    output = subprocess.run(command, capture_output=True, text=True, check=True, env=environment)
    figures = json.loads(output.stdout)
    held, operand = figures["bytes"], figures["operand"]
    assert (expected - 0.1) * operand <= held <= (expected + 0.1) * operand + panels
