# SPDX-License-Identifier: Apache-2.0
"""Golden digests of functions that compose others, and of torch's exact ones.

Run it to write composed.json: python make_composed.py
"""

import math
import operator

from korvex_tools.references import elementary_reference as elementary
from korvex_tools.references import exact_arithmetic as exact
from korvex_tools.references import exact_reductions
from korvex_tools.references.exact_decimals import divided, root
from korvex_tools.verify import golden
from korvex_tools.verify.golden import Case

REFERENCE = (
    "whole numbers, rounded once, for sums, products and decimals; MPFR for logarithms and "
    "exponentials; Python's own floats for single operations"
)

# ---- operands ----

VALUES = {
    "uniform": lambda: golden.uniform("composed", 500),
    "wide": lambda: golden.wide("composed", 300),
    "integers": lambda: golden.integers("composed", 257),
    "two": lambda: [0.1, -0.7],
}
BITS = {
    "any bits": lambda: golden.patterns("composed bits", 1000, finite=False),
    "special": lambda: golden.SPECIAL,
}
ORDERED = {
    "uniform": VALUES["uniform"],
    "ties": lambda: golden.integers("ties", 300, 1, 3),
    "a NaN": lambda: [1.0, math.nan, -2.0, math.nan],
    "infinities": lambda: [1.0, math.inf, -math.inf, math.inf, -math.inf],
}


def single(found):
    return {kind: lambda make=make: (make(),) for kind, make in found.items()}


def square(make, size):
    return lambda: (golden.rows(make("square", size * size), size),)


def cases(name, inputs, expected, run):
    for kind, make in inputs.items():
        yield Case(f"{name}, {kind}", make, expected, run)


def calling(name, *more):
    return lambda m, *operands: getattr(m, name)(*operands, *more)


def each(function):
    return lambda *operands: [function(*place) for place in zip(*operands, strict=True)]


# ---- decimals ----


def four(values):
    return exact.decimal_of_limbs(exact.sum_limbs(values, 4))


def mean_exact(values):
    return divided(four(values), len(values))


def variance_exact(values, divisor=1):
    centre = exact.round_to_double(mean_exact(values))
    differences = [v - centre for v in values]
    return divided(four([d * d for d in differences]), len(values) - divisor)


def prefix_decimals(values):
    return [exact.decimal_of_limbs(pair) for pair in zip(*prefix_limbs(values), strict=True)]


def prefix_limbs(values):
    return exact_reductions.prefix_limbs(values)


def diagonal(matrix):
    return [row[i] for i, row in enumerate(matrix)]


def _decimals():
    inputs = single(VALUES)
    rows = {
        "tqx_mean_exact": mean_exact,
        "tqx_var_exact": variance_exact,
        "tqx_std_exact": lambda v: root(variance_exact(v)),
        "tqx_norm_exact": lambda v: root(four([x * x for x in v])),
        "tqx_prod_exact": lambda v: exact.decimal_of_limbs(exact_reductions.product_limbs(v)),
        "tqx_cumsum_exact": prefix_decimals,
        "tqx_logsumexp_exact": lambda v: exact.stated_value(exact_reductions.logsumexp(v)),
    }
    for name, expected in rows.items():
        yield from cases(name, inputs, expected, calling(name))
    for name in ("tqx_var_exact", "tqx_std_exact"):
        last = root if name == "tqx_std_exact" else lambda value: value
        yield Case(
            f"{name} with divisor n",
            inputs["uniform"],
            lambda v, last=last: last(variance_exact(v, 0)),
            calling(name, False),
        )


def _traces():
    squares = {kind: square(make, 17) for kind, make in MAKES.items()}
    yield from cases(
        "tqx_trace", squares, lambda a: rounded_limbs(diagonal(a)), calling("tqx_trace")
    )
    yield from cases(
        "tqx_trace_exact", squares, lambda a: four(diagonal(a)), calling("tqx_trace_exact")
    )


MAKES = {"uniform": golden.uniform, "wide": golden.wide, "integers": golden.integers}


def rounded_limbs(values):
    return exact.collapsed(exact.sum_limbs(values, 4))


# ---- products ----


def element(a, b, i, j):
    return exact.dot_limbs(a[i], [row[j] for row in b], 3)


def product(a, b):
    return [[exact.collapsed(element(a, b, i, j)) for j in range(len(b[0]))] for i in range(len(a))]


def _products():
    for kind, make in MAKES.items():
        a, b = make("left", 6 * 11), make("right", 11 * 5)

        def inputs(a=a, b=b):
            return golden.rows(a, 11), golden.rows(b, 5)

        yield Case(
            f"tqx_matmul_exact, {kind}",
            inputs,
            lambda a, b: exact.decimal_of_limbs(element(a, b, 2, 3)),
            lambda m, a, b: m.tqx_matmul_exact(a, b, 2, 3),
        )
        yield Case(
            f"tqx_bmm_exact, {kind}",
            inputs,
            lambda a, b: exact.decimal_of_limbs(element(a, b, 5, 0)),
            lambda m, a, b: m.tqx_bmm_exact(a.unsqueeze(0), b.unsqueeze(0), 0, 5, 0),
        )
        yield Case(
            f"tqx_einsum mk,kn->mn, {kind}",
            inputs,
            product,
            lambda m, a, b: m.tqx_einsum("mk,kn->mn", a, b),
        )
        yield Case(
            f"tqx_einsum bij,bjk->bik, {kind}",
            inputs,
            product,
            lambda m, a, b: m.tqx_einsum("bij,bjk->bik", a.unsqueeze(0), b.unsqueeze(0)),
        )
        yield Case(
            f"tqx_linear without bias, {kind}",
            inputs,
            product,
            lambda m, a, b: m.tqx_linear(a, b.t()),
        )


# ---- extrema ----


def first_nan(values):
    return next((i for i, v in enumerate(values) if math.isnan(v)), None)


def place_of(choose):
    """The first place of the extremum; a NaN, if there is one, comes before all."""

    def place(values):
        found = first_nan(values)
        return values.index(choose(values)) if found is None else found

    return place


def _extrema():
    inputs = single(ORDERED)
    for name, choose in (("min", min), ("max", max)):
        place = place_of(choose)
        yield from cases(
            f"tqx_{name}", inputs, lambda v, place=place: v[place(v)], calling(f"tqx_{name}")
        )
        yield from cases(f"tqx_arg{name}", inputs, place, calling(f"tqx_arg{name}"))


# ---- elements ----


def fmod(x, y):
    try:
        return math.fmod(x, y)
    except ValueError:  # an infinite dividend or a zero divisor
        return math.nan


def inverse_root(values):
    roots = elementary.REFERENCE["sqrt"](values)
    return [math.copysign(math.inf, r) if r == 0.0 else 1.0 / r for r in roots]


def power(exponent):
    def expected(values):
        logarithms = elementary.REFERENCE["log"](values)
        return elementary.REFERENCE["exp"]([exponent * v for v in logarithms])

    return expected


def clamped(low, high):
    return each(lambda x: x if math.isnan(x) else min(max(x, low), high))


def two_sum(a, b):
    s = a + b
    v = s - a
    return s, (a - (s - v)) + (b - v)


def bits_pairs():
    return (
        golden.patterns("fmod x", 1000, finite=False),
        golden.patterns("fmod y", 1000, finite=False),
    )


def _elements():
    pairs = {
        "special": golden.special_pairs,
        "any bits": bits_pairs,
        "uniform": lambda: (golden.uniform("over x", 1000), golden.wide("over y", 1000, -9, 0)),
    }
    yield from cases("tqx_fmod", pairs, each(fmod), calling("tqx_fmod"))
    yield from cases(
        "tqx_where",
        pairs,
        each(lambda x, y: x if x < y else y),
        lambda m, x, y: m.tqx_where(x < y, x, y),
    )
    for name in ("eq", "ne", "lt", "le", "gt", "ge"):
        ties = lambda: (golden.integers("tie x", 500, -2, 2), golden.integers("tie y", 500, -2, 2))  # noqa: E731
        yield Case(f"tqx_{name}, ties", ties, each(getattr(operator, name)), calling(f"tqx_{name}"))
    inputs = single(VALUES | BITS)
    signs = each(lambda x: float((x > 0) - (x < 0)))
    yield from cases("tqx_sign", inputs, signs, calling("tqx_sign"))
    yield from cases("tqx_rsqrt", inputs, inverse_root, calling("tqx_rsqrt"))
    for exponent in (2.0, 0.5, -1.5, 3.0):
        yield from cases(
            f"tqx_pow to {exponent}", inputs, power(exponent), calling("tqx_pow", exponent)
        )
    yield from cases("tqx_clamp", inputs, clamped(-0.5, 2.0), calling("tqx_clamp", -0.5, 2.0))
    for name, number in (("tqx_add", 0.1), ("tqx_sub", -0.3)):
        addend = 0.1 if name == "tqx_add" else 0.3
        yield from cases(
            f"{name} of a number, limbs",
            single(VALUES),
            lambda v, addend=addend: list(zip(*(two_sum(x, addend) for x in v), strict=True)),
            lambda m, x, name=name, number=number: getattr(m, name)(x, number, return_tqx=True),
        )


# ---- limb results ----


def _results():
    limbs = {
        "four limbs": lambda: tuple([v] for v in exact.sum_limbs(golden.wide("item", 60), 4)),
        "in no order": lambda: tuple([v] for v in golden.wide("item", 4, -5, 5)),
    }

    def expected(*limbs):
        return exact.collapsed([limb[0] for limb in limbs])

    yield from cases("TQXResult.item", limbs, expected, lambda m, *x: m.TQXResult([*x]).item())
    yield from cases("TQXResult.__float__", limbs, expected, lambda m, *x: float(m.TQXResult([*x])))
    yield from cases(
        "TQXVerifiedResult.item",
        limbs,
        expected,
        lambda m, *x: m.TQXVerifiedResult(m.TQXResult([*x])).item(),
    )
    moves = {
        "squeeze": lambda r: r.unsqueeze(0).squeeze(0),
        "unsqueeze": lambda r: r.unsqueeze(1),
        "view": lambda r: r.view(2, -1),
        "reshape": lambda r: r.reshape(-1, 2),
    }
    for name, move in moves.items():
        yield Case(
            f"TQXResult.{name}",
            lambda: (golden.wide("high", 10), golden.wide("low", 10, -120, -113)),
            lambda *limbs: limbs,
            lambda m, *x, move=move: move(m.TQXResult([*x])),
        )


CASES = [
    *_decimals(),
    *_traces(),
    *_products(),
    *_extrema(),
    *_elements(),
    *_results(),
]

if __name__ == "__main__":
    golden.write(__file__, CASES, REFERENCE)
