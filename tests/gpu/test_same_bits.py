# SPDX-License-Identifier: Apache-2.0
"""Every kernel leaves the bits of the host kernel, on all data, wherever its arrays start."""

import itertools

import gpu_cases
import pytest
from gpu_comparison import require_same_bits_as_host

ODD_STARTS = (0, 1)  # at a multiple of 16 bytes, and 8 bytes after one

PAIRS = [(row, case) for row in gpu_cases.rows().values() for case in gpu_cases.cases_of(row)]


@pytest.mark.parametrize(
    ("row", "case"), PAIRS, ids=[f"{row.name}-{case.name}" for row, case in PAIRS]
)
def test_all_data(target, host, row, case):
    for odd in ODD_STARTS:
        require_same_bits_as_host(target, host, row, case, odd)


def test_each_way_through_a_kernel(target, host, row):
    """What compute-sanitizer runs, which is slow: one start for each case, in turns."""
    for case, odd in zip(gpu_cases.small_cases(row), itertools.cycle(ODD_STARTS), strict=False):
        require_same_bits_as_host(target, host, row, case, odd)
