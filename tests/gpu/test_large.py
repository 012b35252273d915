# SPDX-License-Identifier: Apache-2.0
"""More elements than 32 bits can count, all alike, so that their sum is known."""

import gpu_cases
import numpy as np
import pytest

from korvex_tools.gpu.launches import Shape
from korvex_tools.references import exact_arithmetic

WORD = 0x3FF55555  # both halves of each element


@pytest.fixture(scope="module")
def elements(target):
    """Their address and number."""
    count = 2**31 + 12_345 if target.is_gpu else 2**20 + 12_345
    address = target.allocate(count)
    target.fill(address, WORD, count)
    yield address, count
    target.free(address)


@pytest.mark.parametrize("blocks_per_multiprocessor", [None, 8])
def test_more_than_32_bits_of_elements(target, elements, blocks_per_multiprocessor):
    address, count = elements
    value = np.full(2, WORD, dtype=np.uint32).view(np.float64)[0].item()
    expected = exact_arithmetic.canonical_limbs(exact_arithmetic.exact_sum([value]) * count, 2)
    row = gpu_cases.rows()["tqx_sum_kernel"]
    blocks = -(-count // row.block)
    if blocks_per_multiprocessor:
        blocks = blocks_per_multiprocessor * target.multiprocessors
    outputs = [target.allocate(1), target.allocate(1)]
    target.launch(row.name, *Shape((blocks, 1, 1), (row.block, 1, 1)), address, *outputs, count)
    target.wait()
    assert [target.read(output, 1)[0] for output in outputs] == list(expected)
    for output in outputs:
        target.free(output)
