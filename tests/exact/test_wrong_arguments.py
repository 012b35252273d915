# SPDX-License-Identifier: Apache-2.0
"""An argument that cannot be honoured is an error that names it."""

import math
import re

import numpy as np
import pytest
import torch
from exact_arrays import EMULATED
from numpy.exceptions import AxisError

from korvex import exact

V, M, B = np.ones(3), np.ones((2, 3)), np.ones((2, 2, 2))
Z = np.array([1j])
DTYPES = "dtype must be float64, float32, float16 or bfloat16"

GALLERY = [
    (lambda: exact.sum(V, 0), TypeError, "takes 1 positional argument but 2 were given"),
    (lambda: exact.sum(x=V), TypeError, "positional-only argument"),
    (lambda: exact.sum(V, out=V), TypeError, "unexpected keyword argument 'out'"),
    (lambda: exact.sum(V, where=V), TypeError, "unexpected keyword argument 'where'"),
    # The axis
    (lambda: exact.sum(V, axis=1), AxisError, "axis 1 is out of range for an array with 1 axis"),
    (lambda: exact.sum(V, axis=-2), AxisError, "axis -2 is out of range for an array with 1 axis"),
    (lambda: exact.var(B, axis=(0, 3)), AxisError, "axis 3 is out of range for an array with 3"),
    (lambda: exact.std(B, axis=-4), AxisError, "axis -4 is out of range for an array with 3 axes"),
    (
        lambda: exact.sum(np.float64(1), axis=0),
        AxisError,
        "axis 0 is out of range for an array with 0 axes",
    ),
    (lambda: exact.var(M, axis=(0, 0)), ValueError, "axis (0, 0) names an axis twice"),
    (lambda: exact.mean(M, axis=(1, -1)), ValueError, "axis (1, -1) names an axis twice"),
    (
        lambda: exact.sum(M, axis=(0, None)),
        TypeError,
        "axis must be None, an int or a tuple of them, not (0, None)",
    ),
    (
        lambda: exact.sum(V, axis=0.0),
        TypeError,
        "axis must be None, an int or a tuple of them, not 0.0",
    ),
    (
        lambda: exact.sum(V, axis=False),
        TypeError,
        "axis must be None, an int or a tuple of them, not False",
    ),
    (
        lambda: exact.vector_norm(V, axis=[0]),
        TypeError,
        "axis must be None, an int or a tuple of them, not [0]",
    ),
    (lambda: exact.sum(V, keepdims=1), TypeError, "keepdims must be a bool, not int"),
    (lambda: exact.sum(V, keepdims=None), TypeError, "keepdims must be a bool, not NoneType"),
    # The dtype
    (lambda: exact.sum(V, dtype="float8"), ValueError, f"{DTYPES}, not 'float8'"),
    (lambda: exact.sum(V, dtype=np.int64), ValueError, f"{DTYPES}, not <class 'numpy.int64'>"),
    (lambda: exact.sum(V, dtype=float), ValueError, f"{DTYPES}, not <class 'float'>"),
    (lambda: exact.sum(V, dtype=torch.int8), ValueError, f"{DTYPES}, not torch.int8"),
    (lambda: exact.sum(V, dtype="complex128"), ValueError, f"{DTYPES}, not 'complex128'"),
    (
        lambda: exact.sum(Z, dtype="float64"),
        ValueError,
        "dtype must be complex128 or complex64 for complex arrays, not 'float64'",
    ),
    (lambda: exact.matmul(M, V, dtype=3), ValueError, f"{DTYPES}, not 3"),
    # Complex arrays
    (lambda: exact.var(Z), TypeError, "x is complex, and var takes real arrays only"),
    (lambda: exact.std(Z), TypeError, "x is complex, and std takes real arrays only"),
    (
        lambda: exact.vector_norm(Z),
        TypeError,
        "x is complex, and vector_norm takes real arrays only",
    ),
    (
        lambda: exact.cumulative_sum(Z),
        TypeError,
        "x is complex, and cumulative_sum takes real arrays only",
    ),
    # The correction
    (lambda: exact.var(V, correction="1"), TypeError, "correction must be a real number, not str"),
    (
        lambda: exact.var(V, correction=True),
        TypeError,
        "correction must be a real number, not bool",
    ),
    (
        lambda: exact.std(V, correction=1j),
        TypeError,
        "correction must be a real number, not complex",
    ),
    (
        lambda: exact.std(V, correction=None),
        TypeError,
        "correction must be a real number, not None",
    ),
    (lambda: exact.var(V, correction=math.nan), ValueError, "correction must be finite, not nan"),
    (lambda: exact.std(V, correction=math.inf), ValueError, "correction must be finite, not inf"),
    (lambda: exact.var(V, ddof=1), TypeError, "unexpected keyword argument 'ddof'"),
    # The norm
    (lambda: exact.vector_norm(V, ord=1), ValueError, "ord must be 2, not 1"),
    (lambda: exact.vector_norm(V, ord=math.inf), ValueError, "ord must be 2, not inf"),
    (lambda: exact.vector_norm(V, ord="fro"), ValueError, "ord must be 2, not 'fro'"),
    # Products
    (lambda: exact.vecdot(V), TypeError, "missing 1 required positional argument: 'y'"),
    (lambda: exact.vecdot(V, V[:2]), ValueError, "x has 3 elements, and y has 2"),
    (lambda: exact.vecdot(V, V[:1]), ValueError, "x has 3 elements, and y has 1"),
    (lambda: exact.vecdot(M, V[:2]), ValueError, "x has 3 elements, and y has 2"),
    (lambda: exact.vecdot(M, V, axis=0), ValueError, "x has 2 elements, and y has 3"),
    (
        lambda: exact.vecdot(V, np.float64(1)),
        AxisError,
        "axis -1 is out of range for y with 0 axes",
    ),
    (lambda: exact.vecdot(V, V, axis=1), AxisError, "axis 1 is out of range for x with 1 axis"),
    (lambda: exact.vecdot(M, V, axis=-2), AxisError, "axis -2 is out of range for y with 1 axis"),
    (
        lambda: exact.vecdot(B, np.ones((3, 2))),
        ValueError,
        "x has the shape (2, 2, 2) and y has (3, 2): but for axis -1 they must be equal, or 1 "
        "where they are not",
    ),
    (lambda: exact.vecdot(V, V, axis=None), TypeError, "axis must be an int, not NoneType"),
    (
        lambda: exact.vecdot(V, torch.ones(3)),
        TypeError,
        "x is a NumPy array and y is a torch tensor on the CPU: both must be of one kind",
    ),
    (
        lambda: exact.matmul(V, np.float64(2)),
        ValueError,
        "b has 0 axes: korvex.exact.matmul takes matrices and vectors",
    ),
    (lambda: exact.matmul(B, V), ValueError, "a has rows of 2 elements, and b has columns of 3"),
    (
        lambda: exact.matmul(B, np.ones((3, 2, 2))),
        ValueError,
        "a has batches of the shape (2,) and b of (3,): they must be equal, or 1 where they are "
        "not",
    ),
    (
        lambda: exact.matmul(M, M),
        ValueError,
        "a has rows of 3 elements, and b has columns of 2",
    ),
    # Running sums
    (lambda: exact.cumulative_sum(M), ValueError, "x has 2 axes: say which by axis="),
    (
        lambda: exact.cumulative_sum(np.float64(1)),
        ValueError,
        "x has 0 axes: korvex.exact.cumulative_sum needs one",
    ),
    (
        lambda: exact.cumulative_sum(M, axis=2),
        AxisError,
        "axis 2 is out of range for an array with 2 axes",
    ),
    (
        lambda: exact.cumulative_sum(M, axis=(0, 1)),
        TypeError,
        "axis must be None or an int, not tuple",
    ),
    (
        lambda: exact.cumulative_sum(V, axis=1),
        AxisError,
        "axis 1 is out of range for an array with 1 axis",
    ),
    (lambda: exact.cumulative_sum(V, axis="0"), TypeError, "axis must be None or an int, not str"),
    (
        lambda: exact.cumulative_sum(V, include_initial=1),
        TypeError,
        "include_initial must be a bool, not int",
    ),
    # Functions of an element
    (lambda: exact.exp(), TypeError, "missing 1 required positional argument: 'x'"),
    (lambda: exact.exp(x=V), TypeError, "positional-only argument"),
    (lambda: exact.log(V, 2), TypeError, "takes 1 positional argument but 2 were given"),
    (lambda: exact.log(V, out=V), TypeError, "unexpected keyword argument 'out'"),
    (lambda: exact.sqrt(V, dtype=np.int64), ValueError, f"{DTYPES}, not <class 'numpy.int64'>"),
    (lambda: exact.tanh(V, dtype="complex128"), ValueError, f"{DTYPES}, not 'complex128'"),
    (lambda: exact.exp(Z), TypeError, "x is complex, and exp takes real arrays only"),
    (lambda: exact.log(Z), TypeError, "x is complex, and log takes real arrays only"),
    (lambda: exact.sqrt(Z), TypeError, "x is complex, and sqrt takes real arrays only"),
    (lambda: exact.sigmoid(Z), TypeError, "x is complex, and sigmoid takes real arrays only"),
    (lambda: exact.tanh(Z), TypeError, "x is complex, and tanh takes real arrays only"),
    (lambda: exact.exp(2.0), TypeError, "x must be an array, not float: numpy.asarray makes one"),
    (lambda: exact.sigmoid([0.5]), TypeError, "x must be an array, not list"),
    (lambda: exact.sqrt(V.astype(">f8")), TypeError, "which is not in this machine's byte order"),
    (lambda: exact.log(V.astype(object)), TypeError, "x has the dtype object"),
    (lambda: exact.tanh(np.ma.array(V)), TypeError, "x is masked: give x.compressed()"),
    (
        lambda: exact.exp(torch.ones(2, requires_grad=True)),
        TypeError,
        "x requires grad, and no gradient is computed here: give x.detach()",
    ),
    # Threads
    (lambda: exact.set_threads(-1), ValueError, "threads must be from 0 to 2147483647, not -1"),
    (lambda: exact.set_threads(2**31), ValueError, "threads must be from 0 to 2147483647, not "),
    (lambda: exact.set_threads(True), TypeError, "threads must be an int, not bool"),
    (lambda: exact.set_threads(None), TypeError, "threads must be an int, not NoneType"),
]


@pytest.mark.parametrize(("call", "kind", "text"), GALLERY, ids=[row[2][:60] for row in GALLERY])
def test_error(call, kind, text):
    with pytest.raises(kind, match=re.escape(text)):
        call()


@pytest.mark.skipif(not EMULATED, reason="memory of a GPU is refused earlier")
def test_two_devices():
    with pytest.raises(TypeError) as error:
        exact.matmul(torch.ones(2, 3, device="cuda"), torch.ones(3))
    assert str(error.value) == (
        "a is a torch tensor on the emulated device and b is a torch tensor on the CPU: both must "
        "be of one kind"
    )


def test_a_dtype_that_the_library_lacks():
    array_api_strict = pytest.importorskip("array_api_strict")
    x = array_api_strict.asarray(V)
    with pytest.raises(ValueError) as error:
        exact.sum(x, dtype="float16")
    assert str(error.value) == "dtype float16 does not exist in array_api_strict"


def test_bfloat16_of_numpy_needs_its_package(monkeypatch):
    monkeypatch.setitem(__import__("sys").modules, "ml_dtypes", None)
    with pytest.raises(ValueError) as error:
        exact.sum(V, dtype="bfloat16")
    assert str(error.value) == (
        "dtype bfloat16 of NumPy comes from the package ml_dtypes, which is not installed"
    )
    assert exact.sum(torch.ones(2), dtype="bfloat16").dtype == torch.bfloat16
