#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Shows where the series functions serve and where not: their errors against MPFR.

Prints a table of the largest errors, range by range, and with --picture draws the errors over the
whole ranges. Needs gmpy2, and matplotlib for the picture.
"""

import argparse
import sys
from pathlib import Path

from series_curves import RANGES, Curve
from sum_device import SumDevice, choose_device


def main(arguments: list[str]) -> int:
    options = _parse(arguments)
    device = choose_device(options.emulated)
    print(f"device: {device.description}\n", flush=True)
    print("| function | range | largest error | correct digits |")
    print("|---|---|---|---|")
    for words, curve in RANGES:
        print(table_row(device, words, curve, options.points), flush=True)
    if options.picture:
        from series_picture import draw  # needs matplotlib

        draw(device, options.picture, options.points)
        print(f"\npicture: {options.picture}")
    return 0


def _parse(arguments: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="series_errors.py", description=__doc__)
    add = parser.add_argument
    add("--points", type=_point_count, default=1000, help="arguments tried in a range (1000)")
    add("--picture", type=Path, metavar="FILE.png", help="draw the errors into a file")
    add("--emulated", action="store_true", help="run on the emulated device, GPU or not")
    return parser.parse_args(arguments)


def _point_count(text: str) -> int:
    count = int(text)
    if count < 2:
        raise argparse.ArgumentTypeError("at least 2 arguments are tried")
    return count


def table_row(device: SumDevice, words: str, curve: Curve, points: int) -> str:
    """The largest error of a range, in one digit that is rounded up."""
    _, errors = curve.errors(device, points)
    largest = float(errors.max())
    kind = "" if curve.relative else " absolute"
    digits = next((k for k in range(16, 0, -1) if largest <= 0.5 * 10.0**-k), 0)
    return f"| `{curve.function}` | {words} | {_rounded_up(largest)}{kind} | {digits} |"


def _rounded_up(error: float) -> str:
    digit, exponent = f"{error:.3e}".split("e")
    whole = -int(-float(digit) // 1)
    return f"{whole / 10 if whole == 10 else whole:.0f}e{int(exponent) + (whole == 10):+03d}"


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
