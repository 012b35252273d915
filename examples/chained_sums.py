#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Adds a thousand tensors one after the other through tqx_add, and shows what four limbs lose.

A sum of limb results keeps the rounding error of every addition in it as a limb, and four limbs at
most. The errors are not added to one another, so from the fourth addition on there is a fifth limb
to drop, about as large as the others: a long chain ends no nearer to the exact sum than a float64
sum that keeps no errors. tqx_sum of the same values is exact. Some elements are followed with
rational numbers. Printed for each set:

    limbs        how many the total has in the end
    first drop   the addition at which a followed element lost something for the first time
    drops        how many additions took something from a followed element
    loss         how far the total is off in the end, at worst, over the largest addend
    plain loss   the same of the float64 sum that keeps no errors
    nearest      for how many followed elements the chain, the plain sum and tqx_sum, each as one
                 float, are the nearest to the exact sum
"""

import argparse
import math
import os
import sys
from collections.abc import Iterator
from dataclasses import dataclass, field
from fractions import Fraction

import numpy as np
import torch

import korvex.emulation

if "--emulated" in sys.argv or not torch.cuda.is_available():
    korvex.emulation.activate()
import korvex.tqx_runtime as tqx

_SEED = 1971

# Name, the power of two up to which sizes are unlike, and whether all is taken back in the end.
SETS = [
    ("alike", 2, False),
    ("unlike", 60, False),
    ("very unlike", 300, False),
    ("unlike, taken back", 60, True),
]


def main(arguments: list[str]) -> int:
    options = _parse(arguments)
    print(device_line())
    print(f"{options.tensors} tensors of {options.values} values, {options.columns} followed\n")
    print(_line("", "limbs", "first drop", "drops", "loss", "plain loss", "nearest"))
    for name, spread, taken_back in SETS:
        tensors = list(tensors_of(spread, taken_back, options.tensors, options.values))
        chain = add_all(tensors, options.columns)
        print(_chain_line(name, chain), flush=True)
    return 0


def device_line() -> str:
    kind = "emulated (no GPU, or --emulated)" if korvex.emulation.active_device() else "CUDA"
    info = tqx.get_backend_info()
    return f"device: {kind}: {info['device']}, {info['native_arch']}"


def _parse(arguments: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="chained_sums.py",
        description=__doc__,
        formatter_class=argparse.RawDescriptionHelpFormatter,
        allow_abbrev=False,
    )
    add = parser.add_argument
    add("--tensors", type=_count, default=1000, help="tensors to add (1000)")
    add("--values", type=_count, default=10_000, help="values in a tensor (10000)")
    add("--columns", type=_count, default=16, help="elements followed exactly (16)")
    add("--emulated", action="store_true", help="run on the emulated device, GPU or not")
    return parser.parse_args(arguments)


def _count(text: str) -> int:
    count = int(text)
    if count < 1:
        raise argparse.ArgumentTypeError("at least 1")
    return count


def tensors_of(spread: int, taken_back: bool, tensors: int, values: int) -> Iterator[np.ndarray]:
    """Values of 53 random bits and either sign, from 2**-spread to 2**spread in size.

    Where all is taken back, the second half holds the negatives of the first in the same order, so
    that the exact sum is zero, or the middle tensor if there is one. The raw output of the bit
    generator is used, as NumPy keeps it the same in every release.
    """
    draw = np.random.PCG64(_SEED).random_raw
    fresh = (tensors + 1) // 2 if taken_back else tensors
    kept = []
    for _ in range(fresh):
        significands = 1.0 + (draw(values) >> np.uint64(12)) * 2.0**-52
        exponents = (draw(values) % np.uint64(2 * spread + 1)).astype(np.int64) - spread
        signs = np.where(draw(values) >> np.uint64(63), -1.0, 1.0)
        kept.append(signs * np.ldexp(significands, exponents))
        yield kept[-1]
    for tensor in kept[: tensors - fresh]:
        yield -tensor


@dataclass
class Chain:
    """What was found out about the followed elements of one chain of additions."""

    limb_count: int = 0
    drops: list[int] = field(default_factory=list)  # additions, counted from 1
    exact: list[Fraction] = field(default_factory=list)
    held: list[Fraction] = field(default_factory=list)
    floats: list[float] = field(default_factory=list)
    plain: list[float] = field(default_factory=list)
    summed: list[float] = field(default_factory=list)
    largest_addend: float = 0.0

    def loss(self) -> Fraction:
        return self._worst(self.held)

    def plain_loss(self) -> Fraction:
        return self._worst([Fraction(value) for value in self.plain])

    def _worst(self, sums: list[Fraction]) -> Fraction:
        worst = max(abs(a - b) for a, b in zip(sums, self.exact, strict=True))
        return worst / Fraction(self.largest_addend)

    def nearest(self, floats: list[float]) -> int:
        return sum(float(exact) == value for exact, value in zip(self.exact, floats, strict=True))


def add_all(tensors: list[np.ndarray], columns: int) -> Chain:
    """Adds in order, in limbs and in plain float64; so many evenly spaced columns are followed."""
    followed = np.linspace(0, tensors[0].size - 1, columns).astype(np.int64)
    first = on_device(tensors[0])
    total = tqx.TQXResult([first], str(first.device))
    chain = Chain(exact=_fractions(tensors[0][followed]))
    chain.held = chain.exact
    plain = tensors[0]
    for number, values in enumerate(tensors[1:], 1):
        addends = _fractions(values[followed])
        total = tqx.tqx_add(total, on_device(values), return_tqx=True)
        plain = plain + values
        due = [a + b for a, b in zip(chain.held, addends, strict=True)]
        chain.held = _held(total, followed)
        chain.exact = [a + b for a, b in zip(chain.exact, addends, strict=True)]
        if chain.held != due:
            chain.drops.append(number)
    chain.limb_count = total.n_limbs
    chain.floats = total.collapse().cpu().numpy()[followed].tolist()
    chain.plain = plain[followed].tolist()
    columns_of_values = np.stack([values[followed] for values in tensors], axis=1)
    chain.summed = [tqx.tqx_sum(on_device(column)).item() for column in columns_of_values]
    chain.largest_addend = max(float(np.abs(values[followed]).max()) for values in tensors)
    return chain


def on_device(values: np.ndarray) -> torch.Tensor:
    return torch.from_numpy(values).to("cuda")


def _fractions(values: np.ndarray) -> list[Fraction]:
    return [Fraction(value) for value in values.tolist()]


def _held(total: tqx.TQXResult, followed: np.ndarray) -> list[Fraction]:
    """The exact sum of the limbs, element by element."""
    rows = [limb.cpu().numpy()[followed].tolist() for limb in total.limbs]
    return [sum(map(Fraction, column), Fraction()) for column in zip(*rows, strict=True)]


def _chain_line(name: str, chain: Chain) -> str:
    count = len(chain.exact)
    kinds = (chain.floats, chain.plain, chain.summed)
    return _line(
        name,
        str(chain.limb_count),
        str(chain.drops[0]) if chain.drops else "none",
        str(len(chain.drops)),
        _power_text(chain.loss()),
        _power_text(chain.plain_loss()),
        " ".join(f"{chain.nearest(floats)}/{count}" for floats in kinds),
    )


def _power_text(ratio: Fraction) -> str:
    """A ratio as a power of two; nothing lost is "none"."""
    if ratio == 0:
        return "none"
    exponent = math.log2(ratio.numerator) - math.log2(ratio.denominator)
    return f"2^{exponent:.1f}"


def _line(*cells: str) -> str:
    widths = (20, 7, 12, 7, 10, 12, 20)
    name, *others = (cell.rjust(width) for cell, width in zip(cells, widths, strict=True))
    return "".join([name.strip().ljust(widths[0]), *others]).rstrip()


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except BrokenPipeError:  # the reader of our output has gone, as `head` does
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        sys.exit(1)
