# SPDX-License-Identifier: Apache-2.0
"""GPUs as torch and CuPy show them: memory, streams, and arrays of a stride that kernels read.

Neither library is imported here: an array of one that is not imported cannot be given. Memory comes
from the library of the array, and work goes to that library's current stream, so it is ordered with
the other work of the caller as the library's own functions are.
"""

from __future__ import annotations

import math
import sys
from collections.abc import Sequence
from contextlib import AbstractContextManager, nullcontext
from typing import Any, NamedTuple

# Numbered as in korvex/kernels/states.h.
FORMAT_NUMBERS = {
    name: number
    for number, name in enumerate(
        """bool int8 int16 int32 int64 uint8 uint16 uint32 uint64
        float16 bfloat16 float32 float64""".split()
    )
}


class Run(NamedTuple):
    """Elements at equal distances, as kernels read them."""

    elements: int
    address: int
    byte_stride: int
    format: int
    owner: Any  # keeps the memory alive

    def arguments(self) -> tuple[int, int, int]:
        return self.address, self.byte_stride, self.format

    def part(self, first: int, elements: int) -> Run:
        """Some of the elements, from the first on."""
        address = self.address + first * self.byte_stride
        return self._replace(elements=elements, address=address)


class Device:
    """A GPU of one library; equal devices may share one state."""

    library: str

    def __init__(self, ordinal: int) -> None:
        self.ordinal = ordinal

    @property
    def name(self) -> str:
        return f"cuda:{self.ordinal}"

    @property
    def description(self) -> str:
        return f"on {self.name} by {self.library}"

    def __eq__(self, other: object) -> bool:
        return type(self) is type(other) and vars(self) == vars(other)

    def __hash__(self) -> int:
        return hash((type(self), self.ordinal))

    # --- Memory

    def zeros(self, count: int, form: str = "int64") -> Any:
        """An array of zeros, of words or of a format."""
        raise NotImplementedError

    def empty(self, count: int, form: str) -> Any:
        """An array for results of a format."""
        raise NotImplementedError

    def copy(self, words: Any) -> Any:
        raise NotImplementedError

    def from_host(self, values: Any) -> Any:
        """A copy of a NumPy array, made on the current stream."""
        raise NotImplementedError

    def to_host(self, words: Any) -> Any:
        """A NumPy array with what has been written on the current stream; waits for that."""
        raise NotImplementedError

    def overwrite(self, words: Any, values: Any) -> None:
        """Write the values of a NumPy array, on the current stream."""
        raise NotImplementedError

    def extremes(self, numbers: Any) -> tuple[int, int]:
        """The least and the largest of some integers as int64 has them; waits for them."""
        raise NotImplementedError

    def counts(self, numbers: Any, length: int) -> Any:
        """How often each of 0 to length - 1 occurs among integers that are none else."""
        raise NotImplementedError

    def joined(self, halves: Any) -> Any:
        """The complex numbers of which these are the halves, two and two, with one axis."""
        raise NotImplementedError

    # --- Elements

    def entered(self) -> AbstractContextManager[Any]:
        """In this the library's own functions work on this device."""
        raise NotImplementedError

    def reinterpreted(self, x: Any, form: str) -> Any:
        """The same memory as elements of another format of the same size."""
        raise NotImplementedError

    def converted(self, x: Any, form: str) -> Any:
        """The elements converted; integers keep their last bits."""
        raise NotImplementedError

    def transposed(self, x: Any, axes: Sequence[int]) -> Any:
        """The axes in another order."""
        raise NotImplementedError

    def positions(self, mask: Any) -> Any:
        """Where a mask with one axis is set, as numbers on the device; waits for them."""
        raise NotImplementedError

    # --- Streams

    def stream(self) -> Any:
        """The caller's current stream."""
        raise NotImplementedError

    def handle(self, stream: Any) -> int:
        raise NotImplementedError

    def change(self, words: Any, earlier: Any, stream: Any) -> None:
        """Let a stream wait for what an earlier one was given, before it works on the words."""
        raise NotImplementedError

    # --- Arrays

    def address(self, x: Any) -> int:
        raise NotImplementedError

    def format_of(self, x: Any) -> str:
        raise NotImplementedError

    def byte_strides(self, x: Any) -> Sequence[int]:
        raise NotImplementedError

    def flattened(self, x: Any) -> Any:
        """A contiguous copy with one axis."""
        raise NotImplementedError

    def run(self, x: Any, in_order: bool) -> Run:
        """The elements of an array, copied where they do not lie at equal distances.

        in_order: row by row, for products of pairs; a sum takes them in any order.
        """
        number = FORMAT_NUMBERS[self.format_of(x)]
        place = _place_of(x.shape, self.byte_strides(x), in_order)
        if place is None or (self.address(x) + place[0]) % x.itemsize or place[1] % x.itemsize:
            x = self.flattened(x)
            place = (0, x.itemsize)
        first, byte_stride = place
        count = math.prod(x.shape)
        return Run(count, self.address(x) + first, byte_stride, number, x)


def _place_of(
    shape: Sequence[int], byte_strides: Sequence[int], in_order: bool
) -> tuple[int, int] | None:
    """Offset of the first element and distance of the others; None where there is no one distance.

    >>> _place_of((3, 4), (32, 8), True), _place_of((3, 4), (8, 24), False)
    ((0, 8), (0, 8))
    >>> _place_of((3, 4), (8, 24), True), _place_of((5,), (-8,), False)
    (None, (-32, 8))
    """
    axes = [(s, n) for s, n in zip(byte_strides, shape, strict=True) if n != 1]
    first = 0
    if any(n == 0 for _, n in axes) or not axes:
        return 0, 0
    if not in_order:
        first = sum(s * (n - 1) for s, n in axes if s < 0)
        axes = sorted(((abs(s), n) for s, n in axes), reverse=True)
    distance, extent = axes.pop()
    for s, n in reversed(axes):
        if s != distance * extent:
            return None
        extent *= n
    return first, distance


class TorchDevice(Device):
    """A GPU with tensors of torch."""

    library = "torch"

    @property
    def _torch(self) -> Any:
        return sys.modules["torch"]

    def zeros(self, count: int, form: str = "int64") -> Any:
        return self._torch.zeros(count, dtype=getattr(self._torch, form), device=self.name)

    def empty(self, count: int, form: str) -> Any:
        return self._torch.empty(count, dtype=getattr(self._torch, form), device=self.name)

    def copy(self, words: Any) -> Any:
        return words.clone()

    def from_host(self, values: Any) -> Any:
        return self._torch.from_numpy(values).to(self.name)

    def to_host(self, words: Any) -> Any:
        return words.cpu().numpy()

    def overwrite(self, words: Any, values: Any) -> None:
        words.copy_(self._torch.from_numpy(values))

    def extremes(self, numbers: Any) -> tuple[int, int]:
        low, high = numbers.to(self._torch.int64).aminmax()
        return int(low), int(high)

    def counts(self, numbers: Any, length: int) -> Any:
        return self._torch.bincount(numbers.to(self._torch.int64), minlength=length)

    def joined(self, halves: Any) -> Any:
        return self._torch.view_as_complex(halves.reshape(len(halves) // 2, 2))

    def entered(self) -> AbstractContextManager[Any]:
        return nullcontext()  # each function takes that of its operands

    def reinterpreted(self, x: Any, form: str) -> Any:
        return x.view(getattr(self._torch, form))

    def converted(self, x: Any, form: str) -> Any:
        return x.to(getattr(self._torch, form))

    def transposed(self, x: Any, axes: Sequence[int]) -> Any:
        return x.permute(tuple(axes))

    def positions(self, mask: Any) -> Any:
        return mask.nonzero().view(-1)

    def stream(self) -> Any:
        return self._torch.cuda.current_stream(self.ordinal)

    def handle(self, stream: Any) -> int:
        return int(stream.cuda_stream)

    def change(self, words: Any, earlier: Any, stream: Any) -> None:
        stream.wait_stream(earlier)
        words.record_stream(stream)  # or torch might use their memory again too early

    def address(self, x: Any) -> int:
        return int(x.data_ptr())

    def format_of(self, x: Any) -> str:
        return str(x.dtype).removeprefix("torch.")

    def byte_strides(self, x: Any) -> Sequence[int]:
        return [stride * x.itemsize for stride in x.stride()]

    def flattened(self, x: Any) -> Any:
        return x.contiguous().view(-1)


class CupyDevice(Device):
    """A GPU with arrays of CuPy."""

    library = "CuPy"

    @property
    def _cupy(self) -> Any:
        return sys.modules["cupy"]

    def zeros(self, count: int, form: str = "int64") -> Any:
        with self._cupy.cuda.Device(self.ordinal):
            return self._cupy.zeros(count, _known_to_cupy(form))

    def empty(self, count: int, form: str) -> Any:
        with self._cupy.cuda.Device(self.ordinal):
            return self._cupy.empty(count, _known_to_cupy(form))

    def copy(self, words: Any) -> Any:
        with self._cupy.cuda.Device(self.ordinal):
            return words.copy()

    def from_host(self, values: Any) -> Any:
        with self._cupy.cuda.Device(self.ordinal):
            return self._cupy.asarray(values)

    def to_host(self, words: Any) -> Any:
        with self._cupy.cuda.Device(self.ordinal):
            return self._cupy.asnumpy(words)

    def overwrite(self, words: Any, values: Any) -> None:
        with self._cupy.cuda.Device(self.ordinal):
            words.set(values)

    def extremes(self, numbers: Any) -> tuple[int, int]:
        with self._cupy.cuda.Device(self.ordinal):
            words = numbers.astype("int64")
            return int(words.min()), int(words.max())

    def counts(self, numbers: Any, length: int) -> Any:
        with self._cupy.cuda.Device(self.ordinal):
            return self._cupy.bincount(numbers.astype("int64"), minlength=length)

    def joined(self, halves: Any) -> Any:
        return halves.view("complex64" if halves.itemsize == 4 else "complex128")

    def entered(self) -> AbstractContextManager[Any]:
        device: AbstractContextManager[Any] = self._cupy.cuda.Device(self.ordinal)
        return device

    def reinterpreted(self, x: Any, form: str) -> Any:
        return x.view(form)

    def converted(self, x: Any, form: str) -> Any:
        return x.astype(form)

    def transposed(self, x: Any, axes: Sequence[int]) -> Any:
        return x.transpose(tuple(axes))

    def positions(self, mask: Any) -> Any:
        return mask.nonzero()[0]

    def stream(self) -> Any:
        with self._cupy.cuda.Device(self.ordinal):
            return self._cupy.cuda.get_current_stream()

    def handle(self, stream: Any) -> int:
        return int(stream.ptr)

    def change(self, words: Any, earlier: Any, stream: Any) -> None:
        with self._cupy.cuda.Device(self.ordinal):
            stream.wait_event(earlier.record())

    def address(self, x: Any) -> int:
        return int(x.data.ptr)

    def format_of(self, x: Any) -> str:
        return str(x.dtype.name)

    def byte_strides(self, x: Any) -> Sequence[int]:
        return tuple(x.strides)

    def flattened(self, x: Any) -> Any:
        with self._cupy.cuda.Device(self.ordinal):
            return self._cupy.ascontiguousarray(x).ravel()


def _known_to_cupy(form: str) -> str:
    if form == "bfloat16":
        raise ValueError("dtype bfloat16 does not exist in CuPy")
    return form


# --- The argument `device`


def device_of(device: object) -> Device | None:
    """The GPU that was asked for, or None for the host."""
    torch, cupy = sys.modules.get("torch"), sys.modules.get("cupy")
    if device is None or device == "cpu":
        return None
    if torch is not None and isinstance(device, torch.device):
        return _of_torch_device(device, torch)
    if cupy is not None and isinstance(device, cupy.cuda.Device):
        return CupyDevice(int(device.id))
    if isinstance(device, str) and _is_cuda_name(device):
        if torch is not None:
            return _of_torch_device(torch.device(device), torch)
        if cupy is not None:
            number = device.partition(":")[2]
            return CupyDevice(int(number) if number else int(cupy.cuda.Device().id))
        raise ValueError(f"device {device!r} needs torch or CuPy: import one of them before")
    raise ValueError(
        "device must be None, 'cpu', 'cuda', 'cuda:0' and so on, or a device of torch or CuPy, not "
        f"{device!r}"
    )


def _is_cuda_name(text: str) -> bool:
    kind, colon, number = text.partition(":")
    return kind == "cuda" and (number.isdecimal() if colon else True)


def _of_torch_device(device: Any, torch: Any) -> Device | None:
    emulation = sys.modules.get("korvex.emulation")
    if device.type == "cpu" or (emulation is not None and emulation.active_device() is not None):
        return None  # the emulated device is in host memory
    if device.type != "cuda":
        raise ValueError(f"device must be a GPU of CUDA or the CPU, not {device}")
    return TorchDevice(torch.cuda.current_device() if device.index is None else device.index)
