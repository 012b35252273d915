# SPDX-License-Identifier: Apache-2.0
"""Functions of an element against MPFR, rounded from 300 bits once to each format."""

import math
from fractions import Fraction

import gmpy2
import numpy as np
import pytest
import torch
from exact_arrays import LIBRARIES, REAL_DTYPES, drawn, extremes, numpy_dtype
from exact_oracle import FORMATS, bits, numbers_of, rounded, rounded_root

from korvex import exact
from korvex.exact import _native
from korvex_tools.references import elementary_reference

NAMES = ("exp", "log", "sqrt", "sigmoid", "tanh")
NARROW = ("float32", "float16", "bfloat16")
SPECIALS = [0.0, -0.0, math.inf, -math.inf, math.nan]
ENDS = [
    sign * value
    for sign in (1.0, -1.0)
    for value in (2.0**-1074, 2.0**-1022, 2.0**-149, 2.0**-27, 1.0, 38.0, 88.7, 104.0, 709.8, 746.0)
] + [np.finfo(float).max, -np.finfo(float).max]


def of_mpfr(name, value):
    """The exact value but for 2^-300 of itself, as a fraction, or what is special, as a float."""
    with gmpy2.context(precision=300, emax=10**6, emin=-(10**6)):
        x = gmpy2.mpfr(value) if isinstance(value, float) else gmpy2.mpfr(int(value))
        wide = 1 / (1 + gmpy2.exp(-x)) if name == "sigmoid" else getattr(gmpy2, name)(x)
        if not gmpy2.is_finite(wide) or wide == 0:
            return float(wide)
        if abs(wide) > 2**1100:
            return math.copysign(math.inf, wide)
        if abs(wide) < gmpy2.mpfr(2) ** -1200:
            return math.copysign(0.0, wide)
        ratio = gmpy2.mpq(wide)
        return Fraction(int(ratio.numerator), int(ratio.denominator))


def expected(name, value, form):
    if name == "sqrt" and value > 0 and math.isfinite(value):
        return rounded_root(Fraction(value), form)
    wide = of_mpfr(name, value)
    if isinstance(wide, float):
        return wide
    result = rounded(wide, form)
    return math.copysign(result, 1 if wide > 0 else -1)  # zeros have a sign


def result_bits(array):
    return [*map(bits, numbers_of(np.asarray(array)))]


def assert_rounded(name, x, form):
    found = result_bits(getattr(exact, name)(x, dtype=form))
    for value, each in zip(numbers_of(x), found, strict=True):
        assert each == bits(expected(name, value, form)), (name, form, value)


def arguments(name, count):
    kinds = elementary_reference.KINDS[name]
    drawn = [elementary_reference.draw(name, kind, seed, count) for seed, kind in enumerate(kinds)]
    return np.concatenate([*drawn, SPECIALS, ENDS])


@pytest.mark.parametrize("form", FORMATS)
@pytest.mark.parametrize("name", NAMES)
def test_values_are_rounded_once(name, form):
    assert_rounded(name, arguments(name, 150), form)


# --- Midpoints of the narrow formats, where rounding the float64 result again goes wrong


def midpoints(form, generator, count):
    precision, least, end = FORMATS[form]
    odd = 2 * generator.integers(2 ** (precision - 1), 2**precision, count) + 1
    exponents = generator.integers(least - 1, min(end, 30) - precision, count)
    return np.ldexp(odd.astype(float), exponents)


def inverse(name, y):
    with gmpy2.context(precision=200):
        y = gmpy2.mpfr(y)
        return float(
            {
                "exp": lambda: gmpy2.log(y),
                "log": lambda: gmpy2.exp(y),
                "sqrt": lambda: y * y,
                "sigmoid": lambda: gmpy2.log(y / (1 - y)),
                "tanh": lambda: gmpy2.atanh(y),
            }[name]()
        )


def near_midpoints(name, form, count):
    y = midpoints(form, np.random.default_rng(len(name)), count)
    if name in ("sigmoid", "tanh"):
        y = y[y < 1]
    if name == "log":
        y = np.concatenate([y[y < 700], -y[y < 700]])
    x = np.array([inverse(name, float(value)) for value in y])
    x = np.concatenate([x, np.nextafter(x, np.inf), np.nextafter(x, -np.inf)])
    if name == "tanh":
        x = np.concatenate([x, -x])
    return x[np.isfinite(x)]


@pytest.mark.parametrize("form", NARROW)
@pytest.mark.parametrize("name", NAMES)
def test_midpoints_are_decided_by_the_exact_value(name, form):
    x = near_midpoints(name, form, 120)
    assert_rounded(name, x, form)
    once = getattr(exact, name)(x, dtype=form)
    twice = getattr(exact, name)(x).astype(numpy_dtype(form))
    assert np.any(once != twice) or name == "sqrt", "no argument of these tells them apart"


@pytest.mark.parametrize("form", NARROW)
def test_roots_on_a_midpoint_go_to_the_even_neighbour(form):
    precision, _, _ = FORMATS[form]
    odd = 2.0 * np.arange(2 ** (precision - 1), 2 ** (precision - 1) + 60) + 1
    x = odd * odd
    assert_rounded("sqrt", np.concatenate([x, np.nextafter(x, np.inf), np.nextafter(x, 0)]), form)


@pytest.mark.parametrize("form", NARROW)
def test_small_arguments_of_tanh_are_on_midpoints_themselves(form):
    y = midpoints(form, np.random.default_rng(3), 200)
    y = y[y < 2.0**-27]
    assert len(y) > 50 or form == "float16"
    assert_rounded("tanh", np.concatenate([y, -y]), form)


def test_largest_numbers_and_least_of_a_format():
    for form, (precision, least, end) in FORMATS.items():
        if form == "float64":
            continue
        border = 2.0**end - 2.0 ** (end - precision - 1)  # rounds to an infinity from here on
        tiny = 2.0 ** (least - 1)  # rounds to 0 up to here
        x = np.array([inverse("exp", border), inverse("exp", tiny)])
        x = np.concatenate([x, np.nextafter(x, np.inf), np.nextafter(x, -np.inf)])
        assert_rounded("exp", x, form)
        tiny_arguments = np.array([tiny, np.nextafter(tiny, 1), -tiny])
        assert_rounded("tanh", tiny_arguments, form)


# --- Formats of the argument


@pytest.mark.parametrize("name", REAL_DTYPES)
def test_every_dtype_is_taken_as_it_is(name):
    x = np.concatenate([extremes(name), drawn(name, 40)])
    for function in NAMES:
        for form in ("float64", "float32"):
            assert_rounded(function, x, form)


@pytest.mark.parametrize("dtype", ["int64", "uint64"])
@pytest.mark.parametrize("form", FORMATS)
def test_integers_beyond_doubles_are_not_rounded_first(dtype, form):
    generator = np.random.default_rng(1)
    ends = [2**53 + 1, 2**53 + 3, 2**54 - 1, 2**62 - 256, 2**63 - 1, 2**63 - 513]
    near = [2**62 + 2**31 * k + d for k in (0, 1, 5, 2**20) for d in (-1, 0, 1)]
    squares = [(2**31 + k) ** 2 + d for k in (-5, -3, -1) for d in (-1, 0, 1)]
    if dtype == "uint64":
        ends += [2**64 - 1, 2**64 - 1024, 2**64 - 1025, 2**64 - 2048, 2**63, 2**63 + 1025]
        squares += [(2**32 - 1) ** 2 + d for d in (-1, 0, 1)]
    drawn = generator.integers(2**53, 2**63, 300, dtype)
    x = np.concatenate([np.array(ends + near + squares, dtype), drawn])
    for name in ("log", "sqrt"):
        assert_rounded(name, x, form)


def test_logarithm_and_root_of_an_integer_differ_from_those_of_its_double():
    x = np.arange(2**53 + 1, 2**53 + 4001, 2)
    assert np.any(exact.sqrt(x) != exact.sqrt(x.astype(float)))
    y = np.random.default_rng(2).integers(2**62, 2**63, 4000) | 1
    assert np.any(exact.log(y) != exact.log(y.astype(float)))


def test_negative_integers_have_no_logarithm_and_no_root():
    x = np.array([-1, -(2**53) - 1, -(2**63)])
    assert np.isnan(exact.log(x)).all()
    assert np.isnan(exact.sqrt(x)).all()
    assert exact.sigmoid(x)[1:].tolist() == [0.0, 0.0]
    assert exact.tanh(x).tolist()[1:] == [-1.0, -1.0]


# --- Arrays


@pytest.mark.parametrize("library", LIBRARIES)
def test_results_belong_where_the_array_does(library):
    x = np.array([[0.5, 2.0, 3.0], [1.0, 1e-3, 7.0]], np.float32)
    given = LIBRARIES[library](x)
    for name in NAMES:
        result = getattr(exact, name)(given)
        wanted = getattr(exact, name)(x)
        if library == "numpy" or library == "dlpack":
            assert type(result) is np.ndarray
        else:
            assert type(result) is type(given)
            assert result.device == given.device
        assert tuple(result.shape) == x.shape
        assert str(result.dtype).endswith("float64")
        assert result_bits(result.cpu() if hasattr(result, "cpu") else result) == result_bits(
            wanted
        )


def test_scalars_and_empty_arrays():
    assert type(exact.exp(np.float32(0))) is np.float64
    assert exact.exp(np.array(1, np.int8), dtype="float16").dtype == np.float16
    assert exact.log(np.empty((0, 3))).shape == (0, 3)
    assert exact.tanh(torch.empty(2, 0), dtype="bfloat16").dtype == torch.bfloat16
    assert exact.sqrt(torch.tensor(4.0)).shape == ()


@pytest.mark.parametrize("form", ["float64", "float32"])
@pytest.mark.parametrize("dtype", ["float64", "float32", "uint8"])
def test_layouts_change_nothing_but_the_layout(dtype, form):
    plain = np.abs(drawn(dtype, 3 * 70 * 4).astype(dtype)).reshape(3, 70, 4)
    wide = np.zeros((6, 70, 12), dtype)
    wide[::2, :, ::3] = plain
    unaligned = np.zeros(plain.nbytes + 1, np.uint8)[1:].view(dtype).reshape(plain.shape)
    unaligned[...] = plain
    frozen = plain.copy()
    frozen.flags.writeable = False
    views = [
        (plain, plain),
        (wide[::2, :, ::3], plain),
        (unaligned, plain),
        (frozen, plain),
        (plain.T, plain.T),
        (plain[::-1, ::-1, ::-1], plain[::-1, ::-1, ::-1]),
        (plain.transpose(1, 2, 0)[:, 1:], plain.transpose(1, 2, 0)[:, 1:]),
        (np.broadcast_to(plain[:, :1], plain.shape), np.repeat(plain[:, :1], 70, 1)),
        (plain[:, :, :3], plain[:, :, :3].copy()),
    ]
    for name in NAMES:
        function = getattr(exact, name)
        for view, elements in views:
            before = view.tobytes()
            flat = function(np.ascontiguousarray(elements).reshape(-1), dtype=form)
            result = function(view, dtype=form)
            assert result.shape == view.shape
            assert result.tobytes() == flat.reshape(view.shape).tobytes()
            assert view.tobytes() == before


def test_order_of_axes_in_memory_is_kept():
    x = np.ones((2, 3, 4)).transpose(2, 0, 1)
    assert exact.exp(x).strides == x.strides
    tensor = torch.ones(2, 3).T
    assert exact.exp(tensor).stride() == tensor.stride()


# --- The same bits everywhere


@pytest.mark.parametrize("name", NAMES)
def test_instruction_sets_and_threads(name, usable_instruction_sets):
    kinds = elementary_reference.KINDS[name]
    x = np.concatenate([elementary_reference.draw(name, kind, 5, 50_000) for kind in kinds])
    x[::5000] = np.nan
    integers = drawn("int64", 140_000)
    seen = set()
    for instruction_set in usable_instruction_sets:
        _native.set_instruction_set(instruction_set)
        for threads in (1, 2, 3):
            exact.set_threads(threads)
            function = getattr(exact, name)
            parts = [function(x), *(function(x, dtype=form) for form in NARROW)]
            parts += [function(integers[:20_000]), function(x[::2]), function(x[1:].reshape(-1, 1))]
            seen.add(b"".join(part.tobytes() for part in parts))
    assert len(seen) == 1


@pytest.mark.parametrize("name", NAMES)
def test_float64_has_the_bits_of_the_module(name, module):
    x = arguments(name, 3000)
    ours = exact.__dict__[name](x)
    theirs = getattr(module, f"tqx_{name}")(torch.from_numpy(x).to("cuda")).cpu().numpy()
    assert ours.tobytes() == theirs.tobytes()
