#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The demonstration: the command `korvex` on real input with certified means, and on a device.

Three data sets of NIST and a million values made to defeat float sums go through `korvex sum`. Then
`korvex.tqx_runtime` sums the same values as tensors, on a GPU if there is one, else on the emulated
device, and has to find the same four limbs. The exit code is 1 if a known answer was not met.
"""

import argparse
import json
import os
import subprocess
import sys
import tempfile
from decimal import ROUND_HALF_EVEN, Context, Decimal
from fractions import Fraction
from pathlib import Path
from typing import Any

import numpy as np
from sum_device import SumDevice, choose_device

DATA_FOLDER = Path(__file__).resolve().parent / "data"

# As NIST certifies them, exact for the decimals in the files; see data/README.md.
CERTIFIED_MEANS = {
    "Michelso.txt": Decimal("299.8524"),
    "Lew.txt": Decimal("-177.435"),
    "NumAcc4.txt": Decimal("10000000.2"),
}
SHUFFLED, ASCENDING = "ill-conditioned-shuffled.npy", "ill-conditioned-ascending.npy"

_SEED = 1908
_COUNT = 1_000_000
_LEFT_OVER = (1.0, 2.0**-75)  # what remains when all else has cancelled
_ALL_DIGITS = Context(prec=2000)


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(prog="demo.py", description=__doc__)
    parser.add_argument("--digits", type=int, default=60, help="digits shown of a decimal (60)")
    parser.add_argument("--emulated", action="store_true", help="emulated device, GPU or not")
    options = parser.parse_args(arguments)
    device = choose_device(options.emulated)
    print(f"device: {device.description}\n", flush=True)
    with tempfile.TemporaryDirectory() as folder:
        paths = _write_sets(Path(folder))
        korvex(Path(folder), "sum", "--digits", str(options.digits), *paths)
        found = json.loads(korvex(Path(folder), "sum", "--json", *paths, shown=False))["results"]
        verdicts = [*_certified(found), *_ill_conditioned(found)]
        verdicts += _same_on_the_device(device, Path(folder), found)
    for text, is_met in verdicts:
        print(f"{text}: {'yes' if is_met else 'NO'}")
    return 0 if all(is_met for _, is_met in verdicts) else 1


def korvex(folder: Path, *arguments: str, shown: bool = True) -> str:
    """Runs the command in a folder, as a user does; its output where that is not shown."""
    if shown:
        print("$ korvex " + " ".join(arguments) + "\n", flush=True)
    run = subprocess.run(
        [sys.executable, "-P", "-m", "korvex", *arguments],
        cwd=folder,
        stdout=None if shown else subprocess.PIPE,
        text=True,
        check=True,
    )
    return run.stdout or ""


def _write_sets(folder: Path) -> list[str]:
    """All sets in one folder, by their names."""
    for name in CERTIFIED_MEANS:
        os.symlink(DATA_FOLDER / name, folder / name)
    values = ill_conditioned_values()
    np.save(folder / SHUFFLED, values)
    np.save(folder / ASCENDING, np.sort(values))
    return [*CERTIFIED_MEANS, SHUFFLED, ASCENDING]


def ill_conditioned_values() -> np.ndarray[Any, Any]:
    """A million float64 values over 121 binades that cancel but for _LEFT_OVER, shuffled.

    The raw output of the bit generator is used, as NumPy keeps it the same in every release.
    """
    draw = np.random.PCG64(_SEED).random_raw
    pairs = (_COUNT - len(_LEFT_OVER)) // 2
    significands = 1.0 + (draw(pairs) >> np.uint64(12)) * 2.0**-52
    exponents = (draw(pairs) % np.uint64(121)).astype(np.int64) - 60
    halves = np.ldexp(significands, exponents)
    values = np.concatenate([halves, -halves, _LEFT_OVER])
    return values[np.argsort(draw(values.size), kind="stable")]


# --- What must come out


Verdicts = list[tuple[str, bool]]


def _certified(found: list[dict[str, Any]]) -> Verdicts:
    means = {result["file"]: Decimal(result["exact_mean"]) for result in found}
    return [
        (
            f"{name}: mean {certified}, as certified, in every digit",
            means[name].quantize(certified, ROUND_HALF_EVEN, _ALL_DIGITS) == certified,
        )
        for name, certified in CERTIFIED_MEANS.items()
    ]


def _ill_conditioned(found: list[dict[str, Any]]) -> Verdicts:
    """Twice the same values: the order changes the float sums, and nothing of the exact one."""
    shuffled, ascending = (result for result in found if result["file"] in (SHUFFLED, ASCENDING))
    known = sum(map(Fraction, _LEFT_OVER), Fraction())
    return [
        ("ill-conditioned: the known sum 1 + 2**-75", Fraction(shuffled["exact_sum"]) == known),
        (
            "ill-conditioned: same sum and checksum in both orders",
            shuffled["exact_sum"] == ascending["exact_sum"]
            and shuffled["checksum"] == ascending["checksum"],
        ),
    ]


def _same_on_the_device(device: SumDevice, folder: Path, found: list[dict[str, Any]]) -> Verdicts:
    """Four limbs hold each of these sums, so both ways must find the same ones."""
    verdicts = []
    for result in found:
        path = folder / result["file"]
        values = np.load(path) if path.suffix == ".npy" else np.loadtxt(path)
        limbs = device.runtime.tqx_sum(device.tensor(values), return_tqx=True).limbs
        same = [repr(limb.item()) for limb in limbs] == result["limbs"]
        verdicts.append((f"{result['file']}: tqx_sum on the device has the same limbs", same))
    return verdicts


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
