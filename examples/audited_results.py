# SPDX-License-Identifier: Apache-2.0
"""The results that a provenance record is about, and what it says of each tensor.

Inputs come from a seed, by whole-number arithmetic that is the same on every machine, or from
files. The functions are of those whose bits do not depend on the device (docs/numerics.md).
"""

import math
import random
from collections.abc import Sequence
from pathlib import Path
from typing import Any

import numpy as np
import torch
from run_environment import file_sha256
from sum_device import SumDevice
from value_files import path_of, read_values

Entries = dict[str, dict[str, Any]]

COUNT = 10_000
ROWS, INNER, COLUMNS = 24, 40, 16


def of_seed(device: SumDevice, seed: int) -> tuple[Entries, Entries]:
    """Inputs and results of one seed: two vectors and two matrices of mixed magnitude."""
    source = random.Random(seed)
    shapes = {"x": (COUNT,), "y": (COUNT,), "a": (ROWS, INNER), "b": (INNER, COLUMNS)}
    x, y, a, b = tensors = [
        device.tensor(_mixed_magnitudes(source, shape)) for shape in shapes.values()
    ]
    tqx = device.runtime
    results = {
        "tqx_sum(x)": tqx.tqx_sum(x, return_tqx=True),
        "tqx_dot(x, y)": tqx.tqx_dot(x, y, return_tqx=True),
        "tqx_matmul(a, b)": tqx.tqx_matmul(a, b, return_tqx=True),
        "tqx_var(x)": tqx.tqx_var(x),
        "tqx_exp(tqx_tanh(y))": tqx.tqx_exp(tqx.tqx_tanh(y)),
    }
    inputs = dict(zip(shapes, tensors, strict=True))
    return _entries(tqx, inputs), _entries(tqx, results)


def of_files(device: SumDevice, sources: Sequence[str], folder: Path) -> tuple[Entries, Entries]:
    """Inputs and results of value files; a path that is not absolute starts at `folder`."""
    tqx = device.runtime
    inputs, results = {}, {}
    for source in sources:
        path = path_of(source)
        located = str(folder / path)
        x = device.tensor(read_values(located + source[len(path) :]))
        inputs[source] = {"file_sha256": file_sha256(Path(located))} | entry(tqx, x)
        results[f"tqx_sum({source})"] = entry(tqx, tqx.tqx_sum(x, return_tqx=True))
        results[f"tqx_norm({source})"] = entry(tqx, tqx.tqx_norm(x))
    return inputs, results


def entry(tqx: Any, result: Any) -> dict[str, Any]:
    """What a record says of a tensor or a limb result: the checksums, and what they leave out.

    Both checksums are of the collapsed values, the first being the start of the second. The limbs
    are hashed by themselves, one after the other, as the tensor that stacks them.
    """
    limbs = result.limbs if isinstance(result, tqx.TQXResult) else None
    tensor = result if limbs is None else limbs[0]
    facts = {
        "shape": list(tensor.shape),
        "dtype": str(tensor.dtype),
        "checksum": tqx.tqx_checksum(result),
        "sha256": tqx.tqx_checksum_hex(result),
    }
    if limbs is not None:
        facts["limbs"] = len(limbs)
        facts["limbs_sha256"] = tqx.tqx_checksum_hex(torch.stack(limbs))
    if tensor.ndim == 0:
        facts["value"] = repr(result.item())
    return facts


def _entries(tqx: Any, tensors: dict[str, Any]) -> Entries:
    return {name: entry(tqx, tensor) for name, tensor in tensors.items()}


def _mixed_magnitudes(source: random.Random, shape: tuple[int, ...]) -> np.ndarray:
    """Whole numbers of 53 bits and a sign, scaled by powers of two: nothing is rounded."""
    values = [
        math.ldexp(source.getrandbits(54) - 2**53, source.randrange(-120, 10))
        for _ in range(math.prod(shape))
    ]
    return np.array(values).reshape(shape)
