#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Shows where the series functions serve and where not: their errors against MPFR.

Prints a table of the largest errors, range by range. MPFR (by gmpy2) gives the true value for the
float64 argument with 200 bits, and an error is rounded to a float once, at the end.
"""

import argparse
import sys
from collections.abc import Callable
from math import pi
from typing import Any

import gmpy2
import numpy as np
import torch

import korvex.emulation

if "--emulated" in sys.argv or not torch.cuda.is_available():
    korvex.emulation.activate()
import korvex.tqx_runtime as tqx

# So many arguments of a range, as the operands of a function.
Operands = Callable[[int], list[np.ndarray]]


def even(low: float, high: float) -> Operands:
    """Evenly spaced points between the ends, without them."""
    return lambda points: [np.linspace(low, high, points + 2)[1:-1]]


def powers(low: float, high: float) -> Operands:
    """Points from 10**low to 10**high, evenly spaced in their logarithm."""
    return lambda points: [np.logspace(low, high, points)]


def on_the_circle(points: int) -> list[np.ndarray]:
    [angle] = even(-pi, pi)(points)
    return [np.sin(angle), np.cos(angle)]


# Function, range in words, its arguments, and whether the error is relative.
RANGES: list[tuple[str, str, Operands, bool]] = [
    ("tqx_sin", "0 to 3", even(0.0, 3.0), True),
    ("tqx_sin", "3 to 4", even(3.0, 4.0), True),
    ("tqx_sin", "-1e-3 to 0", even(-1e-3, 0.0), True),
    ("tqx_cos", "0 to 1.5", even(0.0, 1.5), True),
    ("tqx_cos", "1.5 to 1.7", even(1.5, 1.7), True),
    ("tqx_sin", "1e6 to 1e7", powers(6, 7), False),
    ("tqx_sin", "1e15 to 1e16", powers(15, 16), False),
    ("tqx_tan", "0 to 1.5", even(0.0, 1.5), True),
    ("tqx_asin", "0 to 0.5", even(0.0, 0.5), True),
    ("tqx_asin", "0.5 to 0.7", even(0.5, 0.7), True),
    ("tqx_asin", "0.7 to 0.9", even(0.7, 0.9), True),
    ("tqx_asin", "0.9 to 1", even(0.9, 1.0), True),
    ("tqx_acos", "0 to 0.5", even(0.0, 0.5), True),
    ("tqx_acos", "0.9 to 1", even(0.9, 1.0), False),
    ("tqx_atan", "0 to 1e-4", even(0.0, 1e-4), True),
    ("tqx_atan", "0 to 0.01", even(0.0, 0.01), True),
    ("tqx_atan", "0.01 to 0.1", even(0.01, 0.1), True),
    ("tqx_atan", "0.1 to 1", even(0.1, 1.0), True),
    ("tqx_atan", "1 to 10", even(1.0, 10.0), True),
    ("tqx_atan", "1000 to 10000", powers(3, 4), True),
    ("tqx_atan2", "whole circle", on_the_circle, False),
    ("tqx_sinh", "0 to 8", even(0.0, 8.0), True),
    ("tqx_sinh", "8 to 12", even(8.0, 12.0), True),
    ("tqx_sinh", "12 to 20", even(12.0, 20.0), True),
    ("tqx_cosh", "0 to 8", even(0.0, 8.0), True),
    ("tqx_cosh", "8 to 12", even(8.0, 12.0), True),
    ("tqx_cosh", "12 to 20", even(12.0, 20.0), True),
]


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(
        prog="series_errors.py", description=__doc__, allow_abbrev=False
    )
    add = parser.add_argument
    add("--points", type=point_count, default=1000, help="arguments tried in a range (1000)")
    add("--emulated", action="store_true", help="run on the emulated device, GPU or not")
    points = parser.parse_args(arguments).points
    print(device_line() + "\n", flush=True)
    print("| function | range | largest error | correct digits |")
    print("|---|---|---|---|")
    for name, words, operands, relative in RANGES:
        largest = largest_error(name, operands(points), relative)
        kind = "" if relative else " absolute"
        digits = next((k for k in range(16, 0, -1) if largest <= 0.5 * 10.0**-k), 0)
        print(f"| `{name}` | {words} | {rounded_up(largest)}{kind} | {digits} |", flush=True)
    return 0


def point_count(text: str) -> int:
    count = int(text)
    if count < 2:
        raise argparse.ArgumentTypeError("at least 2 arguments are tried")
    return count


def device_line() -> str:
    kind = "emulated (no GPU, or --emulated)" if korvex.emulation.active_device() else "CUDA"
    info = tqx.get_backend_info()
    return f"device: {kind}: {info['device']}, {info['native_arch']}"


def largest_error(name: str, operands: list[np.ndarray], relative: bool) -> float:
    function = getattr(tqx, name)
    results = function(*(torch.from_numpy(values).to("cuda") for values in operands)).tolist()
    true = getattr(gmpy2, name.removeprefix("tqx_"))
    with gmpy2.context(precision=200):
        return max(
            error(result, true(*map(gmpy2.mpfr, point)), relative)
            for result, *point in zip(results, *(o.tolist() for o in operands), strict=True)
        )


def error(result: float, true: Any, relative: bool) -> float:
    difference = abs(gmpy2.mpfr(result) - true)
    return float(difference / abs(true) if relative and true != 0 else difference)


def rounded_up(largest: float) -> str:
    """In one digit, as 8e-02."""
    digit, exponent = f"{largest:.3e}".split("e")
    whole = -int(-float(digit) // 1)
    return f"{whole / 10 if whole == 10 else whole:.0f}e{int(exponent) + (whole == 10):+03d}"


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
