# SPDX-License-Identifier: Apache-2.0
"""Infinities and NaN anywhere among the terms of sums and products, by every instruction set.

After the first of them the kernels only look for what still changes the result, so each place is
tried in all combinations: within a step, at the ends of chunks and ranges, and in the rest.
"""

import ctypes
import itertools
import math

import numpy as np
import pytest

from korvex.emulation._library import HostLibrary, usable_instruction_sets

NAN, INF = math.nan, math.inf
ONE = (1, 1, 1)
LENGTHS = [1, 2, 3, 17, 2047, 2049, 30_000, 200_001]
FILLERS = {"moderate": 0.1, "huge": 1.5e308, "alternating": -1.0}


@pytest.fixture(params=usable_instruction_sets())
def library(request):
    return HostLibrary(request.param, 3)


def launch(library, name, inputs, outputs):
    """Return what the kernel writes to so many outputs of so many elements."""
    results = [np.full(count, 7.0) for count in outputs]
    pointers = [ctypes.c_void_p(array.ctypes.data) for array in [*inputs, *results]]
    values = [*pointers, ctypes.c_int64(inputs[0].size)]
    library.launch(library.kernels[name], ONE, ONE, values)
    return np.concatenate(results)


def bits(values):
    return np.asarray(values, dtype=np.float64).view(np.uint64).tolist()


def expected_of(specials):
    """The first limb of a sum with these terms among finite ones, and what follows it."""
    if any(math.isnan(x) for x in specials) or {INF, -INF} <= set(specials):
        return NAN
    return specials[0]


def filled(filler, count):
    x = np.full(count, FILLERS[filler])
    if filler == "alternating":
        x[::2] *= -1.0
    return x


def placements(count):
    """Special terms at first, middle and last places, in combinations."""
    places = sorted({0, count // 2, count - 1})
    for choice in itertools.product([None, NAN, INF, -INF], repeat=len(places)):
        specials = {place: x for place, x in zip(places, choice, strict=True) if x is not None}
        if specials:
            yield specials


@pytest.mark.parametrize("filler", FILLERS)
@pytest.mark.parametrize("count", LENGTHS)
def test_sums(library, count, filler):
    for specials in placements(count):
        x = filled(filler, count)
        x[list(specials)] = list(specials.values())
        first = expected_of(list(specials.values()))
        assert bits(launch(library, "tqx_sum_seq_kernel", [x], [4])) == bits([first, 0, 0, 0])
        assert bits(launch(library, "tqx_sum_kernel", [x], [1, 1])) == bits([first, 0])


@pytest.mark.parametrize("filler", FILLERS)
@pytest.mark.parametrize("count", LENGTHS)
def test_dots(library, count, filler):
    """Finite products may overflow, which is no infinity; an infinity times zero is NaN."""
    for specials in placements(count):
        x, y = filled(filler, count), np.full(count, -2.0)
        x[list(specials)] = list(specials.values())
        first = -expected_of(list(specials.values()))
        assert_dots(library, x, y, first)
        assert_dots(library, y, x, first)
        y[max(specials)] = 0.0
        assert_dots(library, x, y, NAN)


def assert_dots(library, x, y, first):
    first = NAN if math.isnan(first) else first  # of one sign
    assert bits(launch(library, "tqx_dot_seq_kernel", [x, y], [4])) == bits([first, 0, 0, 0])
    assert bits(launch(library, "tqx_dot_kernel", [x, y], [1, 1, 1])) == bits([first, 0, 0])


@pytest.mark.parametrize("count", LENGTHS)
def test_norms_and_variances(library, count):
    for specials in placements(count):
        x = filled("moderate", count)
        x[list(specials)] = list(specials.values())
        norm = NAN if any(map(math.isnan, specials.values())) else INF
        assert bits(launch(library, "tqx_norm_kernel", [x], [1])) == bits([norm])
        assert bits(launch(library, "tqx_var_kernel", [x], [1, 1])) == bits([NAN, NAN])


@pytest.mark.parametrize("special", [NAN, INF, -INF])
def test_every_place_of_a_few_steps(library, special):
    """Alone, and after an infinity at the first place."""
    for place in range(70):
        x = filled("alternating", 71)
        x[place] = special
        assert bits(launch(library, "tqx_sum_seq_kernel", [x], [4])) == bits([special, 0, 0, 0])
        if place > 0:
            x[0] = INF
            first = expected_of([INF, special])
            assert bits(launch(library, "tqx_sum_seq_kernel", [x], [4])) == bits([first, 0, 0, 0])


@pytest.mark.parametrize("count", [40, 5000])
def test_all_terms_are_special(library, count):
    for terms in itertools.product([NAN, INF, -INF], repeat=2):
        x = np.resize(np.array(terms), count)
        first = expected_of(list(terms))
        assert bits(launch(library, "tqx_sum_seq_kernel", [x], [4])) == bits([first, 0, 0, 0])
        assert_dots(library, x, np.ones(count), first)
