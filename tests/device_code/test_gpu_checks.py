# SPDX-License-Identifier: Apache-2.0
"""The checks for a GPU, tried with host kernels in its place: they reach and judge every kernel."""

import numpy as np
import pytest

from korvex_tools.gpu import checks as gpu_checks
from korvex_tools.gpu import inputs as gpu_inputs
from korvex_tools.gpu.cuda_device import HostDevice


@pytest.fixture(scope="module")
def all_inputs():
    return gpu_checks.inputs()


@pytest.fixture
def checks(all_inputs, monkeypatch):
    """On inputs so short that all of them take a moment."""
    small = {name: values[:400].copy() for name, values in all_inputs.items()}
    for module in (gpu_checks, gpu_inputs):
        monkeypatch.setattr(module, "inputs", lambda: small)
    monkeypatch.setattr(gpu_checks, "MATRICES", gpu_checks.MATRICES[:3])
    return gpu_checks


@pytest.fixture
def host():
    return HostDevice("base")


class Watched:
    """A host device that notes the kernels it runs and spoils the results of one of them."""

    def __init__(self, host, spoiled=None):
        self._host, self._spoiled = host, spoiled
        self.launched = set()
        self._touched = ()  # by the last launch, if that was one of the spoiled kernel

    def __getattr__(self, name):
        return getattr(self._host, name)

    def launch(self, name, grid, block, *arguments):
        self.launched.add(name)
        self._host.launch(name, grid, block, *arguments)
        self._touched = arguments if name == self._spoiled else ()

    def read(self, address, count):
        """The last bit of every element is turned after a launch of the spoiled kernel."""
        values = self._host.read(address, count)
        if address in self._touched:
            values.view(np.uint64)[:] ^= 1
        return values


COMPARISONS = ("sums", "elementwise", "dots", "matrices", "reductions")


def launched_by(checks, host, *names):
    device = Watched(host)
    for name in names:
        figures = checks.CHECKS[name](device, host)
        assert figures["compared"] > 0 and figures["wrong"] == []
    return device.launched


def test_every_kernel_is_compared_with_the_host(checks, host):
    assert launched_by(checks, host, *COMPARISONS) == set(host.kernels())


@pytest.mark.parametrize("check", ["grids", "nan", "sanitizer"])
def test_every_kernel_is_reached_by(checks, host, check):
    """On several grids and blocks, with all kinds of NaN, under compute-sanitizer."""
    assert launched_by(checks, host, check) == set(host.kernels())


def test_there_are_several_shapes_for_every_kernel(checks, host):
    for row in host.kernels().values():
        shapes = checks.launch_shapes(row)
        assert len(set(shapes)) == len(shapes) > 2
        assert len({grid for grid, _ in shapes}) > 1 and len({block for _, block in shapes}) > 1


def kernel_names():
    from korvex.emulation._library import HostLibrary

    return list(HostLibrary("base", threads=1).kernels)


@pytest.mark.parametrize("kernel", kernel_names())
def test_a_wrong_bit_of_any_kernel_is_noticed(checks, host, kernel):
    figures = checks.check_sanitizer(Watched(host, spoiled=kernel), host)
    reported = " ".join(figures["wrong"])
    others = set(kernel_names()) - {kernel}
    assert figures["wrong"] and not any(f"{name}, " in reported for name in others)
