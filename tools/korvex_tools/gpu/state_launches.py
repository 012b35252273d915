# SPDX-License-Identifier: Apache-2.0
"""Launches of the kernels of exact states, as `korvex.exact` makes them, to be timed.

`korvex.exact` is given memory of the bare driver in the place of an array library, and what it
launches is written down: which blocks take which elements is its choice, not one of this file.
Elements are 64-bit integers, which take these kernels longest; matrices are doubles.
"""

from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any, NamedTuple

import numpy as np

WORD = 8  # bytes
Call = tuple[str, tuple[int, ...]]


class Words(NamedTuple):
    """An array in the memory of the device, of elements of eight bytes."""

    address: int
    size: int
    itemsize: int = WORD


class Made(NamedTuple):
    """What a kernel did, and how to have it done again."""

    call: Call
    before: list[Call]  # those that make what it reads
    count: int  # elements, pairs of them, or multiply-adds
    shape: tuple[int, ...]  # of its operands
    results: Words  # what it writes


class DriverMemory:
    """What `korvex.exact` asks of an array library on a device; freed at the end."""

    ordinal = 0

    def __init__(self, device: Any) -> None:
        self._device = device
        self._addresses: list[int] = []
        self.last = Words(0, 0)  # that is to be written by kernels

    def __enter__(self) -> "DriverMemory":
        return self

    def __exit__(self, *_: object) -> None:
        self._device.wait()
        for address in self._addresses:
            self._device.free(address)

    def empty(self, count: int, form: str = "int64") -> Words:
        assert form in ("int64", "float64")
        self.last = self._allocate(count)
        return self.last

    def zeros(self, count: int, form: str = "int64") -> Words:
        words = self.empty(count, form)
        self._device.fill(words.address, 0, count)
        return words

    def from_host(self, values: np.ndarray) -> Words:
        words = self._allocate(values.size)
        self._device.write(words.address, np.ascontiguousarray(values))
        return words

    def address(self, words: Words) -> int:
        return words.address

    def stream(self) -> int:
        return 0

    def handle(self, stream: int) -> int:
        return stream

    def _allocate(self, count: int) -> Words:
        words = Words(self._device.allocate(count), count)
        self._addresses.append(words.address)
        return words


@contextmanager
def _calls_written_down() -> Iterator[list[Call]]:
    from korvex.exact import _cuda

    launch, calls = _cuda.launch, []

    def launch_and_write_down(kernel: str, ordinal: int, stream: int, *arguments: int) -> None:
        calls.append((kernel, arguments))
        launch(kernel, ordinal, stream, *arguments)

    _cuda.launch = launch_and_write_down
    try:
        yield calls
    finally:
        _cuda.launch = launch


def made(memory: DriverMemory, kernel: str, x: np.ndarray, y: np.ndarray) -> Made:
    """Have `korvex.exact` launch a kernel on integers."""
    with _calls_written_down() as calls:
        done = OPERATIONS[kernel](memory, x, y)
    place = [name for name, _ in calls].index(kernel)
    return Made(calls[place], calls[:place], *done)


# --- Operations


def view(words: Words, shape: tuple[int, ...], strides: tuple[int, ...], form: str) -> Any:
    from korvex.exact._device_views import View
    from korvex.exact._devices import FORMAT_NUMBERS

    byte_strides = tuple(WORD * stride for stride in strides)
    return View(words.address, shape, byte_strides, FORMAT_NUMBERS[form], words)


def run(words: Words, form: str) -> Any:
    from korvex.exact._devices import FORMAT_NUMBERS, Run

    return Run(words.size, words.address, WORD, FORMAT_NUMBERS[form], words)


Done = tuple[int, tuple[int, ...], Words]  # the last of what is made
Operation = Callable[[DriverMemory, np.ndarray, np.ndarray], Done]


def _widen(memory: DriverMemory, x: np.ndarray, _: np.ndarray) -> Done:
    from korvex.exact import _device_views as views

    views.doubles(memory, [(run(memory.from_host(x), "int64"), views.WHOLE)])
    return x.size, x.shape, memory.last


def _multiply(memory: DriverMemory, x: np.ndarray, y: np.ndarray) -> Done:
    from korvex.exact import _device_products as products

    rows = max(1, round((x.size / 100) ** 0.5))
    a, b = (memory.from_host(each[: rows * rows].astype(np.float64)) for each in (x, y))
    term = (run(a, "float64"), products.WHOLE, run(b, "float64"), products.WHOLE)
    out = memory.empty(rows * rows, "float64")
    products._multiply(memory, [term], (rows, rows, rows), out, 0, 1, "float64")
    return rows**3, (rows, rows), out


def _add_up(memory: DriverMemory, x: np.ndarray, _: np.ndarray) -> Done:
    """Running sums of one vector."""
    from korvex.exact import _device_running as running

    operand = view(memory.from_host(x), x.shape, (1,), "int64")
    out = memory.empty(x.size, "float64")
    running._sum_one_by_one(memory, operand, view(out, x.shape, (1,), "float64"))
    return x.size, x.shape, out


def _segments(memory: DriverMemory, x: np.ndarray, y: np.ndarray) -> Done:
    """The same, of which the sums of the segments are the results."""
    return *_add_up(memory, x, y)[:2], memory.last


def _add_up_vectors(memory: DriverMemory, x: np.ndarray, _: np.ndarray) -> Done:
    from korvex.exact import _device_running as running

    vectors = max(1, min(running.MOST_SEGMENTS, x.size // 64))
    shape = (vectors, x.size // vectors)
    operand, out = memory.from_host(x), memory.empty(shape[0] * shape[1], "float64")
    views = (view(w, shape, (shape[1], 1), f) for w, f in ((operand, "int64"), (out, "float64")))
    running._sum_side_by_side(memory, *views)
    return out.size, shape, out


def _of_rows(memory: DriverMemory, *operands: np.ndarray) -> Done:
    """Sums of long rows, or of products of two, whose elements lie together."""
    from korvex.exact import _device_axes as axes
    from korvex.exact import _native

    rows = max(1, min(64, operands[0].size // 65536))
    shape = (rows, operands[0].size // rows)
    views = [view(memory.from_host(x), shape, (shape[1], 1), "int64") for x in operands]
    number = _native.TOTAL if len(views) == 1 else _native.DOT_PRODUCT
    job = axes._Job(memory, [axes.Term(tuple(views))], 1, axes.Function(number))
    return rows * shape[1], shape, job.states(0, rows)


def _of_columns(memory: DriverMemory, x: np.ndarray, _: np.ndarray) -> Done:
    from korvex.exact import _device_axes as axes
    from korvex.exact import _native

    columns = max(1, min(1 << 16, x.size // 64))
    shape = (columns, x.size // columns)
    operand = view(memory.from_host(x), shape, (1, columns), "int64")
    job = axes._Job(memory, [axes.Term((operand,))], 1, axes.Function(_native.TOTAL))
    out = memory.empty(columns, "float64")
    job.sum_columns(out.address, 1, "float64")
    return columns * shape[1], shape, out


OPERATIONS: dict[str, Operation] = {
    "korvex_widen": _widen,
    "korvex_multiply": _multiply,
    "korvex_sum_segments": _segments,
    "korvex_running_sums": _add_up,
    "korvex_add_axes": lambda memory, x, _: _of_rows(memory, x),
    "korvex_multiply_axes": _of_rows,
    "korvex_sum_columns": _of_columns,
    "korvex_running_axes": _add_up_vectors,
}
