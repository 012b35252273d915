# SPDX-License-Identifier: Apache-2.0
"""Golden digests of the unary functions, of rounding and comparison, and of rms_norm.

Run it to write elementwise.json: python make_elementwise.py
"""

import math
import operator

from korvex_tools.references import elementary_reference as elementary
from korvex_tools.references import exact_rms_norm
from korvex_tools.verify import golden
from korvex_tools.verify.golden import Case

REFERENCE = (
    "MPFR for exp, log, sqrt, sigmoid and tanh; whole numbers for rms_norm; Python's own floats "
    "for the rest"
)

ARGUMENTS = {
    "uniform": lambda: (golden.uniform("one x", 3000),),
    "wide": lambda: (golden.wide("one wide x", 3000, -70, 12),),
    "positive": lambda: (list(map(abs, golden.wide("positive x", 3000, -1074, 1023))),),
    "any bits": lambda: (golden.patterns("one bits", 2000, finite=False),),
    "integers": lambda: (golden.integers("one int", 2000, -800, 800),),
    "special": lambda: (golden.SPECIAL,),
}


def each(function):
    return lambda x: [function(value) for value in x]


def relu(x):
    return x if math.isnan(x) or x > 0 else 0.0


def leaky(x, slope=0.01):
    return x if x > 0 else slope * x


UNARY = {f"tqx_{name}": reference for name, reference in elementary.REFERENCE.items()} | {
    "tqx_relu": each(relu),
    "tqx_neg": each(operator.neg),
    "tqx_leaky_relu": each(leaky),
    "tqx_abs": each(abs),
}


def _unary():
    for name, reference in UNARY.items():
        for kind, inputs in ARGUMENTS.items():
            yield Case(
                f"{name}, {kind}",
                inputs,
                reference,
                lambda module, x, name=name: getattr(module, name)(x),
            )


def whole(function):
    """A rounding of the math module, which keeps no sign of zero, on any double."""

    def rounded(x):
        if not math.isfinite(x) or abs(x) >= 2.0**52:
            return x
        return math.copysign(float(function(x)), x)

    return each(rounded)


ROUNDING = {"floor": math.floor, "ceil": math.ceil, "round": round, "trunc": math.trunc}


def _rounding():
    for name, function in ROUNDING.items():
        for kind in ("wide", "any bits", "special"):
            yield Case(
                f"tqx_{name}, {kind}",
                ARGUMENTS[kind],
                whole(function),
                lambda module, x, name=name: getattr(module, f"tqx_{name}")(x),
            )


def _comparisons():
    for name in ("eq", "ne", "lt", "le", "gt", "ge"):
        compare = getattr(operator, name)
        yield Case(
            f"tqx_{name}, special",
            golden.special_pairs,
            lambda x, y, compare=compare: [compare(a, b) for a, b in zip(x, y, strict=True)],
            lambda module, x, y, name=name: getattr(module, f"tqx_{name}")(x, y),
        )


GROUPS = {
    "uniform": lambda: golden.uniform("rms", 1000),
    "wide": lambda: golden.wide("rms", 600, -300, 300),
    "any bits": lambda: golden.patterns("rms", 300),
    "subnormal": lambda: [v * 5e-324 for v in golden.integers("rms", 255, 0, 2**20)],
    "an infinity": lambda: [1.0, -math.inf, -0.0],
    "a NaN": lambda: [1.0, math.nan],
    "zeros": lambda: [0.0, -0.0],
}


def _rms_norm():
    for kind, values in GROUPS.items():
        for eps in (1e-6, 0.0):
            yield Case(
                f"_placeholder_rms_norm, {kind}, eps {eps}",
                lambda values=values, eps=eps: (values(), eps),
                exact_rms_norm.rms_norm,
                lambda module, x, eps: module._placeholder_rms_norm(x, eps),
            )


CASES = [*_unary(), *_rounding(), *_comparisons(), *_rms_norm()]

if __name__ == "__main__":
    golden.write(__file__, CASES, REFERENCE)
