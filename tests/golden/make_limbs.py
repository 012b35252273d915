# SPDX-License-Identifier: Apache-2.0
"""Golden digests of limb results. Run it to write limbs.json: python make_limbs.py"""

import math

from korvex_tools.references import exact_arithmetic as exact
from korvex_tools.verify import golden
from korvex_tools.verify.golden import Case

REFERENCE = "Python's own floats for the steps of a collapse; whole numbers for decimals"


# ---- collapse ----


def collapsed(*limbs):
    """Every place of the limbs as one double: a TwoSum a limb, errors added up apart."""

    def one(first, *rest):
        result, carry = first, 0.0
        for limb in rest:
            s = result + limb
            v = s - result
            carry = carry + ((result - (s - v)) + (limb - v))
            result = s
        return result + carry

    return [one(*place) for place in zip(*limbs, strict=True)]


def collapse(module, *limbs):
    return module.TQXResult(list(limbs)).collapse()


def canonical(count):
    """Limbs of sums of 60 doubles each."""
    sums = golden.rows(golden.wide("limbs", 60 * 200, -300, 300), 60)
    return tuple(map(list, zip(*(exact.sum_limbs(s, count) for s in sums), strict=True)))


LIMBS = {
    "two canonical": lambda: canonical(2),
    "four canonical": lambda: canonical(4),
    "five in any order": lambda: tuple(golden.wide(f"limb {i}", 500) for i in range(5)),
    "two, any bits": lambda: (golden.patterns("a", 500, False), golden.patterns("b", 500, False)),
    "two, special": golden.special_pairs,
    "three, special": lambda: (*golden.special_pairs(), [1.0] * len(golden.SPECIAL) ** 2),
    "next to a midpoint": lambda: ([1.0 + 2.0**-52], [2.0**-53], [-(2.0**-200)]),
}


def _collapses():
    for kind, inputs in LIMBS.items():
        yield Case(f"collapse, {kind}", inputs, collapsed, collapse)


# ---- decimals ----


def decimals(*limbs):
    return [exact.decimal_of_limbs(place) for place in zip(*limbs, strict=True)]


def to_decimals(module, *limbs):
    result = module.TQXResult(list(limbs))
    return [result.to_decimal((i,)) for i in range(limbs[0].numel())]


def single_decimals(values):
    return list(map(exact.stated_value, values))


def _decimals():
    for kind in ("two canonical", "four canonical"):
        yield Case(f"to_decimal, {kind}", LIMBS[kind], decimals, to_decimals)
    ends = [1e308, 1e308, 5e-324], [5e-324, 2.0**-1022, 1.0], [1.0, -1.0, math.inf]
    yield Case("to_decimal, more than 1000 digits", lambda: ends, decimals, to_decimals)
    for kind, inputs in {
        "any bits": lambda: (golden.patterns("decimal", 300, False),),
        "special": lambda: (golden.SPECIAL,),
        "powers of two": lambda: ([math.ldexp(1.0, k) for k in range(-1074, 1024, 41)],),
    }.items():
        yield Case(
            f"_fp64_to_decimal, {kind}",
            inputs,
            single_decimals,
            lambda m, x: [m.TQXResult._fp64_to_decimal(value) for value in x.tolist()],
        )


CASES = [*_collapses(), *_decimals()]

if __name__ == "__main__":
    golden.write(__file__, CASES, REFERENCE)
