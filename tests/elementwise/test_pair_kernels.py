# SPDX-License-Identifier: Apache-2.0
"""Value and error that the kernels of two operands write, bit for bit against rational arithmetic.

On the device of the run, and straight in all libraries of the emulated one, by one thread and by
several: all of them must write the same bits.
"""

import ctypes
import math
import random

import device
import numpy as np
import pytest
import torch
from hypothesis import example, given
from hypothesis import strategies as st

from korvex.emulation._library import HostLibrary, usable_instruction_sets
from korvex_tools.references.exact_arithmetic import LARGEST, SMALLEST, from_bits
from korvex_tools.references.exact_pairs import PAIRS, expected_bits
from korvex_tools.verify.golden import SPECIAL, patterns, special_pairs, uniform, wide

KERNELS = sorted(PAIRS)
SUMS = ("tqx_add_kernel", "tqx_sub_kernel")
USABLE = usable_instruction_sets()

# ---- ways to run a kernel ----


def by_loader(name, x, y):
    """As the module launches it, on the device of the run."""
    runtime = device.choose().runtime
    operands = [device.tensor(values) for values in (x, y)]
    outputs = [torch.empty(len(x), dtype=torch.float64, device="cuda") for _ in range(2)]
    arrays = [runtime.cp.from_dlpack(tensor) for tensor in operands + outputs]
    kernel = runtime._NATIVE_LOADER.get_kernel(name)
    kernel.launch(*arrays, len(x), grid=((len(x) + 255) // 256, 1, 1))
    runtime.cp.cuda.Stream.null.synchronize()
    return [output.cpu().numpy().view(np.uint64).tolist() for output in outputs]


def by_library(instruction_set, threads):
    library = HostLibrary(instruction_set, threads)

    def run(name, x, y):
        arrays = [np.array(x), np.array(y), np.full(len(x), 7.0), np.full(len(x), 7.0)]
        pointers = [ctypes.c_void_p(array.ctypes.data) for array in arrays]
        library.launch(
            library.kernels[name], (1, 1, 1), (256, 1, 1), [*pointers, ctypes.c_int64(len(x))]
        )
        return [array.view(np.uint64).tolist() for array in arrays[2:]]

    return run


WAYS = {"loader": by_loader} | {
    f"{instruction_set}, {threads} threads": by_library(instruction_set, threads)
    for instruction_set in USABLE
    for threads in (1, 3)
}
every_way = pytest.mark.parametrize("run", WAYS.values(), ids=WAYS)
every_kernel = pytest.mark.parametrize("name", KERNELS)


def check(run, name, x, y):
    outcomes = zip(*run(name, x, y), *expected_bits(name, x, y), strict=True)
    wrong = [
        (x[i].hex(), y[i].hex(), *map(hex, outcome))
        for i, outcome in enumerate(outcomes)
        if outcome[:2] != outcome[2:]
    ]
    assert wrong == []


# ---- fixed data ----


def tiny_dividends(seed, count):
    """Dividends below 2**-940 with divisors that leave a normal quotient, or barely not."""
    source = random.Random(seed)
    x = [from_bits(source.getrandbits(54) >> source.randrange(54)) for _ in range(count // 2)]
    x += [math.ldexp(1.0 + source.random(), source.randrange(-1074, -940)) for _ in x]
    y = []
    for dividend in x:
        exponent = math.frexp(dividend)[1] if dividend else -1000
        place = min(1020, max(-1074, exponent - source.randrange(-1023, 60)))
        y.append(math.ldexp(source.uniform(1.0, 2.0) * source.choice((1, -1)), place) or SMALLEST)
    return x, y


def rests_that_are_subnormal(seed, count):
    """Quotients below 2**-950, whose rest lies among the subnormal numbers or under them."""
    source = random.Random(seed)
    x, y = [], []
    for _ in range(count):
        low = source.randrange(-1030, -950)
        place = source.randrange(max(-1022, low), 10)
        x.append(math.ldexp(source.uniform(1.0, 2.0), place))
        y.append(math.ldexp(source.uniform(-2.0, 2.0), min(1023, place - low)) or 3.0)
    return x, y


def products_near_the_bottom(seed, count):
    """Products around 2**-969, where the rest begins to fall below 2**-1074, and far below."""
    source = random.Random(seed)
    x = [math.ldexp(source.uniform(-2.0, 2.0), source.randrange(-600, 0)) for _ in range(count)]
    y = [
        math.ldexp(source.uniform(-2.0, 2.0), source.randrange(-1080, -940) - math.frexp(v)[1])
        for v in x
    ]
    return x, y


DATA = {
    "special": special_pairs(),
    "uniform": (uniform(1, 4000), uniform(2, 4000)),
    "wide": (wide(3, 4000, -300, 300), wide(4, 4000, -300, 300)),
    "near": (wide(5, 4000, -3, 3), wide(6, 4000, -60, 3)),
    "patterns": (patterns(7, 4000), patterns(8, 4000)),
    "any bits": (patterns(9, 2000, finite=False), patterns(10, 2000, finite=False)),
    "huge": (wide(11, 2000, 1000, 1023), wide(12, 2000, 960, 1023)),
    "subnormal": (
        [from_bits(p % 2**54) for p in range(1, 2**62, 2**51 + 12345)],
        [from_bits(p % 2**53 or 1) for p in range(1, 2**62, 2**51 + 12345)],
    ),
    "tiny dividends": tiny_dividends(13, 4000),
    "subnormal rests": rests_that_are_subnormal(14, 4000),
    "products near the bottom": products_near_the_bottom(15, 4000),
}


@every_way
@every_kernel
@pytest.mark.parametrize("data", DATA)
def test_value_and_error_have_the_expected_bits(run, name, data):
    check(run, name, *DATA[data])


def test_data_reach_the_cases_that_they_are_for():
    """The ones described above: scaled dividends with errors, and errors below the normal."""
    value, error = expected_bits("tqx_div_kernel", *DATA["tiny dividends"])
    assert sum(e not in (0, 1 << 63) for e in error) > 1000
    _, rests = expected_bits("tqx_div_kernel", *DATA["subnormal rests"])
    assert sum(0 < e % 2**63 < 2**52 for e in rests) > 500
    assert sum(e == 0 for e in rests) > 100
    _, rests = expected_bits("tqx_mul_kernel", *DATA["products near the bottom"])
    assert sum(0 < e % 2**63 < 2**52 for e in rests) > 500


@every_way
@every_kernel
@pytest.mark.parametrize("n", [1, 255, 256, 257, 70_001, 200_000])
def test_every_element_is_written_whatever_the_count(run, name, n):
    rows = [patterns(20 + n, 100), patterns(21 + n, 100)]
    x, y = ([row[i % 100] for i in range(n)] for row in rows)
    value, error = run(name, x, y)
    expected = expected_bits(name, *rows)
    assert value == [expected[0][i % 100] for i in range(n)]
    assert error == [expected[1][i % 100] for i in range(n)]


# ---- drawn data ----

ANY_BITS = st.integers(0, 2**64 - 1).map(from_bits)
FINITE = st.floats(allow_nan=False, allow_infinity=False)
OPERAND = st.one_of(ANY_BITS, FINITE, st.sampled_from(SPECIAL))
OPERANDS = st.lists(st.tuples(OPERAND, OPERAND), min_size=1, max_size=50)


@every_kernel
@given(pairs=OPERANDS)
@example(pairs=[(LARGEST, LARGEST), (LARGEST, math.ulp(LARGEST) / 2)])
@example(pairs=[(3 * SMALLEST, 2.0**-60), (2.0**-1000, 3.0 * 2.0**-30)])
@example(pairs=[(SMALLEST, LARGEST), (LARGEST, SMALLEST), (1.0, -SMALLEST)])
@example(pairs=[(2.0**-1022, 1.0 + 2.0**-52), (2.0**-1022, 2.0), (-0.0, 3.0), (0.0, -3.0)])
def test_any_operands_give_the_expected_bits_in_every_way(name, pairs):
    x, y = map(list, zip(*pairs, strict=True))
    for run in WAYS.values():
        check(run, name, x, y)


def test_nan_is_written_in_one_form_whatever_came_in():
    payloads = [from_bits(p) for p in (0xFFF8000000000000, 0x7FF0000000000001, 0x7FF8DEADBEEF0000)]
    for name in KERNELS:
        for run in WAYS.values():
            value, error = run(name, payloads, [1.0] * 3)
            assert set(value) == {0x7FF8000000000000}
            assert set(error) == {0x7FF8000000000000 if name in SUMS else 0}


@every_way
@pytest.mark.parametrize("name", ["tqx_mul_kernel", "tqx_div_kernel"])
def test_error_of_a_product_or_quotient_is_never_minus_zero(run, name):
    for data in DATA.values():
        assert 1 << 63 not in run(name, *data)[1]
