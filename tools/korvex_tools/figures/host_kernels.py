# SPDX-License-Identifier: Apache-2.0
"""Launches of the host's kernels on arrays that are made from the kernels' own parameters."""

import ctypes
import math
from collections.abc import Callable

import numpy as np

from korvex.emulation._library import HostLibrary

# What the numbers are that are no sizes: a slope of leaky_relu, an epsilon of rms_norm.
NUMBERS = {"negative_slope": 0.01, "eps": 1e-6}


def launch_of(
    library: HostLibrary, name: str, operands: dict[str, np.ndarray], sizes: dict[str, int]
) -> tuple[Callable[[int], None], list[np.ndarray]]:
    """A function of the number of threads that launches one kernel, and the arrays it writes."""
    row = library.kernels[name]
    outputs: list[np.ndarray] = []
    arguments: list[ctypes._SimpleCData] = []
    for parameter in row.parameters:
        if parameter.kind == "i64":
            arguments.append(ctypes.c_int64(sizes[parameter.name]))
        elif parameter.kind == "f64":
            arguments.append(ctypes.c_double(NUMBERS[parameter.name]))
        elif parameter.name in operands:
            arguments.append(ctypes.c_void_p(operands[parameter.name].ctypes.data))
        else:
            extents = (int(f) if f.isdigit() else sizes[f] for f in parameter.factors)
            outputs.append(np.zeros(math.prod(extents)))
            arguments.append(ctypes.c_void_p(outputs[-1].ctypes.data))
    block = (row.block or 1, 1, 1)
    kept = (operands, outputs)  # as long as the call, which has their addresses only

    def call(threads: int, kept: object = kept) -> None:
        library.threads = threads
        library.launch(row, (1, 1, 1), block, arguments)

    return call, outputs
