# SPDX-License-Identifier: Apache-2.0
"""Functions over a whole array or along axes: exact inside, one correct rounding of each output.

Names and keywords are those of the Python array API standard; a result is as the input is. What is
not there, an axis of what lies in several processes, is an error that says so.
"""

from __future__ import annotations

from fractions import Fraction
from typing import Any

from numpy import float64, ndarray

from korvex.exact import _native, _statistics, _threads
from korvex.exact._arrays import REAL_CHARACTERS, Operand
from korvex.exact._axes import Axes, Axis, axes_of, reduce_along, reduce_one_by_one, size_of
from korvex.exact._homes import format_of, give_values
from korvex.exact._operators import takes_operator, through_operator
from korvex.exact._spread import Spread, as_spread
from korvex.exact._state import DOT, MOMENTS, SUM, accumulated


def sum(
    x: Any,
    /,
    *,
    axis: Axis = None,
    dtype: Any = None,
    keepdims: bool = False,
    group: Any = None,
) -> Any:
    """Return the sum of all elements, or of those along axes, correctly rounded.

    Parameters
    ----------
    x : array
        Real or complex, of any shape; of no elements the sum is 0. Of a complex array the halves
        are summed apart.
    axis : None, int or tuple of ints, optional
        The axes that are summed over, counted from the end where negative; None is all of them, and
        ``()`` none, so that each element is rounded by itself.
    dtype : dtype or str, optional
        float64 (default), float32, float16 or bfloat16: what the exact value is rounded to, once.
        For complex arrays complex128 (default) or complex64.
    keepdims : bool
        Whether the axes that are summed over stay in the result, with length 1.
    group : ProcessGroup, optional
        Of `torch.distributed`: the sum is over the arrays that all of its processes give, real ones
        of any shapes and dtypes, and is returned in each. ``torch.distributed.group.WORLD`` is the
        default group; None stands for this process alone. Only with all axes.

    Returns
    -------
    scalar or array
        In the library and on the device of `x`, with the axes that are left.

    Raises
    ------
    AxisError
        If an axis is out of range: a ValueError and an IndexError.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> x = np.array([1e16, 1.0, -1e16])
    >>> print(exact.sum(x), np.sum(x))
    1.0 0.0
    >>> print(exact.sum(np.array([2**53, 1, 1])), exact.sum(np.array([0.5, 2j])))
    9007199254740994.0 (0.5+2j)

    Along an axis each output is rounded once, with the same bits for every layout:

    >>> m = np.array([[1e16, 1.0, -1e16], [0.1, 0.2, 0.3]])
    >>> print(exact.sum(m, axis=1), exact.sum(m, axis=0, keepdims=True).shape)
    [1.  0.6] (1, 3)
    """
    # The whole call should cost little more than numpy.sum of a few elements: such arrays first.
    if type(x) is ndarray and axis is dtype is group is None and keepdims is False:
        if x.dtype.char in REAL_CHARACTERS and x.dtype.isnative:
            return float64(_native.sum(x, "float64", _threads.count))
    if takes_operator(x):
        options = {"axis": axis, "dtype": dtype, "keepdims": keepdims}
        return through_operator("sum", x, group=group, **options)
    spread = as_spread(x, "x", group)
    operand = spread.operand
    form = format_of(dtype, operand.is_complex)
    axes = axes_of(operand.shape, axis, keepdims)
    if not axes.is_whole:
        return reduce_along(_native.TOTAL, spread, axes, form)
    if operand.device is not None and spread.is_one_array:
        return _on_device(operand, form, axes.shape)
    if operand.device is not None or spread.groups:
        states = [spread.combined(accumulated(SUM, half)) for half in operand.halves()]
        values = [state.limbs(form=form)[0] for state in states]
    else:
        values = [
            _native.sum(half.values, form, _threads.count, half.format) for half in operand.halves()
        ]
    return give_values(operand.home, values, form, axes.shape)


def mean(
    x: Any,
    /,
    *,
    axis: Axis = None,
    dtype: Any = None,
    keepdims: bool = False,
    group: Any = None,
) -> Any:
    """Return the mean of all elements or along axes: the exact sum over their number, rounded once.

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
    >>> print(exact.mean(np.array([[1e308, 1e308], [1.0, 2.0]]), axis=-1))
    [1.0e+308 1.5e+000]
    """
    if takes_operator(x):
        options = {"axis": axis, "dtype": dtype, "keepdims": keepdims}
        return through_operator("mean", x, group=group, **options)
    spread = as_spread(x, "x", group)
    operand = spread.operand
    form = format_of(dtype, operand.is_complex)
    axes = axes_of(operand.shape, axis, keepdims)
    if not axes.is_whole:
        return reduce_along(_native.MEAN, spread, axes, form)
    states = [spread.combined(accumulated(SUM, half)) for half in operand.halves()]
    values = [_statistics.mean_of(state, form) for state in states]
    return give_values(operand.home, values, form, axes.shape)


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
    """Return the variance of all elements, or of those along axes, correctly rounded.

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
    >>> print(exact.var(x.reshape(2, 2), axis=0))
    [20.25 20.25]
    """
    if takes_operator(x):
        options = {"axis": axis, "dtype": dtype, "keepdims": keepdims}
        return through_operator("var", x, group=group, correction=correction, **options)
    spread = _real_spread(x, "x", "var", group)
    operand = spread.operand
    form = format_of(dtype)
    axes = axes_of(operand.shape, axis, keepdims)
    taken = _statistics.checked_correction(correction)
    if not axes.is_whole:
        return _spread_along(_native.VARIANCE, spread, axes, taken, form)
    state = spread.combined(accumulated(MOMENTS, *operand.halves()))
    value = _statistics.variance_of(state, taken, form)
    return give_values(operand.home, [value], form, axes.shape)


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
    """Return the standard deviation of all elements or along axes, correctly rounded.

    It is the root of the exact variance.

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
    >>> print(exact.std(np.array([[1.0, 2.0], [3.0, 9.0]]), axis=1, correction=1))
    [0.70710678 4.24264069]
    """
    if takes_operator(x):
        options = {"axis": axis, "dtype": dtype, "keepdims": keepdims}
        return through_operator("std", x, group=group, correction=correction, **options)
    spread = _real_spread(x, "x", "std", group)
    operand = spread.operand
    form = format_of(dtype)
    axes = axes_of(operand.shape, axis, keepdims)
    taken = _statistics.checked_correction(correction)
    if not axes.is_whole:
        return _spread_along(_native.DEVIATION, spread, axes, taken, form)
    state = spread.combined(accumulated(MOMENTS, *operand.halves()))
    value = _statistics.deviation_of(state, taken, form)
    return give_values(operand.home, [value], form, axes.shape)


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
    """Return the Euclidean norm of all elements, or of those along axes, correctly rounded.

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
    >>> print(exact.vector_norm(np.array([[3e-200, 4e-200], [3e200, 4e200]]), axis=1))
    [5.e-200 5.e+200]
    """
    if takes_operator(x):
        options = {"axis": axis, "dtype": dtype, "keepdims": keepdims}
        return through_operator("vector_norm", x, group=group, ord=ord, **options)
    spread = _real_spread(x, "x", "vector_norm", group)
    operand = spread.operand
    if isinstance(ord, bool) or ord != 2:
        raise ValueError(f"ord must be 2, not {ord!r}")
    form = format_of(dtype)
    axes = axes_of(operand.shape, axis, keepdims)
    if not axes.is_whole:
        return reduce_along(_native.NORM, spread, axes, form)
    [half] = operand.halves()
    state = spread.combined(accumulated(DOT, half, half))
    return give_values(operand.home, [_statistics.norm_of(state, form=form)], form, axes.shape)


def _on_device(operand: Operand, form: str, shape: tuple[int, ...]) -> Any:
    from korvex.exact._device_state import rounded

    assert operand.device is not None
    jobs = [(SUM, half, None) for half in operand.halves()]
    return rounded(operand.device, jobs, form, shape)


def _spread_along(function: int, spread: Spread, axes: Axes, taken: Fraction, form: str) -> Any:
    """The variance or its root along axes."""
    count = size_of(spread.operand.shape, axes.reduced)
    factors = _statistics.divisor_of(count, taken)
    if factors is not None:
        return reduce_along(function, spread, axes, form, *factors)
    is_variance = function == _native.VARIANCE
    rounded = _statistics.variance_of if is_variance else _statistics.deviation_of
    return reduce_one_by_one(spread, axes, form, lambda state: rounded(state, taken, form))


def _real_spread(x: Any, name: str, function: str, group: Any) -> Spread:
    spread = as_spread(x, name, group)
    if spread.operand.is_complex:
        raise TypeError(f"{name} is complex, and {function} takes real arrays only")
    return spread
