# SPDX-License-Identifier: Apache-2.0
"""Sums of elements and of their squares, and the statistics that follow from both."""

from __future__ import annotations

from collections.abc import Iterable
from typing import Any, Self

from korvex.exact import _statistics
from korvex.exact._accumulator import Accumulator
from korvex.exact._arrays import as_real
from korvex.exact._state import MOMENTS, SQUARES, parts_of_moments
from korvex.exact._sums import Dot, Sum


class Moments(Accumulator):
    """The number of elements, their exact sum and the exact sum of their squares.

    Mean, variance, standard deviation and norm follow from them with one rounding each. Arrays are
    those that `Sum` takes.

    Parameters
    ----------
    device : None, "cpu", "cuda", "cuda:0" and so on, or a device of torch or CuPy
        Where the state is kept. None: where the first array is. Arrays must be in the same place.

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
        self._accumulate(as_real(x, "x"))

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
        self._accumulate(as_real(x, "x"), sign=-1)

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
        return _statistics.mean_of(self._state.on_host())

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
        return _statistics.variance_of(
            self._state.on_host(), _statistics.checked_correction(correction)
        )

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
        return _statistics.deviation_of(
            self._state.on_host(), _statistics.checked_correction(correction)
        )

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
        return _statistics.norm_of(self._state.on_host(), SQUARES)

    def _values(self) -> dict[str, str]:
        sums = {"sum": self.sum(), "sum_of_squares": self.sum_of_squares()}
        return {name: repr(float(value)) for name, value in sums.items()}

    def _details(self) -> dict[str, str]:
        return {"mean": repr(self.mean()), "std": repr(self.std())}
