# SPDX-License-Identifier: Apache-2.0
"""Fixed arrays of many doubles, from whole numbers alone: the same on every machine.

The source is NumPy's PCG64, whose raw 64-bit numbers are the same in every release and on every
machine; its distributions need not be, and none is used. What is done to the numbers afterwards is
exact, or one IEEE operation.
"""

import hashlib

import numpy as np

_FRACTION = np.uint64((1 << 52) - 1)


def raw(seed, count):
    """Whole numbers of 64 random bits."""
    number = int.from_bytes(hashlib.sha256(seed.encode()).digest()[:16], "little")
    return np.random.PCG64(number).random_raw(count)


def uniform(seed, count):
    """Multiples of 2**-53 in (-1, 1)."""
    return ((raw(seed, count) >> np.uint64(10)).astype(np.int64) - 2**53) * 2.0**-53


def wide(seed, count, low=-60, high=60):
    """Full 53-bit mantissas with exponents spread from `low` to `high`, either sign; normal."""
    mantissas = raw(seed, count)
    exponents = raw(f"{seed}, exponents", count) % np.uint64(high - low + 1)
    fields = (exponents + np.uint64(1023 + low)) << np.uint64(52)
    signs = mantissas & np.uint64(1 << 63)
    return (mantissas & _FRACTION | fields | signs).view(np.float64)


def any_bits(seed, count):
    """Every exponent, subnormal numbers, infinities and NaN."""
    return raw(seed, count).view(np.float64)


def finite_bits(seed, count):
    values = any_bits(seed, count)
    return np.where(np.isfinite(values), values, -0.0)


def whole(seed, count, low=-9, high=9):
    """Small whole numbers: many ties and equal values."""
    return (raw(seed, count) % np.uint64(high - low + 1)).astype(np.float64) + low


def cancelling(seed, count, low=-300, high=300):
    """Values of very different size whose sum is the last one alone."""
    half = wide(seed, count // 2 - 1, low, high)
    ends = np.array([0.0, 2.0**-1000])
    return np.concatenate([half, -half[::-1], ends])


def balanced(seed, count, spread=0):
    """Full mantissas whose product neither overflows nor gets small.

    log2 of a uniform mantissa is 0.5573049... on the average, and so many of them are halved; then
    exponents up to `spread` are added and taken off again.
    """
    mantissas = raw(seed, count) & _FRACTION
    order = np.arange(count, dtype=np.int64)
    halved = (order + 1) * 557305 // 10**6 - order * 557305 // 10**6
    exponents = (raw(f"{seed}, exponents", count // 2) % np.uint64(2 * spread + 1)).astype(np.int64)
    exponents = np.repeat(exponents - spread, 2)
    exponents[1::2] *= -1
    fields = (1023 - halved + exponents).astype(np.uint64) << np.uint64(52)
    return (mantissas | fields).view(np.float64)
