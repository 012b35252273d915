# SPDX-License-Identifier: Apache-2.0
"""Functions over a whole array give the exact value rounded once, in every format."""

import math
import tracemalloc
from fractions import Fraction

import exact_oracle as oracle
import numpy as np
import pytest
from exact_arrays import REAL_DTYPES, drawn, extremes, finite, float_lists, with_specials
from exact_oracle import FORMATS, bits, numbers_of
from hypothesis import given
from hypothesis import strategies as st
from memory import memory_held

from korvex import exact

EACH_FORMAT = pytest.mark.parametrize("form", FORMATS)
EACH_DTYPE = pytest.mark.parametrize("dtype", REAL_DTYPES)
INF, NAN = math.inf, math.nan


def float64(values):
    return np.array(values, np.float64)


def expected_mean(values):
    if not values:
        return NAN
    total = oracle.exact_sum(values)
    return total if isinstance(total, float) else total / len(values)


def expected_squares(values):
    return oracle.exact_sum(oracle.products(values, values))


# --- Against rational numbers


@EACH_FORMAT
@given(values=with_specials | float_lists)
def test_sum(form, values):
    result = exact.sum(float64(values), dtype=form)
    assert bits(result) == bits(oracle.rounded(oracle.exact_sum(values), form))


@EACH_FORMAT
@given(values=with_specials | float_lists)
def test_mean(form, values):
    result = exact.mean(float64(values), dtype=form)
    assert bits(result) == bits(oracle.rounded(expected_mean(values), form))


CORRECTIONS = st.integers(-3, 8) | st.floats(-3, 8) | st.fractions(-2, 5, max_denominator=9)


@EACH_FORMAT
@given(values=with_specials | float_lists, correction=CORRECTIONS)
def test_variance_and_deviation(form, values, correction):
    expected = oracle.exact_variance(values, correction)
    variance = exact.var(float64(values), correction=correction, dtype=form)
    deviation = exact.std(float64(values), correction=correction, dtype=form)
    assert bits(variance) == bits(oracle.rounded(expected, form))
    assert bits(deviation) == bits(oracle.rounded_root(expected, form))


@EACH_FORMAT
@given(values=with_specials | float_lists)
def test_norm(form, values):
    result = exact.vector_norm(float64(values), dtype=form)
    assert bits(result) == bits(oracle.rounded_root(expected_squares(values), form))


@EACH_FORMAT
@given(pairs=st.lists(st.tuples(st.floats() | finite, finite), max_size=12))
def test_vecdot(form, pairs):
    x, y = zip(*pairs, strict=True) if pairs else ((), ())
    result = exact.vecdot(float64(x), float64(y), dtype=form)
    expected = oracle.exact_sum(oracle.products(x, y))
    assert bits(result) == bits(oracle.rounded(expected, form))


@EACH_FORMAT
@given(values=with_specials | float_lists)
def test_cumulative_sum(form, values):
    result = exact.cumulative_sum(float64(values), dtype=form)
    expected = [oracle.exact_sum(values[: n + 1]) for n in range(len(values))]
    assert [*map(bits, numbers_of(result))] == [bits(oracle.rounded(e, form)) for e in expected]


@EACH_FORMAT
@given(rows=st.integers(0, 3), inner=st.integers(0, 4), columns=st.integers(0, 3), data=st.data())
def test_matmul(form, rows, inner, columns, data):
    draw = lambda count: data.draw(st.lists(finite, min_size=count, max_size=count))  # noqa: E731
    a = float64(draw(rows * inner)).reshape(rows, inner)
    b = float64(draw(inner * columns)).reshape(inner, columns)
    result = exact.matmul(a, b, dtype=form)
    assert result.shape == (rows, columns)
    expected = [
        oracle.rounded(oracle.exact_sum(oracle.products(row.tolist(), column.tolist())), form)
        for row in a
        for column in b.T
    ]
    assert [*map(bits, numbers_of(result))] == [*map(bits, expected)]


@EACH_FORMAT
def test_matmul_of_specials(form):
    a = float64(
        [[1.0, math.inf, 2.0, math.nan], [1.0, math.inf, 2.0, 0.0], [0.0, -math.inf, 0.0, 1.0]]
    )
    b = np.ones((4, 2))
    b[3, 1] = math.inf
    expected = [math.nan, math.nan, math.inf, math.nan, -math.inf, math.nan]
    assert [*map(bits, numbers_of(exact.matmul(a, b, dtype=form)))] == [*map(bits, expected)]


# --- Every dtype, with its ends


@EACH_FORMAT
@EACH_DTYPE
@pytest.mark.parametrize("make", [extremes, lambda name: drawn(name, 300)], ids=["ends", "drawn"])
def test_all_functions_of_every_dtype(dtype, form, make):
    x = make(dtype)
    values = numbers_of(x)
    total, squares = oracle.exact_sum(values), expected_squares(values)
    variance = oracle.exact_variance(values)
    assert bits(exact.sum(x, dtype=form)) == bits(oracle.rounded(total, form))
    assert bits(exact.mean(x, dtype=form)) == bits(oracle.rounded(total / len(values), form))
    assert bits(exact.vecdot(x, x, dtype=form)) == bits(oracle.rounded(squares, form))
    assert bits(exact.vector_norm(x, dtype=form)) == bits(oracle.rounded_root(squares, form))
    assert bits(exact.var(x, dtype=form)) == bits(oracle.rounded(variance, form))
    assert bits(exact.std(x, dtype=form)) == bits(oracle.rounded_root(variance, form))
    running = exact.cumulative_sum(x, dtype=form)
    partial = Fraction()
    for value, result in zip(values, numbers_of(running), strict=True):
        partial += Fraction(value)
        assert bits(result) == bits(oracle.rounded(partial, form))


@pytest.mark.parametrize("first", REAL_DTYPES)
@pytest.mark.parametrize("second", ["uint64", "int8", "float64", "bfloat16"])
def test_products_of_two_dtypes(first, second):
    x, y = drawn(first, 6, seed=2), drawn(second, 6, seed=3)
    expected = oracle.rounded(oracle.exact_sum(oracle.products(numbers_of(x), numbers_of(y))))
    assert bits(exact.vecdot(x, y)) == bits(expected)
    assert bits(exact.matmul(x[None, :], y[:, None])[0, 0]) == bits(expected)
    assert bits(exact.matmul(x, y)) == bits(expected)


# --- Matrices of more than one tile, wherever their elements lie


def unaligned(x):
    raw = np.zeros(x.nbytes + 1, np.uint8)
    shifted = raw[1:].view(x.dtype).reshape(x.shape)
    shifted[...] = x
    return shifted


LAYOUTS = {
    "column by column": np.asfortranarray,
    "backwards": lambda x: np.ascontiguousarray(x[::-1, ::-1])[::-1, ::-1],
    "every other": lambda x: np.repeat(np.repeat(x, 2, axis=0), 3, axis=1)[::2, ::3],
    "unaligned": unaligned,
}


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("shape", [(70, 300, 20), (3, 1100, 2), (1, 40, 70)])
def test_matmul_reads_any_layout(layout, shape):
    rows, inner, columns = shape
    a, b = (drawn("float64", n, seed=n) for n in (rows * inner, inner * columns))
    a, b = a.reshape(rows, inner), b.reshape(inner, columns)
    expected = [[exact.vecdot(row, column) for column in b.T] for row in a]
    lay = LAYOUTS[layout]
    for x, y in ((a, b), (lay(a), b), (a, lay(b)), (lay(a), lay(b))):
        assert np.array_equal(exact.matmul(x, y), expected)


def test_matmul_reads_one_row_for_all():
    row, b = drawn("float64", 60), drawn("float64", 60 * 33, seed=2).reshape(60, 33)
    product = exact.matmul(np.broadcast_to(row, (70, 60)), b)
    assert np.array_equal(product, [exact.matmul(row, b)] * 70)


@pytest.mark.parametrize("first", REAL_DTYPES)
@pytest.mark.parametrize("second", ["uint64", "int64", "float32"])
def test_matmul_of_two_dtypes(first, second):
    a = drawn(first, 66 * 140, seed=2).reshape(66, 140)
    b = drawn(second, 17 * 140, seed=3).reshape(17, 140).T
    product = exact.matmul(a, b)
    for i, j in ((0, 0), (65, 16), (31, 15), (64, 7)):
        assert bits(product[i, j]) == bits(exact.vecdot(a[i], b[:, j]))


@pytest.mark.parametrize("special", [np.inf, -np.inf, np.nan])
def test_special_in_a_matrix_meets_whole_integers(special):
    a = np.ones((70, 150))
    a[3, 149] = a[66, 0] = special
    b = np.full((150, 18), 2**40, np.int64)  # the lower halves are 0
    b[0], b[149, :9], b[149, 9:] = -1, 0, 2**62
    product = exact.matmul(a, b)
    assert np.isfinite(product).sum() == product.size - 2 * 18
    assert [*map(bits, product[66])] == [bits(-special)] * 18
    assert [*map(bits, product[3])] == [bits(np.nan)] * 9 + [bits(special)] * 9


def test_matmul_holds_little_beside_its_result():
    a = np.ones((2000, 20), np.float32)
    b = np.ones((2000, 20), np.float32)
    held = memory_held(lambda: exact.matmul(a, b.T, dtype="float16"))
    assert held < 2000 * 2000 * 2 + 4e6, f"{held / 1e6:.1f} MB"  # three limbs would be 96 MB


# --- Nothing, and special values


def test_of_no_elements():
    nothing = float64([])
    assert bits(exact.sum(nothing)) == bits(0.0)
    assert bits(exact.vecdot(nothing, nothing)) == bits(0.0)
    assert bits(exact.vector_norm(nothing)) == bits(0.0)
    assert math.isnan(exact.mean(nothing))
    assert math.isnan(exact.var(nothing)) and math.isnan(exact.std(nothing))
    assert exact.cumulative_sum(nothing).shape == (0,)
    assert exact.cumulative_sum(nothing, include_initial=True).tolist() == [0.0]
    assert exact.matmul(np.empty((2, 0)), np.empty((0, 2))).tolist() == [[0.0, 0.0]] * 2
    assert exact.sum(np.empty((3, 0, 2))) == 0


def test_sum_of_negative_zeros_is_positive():
    assert bits(exact.sum(float64([-0.0, -0.0]))) == bits(0.0)
    assert bits(exact.mean(float64([-0.0]))) == bits(0.0)
    assert bits(exact.vecdot(float64([-0.0]), float64([1.0]))) == bits(0.0)
    assert [*map(bits, exact.cumulative_sum(float64([-0.0])))] == [bits(0.0)]


@pytest.mark.parametrize(
    ("count", "correction", "is_nan"),
    [(1, 0, False), (1, 1, True), (2, 1, False), (2, 2, True), (2, 1.999, False), (2, 3, True)],
)
def test_variance_needs_a_positive_divisor(count, correction, is_nan):
    x = np.arange(float(count))
    assert math.isnan(exact.var(x, correction=correction)) == is_nan
    assert math.isnan(exact.std(x, correction=correction)) == is_nan


def test_special_values():
    assert exact.sum(float64([INF, 1.0])) == INF
    assert exact.sum(float64([-INF, 1e308])) == -INF
    assert math.isnan(exact.sum(float64([INF, -INF])))
    assert math.isnan(exact.sum(float64([INF, NAN])))
    assert exact.mean(float64([INF, 1.0])) == INF
    assert exact.vector_norm(float64([INF, -INF])) == INF
    assert math.isnan(exact.vector_norm(float64([INF, NAN])))
    assert math.isnan(exact.var(float64([INF, 1.0])))
    assert exact.vecdot(float64([INF]), float64([-2.0])) == -INF
    assert math.isnan(exact.vecdot(float64([INF]), float64([0.0])))


def test_sum_that_overflows_on_its_way_and_returns():
    largest = float(np.finfo(np.float64).max)
    assert exact.sum(float64([largest, largest, -largest])) == largest
    assert exact.sum(float64([largest, largest])) == INF
    assert exact.mean(float64([largest, largest])) == largest
    assert exact.vecdot(float64([largest, largest]), float64([largest, -largest])) == 0


def test_one_rounding_and_not_two():
    """First to float64 and then to float32 would be a tie that goes the other way."""
    values = float64([1.0, 2.0**-24, 2.0**-60])
    assert np.float32(np.float64(exact.sum(values))) == 1.0
    assert exact.sum(values, dtype="float32") == 1 + 2.0**-23


def test_integers_beyond_two_to_the_53rd_are_exact():
    assert exact.sum(np.array([2**53 + 1, -(2**53)])) == 1
    assert exact.vecdot(np.array([2**62 + 1, 2**62]), np.array([2**62, -(2**62) - 1])) == 0
    big = np.array([2**64 - 1, 1], np.uint64)
    assert exact.sum(big) == 2.0**64
    assert exact.cumulative_sum(big).tolist() == [2.0**64, 2.0**64]


# --- Complex arrays: halves apart

complex_numbers = st.complex_numbers(allow_nan=False, allow_infinity=False)


@given(values=st.lists(complex_numbers, max_size=10))
def test_complex_sum_and_mean(values):
    x = np.array(values, np.complex128)
    result, mean = exact.sum(x), exact.mean(x)
    for half in (np.real, np.imag):
        halves = half(x).tolist()
        assert bits(half(result)) == bits(oracle.rounded(oracle.exact_sum(halves)))
        assert bits(half(mean)) == bits(oracle.rounded(expected_mean(halves)))


@given(pairs=st.lists(st.tuples(complex_numbers, complex_numbers), max_size=6))
@pytest.mark.parametrize("kinds", ["complex complex", "complex real", "real complex"])
def test_complex_vecdot_and_matmul(kinds, pairs):
    arrays = [np.array([pair[n] for pair in pairs], np.complex128) for n in (0, 1)]
    x, y = (
        array.real.copy() if kind == "real" else array
        for array, kind in zip(arrays, kinds.split(), strict=True)
    )
    for conjugated, result in ((-1, exact.vecdot(x, y)), (1, exact.matmul(x, y))):
        xr, xi, yr, yi = (half(a).tolist() for a in (x, y) for half in (np.real, np.imag))
        real = oracle.products(xr, yr) + [-conjugated * p for p in oracle.products(xi, yi)]
        imag = oracle.products(xr, yi) + [conjugated * p for p in oracle.products(xi, yr)]
        assert bits(result.real) == bits(oracle.rounded(oracle.exact_sum(real)))
        assert bits(result.imag) == bits(oracle.rounded(oracle.exact_sum(imag)))


def test_specials_of_a_conjugated_product_keep_their_sign():
    """conj(x) y has the imaginary half xr yi - xi yr."""
    result = exact.vecdot(np.array([1 + 1j]), np.array([complex(INF, 2.0)]))
    assert (result.real, result.imag) == (INF, -INF)
    result = exact.vecdot(np.array([1 + 1j]), np.array([complex(INF, INF)]))
    assert result.real == INF and math.isnan(result.imag)


def test_complex_matrices():
    a, b = (drawn("float64", 24, seed).view(np.complex128) for seed in (1, 2))
    a, b = a.reshape(3, 4), b.reshape(4, 3)
    result = exact.matmul(a, b)
    for i in range(3):
        for j in range(3):
            assert result[i, j] == exact.matmul(a[i], b[:, j])
    assert np.array_equal(exact.matmul(a.real, b).imag, exact.matmul(a.real, b.imag))
    assert np.array_equal(exact.matmul(a, b.real).imag, exact.matmul(a.imag, b.real))


COMPLEX_LAYOUTS = {
    "rows": lambda x: x.copy(),
    "columns": lambda x: np.asfortranarray(x),
    "apart": lambda x: np.repeat(np.repeat(x, 2, axis=0), 3, axis=1)[::2, ::3],
    "rows apart": lambda x: np.repeat(x, 2, axis=0)[::2],
    "backwards": lambda x: x[::-1, ::-1].copy()[::-1, ::-1],
    "one row of all": lambda x: np.broadcast_to(x[:1], x.shape),
    "read-only": lambda x: np.frombuffer(x.tobytes(), x.dtype).reshape(x.shape),
    "single": lambda x: x.astype(np.complex64),
}


@pytest.mark.parametrize("left", COMPLEX_LAYOUTS)
@pytest.mark.parametrize("right", COMPLEX_LAYOUTS)
@pytest.mark.parametrize("shape", [(3, 4, 5), (5, 4, 3), (1, 6, 1), (2, 0, 3), (2, 1, 2)])
def test_complex_matrices_of_every_layout(left, right, shape):
    m, k, n = shape
    source = np.random.default_rng(3)
    x, y = (source.standard_normal((e, f, 2)) @ [1, 1j] for e, f in ((m, k), (k, n)))
    a, b = COMPLEX_LAYOUTS[left](x), COMPLEX_LAYOUTS[right](y)
    result = exact.matmul(a, b)
    real = exact.matmul(np.hstack([a.real, -a.imag]), np.vstack([b.real, b.imag]))
    imag = exact.matmul(np.hstack([a.real, a.imag]), np.vstack([b.imag, b.real]))
    assert result.real.tobytes() == real.tobytes()
    assert result.imag.tobytes() == imag.tobytes()


def test_the_larger_complex_matrix_is_not_copied():
    """Where its halves come in turn along the dimension that is summed over."""
    large, small = np.ones((500, 400), np.complex128), np.ones((400, 1), np.complex128)
    for a, b in ((large, small), (small.T, large.T)):
        exact.matmul(a, b)
        tracemalloc.start()
        try:
            exact.matmul(a, b)
            assert tracemalloc.get_traced_memory()[1] < large.nbytes / 10
        finally:
            tracemalloc.stop()


def test_dtypes_of_complex_results():
    x = np.array([1 + 1j, 2.0**-30])
    assert exact.sum(x).dtype == np.complex128
    assert exact.sum(x, dtype="complex64") == np.complex64(1 + 1j)
    assert exact.sum(x.astype(np.complex64), dtype=np.complex64).dtype == np.complex64
    assert exact.matmul(x, x, dtype=np.complex64).dtype == np.complex64
    assert exact.vecdot(x, x, dtype=np.complex64).dtype == np.complex64


# --- Axes


@pytest.mark.parametrize("function", [exact.sum, exact.mean, exact.var, exact.std])
@pytest.mark.parametrize(
    ("shape", "axes"),
    [
        ((4,), [None, 0, -1, (0,), (-1,)]),
        ((2, 2), [None, (0, 1), (1, 0), (-1, 0)]),
        ((1, 2, 2), [None, (0, 1, -1)]),
        ((), [None, ()]),
    ],
)
def test_axes_that_stand_for_the_whole_array(function, shape, axes):
    x = np.arange(1.0, 1 + math.prod(shape)).reshape(shape)
    expected = function(x.reshape(-1))
    for axis in axes:
        assert function(x, axis=axis) == expected
        kept = function(x, axis=axis, keepdims=True)
        assert np.shape(kept) == (1,) * len(shape) and np.all(kept == expected)
    assert exact.vector_norm(x, axis=axes[-1]) == exact.vector_norm(x)


def test_one_dimensional_functions_take_their_one_axis():
    x = np.arange(3.0)
    assert exact.vecdot(x, x, axis=0) == exact.vecdot(x, x) == 5
    for axis in (None, 0, -1):
        assert exact.cumulative_sum(x, axis=axis).tolist() == [0, 1, 3]
    assert exact.cumulative_sum(x, include_initial=True).tolist() == [0, 0, 1, 3]


def test_shapes_of_matrix_products():
    m, v = np.ones((2, 3)), np.ones(3)
    assert exact.matmul(m, m.T).shape == (2, 2)
    assert exact.matmul(m, v).shape == (2,)
    assert exact.matmul(v, m.T).shape == (2,)
    assert exact.matmul(v, v).shape == () and type(exact.matmul(v, v)) is np.float64
