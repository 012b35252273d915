# SPDX-License-Identifier: Apache-2.0
"""Matrix products on a GPU, each element rounded once there.

The kernel of products reads contiguous float64; other operands are copied to that by a kernel,
exactly. A 64-bit integer is two doubles, itself rounded and the rest; then each of them meets each
of the other operand's, one after the other along the dimension that is summed over. The halves of
complex matrices stand beside each other in the same way. All launches go to the caller's current
stream, with memory of the arrays' library, and nothing waits for them.
"""

from __future__ import annotations

import math
from typing import Any

import numpy as np

from korvex.exact._arrays import Real
from korvex.exact._device_state import DeviceState
from korvex.exact._device_views import FINITE, REST, WHOLE, WIDE, doubles, launch
from korvex.exact._devices import FORMAT_NUMBERS, Device, Run
from korvex.exact._state import DOT

BLOCK = 256  # threads, as in korvex/kernels/table.h
# An element of more products, and a product of one element, is a dot product of its own: the
# kernel of products has one thread for each, and slices for no more.
MOST_DEPTH = 1 << 17

# One of the products that are added up: two operands, and which part of each.
Term = tuple[Run, int, Run, int]


# --- Matrices


def matmul(
    device: Device,
    left: list[Real],
    right: list[Real],
    batch: tuple[int, ...],
    form: str,
    shape: Any,
) -> Any:
    """Products of matrices, or of the halves of complex ones, one after the other of a batch."""
    size = left[0].values.shape[-2] * right[0].values.shape[-1]
    halves = max(len(left), len(right))
    out = device.empty(math.prod(batch) * size * halves, form)
    for place, index in enumerate(np.ndindex(*batch) if size else ()):
        own_left, own_right = ([_at(half, index) for half in each] for each in (left, right))
        _multiply_one(device, own_left, own_right, out, place * size * halves, form)
    return (out if halves == 1 else device.joined(out)).reshape(shape)


def _at(half: Real, index: tuple[int, ...]) -> Real:
    """The matrix of one index of a batch, of which each axis of length 1 has but one."""
    axes = half.values.shape[:-2]
    own = index[len(index) - len(axes) :]
    place = tuple(0 if n == 1 else i for n, i in zip(axes, own, strict=True))
    return half._replace(values=half.values[place]) if place else half


def _multiply_one(
    device: Device, left: list[Real], right: list[Real], out: Any, first: int, form: str
) -> None:
    """Write the product of two matrices from one element of the result on."""
    rows, depth = left[0].values.shape
    columns = right[0].values.shape[1]
    sums = _sums_of_products(left, right)
    for half, pairs in enumerate(sums):
        if rows * columns == 1 or depth * _most_terms(device, pairs) > MOST_DEPTH:
            _multiply_by_states(device, pairs, out, first + half, len(sums), form)
        else:
            terms = _terms(device, pairs)
            _multiply(device, terms, (rows, columns, depth), out, first + half, len(sums), form)


def _sums_of_products(left: list[Real], right: list[Real]) -> list[list[tuple[Real, Real]]]:
    """For each half of the result the real products whose sum it is."""
    if len(left) == len(right) == 1:
        return [[(left[0], right[0])]]
    if len(right) == 1:
        return [[(half, right[0])] for half in left]
    if len(left) == 1:
        return [[(left[0], half)] for half in right]
    (a, ai), (b, bi) = left, right
    return [[(a, b), (ai._replace(values=-ai.values), bi)], [(a, bi), (ai, b)]]


def _most_terms(device: Device, pairs: list[tuple[Real, Real]]) -> int:
    wide = ("int64", "uint64")
    halves = [[1 + (device.format_of(x.values) in wide) for x in pair] for pair in pairs]
    return sum(of_a * of_b for of_a, of_b in halves)


def _terms(device: Device, pairs: list[tuple[Real, Real]]) -> list[Term]:
    terms: list[Term] = []
    for x, y in pairs:
        a, b = device.run(x.values, True), device.run(y.values, True)
        terms.append((a, WHOLE, b, WHOLE))
        # An infinity or a NaN must meet the whole of an integer, and the rest of none.
        if a.format in WIDE:
            terms.append((a, REST, b, WHOLE if b.format in WIDE else FINITE))
        if b.format in WIDE:
            terms.append((a, WHOLE if a.format in WIDE else FINITE, b, REST))
        if a.format in WIDE and b.format in WIDE:
            terms.append((a, REST, b, REST))
    return terms


def _multiply(
    device: Device,
    terms: list[Term],
    extents: tuple[int, int, int],
    out: Any,
    first: int,
    halves: int,
    form: str,
) -> None:
    rows, columns, depth = extents
    a = doubles(device, [(run, part) for run, part, _, _ in terms], 1)
    b = doubles(device, [(run, part) for _, _, run, part in terms], columns)
    width = _tile_width(rows, columns)
    tiles = -(-columns // width) * -(-rows // (BLOCK // width))
    launch(
        device,
        "korvex_multiply",
        tiles,
        width,
        a.address,
        b.address,
        rows,
        columns,
        depth * len(terms),
        device.address(out) + first * out.itemsize,
        halves,
        FORMAT_NUMBERS[form],
    )


def _tile_width(rows: int, columns: int) -> int:
    """Columns of a tile: 16, or what leaves few of a block's threads without an element.

    >>> _tile_width(100, 100), _tile_width(100, 1), _tile_width(3, 100)
    (16, 1, 64)
    """
    if columns < 16:
        return 1 << (columns - 1).bit_length()
    return BLOCK >> (rows - 1).bit_length() if rows < 16 else 16


def _multiply_by_states(
    device: Device,
    pairs: list[tuple[Real, Real]],
    out: Any,
    first: int,
    halves: int,
    form: str,
) -> None:
    rows, columns = pairs[0][0].values.shape[0], pairs[0][1].values.shape[1]
    for row in range(rows):
        for column in range(columns):
            state = DeviceState(DOT, device)
            for a, b in pairs:
                x, y = a.values[row, :], b.values[:, column]
                state.accumulate(a._replace(values=x), b._replace(values=y))
            state.round_into(out, first + (row * columns + column) * halves, form)
