# SPDX-License-Identifier: Apache-2.0
"""The sequence of an activation, and what it leaves.

The kernel library comes first, since it can be missing; then torch is changed; then the runtime is
imported, with the stand-ins in `sys.modules` for just so long. If that fails, torch is put back.
"""

from __future__ import annotations

import contextlib
import importlib
import sys
import types
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import torch

from korvex.emulation import _cuda, _factories, _library, _stand_ins
from korvex.emulation._patches import Patches

_RUNTIME = "korvex.tqx_runtime"
_LOADER = "korvex.cubin_loader_native"
_ABSENT = object()


class EmulatedDevice:
    """The emulated device of this process.

    Parameters
    ----------
    library : HostLibrary
    """

    def __init__(self, library: _library.HostLibrary) -> None:
        self._library = library

    @property
    def threads(self) -> int:
        """Host threads that one kernel may use."""
        return self._library.threads

    @property
    def instruction_set(self) -> str:
        """Which build of the kernels runs: "base", "fma" or "avx512"."""
        return self._library.instruction_set

    @property
    def library(self) -> Path:
        """The file of the kernels."""
        return self._library.path

    @property
    def name(self) -> str:
        """What `torch.cuda.get_device_name` tells."""
        return f"korvex emulated CUDA device ({self.instruction_set})"

    def __str__(self) -> str:
        return f"{self.name}, {self.threads} threads, {self.library}"


def activate(
    active: EmulatedDevice | None,
    threads: int | None,
    instruction_set: str | None,
    library: Path | None,
) -> EmulatedDevice:
    """Do what `korvex.emulation.activate` tells; `active` is what an earlier call left."""
    if threads is not None and threads < 1:
        raise ValueError(f"threads must be at least 1, not {threads}")
    if instruction_set not in (None, *_library.INSTRUCTION_SETS):
        *others, last = map(repr, _library.INSTRUCTION_SETS)
        known = f"{', '.join(others)} or {last}"
        raise ValueError(f"instruction_set must be {known}, not {instruction_set!r}")
    if library is not None:
        library = library.resolve()
    if active is None:
        return _activate_first(threads, instruction_set, library)
    if instruction_set not in (None, active.instruction_set):
        raise RuntimeError(
            f"the emulated device is active with {active.instruction_set!r} instructions, "
            "and stays so for the life of the process"
        )
    if library not in (None, active.library.resolve()):
        raise RuntimeError(
            f"the emulated device is active with the kernels in {active.library}, "
            "and stays so for the life of the process"
        )
    if threads is not None:
        active._library.threads = threads
    return active


def _activate_first(
    threads: int | None, instruction_set: str | None, path: Path | None
) -> EmulatedDevice:
    if _RUNTIME in sys.modules:
        raise RuntimeError(
            f"{_RUNTIME} was imported before korvex.emulation.activate() was called, "
            "and keeps the loader that it has"
        )
    if torch.cuda.is_initialized():
        raise RuntimeError("this process already uses a real CUDA device")
    if instruction_set is None:
        instruction_set = (
            _library.best_instruction_set() if path is None else _library.instruction_set_of(path)
        )
    if reason := _library.why_unusable(instruction_set):
        raise RuntimeError(reason)
    library = _library.HostLibrary(instruction_set, threads or _library.default_threads(), path)
    device = EmulatedDevice(library)
    patches = Patches()
    try:
        _factories.install(patches)
        _cuda.install(patches, device.name)
        cupy, loader = _stand_ins.make_cupy(), _stand_ins.make_loader_module(_LOADER, library)
        with _in_sys_modules({"cupy": cupy, _LOADER: loader}):
            importlib.import_module(_RUNTIME)
    except BaseException:
        patches.undo()
        raise
    return device


@contextlib.contextmanager
def _in_sys_modules(modules: dict[str, types.ModuleType]) -> Iterator[None]:
    """Let imports find these modules, and afterwards what they found before."""
    package, _, attribute = _LOADER.rpartition(".")
    owner = vars(importlib.import_module(package))
    before = {name: sys.modules.get(name, _ABSENT) for name in modules}
    attribute_before = owner.get(attribute, _ABSENT)
    sys.modules.update(modules)
    try:
        yield
    finally:
        _restore(sys.modules, before)
        _restore(owner, {attribute: attribute_before})


def _restore(names: dict[str, Any], before: dict[str, object]) -> None:
    for name, value in before.items():
        if value is _ABSENT:
            names.pop(name, None)
        else:
            names[name] = value
