# SPDX-License-Identifier: Apache-2.0
"""The checks of this folder, tried with host kernels: they reach and judge every kernel."""

import gpu_cases
import numpy as np
import pytest
from gpu_comparison import bits_of, require_same_bits_as_host

from korvex_tools.gpu.cuda_device import HostDevice
from korvex_tools.gpu.launches import usual_shape


class Spoiled(HostDevice):
    """A host device that turns the last bit of each result of one kernel."""

    def __init__(self, kernel: str) -> None:
        super().__init__("base")
        self._kernel = kernel
        self._touched: tuple = ()  # by the last launch, if that was one of the kernel

    def launch(self, name, grid, block, *arguments):
        super().launch(name, grid, block, *arguments)
        self._touched = arguments if name == self._kernel else ()

    def read(self, address, count):
        values = super().read(address, count)
        if address in self._touched:
            values.view(np.uint64)[:] ^= 1
        return values


def test_every_kernel_has_cases_and_small_ones(row):
    for cases in (gpu_cases.cases_of(row), gpu_cases.small_cases(row)):
        assert len(cases) > 5 and len({case.name for case in cases}) == len(cases)
        assert all(case.shapes[0] == usual_shape(row, case.sizes) for case in cases)


def test_there_are_several_shapes_for_every_kernel(row):
    shapes = gpu_cases.launch_shapes(row)
    assert len(set(shapes)) == len(shapes) > 2
    assert len({shape.grid for shape in shapes}) > 1
    assert len({shape.block for shape in shapes}) > 1


@pytest.mark.parametrize("cases_of", [gpu_cases.cases_of, gpu_cases.small_cases])
def test_a_wrong_bit_of_any_kernel_is_noticed(host, row, cases_of):
    """In every case that leaves a result."""
    device = Spoiled(row.name)
    for case in cases_of(row):
        if bits_of(host, row, case).size == 0:
            continue
        with pytest.raises(AssertionError, match=f"{row.name}, .* wrong, the first at 0"):
            require_same_bits_as_host(device, host, row, case)


def test_a_right_kernel_beside_a_wrong_one_passes(host, row):
    device = Spoiled("another")
    for case in gpu_cases.small_cases(row):
        require_same_bits_as_host(device, host, row, case)
