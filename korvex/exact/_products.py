# SPDX-License-Identifier: Apache-2.0
"""Products of vectors and matrices, and running sums: exact inside, each element rounded once."""

from __future__ import annotations

import math
from typing import Any

import numpy as np

from korvex.exact import _native, _threads
from korvex.exact._arrays import Operand, Real, as_operand, check_same_home, refuse_cuda
from korvex.exact._axes import (
    checked_axis,
    is_integer,
    reduced,
    refuse_mesh,
    refuse_parts,
    viewable,
)
from korvex.exact._homes import Array, empty, format_of, give_parts, give_values
from korvex.exact._operators import takes_operator, through_operator
from korvex.exact._sharded_product import sharded_product
from korvex.exact._spread import as_spread
from korvex.exact._state import COUNTS, DOT, State, accumulated


def vecdot(x: Any, y: Any, /, *, axis: int = -1, dtype: Any = None, group: Any = None) -> Any:
    """Return dot products along an axis, each correctly rounded. A complex `x` is conjugated.

    Parameters
    ----------
    x, y : array
        In one library and on one device. Their dtypes may differ. They have one length along the
        axis; their other axes are broadcast.
    axis : int
        The axis of the vectors, in each operand on its own.
    dtype, group
        As of `sum`. With a group there is one axis, and the two vectors of one process have one
        length.

    Returns
    -------
    scalar or array
        In the library and on the device of `x`, with the axes that are left.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> x, y = np.array([1e200, 1.0, 1e200]), np.array([1e200, 0.5, -1e200])
    >>> print(exact.vecdot(x, y), exact.vecdot(np.array([1j, 2]), np.array([1j, 2j])))
    0.5 (1+4j)
    >>> print(exact.vecdot(np.stack([x, -x]), y), exact.vecdot(np.ones((3, 2)), x[:, None], axis=0))
    [ 0.5 -0.5] [2.e+200 2.e+200]
    """
    if takes_operator(x, y):
        return through_operator("vecdot", x, y, axis=axis, dtype=dtype, group=group)
    x_spread, y_spread = as_spread(x, "x", group), as_spread(y, "y", group)
    first, second = x_spread.operand, y_spread.operand
    home = check_same_home([("x", first), ("y", second)])
    if not is_integer(axis):
        raise TypeError(f"axis must be an int, not {type(axis).__name__}")
    pair = (("x", first), ("y", second))
    lengths = [
        operand.shape[checked_axis(axis, len(operand.shape), name)] for name, operand in pair
    ]
    _check_equal(*lengths)
    is_complex = first.is_complex or second.is_complex
    form = format_of(dtype, is_complex)
    if len(first.shape) > 1 or len(second.shape) > 1:
        refuse_parts(x_spread, y_spread)
        shape = _broadcast(first.shape, second.shape, axis)
        if first.device is not None:
            from korvex.exact import _device_axes

            refuse_mesh("x", x_spread)
            refuse_mesh("y", y_spread)
            return _device_axes.vecdot(first, second, axis, shape, form)
        return give_parts(home, _along(first, second, axis, shape, form), form)
    if x_spread.layout != y_spread.layout:
        raise ValueError("x and y are DTensors that are cut in different ways: redistribute one")
    if first.device is not None and x_spread.is_one_array and not is_complex:
        from korvex.exact._device_state import rounded

        [x_real], [y_real] = first.halves(), second.halves()
        return rounded(first.device, [(DOT, x_real, y_real)], form, ())
    if is_complex or first.device is not None or x_spread.groups:
        states = map(x_spread.combined, _dot_states(first, second))
        return give_values(home, [state.limbs(form=form)[0] for state in states], form, ())
    a, b = first.values, second.values
    value = _native.vecdot(a, b, form, _threads.count, first.format, second.format)
    return give_values(home, [value], form, ())


def _along(x: Operand, y: Operand, axis: int, shape: tuple[int, ...], form: str) -> list[Array]:
    """The products along an axis of conj(x) and y, or their halves; `shape` has the axis last."""
    x_halves = [_vectors_last(half, "x", axis) for half in x.halves()]
    y_halves = [_vectors_last(half, "y", axis) for half in y.halves()]
    xr, *xi = [Real(np.broadcast_to(half.values, shape), half.format) for half in x_halves]
    yr, *yi = [Real(np.broadcast_to(half.values, shape), half.format) for half in y_halves]
    kept = len(shape) - 1
    if xi and yi:
        return [
            reduced(_native.DOT_PRODUCT, [xr, yr, *xi, *yi], kept, form),
            reduced(_native.DOT_PRODUCT, [xr, *yi, *xi, yr], kept, form, is_negative=True),
        ]
    parts = [reduced(_native.DOT_PRODUCT, [xr, yr], kept, form)]
    if yi:
        parts.append(reduced(_native.DOT_PRODUCT, [xr, *yi], kept, form))
    if xi:
        parts.append(reduced(_native.DOT_PRODUCT, [*xi, yr], kept, form, is_negative=True))
    return parts


def _vectors_last(half: Real, name: str, axis: int) -> Real:
    values, form, _ = viewable(half, name)
    return Real(np.moveaxis(values, axis, -1), form)


def _broadcast(x: tuple[int, ...], y: tuple[int, ...], axis: int) -> tuple[int, ...]:
    """The shape of both operands together, with the axis last."""
    places = [axis % len(shape) for shape in (x, y)]
    moved = [
        (*shape[:n], *shape[n + 1 :], shape[n]) for shape, n in zip((x, y), places, strict=True)
    ]
    try:
        return np.broadcast_shapes(*moved)
    except ValueError:
        raise ValueError(
            f"x has the shape {x} and y has {y}: but for axis {axis} they must be equal, or 1 "
            "where they are not"
        ) from None


def _check_equal(first: int, second: int) -> None:
    if first != second:
        raise ValueError(f"x has {first} elements, and y has {second}")


def _dot_states(x: Operand, y: Operand) -> list[State]:
    """The sum of conj(x) * y, or its halves, each the exact sum of its products of halves."""
    x_halves, y_halves = x.halves(), y.halves()
    real = accumulated(DOT, x_halves[0], y_halves[0])
    if not (x.is_complex or y.is_complex):
        return [real]
    imaginary = State(DOT)
    if y.is_complex:
        imaginary.merge(accumulated(DOT, x_halves[0], y_halves[1]))
    if x.is_complex:
        if y.is_complex:
            real.merge(accumulated(DOT, x_halves[1], y_halves[1]))
        _merge_negated(imaginary, accumulated(DOT, x_halves[1], y_halves[0]))
    return [real, imaginary]


def _merge_negated(state: State, other: State) -> None:
    """Add the negatives of the products: unlike what is taken away, their specials are added."""
    positive, negative, nans, elements = other.raw_counts()
    other.words[-COUNTS:] = (-negative, -positive, -nans, -elements)
    state.merge(other, sign=-1)


# --- Matrices


def matmul(a: Any, b: Any, /, *, dtype: Any = None, group: Any = None) -> Any:
    """Return matrix products, each element correctly rounded from its exact value.

    Parameters
    ----------
    a, b : array
        Matrices, or vectors: one on the left is a row, one on the right a column, and the result
        has no axis for it. Axes before the last two are those of batches, and broadcast. In one
        library and on one device; their dtypes may differ.
    dtype : dtype or str, optional
        As of `sum`.
    group : ProcessGroup, optional
        Of `torch.distributed`: each of its processes gives some columns of a real `a` and the same
        rows of `b`, or none of them, and gets the product of the whole matrices. None stands for
        this process alone. Not of batches.

    Returns
    -------
    scalar or array
        In the library and on the device of `a`.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> a = np.array([[1e20, 1.0, 1e20], [1.0, 2.0, 3.0]])
    >>> exact.matmul(a, np.array([1e20, 0.5, -1e20])).tolist()
    [0.5, -2e+20]
    >>> exact.matmul(np.ones((5, 1, 2, 3)), np.ones((4, 3, 2))).shape
    (5, 4, 2, 2)
    """
    if takes_operator(a, b):
        return through_operator("matmul", a, b, dtype=dtype, group=group)
    first, second = as_operand(a, "a"), as_operand(b, "b")
    home = check_same_home([("a", first), ("b", second)])
    if group is not None:
        refuse_cuda("matmul with a group", ("a", first), ("b", second))
    for name, operand in (("a", first), ("b", second)):
        if not operand.shape:
            raise ValueError(f"{name} has 0 axes: korvex.exact.matmul takes matrices and vectors")
    rows = second.shape[-2] if len(second.shape) > 1 else second.shape[0]
    if first.shape[-1] != rows:
        raise ValueError(f"a has rows of {first.shape[-1]} elements, and b has columns of {rows}")
    form = format_of(dtype, first.is_complex or second.is_complex)
    batch = _batch(first.shape, second.shape)
    shape = batch + first.shape[-2:-1] + (second.shape[-1:] if len(second.shape) > 1 else ())
    if first.device is not None:
        return _on_device(first, second, batch, form, shape)
    left = [_matrices(half, "a", True, batch) for half in first.halves()]
    right = [_matrices(half, "b", False, batch) for half in second.halves()]
    if group is not None:
        if first.is_complex or second.is_complex:
            raise TypeError("with a group a and b must be real")
        if batch or len(first.shape) > 2 or len(second.shape) > 2:
            raise ValueError("with a group a and b must be matrices or vectors, without batches")
        part = sharded_product(left[0], right[0], form, group)
        return give_parts(home, [part.reshape(shape)], form)
    parts = [part.reshape(shape) for part in _products(left, right, batch, form)]
    return give_parts(home, parts, form)


def _on_device(
    first: Operand,
    second: Operand,
    batch: tuple[int, ...],
    form: str,
    shape: tuple[int, ...],
) -> Any:
    from korvex.exact import _device_products

    left = [_matrix(half, row=True) for half in first.halves()]
    right = [_matrix(half, row=False) for half in second.halves()]
    assert first.device is not None
    return _device_products.matmul(first.device, left, right, batch, form, shape)


def _matrix(half: Real, row: bool) -> Real:
    """Matrices as they are, and a vector as a matrix of one row or one column."""
    if half.values.ndim > 1:
        return half
    return Real(half.values[None, :] if row else half.values[:, None], half.format)


def _batch(a: tuple[int, ...], b: tuple[int, ...]) -> tuple[int, ...]:
    """The axes of the batches of two operands together."""
    try:
        return np.broadcast_shapes(a[:-2], b[:-2])
    except ValueError:
        raise ValueError(
            f"a has batches of the shape {a[:-2]} and b of {b[:-2]}: they must be equal, or 1 "
            "where they are not"
        ) from None


def _matrices(values: Real, name: str, row: bool, batch: tuple[int, ...]) -> Real:
    """Matrices as they are, a vector as a matrix of one row or one column, for each of a batch."""
    if len(values.values.shape) == 2 and not batch:
        return values
    array, form, _ = viewable(values, name)
    if array.ndim == 1:
        array = array[None, :] if row else array[:, None]
    return Real(np.broadcast_to(array, batch + array.shape[-2:]), form)


def _products(
    left: list[Real], right: list[Real], batch: tuple[int, ...], form: str
) -> list[Array]:
    """The product, or its halves, for each of a batch in turn."""
    if not batch:
        return [_product(x, y, form) for x, y in _factors(left, right)]
    shape = (*batch, left[0].values.shape[-2], right[0].values.shape[-1])
    parts = [empty(shape, form) for _ in range(max(len(left), len(right)))]
    for index in np.ndindex(*batch):
        pairs = _factors([_at(half, index) for half in left], [_at(half, index) for half in right])
        for part, (x, y) in zip(parts, pairs, strict=True):
            part[index] = _product(x, y, form)
    return parts


def _at(half: Real, index: tuple[int, ...]) -> Real:
    return Real(half.values[index], half.format)


def _factors(left: list[Real], right: list[Real]) -> list[tuple[Real, Real]]:
    """For each half of the result two real matrices whose product it is.

    The two products of halves that are added become one, of matrices whose elements come in turn
    along the dimension that is summed over, so that their sum is rounded once. So they lie already
    in the rows of a complex `a`, or in the columns of `b`: the larger one that does is read in
    place, and the halves of the other are laid out beside it.
    """
    if len(left) == len(right) == 1:
        return [(left[0], right[0])]
    if len(right) == 1:
        return [(half, right[0]) for half in left]
    if len(left) == 1:
        return [(left[0], half) for half in right]
    (a, ai), (b, bi) = ([half.values for half in halves] for halves in (left, right))
    rows, columns = _in_turn(a), _in_turn(b.T)
    if columns is not None and (rows is None or b.size > a.size):
        pairs = ((_laid_out(a.T, -ai.T).T, columns.T), (_laid_out(ai.T, a.T).T, columns.T))
    else:
        rows = _laid_out(a.T, ai.T).T if rows is None else rows
        pairs = ((rows, _laid_out(b, -bi)), (rows, _laid_out(bi, b)))
    return [(Real(x), Real(y)) for x, y in pairs]


def _in_turn(half: Array) -> Array | None:
    """The rows of a complex matrix as real and imaginary parts in turn, where they lie so."""
    if half.strides[1] != 2 * half.itemsize:
        return None
    shape = (half.shape[0], 2 * half.shape[1])
    return np.lib.stride_tricks.as_strided(
        half, shape, (half.strides[0], half.itemsize), writeable=False
    )


def _laid_out(first: Array, second: Array) -> Array:
    """The rows of two matrices in turn."""
    return np.stack([first, second], axis=1).reshape(2 * first.shape[0], first.shape[1])


def _product(a: Real, b: Real, form: str) -> Array:
    out = empty((a.values.shape[0], b.values.shape[1]), form)
    _native.matmul(a.values, b.values, out, form, _threads.count, a.format, b.format)
    return out


# --- Running sums


def cumulative_sum(
    x: Any, /, *, axis: int | None = None, dtype: Any = None, include_initial: bool = False
) -> Any:
    """Return the sums of the first elements, each correctly rounded from its exact value.

    Parameters
    ----------
    x : array
        Real, with one axis or more.
    axis : int, optional
        The axis along which elements are summed; may be left out where there is but one.
    dtype : dtype or str, optional
        As of `sum`.
    include_initial : bool
        Whether the result begins with 0, the sum of no elements.

    Returns
    -------
    array
        In the library and on the device of `x`, with its shape, or longer by 1 along the axis.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> x = np.array([1e16, 1.0, 1.0, -1e16])
    >>> exact.cumulative_sum(x)
    array([1.e+16, 1.e+16, 1.e+16, 2.e+00])
    >>> exact.cumulative_sum(np.stack([x, x[::-1]]), axis=1)[:, -1]
    array([2., 2.])
    """
    operand = as_operand(x, "x")
    if operand.is_complex:
        raise TypeError("x is complex, and cumulative_sum takes real arrays only")
    form = format_of(dtype)
    if not isinstance(include_initial, (bool, np.bool_)):
        raise TypeError(f"include_initial must be a bool, not {type(include_initial).__name__}")
    place = _running_axis(operand.shape, axis)
    outer, inner = operand.shape[:place], operand.shape[place + 1 :]
    [half] = operand.halves()
    if operand.device is not None:
        from korvex.exact import _device_running

        return _device_running.cumulative_sum(
            operand.device, half, place, form, bool(include_initial)
        )
    sums = empty((*outer, operand.shape[place] + bool(include_initial), *inner), form)
    if outer or inner:
        values, elements, _ = viewable(half, "x")
        half = Real(np.moveaxis(values, place, -1), elements)
    _native.cumulative_sum(
        half.values,
        sums,
        form,
        _threads.count,
        half.format,
        math.prod(inner),
        bool(include_initial),
    )
    return operand.home.give(sums, form)


def _running_axis(shape: tuple[int, ...], axis: int | None) -> int:
    if not shape:
        raise ValueError("x has 0 axes: korvex.exact.cumulative_sum needs one")
    if axis is None:
        if len(shape) > 1:
            raise ValueError(f"x has {len(shape)} axes: say which by axis=")
        return 0
    if not is_integer(axis):
        raise TypeError(f"axis must be None or an int, not {type(axis).__name__}")
    return checked_axis(axis, len(shape))
