# SPDX-License-Identifier: Apache-2.0
"""With KORVEX_LAUNCH=device a kernel of one thread or one block leaves the bits of the host kernel.

The launches are the loader's: several for one call, on as many blocks as it finds right.
"""

import itertools

import gpu_cases
import pytest
from gpu_comparison import bits_of, require_same_bits, require_same_bits_as_host

from korvex_tools import kernel_table
from korvex_tools.gpu.launches import Launch

KERNELS = kernel_table.on_the_whole_device()


def pytest_generate_tests(metafunc):
    if "kernel" in metafunc.fixturenames:
        metafunc.parametrize("kernel", KERNELS)


@pytest.mark.parametrize("odd", [0, 1], ids=["aligned", "odd start"])
def test_all_data(whole_device, host, kernel, odd):
    row = gpu_cases.rows()[kernel]
    for case in gpu_cases.cases_of_whole_device(row):
        require_same_bits_as_host(whole_device, host, row, case, odd)


def test_each_way_through_a_kernel(whole_device, host, kernel):
    """What compute-sanitizer runs, which is slow: one start for each case, in turns."""
    row = gpu_cases.rows()[kernel]
    cases = gpu_cases.small_cases_of_whole_device(row)
    for case, odd in zip(cases, itertools.cycle((0, 1)), strict=False):
        require_same_bits_as_host(whole_device, host, row, case, odd)


def test_calls_in_a_row(whole_device, host, kernel):
    """Enqueued without a wait: what one call leaves in static memory is not the next one's."""
    row = gpu_cases.rows()[kernel]
    cases = gpu_cases.small_cases_of_whole_device(row)
    expected = [bits_of(host, row, case) for case in cases]
    launches = [Launch(whole_device, row, case.sources, case.sizes) for case in cases]
    for _ in range(5):
        for launch, case in zip(launches, cases, strict=True):
            launch.start(case.shapes[0])
    for launch, case, bits in zip(launches, cases, expected, strict=True):
        with launch:
            require_same_bits(f"{kernel}, {case.name}, calls in a row", launch.bits(), bits)


def test_the_table_is_read(kernel):
    """The cases are many blocks long, where the loader has many."""
    elements = kernel_table.constants()["kSumBlockElements"]
    sizes = [case.sizes["n"] for case in gpu_cases.cases_of_whole_device(gpu_cases.rows()[kernel])]
    assert min(sizes) == 0 and max(sizes) >= elements
    assert kernel in kernel_table.rows() and len(KERNELS) == 8
