# SPDX-License-Identifier: Apache-2.0
"""Which axes a function reduces, and reductions along some of them: one rounding an output.

The native half reads the operands where they are: it gets views whose leading axes are those that
stay, with the reduced ones behind them.
"""

from __future__ import annotations

import math
import sys
from collections.abc import Callable, Sequence
from typing import Any, NamedTuple

import numpy as np
from numpy.exceptions import AxisError

from korvex.exact import _native, _threads
from korvex.exact._arrays import Real
from korvex.exact._homes import Array, empty, give_parts, in_format
from korvex.exact._spread import Spread
from korvex.exact._state import MOMENTS, State, accumulated

Axis = int | tuple[int, ...] | None


class Axes(NamedTuple):
    """What a reduction does with the axes of an array, counted from 0."""

    kept: tuple[int, ...]
    reduced: tuple[int, ...]
    shape: tuple[int, ...]  # of the result

    @property
    def is_whole(self) -> bool:
        """Whether no axis stays, so that there is one output."""
        return not self.kept


def axes_of(shape: tuple[int, ...], axis: Axis, keepdims: object) -> Axes:
    """Check `axis` and `keepdims` for an array of that shape."""
    if not isinstance(keepdims, (bool, np.bool_)):
        raise TypeError(f"keepdims must be a bool, not {type(keepdims).__name__}")
    everything = tuple(range(len(shape)))
    reduced = everything if axis is None else _positive(axis, len(shape))
    kept = tuple(each for each in everything if each not in reduced)
    if keepdims:
        return Axes(kept, reduced, tuple(1 if n in reduced else shape[n] for n in everything))
    return Axes(kept, reduced, tuple(shape[n] for n in kept))


def _positive(axis: int | tuple[int, ...], dimensions: int) -> tuple[int, ...]:
    positive = []
    for each in axis if isinstance(axis, tuple) else (axis,):
        if not is_integer(each):
            raise TypeError(f"axis must be None, an int or a tuple of them, not {axis!r}")
        positive.append(checked_axis(each, dimensions))
    if len(set(positive)) < len(positive):
        raise ValueError(f"axis {axis} names an axis twice")
    return tuple(sorted(positive))


def is_integer(axis: object) -> bool:
    """Whether something can name an axis."""
    return isinstance(axis, (int, np.integer)) and not isinstance(axis, bool)


def checked_axis(axis: int, dimensions: int, what: str = "an array") -> int:
    """Return the number of an axis from 0 on; the error is an IndexError and a ValueError."""
    if not -dimensions <= axis < dimensions:
        raise AxisError(
            f"axis {axis} is out of range for {what} with {dimensions} "
            f"{'axis' if dimensions == 1 else 'axes'}"
        )
    return int(axis) % dimensions


# --- Along some of the axes


def reduce_along(
    function: int, spread: Spread, axes: Axes, form: str, divisor: int = 1, scale: int = 1
) -> Any:
    """Reduce one operand, or the halves of a complex one apart."""
    operand = spread.operand
    refuse_parts(spread)
    if operand.device is not None:
        from korvex.exact import _device_axes

        refuse_mesh("x", spread)
        of_states = _device_axes.Function(function, divisor, scale)
        return _device_axes.reduce_along(operand, axes[:2], axes.shape, of_states, form)
    parts = []
    for half in operand.halves():
        operands = [transposed(half, "x", axes)]
        part = reduced(function, operands, len(axes.kept), form, divisor, scale)
        parts.append(part.reshape(axes.shape))
    return give_parts(operand.home, parts, form)


def reduce_one_by_one(
    spread: Spread, axes: Axes, form: str, rounded: Callable[[State], float]
) -> Any:
    """Reduce a real operand by a state of moments for each output in turn."""
    operand = spread.operand
    refuse_parts(spread)
    if operand.device is not None:
        from korvex.exact import _device_axes

        refuse_mesh("x", spread)
        return _device_axes.reduce_one_by_one(operand, axes[:2], axes.shape, form, rounded)
    [half] = operand.halves()
    view, elements, _ = transposed(half, "x", axes)
    values = [
        rounded(accumulated(MOMENTS, Real(view[(*index, ...)], elements)))
        for index in np.ndindex(*view.shape[: len(axes.kept)])
    ]
    return operand.home.give(in_format(values, form).reshape(axes.shape), form)


def reduced(
    function: int,
    operands: Sequence[Real],
    kept: int,
    form: str,
    divisor: int = 1,
    scale: int = 1,
    is_negative: bool = False,
) -> Array:
    """One output for each index of the first `kept` axes of operands of one shape."""
    out = empty(operands[0].values.shape[:kept], form)
    views, formats = tuple(x.values for x in operands), tuple(x.format for x in operands)
    _native.reduce_axes(
        function, views, formats, kept, out, form, _threads.count, divisor, scale, is_negative
    )
    return out


def refuse_parts(*spreads: Spread) -> None:
    """Say that elements in several processes have no axes."""
    if any(spread.groups for spread in spreads):
        raise ValueError(
            "axis= of what lies in several processes is not built yet: korvex.exact reduces their "
            "arrays as one whole, axis=None"
        )


def refuse_mesh(name: str, spread: Spread) -> None:
    """Say what to do with a DTensor on GPUs, all of which have its elements, instead."""
    if spread.layout is not None:
        raise TypeError(
            f"{name} is a DTensor on GPUs, and axis= of one is not built yet: give "
            f"{name}.to_local(), or reduce it whole"
        )


def viewable(half: Real, name: str) -> Real:
    """The elements as an array of NumPy, of which views of any axes can be made."""
    if isinstance(half.values, np.ndarray):
        return half
    torch = sys.modules.get("torch")  # of DLPack's dtypes NumPy lacks bfloat16
    if torch is None:
        raise TypeError(
            f"{name} has the dtype bfloat16 of a library that NumPy does not know: give "
            f"numpy.asarray({name}), or import torch, which reads it where it is"
        )
    return Real(torch.from_dlpack(half.values).view(torch.uint16).numpy(), "bfloat16")


def transposed(half: Real, name: str, axes: Axes) -> Real:
    """A view with the reduced axes behind the others."""
    values, form, _ = viewable(half, name)
    return Real(np.transpose(values, axes.kept + axes.reduced), form)


def size_of(shape: tuple[int, ...], axes: Sequence[int]) -> int:
    """Elements of one output."""
    return math.prod(shape[n] for n in axes)
