# SPDX-License-Identifier: Apache-2.0
"""The curves of series_errors.py: functions, their arguments, and their errors against MPFR.

MPFR (by gmpy2) gives the true value for the float64 argument with 200 bits. The error of a result
is taken in that precision and rounded to a float once, at the end.
"""

from collections.abc import Callable
from dataclasses import dataclass
from math import pi
from typing import Any

import gmpy2
import numpy as np
from sum_device import SumDevice

_TRUE = {
    "tqx_sin": gmpy2.sin,
    "tqx_cos": gmpy2.cos,
    "tqx_tan": gmpy2.tan,
    "tqx_asin": gmpy2.asin,
    "tqx_acos": gmpy2.acos,
    "tqx_atan": gmpy2.atan,
    "tqx_atan2": gmpy2.atan2,
    "tqx_sinh": gmpy2.sinh,
    "tqx_cosh": gmpy2.cosh,
}


@dataclass(frozen=True)
class Curve:
    """One function over one range. A point of the axis is turned into operands by `operands`."""

    function: str
    label: str
    axis: Callable[[int], np.ndarray]
    operands: Callable[[np.ndarray], tuple[np.ndarray, ...]] = lambda axis: (axis,)
    relative: bool = True

    def errors(self, device: SumDevice, points: int) -> tuple[np.ndarray, np.ndarray]:
        """The points of the axis and the error at each."""
        axis = self.axis(points)
        operands = self.operands(axis)
        function = getattr(device.runtime, self.function)
        results = function(*map(device.tensor, operands)).cpu().numpy()
        true = _TRUE[self.function]
        with gmpy2.context(precision=200):
            found = [
                _error(result, true(*map(gmpy2.mpfr, map(float, point))), self.relative)
                for result, *point in zip(results, *operands, strict=True)
            ]
        return axis, np.array(found)


def _error(result: np.float64, true: Any, relative: bool) -> float:
    difference = abs(gmpy2.mpfr(float(result)) - true)
    return float(difference / abs(true) if relative and true != 0 else difference)


@dataclass(frozen=True)
class Panel:
    """Curves with a common axis."""

    title: str
    axis_label: str
    curves: list[Curve]
    logarithmic: bool = False

    @property
    def error_label(self) -> str:
        return "relative error" if self.curves[0].relative else "absolute error"


def even(low: float, high: float) -> Callable[[int], np.ndarray]:
    """Evenly spaced points between the ends, without them."""
    return lambda points: np.linspace(low, high, points + 2)[1:-1]


def powers(low: float, high: float) -> Callable[[int], np.ndarray]:
    """Points from 10**low to 10**high, evenly spaced in their logarithm."""
    return lambda points: np.logspace(low, high, points)


def _below_one(distance: np.ndarray) -> tuple[np.ndarray]:
    return (1.0 - distance,)


def _on_the_circle(angle: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    return np.sin(angle), np.cos(angle)


PANELS = [
    Panel(
        "Circular functions",
        "x",
        [Curve(f"tqx_{f}", f, even(0.0, 4 * pi)) for f in ("sin", "cos", "tan")],
    ),
    Panel(
        "Sine near zero",
        "|x|",
        [
            Curve("tqx_sin", "sin, x > 0", powers(-20, 0)),
            Curve("tqx_sin", "sin, x < 0", powers(-20, 0), lambda axis: (-axis,)),
        ],
        logarithmic=True,
    ),
    Panel(
        "Large arguments",
        "x",
        [Curve(f"tqx_{f}", f, powers(0, 17), relative=False) for f in ("sin", "cos")],
        logarithmic=True,
    ),
    Panel(
        "Arcsine and arccosine",
        "x",
        [Curve(f"tqx_{f}", f, even(-1.0, 1.0)) for f in ("asin", "acos")],
    ),
    Panel(
        "Arcsine, arccosine and arctangent below 1",
        "1 - x",
        [
            Curve(f"tqx_{f}", f, powers(-15, 0), _below_one, relative=False)
            for f in ("asin", "acos", "atan")
        ],
        logarithmic=True,
    ),
    Panel("Arctangent", "x", [Curve("tqx_atan", "atan", powers(-4, 4))], logarithmic=True),
    Panel(
        "Arctangent of two operands",
        "angle of (y, x)",
        [Curve("tqx_atan2", "atan2", even(-pi, pi), _on_the_circle, relative=False)],
    ),
    Panel(
        "Hyperbolic functions",
        "x",
        [Curve(f"tqx_{f}", f, even(0.0, 40.0)) for f in ("sinh", "cosh")],
    ),
]
# The rows of the table: narrower ranges, named in words.
RANGES = [
    ("0 to 3", Curve("tqx_sin", "", even(0.0, 3.0))),
    ("3 to 4", Curve("tqx_sin", "", even(3.0, 4.0))),
    ("-1e-3 to 0", Curve("tqx_sin", "", even(-1e-3, 0.0))),
    ("0 to 1.5", Curve("tqx_cos", "", even(0.0, 1.5))),
    ("1.5 to 1.7", Curve("tqx_cos", "", even(1.5, 1.7))),
    ("1e6 to 1e7", Curve("tqx_sin", "", powers(6, 7), relative=False)),
    ("1e15 to 1e16", Curve("tqx_sin", "", powers(15, 16), relative=False)),
    ("0 to 1.5", Curve("tqx_tan", "", even(0.0, 1.5))),
    ("0 to 0.5", Curve("tqx_asin", "", even(0.0, 0.5))),
    ("0.5 to 0.7", Curve("tqx_asin", "", even(0.5, 0.7))),
    ("0.7 to 0.9", Curve("tqx_asin", "", even(0.7, 0.9))),
    ("0.9 to 1", Curve("tqx_asin", "", even(0.9, 1.0))),
    ("0 to 0.5", Curve("tqx_acos", "", even(0.0, 0.5))),
    ("0.9 to 1", Curve("tqx_acos", "", even(0.9, 1.0), relative=False)),
    ("0 to 1e-4", Curve("tqx_atan", "", even(0.0, 1e-4))),
    ("0 to 0.01", Curve("tqx_atan", "", even(0.0, 0.01))),
    ("0.01 to 0.1", Curve("tqx_atan", "", even(0.01, 0.1))),
    ("0.1 to 1", Curve("tqx_atan", "", even(0.1, 1.0))),
    ("1 to 10", Curve("tqx_atan", "", even(1.0, 10.0))),
    ("1000 to 10000", Curve("tqx_atan", "", powers(3, 4))),
    ("whole circle", Curve("tqx_atan2", "", even(-pi, pi), _on_the_circle, relative=False)),
    ("0 to 8", Curve("tqx_sinh", "", even(0.0, 8.0))),
    ("8 to 12", Curve("tqx_sinh", "", even(8.0, 12.0))),
    ("12 to 20", Curve("tqx_sinh", "", even(12.0, 20.0))),
    ("0 to 8", Curve("tqx_cosh", "", even(0.0, 8.0))),
    ("8 to 12", Curve("tqx_cosh", "", even(8.0, 12.0))),
    ("12 to 20", Curve("tqx_cosh", "", even(12.0, 20.0))),
]
