#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Shows what each pass of tqx_solve gains: its errors against exact rational solutions.

Prints a table of the largest errors, condition number by condition number.
"""

import argparse
import math
import random
import sys
from fractions import Fraction

import torch

import korvex.emulation

if "--emulated" in sys.argv or not torch.cuda.is_available():
    korvex.emulation.activate()
import korvex.tqx_runtime as tqx

SIZE = 10
EXPONENTS = (2, 4, 6, 8, 10, 12, 14, 16)
PASSES = (0, 1, 2, 3, 4, 5, 6)

Matrix = list[list[Fraction]]


def main(arguments: list[str]) -> int:
    options = _parse(arguments)
    print(device_line() + "\n", flush=True)
    print("| condition | `torch.linalg.solve` |" + "".join(f" {n} |" for n in PASSES))
    print("|---" * (len(PASSES) + 2) + "|")
    for exponent in EXPONENTS:
        errors = largest_errors(exponent, options.systems)
        cells = "".join(f" {_shown(error)} |" for error in errors)
        print(f"| 1e{exponent} |{cells}", flush=True)
    return 0


def device_line() -> str:
    kind = "emulated (no GPU, or --emulated)" if korvex.emulation.active_device() else "CUDA"
    info = tqx.get_backend_info()
    return f"device: {kind}: {info['device']}, {info['native_arch']}"


def _parse(arguments: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="refined_solves.py", description=__doc__, allow_abbrev=False
    )
    add = parser.add_argument
    add("--systems", type=_positive, default=10, help="systems for each condition number (10)")
    add("--emulated", action="store_true", help="run on the emulated device, GPU or not")
    return parser.parse_args(arguments)


def _positive(text: str) -> int:
    count = int(text)
    if count < 1:
        raise argparse.ArgumentTypeError("at least one system is tried")
    return count


def _shown(error: float) -> str:
    return f"{error:.2f}" if error < 100 else f"{error:.0e}"


# --- Errors


def largest_errors(exponent: int, systems: int) -> list[float]:
    """Of torch's solution, then of tqx_solve with more and more passes, in ulps."""
    worst = [0.0] * (len(PASSES) + 1)
    for number in range(systems):
        matrix, right = system(exponent, number)
        a, b = (torch.tensor(v, dtype=torch.float64, device="cuda") for v in (matrix, right))
        exact = solve_exactly(matrix, right)
        results = [torch.linalg.solve(a, b)]
        results += [tqx.tqx_solve(a, b, max_iter=passes) for passes in PASSES]
        errors = [error_in_ulps(result.tolist(), exact) for result in results]
        worst = [max(pair) for pair in zip(worst, errors, strict=True)]
    return worst


def error_in_ulps(result: list[float], exact: list[Fraction]) -> float:
    """The largest error of an element, in ulps of the largest element."""
    largest = max(abs(value) for value in exact)
    error = max(abs(Fraction(r) - e) for r, e in zip(result, exact, strict=True))
    return float(error / Fraction(math.ulp(float(largest))))


# --- Systems, the same on every machine: whole numbers, fractions and one rounding an element


def system(exponent: int, number: int) -> tuple[list[list[float]], list[float]]:
    """A dense matrix of that condition number, rounded to doubles, and a right-hand side."""
    source = random.Random(f"{exponent} {number}")
    left, right = reflection(source), reflection(source)
    values = [Fraction(10.0 ** (-exponent * i / (SIZE - 1))) for i in range(SIZE)]
    scaled = [[v * s for v, s in zip(row, values, strict=True)] for row in left]
    matrix = [[float(v) for v in row] for row in product(scaled, right)]
    return matrix, [float(source.randint(-99, 99)) for _ in range(SIZE)]


def reflection(source: random.Random) -> Matrix:
    """I - 2 v v' / v'v (Householder 1958), orthogonal without any rounding."""
    v = [source.choice((-1, 1)) * source.randint(1, 9) for _ in range(SIZE)]
    length = sum(x * x for x in v)
    return [
        [Fraction(int(i == j)) - Fraction(2 * v[i] * v[j], length) for j in range(SIZE)]
        for i in range(SIZE)
    ]


def product(a: Matrix, b: Matrix) -> Matrix:
    columns = list(zip(*b, strict=True))
    return [
        [sum(map(Fraction.__mul__, row, column), Fraction(0)) for column in columns] for row in a
    ]


def solve_exactly(matrix: list[list[float]], right: list[float]) -> list[Fraction]:
    """By elimination on fractions; any pivot that is not 0 serves."""
    rows = [[*map(Fraction, row), Fraction(b)] for row, b in zip(matrix, right, strict=True)]
    for k in range(SIZE):
        pivot = next(i for i in range(k, SIZE) if rows[i][k] != 0)
        rows[k], rows[pivot] = rows[pivot], rows[k]
        for i in range(k + 1, SIZE):
            factor = rows[i][k] / rows[k][k]
            rows[i] = [a - factor * b for a, b in zip(rows[i], rows[k], strict=True)]
    solution = [Fraction(0)] * SIZE
    for k in reversed(range(SIZE)):
        known = sum(rows[k][j] * solution[j] for j in range(k + 1, SIZE))
        solution[k] = (rows[k][SIZE] - known) / rows[k][k]
    return solution


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
