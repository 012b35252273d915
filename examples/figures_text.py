# SPDX-License-Identifier: Apache-2.0
"""The figures of one sum as lines of text, with every limit that touches them said in words."""

import math
import textwrap
from decimal import Context, Decimal
from fractions import Fraction

from exact_figures import (
    SumFigures,
    decimal_text,
    exact_decimal,
    mean_decimal,
    nearest_float,
    ulps_off,
)

_LABEL_WIDTH = 16
_NOTE_WIDTH = 98


def figures_text(title: str, figures: SumFigures, digits: int) -> str:
    """Several lines: title, one line a figure, notes."""
    lines = [f"{title}: {figures.count} value{'s' if figures.count != 1 else ''}"]
    lines += [row(label, text) for label, text in _decimal_rows(figures, digits)]
    for name, float_sum in figures.float_sums.items():
        lines.append(row(name, f"{float_sum!r:<24} {distance_text(float_sum, figures)}"))
    lines.append(row("limbs", " ".join(map(repr, figures.limbs))))
    lines.append(row("checksum", figures.checksum))
    for note in _notes(figures):
        lines += textwrap.wrap(note, _NOTE_WIDTH, initial_indent="  ! ", subsequent_indent="    ")
    return "\n".join(lines)


def row(label: str, text: str) -> str:
    return f"  {label:<{_LABEL_WIDTH}} {text}".rstrip(" ")


def _decimal_rows(figures: SumFigures, digits: int) -> list[tuple[str, str]]:
    """The decimals of the module; where a limit spoils them, under their own names."""
    total = decimal_text(figures.total, digits)
    mean = decimal_text(figures.mean, digits)
    if figures.total_is_exact:
        return [("exact sum", total), ("exact mean", mean)]
    rows = [("tqx_sum_exact", total + " (see below)"), ("tqx_mean_exact", mean + " (see below)")]
    if not figures.is_finite:
        return rows
    return [
        ("exact sum", decimal_text(exact_decimal(figures.exact_total), digits)),
        ("exact mean", decimal_text(mean_decimal(figures.exact_mean), digits)),
        *rows,
    ]


def distance_text(float_sum: float, figures: SumFigures) -> str:
    """How far a float sum is from the exact one."""
    if not figures.is_finite:
        return ""
    exact = figures.exact_total
    if not math.isfinite(float_sum):
        return "not a number" if math.isnan(float_sum) else "overflowed"
    if Fraction(float_sum) == exact:
        return "exact"
    if exact == 0:
        return "off by all of itself: the exact sum is 0"
    tag = ", the nearest float64" if float_sum == nearest_float(exact) else ""
    return _ulps_text(ulps_off(float_sum, exact)) + tag


def _ulps_text(ulps: Fraction) -> str:
    if abs(ulps) < Fraction(1, 1000):
        return "under 0.001 ulp"
    if abs(ulps) < 1000:
        return f"{float(ulps):+.3f} ulp"
    return f"{Context(prec=4).divide(Decimal(ulps.numerator), Decimal(ulps.denominator)):+.3E} ulp"


# --- Limits

_NAN_LIMB = (
    "The sum is not a number. to_decimal has no NaN: it reads the one here as the finite number"
    " 3 * 2**1023. A checksum of NaN is not comparable between kinds of device."
)
_INFINITE_LIMB = (
    "The sum is infinite: a value was, or the sum is too large for four limbs. to_decimal has no"
    " infinity: it reads one as the finite number 2**1024. Collapsing an infinite limb gives NaN,"
    " so tqx_sum and the checksum are those of NaN, and such a checksum is not comparable between"
    " kinds of device."
)
_SUBNORMAL_LIMB = (
    "to_decimal reads a subnormal limb as another number: (fraction + 2**52) * 2**-1075. The exact"
    " figures here are added up from the limbs."
)
_MANY_DIGITS = (
    "to_decimal rounds to 1000 digits, and this sum has more. The exact figures here are added up"
    " from the limbs."
)
_FOURTH_LIMB = "All four limbs are in use: a sum that needs a fifth is rounded at the fourth."
_BEYOND_RANGE = (
    "The sum is beyond the range of float64: the limbs hold it, one float cannot. The checksum is"
    " that of the collapsed limbs, here no finite number, and not comparable between kinds of"
    " device."
)
_NOT_NEAREST = (
    "tqx_sum gives the limbs collapsed to one float64, within one ulp and here not the nearest;"
    " float() of the exact decimal is."
)


def _notes(figures: SumFigures) -> list[str]:
    """What the reader must know about these very figures."""
    if any(map(math.isnan, figures.limbs)):
        return [_NAN_LIMB]
    if not figures.is_finite:
        return [_INFINITE_LIMB]
    notes = []
    if not figures.total_is_exact:
        notes.append(_SUBNORMAL_LIMB if figures.has_subnormal_limb else _MANY_DIGITS)
    if figures.limbs[3] != 0.0:
        notes.append(_FOURTH_LIMB)
    nearest = nearest_float(figures.exact_total)
    if math.isinf(nearest):
        notes.append(_BEYOND_RANGE)
    elif figures.float_sums["tqx_sum"] != nearest:
        notes.append(_NOT_NEAREST)
    return notes
