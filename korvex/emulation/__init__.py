# SPDX-License-Identifier: Apache-2.0
"""An emulated CUDA device in host memory, for machines without a GPU.

Importing this package changes nothing and imports neither torch nor `korvex.tqx_runtime`; only
`activate` acts, and only where it is called. From then on the process has one emulated device
"cuda:0" and one `korvex.tqx_runtime` that computes on it, until it ends.
"""

from __future__ import annotations

import os
import threading
from collections.abc import Callable
from typing import TYPE_CHECKING, Any

from korvex.emulation import _device

if TYPE_CHECKING:
    from korvex.emulation._device import EmulatedDevice

__all__ = ["activate", "active_device", "cover", "covered"]

_activating = threading.Lock()


def activate(
    threads: int | None = None,
    instruction_set: str | None = None,
    library: str | os.PathLike[str] | None = None,
) -> EmulatedDevice:
    """Give this process an emulated CUDA device, and `korvex.tqx_runtime` that runs on it.

    Call it before `korvex.tqx_runtime` is imported, and before names are taken out of torch as in
    ``from torch import zeros``. There is no way back: the process keeps the device, the loader and
    the changes to torch until it ends. A second call is harmless; it may change `threads`.

    Parameters
    ----------
    threads : int, optional
        How many host threads one kernel may use, at least 1; the processors that this process may
        run on if not given. Results have the same bits for every number.
    instruction_set : {"base", "fma", "avx512"}, optional
        Which build of the kernels to use: plain x86-64, with FMA and AVX2 instructions, or with
        AVX-512 (F, DQ and VL) as well. The fastest one that the processor can run if not given.
        Results have the same bits with all.
    library : path, optional
        A file of kernels built from the same sources in another way, in place of those beside this
        package; it says itself which instruction set it is for.

    Returns
    -------
    EmulatedDevice
        What is active now: `threads`, `instruction_set`, `library`; its `str` is one line of text.

    Raises
    ------
    RuntimeError
        If `korvex.tqx_runtime` was already imported with another loader, if torch already has the
        emulated device of a `korvex` that was since taken out of `sys.modules`, if this process
        already uses a real CUDA device, if the processor lacks the instructions asked for, if an
        earlier call chose another `instruction_set` or `library`, or if the emulated device was not
        tried with this release of torch; with ``KORVEX_EMULATION_ANY_TORCH=1`` in the environment
        it goes on nevertheless.
    TypeError
        If an argument is not of its type; `threads` is an `int` itself, not of a class below it.
    ValueError
        If `threads` is below 1 or above 2^31 - 1, `instruction_set` is unknown, or `library` is no
        path.
    ImportError
        If a kernel library or `korvex.tqx_runtime` cannot be loaded.
    """
    from korvex.emulation import _activation

    with _activating:
        _device.active = _activation.activate(_device.active, threads, instruction_set, library)
        return _device.active


def active_device() -> EmulatedDevice | None:
    """Return what `activate` returned, or None as long as it was not called."""
    return _device.active


def cover(*operations: str | Callable[..., Any]) -> None:
    """Let further torch operations run on the emulated device.

    They run with torch's own host arithmetic; every tensor operand must be on the emulated device,
    and so is the result. Whether that is what the operation does on hardware is for the caller to
    know: factories and operations that change the device do not belong here.

    Parameters
    ----------
    *operations : str or callable
        Functions or methods of torch that can be overridden, or their names: both
        ``torch.nn.functional.gelu`` and ``"gelu"`` cover every operation of that name.

    Raises
    ------
    ValueError
        For a name that the table already holds with rules of its own.
    """
    from korvex.emulation import _dispatch

    for operation in operations:
        _dispatch.cover(operation if isinstance(operation, str) else operation.__name__)


def covered() -> dict[str, frozenset[str]]:
    """Return the table of covered torch operations: the names by the rule that they follow."""
    from korvex.emulation import _coverage

    return {rule: frozenset(names) for rule, names in _coverage.TABLE.items()}
