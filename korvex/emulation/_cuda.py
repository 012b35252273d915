# SPDX-License-Identifier: Apache-2.0
"""What `torch.cuda` answers and does while the emulated device stands in for a GPU.

Only what programs ask in passing: is there a device, what is its name, wait for it, seed it. The
emulated device draws its random numbers from the CPU's generator, so seeding either seeds both.
What is not here asks for a driver, as before.
"""

from __future__ import annotations

import contextlib
import types
from typing import Any

import torch

from korvex.emulation._patches import Patches
from korvex.emulation._tensor import is_emulated_device


def install(patches: Patches, device_name: str) -> None:
    """Replace the functions of `torch.cuda`."""
    answers = {
        "is_available": lambda: True,
        "device_count": lambda: 1,
        "current_device": lambda: 0,
        "get_device_name": lambda device=None: _checked(device, device_name),
        "set_device": lambda device: _checked(device, None),
        "device": _Device,
        "synchronize": lambda device=None: _checked(device, None),
        "init": lambda: None,
        "is_current_stream_capturing": lambda: False,
        "empty_cache": lambda: None,
        "ipc_collect": lambda: None,
        "reset_peak_memory_stats": lambda device=None: _checked(device, None),
        "manual_seed": _seed,
        "manual_seed_all": _seed,
        "seed": torch.seed,
        "seed_all": torch.seed,
        "initial_seed": torch.initial_seed,
        "get_rng_state": lambda device="cuda": _checked(device, torch.get_rng_state()),
        "set_rng_state": lambda new_state, device="cuda": torch.set_rng_state(new_state),
    }
    for name, answer in answers.items():
        patches.set(torch.cuda, name, answer)
    # Adam asks whether a graph is being captured, for CPU tensors too as soon as there is a device.
    stream = types.SimpleNamespace(is_capturing=lambda: False, synchronize=lambda: None)
    patches.set(torch.accelerator, "current_stream", lambda device=None: _checked(device, stream))


class _Device(contextlib.AbstractContextManager[None]):
    """The context in which a device is the current one; there is only one."""

    def __init__(self, device: Any) -> None:
        _checked(device, None)

    def __exit__(self, *exception: object) -> None:
        pass


def _checked(device: Any, answer: Any) -> Any:
    if device is not None and not is_emulated_device(device):
        raise ValueError(f"not a CUDA device: {device}")
    return answer


def _seed(seed: int) -> None:
    torch.default_generator.manual_seed(seed)
