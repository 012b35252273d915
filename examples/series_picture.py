# SPDX-License-Identifier: Apache-2.0
"""Draws the curves of series_errors.py with matplotlib, into a file and without a window."""

from pathlib import Path

import matplotlib

matplotlib.use("Agg")

from matplotlib import pyplot  # noqa: E402
from matplotlib.axes import Axes  # noqa: E402
from series_curves import PANELS, Panel  # noqa: E402
from sum_device import SumDevice  # noqa: E402

UNIT = 2.0**-53  # the largest relative error of a correctly rounded result
_FLOOR = 1e-18  # an error of nothing is drawn here: its logarithm has no place
_COLOURS = ("#1f6feb", "#d1570a", "#2a8f4c")


def draw(device: SumDevice, path: Path, points: int) -> None:
    figure, grid = pyplot.subplots(4, 2, figsize=(11, 14.5), layout="constrained")
    for axes, panel in zip(grid.flat, PANELS, strict=True):
        _draw_panel(axes, panel, device, points)
    figure.suptitle("Errors of the series functions against MPFR (dashed: $2^{-53}$)", fontsize=14)
    figure.savefig(path, dpi=100, metadata={"Software": None})
    pyplot.close(figure)


def _draw_panel(axes: Axes, panel: Panel, device: SumDevice, points: int) -> None:
    for curve, colour in zip(panel.curves, _COLOURS, strict=False):
        axis, errors = curve.errors(device, points)
        axes.plot(axis, errors.clip(_FLOOR), ".", markersize=2.5, color=colour, label=curve.label)
    axes.axhline(UNIT, color="#666666", linewidth=0.8, linestyle="--")
    axes.set_yscale("log")
    axes.set_ylim(_FLOOR / 2, 1e4)
    if panel.logarithmic:
        axes.set_xscale("log")
    axes.set_title(panel.title, fontsize=11)
    axes.set_xlabel(panel.axis_label)
    axes.set_ylabel(panel.error_label)
    axes.grid(True, linewidth=0.3, color="#bbbbbb")
    axes.legend(loc="upper left", ncols=3, markerscale=4, fontsize=9, framealpha=0.9)
