# SPDX-License-Identifier: Apache-2.0
"""GPUs as the NVIDIA driver lists them, without torch and without CuPy."""

from __future__ import annotations

import ctypes
from typing import NamedTuple

_LIBRARY = "libcuda.so.1"
_NAME_BYTES = 256
_CAPABILITY_MAJOR, _CAPABILITY_MINOR = 75, 76  # attributes of a device


class Gpu(NamedTuple):
    """One device."""

    name: str
    capability: tuple[int, int]
    memory_bytes: int


class Driver(NamedTuple):
    """What the driver says; `problem` is why there is nothing that it could say."""

    version: str | None
    gpus: list[Gpu]
    problem: str | None


def driver() -> Driver:
    """Ask the driver. That initialises CUDA in this process."""
    try:
        library = ctypes.CDLL(_LIBRARY)
    except OSError:
        return Driver(None, [], f"no NVIDIA driver: {_LIBRARY} does not open")
    version = ctypes.c_int()
    try:
        library.cuDriverGetVersion(ctypes.byref(version))
        shown = f"CUDA {version.value // 1000}.{version.value % 1000 // 10}"
        return Driver(shown, _gpus(library), None)
    except (OSError, AttributeError) as error:
        return Driver(None, [], f"the NVIDIA driver cannot be used: {error}")


def _gpus(library: ctypes.CDLL) -> list[Gpu]:
    _call(library, "cuInit", 0)
    count = ctypes.c_int()
    _call(library, "cuDeviceGetCount", ctypes.byref(count))
    return [_gpu(library, number) for number in range(count.value)]


def _gpu(library: ctypes.CDLL, number: int) -> Gpu:
    device = ctypes.c_int()
    _call(library, "cuDeviceGet", ctypes.byref(device), number)
    name = ctypes.create_string_buffer(_NAME_BYTES)
    _call(library, "cuDeviceGetName", name, _NAME_BYTES, device)
    memory = ctypes.c_size_t()
    _call(library, "cuDeviceTotalMem_v2", ctypes.byref(memory), device)
    capability = (
        _attribute(library, _CAPABILITY_MAJOR, device),
        _attribute(library, _CAPABILITY_MINOR, device),
    )
    return Gpu(name.value.decode(errors="replace"), capability, memory.value)


def _attribute(library: ctypes.CDLL, number: int, device: ctypes.c_int) -> int:
    value = ctypes.c_int()
    _call(library, "cuDeviceGetAttribute", ctypes.byref(value), number, device)
    return value.value


def _call(library: ctypes.CDLL, name: str, *arguments: object) -> None:
    code = getattr(library, name)(*arguments)
    if code != 0:
        raise OSError(f"{name} failed with code {code}")
