# SPDX-License-Identifier: Apache-2.0
"""The table of kernels as it is read from its header: what the built package knows of it agrees."""

import pytest

from korvex.emulation._library import HostLibrary
from korvex.emulation._signature import parse
from korvex_tools import kernel_table

ROWS = HostLibrary("base", threads=1).kernels


def test_there_are_the_same_kernels():
    assert kernel_table.rows().keys() == ROWS.keys()


@pytest.mark.parametrize("name", ROWS)
def test_rows_agree(name):
    built, read = ROWS[name], kernel_table.rows()[name]
    assert (built.form, built.block) == (read.form, read.block)
    assert built.parameters == parse(read.parameters)
    assert built.strides_along_y == read.strides_along_y


def test_sums_have_a_limit_of_blocks_and_of_elements_for_each():
    constants = kernel_table.constants()
    for name, blocks, elements in (
        ("tqx_sum_kernel", "kResidentSumBlocks", "kSumBlockElements"),
        ("tqx_dot_kernel", "kResidentDotBlocks", "kDotBlockElements"),
    ):
        row = kernel_table.rows()[name]
        assert row.blocks_per_multiprocessor == constants[blocks] > 0
        assert row.elements_per_block == constants[elements] > row.block
    assert kernel_table.rows()["tqx_add_kernel"].blocks_per_multiprocessor == 0


def test_launches_over_the_whole_device_and_of_states_have_a_number_of_blocks():
    blocks = kernel_table.blocks_per_multiprocessor()
    whole_device = [name for row in kernel_table.on_the_whole_device().values() for name in row]
    assert [*blocks] == [*whole_device, *kernel_table.of_states()]
    assert all(blocks[name] > 0 for name in whole_device)
    single = {name for name, count in blocks.items() if count == 0}
    assert single == {"korvex_settle_state", "korvex_round_state", "korvex_join_segments"}
