# SPDX-License-Identifier: Apache-2.0
"""Which device the tests run on: a real GPU where there is one, else the emulated device.

KORVEX_TEST_DEVICE=gpu or =emulated forces the choice. Test code is the same for both.
"""

import functools
import importlib
import os
import types

import torch


class Device:
    """The device of this run and the module that works on it."""

    def __init__(self, emulated):
        self.emulated = emulated
        if emulated:
            importlib.import_module("korvex.emulation").activate()
        self.runtime = importlib.import_module("korvex.tqx_runtime")

    def description(self):
        kind = "emulated" if self.emulated else "gpu"
        info = self.runtime.get_backend_info()
        return f"{kind}, {info['device']}, {info['native_arch']}"


@functools.cache
def choose():
    """The one device of this process."""
    wanted = os.environ.get("KORVEX_TEST_DEVICE", "")
    if wanted not in ("", "gpu", "emulated"):
        raise ValueError(f"KORVEX_TEST_DEVICE is 'gpu' or 'emulated', not {wanted!r}")
    has_gpu = torch.cuda.is_available()
    if wanted == "gpu" and not has_gpu:
        raise RuntimeError("KORVEX_TEST_DEVICE=gpu, and no GPU is available")
    return Device(emulated=wanted == "emulated" or not has_gpu)


def tensor(values, dtype=torch.float64):
    """A tensor on the device under test."""
    return torch.tensor(values, dtype=dtype, device="cuda")


def to_device(host_tensor):
    return host_tensor.to("cuda")


class CountingLoader:
    """Passes everything on to a loader and writes down the launches that its kernels are given."""

    def __init__(self, loader):
        self._loader = loader
        self.launches = []

    def __getattr__(self, name):
        return getattr(self._loader, name)

    def get_kernel(self, name):
        kernel = self._loader.get_kernel(name)

        def launch(*args, **kwargs):
            self.launches.append(name)
            return kernel.launch(*args, **kwargs)

        def function(*args):
            self.launches.append(name)
            return kernel.function(*args)

        return types.SimpleNamespace(launch=launch, function=function)
