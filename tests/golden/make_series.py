# SPDX-License-Identifier: Apache-2.0
"""Golden digests of the series functions. Run it to write series.json: python make_series.py

The reference does the same operations once more on numpy's float64, which rounds each of them once
(IEEE 754), and reads no error of a product. A tensor divided by a Python number is multiplied by
the number's rounded reciprocal, as torch does on CUDA: cases where a quotient of that kind is
inexact say so in their names.
"""

import functools
import math

import numpy as np

from korvex_tools.verify import golden
from korvex_tools.verify.golden import Case

REFERENCE = (
    "the same operations on numpy float64, one IEEE rounding each; division of a tensor by a number"
    " as on CUDA: times the rounded reciprocal"
)
BY_RECIPROCAL = " (divides by numbers as on CUDA)"
TWO_PI = 2 * math.pi


# ---- the operations ----


def reference(function):
    """Lists in, a list out; infinities and NaN flow through as in IEEE arithmetic."""

    def run(*operands):
        with np.errstate(all="ignore"):
            arrays = [np.array(o, dtype=np.float64) for o in operands]
            return function(*arrays).tolist()

    return run


def divided_by_number(dividend, number):
    return dividend * (np.float64(1.0) / np.float64(number))


def add_term(result, error, term):
    s = result + term
    v = s - result
    e = (result - (s - v)) + (term - v)
    return s, error + e


def reduced(x):
    """The remainder with the sign of the divisor, then the upper half turned down."""
    remainder = np.fmod(x, TWO_PI)
    remainder = np.where((remainder != 0) & (remainder < 0), remainder + TWO_PI, remainder)
    return np.where(remainder > math.pi, remainder - TWO_PI, remainder)


def sin(x, n_terms=20):
    x = reduced(x)
    x_squared, term = x * x, x
    result, error = np.zeros_like(x), np.zeros_like(x)
    for n in range(n_terms):
        result, error = add_term(result, error, term)
        term = -(term * x_squared) / np.float64((2 * n + 2) * (2 * n + 3))
    return result + error


def cos(x, n_terms=20):
    x = reduced(x)
    x_squared = x * x
    term = -x_squared / 2.0
    result, error = np.ones_like(x), np.zeros_like(x)
    for n in range(1, n_terms):
        result, error = add_term(result, error, term)
        term = -(term * x_squared) / np.float64((2 * n + 1) * (2 * n + 2))
    return result + error


def tan(x):
    return sin(x) / cos(x)


def asin(x, n_terms=25):
    x_squared, term = x * x, x
    result, error = x, np.zeros_like(x)
    for n in range(1, n_terms):
        scaled = (term * x_squared) * np.float64((2 * n - 1) ** 2)
        term = divided_by_number(scaled, 2 * n * (2 * n + 1))
        result, error = add_term(result, error, term)
    return result + error


def acos(x):
    return math.pi / 2 - asin(x)


def atan(x, n_terms=30):
    large = np.abs(x) > 1
    argument = np.where(large, 1.0 / x, x)
    result, error, term = argument, np.zeros_like(x), argument
    minus_squared = -(argument * argument)
    for n in range(1, n_terms):
        term = (term * minus_squared) / np.float64(2 * n + 1)
        result, error = add_term(result, error, term)
    final = result + error
    final = np.where(large & (x > 0), math.pi / 2 - final, final)
    return np.where(large & (x < 0), -math.pi / 2 - final, final)


def atan2(y, x):
    base = atan(y / x)
    result = np.where((x < 0) & (y >= 0), base + math.pi, base)
    result = np.where((x < 0) & (y < 0), base - math.pi, result)
    result = np.where((x == 0) & (y > 0), math.pi / 2, result)
    result = np.where((x == 0) & (y < 0), -math.pi / 2, result)
    return np.where((x == 0) & (y == 0), 0.0, result)


def sinh(x, n_terms=20):
    x_squared, term = x * x, x
    result, error = x, np.zeros_like(x)
    for n in range(1, n_terms):
        term = (term * x_squared) / np.float64(2 * n * (2 * n + 1))
        result, error = add_term(result, error, term)
    return result + error


def cosh(x, n_terms=20):
    x_squared = x * x
    term = x_squared / 2.0
    result, error = np.ones_like(x), np.zeros_like(x)
    for n in range(1, n_terms):
        result, error = add_term(result, error, term)
        term = (term * x_squared) / np.float64((2 * n + 1) * (2 * n + 2))
    return result + error


# ---- the cases ----

WITH_TERMS = {"tqx_sin": sin, "tqx_cos": cos, "tqx_asin": asin, "tqx_atan": atan}
WITH_TERMS |= {"tqx_sinh": sinh, "tqx_cosh": cosh}
ONE_OPERAND = WITH_TERMS | {"tqx_tan": tan, "tqx_acos": acos}

OPERANDS = {
    "unit interval": lambda: golden.uniform("series", 2000),
    "to twenty": lambda: [20.0 * v for v in golden.uniform("wider", 2000)],
    "wide": lambda: golden.wide("series", 1000),
    "any bits": lambda: golden.patterns("series", 1000),
    "near one": lambda: [s * (1.0 + k * 2.0**-53) for k in range(-8, 9) for s in (1.0, -1.0)],
    "multiples of pi": lambda: [k * (math.pi / 4) for k in range(-40, 41)],
    "special": lambda: golden.SPECIAL,
    "nothing": list,
}
PAIRS = {
    "unit square": lambda: (golden.uniform("y", 2000), golden.uniform("x", 2000)),
    "small integers": lambda: (golden.integers("y", 500, -3, 3), golden.integers("x", 500, -3, 3)),
    "wide": lambda: (golden.wide("y", 1000), golden.wide("x", 1000)),
    "special": golden.special_pairs,
}


def mark(name):
    return BY_RECIPROCAL if name in ("tqx_asin", "tqx_acos") else ""


def _of_one_operand():
    for name, expected in ONE_OPERAND.items():
        for kind, inputs in OPERANDS.items():
            yield Case(
                f"{name}, {kind}{mark(name)}",
                lambda inputs=inputs: (inputs(),),
                reference(expected),
                lambda m, x, name=name: getattr(m, name)(x),
            )


def _of_other_term_counts():
    for name, expected in WITH_TERMS.items():
        for n_terms in (0, 1, 2, 5, 60):
            yield Case(
                f"{name} of {n_terms} terms{mark(name)}",
                lambda: (golden.uniform("terms", 200),),
                reference(functools.partial(expected, n_terms=n_terms)),
                lambda m, x, name=name, n_terms=n_terms: getattr(m, name)(x, n_terms),
            )


def _of_two_operands():
    for kind, inputs in PAIRS.items():
        yield Case(
            f"tqx_atan2, {kind}",
            inputs,
            reference(atan2),
            lambda m, y, x: m.tqx_atan2(y, x),
        )


CASES = [*_of_one_operand(), *_of_other_term_counts(), *_of_two_operands()]

if __name__ == "__main__":
    golden.write(__file__, CASES, REFERENCE)
