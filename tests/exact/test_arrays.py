# SPDX-License-Identifier: Apache-2.0
"""Arrays of every library and layout give the same bits, in the library that they came from."""

import re

import array_api_strict
import ml_dtypes
import numpy as np
import pytest
import torch
from exact_arrays import (
    LIBRARIES,
    REAL_DTYPES,
    TORCH,
    DLPackOnly,
    drawn,
    extremes,
    numpy_dtype,
    to_dlpack,
    to_strict,
    to_torch,
)
from exact_oracle import bits, numbers_of

from korvex import exact

FORMATS = ["float64", "float32", "float16", "bfloat16"]
REDUCTIONS = [exact.sum, exact.mean, exact.var, exact.std, exact.vector_norm]

# array-api-strict has neither of the two formats of 16 bits.
STRICT_DTYPES = [name for name in REAL_DTYPES if not name.endswith("float16")]


def cases():
    for library in LIBRARIES:
        names = STRICT_DTYPES if library == "array_api_strict" else REAL_DTYPES
        yield from ((library, name) for name in names)


def value(result):
    """A scalar of any library as a Python number."""
    return (
        numbers_of(np.asarray(result))[0] if isinstance(result, np.generic) else result.__float__()
    )


# --- The same bits


@pytest.mark.parametrize(("library", "name"), [*cases()])
def test_bits_are_those_of_numpy(library, name):
    x = np.concatenate([extremes(name), drawn(name, 50)])
    given = LIBRARIES[library](x)
    for function in REDUCTIONS:
        assert bits(value(function(given))) == bits(value(function(x)))
    assert bits(value(exact.vecdot(given, given))) == bits(value(exact.vecdot(x, x)))
    for kind in (exact.Sum, exact.Moments):
        assert kind.from_chunks([given]) == kind.from_chunks([x])
    assert exact.Dot.from_chunks([(given, x)]) == exact.Dot.from_chunks([(x, x)])


def test_scalars_of_numpy_are_arrays_without_axes():
    for scalar in (np.float64(0.1), np.int8(3), np.bool_(True), ml_dtypes.bfloat16(1.5)):
        assert exact.sum(scalar) == float(scalar)
    assert exact.sum(np.complex64(1j)) == 1j


def layouts(x):
    """The same elements in other places of memory, as arrays of two axes."""
    rows = x.reshape(6, 8)
    wide = np.zeros((12, 24), x.dtype)
    wide[1::2, 2::3] = rows
    packed = np.zeros(x.size, np.dtype([("before", "u1"), ("x", x.dtype)]))
    packed["x"] = x
    frozen = rows.copy()
    frozen.flags.writeable = False
    return {
        "columns first": np.asfortranarray(rows),
        "strided": wide[1::2, 2::3],
        "backwards": rows[::-1, ::-1].copy()[::-1, ::-1],
        "unaligned": packed["x"].reshape(6, 8),
        "read-only": frozen,
        "three axes": rows.reshape(2, 3, 8).transpose(2, 0, 1),
        "memory map": rows.view(np.memmap),
    }


@pytest.mark.parametrize("name", REAL_DTYPES)
@pytest.mark.parametrize("layout", layouts(np.zeros(48)))
def test_layout_plays_no_part(name, layout):
    x = drawn(name, 48)
    given = layouts(x)[layout]
    for function in REDUCTIONS:
        assert bits(value(function(given))) == bits(value(function(x)))
    assert exact.Sum.from_chunks([given]) == exact.Sum.from_chunks([x])
    if layout != "three axes":
        rows = x.reshape(6, 8)
        pair = exact.Dot.from_chunks([(given, rows)])
        assert pair == exact.Dot.from_chunks([(rows, given)]) == exact.Dot.from_chunks([(x, x)])
        assert np.array_equal(exact.matmul(given, rows.T), exact.matmul(rows, rows.T))
        vector = given[:, 3]
        assert np.array_equal(
            exact.cumulative_sum(vector), exact.cumulative_sum(np.array(rows[:, 3]))
        )


@pytest.mark.parametrize("name", REAL_DTYPES)
def test_one_element_may_stand_for_many(name):
    x = drawn(name, 3)
    spread = np.broadcast_to(x, (1000, 3))
    assert exact.Sum.from_chunks([spread]) == exact.Sum.from_chunks([x] * 1000)
    assert exact.Dot.from_chunks([(spread, spread)]) == exact.Dot.from_chunks([(x, x)] * 1000)
    assert exact.sum(np.broadcast_to(x[:1], (2000,))) == exact.sum(np.repeat(x[:1], 2000))


@pytest.mark.parametrize("make", TORCH)
def test_views_of_tensors(make):
    x = drawn("float32", 48).reshape(6, 8)
    tensor = make(x)
    for given, array in [
        (tensor.T, x.T),
        (tensor[1::2, ::3], x[1::2, ::3]),
        (tensor[0].expand(5, 8), np.broadcast_to(x[0], (5, 8))),
        (tensor[2, 3], x[2, 3]),
        (tensor[:0], x[:0]),
    ]:
        assert exact.Sum.from_chunks([given]) == exact.Sum.from_chunks([array])
    assert exact.matmul(tensor, tensor.T).tolist() == exact.matmul(x, x.T).tolist()
    z = make(drawn("float64", 8)).to(torch.complex128) * (1 + 2j)
    assert exact.sum(z.conj()).item() == exact.sum(z).item().conjugate()
    assert exact.sum(z.conj().imag).item() == -exact.sum(z.imag).item()


# --- Results are as the input is


@pytest.mark.parametrize("form", FORMATS)
def test_results_of_numpy(form):
    x = drawn("float32", 6)
    wanted = numpy_dtype(form)
    for function in REDUCTIONS:
        result = function(x, dtype=form)
        assert type(result) is wanted.type
        kept = function(x, dtype=form, keepdims=True)
        assert type(kept) is np.ndarray and kept.shape == (1,) and kept.dtype == wanted
    assert exact.cumulative_sum(x, dtype=wanted).dtype == wanted
    assert exact.matmul(x[:, None], x[None], dtype=wanted.type).dtype == wanted
    assert type(exact.vecdot(x, x, dtype=form)) is wanted.type


@pytest.mark.parametrize("form", FORMATS)
@pytest.mark.parametrize("make", TORCH)
def test_results_of_torch(make, form):
    x = make(drawn("float32", 6))
    dtype = getattr(torch, form)
    results = [function(x, dtype=dtype) for function in REDUCTIONS] + [
        exact.vecdot(x, x, dtype=form)
    ]
    for result in results:
        assert result.shape == ()
    results += [exact.cumulative_sum(x, dtype=form), exact.matmul(x[:, None], x[None], dtype=form)]
    results += [exact.sum(x, dtype=form, keepdims=True)]
    for result in results:
        assert type(result) is type(x) and result.device == x.device and result.dtype == dtype
    host = drawn("float32", 6)
    for result, function in zip(results, REDUCTIONS, strict=False):
        assert bits(result.item()) == bits(float(function(host, dtype=form)))
    running = exact.cumulative_sum(host, dtype=form)
    assert results[-3].tolist() == numbers_of(running)


def test_result_of_torch_ignores_its_default_device_and_dtype():
    x = to_torch(drawn("float64", 3))
    before = torch.get_default_dtype()
    torch.set_default_dtype(torch.float16)
    try:
        with torch.device("meta"):
            result = exact.sum(x)
    finally:
        torch.set_default_dtype(before)
    assert result.device.type == "cpu" and result.dtype == torch.float64


def test_results_of_the_array_api():
    x = to_strict(drawn("float32", 6))
    results = [function(x) for function in REDUCTIONS] + [exact.vecdot(x, x)]
    results += [exact.cumulative_sum(x), exact.matmul(x[:, None], x[None, :])]
    for result in results:
        assert isinstance(result, type(x)) and result.dtype == array_api_strict.float64
        assert result.device == x.device
    single = exact.sum(x, dtype=array_api_strict.float32, keepdims=True)
    assert single.dtype == array_api_strict.float32 and single.shape == (1,)
    z = array_api_strict.asarray(np.array([1j, 2]))
    assert exact.sum(z).dtype == array_api_strict.complex128
    assert complex(exact.vecdot(z, z)) == 5


def test_results_of_what_has_dlpack_alone_are_numpys():
    x = to_dlpack(drawn("bfloat16", 5))
    assert type(exact.sum(x)) is np.float64
    assert exact.cumulative_sum(x).dtype == np.float64


def test_arrow_arrays_have_dlpack():
    pyarrow = pytest.importorskip("pyarrow")
    x = drawn("float64", 100)
    array = pyarrow.array(x)
    assert exact.sum(array) == exact.sum(x)
    assert exact.Sum.from_chunks([array[:37], array[37:]]) == exact.Sum.from_chunks([x])
    with pytest.raises(TypeError) as error:
        exact.sum(pyarrow.array([1.0, None]))
    assert str(error.value) == "x has 1 null: give x.drop_null()"


def test_inputs_are_left_alone():
    for make in (np.array, *TORCH):
        x = make(drawn("float64", 20))
        before = numbers_of(x)
        for function in (*REDUCTIONS, exact.cumulative_sum):
            function(x)
        exact.vecdot(x, x)
        assert numbers_of(x) == before


# --- What is refused


class OnDevice:
    """DLPack's answer of an array in another place."""

    def __init__(self, kind):
        self.kind = kind

    def __dlpack_device__(self):
        return self.kind, 0

    def __dlpack__(self, **arguments):
        raise AssertionError("asked for")


class Wrapped(torch.Tensor):
    @classmethod
    def __torch_dispatch__(cls, func, types, args=(), kwargs=None):
        raise AssertionError("asked for")


GPU = (
    "x is in the memory of a GPU, and korvex.exact takes tensors of torch and arrays of CuPy "
    "there: give torch.from_dlpack(x) or cupy.from_dlpack(x)"
)
TAKEN = "bool, integers, float16, bfloat16, float32, float64, complex64 and complex128"
REFUSED = {
    "list": (
        lambda: [1.0],
        "x must be an array, not list: numpy.asarray makes one of numbers and lists",
    ),
    "float": (
        lambda: 1.0,
        "x must be an array, not float: numpy.asarray makes one of numbers and lists",
    ),
    "None": (
        lambda: None,
        "x must be an array, not NoneType: numpy.asarray makes one of numbers and lists",
    ),
    "str": (
        lambda: "1",
        "x must be an array, not str: numpy.asarray makes one of numbers and lists",
    ),
    "bytes": (
        lambda: b"1",
        "x must be an array, not bytes: numpy.asarray makes one of numbers and lists",
    ),
    "object": (
        lambda: np.array([1, None]),
        f"x has the dtype object, and korvex.exact takes {TAKEN}",
    ),
    "text": (lambda: np.array(["a"]), f"x has the dtype <U1, and korvex.exact takes {TAKEN}"),
    "time": (
        lambda: np.zeros(2, "m8[s]"),
        f"x has the dtype timedelta64[s], and korvex.exact takes {TAKEN}",
    ),
    "record": (
        lambda: np.zeros(2, [("a", "f8")]),
        f"x has the dtype [('a', '<f8')], and korvex.exact takes {TAKEN}",
    ),
    "long double": (
        lambda: np.zeros(2, np.longdouble),
        f"x has the dtype {np.dtype(np.longdouble)}, and korvex.exact takes {TAKEN}",
    ),
    "float8": (
        lambda: np.zeros(2, ml_dtypes.float8_e5m2),
        f"x has the dtype float8_e5m2, and korvex.exact takes {TAKEN}",
    ),
    "byte order": (
        lambda: np.zeros(2, ">f8"),
        "x has the dtype >f8, which is not in this machine's byte order: give "
        'x.astype(x.dtype.newbyteorder("="))',
    ),
    "masked": (
        lambda: np.ma.masked_array([1.0], [True]),
        "x is masked: give x.compressed(), or x.filled(0)",
    ),
    "subclass": (
        lambda: np.zeros(2).view(type("Quantity", (np.ndarray,), {})),
        "x is a Quantity: numpy.asarray gives its numbers alone",
    ),
    "records": (
        lambda: np.zeros(2).view(np.recarray),
        "x is a recarray: numpy.asarray gives its numbers alone",
    ),
    "requires grad on the device": (
        lambda: torch.zeros(2, device="cuda").requires_grad_(),
        "x requires grad, and no gradient is computed here: give x.detach()",
    ),
    "sparse": (
        lambda: torch.eye(2).to_sparse(),
        "x has the layout torch.sparse_coo: give x.to_dense()",
    ),
    "meta": (
        lambda: torch.zeros(2, device="meta"),
        "x is on the device meta: give a tensor on the CPU",
    ),
    "half complex": (
        lambda: torch.view_as_complex(torch.zeros(2, 2, dtype=torch.float16)),
        f"x has the dtype torch.complex32, and korvex.exact takes {TAKEN}",
    ),
    "torch float8": (
        lambda: torch.zeros(2, dtype=torch.float8_e4m3fn),
        f"x has the dtype torch.float8_e4m3fn, and korvex.exact takes {TAKEN}",
    ),
    "wrapped": (
        lambda: torch.zeros(2).as_subclass(Wrapped),
        "x is a Wrapped, which is not one tensor in host memory: give that",
    ),
    "GPU by DLPack": (lambda: OnDevice(2), GPU),
    "managed memory": (lambda: OnDevice(13), GPU),
    "GPU by its interface": (
        lambda: type("Array", (), {"__cuda_array_interface__": {}})(),
        GPU,
    ),
    "other device": (
        lambda: OnDevice(10),
        "x is on a device of DLPack's kind 10: give one on the CPU",
    ),
}


@pytest.mark.parametrize(("make", "text"), REFUSED.values(), ids=REFUSED)
def test_refused_array(make, text):
    x = make()
    for function in (*REDUCTIONS, exact.cumulative_sum, exact.Sum().add, exact.Moments().add):
        with pytest.raises(TypeError) as error:
            function(x)
        assert str(error.value) == text
    for function in (exact.vecdot, exact.matmul, exact.Dot().add):
        with pytest.raises(TypeError) as error:
            function(x, np.zeros(2))
        assert str(error.value) in (text, re.sub(r"\bx\b", "a", text))


def test_tensors_that_require_grad_go_to_functions_with_gradients_only():
    x, ids = torch.zeros(2, requires_grad=True), torch.tensor([0, 1])
    plain = torch.zeros(2)
    calls = {
        "x": [
            lambda: exact.cumulative_sum(x),
            lambda: exact.Sum().add(x),
            lambda: exact.Moments().add(x),
            lambda: exact.Dot().add(x, plain),
            lambda: exact.index_add(x, 0, ids, plain),
        ],
        "y": [lambda: exact.Dot().add(plain, x)],
        "source": [lambda: exact.index_add(plain, 0, ids, x)],
        "weights": [lambda: exact.bincount(ids, weights=x)],
    }
    for name, refused in calls.items():
        text = f"{name} requires grad, and no gradient is computed here: give {name}.detach()"
        for call in refused:
            with pytest.raises(TypeError) as error:
                call()
            assert str(error.value) == text
    for function in REDUCTIONS:
        assert function(x).requires_grad


def test_a_parameter_is_read_once_detached():
    x = torch.nn.Parameter(torch.tensor([1.0, 2.0]))
    assert exact.sum(x.detach()) == 3
    assert exact.sum(torch.nn.Parameter(torch.tensor([1.0, 2.0]), requires_grad=False)) == 3


def test_an_object_with_a_dtype_that_only_dlpack_knows():
    given = DLPackOnly(torch.tensor([1.5, 2.0], dtype=torch.bfloat16))
    assert exact.sum(given) == 3.5
    assert exact.vecdot(given, np.array([2, 1])) == 5
    assert exact.mean(given, dtype="bfloat16") == 1.75
