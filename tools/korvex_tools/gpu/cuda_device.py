# SPDX-License-Identifier: Apache-2.0
"""A GPU by the bare driver interface, and the host kernels behind the same few methods.

It launches kernels of a cubin on any grid and block, where the package's loader would keep to the
kernel's own; and it imports neither torch nor cupy, so it starts at once under compute-sanitizer.
"""

import ctypes
import time
from pathlib import Path

import numpy as np

_COMPUTE_CAPABILITY_MAJOR = 75
_COMPUTE_CAPABILITY_MINOR = 76
_MULTIPROCESSORS = 16


def _by_value(argument):
    """A kernel's argument as ctypes: addresses and counts are whole numbers of 64 bits."""
    if isinstance(argument, float):
        return ctypes.c_double(argument)
    return ctypes.c_uint64(argument) if argument >= 0 else ctypes.c_int64(argument)


class CudaDevice:
    """The first GPU. `cubins` is the folder of the package's kernels, which fit or raise."""

    is_gpu = True

    def __init__(self, cubins: Path) -> None:
        self._driver = ctypes.CDLL("libcuda.so.1")
        self._call("cuInit", 0)
        device, context = ctypes.c_int(), ctypes.c_void_p()
        self._call("cuDeviceGet", ctypes.byref(device), 0)
        self._device = device
        self._call("cuDevicePrimaryCtxRetain", ctypes.byref(context), device)
        self._call("cuCtxSetCurrent", context)
        self.capability = 10 * self._attribute(_COMPUTE_CAPABILITY_MAJOR) + self._attribute(
            _COMPUTE_CAPABILITY_MINOR
        )
        self.multiprocessors = self._attribute(_MULTIPROCESSORS)
        self.cubin = cubins / f"korvex_sm_{self.capability}.cubin"
        if not self.cubin.exists():
            raise RuntimeError(f"no kernels for this GPU: {self.cubin} is missing")
        self._module = ctypes.c_void_p()
        self._call("cuModuleLoad", ctypes.byref(self._module), str(self.cubin).encode())
        self._kernels: dict[str, ctypes.c_void_p] = {}

    def _call(self, function: str, *arguments) -> None:
        code = getattr(self._driver, function)(*arguments)
        if code != 0:
            text = ctypes.c_char_p()
            self._driver.cuGetErrorString(code, ctypes.byref(text))
            raise RuntimeError(f"{function}: {(text.value or b'?').decode()} ({code})")

    def _attribute(self, number: int) -> int:
        value = ctypes.c_int()
        self._call("cuDeviceGetAttribute", ctypes.byref(value), number, self._device)
        return value.value

    def name(self) -> str:
        text = ctypes.create_string_buffer(256)
        self._call("cuDeviceGetName", text, 256, self._device)
        return text.value.decode()

    def driver_version(self) -> str:
        version = ctypes.c_int()
        self._call("cuDriverGetVersion", ctypes.byref(version))
        return f"{version.value // 1000}.{version.value % 1000 // 10}"

    def allocate(self, count: int) -> int:
        """The address of memory for so many doubles, never none."""
        address = ctypes.c_uint64()
        size = ctypes.c_size_t(8 * max(count, 1))
        self._call("cuMemAlloc_v2", ctypes.byref(address), size)
        return address.value

    def free(self, address: int) -> None:
        self._call("cuMemFree_v2", ctypes.c_uint64(address))

    def write(self, address: int, values: np.ndarray) -> None:
        size = ctypes.c_size_t(values.nbytes)
        if values.size:
            source = ctypes.c_void_p(values.ctypes.data)
            self._call("cuMemcpyHtoD_v2", ctypes.c_uint64(address), source, size)

    def read(self, address: int, count: int) -> np.ndarray:
        values = np.empty(count)
        self._call(
            "cuMemcpyDtoH_v2",
            ctypes.c_void_p(values.ctypes.data),
            ctypes.c_uint64(address),
            ctypes.c_size_t(values.nbytes),
        )
        return values

    def fill(self, address: int, word: int, count: int) -> None:
        """So many doubles whose two halves are this 32-bit word."""
        size = ctypes.c_size_t(2 * count)
        self._call("cuMemsetD32_v2", ctypes.c_uint64(address), ctypes.c_uint(word), size)

    def launch(self, name: str, grid: tuple, block: tuple, *arguments: int | float) -> None:
        """On the null stream; returns at once. Addresses and counts are passed as 64 bits."""
        if name not in self._kernels:
            kernel = ctypes.c_void_p()
            self._call("cuModuleGetFunction", ctypes.byref(kernel), self._module, name.encode())
            self._kernels[name] = kernel
        values = [_by_value(argument) for argument in arguments]
        pointers = (ctypes.c_void_p * len(values))(*map(ctypes.addressof, values))
        self._call("cuLaunchKernel", self._kernels[name], *grid, *block, 0, None, pointers, None)

    def wait(self) -> None:
        self._call("cuCtxSynchronize")

    def seconds(self, work) -> float:
        """How long the device takes for what work() enqueues on the null stream."""
        events = [ctypes.c_void_p(), ctypes.c_void_p()]
        for event in events:
            self._call("cuEventCreate", ctypes.byref(event), 0)
        self._call("cuEventRecord", events[0], None)
        work()
        self._call("cuEventRecord", events[1], None)
        self._call("cuEventSynchronize", events[1])
        milliseconds = ctypes.c_float()
        self._call("cuEventElapsedTime", ctypes.byref(milliseconds), *events)
        for event in events:
            self._call("cuEventDestroy_v2", event)
        return milliseconds.value / 1e3


def choose_device(
    emulated: bool, of_gpu: "type[CudaDevice]" = CudaDevice
) -> "CudaDevice | HostDevice":
    """The first GPU with the kernels of the installed package, or host kernels in its place."""
    if emulated:
        return HostDevice("base")
    import korvex

    return of_gpu(Path(korvex.__file__).parent / "cubins")


class HostDevice:
    """The host kernels in place of a GPU, so that the checks themselves can be tried anywhere."""

    is_gpu = False
    capability = 0
    multiprocessors = 2

    def __init__(self, instruction_set: str) -> None:
        from korvex.emulation._library import HostLibrary

        self._library = HostLibrary(instruction_set, 2)
        self._arrays: dict[int, np.ndarray] = {}

    def name(self) -> str:
        return f"host, {self._library.instruction_set}"

    def driver_version(self) -> str:
        return "none"

    def kernels(self) -> dict:
        """The rows of the kernel table, by name."""
        return self._library.kernels

    def allocate(self, count: int) -> int:
        array = np.empty(max(count, 1) + 2)
        self._arrays[array.ctypes.data] = array
        return array.ctypes.data

    def free(self, address: int) -> None:
        del self._arrays[address]

    def write(self, address: int, values: np.ndarray) -> None:
        ctypes.memmove(address, values.ctypes.data, values.nbytes)

    def read(self, address: int, count: int) -> np.ndarray:
        values = np.empty(count)
        ctypes.memmove(values.ctypes.data, address, values.nbytes)
        return values

    def fill(self, address: int, word: int, count: int) -> None:
        self.write(address, np.full(2 * count, word, dtype=np.uint32).view(np.float64))

    def launch(self, name: str, grid: tuple, block: tuple, *arguments: int | float) -> None:
        values = [_by_value(argument) for argument in arguments]
        self._library.launch(self._library.kernels[name], grid, block, values)

    def wait(self) -> None:
        pass

    def seconds(self, work) -> float:
        begin = time.perf_counter()
        work()
        return time.perf_counter() - begin
