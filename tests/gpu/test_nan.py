# SPDX-License-Identifier: Apache-2.0
"""Whatever NaN goes in, and where: the one that comes out has always the same bits."""

import gpu_cases
import numpy as np
import pytest
from gpu_comparison import bits_of, require_same_bits_as_host

NAN = 0x7FF8000000000000
PAYLOADS = [NAN, NAN | 1 << 63, 0x7FF0000000000001, 0xFFF0000000000001, 0x7FFFFFFFFFFFFFFF]


@pytest.mark.parametrize("place", [0, 1, 511, 4095, 99_999])
@pytest.mark.parametrize("payload", PAYLOADS, ids=hex)
@pytest.mark.parametrize("kernel", ["tqx_sum_kernel", "tqx_sum_seq_kernel"])
def test_one_nan_in_a_sum(target, kernel, payload, place):
    row = gpu_cases.rows()[kernel]
    values = np.ones(100_000)
    values[place : place + 1].view(np.uint64)[0] = payload
    found = bits_of(target, row, gpu_cases.case_of(row, "one NaN", [values]))
    assert found.tolist() == [NAN] + [0] * (found.size - 1)


def test_nan_of_all_kinds(target, host, row):
    """neg alone passes a NaN on, with the other sign."""
    values = np.linspace(-3.0, 3.0, 600)
    values[::7].view(np.uint64)[:] = np.resize(np.array(PAYLOADS, dtype=np.uint64), 86)
    case = gpu_cases.small_case(row, [values, values[::-1].copy()])
    expected = require_same_bits_as_host(target, host, row, case)
    patterns = {int(word) for word in expected[np.isnan(expected.view(np.float64))]}
    if row.name == "tqx_neg_kernel":
        given = values[np.isnan(values)].view(np.uint64)
        assert patterns == {int(word) ^ 1 << 63 for word in given}
    else:
        assert patterns == {NAN}, row.name
