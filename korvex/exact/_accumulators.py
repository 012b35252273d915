# SPDX-License-Identifier: Apache-2.0
"""Sums, sums of products and moments that are built up step by step, without any rounding.

The state of an accumulator has a fixed size, and depends on what was added alone: not on the order,
not on how it was cut into arrays, not on threads or processors. One accumulator serves one thread
at a time; give each thread its own and merge them.
"""

from __future__ import annotations

from collections.abc import Iterable
from typing import TYPE_CHECKING, Any, ClassVar, Self

from korvex.exact import _decimals, _serial, _statistics
from korvex.exact._arrays import as_real
from korvex.exact._state import DOT, MOMENTS, SQUARES, SUM, State, Words, parts_of_moments

if TYPE_CHECKING:
    from decimal import Decimal
    from fractions import Fraction

_MOST_LIMBS = 4


class _Accumulator:
    """What the three kinds have in common."""

    __slots__ = ("__weakref__", "_state")
    __array_ufunc__: ClassVar[None] = None  # `accumulator + array` is an error, not an array
    __hash__: ClassVar[None] = None  # type: ignore[assignment]
    _KIND: ClassVar[int]

    _state: State

    def __init__(self, *, device: None | str = None) -> None:
        if device not in (None, "cpu"):
            raise ValueError(
                f"device must be None or 'cpu', not {device!r}: the state is on the host"
            )
        self._state = State(self._KIND)

    @classmethod
    def _of(cls, state: State) -> Self:
        made = cls()
        made._state = state
        return made

    # --- Of several

    def merge(self, other: Self, /) -> None:
        """Add what another accumulator of the same class was given. The other stays as it is.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> total, part = exact.Sum(), exact.Sum()
        >>> total.add(np.array([1e16, 1.0]))
        >>> part.add(np.array([-1e16]))
        >>> total.merge(part)
        >>> float(total)
        1.0
        """
        if type(other) is not type(self):
            raise TypeError(f"other must be a {type(self).__name__}, not {type(other).__name__}")
        self._state.merge(other._state)

    def __iadd__(self, other: Self) -> Self:
        """Merge."""
        if type(other) is not type(self):
            return NotImplemented
        self.merge(other)
        return self

    def __add__(self, other: Self) -> Self:
        """A new accumulator that has what both were given."""
        if type(other) is not type(self):
            return NotImplemented
        result = self.copy()
        result.merge(other)
        return result

    def __eq__(self, other: object) -> bool:
        """Whether both have the same class, exact values and counts."""
        if not isinstance(other, _Accumulator) or type(other) is not type(self):
            return NotImplemented
        return self._state == other._state

    # --- What was added

    @property
    def count(self) -> int:
        """How many elements were added, less those that were subtracted.

        Raises
        ------
        ValueError
            If more elements, NaN or infinities were subtracted than added.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> total = exact.Sum()
        >>> total.add(np.zeros((3, 4)))
        >>> total.count
        12
        """
        return self._state.counts().elements

    @property
    def state(self) -> Words:
        """The accumulator's own words, as a writable array of int64.

        Reading it settles the digits, so equal accumulators have equal arrays. The array is no
        copy: what is added to its words is added to the accumulator. A sum of the arrays of up to
        2^31 - 1 processes is therefore the sum of all their elements, with any library that adds
        int64 (``comm.Allreduce(MPI.IN_PLACE, accumulator.state, MPI.SUM)``). Read it anew each
        time: `add` leaves digits in it that are not settled.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> a, b = exact.Sum(), exact.Sum()
        >>> a.add(np.array([1e300, 1.0]))
        >>> b.add(np.array([-1e300, 2.0]))
        >>> a.state[:] += b.state
        >>> float(a), a.count, a.state.shape, a.state.dtype
        (3.0, 4, (72,), dtype('int64'))
        """
        self._state.settle()
        return self._state.words.view()

    def checksum(self) -> str:
        """Return SHA-256 of the class and the settled state, as 64 hexadecimal digits.

        Equal accumulators have equal checksums on every machine, however their elements were cut.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> whole, parts = exact.Sum(), exact.Sum()
        >>> whole.add(np.arange(10.0))
        >>> for part in np.split(np.arange(10.0)[::-1], 5):
        ...     parts.add(part)
        >>> whole.checksum() == parts.checksum()
        True
        >>> whole.checksum()[:16]
        'd1fb835c6417181c'
        """
        return _serial.digest_of(self._state).hex()

    # --- Copies

    def copy(self) -> Self:
        """Return an independent copy.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> total = exact.Sum()
        >>> before = total.copy()
        >>> total.add(np.array([1.0]))
        >>> before, total
        (Sum(count=0, value=0.0), Sum(count=1, value=1.0))
        """
        return self._of(self._state.copy())

    def __copy__(self) -> Self:
        return self.copy()

    def __deepcopy__(self, memo: dict[int, Any]) -> Self:
        return self.copy()

    def __bytes__(self) -> bytes:
        """The settled state with its class and a SHA-256; `exact.loads` reads it back."""
        return _serial.to_bytes(self._state)

    def __reduce__(self) -> tuple[Any, ...]:
        return loads, (bytes(self),)

    # --- Text

    def __repr__(self) -> str:
        elements = self._state.raw_counts().elements
        try:
            values = self._values()
        except ValueError:  # more was subtracted than added, which a debugger may well look at
            values = "value undefined"
        return f"{type(self).__name__}(count={elements}, {values})"

    def _values(self) -> str:
        raise NotImplementedError


class _OneValue(_Accumulator):
    """What has one exact value: a sum of elements, or of products."""

    __slots__ = ()

    def __float__(self) -> float:
        """The exact value, correctly rounded; NaN and infinities as float64 addition has them."""
        return self._state.limbs()[0]

    def limbs(self, count: int = 4, /) -> tuple[float, ...]:
        """Return the first canonical limbs of the exact value.

        Each is what is left of the value after those before it, rounded to nearest. The last of
        them is rounded where four floats do not hold the value.

        Parameters
        ----------
        count : int
            How many, from 1 to 4.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> total = exact.Sum()
        >>> total.add(np.array([1.0, 2.0**-60]))
        >>> total.limbs(2) == (1.0, 2.0**-60)
        True
        """
        if type(count) is not int:
            raise TypeError(f"count must be an int, not {type(count).__name__}")
        if not 1 <= count <= _MOST_LIMBS:
            raise ValueError(f"count must be from 1 to {_MOST_LIMBS}, not {count}")
        return self._state.limbs(count=count)

    def to_fraction(self) -> Fraction:
        """Return the exact value.

        Raises
        ------
        OverflowError
            If it is an infinity.
        ValueError
            If it is NaN.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> total = exact.Sum()
        >>> total.add(np.array([0.5, 2.0**-60]))
        >>> total.to_fraction()
        Fraction(576460752303423489, 1152921504606846976)
        """
        return _decimals.fraction_of(self._state)

    def to_decimal(self, precision: int | None = None) -> Decimal:
        """Return the value in decimal: all of its digits, or rounded once to so many.

        The decimal context of the caller plays no part. Of an infinity and of NaN it is the
        `Decimal` of that name.

        Parameters
        ----------
        precision : int, optional
            Significant digits, at least 1; rounded to nearest, ties to even.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> total = exact.Sum()
        >>> total.add(np.array([0.1, 0.2]))
        >>> total.to_decimal()
        Decimal('0.3000000000000000166533453693773481063544750213623046875')
        >>> total.to_decimal(20)
        Decimal('0.30000000000000001665')
        """
        return _decimals.decimal_of(self._state, precision)

    def _values(self) -> str:
        return f"value={float(self)!r}"


class Sum(_OneValue):
    """The exact sum of all elements that are added to it.

    Real arrays of any shape: bool, integers (exact, also beyond 2^53), float16, bfloat16, float32
    and float64, of NumPy, torch on the CPU or on the emulated device, and anything with DLPack.
    Complex arrays are a TypeError.

    Parameters
    ----------
    device : None or "cpu"
        Where the state is kept.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> total = exact.Sum()
    >>> for chunk in (np.array([1e16, 1.0]), np.array([-1e16, 2.0])):
    ...     total.add(chunk)
    >>> total
    Sum(count=4, value=3.0)
    """

    __slots__ = ()
    _KIND = SUM

    def add(self, x: Any, /) -> None:
        """Add all elements of an array.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> total = exact.Sum()
        >>> total.add(np.array([2**62, 2**62, 1]))
        >>> int(total.to_fraction()) == 2**63 + 1
        True
        """
        self._state.accumulate(as_real(x, "x"))

    def subtract(self, x: Any, /) -> None:
        """Undo `add` of the same elements: digits, number of elements, infinities and NaN.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> total = exact.Sum()
        >>> total.add(np.array([1.0, np.inf]))
        >>> total.subtract(np.array([np.inf]))
        >>> total
        Sum(count=1, value=1.0)
        """
        self._state.accumulate(as_real(x, "x"), sign=-1)

    @classmethod
    def from_chunks(cls, chunks: Iterable[Any], /) -> Self:
        """Add arrays one after the other, each of which may be dropped then.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> exact.Sum.from_chunks(np.full(3, 0.5) for _ in range(1000))
        Sum(count=3000, value=1500.0)
        """
        made = cls()
        for chunk in chunks:
            made.add(chunk)
        return made


class Dot(_OneValue):
    """The exact sum of the products of all pairs of elements that are added to it.

    Both arrays of a step have the same shape; elements with the same index are multiplied. No
    product is rounded, those of 64-bit integers neither. Arrays are those that `Sum` takes.

    Parameters
    ----------
    device : None or "cpu"
        Where the state is kept.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> total = exact.Dot()
    >>> total.add(np.array([1e200, 1.0, 1e200]), np.array([1e200, 0.5, -1e200]))
    >>> total
    Dot(count=3, value=0.5)
    """

    __slots__ = ()
    _KIND = DOT

    def add(self, x: Any, y: Any, /) -> None:
        """Add the products of two arrays of the same shape.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> total = exact.Dot()
        >>> total.add(np.array([2.0, 3.0]), np.array([10, 100]))
        >>> float(total)
        320.0
        """
        self._state.accumulate(as_real(x, "x"), as_real(y, "y"))

    def subtract(self, x: Any, y: Any, /) -> None:
        """Undo `add` of the same pairs.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> total = exact.Dot()
        >>> total.add(np.array([2.0, 3.0]), np.array([10, 100]))
        >>> total.subtract(np.array([3.0]), np.array([100]))
        >>> total
        Dot(count=1, value=20.0)
        """
        self._state.accumulate(as_real(x, "x"), as_real(y, "y"), sign=-1)

    @classmethod
    def from_chunks(cls, pairs: Iterable[tuple[Any, Any]], /) -> Self:
        """Add pairs of arrays one after the other, each of which may be dropped then.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> exact.Dot.from_chunks((np.ones(3), np.full(3, 0.1)) for _ in range(10)).count
        30
        """
        made = cls()
        for x, y in pairs:
            made.add(x, y)
        return made


class Moments(_Accumulator):
    """The number of elements, their exact sum and the exact sum of their squares.

    Mean, variance, standard deviation and norm follow from them with one rounding each. Arrays are
    those that `Sum` takes.

    Parameters
    ----------
    device : None or "cpu"
        Where the state is kept.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> moments = exact.Moments()
    >>> moments.add(np.array([1.0, 2.0, 4.0]))
    >>> moments
    Moments(count=3, sum=7.0, sum_of_squares=21.0)
    >>> moments.mean(), moments.var(correction=1)
    (2.3333333333333335, 2.3333333333333335)
    """

    __slots__ = ()
    _KIND = MOMENTS

    def add(self, x: Any, /) -> None:
        """Add all elements of an array.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> moments = exact.Moments()
        >>> moments.add(np.array([[1, 2], [3, 4]], np.uint8))
        >>> moments
        Moments(count=4, sum=10.0, sum_of_squares=30.0)
        """
        self._state.accumulate(as_real(x, "x"))

    def subtract(self, x: Any, /) -> None:
        """Undo `add` of the same elements: digits, number of elements, infinities and NaN.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> moments = exact.Moments()
        >>> moments.add(np.array([1.0, 2.0, np.nan]))
        >>> moments.subtract(np.array([np.nan]))
        >>> moments
        Moments(count=2, sum=3.0, sum_of_squares=5.0)
        """
        self._state.accumulate(as_real(x, "x"), sign=-1)

    @classmethod
    def from_chunks(cls, chunks: Iterable[Any], /) -> Self:
        """Add arrays one after the other, each of which may be dropped then.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> exact.Moments.from_chunks([np.ones(3), np.zeros(3)]).mean()
        0.5
        """
        made = cls()
        for chunk in chunks:
            made.add(chunk)
        return made

    def sum(self) -> Sum:
        """Return the sum of the elements, as an accumulator of its own.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> moments = exact.Moments()
        >>> moments.add(np.array([1.0, 2.0]))
        >>> moments.sum()
        Sum(count=2, value=3.0)
        """
        return Sum._of(parts_of_moments(self._state)[0])

    def sum_of_squares(self) -> Dot:
        """Return the sum of the squares, as an accumulator of its own.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> moments = exact.Moments()
        >>> moments.add(np.array([1.0, 2.0**-40]))
        >>> moments.sum_of_squares().limbs(2) == (1.0, 2.0**-80)
        True
        """
        return Dot._of(parts_of_moments(self._state)[1])

    def mean(self) -> float:
        """Return the mean, correctly rounded; NaN of no element.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> moments = exact.Moments()
        >>> moments.add(np.array([1e308, 1e308]))
        >>> moments.mean()
        1e+308
        """
        return _statistics.mean_of(self._state)

    def var(self, *, correction: float = 0) -> float:
        """Return the variance with the divisor ``count - correction``, correctly rounded.

        NaN where the divisor is not positive, and where an element is not finite.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> moments = exact.Moments()
        >>> moments.add(np.array([1e9 + 4, 1e9 + 7, 1e9 + 13, 1e9 + 16]))
        >>> moments.var(correction=1)
        30.0
        """
        return _statistics.variance_of(self._state, _statistics.checked_correction(correction))

    def std(self, *, correction: float = 0) -> float:
        """Return the root of the exact variance, correctly rounded.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> moments = exact.Moments()
        >>> moments.add(np.array([1.0, 2.0, 3.0, 4.0]))
        >>> moments.std()
        1.118033988749895
        """
        return _statistics.deviation_of(self._state, _statistics.checked_correction(correction))

    def norm(self) -> float:
        """Return the Euclidean norm, the root of the exact sum of squares, correctly rounded.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> moments = exact.Moments()
        >>> moments.add(np.array([3e200, 4e200]))
        >>> moments.norm()
        5e+200
        """
        return _statistics.norm_of(self._state, SQUARES)

    def _values(self) -> str:
        return f"sum={float(self.sum())!r}, sum_of_squares={float(self.sum_of_squares())!r}"


_CLASSES: dict[int, type[_Accumulator]] = {each._KIND: each for each in (Sum, Dot, Moments)}


def loads(data: bytes | bytearray | memoryview, /) -> Sum | Dot | Moments:
    """Read an accumulator back from the bytes that ``bytes(accumulator)`` gave.

    Parameters
    ----------
    data : bytes, bytearray or memoryview

    Raises
    ------
    ValueError
        If the bytes are damaged, or are not those of an accumulator.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> total = exact.Sum()
    >>> total.add(np.array([1.0, 2.0**-60]))
    >>> data = bytes(total)
    >>> len(data), exact.loads(data) == total
    (620, True)
    >>> exact.loads(data[:-1])
    Traceback (most recent call last):
    ...
    ValueError: the bytes of the accumulator are damaged: another SHA-256 is expected
    """
    if not isinstance(data, (bytes, bytearray, memoryview)):
        raise TypeError(f"data must be bytes, not {type(data).__name__}")
    state = _serial.from_bytes(bytes(data))
    return _CLASSES[state.kind]._of(state)  # type: ignore[return-value]
