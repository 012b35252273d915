# SPDX-License-Identifier: Apache-2.0
"""The device of the demonstration: a CUDA device if this machine has one, else the emulated one."""

import importlib
import warnings
from types import ModuleType

import numpy as np
import torch


class SumDevice:
    """The runtime module, a way to bring values to its device, and a line that says which it is."""

    def __init__(self, runtime: ModuleType, description: str):
        self.runtime = runtime
        self.description = description

    def tensor(self, values: np.ndarray) -> torch.Tensor:
        return torch.from_numpy(values).to("cuda")


def choose_device(force_emulated: bool = False) -> SumDevice:
    """Decides once per process, before the runtime is imported; the description says why."""
    reason = "asked for" if force_emulated else _why_no_cuda_device()
    if reason:
        importlib.import_module("korvex.emulation").activate()
    runtime = importlib.import_module("korvex.tqx_runtime")
    info = runtime.get_backend_info()
    kind = f"emulated ({reason})" if reason else "CUDA"
    return SumDevice(runtime, f"{kind}: {info['device']}, {info['native_arch']}")


def _why_no_cuda_device() -> str:
    """Empty if there is one. A failure beyond these tests is an error, not a reason."""
    if not torch.cuda.is_available():
        return "torch finds no CUDA device"
    try:
        with warnings.catch_warnings():  # what the loader warns of stands in the description
            warnings.simplefilter("ignore", RuntimeWarning)
            loader = importlib.import_module("korvex.cubin_loader_native")
    except ImportError as error:
        return f"the CUDA device cannot be used: {error}"
    return "" if loader.HAS_CUPY else f"the CUDA device cannot be used: {loader.UNAVAILABLE_REASON}"
