# SPDX-License-Identifier: Apache-2.0
"""Sums by segment: elements go where numbers beside them say, and each sum is rounded once.

Nothing is sorted, and no order shows. While it is at work a call holds two float64 for each element
of the result and each thread; what these do not hold exactly has about 600 bytes more.
"""

from __future__ import annotations

from typing import Any

import numpy as np

from korvex.exact import _native, _threads
from korvex.exact._arrays import Operand, Real, as_operand, check_same_home
from korvex.exact._homes import Array, empty, format_of, give_parts
from korvex.exact._operators import takes_operator, through_operator

_LARGEST = 2**63 - 2  # a number whose count is an index


def segment_sum(x: Any, ids: Any, /, num_segments: int, *, dtype: Any = None) -> Any:
    """Return the sum of the elements of each segment, correctly rounded.

    Parameters
    ----------
    x : array
        Real or complex, with one axis or more. Element or row ``x[i]`` belongs to segment
        ``ids[i]``.
    ids : array
        Integers from 0 to ``num_segments - 1`` in any order, as many as `x` has rows; in the
        library and on the device of `x`.
    num_segments : int
        The length of the result's first axis. The sum of a segment without elements is 0.
    dtype : dtype or str, optional
        As of `sum`.

    Returns
    -------
    array
        Of shape ``(num_segments, *x.shape[1:])``, in the library and on the device of `x`.

    Raises
    ------
    IndexError
        If a number in `ids` is negative or too large; the first of them is named.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> x = np.array([1e16, 3.0, 1.0, -1e16])
    >>> exact.segment_sum(x, np.array([2, 0, 2, 2]), 3)
    array([3., 0., 1.])
    """
    if takes_operator(x, ids):
        return through_operator("segment_sum", x, ids, num_segments, dtype=dtype)
    operand, numbers = as_operand(x, "x"), as_operand(ids, "ids")
    check_same_home([("x", operand), ("ids", numbers)])
    segments = checked_length(num_segments, "num_segments")
    if not operand.shape:
        raise ValueError("x has no axis: korvex.exact.segment_sum takes arrays with one or more")
    rows = operand.shape[0]
    _check_numbers(numbers, "ids", rows, f"x has {rows} along its first axis")
    form = format_of(dtype, operand.is_complex)
    if operand.device is not None:
        from korvex.exact import _device_segments

        return _device_segments.summed(operand, 0, numbers, "ids", segments, None, form)
    parts = _summed(operand, 0, numbers, "ids", segments, None, form)
    return give_parts(operand.home, parts, form)


def bincount(ids: Any, /, weights: Any = None, minlength: int = 0, *, dtype: Any = None) -> Any:
    """Return how often each number from 0 on occurs, or the sum of the weights beside it.

    Parameters
    ----------
    ids : array
        Integers that are not negative, with one axis, in any order.
    weights : array, optional
        Real, as many as there are in `ids`, in one library and on one device with them.
    minlength : int
        The least length of the result, which is as long as the largest number needs.
    dtype : dtype or str, optional
        As of `sum`, for sums of weights; counts are int64.

    Returns
    -------
    array
        In the library and on the device of `ids`: of int64 without weights, else each sum correctly
        rounded.

    Raises
    ------
    IndexError
        If a number in `ids` is negative; the first of them is named.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> ids = np.array([0, 3, 3, 3])
    >>> exact.bincount(ids)
    array([1, 0, 0, 3])
    >>> exact.bincount(ids, weights=np.array([0.5, 1e16, 1.0, -1e16]), minlength=5)
    array([0.5, 0. , 0. , 1. , 0. ])
    """
    numbers = as_operand(ids, "ids")
    least = checked_length(minlength, "minlength")
    if weights is None:
        if dtype is not None:
            raise ValueError("dtype is for sums of weights, and there are none: counts are int64")
        _check_numbers(numbers, "ids")
        length = _count_of(numbers, least)
        if numbers.device is not None:
            from korvex.exact import _device_segments

            return _device_segments.counts(numbers, length)
        counts = np.bincount(numbers.values.astype(np.int64, copy=False), minlength=length)
        return numbers.home.give(counts.astype(np.int64, copy=False), "int64")
    operand = as_operand(weights, "weights")
    check_same_home([("ids", numbers), ("weights", operand)])
    if operand.is_complex:
        raise TypeError("weights is complex, and bincount takes real arrays only")
    if len(operand.shape) != 1:
        axes = len(operand.shape)
        raise ValueError(f"weights has {axes} axes: korvex.exact takes an array with one there")
    _check_numbers(numbers, "ids", operand.shape[0], f"weights has {operand.shape[0]}")
    form = format_of(dtype)
    length = _count_of(numbers, least)
    if numbers.device is not None:
        from korvex.exact import _device_segments

        return _device_segments.summed(operand, 0, numbers, "ids", length, None, form)
    parts = _summed(operand, 0, numbers, "ids", length, None, form)
    return give_parts(numbers.home, parts, form)


def index_add(x: Any, /, dim: int, index: Any, source: Any, *, dtype: Any = None) -> Any:
    """Return `x` plus the slices of `source` at the places of `index`, each sum correctly rounded.

    An element of the result is the exact sum of one element of `x` and of all that is added to it,
    rounded once. `x` stays as it is. There is no factor ``alpha``: to take the slices away give
    ``-source``, which is exact.

    Parameters
    ----------
    x : array
        Real or complex, with one axis or more.
    dim : int
        The axis of `x` and `source` that `index` is about; negative ones count from the last.
    index : array
        Integers from 0 to ``x.shape[dim] - 1``, with one axis, in any order.
    source : array
        As many slices along `dim` as `index` has elements; its other axes are as long as those of
        `x`. The dtypes may differ.
    dtype : dtype or str, optional
        As of `sum`.

    Returns
    -------
    array
        Of the shape of `x`, in its library and on its device. All three arrays are of one library
        and on one device.

    Raises
    ------
    IndexError
        If a number in `index` is negative or too large; the first of them is named.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> x, source = np.array([1.0, 5.0]), np.array([1e16, 0.25, -1e16])
    >>> exact.index_add(x, 0, np.array([0, 1, 0]), source)
    array([1.  , 5.25])
    """
    operand, added = as_operand(x, "x"), as_operand(source, "source")
    numbers = as_operand(index, "index")
    check_same_home([("x", operand), ("index", numbers), ("source", added)])
    axis = _axis_of(operand.shape, dim)
    _check_slices(operand.shape, added.shape, axis)
    length, slices = operand.shape[axis], added.shape[axis]
    _check_numbers(numbers, "index", slices, f"source has {slices} along axis {axis}")
    if operand.is_complex != added.is_complex:
        raise TypeError("x and source must be both real or both complex")
    form = format_of(dtype, operand.is_complex)
    if operand.device is not None:
        from korvex.exact import _device_segments

        return _device_segments.summed(added, axis, numbers, "index", length, operand, form)
    parts = _summed(added, axis, numbers, "index", length, operand, form)
    ordered = [np.ascontiguousarray(np.moveaxis(part, 0, axis)) for part in parts]
    return give_parts(operand.home, ordered, form)


def _summed(
    x: Operand,
    axis: int,
    numbers: Operand,
    name: str,
    segments: int,
    initial: Operand | None,
    form: str,
) -> list[Array]:
    """The sums of each half of x, with the axis first; each half of `initial` is added to one."""
    halves = x.halves()
    firsts = [Real(None)] * len(halves) if initial is None else initial.halves()
    parts = []
    for half, first in zip(halves, firsts, strict=True):
        out = empty((segments, *x.shape[:axis], *x.shape[axis + 1 :]), form)
        wrong = _native.segment_sums(
            half.values,
            axis,
            numbers.values,
            segments,
            first.values,
            out,
            form,
            _threads.count,
            half.format,
            first.format,
        )
        if wrong >= 0:
            allowed = f"not from 0 to {segments - 1}" if segments else "but there are no segments"
            raise IndexError(f"{name}[{wrong}] is {numbers.values[wrong]}, {allowed}")
        parts.append(out)
    return parts


# --- Arguments


def checked_length(value: Any, name: str) -> int:
    """The argument of that name, an int that is not negative."""
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, (int, np.integer)):
        raise TypeError(f"{name} must be an int, not {type(value).__name__}")
    if value < 0:
        raise ValueError(f"{name} must not be negative, but is {value}")
    return int(value)


def _check_numbers(
    numbers: Operand, name: str, expected: int | None = None, whose: str = ""
) -> None:
    """They are integers in one axis, as many as expected: `whose` says by what."""
    values = numbers.values
    if numbers.device is not None:
        dtype = numbers.device.format_of(values)
    elif numbers.format is not None or not isinstance(values, np.ndarray):
        dtype = "bfloat16"
    else:
        dtype = str(values.dtype)
    if not dtype.startswith(("int", "uint")):
        raise TypeError(f"{name} has the dtype {dtype}: korvex.exact takes integers there")
    if len(numbers.shape) != 1:
        raise ValueError(
            f"{name} has {len(numbers.shape)} axes: korvex.exact takes an array with one there"
        )
    if expected is not None and numbers.shape[0] != expected:
        raise ValueError(f"{name} has {numbers.shape[0]} elements, and {whose}")


def _count_of(numbers: Operand, least: int) -> int:
    """How many numbers from 0 on there are up to the largest; none may be negative."""
    values = numbers.values
    if not numbers.shape[0]:
        return least
    if numbers.device is not None:
        low, high = numbers.device.extremes(values)
        if 0 <= low and high <= _LARGEST:
            return max(least, high + 1)
        values = numbers.device.to_host(values)  # one of them is wrong
    low, high = int(values.min()), int(values.max())
    if low < 0:
        first = int(np.argmax(values < 0))
        raise IndexError(f"ids[{first}] is {values[first]}, which is negative")
    if high > _LARGEST:
        first = int(np.argmax(values > _LARGEST))
        raise IndexError(f"ids[{first}] is {values[first]}, which is above {_LARGEST}")
    return max(least, high + 1)


def _axis_of(shape: tuple[int, ...], dim: Any) -> int:
    if isinstance(dim, (bool, np.bool_)) or not isinstance(dim, (int, np.integer)):
        raise TypeError(f"dim must be an int, not {type(dim).__name__}")
    if not shape:
        raise ValueError("x has no axis: korvex.exact.index_add takes arrays with one or more")
    if not -len(shape) <= dim < len(shape):
        raise ValueError(f"dim {dim} is out of range for x of shape {shape}")
    return int(dim) % len(shape)


def _check_slices(x: tuple[int, ...], source: tuple[int, ...], axis: int) -> None:
    others = (*x[:axis], *x[axis + 1 :])
    if len(source) != len(x) or others != (*source[:axis], *source[axis + 1 :]):
        raise ValueError(
            f"source has shape {source}, and x {x}: they must be equal but along axis {axis}"
        )
