# SPDX-License-Identifier: Apache-2.0
"""Operands for the checks on a GPU: ordinary values, any bits, and what exposes mistakes."""

import math

import numpy as np

SEED = 20251121


def inputs() -> dict[str, np.ndarray]:
    """By name: about a million values of each shape, and the short ones that expose mistakes."""
    draw = np.random.default_rng(SEED)
    count = 1_000_000
    normal = draw.standard_normal(count)
    patterns = draw.integers(0, 2**64, count, dtype=np.uint64).view(np.float64)
    any_bits = np.where(np.isfinite(patterns), patterns, 1.0)
    half = draw.standard_normal(count // 2) * 2.0 ** draw.uniform(-300, 300, count // 2)
    cancelling = np.concatenate([half, -half])
    draw.shuffle(cancelling)
    outlier = normal.copy()
    outlier[777_777] = 2.0**300
    found = {
        "normal": normal,
        "normal, permuted": draw.permutation(normal),
        "120 binades": normal * 2.0 ** draw.uniform(-60, 60, count),
        "any bits": any_bits,
        "cancelling": cancelling,
        "subnormal": draw.integers(0, 2**52, count, dtype=np.uint64).view(np.float64),
        "one exponent": draw.integers(0x3FF << 52, 0x400 << 52, count, dtype=np.uint64).view(
            np.float64
        ),
        "largest of one exponent": np.full(count, math.nextafter(2.0, 0.0)),
        "one outlier": outlier,
        "levels": np.repeat(2.0 ** draw.integers(-900, 900, 1000), 1000) * normal,
        "huge": draw.uniform(-1.0, 1.0, count) * 1.7e308,
        "overflow and back": np.array([2.0**1023] * 2 + [-(2.0**1023)] * 2 + [5e-324]),
        "overflow": np.full(5000, 1.7e308),
        "ties": np.array([1.0, 2.0**-53, 2.0**-1074] * 999),
        "infinity": np.append(normal, math.inf),
        "both infinities": np.concatenate([[-math.inf], normal, [math.inf]]),
        "nan": np.append(normal, math.nan),
    }
    for size in (0, 1, 2, 31, 255, 256, 257, 511, 512, 513, 2047, 2048, 2049, 4097, 999_999):
        found[f"first {size}"] = normal[:size].copy()
    return found


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
