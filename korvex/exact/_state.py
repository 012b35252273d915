# SPDX-License-Identifier: Apache-2.0
"""The state of an accumulator: digits of exact sums, and counts of what they leave out.

Infinities and NaN are counted and do not enter the digits, so each can be taken away again. A count
below zero says that more was taken away than added; it may stand in a state that is on its way, and
is an error where a value is read.
"""

from __future__ import annotations

import math
import threading
from typing import TYPE_CHECKING, Any, NamedTuple, NoReturn

import numpy as np

from korvex.exact import _native, _threads
from korvex.exact._arrays import Real

if TYPE_CHECKING:
    from korvex.exact._devices import Device

Words = np.ndarray[tuple[int], np.dtype[np.int64]]

SUM, DOT, MOMENTS = _native.SUM, _native.DOT, _native.MOMENTS
COUNTS = 4  # words at the end
WORD_BYTES = 8

SUM_DIGITS = _native.words(SUM) - COUNTS
SQUARES = 1  # the second part of moments

# An exact value is an integer times a power of two: the last place of the least number, or of the
# least product of two.
_EXPONENTS = {(SUM, 0): -1074, (DOT, 0): -2148, (MOMENTS, 0): -1074, (MOMENTS, SQUARES): -2148}


class Counts(NamedTuple):
    """What was added less what was taken away."""

    positive_infinities: int
    negative_infinities: int
    nans: int
    elements: int


class State:
    """The words of one state and what can be done with them; here, in host memory.

    The native half lets other threads run while it adds, so steps on one state wait for each other:
    otherwise one of two additions at a time would be lost.
    """

    __slots__ = ("_lock", "device", "kind", "words")

    def __init__(self, kind: int, words: Words | None = None, device: Device | None = None) -> None:
        self._lock = threading.Lock()
        self.kind = kind
        self.words: Words = np.zeros(_native.words(kind), np.int64) if words is None else words
        self.device = device  # None: the host

    def accumulate(self, x: Real, y: Real | None = None, sign: int = 1) -> None:
        """Add the elements of an array, or the products of two; take away where the sign is -1."""
        values, format = (None, None) if y is None else (y.values, y.format)
        with self._lock:
            _native.accumulate(
                self.kind, self.words, x.values, values, sign, _threads.count, x.format, format
            )

    def merge(self, other: State, sign: int = 1) -> None:
        added = other.copy()  # holds one lock at a time, whatever is merged into what
        with self._lock:
            _native.merge(self.kind, self.words, added.words, sign)

    def settle(self) -> None:
        with self._lock:
            _native.settle(self.kind, self.words)

    def replace(self, words: Words) -> None:
        with self._lock:
            self.words[:] = words

    def copy(self) -> State:
        with self._lock:
            return State(self.kind, self.words.copy())

    def on_host(self) -> State:
        """The state itself, or a copy in host memory of one on a device."""
        return self

    def handed_out(self) -> Words:
        """The words, settled, for others to read and to add to."""
        self.settle()
        return self.words.view()

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, State) or self.kind != other.kind:
            return NotImplemented
        other = other.on_host()
        self.settle()
        other.settle()
        return np.array_equal(self.words, other.words)

    __hash__ = None  # type: ignore[assignment]

    # --- Reading

    def raw_counts(self) -> Counts:
        return Counts(*self.words[-COUNTS:].tolist())

    def counts(self) -> Counts:
        """The counts, which must not be below zero where a value is read."""
        counts = self.raw_counts()
        if min(counts) < 0:
            _refuse_negative(counts)
        return counts

    def special(self, part: int = 0) -> float | None:
        """NaN or the infinity that a part is; None where it is finite."""
        positive, negative, nans, _ = self.counts()
        if self.kind == MOMENTS and part == SQUARES:
            positive, negative = positive + negative, 0
        if nans or (positive and negative):
            return math.nan
        if positive or negative:
            return math.inf if positive else -math.inf
        return None

    def limbs(self, part: int = 0, count: int = 1, form: str = "float64") -> tuple[float, ...]:
        """The first canonical limbs; one limb alone may be of another format."""
        special = self.special(part)
        if special is not None:
            return (special, *[0.0] * (count - 1))
        with self._lock:
            _native.settle(self.kind, self.words)
            return _native.limbs(self.kind, self.words, part, count, form)

    def ratio(self, part: int = 0) -> tuple[int, int]:
        """The exact value of the finite elements as an integer over a power of two."""
        with self._lock:
            _native.settle(self.kind, self.words)
            integer = _native.exact_integer(self.kind, self.words, part)
        return integer, 1 << -_EXPONENTS[self.kind, part]


def _refuse_negative(counts: Counts) -> NoReturn:
    name, count = next(pair for pair in counts._asdict().items() if pair[1] < 0)
    raise ValueError(
        f"the count of {name.replace('_', ' ')} is {count}: more were taken away than added"
    )


def accumulated(kind: int, x: Real, y: Real | None = None) -> State:
    """The state of one array, or of the products of two, to be read on the host."""
    state = new_state(kind, x.device)
    state.accumulate(x, y)
    return state.on_host()


def new_state(kind: int, device: Device | None) -> State:
    """A state that holds nothing."""
    return State(kind) if device is None else _device_state(kind, device)


def _device_state(kind: int, device: Device) -> State:
    from korvex.exact._device_state import DeviceState  # for those alone who have a GPU

    return DeviceState(kind, device)


def parts_of_moments(state: State) -> tuple[State, State]:
    """The sum and the sum of squares of moments, as states of their own on the host."""
    state = state.on_host()
    state.settle()
    positive, negative, nans, elements = state.raw_counts()
    sum_words = _joined(state.words[:SUM_DIGITS], positive, negative, nans, elements)
    square_digits = state.words[SUM_DIGITS:-COUNTS]
    square_words = _joined(square_digits, positive + negative, 0, nans, elements)
    return State(SUM, sum_words), State(DOT, square_words)


def _joined(digits: Any, *counts: int) -> Words:
    return np.concatenate([digits, np.array(counts, np.int64)])
