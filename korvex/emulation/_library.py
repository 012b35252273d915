# SPDX-License-Identifier: Apache-2.0
"""The kernels compiled for the host: one of the shared libraries beside this package."""

from __future__ import annotations

import ctypes
import functools
import os
from collections.abc import Sequence
from pathlib import Path
from typing import Any, NamedTuple

from korvex.emulation._daemons import call_and_survive_exit
from korvex.emulation._signature import Parameter, parse

# A processor that can run one can run those before it.
INSTRUCTION_SETS = ("base", "fma", "avx512")
_NEEDED = {"fma": "FMA and AVX2", "avx512": "AVX-512 (F, DQ and VL)"}

MOST_THREADS = 2**31 - 1  # a C int

_OUT_OF_MEMORY = 2  # what a launch returns then: korvex/kernels/host/launch.h

Extent = ctypes.Array[ctypes.c_uint]
_Extent = ctypes.c_uint * 3


@functools.lru_cache(maxsize=256)
def extent(x: int, y: int, z: int) -> Extent:
    """Return a grid or a block as C takes it; it only reads them."""
    return _Extent(x, y, z)


@functools.cache
def _pointers(count: int) -> type[ctypes.Array[ctypes.c_void_p]]:
    return ctypes.c_void_p * count


class KernelRow(NamedTuple):
    """One row of the kernel table."""

    number: int
    name: str
    form: str  # "function": the caller gives the block; "launch": the kernel knows it
    block: int  # threads in a block of form "launch", else 0
    parameters: tuple[Parameter, ...]
    strides_along_y: bool  # its blocks go over the rows of the output in strides of the grid


class HostLibrary:
    """One of the libraries, loaded for the rest of the process.

    Parameters
    ----------
    instruction_set : {"base", "fma", "avx512"}
    threads : int
        Host threads that one kernel may use; may be changed between launches.
    path : Path, optional
        A file built from the same sources, in place of the one beside this package.

    Raises
    ------
    ImportError
        If the file is missing or cannot be loaded.
    """

    def __init__(self, instruction_set: str, threads: int, path: Path | None = None) -> None:
        self.path = path or _installed(instruction_set)
        self.instruction_set = instruction_set
        self.threads = threads
        self._functions = _load(self.path, instruction_set)
        self.kernels = {row.name: row for row in self._rows()}

    def _rows(self) -> list[KernelRow]:
        functions = self._functions
        return [
            KernelRow(
                number,
                functions.korvex_host_kernel_name(number).decode(),
                functions.korvex_host_kernel_form(number).decode(),
                functions.korvex_host_kernel_block(number),
                parse(functions.korvex_host_kernel_parameters(number).decode()),
                bool(functions.korvex_host_kernel_strides_along_y(number)),
            )
            for number in range(functions.korvex_host_kernel_count())
        ]

    def launch(
        self,
        kernel: KernelRow,
        grid: Sequence[int],
        block: Sequence[int],
        values: Sequence[Any],
    ) -> None:
        """Run a kernel to its end on checked arguments; the interpreter lock is released.

        Raises
        ------
        MemoryError
            If the host has no memory for the kernel's workspace; its operands are as they were.
        """
        pointers = _pointers(len(values))(*map(ctypes.addressof, values))
        self.run(kernel, extent(*grid), extent(*block), pointers)

    def run(self, kernel: KernelRow, grid: Extent, block: Extent, pointers: Any) -> None:
        """Do the same with a grid and a block as C takes them, and pointers to the arguments."""
        failed = call_and_survive_exit(
            self._functions.korvex_host_launch,
            (kernel.number, grid, block, pointers, self.threads),
        )
        if failed == _OUT_OF_MEMORY:
            raise MemoryError(f"out of memory on the emulated device: {kernel.name}")
        if failed:
            raise RuntimeError(f"{self.path} does not run {kernel.name}")


def best_instruction_set() -> str:
    """Return the last that this processor can run, whether its kernels are installed or not."""
    return _load(_path("base"), "base").korvex_host_best_instruction_set().decode()


def usable_instruction_sets() -> tuple[str, ...]:
    """Return those that are installed and that this processor can run, the fastest last.

    A build for one machine has the base kernels and those that are best there.
    """
    runnable = INSTRUCTION_SETS[: INSTRUCTION_SETS.index(best_instruction_set()) + 1]
    return tuple(name for name in runnable if name == "base" or _path(name).exists())


def why_unusable(instruction_set: str) -> str | None:
    """Return why this processor cannot run the kernels for one, or None where it can."""
    best = INSTRUCTION_SETS.index(best_instruction_set())
    if INSTRUCTION_SETS.index(instruction_set) <= best:
        return None
    return f"this processor has no {_NEEDED[instruction_set]} instructions"


def default_threads() -> int:
    """Return how many processors this process may run on."""
    return len(os.sched_getaffinity(0))


def _path(instruction_set: str) -> Path:
    return Path(__file__).with_name(f"libkorvex_host_kernels_{instruction_set}.so")


def _installed(instruction_set: str) -> Path:
    path = _path(instruction_set)
    if instruction_set != "base" and not path.exists():
        raise ImportError(
            f"this installation has no kernels for {instruction_set}: install korvex with "
            "--config-settings=cmake.define.KORVEX_INSTRUCTION_SETS=all"
        )
    return path


def instruction_set_of(path: Path) -> str:
    """Return what the kernels in a file were compiled for."""
    return _functions_of(path).korvex_host_instruction_set().decode()


def _functions_of(path: Path) -> ctypes.CDLL:
    try:
        functions = ctypes.CDLL(str(path))
        functions.korvex_host_instruction_set.restype = ctypes.c_char_p
    except (OSError, AttributeError) as error:
        raise ImportError(f"the kernels of the emulated device do not load: {error}") from error
    return functions


def _load(path: Path, instruction_set: str) -> ctypes.CDLL:
    functions = _functions_of(path)
    for name in ("name", "form", "parameters"):
        getattr(functions, f"korvex_host_kernel_{name}").restype = ctypes.c_char_p
    functions.korvex_host_best_instruction_set.restype = ctypes.c_char_p
    functions.korvex_host_kernel_block.restype = ctypes.c_uint
    functions.korvex_host_launch.argtypes = [
        ctypes.c_int,
        _Extent,
        _Extent,
        ctypes.POINTER(ctypes.c_void_p),
        ctypes.c_int,
    ]
    if functions.korvex_host_instruction_set().decode() != instruction_set:
        raise ImportError(f"{path} holds kernels for another instruction set")
    return functions
