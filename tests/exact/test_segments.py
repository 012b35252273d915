# SPDX-License-Identifier: Apache-2.0
"""Sums by segment: against rational numbers and `exact.sum`, in any order, format and layout."""

import math
import re

import exact_oracle as oracle
import numpy as np
import pytest
import torch
from exact_arrays import EMULATED, LIBRARIES, MAX, REAL_DTYPES, drawn, extremes, finite, numpy_dtype
from exact_oracle import FORMATS, bits, numbers_of
from hypothesis import given
from hypothesis import strategies as st

from korvex import exact
from korvex.exact import _native

INTEGERS = [name for name in REAL_DTYPES if "int" in name]
INF, NAN = math.inf, math.nan


def expected(x, ids, segments, form="float64"):
    """Bits of the sums of a vector, in rational numbers."""
    members = [[] for _ in range(segments)]
    for value, number in zip(numbers_of(x), ids, strict=True):
        members[int(number)].append(value)
    return [bits(oracle.rounded(oracle.exact_sum(each), form)) for each in members]


def found(result):
    return [bits(float(value)) for value in np.asarray(result).reshape(-1)]


# --- Values


@pytest.mark.parametrize("form", FORMATS)
@given(pairs=st.lists(st.tuples(st.floats() | finite, st.integers(0, 3)), max_size=20))
def test_segments_against_rational_numbers(form, pairs):
    x = np.array([value for value, _ in pairs], np.float64)
    ids = np.array([number for _, number in pairs], np.int64)
    assert found(exact.segment_sum(x, ids, 5, dtype=form)) == expected(x, ids, 5, form)


@given(
    values=st.lists(st.integers(-(2**60), 2**60).map(lambda n: n * 2.0**-20) | finite, max_size=30),
    seed=st.integers(0, 2**32 - 1),
)
def test_no_order_shows(values, seed):
    generator = np.random.default_rng(seed)
    x = np.array([*values, *(-value for value in values[::2])], np.float64)
    ids = generator.integers(0, 4, x.size)
    order = generator.permutation(x.size)
    inorder = np.argsort(ids, kind="stable")
    whole = exact.segment_sum(x, ids, 4).tobytes()
    assert exact.segment_sum(x[order], ids[order], 4).tobytes() == whole
    assert exact.segment_sum(x[inorder], ids[inorder], 4).tobytes() == whole


@pytest.mark.parametrize("form", FORMATS)
@pytest.mark.parametrize("name", REAL_DTYPES)
def test_every_dtype(name, form):
    x = np.concatenate([np.tile(extremes(name), 5), drawn(name, 70)])
    ids = np.arange(x.size) * 7 % 6
    assert found(exact.segment_sum(x, ids, 7, dtype=form)) == expected(x, ids, 7, form)


@pytest.mark.parametrize("name", INTEGERS)
def test_every_dtype_of_ids(name):
    x, ids = drawn("float64", 100), np.arange(100) % 5
    whole = exact.segment_sum(x, ids, 5)
    assert np.array_equal(exact.segment_sum(x, ids.astype(name), 5), whole)
    assert np.array_equal(exact.index_add(np.zeros(5), 0, ids.astype(name), x), whole)
    assert np.array_equal(exact.bincount(ids.astype(name), weights=x), whole)
    assert np.array_equal(exact.bincount(ids.astype(name)), np.bincount(ids))


def test_every_segment_is_the_sum_of_its_elements():
    x = drawn("float64", 5000)
    x[::97] = np.array([INF, -INF, NAN, INF])[np.arange(x[::97].size) % 4]
    ids = np.random.default_rng(4).integers(0, 300, 5000)
    ones = [exact.sum(x[ids == number]) for number in range(300)]
    assert found(exact.segment_sum(x, ids, 300)) == found(ones)


def test_specials_touch_their_segments_only():
    x = np.array([INF, 1.0, NAN, 2.0, -INF, INF, -INF, 3.0, -0.0, MAX, MAX])
    ids = np.array([0, 1, 2, 3, 4, 5, 5, 5, 6, 7, 7])
    assert found(exact.segment_sum(x, ids, 9)) == found(
        [INF, 1.0, NAN, 2.0, -INF, NAN, 0.0, INF, 0.0]
    )
    assert not np.signbit(exact.segment_sum(x, ids, 9)[[6, 8]]).any()


def test_what_overflows_on_the_way_returns():
    x = np.array([MAX, 1.0, MAX, -MAX, 2.0**-1074, -MAX, 2.0**970, MAX])
    ids = np.array([0, 0, 0, 0, 0, 0, 1, 1])
    assert exact.segment_sum(x, ids, 2).tolist() == [1.0, INF]
    x = np.array([MAX, 2.0**969, MAX, -MAX])
    assert exact.segment_sum(x, np.zeros(4, int), 1).tolist() == [MAX]


def test_ties_that_a_far_last_bit_decides():
    """Some need more than two doubles; rounded to a narrow format, twice would be wrong."""
    far = 2.0**-500
    x = np.array([1.0, 2.0**-53, far, 1.0, 2.0**-53, -far, 1.0, 2.0**-53])
    ids = np.array([0, 0, 0, 1, 1, 1, 2, 2])
    assert exact.segment_sum(x, ids, 3).tolist() == [1 + 2.0**-52, 1.0, 1.0]
    x = np.array([1.0, 2.0**-24, 2.0**-60, 1.0, 2.0**-24, 2.0**-700, 1.0, 2.0**-24])
    sums = exact.segment_sum(x, ids, 3, dtype="float32").tolist()
    assert sums == [1 + 2.0**-23, 1 + 2.0**-23, 1.0]


def test_integers_beyond_doubles():
    x = np.array([2**63 - 1, 1, -(2**63), 2**62], np.int64)
    assert exact.segment_sum(x, np.array([0, 0, 0, 1]), 2).tolist() == [0.0, 2.0**62]
    initial = np.array([2**63 - 1, 2**53 + 1], np.int64)
    sums = exact.index_add(initial, 0, np.array([0, 1]), np.array([-(2**63), -(2**53)]))
    assert sums.tolist() == [-1.0, 1.0]


# --- Shapes and layouts


def by_columns(x, ids, segments):
    columns = x.reshape(x.shape[0], -1)
    sums = [exact.segment_sum(columns[:, i].copy(), ids, segments) for i in range(columns.shape[1])]
    whole = np.stack(sums, 1) if sums else np.empty((segments, 0))
    return whole.reshape(segments, *x.shape[1:])


@pytest.mark.parametrize("columns", [0, 1, 2, 3, 7, 8, 9, 16, 33, 100, 2047, 2048, 2049, 5000])
def test_rows(columns):
    x = drawn("float64", 40 * columns, columns).reshape(40, columns)
    x[:20] = np.round(x[:20] % 9)  # sums that two doubles hold, beside others
    if columns:
        x[3, columns // 2] = INF
    ids = np.arange(40) * 3 % 7
    assert found(exact.segment_sum(x, ids, 7)) == found(by_columns(x, ids, 7))


LAYOUTS = {
    "in order": lambda x: x.copy(),
    "column by column": np.asfortranarray,
    "backwards": lambda x: x[::-1, ::-1, ::-1].copy()[::-1, ::-1, ::-1],
    "axes turned round": lambda x: np.moveaxis(np.moveaxis(x, 0, 1).copy(), 1, 0),
    "every second": lambda x: np.repeat(x, 2, axis=2)[:, :, ::2],
    "rows apart": lambda x: np.concatenate([x, x], axis=1)[:, : x.shape[1]],
    "unaligned": lambda x: unaligned(x),
}


def unaligned(x):
    raw = np.zeros(x.nbytes + 1, np.uint8)
    shifted = raw[1:].view(x.dtype).reshape(x.shape)
    shifted[...] = x
    return shifted


@pytest.mark.parametrize("name", ["float64", "int64", "bfloat16", "bool"])
@pytest.mark.parametrize("turn", LAYOUTS.values(), ids=LAYOUTS)
def test_layouts(turn, name):
    x = drawn(name, 50 * 3 * 5).reshape(50, 3, 5)
    ids = np.arange(50) * 3 % 4
    whole = exact.segment_sum(x, ids, 4)
    assert whole.shape == (4, 3, 5)
    assert found(whole) == found(by_columns(x, ids, 4))
    turned = turn(x)
    turned.flags.writeable = False
    assert found(exact.segment_sum(turned, ids, 4)) == found(whole)
    assert found(exact.segment_sum(turned, ids.repeat(2)[::2], 4)) == found(whole)
    assert found(exact.segment_sum(turned, ids[::-1].copy()[::-1], 4)) == found(whole)


def test_repeated_elements():
    x = np.broadcast_to(np.array([0.1, 2.0**-80]), (1000, 2))
    ids = np.broadcast_to(np.array(1), 1000)
    assert found(exact.segment_sum(x, ids, 2)[1]) == found([exact.sum(x[:, 0]), 1000 * 2.0**-80])
    assert exact.segment_sum(x, ids, 2)[0].tolist() == [0.0, 0.0]


def test_nothing_to_add():
    assert exact.segment_sum(np.empty(0), np.empty(0, int), 3).tolist() == [0.0] * 3
    assert exact.segment_sum(np.empty((0, 2)), np.empty(0, int), 3).tolist() == [[0.0] * 2] * 3
    assert exact.segment_sum(np.empty((2, 0)), np.array([0, 1]), 3).shape == (3, 0)
    assert exact.segment_sum(np.empty((2, 0, 4)), np.array([0, 1]), 3).shape == (3, 0, 4)
    assert exact.segment_sum(np.empty(0), np.empty(0, int), 0).shape == (0,)
    assert exact.bincount(np.empty(0, int), weights=np.empty(0)).shape == (0,)
    assert exact.bincount(np.empty(0, int), minlength=2).tolist() == [0, 0]


@pytest.mark.parametrize("threads", [1, 2, 5])
@pytest.mark.parametrize(("rows", "columns"), [(400_000, 1), (100_000, 3), (40_000, 12)])
def test_threads_and_instruction_sets(threads, rows, columns, usable_instruction_sets):
    generator = np.random.default_rng(8)
    x = generator.standard_normal((rows, columns))
    x[::1000] *= 1e200
    x[5::100_000] = NAN
    ids = generator.integers(0, 700, rows)
    exact.set_threads(1)
    whole = exact.segment_sum(x, ids, 700)
    some = ids < 3
    assert found(whole[:3]) == found(by_columns(x[some], ids[some], 3))
    for name in usable_instruction_sets:
        _native.set_instruction_set(name)
        exact.set_threads(threads)
        assert exact.segment_sum(x, ids, 700).tobytes() == whole.tobytes()


# --- bincount and index_add


@given(ids=st.lists(st.integers(0, 20), max_size=30), least=st.integers(0, 30))
def test_counts_are_those_of_numpy(ids, least):
    ids = np.array(ids, np.int64)
    counts = exact.bincount(ids, minlength=least)
    assert counts.dtype == np.int64 and np.array_equal(counts, np.bincount(ids, minlength=least))
    weights = drawn("float64", ids.size)
    sums = exact.bincount(ids, weights=weights, minlength=least)
    assert found(sums) == expected(weights, ids, max(least, max(ids, default=-1) + 1))


@pytest.mark.parametrize("dim", [0, 1, 2, -1])
@pytest.mark.parametrize("name", ["float64", "int64", "bfloat16"])
def test_index_add_rounds_once(name, dim):
    x = drawn(name, 3 * 4 * 5, 1).reshape(3, 4, 5)
    shape = list(x.shape)
    shape[dim] = 9
    source = drawn(name, math.prod(shape), 2).reshape(shape)
    index = np.arange(9) * 2 % x.shape[dim]
    result = exact.index_add(x, dim, index, source)
    assert result.shape == x.shape and result.flags.c_contiguous
    joined = np.concatenate([x, source], axis=dim)
    numbers = np.concatenate([np.arange(x.shape[dim]), index])
    sums = by_columns(np.moveaxis(joined, dim, 0), numbers, x.shape[dim])
    assert found(result) == found(np.moveaxis(sums, 0, dim))


def test_index_add_is_that_of_torch_where_nothing_is_rounded():
    x, source = torch.arange(12.0).reshape(3, 4), torch.ones(5, 4) / 4
    index = torch.tensor([0, 2, 2, 0, 2], dtype=torch.int32)
    result = exact.index_add(x.double(), 0, index, source.double())
    assert torch.equal(result, x.double().index_add(0, index, source.double()))
    assert x.tolist() == torch.arange(12.0).reshape(3, 4).tolist()


def test_specials_of_x_stay():
    x = np.array([INF, NAN, -0.0, MAX])
    result = exact.index_add(x, 0, np.array([0, 1, 3]), np.array([-INF, 1.0, MAX]))
    assert found(result) == found([NAN, NAN, 0.0, INF])


def test_dtypes_of_x_and_source_may_differ():
    x, source = np.array([2**53, 1], np.int64), np.array([0.5, 2.0**-10], np.float16)
    result = exact.index_add(x, 0, np.array([0, 1], np.uint8), source)
    assert result.tolist() == [2.0**53, 1 + 2.0**-10]


# --- Complex arrays


def test_halves_of_complex_arrays():
    x = drawn("float64", 60).view(np.complex128)
    ids = np.arange(30) % 4
    whole = exact.segment_sum(x, ids, 4)
    assert whole.dtype == np.complex128
    assert found(whole.real) == expected(x.real, ids, 4)
    assert found(whole.imag) == expected(x.imag, ids, 4)
    narrow = exact.segment_sum(x, ids, 4, dtype="complex64")
    assert found(narrow.imag) == expected(x.imag, ids, 4, "float32")
    zeros = np.zeros(4, np.complex64)
    assert np.array_equal(exact.index_add(zeros, 0, ids, x), whole)


# --- Libraries


def elements(array):
    return numbers_of(array if hasattr(array, "detach") else np.asarray(array))


@pytest.mark.parametrize("library", LIBRARIES)
def test_every_library_gets_its_own_arrays_back(library):
    make = LIBRARIES[library]
    values, numbers = drawn("float32", 12).reshape(6, 2), np.array([0, 2, 2, 0, 1, 2])
    x, ids = make(values), make(numbers)
    expected_sums = exact.segment_sum(values, numbers, 4)
    kind = np.ndarray if library == "dlpack" else type(x)
    sums = exact.segment_sum(x, ids, 4)
    added = exact.index_add(make(np.zeros((4, 2))), 0, ids, x)
    assert isinstance(sums, kind) and isinstance(added, kind)
    assert elements(sums) == elements(added) == numbers_of(expected_sums)
    counts = exact.bincount(ids, minlength=4)
    assert isinstance(counts, kind) and elements(counts) == [2, 1, 3, 0]
    weights = make(values[:, 0].copy())
    sums = exact.bincount(ids, weights=weights, minlength=4)
    assert elements(sums) == numbers_of(expected_sums[:, 0])


def test_bfloat16_by_dlpack_along_another_axis():
    from exact_arrays import to_dlpack

    values = drawn("bfloat16", 12).reshape(2, 6)
    index = np.array([1, 0, 1, 1, 0, 0])
    x = np.zeros((2, 2), values.dtype)
    result = exact.index_add(to_dlpack(x), 1, index, to_dlpack(values))
    assert found(result) == found(exact.segment_sum(values.T, index, 2).T)


def test_results_of_narrow_dtypes():
    x = torch.tensor([1.0, 2.0**-9, 3.0], dtype=torch.bfloat16)
    sums = exact.segment_sum(x, torch.tensor([0, 0, 1]), 2, dtype=torch.bfloat16)
    assert sums.dtype == torch.bfloat16 and sums.tolist() == [1.0, 3.0]
    assert (
        numpy_dtype("bfloat16")
        == exact.segment_sum(np.ones(2), np.zeros(2, int), 1, dtype="bfloat16").dtype
    )


# --- Errors

V, N = np.ones(3), np.array([0, 1, 2])
AND_LENGTH = "ids has 2 elements, and x has 3 along its first axis"
GALLERY = [
    (lambda: exact.segment_sum(V, N, 2), IndexError, "ids[2] is 2, not from 0 to 1"),
    (lambda: exact.segment_sum(V, N - 1, 3), IndexError, "ids[0] is -1, not from 0 to 2"),
    (lambda: exact.segment_sum(V, N, 0), IndexError, "ids[0] is 0, but there are no segments"),
    (
        lambda: exact.segment_sum(V, np.array([0, 2**64 - 1, 9], np.uint64), 3),
        IndexError,
        "ids[1] is 18446744073709551615, not from 0 to 2",
    ),
    (lambda: exact.segment_sum(np.ones((3, 0)), N, 1), IndexError, "ids[1] is 1, not from 0 to 0"),
    (lambda: exact.segment_sum(V, N[:2], 3), ValueError, AND_LENGTH),
    (
        lambda: exact.segment_sum(V, N[:, None], 3),
        ValueError,
        "ids has 2 axes: korvex.exact takes an array with one there",
    ),
    (
        lambda: exact.segment_sum(V, V, 3),
        TypeError,
        "ids has the dtype float64: korvex.exact takes integers there",
    ),
    (
        lambda: exact.segment_sum(V, V > 0, 3),
        TypeError,
        "ids has the dtype bool: korvex.exact takes integers there",
    ),
    (
        lambda: exact.segment_sum(V, N.astype(">i8"), 3),
        TypeError,
        "ids has the dtype >i8, which is not in this machine's byte order: give ids.astype(ids"
        '.dtype.newbyteorder("="))',
    ),
    (
        lambda: exact.segment_sum(torch.ones(3), N, 3),
        TypeError,
        "x is a torch tensor on the CPU and ids is a NumPy array: both must be of one kind",
    ),
    (
        lambda: exact.segment_sum(np.float64(1), N[:1], 3),
        ValueError,
        "x has no axis: korvex.exact.segment_sum takes arrays with one or more",
    ),
    (lambda: exact.segment_sum(V, N, 3.0), TypeError, "num_segments must be an int, not float"),
    (lambda: exact.segment_sum(V, N, True), TypeError, "num_segments must be an int, not bool"),
    (
        lambda: exact.segment_sum(V, N, -1),
        ValueError,
        "num_segments must not be negative",
    ),
    (lambda: exact.segment_sum([1.0], N, 3), TypeError, "x must be an array, not list"),
    (lambda: exact.segment_sum(V, [0, 1, 2], 3), TypeError, "ids must be an array, not list"),
    (lambda: exact.segment_sum(V, N, 3, dtype="int64"), ValueError, "dtype must be float64"),
    (lambda: exact.bincount(-N), IndexError, "ids[1] is -1, which is negative"),
    (lambda: exact.bincount(-N, weights=V), IndexError, "ids[1] is -1, which is negative"),
    (
        lambda: exact.bincount(np.array([0, 2**63], np.uint64)),
        IndexError,
        "ids[1] is 9223372036854775808, which is above 9223372036854775806",
    ),
    (lambda: exact.bincount(N, weights=V[:2]), ValueError, "ids has 3 elements, and weights has 2"),
    (lambda: exact.bincount(N, minlength=-1), ValueError, "minlength must not be negative"),
    (
        lambda: exact.bincount(N, minlength=None),
        TypeError,
        "minlength must be an int",
    ),
    (lambda: exact.bincount(N, weights=1j * V), TypeError, "weights is complex"),
    (
        lambda: exact.bincount(N, weights=np.ones((3, 1))),
        ValueError,
        "weights has 2 axes: korvex.exact takes an array with one there",
    ),
    (lambda: exact.bincount(N, dtype="float32"), ValueError, "dtype is for sums of weights"),
    (lambda: exact.index_add(V, 1, N, V), ValueError, "dim 1 is out of range for x of shape (3,)"),
    (lambda: exact.index_add(V, 0.0, N, V), TypeError, "dim must be an int, not float"),
    (
        lambda: exact.index_add(np.float64(1), 0, N, V),
        ValueError,
        "x has no axis: korvex.exact.index_add takes arrays with one or more",
    ),
    (lambda: exact.index_add(V, 0, N + 1, V), IndexError, "index[2] is 3, not from 0 to 2"),
    (
        lambda: exact.index_add(V, 0, N, V[:2]),
        ValueError,
        "index has 3 elements, and source has 2 along axis 0",
    ),
    (
        lambda: exact.index_add(np.ones((3, 2)), 0, N, np.ones((3, 3))),
        ValueError,
        "source has shape (3, 3), and x (3, 2): they must be equal but along axis 0",
    ),
    (lambda: exact.index_add(V, 0, N, 1j * V), TypeError, "must be both real or both complex"),
    (
        lambda: exact.index_add(V, 0, N, V, alpha=2),
        TypeError,
        "unexpected keyword argument",
    ),
]


@pytest.mark.parametrize(("call", "kind", "text"), GALLERY)
def test_wrong_arguments(call, kind, text):
    with pytest.raises(kind, match=re.escape(text)):
        call()


@pytest.mark.parametrize("threads", [1, 4])
def test_the_first_number_out_of_range_is_named(threads):
    exact.set_threads(threads)
    ids = np.zeros(400_000, np.int32)
    ids[[250_001, 399_999, 300_000]] = [-7, 1, 5]
    with pytest.raises(IndexError, match=re.escape("ids[250001] is -7, not from 0 to 0")):
        exact.segment_sum(np.ones(400_000), ids, 1)


def test_tensors_that_require_grad_and_other_devices():
    ids = torch.tensor([0, 1])
    with pytest.raises(TypeError, match="x is on the device meta: give a tensor on the CPU"):
        exact.segment_sum(torch.ones(2, device="meta"), ids, 2)
    if EMULATED:
        with pytest.raises(TypeError, match="both must be of one kind"):
            exact.segment_sum(torch.ones(2).to("cuda"), ids, 2)


def test_wrong_arguments_of_the_native_half():
    def call(x=V, axis=0, ids=N, segments=3, initial=None, out=None):
        out = np.empty(3) if out is None else out
        return _native.segment_sums(x, axis, ids, segments, initial, out, "float64", 1)

    assert call() == -1 and call(segments=2, out=np.empty(2)) == 2
    wrong = [
        ({"axis": 1}, ValueError, "axis must be from 0 to less than 1, not 1"),
        ({"segments": -1}, ValueError, "segments must be at least 0, not -1"),
        ({"ids": V}, TypeError, "ids must be integers"),
        ({"ids": N[:2]}, ValueError, "ids has 2 elements, and x 3 along the axis"),
        ({"out": np.empty(2)}, ValueError, "out must have shape (3,), but has (2,)"),
        (
            {"initial": np.ones(2)},
            ValueError,
            "initial must have shape (3,) with the axis first, but has (2,)",
        ),
        ({"initial": np.ones((3, 1))}, ValueError, "initial must have 1 dimensions, but has 2"),
    ]
    for arguments, kind, text in wrong:
        with pytest.raises(kind, match=re.escape(text)):
            call(**arguments)
