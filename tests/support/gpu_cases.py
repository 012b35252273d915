# SPDX-License-Identifier: Apache-2.0
"""Launches of every kernel for the checks on a GPU: operands, sizes, grids and blocks.

Without a GPU the same launches go to the host kernels, with fewer elements: that tries the checks.
"""

import ctypes
import dataclasses
import functools
import math
import os

import numpy as np
from launch_data import hard_cases, notable_arrays, sizes, threads

from korvex_tools import kernel_table
from korvex_tools.gpu.launches import ONE, Shape, usual_shape

SEED = 20251121
SINGLE_BLOCK = kernel_table.constants()["kSingleBlock"]


@functools.cache
def is_on_gpu() -> bool:
    """As KORVEX_TEST_DEVICE says, else whether a driver finds a GPU. Asks no library but that."""
    wanted = os.environ.get("KORVEX_TEST_DEVICE", "")
    if wanted:
        return wanted == "gpu"
    try:
        driver = ctypes.CDLL("libcuda.so.1")
    except OSError:
        return False
    count = ctypes.c_int()
    return driver.cuInit(0) == 0 == driver.cuDeviceGetCount(ctypes.byref(count)) and count.value > 0


@functools.cache
def rows() -> dict:
    """The kernels by name, as the package's emulated device has them."""
    from korvex.emulation._library import HostLibrary

    return HostLibrary("base", threads=1).kernels


# --- Data


def count() -> int:
    return 1_000_000 if is_on_gpu() else 5_000


@functools.cache
def inputs() -> dict[str, np.ndarray]:
    """By name: many values of each shape, and the short arrays that expose mistakes."""
    draw = np.random.default_rng(SEED)
    many = count()
    normal = draw.standard_normal(many)
    patterns = draw.integers(0, 2**64, many, dtype=np.uint64).view(np.float64)
    any_bits = np.where(np.isfinite(patterns), patterns, 1.0)
    half = draw.standard_normal(many // 2) * 2.0 ** draw.uniform(-300, 300, many // 2)
    cancelling = np.concatenate([half, -half])
    draw.shuffle(cancelling)
    outlier = normal.copy()
    outlier[7 * many // 9] = 2.0**300
    found = {
        "normal": normal,
        "normal, permuted": draw.permutation(normal),
        "120 binades": normal * 2.0 ** draw.uniform(-60, 60, many),
        "any bits": any_bits,
        "cancelling": cancelling,
        "subnormal": draw.integers(0, 2**52, many, dtype=np.uint64).view(np.float64),
        "one exponent": draw.integers(0x3FF << 52, 0x400 << 52, many, dtype=np.uint64).view(
            np.float64
        ),
        "largest of one exponent": np.full(many, math.nextafter(2.0, 0.0)),
        "one outlier": outlier,
        "levels": np.repeat(2.0 ** draw.integers(-900, 900, many // 1000), 1000) * normal,
        "huge": draw.uniform(-1.0, 1.0, many) * 1.7e308,
        "overflow and back": np.array([2.0**1023] * 2 + [-(2.0**1023)] * 2 + [5e-324]),
        "overflow": np.full(5000, 1.7e308),
        "ties": np.array([1.0, 2.0**-53, 2.0**-1074] * 999),
        "infinity": np.append(normal, math.inf),
        "both infinities": np.concatenate([[-math.inf], normal, [math.inf]]),
        "nan": np.append(normal, math.nan),
    }
    return found | {f"first {size}": normal[:size].copy() for size in (0, 257, many - 1)}


@functools.cache
def operands() -> dict[str, list[np.ndarray]]:
    """By name: two arrays of equal length, for kernels of one operand or of two."""
    draw = np.random.default_rng(SEED + 1)
    found = inputs()
    special = [0.0, 1.0, 5e-324, 2.0**-1022, 2.0**-969, 2.0**53, 1.7976931348623157e308, math.inf]
    special += [1.0 + 2.0**-52, 0.1, 3.0, 709.78, 745.14, 2.0**-27, math.pi, 2.0**1000]
    special = np.array([*special, *(-value for value in special), math.nan, -math.nan])
    normal, any_bits, small = found["normal"], found["any bits"], found["subnormal"]
    close = normal * (1.0 + 2.0 ** -draw.integers(1, 53, normal.size))
    return {
        "special with special": [
            np.repeat(special, special.size),
            np.tile(special, special.size),
        ],
        "any bits": [any_bits, draw.permutation(any_bits)],
        "normal": [normal, draw.permutation(normal)],
        "close": [normal, close],
        "subnormal": [small, normal],
        "of moderate size": [draw.uniform(-745.0, 745.0, normal.size), normal],
    }


def short(most: int) -> dict[str, list[np.ndarray]]:
    """By name: the arrays that expose mistakes, and ordinary ones of all sizes around borders."""
    found = {f"notable {i}": [x, x[::-1].copy()] for i, x in enumerate(notable_arrays())}
    both = operands()["normal"]
    for size in sizes():
        if size <= min(most, both[0].size):
            found[f"first {size}"] = [array[:size].copy() for array in both]
    return found


# --- Launches


@dataclasses.dataclass(frozen=True)
class Case:
    """Operands of a kernel and shapes of launches that all leave the same bits."""

    name: str
    sources: list[np.ndarray]
    sizes: dict[str, int]
    shapes: list[Shape]


def blocks(row, *numbers: int) -> list[Shape]:
    """Grids of so many of the kernel's own blocks."""
    return [Shape((number, 1, 1), (row.block, 1, 1)) for number in numbers]


def is_single_block(row) -> bool:
    return row.block == SINGLE_BLOCK


def is_sum(row) -> bool:
    return row.name in ("tqx_sum_kernel", "tqx_sum_seq_kernel")


def cases_of(row) -> list[Case]:
    """All that a kernel is compared on: every shape of data, and sizes around the ends of tiles."""
    if row.name == "tqx_matmul_kernel":
        return matrix_cases(MATRICES) + notable_matrices()
    if is_sum(row):
        data = {name: [values] for name, values in inputs().items()}
    elif is_single_block(row):
        data = truncated(operands(), 20_000)
    elif "dot" in row.name:
        data = truncated(operands(), 300_001)
    else:
        data = operands() | {"hard": [hard_cases(), hard_cases()[::-1].copy()]}
    data |= short(65_537)
    return [case_of(row, name, arrays) for name, arrays in data.items()]


NAMES_OF_SMALL = ("normal", "120 binades", "any bits", "levels", "nan", "overflow", "first 257")


def small_cases(row) -> list[Case]:
    """Each way through a kernel, for tools under which it runs slowly."""
    if row.name == "tqx_matmul_kernel":
        return matrix_cases(MATRICES[:4])
    if is_single_block(row):
        data = truncated(operands(), 2500) | short(2500)
    else:
        chosen = [(name, inputs()[name][:20_011]) for name in NAMES_OF_SMALL]
        data = {name: [values, values[::-1].copy()] for name, values in chosen} | short(600)
    cases = [case_of(row, name, arrays) for name, arrays in data.items()]
    return [dataclasses.replace(case, shapes=case.shapes[::2]) for case in cases]


def cases_of_whole_device(row) -> list[Case]:
    """Of a kernel of one thread or one block, in launches over the whole device: many elements of
    every shape, and sizes around the ends of tiles and blocks."""
    cut = {name: values[:300_001] for name, values in inputs().items()}
    data = {name: [values, values[::-1].copy()] for name, values in cut.items()}
    return [_one_shape(row, name, arrays) for name, arrays in (data | short(65_537)).items()]


def small_cases_of_whole_device(row) -> list[Case]:
    """The same with fewer elements."""
    chosen = [(name, inputs()[name][:20_011]) for name in NAMES_OF_SMALL]
    data = {name: [values, values[::-1].copy()] for name, values in chosen} | short(600)
    return [_one_shape(row, name, arrays) for name, arrays in data.items()]


def _one_shape(row, name: str, arrays: list[np.ndarray]) -> Case:
    sizes = {"n": arrays[0].size}
    return Case(name, arrays, sizes, [usual_shape(row, sizes)])


def truncated(pairs: dict[str, list[np.ndarray]], most: int) -> dict[str, list[np.ndarray]]:
    return {name: [array[:most] for array in pair] for name, pair in pairs.items()}


def case_of(row, name: str, arrays: list[np.ndarray]) -> Case:
    sizes = {"n": arrays[0].size}
    shapes = [usual_shape(row, sizes)]
    if row.form == "launch" and not is_single_block(row):
        shapes += blocks(row, 1, 3, 7)
    return Case(name, arrays, sizes, shapes)


MATRICES = [(1, 1, 1), (3, 0, 2), (16, 16, 16), (17, 33, 5), (64, 200, 48), (100, 1000, 70)]


def matrix_cases(matrices: list[tuple[int, int, int]]) -> list[Case]:
    """Sizes that are and are not multiples of the tile, ordinary and wild values."""
    draw = np.random.default_rng(SEED + 2)
    row = rows()["tqx_matmul_kernel"]
    found = []
    for m, k, n in matrices:
        sizes = {"M": m, "K": k, "N": n}
        for exponents in (0, 60, 1000):
            sources = [
                draw.standard_normal(size) * 2.0 ** draw.uniform(-exponents, exponents, size)
                for size in (m * k, k * n)
            ]
            name = f"{m} x {k} x {n}, exponents up to {exponents}"
            found.append(Case(name, sources, sizes, [usual_shape(row, sizes)]))
    return found


def notable_matrices() -> list[Case]:
    """One row and one column of notable values for each element of the product."""
    row = rows()["tqx_matmul_kernel"]
    found = []
    for i, values in enumerate(notable_arrays()):
        sizes_of_case = {"M": 3, "K": values.size, "N": 2}
        sources = [np.tile(values, 3), np.repeat(values, 2)]
        shape = usual_shape(row, sizes_of_case)
        found.append(Case(f"notable {i}", sources, sizes_of_case, [shape]))
    return found


def launch_shapes(row) -> list[Shape]:
    """Grids and blocks that a kernel must serve; the first is the one that the package uses."""
    if row.name == "tqx_matmul_kernel":
        tile = (16, 16, 1)
        found = [((3, 3, 1), tile), ((3, 2, 1), tile), (ONE, tile), ((40, 1, 1), (8, 4, 1))]
        return [Shape(*shape) for shape in [*found, (ONE, ONE), (ONE, (33, 1, 1))]]
    if row.form == "function":  # one thread does it all
        found = [(ONE, ONE), ((3, 2, 2), (32, 2, 1)), ((1, 5, 1), (256, 1, 1))]
    elif is_single_block(row):  # block 0 does it all
        found = [(ONE, (1024, 1, 1)), (ONE, (16, 16, 2)), ((2, 3, 2), (512, 1, 1))]
    else:
        found = [((12, 1, 1), (256, 1, 1))]
        found += [((grid, 1, 1), (size, 1, 1)) for grid in (3, 500) for size in (256, 32, 96)]
    found += [(ONE, (size, 1, 1)) for size in threads() if may_have_threads(row, size)]
    return [Shape(*shape) for shape in dict.fromkeys(found)]


def may_have_threads(row, size: int) -> bool:
    """Votes wait for whole warps; an RMS norm has one at least, and other threads only multiply."""
    most = row.block or kernel_table.constants()["kMostThreadsOfFunction"]
    if kernel_table.rows()[row.name].blocks_per_multiprocessor:
        return size <= most and size % 32 == 0
    return size <= most and (row.name != "tqx_rms_norm_kernel" or size >= 32)


def small_case(row, arrays: list[np.ndarray], n: int = 3001) -> Case:
    """One launch of n elements out of two arrays, or of matrices of fewer, on all its shapes."""
    if row.name == "tqx_matmul_kernel":
        m, k, columns = 37, 50, 41
        sizes = {"M": m, "K": k, "N": columns}
        sources = [np.resize(arrays[0], m * k), np.resize(arrays[1], k * columns)]
    else:
        sources = [array[:n].copy() for array in arrays]
        sizes = {"n": min(n, arrays[0].size)}
    return Case("small", sources, sizes, launch_shapes(row))
