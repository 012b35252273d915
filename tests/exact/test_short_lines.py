# SPDX-License-Identifier: Apache-2.0
"""Variances, deviations and norms of many short lines, of which a look at few bits decides most."""

from fractions import Fraction

import exact_oracle as oracle
import numpy as np
import pytest
from exact_oracle import FORMATS, bits, numbers_of

from korvex import exact
from korvex.exact import _native

RANDOM = np.random.default_rng(8)


def outliers(shape):
    """Lines whose first element is far from all others, by more than two doubles can hold."""
    x = RANDOM.standard_normal(shape)
    x[:, :1] = 1e60
    x[:1] = -1e60
    return x


def specials(shape):
    x = RANDOM.standard_normal(shape)
    x.flat[:: x.size // 5] = np.inf
    x.flat[1 :: x.size // 3] = np.nan
    return x


# By name: what makes an array of a shape.
VALUES = {
    "drawn": RANDOM.standard_normal,
    "far from 0": lambda shape: 1e9 + RANDOM.standard_normal(shape),
    "farther": lambda shape: 1e16 + 2.0 * RANDOM.integers(0, 5, shape),
    "outliers": outliers,
    "specials": specials,
    "of one value": lambda shape: np.full(shape, 0.1),
    "but for one": lambda shape: np.where(np.arange(np.prod(shape)).reshape(shape) == 3, 1.0, 0.1),
    "zeros": lambda shape: np.copysign(np.zeros(shape), RANDOM.standard_normal(shape)),
    "small integers": lambda shape: RANDOM.integers(-2, 3, shape).astype(float),
    "large": lambda shape: RANDOM.standard_normal(shape) * 1e300,
    "small": lambda shape: RANDOM.standard_normal(shape) * 1e-160,
    "subnormal": lambda shape: RANDOM.integers(-9, 9, shape) * 2.0**-1074,
    "of all sizes": lambda shape: np.ldexp(1.0, RANDOM.integers(-300, 300, shape)),
    "float32": lambda shape: RANDOM.standard_normal(shape).astype(np.float32),
    "float16": lambda shape: RANDOM.standard_normal(shape).astype(np.float16),
    "bool": lambda shape: RANDOM.standard_normal(shape) > 0,
    "int8": lambda shape: RANDOM.integers(-128, 128, shape, dtype=np.int8),
    "int64": lambda shape: RANDOM.integers(-(2**63), 2**63 - 1, shape, dtype=np.int64),
    "int64, near": lambda shape: RANDOM.integers(2**62, 2**62 + 99, shape, dtype=np.int64),
    "uint64": lambda shape: RANDOM.integers(0, 2**64 - 1, shape, dtype=np.uint64),
}
# More columns than are taken at a time, and long rows; rows that are folded; short and long ones.
SHAPES = [(2, 270), (40, 3), (10, 70)]


def expected(name, values, form, correction=0):
    if name == "vector_norm":
        squares = oracle.exact_sum(oracle.products(values, values))
        return bits(oracle.rounded_root(squares, form))
    variance = oracle.exact_variance(values)
    if isinstance(variance, Fraction):
        variance = variance * len(values) / (len(values) - correction)
    return bits((oracle.rounded if name == "var" else oracle.rounded_root)(variance, form))


CASES = [("var", 0), ("var", Fraction(1, 3)), ("std", 1), ("vector_norm", 0)]


def check(x, form="float64"):
    """In three layouts, along both axes."""
    for axis, lines in ((0, x.T), (1, x)):
        numbers = [numbers_of(np.ascontiguousarray(line)) for line in lines]
        for name, correction in CASES:
            wanted = [expected(name, line, form, correction) for line in numbers]
            options = {"correction": correction} if correction else {}
            for view in (x, np.asfortranarray(x), np.repeat(x, 2, axis=1)[:, ::2]):
                result = getattr(exact, name)(view, axis=axis, dtype=form, **options)
                found = [bits(float(each)) for each in numbers_of(np.asarray(result))]
                assert found == wanted, (name, axis)


@pytest.mark.parametrize("shape", SHAPES)
@pytest.mark.parametrize("name", VALUES)
def test_every_kind_of_lines(name, shape):
    check(VALUES[name](shape))


@pytest.mark.parametrize("form", FORMATS)
def test_every_format(form):
    check(RANDOM.standard_normal((12, 80)), form)
    check(RANDOM.standard_normal((80, 12)) * 1e-5, form)


# Elements whose norm is a midpoint of float64 and of float32.
TIES = {"float64": [1.0, 2.0**-26, 2.0**-53], "float32": [1.0, 2.0**-12, 2.0**-12, 2.0**-24]}


@pytest.mark.parametrize("length", [5, 64, 200])
@pytest.mark.parametrize("form", TIES)
def test_far_bits_decide_between_neighbours(form, length):
    """The largest of them is 2^-600 times the line's square: no two doubles hold both."""
    last_place = {"float64": 2.0**-52, "float32": 2.0**-23}[form]
    x = np.zeros((2, length))
    x[:, : len(TIES[form])] = TIES[form]
    x[1, -1] = 2.0**-300
    for rows, axis in ((x, 1), (np.asfortranarray(x), 1), (x.T.copy(), 0)):
        assert exact.vector_norm(rows, axis=axis, dtype=form).tolist() == [1.0, 1.0 + last_place]


@pytest.mark.parametrize("length", [8, 64, 256])
def test_far_bits_decide_on_variances(length):
    """Pairs of both signs: a variance of (1 + 2^-53) 2 / n, a midpoint, and a little more."""
    halves = np.zeros((2, length // 2))
    halves[:, :3] = [1.0, 2.0**-27, 2.0**-27]
    halves[1, -1] = 2.0**-300
    x = np.concatenate([halves, -halves], axis=1)
    wanted = [2 / length, (1 + 2.0**-52) * 2 / length]
    assert exact.var(x, axis=1).tolist() == wanted
    assert exact.var(x.T.copy(), axis=0).tolist() == wanted


@pytest.mark.parametrize("shape", [(700, 200), (200, 700), (20_000, 5), (5, 20_000)])
def test_instruction_sets_and_threads(shape, usable_instruction_sets):
    x = RANDOM.standard_normal(shape)
    x[3] = outliers((1, shape[1]))
    results = set()
    for instruction_set in usable_instruction_sets:
        _native.set_instruction_set(instruction_set)
        for threads in (1, 3):
            exact.set_threads(threads)
            for view in (x, np.asfortranarray(x), x[::-1]):
                arrays = [exact.var(view, axis=0), exact.vector_norm(view, axis=0)]
                arrays.append(np.sort(exact.std(view, axis=1)))
                results.add(b"".join(each.tobytes() for each in arrays))
    assert len(results) == 1
    one_by_one = [exact.var(np.ascontiguousarray(x[:, column])) for column in range(5)]
    assert exact.var(x, axis=0)[:5].tolist() == one_by_one


def test_lines_that_are_too_long_for_the_short_way():
    longest = RANDOM.standard_normal(((1 << 20) + 1, 4))  # as many as one thread does not share
    for x in (longest, longest[:-1]):
        whole = [exact.std(x[:, n].copy()) for n in range(4)]
        for threads in (1, 2):
            exact.set_threads(threads)
            assert exact.std(x, axis=0).tolist() == whole
            assert exact.std(np.ascontiguousarray(x.T), axis=1).tolist() == whole
