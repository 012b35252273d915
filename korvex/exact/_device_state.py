# SPDX-License-Identifier: Apache-2.0
"""A state in the memory of a GPU: kernels add to it there, and it is read on the host.

Launches go to the caller's current stream and nothing waits for them. A step on another stream than
the step before lets its stream wait for that one.
"""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

from korvex.exact import _native
from korvex.exact._arrays import Real
from korvex.exact._devices import FORMAT_NUMBERS, Device
from korvex.exact._state import (
    COUNTS,
    DOT,
    MOMENTS,
    SUM_DIGITS,
    WORD_BYTES,
    Counts,
    State,
    Words,
)

# A launch adds less than 2^45 to a digit, and settled digits lie below 2^32.
MOST_LAUNCHES = 4096


class DeviceState(State):
    """The words of a state, as an array of int64 on a device."""

    __slots__ = ("_launches", "_stream")

    def __init__(self, kind: int, device: Device, words: Any = None) -> None:
        super().__init__(
            kind, device.zeros(_native.words(kind)) if words is None else words, device
        )
        self._stream = device.stream()  # that was used last
        self._launches = 0  # since the digits were settled

    # --- Launches. The lock is held.

    def _on_stream(self) -> Any:
        """The current stream, behind what earlier steps have given to another one."""
        current = self._gpu.stream()
        if self._gpu.handle(current) != self._gpu.handle(self._stream):
            self._gpu.change(self.words, self._stream, current)
        self._stream = current
        return current

    def _launch(self, kernel: str, *arguments: int) -> None:
        from korvex.exact import _cuda

        stream = self._gpu.handle(self._on_stream())
        _cuda.launch(kernel, self._gpu.ordinal, stream, *arguments)

    def _settle(self) -> None:
        self._launch("korvex_settle_state", self.kind, self._gpu.address(self.words))
        self._launches = 0

    def _make_room(self) -> None:
        if self._launches >= MOST_LAUNCHES:
            self._settle()
        self._launches += 1

    # --- What a state can do

    @property
    def _gpu(self) -> Device:
        assert self.device is not None
        return self.device

    def accumulate(self, x: Real, y: Real | None = None, sign: int = 1) -> None:
        in_order = y is not None
        if y is not None and tuple(x.values.shape) != tuple(y.values.shape):
            raise ValueError(
                f"x and y must have one shape, but have {tuple(x.values.shape)} and "
                f"{tuple(y.values.shape)}"
            )
        x_run = self._gpu.run(x.values, in_order)
        y_run = x_run if y is None else self._gpu.run(y.values, in_order)
        digits = self._gpu.address(self.words)
        counts = digits + WORD_BYTES * (len(self.words) - COUNTS)
        x_arguments, y_arguments = x_run.arguments(), y_run.arguments()

        def add_elements(sign: int) -> None:
            self._launch("korvex_add_elements", x_run.elements, *x_arguments, sign, digits, counts)

        def add_products(digits: int, counts: int) -> None:
            self._launch(
                "korvex_add_products",
                x_run.elements,
                *x_arguments,
                *y_arguments,
                sign,
                digits,
                counts,
            )

        with self._lock:
            self._make_room()
            if self.kind == DOT:
                add_products(digits, counts)
                return
            add_elements(sign)
            if self.kind == MOMENTS:
                try:
                    add_products(digits + WORD_BYTES * SUM_DIGITS, 0)
                except BaseException:
                    add_elements(-sign)
                    raise

    def merge(self, other: State, sign: int = 1) -> None:
        added = other.copy()  # settled; holds one lock at a time, whatever is merged into what
        assert isinstance(added, DeviceState)
        with self._lock:
            self._settle()
            if sign > 0:
                self.words += added.words
            else:
                self.words -= added.words

    def settle(self) -> None:
        with self._lock:
            self._settle()

    def replace(self, words: Words) -> None:
        with self._lock:
            self._on_stream()
            self._gpu.overwrite(self.words, words)
            self._launches = MOST_LAUNCHES  # the words of many processes may leave no room

    def handed_out(self) -> Any:
        with self._lock:
            self._settle()
            self._launches = MOST_LAUNCHES  # whatever is added to it leaves no room
            return self.words[:]

    def copy(self) -> State:
        with self._lock:
            self._settle()
            return DeviceState(self.kind, self._gpu, self._gpu.copy(self.words))

    def on_host(self) -> State:
        with self._lock:
            self._settle()
            return State(self.kind, self._gpu.to_host(self.words).copy())

    def round_into(self, out: Any, index: int, form: str) -> None:
        """Write the value, rounded once to the format of an array on the same device."""
        with self._lock:
            self._launch(
                "korvex_round_state",
                self.kind,
                self._gpu.address(self.words),
                int(self.kind == DOT),
                FORMAT_NUMBERS[form],
                self._gpu.address(out) + index * out.itemsize,
            )

    # --- Reading, on the host

    def __eq__(self, other: object) -> bool:
        return self.on_host() == other

    __hash__ = None

    def raw_counts(self) -> Counts:
        return self.on_host().raw_counts()

    def limbs(self, part: int = 0, count: int = 1, form: str = "float64") -> tuple[float, ...]:
        return self.on_host().limbs(part, count, form)

    def ratio(self, part: int = 0) -> tuple[int, int]:
        return self.on_host().ratio(part)


def rounded(
    device: Device, jobs: Sequence[tuple[int, Real, Real | None]], form: str, shape: Any
) -> Any:
    """Values on a device, of one state each: one, or the two halves of a complex one.

    A job is the kind of a state and its arrays. Nothing waits for the kernels.
    """
    out = device.empty(len(jobs), form)
    for index, (kind, x, y) in enumerate(jobs):
        state = DeviceState(kind, device)
        state.accumulate(x, y)
        state.round_into(out, index, form)
    return (out if len(jobs) == 1 else device.joined(out)).reshape(shape)
