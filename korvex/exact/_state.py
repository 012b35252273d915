# SPDX-License-Identifier: Apache-2.0
"""The state of an accumulator: digits of exact sums, and counts of what they leave out.

Infinities and NaN are counted and do not enter the digits, so each can be taken away again. A count
below zero says that more was taken away than added; it may stand in a state that is on its way, and
is an error where a value is read.
"""

from __future__ import annotations

import math
from typing import Any, NamedTuple, NoReturn

import numpy as np

from korvex.exact import _native, _threads
from korvex.exact._arrays import Real

Words = np.ndarray[tuple[int], np.dtype[np.int64]]

SUM, DOT, MOMENTS = _native.SUM, _native.DOT, _native.MOMENTS
COUNTS = 4  # words at the end

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
    """The words of one state and what can be done with them."""

    __slots__ = ("kind", "words")

    def __init__(self, kind: int, words: Words | None = None) -> None:
        self.kind = kind
        self.words: Words = np.zeros(_native.words(kind), np.int64) if words is None else words

    def accumulate(self, x: Real, y: Real | None = None, sign: int = 1) -> None:
        """Add the elements of an array, or the products of two; take away where the sign is -1."""
        values, format = (None, None) if y is None else y
        _native.accumulate(
            self.kind, self.words, x.values, values, sign, _threads.count, x.format, format
        )

    def merge(self, other: State, sign: int = 1) -> None:
        _native.merge(self.kind, self.words, other.words, sign)

    def settle(self) -> None:
        _native.settle(self.kind, self.words)

    def copy(self) -> State:
        return State(self.kind, self.words.copy())

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, State) or self.kind != other.kind:
            return NotImplemented
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
        self.settle()
        return _native.limbs(self.kind, self.words, part, count, form)

    def ratio(self, part: int = 0) -> tuple[int, int]:
        """The exact value of the finite elements as an integer over a power of two."""
        self.settle()
        integer = _native.exact_integer(self.kind, self.words, part)
        return integer, 1 << -_EXPONENTS[self.kind, part]


def _refuse_negative(counts: Counts) -> NoReturn:
    name, count = next(pair for pair in counts._asdict().items() if pair[1] < 0)
    raise ValueError(
        f"the count of {name.replace('_', ' ')} is {count}: more were taken away than added"
    )


def accumulated(kind: int, x: Real, y: Real | None = None) -> State:
    """The state of one array, or of the products of two."""
    state = State(kind)
    state.accumulate(x, y)
    return state


def parts_of_moments(state: State) -> tuple[State, State]:
    """The sum and the sum of squares of moments, as states of their own."""
    state.settle()
    positive, negative, nans, elements = state.raw_counts()
    sum_words = _joined(state.words[:SUM_DIGITS], positive, negative, nans, elements)
    square_digits = state.words[SUM_DIGITS:-COUNTS]
    square_words = _joined(square_digits, positive + negative, 0, nans, elements)
    return State(SUM, sum_words), State(DOT, square_words)


def _joined(digits: Any, *counts: int) -> Words:
    return np.concatenate([digits, np.array(counts, np.int64)])
