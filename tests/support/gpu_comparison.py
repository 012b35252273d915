# SPDX-License-Identifier: Apache-2.0
"""Comparison of a kernel on one device with the same on another, bit for bit."""

import numpy as np
from gpu_cases import Case

from korvex_tools.gpu.launches import Launch


def require_same_bits(what: str, actual: np.ndarray, expected: np.ndarray) -> None:
    wrong = np.flatnonzero(actual != expected)
    if wrong.size:
        first = int(wrong[0])
        found, wanted = hex(actual[first]), hex(expected[first])
        raise AssertionError(
            f"{what}: {wrong.size} wrong, the first at {first}: {found}, expected {wanted}"
        )


def bits_of(device, row, case: Case) -> np.ndarray:
    """All outputs of a launch of the first shape."""
    with Launch(device, row, case.sources, case.sizes) as launch:
        return launch.run(case.shapes[0])


def require_same_bits_as_host(target, host, row, case: Case, odd: int = 0) -> np.ndarray:
    """On every shape of the case, with arrays that start `odd` elements later. The host's bits."""
    expected = bits_of(host, row, case)
    with Launch(target, row, case.sources, case.sizes, odd) as launch:
        for shape in case.shapes:
            what = f"{row.name}, {case.name}, grid {shape.grid}, block {shape.block}, start {odd}"
            require_same_bits(what, launch.run(shape), expected)
    return expected
