# SPDX-License-Identifier: Apache-2.0
"""Draws the errors of the series functions over their ranges, the picture of docs/series.md.

On the emulated device, against MPFR (by gmpy2): it gives the true value for the float64 argument
with 200 bits, the error of a result is taken in that precision and rounded to a float at the end.
"""

import argparse
from collections.abc import Callable
from dataclasses import dataclass
from math import pi
from pathlib import Path
from typing import Any

import gmpy2
import matplotlib
import numpy as np
import torch

from korvex import emulation
from korvex_tools.figures import svg
from korvex_tools.source_tree import SOURCE_TREE

matplotlib.use("Agg")

from matplotlib import pyplot  # noqa: E402
from matplotlib.axes import Axes  # noqa: E402

UNIT = 2.0**-53  # the largest relative error of a correctly rounded result
_FLOOR = 1e-18  # an error of nothing is drawn here: its logarithm has no place
_COLOURS = (svg.LIGHT["c4"], svg.LIGHT["c1"], svg.LIGHT["c5"])


@dataclass(frozen=True)
class Curve:
    """One function over one range. A point of the axis is turned into operands by `operands`."""

    function: str
    label: str
    axis: Callable[[int], np.ndarray]
    operands: Callable[[np.ndarray], tuple[np.ndarray, ...]] = lambda axis: (axis,)
    relative: bool = True

    def errors(self, tqx: Any, points: int) -> tuple[np.ndarray, np.ndarray]:
        """The points of the axis and the error at each."""
        axis = self.axis(points)
        operands = self.operands(axis)
        function = getattr(tqx, self.function)
        results = function(*(torch.from_numpy(o).to("cuda") for o in operands)).cpu().numpy()
        true = getattr(gmpy2, self.function.removeprefix("tqx_"))
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


def draw(tqx: Any, path: Path, points: int) -> None:
    matplotlib.rcParams.update(svg.SETTINGS)
    figure, grid = pyplot.subplots(4, 2, figsize=(11, 14.5), layout="constrained")
    for axes, panel in zip(grid.flat, PANELS, strict=True):
        _draw_panel(axes, panel, tqx, points)
    title = "Errors of the series functions against MPFR"
    figure.suptitle(f"{title} (dashed: $2^{{-53}}$)", fontsize=14)
    svg.save(figure, path, title)
    pyplot.close(figure)


def _draw_panel(axes: Axes, panel: Panel, tqx: Any, points: int) -> None:
    for curve, colour in zip(panel.curves, _COLOURS, strict=False):
        axis, errors = curve.errors(tqx, points)
        marks = axes.plot(axis, errors.clip(_FLOOR), ".", color=colour, label=curve.label)
        marks[0].set(markersize=2.5, rasterized=True)  # a mark for each point is a large file
    axes.axhline(UNIT, color=svg.INK, linewidth=0.8, linestyle="--")
    axes.set_yscale("log")
    axes.set_ylim(_FLOOR / 2, 1e4)
    if panel.logarithmic:
        axes.set_xscale("log")
    axes.set_title(panel.title, fontsize=11)
    axes.set_xlabel(panel.axis_label)
    axes.set_ylabel(panel.error_label)
    axes.grid(True, linewidth=0.5)
    axes.legend(loc="upper left", ncols=3, markerscale=4, fontsize=9, framealpha=0.9)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--points", type=int, default=1000, help="points of a curve (1000)")
    parser.add_argument(
        "--output", type=Path, default=SOURCE_TREE / "docs" / "series_errors.svg", help="SVG file"
    )
    options = parser.parse_args()
    emulation.activate()
    from korvex import tqx_runtime

    draw(tqx_runtime, options.output, options.points)


if __name__ == "__main__":
    main()
