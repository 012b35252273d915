# SPDX-License-Identifier: Apache-2.0
"""The stand-ins for cupy and the loader that `korvex.tqx_runtime` finds when it is imported."""

from __future__ import annotations

import ctypes
import types
from typing import Any

import torch

from korvex.emulation._library import HostLibrary, KernelRow
from korvex.emulation._signature import (
    check_arguments,
    check_block,
    check_grid,
    is_of_plain_ints,
    items_of,
)
from korvex.emulation._tensor import Tensor, host_alias

_C_TYPES: dict[str, Any] = {
    "i64": ctypes.c_int64,
    "f64": ctypes.c_double,
    "array": lambda array: ctypes.c_void_p(array.pointer),
}


_MOST_EXTENTS = 64  # that a kernel remembers


class DeviceArray:
    """A view of an emulated tensor, as a kernel takes it; it keeps the memory alive."""

    def __init__(self, host: torch.Tensor) -> None:
        self._host = host
        is_usual = host.dtype is torch.float64
        self.element_type = "float64" if is_usual else str(host.dtype).removeprefix("torch.")
        self.element_count = host.numel()
        self.is_contiguous = host.is_contiguous()
        self.pointer = host.data_ptr()


def from_dlpack(array: Any) -> DeviceArray:
    """View an emulated tensor, without a copy.

    Raises
    ------
    TypeError
        For anything else, CPU tensors included.
    BufferError
        For what torch does not lend: a tensor that requires grad or is conjugated.
    """
    if not isinstance(array, Tensor):
        device = f" on {array.device}" if isinstance(array, torch.Tensor) else ""
        raise TypeError(
            "the emulated device takes its own tensors only, and no "
            f"{type(array).__name__}{device}: move it with .cuda()"
        )
    host = host_alias(array)
    is_lent = host.dtype is torch.float64 and host.layout is torch.strided
    if not is_lent or host.requires_grad or host.is_neg():
        host.__dlpack__()  # torch raises here what it would raise for a real device
    return DeviceArray(host)


class Kernel:
    """One kernel of the host library, called as the loader's kernel objects are.

    Parameters
    ----------
    library : HostLibrary
    row : KernelRow
    """

    def __init__(self, library: HostLibrary, row: KernelRow) -> None:
        self._library = library
        self._row = row
        self._c_types = [_C_TYPES[parameter.kind] for parameter in row.parameters]
        self._extents: dict[Any, tuple[Any, Any]] = {}  # checked before, by what was given

    def __repr__(self) -> str:
        return f"<emulated kernel {self._row.name}>"

    def launch(self, *arguments: Any, grid: tuple[int, int, int]) -> None:
        """Run with the kernel's own block, and return when it is done.

        Raises
        ------
        TypeError, ValueError
            If an argument or the grid is not what the kernel takes.
        """
        if self._row.form != "launch":
            raise TypeError(f"{self._row.name} has no block of its own: call function()")
        self._run(grid, (self._row.block, 1, 1), arguments)

    def function(
        self, grid: tuple[int, int, int], block: tuple[int, int, int], args: tuple[Any, ...]
    ) -> None:
        """Run with the block that is given, and return when it is done; raises as `launch`.

        A kernel that has a block of its own takes no other: its threads share work by that number.
        """
        self._run(grid, block, args)

    def _run(self, grid: Any, block: Any, arguments: Any) -> None:
        row = self._row
        grid_extent, block_extent = self._checked_extents(grid, block)
        items = arguments if type(arguments) is tuple else items_of(arguments)
        if items is None:
            raise TypeError(f"{row.name}: args must be a tuple, not {type(arguments).__name__}")
        checked = check_arguments(row.name, row.parameters, items, DeviceArray)
        if 0 not in grid_extent:
            values = [make(value) for make, value in zip(self._c_types, checked, strict=True)]
            self._library.launch(row, grid_extent, block_extent, values)

    def _checked_extents(self, grid: Any, block: Any) -> tuple[Any, Any]:
        is_plain = is_of_plain_ints(grid) and is_of_plain_ints(block)
        if is_plain and (seen := self._extents.get((grid, block))):
            return seen
        row = self._row
        extents = (
            check_grid(row.name, grid, row.strides_along_y),
            check_block(row.name, block, row.block),
        )
        if is_plain:
            if len(self._extents) >= _MOST_EXTENTS:
                self._extents.clear()
            self._extents[grid, block] = extents
        return extents


def make_cupy() -> types.ModuleType:
    """Return the stand-in for cupy: what the runtime uses of it, and nothing else."""
    cupy = types.ModuleType("cupy", "Stand-in for cupy on the emulated device.")
    # Launches are complete when they return, so there is nothing to wait for.
    null = types.SimpleNamespace(synchronize=lambda: None)
    cupy.from_dlpack = from_dlpack  # type: ignore[attr-defined]
    cupy.cuda = types.SimpleNamespace(  # type: ignore[attr-defined]
        Stream=types.SimpleNamespace(null=null)
    )
    return cupy


def make_loader_module(name: str, library: HostLibrary) -> types.ModuleType:
    """Return the stand-in for the loader's module, which hands out the kernels of `library`."""
    kernels = {row.name: Kernel(library, row) for row in library.kernels.values()}

    class NativeCubinLoader:
        """The kernels of the emulated device by name."""

        arch = f"emulated-{library.instruction_set}"
        cubin_path = library.path

        def get_kernel(self, name: str) -> Kernel:
            """Return a kernel; an unknown name is a KeyError that lists the known ones."""
            if name not in kernels:
                known = ", ".join(sorted(kernels))
                raise KeyError(f"no kernel {name!r} on the emulated device, which has {known}")
            return kernels[name]

    module = types.ModuleType(name, "Stand-in for the kernel loader on the emulated device.")
    module.HAS_CUPY = True  # type: ignore[attr-defined]
    module.NativeCubinLoader = NativeCubinLoader  # type: ignore[attr-defined]
    return module
