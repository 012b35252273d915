# SPDX-License-Identifier: Apache-2.0
"""Products of vectors and matrices, and running sums: exact inside, each element rounded once."""

from __future__ import annotations

from typing import Any

import numpy as np

from korvex.exact import _native, _threads
from korvex.exact._arrays import Operand, Real, as_operand, check_same_home, refuse_cuda
from korvex.exact._axes import (
    checked_axis,
    is_integer,
    reduced,
    refuse_device,
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
        for name, operand in pair:
            refuse_device(name, operand)
        return give_parts(home, _along(first, second, axis, form), form)
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


def _along(x: Operand, y: Operand, axis: int, form: str) -> list[Array]:
    """The products along an axis of conj(x) and y, or their halves."""
    x_halves = [_vectors_last(half, "x", axis) for half in x.halves()]
    y_halves = [_vectors_last(half, "y", axis) for half in y.halves()]
    shape = _broadcast(x_halves[0], y_halves[0], axis)
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


def _broadcast(x: Real, y: Real, axis: int) -> tuple[int, ...]:
    try:
        return np.broadcast_shapes(x.values.shape, y.values.shape)
    except ValueError:
        x_shape, y_shape = (np.moveaxis(each.values, -1, axis).shape for each in (x, y))
        raise ValueError(
            f"x has the shape {x_shape} and y has {y_shape}: but for axis {axis} they must be "
            "equal, or 1 where they are not"
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
    """Return the matrix product, each element correctly rounded from its exact value.

    Parameters
    ----------
    a, b : array
        Matrices, or vectors: one on the left is a row, one on the right a column, and the result
        has no axis for it. In one library and on one device; their dtypes may differ.
    dtype : dtype or str, optional
        As of `sum`.
    group : ProcessGroup, optional
        Of `torch.distributed`: each of its processes gives some columns of a real `a` and the same
        rows of `b`, or none of them, and gets the product of the whole matrices. None stands for
        this process alone.

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
    """
    if takes_operator(a, b):
        return through_operator("matmul", a, b, dtype=dtype, group=group)
    first, second = as_operand(a, "a"), as_operand(b, "b")
    home = check_same_home([("a", first), ("b", second)])
    refuse_cuda("matmul", ("a", first), ("b", second))
    for name, operand in (("a", first), ("b", second)):
        if len(operand.shape) not in (1, 2):
            raise ValueError(
                f"{name} has {len(operand.shape)} axes: korvex.exact.matmul takes matrices and "
                "vectors, no batches yet"
            )
    if first.shape[-1] != second.shape[0]:
        raise ValueError(
            f"a has rows of {first.shape[-1]} elements, and b has columns of {second.shape[0]}"
        )
    form = format_of(dtype, first.is_complex or second.is_complex)
    shape = first.shape[:-1] + second.shape[1:]
    left = [_matrix(half, row=True) for half in first.halves()]
    right = [_matrix(half, row=False) for half in second.halves()]
    if group is not None:
        if first.is_complex or second.is_complex:
            raise TypeError("with a group a and b must be real")
        part = sharded_product(left[0], right[0], form, group)
        return give_parts(home, [part.reshape(shape)], form)
    parts = [_product(x, y, form).reshape(shape) for x, y in _factors(left, right)]
    return give_parts(home, parts, form)


def _matrix(values: Real, row: bool) -> Real:
    """A matrix as it is, and a vector as a matrix of one row or one column."""
    if values.values.ndim == 2:
        return values
    return Real(values.values[None, :] if row else values.values[:, None], values.format)


def _factors(left: list[Real], right: list[Real]) -> list[tuple[Real, Real]]:
    """For each half of the result two real matrices whose product it is.

    The two products of halves that are added become one, of matrices laid side by side, so that
    their sum is rounded once.
    """
    if len(left) == len(right) == 1:
        return [(left[0], right[0])]
    if len(right) == 1:
        return [(half, right[0]) for half in left]
    if len(left) == 1:
        return [(left[0], half) for half in right]
    (a, ai), (b, bi) = ([half.values for half in halves] for halves in (left, right))
    return [
        (Real(np.hstack([a, -ai])), Real(np.vstack([b, bi]))),
        (Real(np.hstack([a, ai])), Real(np.vstack([bi, b]))),
    ]


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
        Real, with one axis.
    axis : None, 0 or -1
        The one axis.
    dtype : dtype or str, optional
        As of `sum`.
    include_initial : bool
        Whether the result begins with 0, the sum of no elements.

    Returns
    -------
    array
        In the library and on the device of `x`, as long as `x`, or longer by 1.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> exact.cumulative_sum(np.array([1e16, 1.0, 1.0, -1e16]))
    array([1.e+16, 1.e+16, 1.e+16, 2.e+00])
    """
    operand = as_operand(x, "x")
    refuse_cuda("cumulative_sum", ("x", operand))
    if operand.is_complex:
        raise TypeError("x is complex, and cumulative_sum takes real arrays only")
    form = format_of(dtype)
    _check_running(operand.shape, axis, include_initial)
    sums = empty((operand.shape[0] + include_initial,), form)
    sums[:1] = 0
    own = sums[1:] if include_initial else sums
    _native.cumulative_sum(operand.values, own, form, _threads.count, operand.format)
    return operand.home.give(sums, form)


def _check_running(shape: tuple[int, ...], axis: int | None, include_initial: bool) -> None:
    if not isinstance(include_initial, (bool, np.bool_)):
        raise TypeError(f"include_initial must be a bool, not {type(include_initial).__name__}")
    if len(shape) != 1:
        raise ValueError(
            f"x has {len(shape)} axes: korvex.exact.cumulative_sum takes arrays with one"
        )
    if axis is None:
        return
    if isinstance(axis, bool) or not isinstance(axis, (int, np.integer)):
        raise TypeError(f"axis must be None or an int, not {type(axis).__name__}")
    if axis not in (0, -1):
        raise ValueError(f"axis {axis} is out of range for an array with 1 axis")
