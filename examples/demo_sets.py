# SPDX-License-Identifier: Apache-2.0
"""The demonstration: real input with certified means, and values made to defeat float sums."""

from decimal import Decimal
from fractions import Fraction
from pathlib import Path

import numpy as np
from exact_figures import decimal_text, exact_decimal, figures_of, mean_decimal
from figures_text import figures_text, row
from sum_device import SumDevice
from value_files import read_values

DATA_FOLDER = Path(__file__).resolve().parent / "data"

# As NIST certifies them, exact for the decimals in the files; see data/README.md.
CERTIFIED_MEANS = {
    "Michelso.txt": Decimal("299.8524"),
    "Lew.txt": Decimal("-177.435"),
    "NumAcc4.txt": Decimal("10000000.2"),
}

_ILL_CONDITIONED_SEED = 1908
_ILL_CONDITIONED_COUNT = 1_000_000
_LEFT_OVER = (1.0, 2.0**-75)  # what remains when all else has cancelled


def run_demo(device: SumDevice, digits: int) -> bool:
    """Prints all sets; whether every known answer was met."""
    agreed = [_show_certified(device, name, digits) for name in CERTIFIED_MEANS]
    return all([*agreed, _show_ill_conditioned(device, digits)])


def _show_certified(device: SumDevice, name: str, digits: int) -> bool:
    certified = CERTIFIED_MEANS[name]
    figures = figures_of(device, read_values(str(DATA_FOLDER / name)))
    mean = mean_decimal(figures.exact_mean)
    agrees = mean.quantize(certified) == certified
    verdict = "agrees in every digit" if agrees else "DIFFERS"
    print(figures_text(name, figures, digits))
    print(row("certified mean", f"{certified}   {verdict}\n"))
    return agrees


def ill_conditioned_values() -> np.ndarray:
    """A million float64 values over 121 binades that cancel but for _LEFT_OVER, shuffled.

    The raw output of the bit generator is used, as NumPy keeps it the same in every release.
    """
    draw = np.random.PCG64(_ILL_CONDITIONED_SEED).random_raw
    pairs = (_ILL_CONDITIONED_COUNT - len(_LEFT_OVER)) // 2
    significands = 1.0 + (draw(pairs) >> np.uint64(12)) * 2.0**-52
    exponents = (draw(pairs) % np.uint64(121)).astype(np.int64) - 60
    halves = np.ldexp(significands, exponents)
    values = np.concatenate([halves, -halves, _LEFT_OVER])
    return values[np.argsort(draw(values.size), kind="stable")]


def _show_ill_conditioned(device: SumDevice, digits: int) -> bool:
    """Twice the same values: the order changes the float sums, and nothing of the exact one."""
    values = ill_conditioned_values()
    known = sum(map(Fraction, _LEFT_OVER), Fraction())
    shuffled = figures_of(device, values)
    ascending = figures_of(device, np.sort(values))
    print(figures_text("ill-conditioned, shuffled", shuffled, digits))
    print(row("known sum", decimal_text(exact_decimal(known), digits) + "\n"))
    print(figures_text("ill-conditioned, ascending", ascending, digits))
    same = shuffled.limbs == ascending.limbs and shuffled.checksum == ascending.checksum
    agrees = same and shuffled.is_finite and shuffled.exact_total == known
    print(row("both orders", "the known sum, same checksum" if agrees else "DIFFER"))
    return agrees
