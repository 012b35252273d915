# SPDX-License-Identifier: Apache-2.0
"""Reductions along axes: each output is what the whole-array function gives for its elements."""

import itertools
import math

import exact_oracle as oracle
import numpy as np
import pytest
from exact_arrays import LIBRARIES, MAX, REAL_DTYPES, drawn, extremes, finite, near, numpy_dtype
from exact_oracle import FORMATS, bits, numbers_of
from hypothesis import given
from hypothesis import strategies as st
from memory import memory_held

from korvex import exact
from korvex.exact import _native

INF, NAN = math.inf, math.nan
FUNCTIONS = {
    "sum": exact.sum,
    "mean": exact.mean,
    "var": exact.var,
    "std": exact.std,
    "vector_norm": exact.vector_norm,
}
EACH_FUNCTION = pytest.mark.parametrize("name", FUNCTIONS)
EACH_FORMAT = pytest.mark.parametrize("form", FORMATS)


def expected_of(name, values, form="float64"):
    """What one output is, from rational numbers."""
    if name == "sum":
        return bits(oracle.rounded(oracle.exact_sum(values), form))
    if name == "mean":
        total = oracle.exact_sum(values) if values else NAN
        return bits(
            oracle.rounded(total if isinstance(total, float) else total / len(values), form)
        )
    if name == "vector_norm":
        squares = oracle.exact_sum(oracle.products(values, values))
        return bits(oracle.rounded_root(squares, form))
    variance = oracle.exact_variance(values)
    rounded = oracle.rounded if name == "var" else oracle.rounded_root
    return bits(rounded(variance, form))


def lines(x, axes):
    """The elements of each output, in order."""
    axes = [axis % x.ndim for axis in axes]
    kept = [axis for axis in range(x.ndim) if axis not in axes]
    view = x.transpose(kept + axes)
    for index in np.ndindex(*view.shape[: len(kept)]):
        yield view[(*index, ...)]


def found(result):
    return [*map(bits, numbers_of(np.asarray(result)))]


def subsets(dimensions):
    """Every choice of some axes, but all of them."""
    for count in range(dimensions):
        yield from itertools.combinations(range(dimensions), count)


LAYOUTS = {
    "as it is": lambda x: x,
    "column by column": np.asfortranarray,
    "backwards": lambda x: np.ascontiguousarray(x[..., ::-1])[..., ::-1],
    "upside down": lambda x: np.ascontiguousarray(x[::-1])[::-1],
    "every other": lambda x: np.repeat(x, 2, axis=-1)[..., ::2],
    "every third row": lambda x: np.repeat(x, 3, axis=0)[::3],
    "axes turned": lambda x: np.ascontiguousarray(np.moveaxis(x, 0, -1)).transpose(
        x.ndim - 1, *range(x.ndim - 1)
    ),
    "unaligned": lambda x: unaligned(x),
}
EACH_LAYOUT = pytest.mark.parametrize("layout", LAYOUTS)


def unaligned(x):
    raw = np.zeros(x.nbytes + 1, np.uint8)
    shifted = raw[1:].view(x.dtype).reshape(x.shape)
    shifted[...] = x
    return shifted


# --- Against rational numbers

shapes = st.lists(st.integers(0, 4), min_size=1, max_size=3)


@EACH_FORMAT
@EACH_FUNCTION
@given(shape=shapes, data=st.data())
def test_every_shape_axis_and_layout(name, form, shape, data):
    size = math.prod(shape)
    elements = finite | near | st.floats()
    values = data.draw(st.lists(elements, min_size=size, max_size=size))
    x = LAYOUTS[data.draw(st.sampled_from([*LAYOUTS]))](np.array(values).reshape(shape))
    axes = data.draw(st.lists(st.integers(0, x.ndim - 1), unique=True, max_size=x.ndim - 1))
    signed = tuple(axis - x.ndim * data.draw(st.booleans()) for axis in axes)
    result = FUNCTIONS[name](x, axis=signed, dtype=form)
    assert found(result) == [expected_of(name, numbers_of(each), form) for each in lines(x, axes)]
    kept = FUNCTIONS[name](x, axis=signed, dtype=form, keepdims=True)
    assert kept.shape == tuple(1 if n in axes else shape[n] for n in range(x.ndim))
    assert found(kept) == found(result)


@EACH_FUNCTION
@pytest.mark.parametrize("dtype", REAL_DTYPES)
def test_every_dtype_down_and_along(name, dtype):
    ends = extremes(dtype)
    x = np.stack([ends, np.roll(ends, 1), drawn(dtype, ends.size), np.roll(ends, 2)])
    for form in FORMATS:
        for axis in (0, 1):
            result = FUNCTIONS[name](x, axis=axis, dtype=form)
            expected = [expected_of(name, numbers_of(each), form) for each in lines(x, [axis])]
            assert found(result) == expected


CORRECTIONS = [1, -2, 2.5, 7, 0.1, 1e300, -1e300, 2**70]


@pytest.mark.parametrize("correction", CORRECTIONS)
def test_corrections_along_axes(correction):
    x = drawn("float64", 60).reshape(3, 4, 5)
    for function in (exact.var, exact.std):
        for form in FORMATS:
            result = function(x, axis=(0, 2), correction=correction, dtype=form)
            parts = lines(x, [0, 2])
            whole = [function(part, correction=correction, dtype=form) for part in parts]
            assert found(result) == [bits(float(each)) for each in whole]


# --- Against the whole-array functions, where registers, panels, tiles and threads have their part

SHAPES = [
    (3, 700),
    (700, 3),
    (70, 90),
    (2, 1300, 3),
    (40, 5, 40),
    (600, 1, 7),
    (5, 9, 2, 11),
    (1, 2000),
    (513, 17),
]


def assert_whole(x, axes, result, function):
    assert found(result) == [bits(float(function(each))) for each in lines(x, axes)]


@EACH_LAYOUT
@pytest.mark.parametrize("shape", SHAPES, ids=str)
def test_layouts_of_longer_arrays(shape, layout):
    x = LAYOUTS[layout](np.random.default_rng(3).standard_normal(shape))
    for axes in subsets(x.ndim):
        total = exact.sum(x, axis=axes)
        assert total.ravel().tolist() == [math.fsum(each.ravel()) for each in lines(x, axes)]
        assert_whole(x, axes, total, exact.sum)
        assert found(exact.sum(x, axis=axes[::-1])) == found(total)
        if math.prod(shape[n] for n in axes) < 100:
            continue
        for function in (exact.mean, exact.var, exact.vector_norm):
            assert_whole(x, axes, function(x, axis=axes), function)


@pytest.mark.parametrize("dtype", REAL_DTYPES)
def test_dtypes_of_longer_arrays(dtype):
    """Numbers over many binades: most columns need more than two doubles."""
    x = drawn(dtype, 90 * 70).reshape(90, 70)
    for axis in (0, 1):
        for function in FUNCTIONS.values():
            assert_whole(x, [axis], function(x, axis=axis), function)
            assert_whole(x.T, [axis], function(x.T, axis=axis), function)


@pytest.mark.parametrize("dtype", ["float64", "float32", "int64", "bfloat16"])
def test_threads_and_instruction_sets(dtype, usable_instruction_sets):
    generator = np.random.default_rng(8)
    base = (generator.standard_normal(144_000) * 1e6).astype(numpy_dtype(dtype))
    arrays = [base.reshape(shape) for shape in ((2, 72_000), (48_000, 3), (360, 400))]
    cases = [*itertools.product(arrays, (0, 1), (exact.sum, exact.mean))]
    cases += [(arrays[0], 1, exact.var), (arrays[1], 0, exact.var), (arrays[2], 0, exact.std)]
    results = set()
    for instruction_set in usable_instruction_sets:
        _native.set_instruction_set(instruction_set)
        for threads in (1, 2, 5):
            exact.set_threads(threads)
            results.add(
                b"".join(
                    np.asarray(function(x, axis=axis)).tobytes() for x, axis, function in cases
                )
            )
    assert len(results) == 1
    for x, axis, function in cases[-3:]:
        assert_whole(x, [axis], function(x, axis=axis), function)
        assert_whole(x, [axis], exact.sum(x, axis=axis), exact.sum)


# --- Columns that two doubles do not hold


def test_a_far_last_bit_decides_a_column_alone():
    far = 2.0**-500
    x = np.tile([[1.0], [2.0**-53], [0.0], [2.0**-200], [-(2.0**-200)]], (1, 100))
    x[2, [3, 98]] = far, -far
    expected = np.ones(100)
    expected[3] = 1 + 2.0**-52
    assert np.array_equal(exact.sum(x, axis=0), expected)
    assert np.array_equal(exact.sum(np.asfortranarray(x), axis=0), expected)
    narrow = exact.sum(np.tile([[1.0], [2.0**-24], [far]], (1, 40)), axis=0, dtype="float32")
    assert np.array_equal(narrow, np.full(40, 1 + 2.0**-23, np.float32))


def test_a_column_that_overflows_on_its_way_and_returns():
    x = np.ones((3, 40))
    x[:, 7] = MAX, MAX, -MAX
    x[:, 8] = MAX, MAX, 0
    result = exact.sum(x, axis=0)
    assert result[7] == MAX and result[8] == INF
    assert np.array_equal(np.delete(result, [7, 8]), np.full(38, 3.0))
    assert exact.mean(x, axis=0)[8] == oracle.rounded(oracle.exact_sum([MAX, MAX]) / 3)


def test_means_that_a_rest_decides():
    """Halfway between two numbers but for a last bit far below."""
    x = np.array([[1.0, 1.0, 1.0, 1.0], [1 + 2.0**-52] * 4, [0.0, 2.0**-900, -(2.0**-900), 0.0]])
    x = np.vstack([x, np.zeros((1, 4))])
    columns = [x[:, i].tolist() for i in range(4)]
    for rows in (x, np.vstack([x, x, x])):
        expected = [expected_of("mean", rows[:, i].tolist()) for i in range(len(columns))]
        assert found(exact.mean(rows, axis=0)) == expected


@EACH_FORMAT
@pytest.mark.parametrize("count", [2, 3, 5, 10, 12])
def test_means_that_are_two_doubles_exactly(form, count):
    """Sums that the count divides leave ties, and means without an error, beside all others."""
    drawn_values = np.random.default_rng(9).standard_normal((400, count))
    drawn_values[:, 0] += count * np.ldexp(1.0, np.arange(400) % 3 - 54)
    result = exact.mean(drawn_values, axis=1, dtype=form)
    assert found(result) == [expected_of("mean", row.tolist(), form) for row in drawn_values]


@given(
    high=st.floats(0.5, 2),
    last=st.integers(-1080, -40),
    count=st.integers(2, 9),
    sign=st.sampled_from([1, -1]),
)
def test_means_near_ties(high, last, count, sign):
    values = [high, sign * 2.0**last, *[0.0] * (count - 2)]
    x = np.tile(np.array(values)[:, None], (1, 33))
    for form in FORMATS:
        assert {*found(exact.mean(x, axis=0, dtype=form))} == {expected_of("mean", values, form)}


# --- Specials touch their own outputs alone


@EACH_FUNCTION
@pytest.mark.parametrize("shape", [(50, 80), (80, 5), (4, 600), (600, 4)], ids=str)
def test_specials_in_single_rows(name, shape):
    function = FUNCTIONS[name]
    clean = np.random.default_rng(4).standard_normal(shape)
    x = clean.copy()
    x[2, 1], x[0, 3] = NAN, INF
    x[3, 0], x[3, 2] = INF, -INF
    for axis in (0, 1):
        result, expected = function(x, axis=axis), function(clean, axis=axis)
        touched = [0, 1, 2, 3] if axis == 0 else [0, 2, 3]
        others = np.setdiff1d(np.arange(result.size), touched)
        assert np.array_equal(result[others], expected[others])
        assert_whole(x, [axis], result, function)


def test_zeros_are_positive():
    x = np.full((40, 50), -0.0)
    for axis in (0, 1, (), -1):
        for function in FUNCTIONS.values():
            assert not np.signbit(function(x, axis=axis)).any()


# --- Nothing, one, and what stands for the whole array


@EACH_FUNCTION
def test_zero_extents(name):
    function = FUNCTIONS[name]
    of_nothing = {"sum": 0.0, "vector_norm": 0.0}.get(name, NAN)
    assert function(np.ones((0, 3)), axis=1).shape == (0,)
    assert function(np.ones((0, 3)), axis=1, keepdims=True).shape == (0, 1)
    assert found(function(np.ones((0, 3)), axis=0)) == [bits(of_nothing)] * 3
    assert found(function(np.ones((2, 0, 2)), axis=1)) == [bits(of_nothing)] * 4
    assert function(np.ones((2, 0, 2)), axis=(0, 2)).shape == (0,)
    assert function(np.ones((2, 0, 0)), axis=1).shape == (2, 0)


@EACH_FUNCTION
def test_no_axes_round_each_element_by_itself(name):
    x = drawn("float64", 6).reshape(2, 3)
    result = FUNCTIONS[name](x, axis=(), dtype="float32")
    assert result.shape == (2, 3)
    assert found(result) == [expected_of(name, [value], "float32") for value in x.ravel().tolist()]


@EACH_FUNCTION
def test_all_axes_are_the_whole_array(name):
    x = drawn("float64", 24).reshape(2, 3, 4)
    whole = FUNCTIONS[name](x)
    for axis in (None, (0, 1, 2), (2, -2, 0)):
        assert FUNCTIONS[name](x, axis=axis) == whole
        assert FUNCTIONS[name](x, axis=axis, keepdims=True).tolist() == [[[whole]]]


def test_axis_of_one_element():
    x = np.arange(6.0).reshape(2, 1, 3)
    assert np.array_equal(exact.sum(x, axis=1), x[:, 0])
    assert np.array_equal(exact.mean(x, axis=1, keepdims=True), x)
    assert not exact.var(x, axis=1).any()


def test_many_axes():
    x = np.random.default_rng(1).standard_normal([2] * 12)
    assert_whole(x, [0, 5, 11], exact.sum(x, axis=(0, 5, 11)), exact.sum)
    deep = np.ones([1] * 62 + [3, 2])
    assert exact.sum(deep, axis=62).ravel().tolist() == [3.0, 3.0]


# --- Operands are read where they are


def test_repeated_elements():
    row = np.random.default_rng(1).standard_normal(300)
    for x in (np.broadcast_to(row, (40, 300)), np.broadcast_to(row[:, None], (300, 40))):
        for axis in (0, 1):
            for function in (exact.sum, exact.mean, exact.var):
                assert_whole(x, [axis], function(x, axis=axis), function)


def test_read_only_arrays():
    x = np.arange(12.0).reshape(3, 4)
    x.flags.writeable = False
    assert exact.sum(x, axis=0).tolist() == [12.0, 15.0, 18.0, 21.0]
    assert exact.sum(x, axis=0).flags.writeable


def test_fields_of_records():
    records = np.zeros((30, 50), [("flag", "?"), ("value", "<f8"), ("count", "<i4")])
    records["value"] = np.random.default_rng(2).standard_normal((30, 50))
    records["count"] = np.arange(1500).reshape(30, 50)
    for field in ("value", "count", "flag"):
        for axis in (0, 1):
            x = records[field]
            assert_whole(x, [axis], exact.sum(x, axis=axis), exact.sum)
            assert_whole(x, [axis], exact.var(x, axis=axis), exact.var)


# --- In the library of the input


@pytest.mark.parametrize("library", LIBRARIES)
@pytest.mark.parametrize("dtype", ["float64", "float32", "int64", "bfloat16"])
def test_libraries(library, dtype):
    if library == "array_api_strict" and dtype == "bfloat16":
        pytest.skip("the library has no such dtype")
    values = drawn(dtype, 24).reshape(2, 3, 4)
    x = LIBRARIES[library](values)
    expected_type = type(LIBRARIES[library](np.ones(1))) if library != "dlpack" else np.ndarray
    for function in FUNCTIONS.values():
        for axis in (0, -1, (0, 1)):
            result = function(x, axis=axis, keepdims=True)
            whole = function(values, axis=axis, keepdims=True)
            assert type(result) is expected_type and tuple(result.shape) == whole.shape
            assert [*map(bits, flat(result))] == found(whole)


def flat(result):
    return numbers_of(result if hasattr(result, "detach") else np.asarray(result))


def test_torch_views_and_dtypes():
    import torch

    x = torch.randn(30, 40, 5, dtype=torch.float64)
    for view in (x, x.permute(2, 0, 1), x[::2, :, 1:], x.mT, x.unsqueeze(1).expand(-1, 3, -1, -1)):
        result = exact.sum(view, axis=1)
        assert result.dtype == torch.float64 and result.shape == view.sum(1).shape
        assert flat(result) == found_floats(exact.sum(view.numpy(), axis=1))
    half = exact.mean(x, axis=(0, 2), dtype=torch.bfloat16)
    assert half.dtype == torch.bfloat16 and half.shape == (40,)


def found_floats(result):
    return np.asarray(result).ravel().tolist()


# --- Complex arrays: halves apart


def single(x):
    return (x.real % 1e9 + 1j * (x.imag % 1e9)).astype(np.complex64)


def test_complex_arrays():
    x = drawn("float64", 240).view(np.complex128).reshape(4, 5, 6)
    for view in (x, x.T, x[:, ::2], single(x)):
        for axis in (0, 1, (0, 2)):
            for function in (exact.sum, exact.mean):
                result = function(view, axis=axis)
                assert result.dtype == np.complex128
                assert found(result.real) == found(function(view.real, axis=axis))
                assert found(result.imag) == found(function(view.imag, axis=axis))
    assert exact.sum(x, axis=0, dtype="complex64").dtype == np.complex64


# --- Products


def conjugated_dot(x, y):
    """By rational numbers."""
    halves = []
    for a, b, sign in (
        (x.real, y.real, 1),
        (x.imag, y.imag, 1),
        (x.real, y.imag, 1),
        (x.imag, y.real, -1),
    ):
        halves.append([sign * p for p in oracle.products(a.tolist(), b.tolist())])
    return [oracle.rounded(oracle.exact_sum(halves[n] + halves[n + 1])) for n in (0, 2)]


@EACH_FORMAT
@given(shape=shapes, data=st.data())
def test_vecdot_along_every_axis(form, shape, data):
    size = math.prod(shape)
    elements = st.lists(finite | near | st.floats(), min_size=size, max_size=size)
    x, y = (
        LAYOUTS[data.draw(st.sampled_from([*LAYOUTS]))](
            np.array(data.draw(elements)).reshape(shape)
        )
        for _ in range(2)
    )
    axis = data.draw(st.integers(-x.ndim, x.ndim - 1))
    pairs = zip(lines(x, [axis]), lines(y, [axis]), strict=True)
    expected = [
        bits(oracle.rounded(oracle.exact_sum(oracle.products(a.tolist(), b.tolist())), form))
        for a, b in pairs
    ]
    assert found(exact.vecdot(x, y, axis=axis, dtype=form)) == expected


VECDOT_SHAPES = [
    ((4, 300), (4, 300), -1),
    ((300, 40), (300, 1), 0),
    ((2, 70, 3), (70, 3), -2),
    ((5, 1, 90), (7, 90), -1),
    ((90,), (3, 90), -1),
    ((0, 5), (5,), -1),
    ((3, 0), (3, 0), 1),
]


@pytest.mark.parametrize(("x_shape", "y_shape", "axis"), VECDOT_SHAPES, ids=str)
@pytest.mark.parametrize(
    "dtypes", ["float64 float64", "float32 int64", "uint8 bool", "bfloat16 float64"]
)
def test_vecdot_broadcasts_the_other_axes(x_shape, y_shape, axis, dtypes):
    first, second = dtypes.split()
    x = drawn(first, math.prod(x_shape)).reshape(x_shape)
    y = drawn(second, math.prod(y_shape), seed=2).reshape(y_shape)
    x_lines, y_lines = np.broadcast_arrays(np.moveaxis(x, axis, -1), np.moveaxis(y, axis, -1))
    for library in ("numpy", "torch"):
        result = exact.vecdot(LIBRARIES[library](x), LIBRARIES[library](y), axis=axis)
        assert tuple(result.shape) == x_lines.shape[:-1]
        expected = [
            exact.vecdot(x_lines[index], y_lines[index]) for index in np.ndindex(x_lines.shape[:-1])
        ]
        assert [*map(bits, flat(result))] == [*map(bits, expected)]


@pytest.mark.parametrize("kinds", ["complex complex", "complex real", "real complex"])
def test_complex_vecdot_along_axes(kinds):
    x, y = (drawn("float64", 2 * 120, seed).view(np.complex128).reshape(4, 5, 6) for seed in (1, 2))
    x, y = (
        a.real.copy() if kind == "real" else a
        for a, kind in zip((x, y), kinds.split(), strict=True)
    )
    y = y[::-1]
    for axis in (0, 1, -1):
        result = exact.vecdot(x, y, axis=axis)
        assert result.dtype == np.complex128
        pairs = zip(lines(x, [axis]), lines(y, [axis]), strict=True)
        expected = [[*map(bits, conjugated_dot(a, b))] for a, b in pairs]
        assert [[bits(z.real), bits(z.imag)] for z in result.ravel()] == expected


def test_specials_of_conjugated_products_keep_their_sign_along_axes():
    x = np.array([[1 + 1j], [1 + 1j], [1 + 2j]])
    y = np.array([[complex(INF, 2.0)], [complex(INF, INF)], [3 + 4j]])
    result = exact.vecdot(x, y)
    assert (result.real[0], result.imag[0]) == (INF, -INF)
    assert result.real[1] == INF and math.isnan(result.imag[1])
    assert result[2] == 11 - 2j


# --- Running sums


def running_sums(values, form):
    sums = [oracle.exact_sum(values[: n + 1]) for n in range(len(values))]
    return [bits(oracle.rounded(each, form)) for each in sums]


@EACH_FORMAT
@given(shape=shapes, data=st.data())
def test_running_sums_along_every_axis(form, shape, data):
    size = math.prod(shape)
    values = data.draw(st.lists(finite | near | st.floats(), min_size=size, max_size=size))
    x = LAYOUTS[data.draw(st.sampled_from([*LAYOUTS]))](np.array(values).reshape(shape))
    axis = data.draw(st.integers(-x.ndim, x.ndim - 1))
    result = exact.cumulative_sum(x, axis=axis, dtype=form)
    assert result.shape == x.shape
    for own, line in zip(lines(result, [axis]), lines(x, [axis]), strict=True):
        assert found(own) == running_sums(line.tolist(), form)
    longer = exact.cumulative_sum(x, axis=axis, dtype=form, include_initial=True)
    first, rest = np.split(longer, [1], axis=axis)
    assert not first.any() and found(rest) == found(result)


@EACH_LAYOUT
@pytest.mark.parametrize("shape", [(40, 700), (3, 600, 5), (1, 900), (70, 1, 20)], ids=str)
def test_running_sums_of_longer_lines(shape, layout):
    x = LAYOUTS[layout](drawn("float64", math.prod(shape)).reshape(shape))
    for axis in range(x.ndim):
        for initial in (False, True):
            result = exact.cumulative_sum(x, axis=axis, include_initial=initial)
            for own, line in zip(lines(result, [axis]), lines(x, [axis]), strict=True):
                whole = exact.cumulative_sum(line.copy(), include_initial=initial)
                assert found(own) == found(whole)


@pytest.mark.parametrize("dtype", REAL_DTYPES)
def test_running_sums_of_every_dtype(dtype):
    x = drawn(dtype, 60).reshape(3, 4, 5)
    for library in ("numpy", "torch", "dlpack"):
        result = exact.cumulative_sum(LIBRARIES[library](x), axis=1, dtype="float32")
        expected = np.stack(
            [exact.cumulative_sum(x[i, :, j], dtype="float32") for i in range(3) for j in range(5)]
        )
        assert flat(result) == expected.reshape(3, 5, 4).transpose(0, 2, 1).ravel().tolist()


def test_running_sums_on_threads(usable_instruction_sets):
    """Lines enough for threads, and one that threads share."""
    x = np.random.default_rng(6).standard_normal(140_000)
    x[77] = -1e9
    results = set()
    for instruction_set in usable_instruction_sets:
        _native.set_instruction_set(instruction_set)
        for threads in (1, 2, 5):
            exact.set_threads(threads)
            sums = [
                exact.cumulative_sum(x.reshape(shape), axis=axis)
                for shape, axis in (((1, -1), 1), ((-1, 1), 0), ((200, -1), 0), ((200, -1), 1))
            ]
            results.add(b"".join(each.tobytes() for each in sums))
            assert np.array_equal(sums[0][0], exact.cumulative_sum(x))
    assert len(results) == 1


def test_running_sums_of_nothing():
    assert exact.cumulative_sum(np.ones((0, 3)), axis=0).shape == (0, 3)
    assert exact.cumulative_sum(np.ones((0, 3)), axis=0, include_initial=True).tolist() == [
        [0.0] * 3
    ]
    assert exact.cumulative_sum(np.ones((3, 0)), axis=0, include_initial=True).shape == (4, 0)
    assert exact.cumulative_sum(np.ones((0, 200_000)), axis=1).shape == (0, 200_000)


# --- Matrices of batches

MATMUL_SHAPES = [
    ((5, 2, 3), (5, 3, 4)),
    ((5, 1, 2, 3), (4, 3, 2)),
    ((3,), (2, 3, 4)),
    ((2, 3, 4), (4,)),
    ((2, 3), (7, 3, 2)),
    ((0, 2, 3), (3, 2)),
    ((2, 2, 0), (2, 0, 3)),
    ((1, 1, 1, 2), (1, 1, 2, 1)),
    ((3, 40, 60), (60, 20)),
]


@pytest.mark.parametrize(("a_shape", "b_shape"), MATMUL_SHAPES, ids=str)
@pytest.mark.parametrize(
    "dtypes", ["float64 float64", "int64 float32", "complex128 float64", "complex128 complex128"]
)
def test_matmul_of_batches(a_shape, b_shape, dtypes):
    first, second = dtypes.split()
    a, b = (
        matrices(name, shape, seed)
        for name, shape, seed in ((first, a_shape, 1), (second, b_shape, 2))
    )
    result = exact.matmul(a, b)
    assert result.shape == np.matmul(np.ones(a_shape), np.ones(b_shape)).shape
    rows, columns = (a if a.ndim > 1 else a[None]), (b if b.ndim > 1 else b[:, None])
    batch = np.broadcast_shapes(rows.shape[:-2], columns.shape[:-2])
    rows = np.broadcast_to(rows, batch + rows.shape[-2:])
    columns = np.broadcast_to(columns, batch + columns.shape[-2:])
    expected = [exact.matmul(rows[index], columns[index]).ravel() for index in np.ndindex(batch)]
    expected = np.concatenate(expected) if expected else np.empty(0)
    assert np.array_equal(result.ravel(), expected)


def matrices(name, shape, seed):
    size = math.prod(shape)
    if name == "complex128":
        return drawn("float64", 2 * size, seed).view(name).reshape(shape)
    return drawn(name, size, seed).reshape(shape)


@given(data=st.data())
def test_products_of_batches_against_rational_numbers(data):
    draw = lambda shape: np.array(  # noqa: E731
        data.draw(st.lists(finite, min_size=math.prod(shape), max_size=math.prod(shape)))
    ).reshape(shape)
    a, b = draw((2, 1, 3)), draw((3, 2))
    for form in FORMATS:
        expected = [
            bits(
                oracle.rounded(
                    oracle.exact_sum(oracle.products(row.tolist(), column.tolist())), form
                )
            )
            for row in a[:, 0]
            for column in b.T
        ]
        assert found(exact.matmul(a, b, dtype=form)) == expected


@pytest.mark.parametrize("library", LIBRARIES)
def test_matmul_of_batches_in_each_library(library):
    a, b = drawn("float32", 24).reshape(2, 3, 4), drawn("float32", 16, seed=2).reshape(4, 4)
    result = exact.matmul(
        LIBRARIES[library](a),
        LIBRARIES[library](b.T).mT if library == "torch" else LIBRARIES[library](b),
        dtype="float32",
    )
    assert flat(result) == exact.matmul(a, b, dtype="float32").ravel().tolist()


# --- Errors


def test_an_axis_out_of_range_is_an_index_error_and_a_value_error():
    for kind in (IndexError, ValueError, np.exceptions.AxisError):
        with pytest.raises(kind, match="axis 2 is out of range for an array with 2 axes"):
            exact.sum(np.ones((2, 2)), axis=2)


@pytest.mark.parametrize("dtype", ["float64", "float32", "int64"])
def test_a_call_holds_less_than_a_megabyte_beside_its_result(dtype):
    """Whatever the layout: rows, columns, tiles, and columns that two doubles do not hold."""
    exact.set_threads(1)
    x = np.ones((2000, 1500), dtype)
    x[7] = 2**60
    calls = [
        lambda view=view, axis=axis, function=function: function(view, axis=axis)
        for view in (x, x.T, x[::2, ::3], x[::-1])
        for axis in (0, 1)
        for function in (exact.sum, exact.var, exact.vector_norm)
    ]
    calls += [lambda: exact.vecdot(x, x[:1]), lambda: exact.vecdot(x, x[::-1], axis=0)]
    held = [memory_held(call) for call in calls]
    assert max(held) < 1e6, held
