# SPDX-License-Identifier: Apache-2.0
"""The stand-ins for cupy and the loader that `korvex.tqx_runtime` finds when it is imported."""

from __future__ import annotations

import ctypes
import struct
import sys
import types
from typing import Any

import torch

from korvex.emulation._dispatch import as_host
from korvex.emulation._library import Extent, HostLibrary, KernelRow, extent
from korvex.emulation._signature import (
    check_arguments,
    check_block,
    check_grid,
    is_of_plain_ints,
    items_of,
)
from korvex.emulation._tensor import Tensor, host_alias

# Straight from torch's own class: that of emulated tensors would look first whether it is asked.
_HOST = torch._C.TensorBase
_dtype, _layout = _HOST.dtype.__get__, _HOST.layout.__get__
_requires_grad, _is_neg = _HOST.requires_grad.__get__, _HOST.is_neg
_numel, _is_contiguous, _data_ptr = _HOST.numel, _HOST.is_contiguous, _HOST.data_ptr

_MOST_LAUNCHES = 256  # that a kernel remembers


class DeviceArray:
    """A view of a tensor's memory, as a kernel takes it; it keeps the memory alive.

    An emulated tensor is read where torch treats it as the host tensor that it is.
    """

    def __init__(self, tensor: torch.Tensor) -> None:
        self._memory = tensor.untyped_storage()
        is_usual = _dtype(tensor) is torch.float64
        self.element_type = "float64" if is_usual else str(tensor.dtype).removeprefix("torch.")
        self.element_count: int = _numel(tensor)
        self.is_contiguous = _is_contiguous(tensor)
        self.pointer: int = _data_ptr(tensor)
        # All that a launch checks of it but its type: no kernel takes an array of another kind.
        self.usual_count = self.element_count if is_usual and self.is_contiguous else -1


_TYPES: dict[str, type] = {"i64": int, "f64": float, "array": DeviceArray}


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
    with as_host():
        is_lent = _dtype(array) is torch.float64 and _layout(array) is torch.strided
        if is_lent and not (_requires_grad(array) or _is_neg(array)):
            return DeviceArray(array)
    host = host_alias(array)
    host.__dlpack__()  # torch raises here what it would raise for a real device
    return DeviceArray(host)


class _Words:
    """Memory for the arguments of a launch, of 64 bits each, and pointers to them."""

    def __init__(self, count: int) -> None:
        self.values = (ctypes.c_int64 * count)()
        first = ctypes.addressof(self.values)
        self.pointers = (ctypes.c_void_p * count)(*range(first, first + 8 * count, 8))


def _word_of(argument: DeviceArray | float) -> int:
    if isinstance(argument, DeviceArray):
        return argument.pointer
    return int.from_bytes(struct.pack("=d", argument), sys.byteorder, signed=True)


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
        self._types = tuple(_TYPES[parameter.kind] for parameter in row.parameters)
        self._free: list[_Words] = []  # for arguments, each in use by one launch at a time
        # Grid and block of launches that were checked before, by what was checked.
        self._known: dict[Any, tuple[Extent, Extent]] = {}

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
        shape = self._shape_of(grid, block, arguments)
        extents = self._known.get(shape)
        if extents is None:
            grid, block, arguments = self._checked(grid, block, arguments)
            if 0 in grid:
                return
            extents = (extent(*grid), extent(*block))
            if shape is not None:
                if len(self._known) >= _MOST_LAUNCHES:
                    self._known.clear()
                self._known[shape] = extents
        try:
            words = self._free.pop()
        except IndexError:  # asked first, another thread might take the last ones in between
            words = _Words(len(arguments))
        words.values[:] = [each if type(each) is int else _word_of(each) for each in arguments]
        self._library.run(self._row, *extents, words.pointers)
        self._free.append(words)

    def _shape_of(self, grid: Any, block: Any, arguments: Any) -> Any:
        """Return all that the checks depend on; None unless each thing is of the very type."""
        is_usual = (
            type(arguments) is tuple
            and tuple(map(type, arguments)) == self._types
            and is_of_plain_ints(grid)
            and is_of_plain_ints(block)
        )
        if not is_usual:
            return None
        counts = [each.usual_count if type(each) is DeviceArray else each for each in arguments]
        return (grid, block, *counts)

    def _checked(self, grid: Any, block: Any, arguments: Any) -> tuple[Any, Any, list[Any]]:
        row = self._row
        grid_extent = check_grid(row.name, grid, row.strides_along_y)
        block_extent = check_block(row.name, block, row.block)
        items = arguments if type(arguments) is tuple else items_of(arguments)
        if items is None:
            raise TypeError(f"{row.name}: args must be a tuple, not {type(arguments).__name__}")
        checked = check_arguments(row.name, row.parameters, items, DeviceArray)
        return grid_extent, block_extent, checked


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
