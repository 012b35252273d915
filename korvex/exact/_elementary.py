# SPDX-License-Identifier: Apache-2.0
"""Functions of each element, correctly rounded: the exact value rounded once to the result's dtype.

Results keep the order of axes in memory that the array has, as those of NumPy and torch do.
"""

from __future__ import annotations

import functools
from typing import Any

import numpy as np

from korvex.exact import _device_elementary, _native, _threads
from korvex.exact._arrays import Real, as_operand
from korvex.exact._axes import viewable
from korvex.exact._homes import Array, empty, format_of


def exp(x: Any, /, *, dtype: Any = None) -> Any:
    """Return e to the power of each element, correctly rounded.

    Parameters
    ----------
    x : array
        Real, of any shape and dtype. Elements are taken as they are, 64-bit integers too.
    dtype : dtype or str, optional
        float64 (default), float32, float16 or bfloat16: what the exact value is rounded to, once.

    Returns
    -------
    scalar or array
        Of the shape of `x`, in its library and on its device. Of -inf it is 0, of inf it is inf,
        of NaN it is NaN; what is too large becomes inf, and what is too small 0.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> print(exact.exp(np.array([-np.inf, 0.0, 1.0, 710.0])))
    [0.         1.         2.71828183        inf]

    Rounding to float32 once is not the same as rounding the float64 result again:

    >>> x = np.array([2.0**-30 * (1 + 3 * 2.0**-24)])
    >>> print(exact.tanh(x).astype(np.float32) * 2**30, exact.tanh(x, dtype="float32") * 2**30)
    [1.0000002] [1.0000001]
    """
    return _mapped("exp", _native.EXP, x, dtype)


def log(x: Any, /, *, dtype: Any = None) -> Any:
    """Return the natural logarithm of each element, correctly rounded.

    Parameters
    ----------
    x : array
        Real, of any shape and dtype. 64-bit integers are not rounded to float64 first.
    dtype : dtype or str, optional
        As of `exp`.

    Returns
    -------
    scalar or array
        Of the shape of `x`, in its library and on its device. Of both zeros it is -inf, of negative
        elements NaN, of inf it is inf; of 1 it is +0.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> print(exact.log(np.array([0.0, 1.0, 10.0, np.inf])))
    [      -inf 0.         2.30258509        inf]
    """
    return _mapped("log", _native.LOG, x, dtype)


def sqrt(x: Any, /, *, dtype: Any = None) -> Any:
    """Return the square root of each element, correctly rounded.

    Parameters
    ----------
    x : array
        Real, of any shape and dtype. 64-bit integers are not rounded to float64 first.
    dtype : dtype or str, optional
        As of `exp`.

    Returns
    -------
    scalar or array
        Of the shape of `x`, in its library and on its device. Of -0 it is -0, of negative elements
        NaN, of inf it is inf.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> print(exact.sqrt(np.array([2.0, 9.0, -1.0])))
    [1.41421356 3.                nan]
    """
    return _mapped("sqrt", _native.SQRT, x, dtype)


def sigmoid(x: Any, /, *, dtype: Any = None) -> Any:
    """Return 1 / (1 + exp(-x)) for each element, correctly rounded.

    Parameters
    ----------
    x : array
        Real, of any shape and dtype.
    dtype : dtype or str, optional
        As of `exp`.

    Returns
    -------
    scalar or array
        Of the shape of `x`, in its library and on its device. Of -inf it is 0, of inf it is 1.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> print(exact.sigmoid(np.array([-745.0, 0.0, 1.0, 40.0])))
    [4.94065646e-324 5.00000000e-001 7.31058579e-001 1.00000000e+000]
    """
    return _mapped("sigmoid", _native.SIGMOID, x, dtype)


def tanh(x: Any, /, *, dtype: Any = None) -> Any:
    """Return the hyperbolic tangent of each element, correctly rounded.

    Parameters
    ----------
    x : array
        Real, of any shape and dtype.
    dtype : dtype or str, optional
        As of `exp`.

    Returns
    -------
    scalar or array
        Of the shape of `x`, in its library and on its device. It has the sign of the element, also
        where it is 0; of infinities it is -1 and 1.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> print(exact.tanh(np.array([-np.inf, -0.0, 0.5])))
    [-1.         -0.          0.46211716]
    """
    return _mapped("tanh", _native.TANH, x, dtype)


def _mapped(name: str, function: int, x: Any, dtype: Any) -> Any:
    operand = as_operand(x, "x")
    if operand.is_complex:
        raise TypeError(f"x is complex, and {name} takes real arrays only")
    form = format_of(dtype)
    [half] = operand.halves()
    on_host = functools.partial(_on_host, function, form)
    if operand.device is not None:
        return _device_elementary.mapped(operand.device, half.values, name, form, on_host)
    return operand.home.give(on_host(viewable(half, "x")), form)


def _on_host(function: int, form: str, x: Real) -> Array:
    """The result has the axes of x in the order in which they lie in memory."""
    storage = empty((), form).dtype
    out: Array = np.empty_like(x.values, storage, subok=False)
    order = sorted(range(out.ndim), key=lambda axis: -out.strides[axis])
    view = x.values.transpose(order)
    _native.map(function, view, out.transpose(order), form, _threads.count, x.format)
    return out
