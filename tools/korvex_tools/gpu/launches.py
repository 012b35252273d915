# SPDX-License-Identifier: Apache-2.0
"""One kernel, on one device, on any grid and block: its arguments in the device's memory."""

import math
from typing import NamedTuple

import numpy as np

UNWRITTEN = 7.0  # in the outputs before a launch
MATRIX_TILE = 16

Extent = tuple[int, int, int]


class Shape(NamedTuple):
    grid: Extent
    block: Extent


ONE: Extent = (1, 1, 1)


class Launch:
    """The arguments of a kernel on a device, for any number of launches; freed at the end.

    `sources` are its operands in order, `sizes` its whole numbers by name. Each array starts
    `odd` elements after the beginning of its memory, so at 8 bytes past a multiple of 16 for 1.
    """

    def __init__(
        self, device, row, sources: list[np.ndarray], sizes: dict[str, int], odd: int = 0
    ) -> None:
        self._device = device
        self._row = row
        self._memory: list[int] = []
        self._outputs: list[tuple[int, int]] = []
        self._arguments: list[int | float] = []
        waiting = iter(sources)
        for parameter in row.parameters:
            if parameter.kind == "array":
                count = math.prod(sizes[f] if f in sizes else int(f) for f in parameter.factors)
                memory = device.allocate(count + odd)
                address = memory + 8 * odd
                self._memory.append(memory)
                self._arguments.append(address)
                if is_output(parameter):
                    self._outputs.append((address, count))
                else:
                    device.write(address, next(waiting))
            else:
                number = sizes[parameter.name] if parameter.kind == "i64" else 0.01
                self._arguments.append(number)

    def __enter__(self) -> "Launch":
        return self

    def __exit__(self, *_) -> None:
        for address in self._memory:
            self._device.free(address)

    def start(self, shape: Shape) -> None:
        """Returns at once."""
        self._device.launch(self._row.name, *shape, *self._arguments)

    def bits(self) -> np.ndarray:
        """Of all outputs, one array after the other, as the last launch leaves them."""
        self._device.wait()
        outputs = [self._device.read(*output) for output in self._outputs]
        return np.concatenate(outputs).view(np.uint64)

    def run(self, shape: Shape) -> np.ndarray:
        """The bits of all outputs after a launch that finds none of them written."""
        for address, count in self._outputs:
            self._device.write(address, np.full(count, UNWRITTEN))
        self.start(shape)
        return self.bits()


def is_output(parameter) -> bool:
    return parameter.name.lower().startswith(("out", "c"))


def usual_shape(row, sizes: dict[str, int]) -> Shape:
    """Of a launch by the package."""
    if row.name == "tqx_matmul_kernel":
        grid = (-(-sizes["N"] // MATRIX_TILE), -(-sizes["M"] // MATRIX_TILE), 1)
        return Shape(grid, (MATRIX_TILE, MATRIX_TILE, 1))
    if row.form == "function":
        return Shape(ONE, ONE)
    if row.block == 1024:  # one block does it all
        return Shape(ONE, (row.block, 1, 1))
    return Shape((max(1, -(-sizes["n"] // row.block)), 1, 1), (row.block, 1, 1))
