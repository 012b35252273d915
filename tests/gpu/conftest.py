# SPDX-License-Identifier: Apache-2.0
"""The device that the kernels run on, by its driver alone: no torch and no loader stand between.

`make gpu` runs this folder with --confcutdir=tests/gpu, so that a stage starts at once.
"""

import gpu_cases
import pytest

from korvex_tools.gpu.cuda_device import HostDevice, choose_device
from korvex_tools.gpu.package_loaders import WholeDevice


@pytest.fixture(scope="session")
def target():
    """The first GPU; host kernels for every processor where there is none."""
    return choose_device(emulated=not gpu_cases.is_on_gpu())


@pytest.fixture(scope="session")
def whole_device():
    """The same with kernels over the whole device, by the package's loader."""
    return choose_device(emulated=not gpu_cases.is_on_gpu(), of_gpu=WholeDevice)


@pytest.fixture(scope="session")
def host():
    """The host kernels, whose results are expected."""
    from korvex.emulation._library import best_instruction_set

    return HostDevice(best_instruction_set())


def pytest_generate_tests(metafunc):
    """`row`: of every kernel. Its name is in the name of the test, by which `make gpu` selects."""
    if "row" in metafunc.fixturenames and "case" not in metafunc.fixturenames:
        rows = gpu_cases.rows().values()
        metafunc.parametrize("row", rows, ids=[row.name for row in rows])
