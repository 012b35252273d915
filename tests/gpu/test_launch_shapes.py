# SPDX-License-Identifier: Apache-2.0
"""Neither the grid nor the block shows in a result, nor what was launched just before."""

import itertools

import gpu_cases
import pytest
from gpu_comparison import bits_of, require_same_bits, require_same_bits_as_host

from korvex_tools.gpu.launches import Launch, Shape


@pytest.mark.parametrize("odd", [0, 1], ids=["aligned", "odd start"])
def test_grids_and_blocks(target, host, row, odd):
    case = gpu_cases.small_case(row, gpu_cases.operands()["any bits"])
    require_same_bits_as_host(target, host, row, case, odd)


def grids_of_a_sum(multiprocessors: int) -> list[tuple[int, int, int]]:
    clamps = [1, 2, 3, *(multiprocessors * each for each in (1, 2, 4, 8, 16, 32)), 40_000]
    return [(clamp, 1, 1) for clamp in clamps] + [(5, 3, 2), (1, 1, 7)]


@pytest.mark.parametrize("name", ["120 binades", "any bits", "first 257", "first 0"])
@pytest.mark.parametrize("kernel", ["tqx_sum_kernel", "tqx_sum_seq_kernel"])
def test_grids_of_a_sum(target, host, kernel, name):
    row, values = gpu_cases.rows()[kernel], gpu_cases.inputs()[name]
    case = gpu_cases.case_of(row, name, [values])
    extents = [(32, 1, 1), (64, 1, 1), (96, 1, 1), (128, 1, 1), (256, 1, 1), (16, 8, 2)]
    shapes = itertools.starmap(
        Shape, itertools.product(grids_of_a_sum(target.multiprocessors), extents)
    )
    if kernel == "tqx_sum_seq_kernel":
        shapes = [Shape((1, 1, 1), (32, 1, 1)), Shape((9, 2, 2), (64, 2, 2))]
    expected = bits_of(host, row, case)
    with Launch(target, row, case.sources, case.sizes) as launch:
        for shape in shapes:
            require_same_bits(f"{kernel}, {name}, {shape}", launch.run(shape), expected)


def test_launches_in_a_row(target, host, row):
    """Enqueued without a wait, so that each finds the workspace as the one before left it."""
    found = gpu_cases.operands()
    cases = [gpu_cases.small_case(row, pair) for pair in found.values()]
    expected = [bits_of(host, row, case) for case in cases]
    launches = [Launch(target, row, case.sources, case.sizes) for case in cases]
    for _ in range(20):
        for launch, case in zip(launches, cases, strict=True):
            launch.start(case.shapes[0])
    for launch, name, bits in zip(launches, found, expected, strict=True):
        with launch:
            require_same_bits(f"{row.name}, {name}, launches in a row", launch.bits(), bits)
