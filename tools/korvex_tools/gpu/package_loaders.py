# SPDX-License-Identifier: Apache-2.0
"""A GPU through the loaders of the package: kernels over the whole device, kernels of exact states.

Memory is that of the bare driver interface, launches are the package's own: what it clears before
them, how many it makes for one call and with how many blocks is theirs to say. Without a GPU the
host library stands for both, so that the checks can be tried anywhere.
"""

import ctypes
import math
import os
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import numpy as np

from korvex_tools import kernel_table
from korvex_tools.gpu.cuda_device import CudaDevice, HostDevice

# --- Over the whole device


@contextmanager
def launches_on_the_whole_device() -> Iterator[None]:
    """What a loader made meanwhile chooses."""
    before = os.environ.get("KORVEX_LAUNCH")
    os.environ["KORVEX_LAUNCH"] = "device"
    try:
        yield
    finally:
        if before is None:
            del os.environ["KORVEX_LAUNCH"]
        else:
            os.environ["KORVEX_LAUNCH"] = before


class _Array:
    """Doubles at an address, as the loader takes them."""

    def __init__(self, address: int, count: int) -> None:
        self.__cuda_array_interface__ = {
            "shape": (count,),
            "typestr": "<f8",
            "data": (address, False),
            "strides": None,
            "version": 3,
        }


class LaunchesOnWholeDevice:
    """Of a loader that was made with KORVEX_LAUNCH=device."""

    def __init__(self) -> None:
        from korvex.cubin_loader_native import NativeCubinLoader

        with launches_on_the_whole_device():
            self._loader = NativeCubinLoader()

    def launch(self, name: str, grid: tuple, block: tuple, *arguments: int | float) -> None:
        """As a caller would: the grid and the block count for nothing but their extent."""
        kernel = self._loader.get_kernel(name)
        taken = _with_arrays(name, arguments)
        if kernel.form == "function":
            kernel.function(grid, block, taken)
        else:
            kernel.launch(*taken, grid=grid)


class WholeDevice(CudaDevice):
    """The first GPU, with launches by such a loader."""

    def __init__(self, cubins: Path) -> None:
        super().__init__(cubins)
        self._launches = LaunchesOnWholeDevice()

    def launch(self, name: str, grid: tuple, block: tuple, *arguments: int | float) -> None:
        self._launches.launch(name, grid, block, *arguments)


def _with_arrays(name: str, arguments: tuple) -> tuple:
    """With an array where the kernel takes one."""
    names = [word.split(":") for word in kernel_table.rows()[name].parameters.split()]
    sizes = {
        parameter: value
        for (parameter, kind), value in zip(names, arguments, strict=True)
        if kind == "i64"
    }
    return tuple(
        _Array(value, _count(kind, sizes)) if kind.endswith("]") else value
        for (_, kind), value in zip(names, arguments, strict=True)
    )


def _count(kind: str, sizes: dict[str, int]) -> int:
    """Of f64[M*K]."""
    factors = kind[kind.index("[") + 1 : -1].split("*")
    return math.prod(sizes[factor] if factor in sizes else int(factor) for factor in factors)


# --- Exact states

WORD_BYTES = 8
COUNTS = 4  # words of a state that count, after its digits


class StatesOnDevice:
    """Kernels of exact states on the first GPU, by the loader of korvex.exact."""

    def __init__(self, device: CudaDevice) -> None:
        self.device = device

    def launch(self, kernel: str, *arguments: int) -> None:
        """On the null stream; returns at once."""
        from korvex.exact import _cuda

        _cuda.launch(kernel, 0, 0, *arguments)


class StatesOnHost:
    """The host library in their place. The counts of a state follow its digits here."""

    def __init__(self, device: HostDevice) -> None:
        from korvex.exact import _native

        self.device = device
        self._native = _native

    def launch(self, kernel: str, *arguments: int) -> None:
        if kernel == "korvex_settle_state":
            kind, address = arguments
            self._native.settle(kind, self._state(kind, address))
        elif kernel == "korvex_round_state":
            self._round(*arguments)
        elif kernel == "korvex_add_elements":
            n, x, x_stride, x_format, sign, digits, _ = arguments
            self._add(self._native.SUM, digits, sign, [(n, x, x_stride, x_format)])
        else:
            n, x, x_stride, x_format, y, y_stride, y_format, sign, digits, _ = arguments
            operands = [(n, x, x_stride, x_format), (n, y, y_stride, y_format)]
            self._add(self._native.DOT, digits, sign, operands)

    def _state(self, kind: int, address: int) -> np.ndarray:
        words = (ctypes.c_int64 * self._native.words(kind)).from_address(address)
        return np.frombuffer(words, dtype=np.int64)

    def _add(self, kind: int, digits: int, sign: int, operands: list[tuple]) -> None:
        arrays = [_array_at(*operand) for operand in operands]
        names = [format_name(operand[-1]) for operand in operands]
        formats = ["bfloat16" if name == "bfloat16" else None for name in names]
        x, y = arrays[0], arrays[1] if len(arrays) > 1 else None
        state = self._state(kind, digits)
        self._native.accumulate(kind, state, x, y, sign, 1, formats[0], formats[-1])

    def _round(self, kind: int, words: int, of_products: int, number: int, out: int) -> None:
        del of_products
        form = format_name(number)
        [value] = self._native.limbs(kind, self._state(kind, words), 0, 1, form)
        bits = bits_of(value, form)
        ctypes.memmove(out, bits.ctypes.data, bits.nbytes)


def format_name(number: int) -> str:
    """Of a format of elements."""
    from korvex.exact._devices import FORMAT_NUMBERS

    return {number: name for name, number in FORMAT_NUMBERS.items()}[number]


def dtype_of(form: str) -> np.dtype:
    """NumPy has no bfloat16: its bits are a uint16."""
    return np.dtype("uint16" if form == "bfloat16" else form)


def bits_of(value: float, form: str) -> np.ndarray:
    """Of a value that the format holds."""
    if form == "bfloat16":
        return (np.array([value], dtype=np.float32).view(np.uint32) >> 16).astype(np.uint16)
    return np.array([value], dtype=form)


def _array_at(n: int, address: int, byte_stride: int, number: int) -> np.ndarray:
    """n elements from an address on, the next one byte_stride further."""
    dtype = dtype_of(format_name(number))
    if n == 0:
        return np.empty(0, dtype)
    lowest = min(address, address + (n - 1) * byte_stride)
    size = abs((n - 1) * byte_stride) + dtype.itemsize
    memory = (ctypes.c_char * size).from_address(lowest)
    return np.ndarray((n,), dtype, memory, address - lowest, (byte_stride,))


def states_on(device: Any) -> StatesOnDevice | StatesOnHost:
    return StatesOnDevice(device) if device.is_gpu else StatesOnHost(device)
