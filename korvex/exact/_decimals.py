# SPDX-License-Identifier: Apache-2.0
"""The exact value of a state as a `Fraction` and as a `Decimal`."""

from __future__ import annotations

import decimal
import math
from decimal import Decimal
from fractions import Fraction

from korvex.exact._state import State


def fraction_of(state: State) -> Fraction:
    """The exact value; infinities and NaN raise what `Fraction` raises for them."""
    special = state.special()
    return Fraction(*state.ratio()) if special is None else Fraction(special)


def decimal_of(state: State, precision: int | None) -> Decimal:
    """All digits, or so many with one rounding, whatever the caller's context is."""
    if precision is not None:
        _check_precision(precision)
    special = state.special()
    if special is not None:
        return Decimal(special)
    exact = _all_digits(*state.ratio())
    return exact if precision is None else _context(precision).plus(exact)


def _all_digits(numerator: int, denominator: int) -> Decimal:
    """Of a ratio whose denominator is a power of two, in lowest terms with a power of ten."""
    if numerator == 0:
        return Decimal(0)
    common = math.gcd(numerator, denominator)
    numerator, denominator = numerator // common, denominator // common
    places = denominator.bit_length() - 1
    context = _context(decimal.MAX_PREC)
    return context.scaleb(Decimal(numerator * 5**places), -places)


def _context(precision: int) -> decimal.Context:
    return decimal.Context(
        prec=precision,
        rounding=decimal.ROUND_HALF_EVEN,
        Emin=decimal.MIN_EMIN,
        Emax=decimal.MAX_EMAX,
        clamp=0,
        traps=[],
    )


def _check_precision(precision: object) -> None:
    if type(precision) is not int:
        raise TypeError(f"precision must be an int, not {type(precision).__name__}")
    if not 1 <= precision <= decimal.MAX_PREC:
        raise ValueError(f"precision must be from 1 to {decimal.MAX_PREC}, not {precision}")
