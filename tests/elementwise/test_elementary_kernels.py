# SPDX-License-Identifier: Apache-2.0
"""exp, log, sqrt, sigmoid and tanh against MPFR, bit for bit, and the two-operation kernels.

Straight in all libraries of the emulated device, and by the functions on the device of the run.
`make verify-elementary` does the same for ten million arguments each.
"""

import ctypes
import json
import math
import pathlib

import device
import numpy as np
import pytest

from korvex.emulation._library import HostLibrary, usable_instruction_sets
from korvex_tools.references import elementary_reference as reference
from korvex_tools.references.exact_arithmetic import from_bits
from korvex_tools.verify.golden import patterns

USABLE = usable_instruction_sets()
HARD_CASES = json.loads(pathlib.Path(__file__).with_name("hard_cases.json").read_text())["cases"]
NAN = 0x7FF8000000000000
LEAST, LEAST_NORMAL = 5e-324, 2.0**-1022


def by_function(name, x):
    function = getattr(device.choose().runtime, f"tqx_{name}")
    return function(device.tensor(x)).cpu().numpy()


def by_library(instruction_set, threads=1):
    library = HostLibrary(instruction_set, threads)

    def run(name, x, *scalars):
        arrays = [np.array(x, dtype=float), np.full(len(x), 7.0)]
        x_pointer, out_pointer = (ctypes.c_void_p(array.ctypes.data) for array in arrays)
        numbers = map(ctypes.c_double, scalars)
        row = library.kernels[f"tqx_{name}_kernel"]
        values = [x_pointer, *numbers, out_pointer, ctypes.c_int64(len(x))]
        library.launch(row, (1, 1, 1), (row.block, 1, 1), values)
        return arrays[1]

    return run


WAYS = {"function": by_function} | {name: by_library(name) for name in USABLE}
every_way = pytest.mark.parametrize("run", WAYS.values(), ids=WAYS)


def check(run, name, x):
    results = run(name, x)
    assert reference.differences(x, results, reference.REFERENCE[name](list(x))) == []
    assert np.all(results.view(np.uint64)[np.isnan(results)] == NAN)


# ---- random arguments ----


@every_way
@pytest.mark.parametrize(
    "name, kind", [(name, kind) for name in reference.NAMES for kind in reference.KINDS[name]]
)
def test_random_arguments_are_correctly_rounded(run, name, kind):
    check(run, name, reference.draw(name, kind, 7, 6000).tolist())


@every_way
@pytest.mark.parametrize("name", reference.NAMES)
def test_any_bit_pattern_is_correctly_rounded(run, name):
    check(run, name, patterns(f"any {name}", 3000, finite=False))


# ---- hard cases ----


@every_way
@pytest.mark.parametrize("name", HARD_CASES)
def test_hard_cases_are_correctly_rounded(run, name):
    x = [float.fromhex(row["x"]) for row in HARD_CASES[name]]
    check(run, name, x)
    assert run(name, x).tolist() == [float.fromhex(row["result"]) for row in HARD_CASES[name]]


def test_hard_cases_are_hard():
    for name, rows in HARD_CASES.items():
        assert len(rows) == 40 and min(row["bits"] for row in rows) > 20, name


# ---- borders ----


def around(*values, count=40):
    """Each value and its neighbours."""
    found = []
    for value in values:
        below = above = value
        found.append(value)
        for _ in range(count):
            below, above = math.nextafter(below, -math.inf), math.nextafter(above, math.inf)
            found += [below, above]
    return found


BORDERS = {
    "exp": around(709.782712893384, -745.1332191019411, -744.4400719213812, -708.3964185322641)
    + around(0.0, 2.0**-54, -(2.0**-54), 2.0**-53, -(2.0**-53), 0.005415212348514945),
    "log": around(1.0, LEAST_NORMAL, 2.0**0.5, 2.0**-0.5, 2.0, 0.5) + around(LEAST)[::2],
    "sqrt": around(1.0, LEAST_NORMAL, 4.0, 2.0**1023) + around(LEAST)[::2],
    "sigmoid": around(38.0, 36.7368005696771, -745.1332191019411, -708.3964185322641)
    + around(0.0, 2.0**-53, -(2.0**-53), 2.0**-52, -(2.0**-54)),
    "tanh": around(19.0625, 19.06154746539849, 0.5, -0.5, 2.0**-27, -(2.0**-27), 0.0, LEAST_NORMAL)
    + around(0.0027076061742574, 0.34657359027997264),
}


@every_way
@pytest.mark.parametrize("name", BORDERS)
def test_borders_are_correctly_rounded(run, name):
    check(run, name, BORDERS[name])


# ---- special values ----

INF = math.inf
SPECIAL = {
    "exp": [(INF, INF), (-INF, 0.0), (0.0, 1.0), (-0.0, 1.0), (LEAST, 1.0), (1e308, INF)],
    "log": [(0.0, -INF), (-0.0, -INF), (1.0, 0.0), (INF, INF)],
    "sqrt": [(0.0, 0.0), (-0.0, -0.0), (INF, INF), (4.0, 2.0)],
    "sigmoid": [(INF, 1.0), (-INF, 0.0), (0.0, 0.5), (-0.0, 0.5), (-1e308, 0.0), (1e308, 1.0)],
    "tanh": [(INF, 1.0), (-INF, -1.0), (0.0, 0.0), (-0.0, -0.0), (LEAST, LEAST), (-LEAST, -LEAST)],
    "relu": [(INF, INF), (-INF, 0.0), (0.0, 0.0), (-0.0, 0.0), (-LEAST, 0.0), (LEAST, LEAST)],
    "neg": [(INF, -INF), (-INF, INF), (0.0, -0.0), (-0.0, 0.0), (LEAST, -LEAST)],
}
INVALID = {"log": [-1.0, -LEAST, -INF], "sqrt": [-1.0, -LEAST, -INF]}
NANS = [math.nan, from_bits(0xFFF8000000000000), from_bits(0x7FF0000000000001)]


def bits(values):
    return np.array(values, dtype=float).view(np.uint64).tolist()


@every_way
@pytest.mark.parametrize("name", SPECIAL)
def test_special_arguments(run, name):
    x, expected = zip(*SPECIAL[name], strict=True)
    assert run(name, x).view(np.uint64).tolist() == bits(expected)


@every_way
@pytest.mark.parametrize("name", sorted(SPECIAL.keys() - {"neg"}))
def test_every_nan_is_the_one_nan(run, name):
    x = NANS + INVALID.get(name, [])
    assert run(name, x).view(np.uint64).tolist() == [NAN] * len(x)


@every_way
def test_neg_flips_the_sign_bit_alone_of_nan_too(run):
    x = NANS[:2] + patterns("neg", 500)
    assert run("neg", x).view(np.uint64).tolist() == [b ^ (1 << 63) for b in bits(x)]


@pytest.mark.parametrize("instruction_set", USABLE)
def test_leaky_relu_multiplies_what_is_not_above_0(instruction_set):
    run = by_library(instruction_set)
    x = [1.0, -1.0, 0.0, -0.0, INF, -INF, -LEAST, 3.0, -3.0]
    for slope in (0.01, -0.5, 0.0, 1e308):
        expected = [v if v > 0 else slope * v for v in x]
        expected_bits = [
            NAN if math.isnan(v) else b for v, b in zip(expected, bits(expected), strict=True)
        ]
        assert run("leaky_relu", x, slope).view(np.uint64).tolist() == expected_bits
    assert run("leaky_relu", [-1.0, 2.0], math.nan).view(np.uint64).tolist() == bits([math.nan, 2])
    assert run("leaky_relu", NANS, 0.5).view(np.uint64).tolist() == [NAN] * 3


# ---- all libraries, threads ----


@pytest.mark.parametrize("name", reference.NAMES)
def test_threads_and_instruction_sets_leave_no_trace(name):
    kinds = reference.KINDS[name]
    x = np.concatenate([reference.draw(name, kind, 11, 70_000) for kind in kinds])
    results = [by_library(USABLE[-1], 1)(name, x), by_library(USABLE[-1], 3)(name, x)]
    if len(USABLE) > 1:
        results.append(by_library("base", 1)(name, x))
    for result in results[1:]:
        assert np.array_equal(results[0].view(np.uint64), result.view(np.uint64))


CHUNK = 512  # as in korvex/kernels/host/unary.cpp


def launched(library, name, x, out):
    pointers = [ctypes.c_void_p(array.ctypes.data) for array in (x, out)]
    row = library.kernels[f"tqx_{name}_kernel"]
    library.launch(row, (1, 1, 1), (row.block, 1, 1), [*pointers, ctypes.c_int64(len(x))])
    return out


def mixed(count):
    """Arguments of every kind of try side by side, in places that are not regular."""
    rng = np.random.default_rng(11)
    special = [0.0, -0.0, np.inf, -np.inf, np.nan, 2.0**-1074, -(2.0**-1040), -744.4, -709.0, 709.9]
    return np.where(
        rng.random(count) < 0.3,
        rng.choice(special, count),
        rng.choice([-1.0, 1.0], count) * np.exp2(rng.uniform(-40, 11, count)),
    )


@pytest.mark.parametrize("instruction_set", USABLE)
@pytest.mark.parametrize("name", ["exp", "log", "sigmoid", "tanh"])
def test_place_in_a_chunk_changes_no_bit(name, instruction_set):
    library = HostLibrary(instruction_set, 1)
    x = mixed(2 * CHUNK + 17)
    one_by_one = np.array(
        [launched(library, name, x[i : i + 1], np.empty(1))[0] for i in range(len(x))]
    )
    for count in (1, 7, 8, 9, 63, 65, CHUNK - 1, CHUNK, CHUNK + 1, len(x)):
        result = launched(library, name, x[:count].copy(), np.empty(count))
        assert result.tobytes() == one_by_one[:count].tobytes()


@pytest.mark.parametrize("instruction_set", USABLE)
@pytest.mark.parametrize("name", ["exp", "log", "sigmoid", "tanh"])
def test_result_may_take_the_place_of_its_argument(name, instruction_set):
    library = HostLibrary(instruction_set, 1)
    x = mixed(3 * CHUNK + 5)
    expected = launched(library, name, x, np.empty_like(x))
    assert launched(library, name, x, x).tobytes() == expected.tobytes()
