# SPDX-License-Identifier: Apache-2.0
"""Arrays on a GPU as addresses and strides, and descriptions of them that kernels read.

A view is never copied but where its elements are not aligned to their size, which no kernel reads.
Axes are moved, broadcast and merged here by numbers alone.
"""

from __future__ import annotations

import math
from collections.abc import Sequence
from typing import Any, NamedTuple

import numpy as np

from korvex.exact._arrays import Real
from korvex.exact._devices import FORMAT_NUMBERS, Device, Run
from korvex.exact._state import WORD_BYTES

# Parts of elements as doubles, numbered as in korvex/kernels/states.h.
WHOLE, REST, FINITE = range(3)
# Formats whose elements are two doubles, the whole rounded and the rest.
WIDE = {FORMAT_NUMBERS["int64"], FORMAT_NUMBERS["uint64"]}


class View(NamedTuple):
    """Elements in the memory of a device."""

    address: int  # of the element whose indices are 0
    shape: tuple[int, ...]
    byte_strides: tuple[int, ...]
    format: int
    owner: Any  # keeps the memory alive

    def transposed(self, axes: Sequence[int]) -> View:
        """The axes in another order."""
        shape = tuple(self.shape[n] for n in axes)
        return self._replace(shape=shape, byte_strides=tuple(self.byte_strides[n] for n in axes))

    def moved_last(self, axis: int) -> View:
        """One axis, which may be negative, behind the others."""
        place = axis % len(self.shape)
        others = [n for n in range(len(self.shape)) if n != place]
        return self.transposed((*others, place))

    def broadcast(self, shape: tuple[int, ...]) -> View:
        """The view repeated to a shape that it can be broadcast to."""
        new = len(shape) - len(self.shape)
        strides = [
            0 if own != wanted else stride
            for own, wanted, stride in zip(self.shape, shape[new:], self.byte_strides, strict=True)
        ]
        return self._replace(shape=shape, byte_strides=(0,) * new + tuple(strides))


def view_of(device: Device, x: Real) -> View:
    """The elements where they are; in a copy that the library makes where they are not aligned."""
    values = x.values
    shape = tuple(values.shape)
    strides = tuple(device.byte_strides(values))
    number = FORMAT_NUMBERS[device.format_of(values)]
    size = values.itemsize
    if device.address(values) % size or any(
        stride % size for stride, extent in zip(strides, shape, strict=True) if extent > 1
    ):
        values = device.flattened(values)
        strides = contiguous_strides(shape, size)
    return View(device.address(values), shape, strides, number, values)


def contiguous_strides(shape: tuple[int, ...], size: int) -> tuple[int, ...]:
    """Of rows that follow each other, the last axis counting fastest.

    >>> contiguous_strides((2, 3, 4), 8)
    (96, 32, 8)
    """
    return tuple(size * math.prod(shape[n + 1 :]) for n in range(len(shape)))


def merged(
    shape: Sequence[int], strides: Sequence[Sequence[int]], in_any_order: bool = False
) -> tuple[list[int], list[list[int]]]:
    """The same indices by fewer axes: without those of length 1, and neighbours as one.

    `strides` are those of each operand. in_any_order: the axes may also change places, so that the
    one with the smallest strides of the first operand is the last.

    >>> merged((2, 1, 3, 4), [(96, 8, 32, 8)])
    ([24], [[8]])
    >>> merged((3, 4), [(8, 24)]), merged((3, 4), [(8, 24)], in_any_order=True)
    (([3, 4], [[8, 24]]), ([12], [[8]]))
    """
    axes = [(n, each) for n, *each in zip(shape, *strides, strict=True) if n != 1]
    if in_any_order:
        axes.sort(key=lambda axis: [-abs(stride) for stride in axis[1]])
    found: list[tuple[int, list[int]]] = []
    for extent, own in axes:
        if found and found[-1][1] == [stride * extent for stride in own]:
            found[-1] = (found[-1][0] * extent, own)
        else:
            found.append((extent, own))
    return [n for n, _ in found], [[own[i] for _, own in found] for i in range(len(strides))]


def doubles(device: Device, parts: list[tuple[Run, int]], inner: int = 1) -> Run:
    """Contiguous float64: the parts in turn, as many elements of each at a time as `inner` says."""
    [(run, _), *others] = parts
    number = FORMAT_NUMBERS["float64"]
    is_contiguous = run.elements < 2 or run.byte_stride == WORD_BYTES
    if not others and run.format == number and is_contiguous:
        return run
    made = device.empty(run.elements * len(parts), "float64")
    address = device.address(made)
    for place, (each, part) in enumerate(parts):
        if each.elements:
            first = address + place * inner * WORD_BYTES
            arguments = (*each.arguments(), part, inner, len(parts), first)
            launch(device, "korvex_widen", each.elements, *arguments)
    return Run(run.elements * len(parts), address, WORD_BYTES, number, made)


def placed(device: Device, words: Sequence[int]) -> Any:
    """An int64 array of the device's library with these words."""
    return device.from_host(np.array(words, dtype=np.int64))


def launch(device: Device, kernel: str, *arguments: int) -> None:
    """Launch a kernel on the caller's current stream."""
    from korvex.exact import _cuda

    _cuda.launch(kernel, device.ordinal, device.handle(device.stream()), *arguments)
