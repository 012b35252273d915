# SPDX-License-Identifier: Apache-2.0
"""Sums by segment on a GPU: elements are added to states there by atomic additions of integers.

Each output has a state of 576 bytes; the states of as many as fit MOST_STATE_BYTES are there at a
time, and the numbers of segments are read once for each such part of the result. A call waits for
its kernels, as a number that names no segment is an error.
"""

from __future__ import annotations

import math
from collections.abc import Sequence
from typing import Any

import numpy as np

from korvex.exact import _native
from korvex.exact._arrays import Operand, Real
from korvex.exact._device_views import View, launch, merged, placed, view_of
from korvex.exact._devices import FORMAT_NUMBERS, Device
from korvex.exact._state import SUM, WORD_BYTES

MOST_STATE_BYTES = 1 << 28
# Elements of a launch, which settled digits have room for.
MOST_ELEMENTS = 1 << 29

# Numbered as in korvex/kernels/states.h.
SETTLE = 6


class _Target:
    """Some outputs: their states, and what the kernels need to find them."""

    def __init__(self, device: Device, begin: int, end: int, wrong: Any) -> None:
        self.device, self.begin, self.count, self.wrong = device, begin, end - begin, wrong
        self.states = device.zeros(self.count * _native.words(SUM))

    def add(self, x: View, ids: View | None, plan: Any) -> None:
        """Add each element of x to the segment of its number; without ids, of its place."""
        device, n = self.device, math.prod(x.shape)
        numbers = (0, 0, 0) if ids is None else (ids.address, ids.byte_strides[0], ids.format)
        for first in range(0, n, MOST_ELEMENTS):
            if first:
                self.round(SETTLE, 0, 1, "float64")
            launch(
                device,
                "korvex_add_by_ids",
                min(MOST_ELEMENTS, n - first),
                first,
                *numbers,
                device.address(plan),
                x.address,
                x.format,
                device.address(self.states),
                self.begin,
                self.count,
                device.address(self.wrong),
            )

    def round(self, function: int, out: int, step: int, form: str) -> None:
        launch(
            self.device,
            "korvex_round_states",
            self.count,
            self.device.address(self.states),
            function,
            0,
            1,
            1,
            out,
            step,
            FORMAT_NUMBERS[form],
        )


def summed(
    x: Operand,
    axis: int,
    numbers: Operand,
    name: str,
    segments: int,
    initial: Operand | None,
    form: str,
) -> Any:
    """The sums of x, or of its halves, with `segments` for its rows along an axis.

    The result's axes are those of x, in their order; `initial` has them too and is added.
    """
    device = x.device
    assert device is not None
    shape = (*x.shape[:axis], segments, *x.shape[axis + 1 :])
    outputs = math.prod(shape)
    halves = x.halves()
    out = device.empty(outputs * len(halves), form)
    wrong = device.zeros(1)
    ids = view_of(device, Real(numbers.values))
    firsts: Sequence[Real | None] = [None] * len(halves) if initial is None else initial.halves()
    # Without any output there still are numbers to look at.
    most = max(MOST_STATE_BYTES // (_native.words(SUM) * WORD_BYTES), 1)
    for place, (half, first) in enumerate(zip(halves, firsts, strict=True)):
        parts: list[tuple[View, View | None]] = [(view_of(device, half), ids)]
        if first is not None:
            parts.append((view_of(device, first), None))
        plans = [placed(device, _plan_of(view, axis, segments)) for view, _ in parts]
        for begin in range(0, max(outputs, 1), most):
            target = _Target(device, begin, min(begin + most, outputs), wrong)
            for (view, own_ids), plan in zip(parts, plans, strict=True):
                target.add(view, own_ids, plan)
            address = device.address(out) + (begin * len(halves) + place) * out.itemsize
            if target.count:
                target.round(_native.TOTAL, address, len(halves), form)
    if math.prod(x.shape) == 0 or int(device.to_host(wrong)[0]):
        _refuse_wrong(device, numbers, name, segments)
    return (out if len(halves) == 1 else device.joined(out)).reshape(shape)


def _plan_of(x: View, axis: int, segments: int) -> list[int]:
    """Words that describe the elements, as device/state_ids.h reads them."""
    inner = math.prod(x.shape[axis + 1 :])
    extents, [strides] = merged(x.shape, [x.byte_strides])
    return [len(extents), x.shape[axis], inner, segments, *extents, *strides]


def _refuse_wrong(device: Device, numbers: Operand, name: str, segments: int) -> None:
    """Name the first number that names no segment, if there is one."""
    values = device.to_host(numbers.values)
    # Of unsigned numbers none is below 0, and comparisons with an int are exact.
    is_wrong = (values < 0) | (values >= segments)
    if is_wrong.any():
        first = int(np.argmax(is_wrong))
        allowed = f"not from 0 to {segments - 1}" if segments else "but there are no segments"
        raise IndexError(f"{name}[{first}] is {values[first]}, {allowed}")


def counts(numbers: Operand, length: int) -> Any:
    """How often each number occurs, which the device's library counts."""
    assert numbers.device is not None
    if not numbers.shape[0]:
        return numbers.device.zeros(length)
    return numbers.device.counts(numbers.values, length)
