#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Standard deviations of NIST's certified data sets: who gets how many digits, and why not more.

For each set in examples/data, the standard deviation (divisor n - 1) by several ways, each with its
log relative error, -log10(|value - reference| / |reference|), or "all" where there is none:

    certified    against the value that NIST certifies for the decimals in the file, 15 digits of it
    stored       against the exact value for the float64 values that the file was read into

The second is what arithmetic can be held to. Where the decimals of a file are not float64 values,
even the exact value of the stored ones differs from the certified one, and a note says by how much:
no arithmetic after the reading can win those digits back.
"""

import argparse
import math
import sys
from decimal import Decimal, localcontext
from fractions import Fraction
from pathlib import Path

import numpy as np
import torch

import korvex.emulation

if "--emulated" in sys.argv or not torch.cuda.is_available():
    korvex.emulation.activate()
import korvex.tqx_runtime as tqx

DATA_FOLDER = Path(__file__).resolve().parent / "data"

# As NIST certifies them.
CERTIFIED = {
    "Michelso.txt": Decimal("0.0790105478190518"),
    "Lew.txt": Decimal("277.332168044316"),
    "NumAcc4.txt": Decimal("0.1"),
}
CERTIFIED_DIGITS = 15  # of each, trailing zeros included
_WORKING_DIGITS = 60


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(
        prog="nist_deviation.py",
        description=__doc__,
        formatter_class=argparse.RawDescriptionHelpFormatter,
        allow_abbrev=False,
    )
    parser.add_argument("--emulated", action="store_true", help="run on the emulated device")
    parser.parse_args(arguments)
    print(device_line())
    for name, certified in CERTIFIED.items():
        show_set(name, certified)
    return 0


def device_line() -> str:
    kind = "emulated (no GPU, or --emulated)" if korvex.emulation.active_device() else "CUDA"
    info = tqx.get_backend_info()
    return f"device: {kind}: {info['device']}, {info['native_arch']}"


def show_set(name: str, certified: Decimal) -> None:
    numbers = (DATA_FOLDER / name).read_text().split()
    values = np.array([float(number) for number in numbers])
    stored = root(exact_variance(values))
    print(f"\n{name}: {values.size} values, certified {certified}")
    print(line("", "standard deviation", "certified", "stored"))
    for label, value in deviations(values).items():
        digits = lre_text(value, certified, CERTIFIED_DIGITS)
        print(line(label, f"{value:.18g}", digits, lre_text(value, stored, math.inf)))
    print(line("stored, exactly", f"{stored:.18g}", lre_text(stored, certified, CERTIFIED_DIGITS)))
    reachable = log_relative_error(stored, certified)
    if reachable < CERTIFIED_DIGITS - 1:
        print(f"  ! the stored float64 values are not the decimals: {reachable:.1f} digits is all")


def deviations(values: np.ndarray) -> dict[str, Decimal]:
    """By way; float64 results as the exact decimals that they are."""
    host = torch.from_numpy(values)
    x = host.to("cuda")
    count = values.size
    return {
        "tqx_std": Decimal(tqx.tqx_std(x).item()),
        "tqx_std_exact": tqx.tqx_std_exact(x),
        "numpy.std": Decimal(float(np.std(values, ddof=1))),
        "torch.std": Decimal(torch.std(host).item()),
        "sums of squares": Decimal(textbook_deviation(values, count)),
    }


def textbook_deviation(values: np.ndarray, count: int) -> float:
    """sqrt((sum(x^2) - sum(x)^2 / n) / (n - 1)) in float64: what not to do."""
    squares, total = float(np.sum(values * values)), float(np.sum(values))
    return math.sqrt(max(squares - total * total / count, 0.0) / (count - 1))


# --- Exact values


def exact_variance(values: np.ndarray) -> Fraction:
    numbers = [Fraction(value) for value in values.tolist()]
    mean = sum(numbers, Fraction()) / len(numbers)
    return sum(((number - mean) ** 2 for number in numbers), Fraction()) / (len(numbers) - 1)


def root(value: Fraction) -> Decimal:
    with localcontext(prec=_WORKING_DIGITS):
        return (Decimal(value.numerator) / Decimal(value.denominator)).sqrt()


def log_relative_error(value: Decimal, reference: Decimal) -> float:
    with localcontext(prec=_WORKING_DIGITS):
        error = abs(value - reference) / abs(reference)
        return -float(error.log10()) if error else math.inf


# --- Text


def lre_text(value: Decimal, reference: Decimal, most: float) -> str:
    error = min(log_relative_error(value, reference), most)
    return "all" if error >= _WORKING_DIGITS - 2 else f"{max(error, 0.0) + 0.0:.1f}"


def line(label: str, *cells: str) -> str:
    texts = [f"{label:<16}", *(f"{cell:>22}" for cell in cells[:1])]
    return "  ".join(["", *texts, *(f"{cell:>9}" for cell in cells[1:])]).rstrip()


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
