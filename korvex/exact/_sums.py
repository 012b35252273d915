# SPDX-License-Identifier: Apache-2.0
"""Sums of elements and of products that are built up step by step, without any rounding."""

from __future__ import annotations

from collections.abc import Iterable
from typing import TYPE_CHECKING, Any, Self

from korvex.exact import _decimals
from korvex.exact._accumulator import Accumulator
from korvex.exact._arrays import as_real
from korvex.exact._state import DOT, SUM

if TYPE_CHECKING:
    from decimal import Decimal
    from fractions import Fraction

_MOST_LIMBS = 4


class _OneValue(Accumulator):
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

    def _values(self) -> dict[str, str]:
        return {"value": repr(float(self))}

    def _details(self) -> dict[str, str]:
        return {"limbs": " + ".join(map(repr, self.limbs()))}


class Sum(_OneValue):
    """The exact sum of all elements that are added to it.

    Real arrays of any shape: bool, integers (exact, also beyond 2^53), float16, bfloat16, float32
    and float64, of NumPy, of torch, of CuPy, and anything with DLPack on the CPU. Complex arrays
    are a TypeError.

    Parameters
    ----------
    device : None, "cpu", "cuda", "cuda:0" and so on, or a device of torch or CuPy
        Where the state is kept. None: where the first array is. Arrays must be in the same place.

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
        self._accumulate(as_real(x, "x"))

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
        self._accumulate(as_real(x, "x"), sign=-1)

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
    device : None, "cpu", "cuda", "cuda:0" and so on, or a device of torch or CuPy
        Where the state is kept. None: where the first array is. Arrays must be in the same place.

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
        self._accumulate(as_real(x, "x"), as_real(y, "y"))

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
        self._accumulate(as_real(x, "x"), as_real(y, "y"), sign=-1)

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
