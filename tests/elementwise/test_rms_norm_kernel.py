# SPDX-License-Identifier: Apache-2.0
"""Normalisation by the root of the mean square, bit for bit against exact arithmetic.

On the device of the run, and straight in all libraries of the emulated one, by one thread and by
several.
"""

import ctypes
import math
import random

import device
import numpy as np
import pytest
import torch
from hypothesis import given
from hypothesis import strategies as st

from korvex.emulation._library import HostLibrary, usable_instruction_sets
from korvex_tools.references.exact_arithmetic import LARGEST
from korvex_tools.references.exact_rms_norm import rms_norm
from korvex_tools.verify.golden import SPECIAL, patterns, uniform, wide

USABLE = usable_instruction_sets()
NAN = 0x7FF8000000000000


def by_function(x, eps):
    runtime = device.choose().runtime
    result = runtime._placeholder_rms_norm(device.tensor(x), eps)
    return result.cpu().numpy()


def by_library(instruction_set, threads):
    library = HostLibrary(instruction_set, threads)

    def run(x, eps):
        arrays = [np.array(x, dtype=float), np.full(len(x), 7.0)]
        pointers = [ctypes.c_void_p(array.ctypes.data) for array in arrays]
        scalars = [ctypes.c_int64(len(x)), ctypes.c_double(eps)]
        row = library.kernels["tqx_rms_norm_kernel"]
        library.launch(row, (1, 1, 1), (row.block, 1, 1), [*pointers, *scalars])
        return arrays[1]

    return run


WAYS = {"function": by_function} | {
    f"{instruction_set}, {threads} threads": by_library(instruction_set, threads)
    for instruction_set in USABLE
    for threads in (1, 3)
}
every_way = pytest.mark.parametrize("run", WAYS.values(), ids=WAYS)


def check(run, x, eps):
    result = run(x, eps)
    bits = [
        NAN if math.isnan(v) else np.float64(v).view(np.uint64).item() for v in rms_norm(x, eps)
    ]
    assert result.view(np.uint64).tolist() == bits


DATA = {
    "one": ([3.0], 0.0),
    "exact quotients": ([2.0] + [0.0] * 8, 0.0),
    "uniform": (uniform("rms", 700), 1e-6),
    "wide": (wide("rms", 500, -300, 300), 1e-6),
    "any bits": (patterns("rms", 300), 1e-6),
    "subnormal": ([5e-324 * k for k in range(60)], 0.0),
    "subnormal with eps": ([5e-324 * k for k in range(60)], 5e-324),
    "subnormal results": ([1e-20 * 2.0**-k for k in range(990)] + [2.0**60], 1e-6),
    "largest": ([LARGEST, -LARGEST, 1.0, 5e-324], 1e-6),
    "all zero": ([0.0, -0.0], 1e-6),
    "all zero without eps": ([0.0, -0.0], 0.0),
    "negative eps below the mean": ([1.0, 2.0, -3.0], -1.0),
    "negative eps above the mean": ([1.0, 2.0, -3.0], -100.0),
    "negative eps equal to the mean": ([1.0, -1.0, 0.0, 0.0], -0.5),
    "next to a root of 0": ([1.0, -1.0, 1e300], -LARGEST),
    "an infinity": ([1.0, -0.0, math.inf, -math.inf, -2.0], 1e-6),
    "a NaN": ([1.0, math.nan, math.inf], 1e-6),
    "infinite eps": ([1.0, -2.0, 0.0], math.inf),
    "NaN eps": ([1.0, -2.0], math.nan),
    "minus infinite eps": ([1.0, math.inf], -math.inf),
    "special": ([v for v in SPECIAL if math.isfinite(v)], 1e-6),
    "nothing": ([], 1e-6),
}


@every_way
@pytest.mark.parametrize("name", DATA)
def test_result_is_correctly_rounded(run, name):
    check(run, *DATA[name])


def midpoint_case(seed):
    """81 numbers whose squares sum to 4**51: each result is 9 * 2**-51 x, 54 bits for the first."""
    source = random.Random(seed)
    while True:
        x = source.randrange(2**53 // 9 + 1, 2**54 // 9) | 1
        rest = 4**51 - x * x
        parts = [x]
        for slack in (0, source.randrange(40)):
            parts.append(math.isqrt(rest) - slack)
            rest -= parts[-1] ** 2
        for c in range(math.isqrt(rest) + 1):
            d = math.isqrt(rest - c * c)
            if c * c + d * d == rest:
                return [float(v) for v in (*parts, c, d)] + [0.0] * 76


@every_way
@pytest.mark.parametrize("seed", range(8))
def test_exact_midpoint_goes_to_the_even_neighbour(run, seed):
    x = midpoint_case(seed)
    numerator = 9 * int(x[0])
    assert numerator % 2 == 1 and numerator.bit_length() == 54
    check(run, x, 0.0)


@every_way
@pytest.mark.parametrize("tiny", [2.0**-60, 2.0**-100])
def test_next_to_a_midpoint_is_no_midpoint(run, tiny):
    for seed in range(4):
        x = midpoint_case(seed)
        check(run, [*x[:-1], tiny], 0.0)
        check(run, x, -tiny * tiny)


@every_way
def test_one_result_for_a_negated_list(run):
    x = uniform("negated", 200)
    assert run(x, 1e-6).tolist() == [-v for v in run([-v for v in x], 1e-6)]


finite = st.floats(allow_nan=False, allow_infinity=False)


@given(st.lists(finite, min_size=1, max_size=20), finite)
def test_any_list_is_correctly_rounded(x, eps):
    for run in WAYS.values():
        check(run, x, eps)


def test_all_elements_are_one_group(runtime):
    x = device.tensor([[1.0, 2.0, 3.0], [4.0, 5.0, 6.0]])
    result = runtime._placeholder_rms_norm(x)
    assert result.shape == (2, 3)
    assert result.flatten().tolist() == rms_norm([1.0, 2.0, 3.0, 4.0, 5.0, 6.0], 1e-06)


def test_large_list_is_split_without_a_trace(runtime):
    x = uniform("large", 200_000)
    one, many = (by_library(USABLE[-1], threads)(x, 1e-6) for threads in (1, 4))
    assert np.array_equal(one, many)


def test_0_dimensional_input_keeps_its_shape(runtime):
    result = runtime._placeholder_rms_norm(
        torch.tensor(3.0, dtype=torch.float64, device="cuda"), 0.0
    )
    assert result.shape == () and result.item() == 1.0
