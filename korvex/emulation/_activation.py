# SPDX-License-Identifier: Apache-2.0
"""The sequence of an activation, and what it leaves.

The kernel library comes first, since it can be missing; then torch is changed; then the runtime is
imported, with the stand-ins in `sys.modules` for just so long. If that fails, torch is put back.
"""

from __future__ import annotations

import contextlib
import importlib
import os
import sys
import types
from collections.abc import Iterator
from pathlib import Path

import torch

import korvex.emulation._operations  # noqa: F401  (registers the rules of all operations)
from korvex.emulation import _autograd, _cuda, _factories, _library, _stand_ins
from korvex.emulation._device import EmulatedDevice
from korvex.emulation._patches import Patches

_RUNTIME = "korvex.tqx_runtime"
_LOADER = "korvex.cubin_loader_native"
TRIED_TORCH = ("2.13",)  # the releases of which the tests of the emulated device have passed
ANY_TORCH = "KORVEX_EMULATION_ANY_TORCH"
# An attribute of `torch.cuda` while it is changed: torch outlives what is deleted of sys.modules.
_MARK = "_korvex_emulated_device"


def activate(
    active: EmulatedDevice | None,
    threads: int | None,
    instruction_set: str | None,
    library: str | os.PathLike[str] | None,
) -> EmulatedDevice:
    """Do what `korvex.emulation.activate` documents; `active` is what an earlier call left."""
    _check_threads(threads)
    _check_instruction_set(instruction_set)
    path = _checked_path(library)
    if active is None:
        return _activate_first(threads, instruction_set, path)
    if instruction_set not in (None, active.instruction_set):
        raise RuntimeError(
            f"the emulated device is active with {active.instruction_set!r} instructions, "
            "and stays so for the life of the process"
        )
    if path not in (None, active.library.resolve()):
        raise RuntimeError(
            f"the emulated device is active with the kernels in {active.library}, "
            "and stays so for the life of the process"
        )
    if threads is not None:
        active._library.threads = threads
    return active


def _check_torch() -> None:
    """Of another release some operations may be missing here, or have other bits."""
    release = ".".join(torch.__version__.split(".")[:2])
    if release in TRIED_TORCH or os.environ.get(ANY_TORCH) == "1":
        return
    *others, last = list(TRIED_TORCH)
    tried = f"{', '.join(others)} and {last}" if others else last
    raise RuntimeError(
        f"the emulated device has been tried with torch {tried}, and this is torch "
        f'{torch.__version__}: install "torch=={last}.*", or set {ANY_TORCH}=1 in the environment '
        "to go on with this one"
    )


def _check_threads(threads: object) -> None:
    if threads is None:
        return
    if type(threads) is not int:
        raise TypeError(f"threads must be an int, not {type(threads).__name__}")
    if threads < 1:
        raise ValueError(f"threads must be at least 1, not {threads}")
    if threads > _library.MOST_THREADS:
        raise ValueError(f"threads must be at most {_library.MOST_THREADS}, not {threads}")


def _check_instruction_set(instruction_set: object) -> None:
    if instruction_set is None:
        return
    if not isinstance(instruction_set, str):
        raise TypeError(f"instruction_set must be a str, not {type(instruction_set).__name__}")
    if instruction_set not in _library.INSTRUCTION_SETS:
        *others, last = map(repr, _library.INSTRUCTION_SETS)
        known = f"{', '.join(others)} or {last}"
        raise ValueError(f"instruction_set must be {known}, not {instruction_set!r}")


def _checked_path(library: object) -> Path | None:
    if library is None:
        return None
    text = os.fspath(library) if isinstance(library, os.PathLike) else library
    if not isinstance(text, str):
        raise TypeError(f"library must be a str or a path of str, not {type(library).__name__}")
    if "\0" in text:
        raise ValueError(f"library must be a path, not {text!r}")
    return Path(text).resolve()


def _activate_first(
    threads: int | None, instruction_set: str | None, path: Path | None
) -> EmulatedDevice:
    if hasattr(torch.cuda, _MARK):
        raise RuntimeError(
            "torch already has the emulated device of a korvex that was imported before and is no "
            "longer in sys.modules; it stays so for the life of the process"
        )
    if _RUNTIME in sys.modules:
        raise RuntimeError(
            f"{_RUNTIME} was imported before korvex.emulation.activate() was called, "
            "and keeps the loader that it has"
        )
    if torch.cuda.is_initialized():
        raise RuntimeError("this process already uses a real CUDA device")
    _check_torch()
    if instruction_set is None:
        instruction_set = (
            _library.usable_instruction_sets()[-1]
            if path is None
            else _library.instruction_set_of(path)
        )
    if reason := _library.why_unusable(instruction_set):
        raise RuntimeError(reason)
    library = _library.HostLibrary(instruction_set, threads or _library.default_threads(), path)
    device = EmulatedDevice(library)
    patches = Patches()
    try:
        _factories.install(patches)
        _autograd.install(patches)
        _cuda.install(patches, device.name)
        patches.set(torch.cuda, _MARK, device)
        cupy, loader = _stand_ins.make_cupy(), _stand_ins.make_loader_module(_LOADER, library)
        with _found_by_imports({"cupy": cupy, _LOADER: loader}):
            importlib.import_module(_RUNTIME)
    except BaseException:
        patches.undo()
        raise
    return device


@contextlib.contextmanager
def _found_by_imports(modules: dict[str, types.ModuleType]) -> Iterator[None]:
    """Let imports find these modules, and afterwards what they found before."""
    package, _, attribute = _LOADER.rpartition(".")
    patches = Patches()
    for name, module in modules.items():
        patches.set_item(sys.modules, name, module)
    patches.set(importlib.import_module(package), attribute, modules[_LOADER])
    try:
        yield
    finally:
        patches.undo()
