# SPDX-License-Identifier: Apache-2.0
"""Functions over a whole array: exact inside, one correct rounding, a result as the input is.

Names and keywords are those of the Python array API standard. What is not there yet, an axis of an
array with several and batches of products, is an error that says so, never something else silently.
"""

from __future__ import annotations

from typing import Any

import numpy as np
from numpy import float64, ndarray

from korvex.exact import _native, _statistics, _threads
from korvex.exact._arrays import REAL_CHARACTERS, Operand
from korvex.exact._homes import format_of, give_values
from korvex.exact._spread import Spread, as_spread
from korvex.exact._state import DOT, MOMENTS, SUM, accumulated

Axis = int | tuple[int, ...] | None


def sum(
    x: Any,
    /,
    *,
    axis: Axis = None,
    dtype: Any = None,
    keepdims: bool = False,
    group: Any = None,
) -> Any:
    """Return the sum of all elements, correctly rounded.

    Parameters
    ----------
    x : array
        Real or complex, of any shape; of no elements the sum is 0. Of a complex array the halves
        are summed apart.
    axis : None, or what stands for all axes
        0 or -1 for an array with one axis, or a tuple of all axes.
    dtype : dtype or str, optional
        float64 (default), float32, float16 or bfloat16: what the exact value is rounded to, once.
        For complex arrays complex128 (default) or complex64.
    keepdims : bool
        Whether the result has as many axes as `x`, each of length 1.
    group : ProcessGroup, optional
        Of `torch.distributed`: the sum is over the arrays that all of its processes give, real ones
        of any shapes and dtypes, and is returned in each. ``torch.distributed.group.WORLD`` is the
        default group; None stands for this process alone.

    Returns
    -------
    scalar or array
        In the library and on the device of `x`.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> x = np.array([1e16, 1.0, -1e16])
    >>> print(exact.sum(x), np.sum(x))
    1.0 0.0
    >>> print(exact.sum(np.array([2**53, 1, 1])), exact.sum(np.array([0.5, 2j])))
    9007199254740994.0 (0.5+2j)
    """
    # The whole call should cost little more than numpy.sum of a few elements: such arrays first.
    if type(x) is ndarray and axis is dtype is group is None and keepdims is False:
        if x.dtype.char in REAL_CHARACTERS and x.dtype.isnative:
            return float64(_native.sum(x, "float64", _threads.count))
    spread = as_spread(x, "x", group)
    operand = spread.operand
    form = format_of(dtype, operand.is_complex)
    shape = _reduced_shape(operand.shape, axis, keepdims)
    if operand.device is not None and spread.is_one_array:
        return _on_device(operand, form, shape)
    if operand.device is not None or spread.groups:
        states = [spread.combined(accumulated(SUM, half)) for half in operand.halves()]
        values = [state.limbs(form=form)[0] for state in states]
    else:
        values = [
            _native.sum(half.values, form, _threads.count, half.format) for half in operand.halves()
        ]
    return give_values(operand.home, values, form, shape)


def mean(
    x: Any,
    /,
    *,
    axis: Axis = None,
    dtype: Any = None,
    keepdims: bool = False,
    group: Any = None,
) -> Any:
    """Return the mean of all elements, correctly rounded: the exact sum over their number.

    Parameters
    ----------
    x : array
        Real or complex, of any shape; of no elements the mean is NaN.
    axis, dtype, keepdims, group
        As of `sum`.

    Returns
    -------
    scalar or array
        In the library and on the device of `x`.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> print(exact.mean(np.array([1e308, 1e308, 1e308])))
    1e+308
    """
    spread = as_spread(x, "x", group)
    operand = spread.operand
    form = format_of(dtype, operand.is_complex)
    shape = _reduced_shape(operand.shape, axis, keepdims)
    states = [spread.combined(accumulated(SUM, half)) for half in operand.halves()]
    values = [_statistics.mean_of(state, form) for state in states]
    return give_values(operand.home, values, form, shape)


def var(
    x: Any,
    /,
    *,
    axis: Axis = None,
    correction: float = 0,
    dtype: Any = None,
    keepdims: bool = False,
    group: Any = None,
) -> Any:
    """Return the variance of all elements, correctly rounded.

    Parameters
    ----------
    x : array
        Real, of any shape.
    correction : real number
        The divisor is the number of elements less this: 0 for the variance of the elements, 1 for
        the usual estimate from a sample. NaN where the divisor is not positive.
    axis, dtype, keepdims, group
        As of `sum`.

    Returns
    -------
    scalar or array
        In the library and on the device of `x`; NaN where an element is not finite.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> x = np.array([1e9 + 4, 1e9 + 7, 1e9 + 13, 1e9 + 16])
    >>> print(exact.var(x), exact.var(x, correction=1))
    22.5 30.0
    """
    spread = _real_spread(x, "x", "var", group)
    operand = spread.operand
    form = format_of(dtype)
    shape = _reduced_shape(operand.shape, axis, keepdims)
    taken = _statistics.checked_correction(correction)
    state = spread.combined(accumulated(MOMENTS, *operand.halves()))
    return give_values(operand.home, [_statistics.variance_of(state, taken, form)], form, shape)


def std(
    x: Any,
    /,
    *,
    axis: Axis = None,
    correction: float = 0,
    dtype: Any = None,
    keepdims: bool = False,
    group: Any = None,
) -> Any:
    """Return the standard deviation, correctly rounded: the root of the exact variance.

    Parameters
    ----------
    x : array
        Real, of any shape.
    correction : real number
        As of `var`.
    axis, dtype, keepdims, group
        As of `sum`.

    Returns
    -------
    scalar or array
        In the library and on the device of `x`.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> print(exact.std(np.array([1.0, 2.0, 3.0, 4.0])))
    1.118033988749895
    """
    spread = _real_spread(x, "x", "std", group)
    operand = spread.operand
    form = format_of(dtype)
    shape = _reduced_shape(operand.shape, axis, keepdims)
    taken = _statistics.checked_correction(correction)
    state = spread.combined(accumulated(MOMENTS, *operand.halves()))
    return give_values(operand.home, [_statistics.deviation_of(state, taken, form)], form, shape)


def vector_norm(
    x: Any,
    /,
    *,
    axis: Axis = None,
    keepdims: bool = False,
    ord: float = 2,
    dtype: Any = None,
    group: Any = None,
) -> Any:
    """Return the Euclidean norm of all elements, correctly rounded.

    Parameters
    ----------
    x : array
        Real, of any shape; of no elements the norm is 0.
    ord : 2
        No other norm is there.
    axis, dtype, keepdims, group
        As of `sum`.

    Returns
    -------
    scalar or array
        In the library and on the device of `x`.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> print(exact.vector_norm(np.array([3e-200, 4e-200])))
    5e-200
    """
    spread = _real_spread(x, "x", "vector_norm", group)
    operand = spread.operand
    if isinstance(ord, bool) or ord != 2:
        raise ValueError(f"ord must be 2, not {ord!r}")
    form = format_of(dtype)
    shape = _reduced_shape(operand.shape, axis, keepdims)
    [half] = operand.halves()
    state = spread.combined(accumulated(DOT, half, half))
    return give_values(operand.home, [_statistics.norm_of(state, form=form)], form, shape)


def _on_device(operand: Operand, form: str, shape: tuple[int, ...]) -> Any:
    from korvex.exact._device_state import rounded

    assert operand.device is not None
    jobs = [(SUM, half, None) for half in operand.halves()]
    return rounded(operand.device, jobs, form, shape)


def _real_spread(x: Any, name: str, function: str, group: Any) -> Spread:
    spread = as_spread(x, name, group)
    if spread.operand.is_complex:
        raise TypeError(f"{name} is complex, and {function} takes real arrays only")
    return spread


# --- The axis


def _reduced_shape(shape: tuple[int, ...], axis: Axis, keepdims: bool) -> tuple[int, ...]:
    """The shape of a result over the whole array; any other axis is refused."""
    if not isinstance(keepdims, (bool, np.bool_)):
        raise TypeError(f"keepdims must be a bool, not {type(keepdims).__name__}")
    if axis is not None:
        _check_whole(len(shape), axis)
    return (1,) * len(shape) if keepdims else ()


def _check_whole(dimensions: int, axis: int | tuple[int, ...]) -> None:
    axes = axis if isinstance(axis, tuple) else (axis,)
    for each in axes:
        if isinstance(each, (bool, np.bool_)) or not isinstance(each, (int, np.integer)):
            raise TypeError(f"axis must be None, an int or a tuple of them, not {axis!r}")
        if not -dimensions <= each < dimensions:
            raise ValueError(f"axis {each} is out of range for {_axes(dimensions)}")
    positive = sorted(each % dimensions for each in axes)
    if len(set(positive)) < len(positive):
        raise ValueError(f"axis {axis} names an axis twice")
    if len(positive) < dimensions:
        raise ValueError(
            f"axis {axis} of {_axes(dimensions)} is not supported yet: korvex.exact reduces whole "
            "arrays, axis=None"
        )


def _axes(dimensions: int) -> str:
    return f"an array with {dimensions} {'axis' if dimensions == 1 else 'axes'}"
