# SPDX-License-Identifier: Apache-2.0
"""Matrix products whose inner dimension is cut over processes: each element exact, rounded once.

A process writes the product of its columns of a and its rows of b as a sum of several matrices of
float64 without any error: the rounded product, the rounded rest, and so on until the rest is zero.
Each rest is a matrix product itself, of a beside the matrices so far and b above negative units.
The sum of all these matrices over all processes is taken element by element, and rounded once.

That holds where no rest can be lost below the least double and no product overflows, which the
exponents of the elements tell. Where it does not, or too many matrices would be needed, all
processes keep one state of a dot product for each element instead, and add up the states.
"""

from __future__ import annotations

from typing import Any

import numpy as np

from korvex.exact import _native, _threads
from korvex.exact._arrays import Real
from korvex.exact._collectives import sum_over_processes
from korvex.exact._homes import Array, empty
from korvex.exact._processes import distributed, ranks_of
from korvex.exact._state import DOT, State

_MOST_LIMBS = 6
_TOO_WIDE = _MOST_LIMBS + 1
_LEAST_EXPONENT, _END_EXPONENT = -1074, 1023


def sharded_product(a: Real, b: Real, form: str, group: Any) -> Array:
    """The product of matrices that stand side by side, and below each other, over a group."""
    ranks_of(group)
    limbs = _limbs_of_product(a, b)
    most = _most_over_processes(_TOO_WIDE if limbs is None else len(limbs), group)
    if limbs is None or most == _TOO_WIDE:
        return _by_states(a, b, form, group)
    shape = (a.values.shape[0], b.values.shape[1])
    limbs += [np.zeros(shape)] * (most - len(limbs))
    return _rounded_sum(limbs, shape, form, group)


def _most_over_processes(count: int, group: Any) -> int:
    import torch

    engine = distributed()
    counts = torch.tensor([count])
    engine.all_reduce(counts, op=engine.ReduceOp.MAX, group=group)
    return int(counts.item())


def _rounded_sum(limbs: list[Array], shape: tuple[int, int], form: str, group: Any) -> Array:
    import torch

    out = torch.from_numpy(empty(shape, form)).view(getattr(torch, form))
    sum_over_processes([torch.from_numpy(each).view(-1) for each in limbs], out.view(-1), group)
    rounded: Array = (out.view(torch.uint16) if form == "bfloat16" else out).numpy()
    return rounded


# --- Products as sums of matrices


def _limbs_of_product(a: Real, b: Real) -> list[Array] | None:
    """Matrices of float64 whose sum is the exact product; None where that takes too much."""
    if not _keeps_every_rest(a, b):
        return None
    product = _product(a, b)
    is_finite = np.isfinite(product)
    limbs = [product]
    while True:
        found = [np.where(is_finite, limb, 0) for limb in limbs]
        rest = np.where(is_finite, _product(a, b, found), 0)
        if not rest.any():
            return limbs
        if len(limbs) == _MOST_LIMBS:
            return None
        limbs.append(rest)


def _product(a: Real, b: Real, less: list[Array] | None = None) -> Array:
    """The rounded product, or what is left of it without those matrices."""
    out = np.empty((a.values.shape[0], b.values.shape[1]))
    if less is None:
        _native.matmul(a.values, b.values, out, "float64", _threads.count, a.format, b.format)
        return out
    unit = -np.eye(out.shape[1])
    left = np.hstack([_doubles(a), *less])
    right = np.vstack([_doubles(b), *[unit] * len(less)])
    _native.matmul(left, right, out, "float64", _threads.count)
    return out


def _keeps_every_rest(a: Real, b: Real) -> bool:
    """Whether every sum of the products is finite, and a multiple of the least double."""
    a_range, b_range = _exponents(a), _exponents(b)
    if any(x.values.dtype.kind in "iu" and x.values.dtype.itemsize == 8 for x in (a, b)):
        return False  # such integers need not be doubles
    if a_range is None or b_range is None:
        return True
    bits_of_count = a.values.shape[1].bit_length()
    return (
        a_range[0] + b_range[0] >= _LEAST_EXPONENT
        and a_range[1] + b_range[1] + bits_of_count < _END_EXPONENT
    )


def _doubles(x: Real) -> Array:
    if x.format == "bfloat16":
        bits: Array = np.asarray(x.values).astype(np.uint32) << 16
        return bits.view(np.float32).astype(np.float64)
    return np.asarray(x.values).astype(np.float64)


def _exponents(x: Real) -> tuple[int, int] | None:
    """Elements are multiples of two to the first, and below two to the second; None: all are 0."""
    values = _doubles(x)
    values = values[np.isfinite(values) & (values != 0)]
    if not values.size:
        return None
    fractions, exponents = np.frexp(values)
    significands = np.abs(fractions * 2.0**53).astype(np.int64)
    zeros = np.frexp((significands & -significands).astype(np.float64))[1] - 1
    return int((exponents - 53 + zeros).min()), int(exponents.max())


# --- States


def _by_states(a: Real, b: Real, form: str, group: Any) -> Array:
    """One state an element, a row of the result at a time."""
    import torch

    engine = distributed()
    out = empty((a.values.shape[0], b.values.shape[1]), form)
    for row, row_of_out in zip(a.values, out, strict=True):
        words = np.zeros((b.values.shape[1], _native.words(DOT)), np.int64)
        for column, own in zip(b.values.T, words, strict=True):
            State(DOT, own).accumulate(Real(row, a.format), Real(column, b.format))
        engine.all_reduce(torch.from_numpy(words), op=engine.ReduceOp.SUM, group=group)
        row_of_out[:] = [_bits(State(DOT, own).limbs(form=form)[0], form) for own in words]
    return out


def _bits(value: float, form: str) -> float:
    return int(np.float32(value).view(np.uint32)) >> 16 if form == "bfloat16" else value
