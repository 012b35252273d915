# SPDX-License-Identifier: Apache-2.0
"""Results do not depend on instruction sets, threads, order, or how elements are cut into arrays.

Long arrays, so that registers, blocks and threads all have their part in a call.
"""

import ctypes
import mmap

import numpy as np
import pytest
from exact_arrays import REAL_DTYPES, drawn, numpy_dtype
from exact_oracle import numbers_of

from korvex import exact
from korvex.exact import _native

LONG = 40_003
FOR_THREADS = 140_003  # each thread gets 2^16 elements at least
COUNT_OF_SPECIALS = 40


def long_array(name, specials=False, length=LONG):
    x = drawn(name, length, seed=11)
    if specials and numpy_dtype(name).kind in "fV":
        places = np.random.default_rng(5).choice(length, COUNT_OF_SPECIALS, replace=False)
        x[places] = np.tile([np.inf, -np.inf, np.nan, np.inf], COUNT_OF_SPECIALS // 4)
    return x


def everything(x, y):
    """Bytes of all three accumulators and of the functions' results."""
    dot = exact.Dot()
    dot.add(x, y)
    kept = [exact.Sum.from_chunks([x]), dot, exact.Moments.from_chunks([x])]
    matrix = x[:1200].reshape(30, 40)
    arrays = [
        exact.sum(x),
        exact.vecdot(x, y),
        exact.cumulative_sum(x[:3000]),
        exact.matmul(matrix, y[:1200].reshape(40, 30)),
        exact.sum(x, dtype="float32"),
        exact.var(x),
    ]
    return [*map(bytes, kept)] + [np.asarray(each).tobytes() for each in arrays]


@pytest.mark.parametrize("name", REAL_DTYPES)
@pytest.mark.parametrize("specials", [False, True], ids=["finite", "with specials"])
def test_instruction_sets_and_threads(name, specials, usable_instruction_sets):
    x = long_array(name, specials, FOR_THREADS)
    y = x[::-1]
    results = []
    for instruction_set in usable_instruction_sets:
        _native.set_instruction_set(instruction_set)
        assert _native.instruction_set() == instruction_set
        for threads in (1, 2, 5):
            exact.set_threads(threads)
            results.append(everything(x, y))
    assert all(result == results[0] for result in results)
    if not specials:
        assert exact.Sum.from_chunks([x]).to_fraction() == sum_of_numbers(x)


@pytest.mark.parametrize("threads", [1, 2])
def test_any_thread_finds_what_is_not_finite(threads):
    """Lines so long and few that threads share each of them; one element of each decides."""
    exact.set_threads(threads)
    for place in (0, FOR_THREADS - 1):
        x = np.ones((3, FOR_THREADS))
        x[:, place] = [np.inf, -np.inf, np.nan]
        ones = np.ones_like(x)
        for found in (exact.sum(x, axis=1), exact.mean(x, axis=1), exact.vecdot(x, ones)):
            assert np.array_equal(found, [np.inf, -np.inf, np.nan], equal_nan=True)
        norms = exact.vector_norm(x, axis=1)
        assert np.array_equal(norms, [np.inf, np.inf, np.nan], equal_nan=True)


def sum_of_numbers(x):
    from fractions import Fraction

    return sum(map(Fraction, numbers_of(x)), Fraction())


@pytest.mark.parametrize("name", REAL_DTYPES)
@pytest.mark.parametrize("specials", [False, True], ids=["finite", "with specials"])
def test_chunks_and_order(name, specials):
    x = long_array(name, specials)
    shuffled = x[np.random.default_rng(7).permutation(LONG)]
    for kind in (exact.Sum, exact.Moments):
        whole = kind.from_chunks([x])
        for size in (1009, 8192, 30_000):
            cut = [x[place : place + size] for place in range(0, LONG, size)]
            assert kind.from_chunks(cut) == whole
            assert kind.from_chunks(reversed(cut)).checksum() == whole.checksum()
            assert sum_of_parts(kind, cut) == whole
        assert kind.from_chunks([shuffled]) == kind.from_chunks([x[::-1]]) == whole
        whole.subtract(x[::2])
        assert whole == kind.from_chunks([x[1::2]])


def sum_of_parts(kind, chunks):
    """By merging in pairs, as processes would."""
    parts = [kind.from_chunks([chunk]) for chunk in chunks]
    while len(parts) > 1:
        joined = [a + b for a, b in zip(parts[::2], parts[1::2], strict=False)]
        parts = joined + parts[2 * len(joined) :]
    return parts[0]


@pytest.mark.parametrize("name", ["float64", "float32", "bfloat16", "int64", "uint8"])
def test_strides_and_alignment_of_long_arrays(name):
    x = long_array(name)
    raw = np.zeros(x.nbytes + 16, np.uint8)
    wide = np.zeros((LONG, 3), x.dtype)
    wide[:, 1] = x
    expected = everything(x, x)
    for offset in (0, 1, 4, 8):
        shifted = raw[offset : offset + x.nbytes].view(x.dtype)
        shifted[:] = x
        assert everything(shifted, x) == expected
    assert everything(wide[:, 1], wide[:, 1]) == expected
    assert everything(x[::-1].copy()[::-1], x) == expected


def before_memory_that_cannot_be_read(size, dtype):
    """Zeros that end where a page begins which ends the process when it is read."""
    memory = mmap.mmap(-1, 2 * mmap.PAGESIZE)
    address = ctypes.addressof(ctypes.c_char.from_buffer(memory))
    libc = ctypes.CDLL(None, use_errno=True)
    end = ctypes.c_void_p(address + mmap.PAGESIZE)
    assert libc.mprotect(end, ctypes.c_size_t(mmap.PAGESIZE), 0) == 0
    first = mmap.PAGESIZE - size * dtype.itemsize
    return np.frombuffer(memory, np.uint8, size * dtype.itemsize, first).view(dtype)


@pytest.mark.parametrize("name", REAL_DTYPES)
@pytest.mark.parametrize("step", [2, 3, -2])
def test_nothing_is_read_behind_the_last_element(name, step, usable_instruction_sets):
    for instruction_set in usable_instruction_sets:
        _native.set_instruction_set(instruction_set)
        for size in (1, 2, 7, 8, 9, 16, 17, 33, 65, 130):
            x = drawn(name, size, seed=size)
            apart = before_memory_that_cannot_be_read((size - 1) * abs(step) + 1, x.dtype)[::step]
            apart[:] = x
            assert exact.Sum.from_chunks([apart]) == exact.Sum.from_chunks([x])


@pytest.mark.parametrize(
    "length", [*range(70), *(2**k + d for k in range(7, 14) for d in (-1, 0, 1))]
)
def test_every_length_is_that_of_its_elements_one_by_one(length):
    x = long_array("float64")[:length]
    narrow = long_array("float32")[:length]
    total, dot = exact.Sum.from_chunks([x]), exact.Dot.from_chunks([(x, narrow)])
    half = length // 2
    assert total == exact.Sum.from_chunks([x[half:], x[:half]])
    assert dot == exact.Dot.from_chunks([(x[half:], narrow[half:]), (x[:half], narrow[:half])])
    if length < 70:
        assert total == exact.Sum.from_chunks(x[place : place + 1] for place in range(length))


def test_steps_of_several_threads_on_one_accumulator_wait_for_each_other():
    from concurrent.futures import ThreadPoolExecutor

    x = long_array("float64")
    total = exact.Sum()
    with ThreadPoolExecutor(4) as pool:
        parts = np.array_split(x, 40)
        for done in [*pool.map(total.add, parts), *pool.map(total.subtract, parts[::2])]:
            assert done is None
        merged = [exact.Sum.from_chunks([part]) for part in parts[::2]]
        assert [*pool.map(total.merge, merged)] == [None] * 20
    assert total == exact.Sum.from_chunks([x])


def test_adding_from_several_threads_to_accumulators_of_their_own():
    from concurrent.futures import ThreadPoolExecutor

    x = long_array("float64")
    with ThreadPoolExecutor(4) as pool:
        parts = pool.map(lambda part: exact.Sum.from_chunks([part]), np.array_split(x, 40))
        total = exact.Sum()
        for part in parts:
            total += part
    assert total == exact.Sum.from_chunks([x])
