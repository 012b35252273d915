# SPDX-License-Identifier: Apache-2.0
"""Golden digests of every output of every kernel, about a million values each in the long form.

Run it to write million.json: python make_million.py (some minutes). Each kind of input comes in two
sizes, of which the larger one is long. Besides random inputs there are hard cases of the elementary
functions, sums in several orders, and work done in parts: what a reference says of the whole must
come out of all of them.
"""

import functools
import json
import pathlib

import numpy as np

from korvex_tools.references import bulk_inputs as draw
from korvex_tools.references import elementary_reference as elementary
from korvex_tools.references import exact_bulk as exact
from korvex_tools.verify import golden
from korvex_tools.verify import kernel_calls as kernels
from korvex_tools.verify.golden import Case

REFERENCE = (
    "whole numbers, rounded once by Python's division (exact_bulk.py); MPFR for exp, log, sqrt, "
    "sigmoid, tanh, logsumexp and the factor of rms_norm; IEEE operations of NumPy for the rest"
)
SIZES = {4096: False, 2**18: True}  # four kinds of the larger one are a million values
HARD = json.loads(
    (pathlib.Path(__file__).parents[1] / "elementwise" / "hard_cases.json").read_text()
)["cases"]


def each_size(kernel, kinds, expected, run):
    for kind, make in kinds.items():
        for size, is_long in SIZES.items():
            yield Case(
                f"{kernel}, {kind}, {size} values",
                functools.partial(make, size),
                expected,
                run,
                is_long,
            )


def kinds(*makes):
    """By name, from rows of a name, a function of bulk_inputs, and its other arguments."""
    return {
        name: lambda size, name=name, make=make, options=options: (make(name, size, *options),)
        for name, make, *options in makes
    }


def pairs_of(found):
    """The same kinds for two operands, drawn apart."""

    def doubled(make, size, name, options):
        return make(f"{name} x", size, *options), make(f"{name} y", size, *options)

    return {
        name: lambda size, make=make, name=name, options=options: doubled(make, size, name, options)
        for name, make, *options in found
    }


# ---- sums and dot products ----

SUMMANDS = (
    ("uniform", draw.uniform),
    ("wide", draw.wide),
    ("finite bits", draw.finite_bits),
    ("cancelling", draw.cancelling),
)
FACTORS = (
    ("uniform", draw.uniform),
    ("wide", draw.wide),
    ("finite bits", draw.finite_bits),
    ("whole numbers", draw.whole),
)


def orders(values):
    """The same values as they are, from the end, and by magnitude."""
    return values, values[::-1].copy(), values[np.argsort(np.abs(values), kind="stable")]


def of_each_order(run):
    """One result of so many operands a time, for each order."""

    def run_all(module, *operands, count):
        groups = [operands[i : i + count] for i in range(0, len(operands), count)]
        return [run(module, *group) for group in groups]

    return run_all


def in_parts(name, run, join):
    """Limbs of parts, summed as values: nothing is lost while four limbs hold each part."""

    def run_parts(module, *operands):
        n = operands[0].numel()
        ends = [0, 1, n // 3, n // 2, n]
        found = []
        for begin, end in zip(ends, ends[1:], strict=False):
            found += run(module, *(x[begin:end].clone() for x in operands))
        return join(module, module.torch.cat(found))

    return run_parts


def _sums():
    sum_limbs = kernels.of_whole_array("tqx_sum_seq_kernel", 4)
    dot_limbs = kernels.of_whole_array("tqx_dot_seq_kernel", 4)
    forms = {
        "tqx_sum_seq_kernel": (sum_limbs, 4),
        "tqx_sum_kernel": (kernels.of_whole_array("tqx_sum_kernel", 1, 1), 2),
    }
    for name, (run, count) in forms.items():
        expected = functools.partial(exact.sum_limbs, count=count)
        yield from each_size(name, kinds(*SUMMANDS), expected, run)
        yield from each_size(
            name,
            {"in three orders": lambda size: orders(draw.wide("orders", size))},
            lambda x, *_, expected=expected: expected(x) * 3,
            functools.partial(of_each_order(run), count=1),
        )
    forms = {
        "tqx_dot_seq_kernel": (dot_limbs, 4),
        "tqx_dot_kernel": (kernels.of_whole_array("tqx_dot_kernel", 1, 1, 1), 3),
    }
    for name, (run, count) in forms.items():
        expected = functools.partial(exact.dot_limbs, count=count)
        yield from each_size(name, pairs_of(FACTORS), expected, run)
        yield from each_size(
            name,
            {"in two orders": turned_pairs},
            lambda x, y, *_, expected=expected: expected(x, y) * 2,
            functools.partial(of_each_order(run), count=2),
        )
    yield from each_size(
        "tqx_sum_seq_kernel",
        {"in parts": lambda size: (draw.wide("parts", size),)},
        functools.partial(exact.sum_limbs, count=4),
        in_parts("tqx_sum_seq_kernel", sum_limbs, sum_limbs),
    )
    yield from each_size(
        "tqx_dot_seq_kernel",
        {"in parts": lambda size: tuple(draw.wide(f"parts {k}", size, -15, 15) for k in "xy")},
        functools.partial(exact.dot_limbs, count=4),
        in_parts("tqx_dot_seq_kernel", dot_limbs, sum_limbs),
    )


def turned_pairs(size):
    x, y = draw.wide("turned x", size), draw.wide("turned y", size)
    return x, y, x[::-1].copy(), y[::-1].copy()


# ---- matrix products ----

SHAPES = {4096: (64, 4, 64), 2**18: (256, 4, 1024)}


def matrices(make, options, seed, m, k, n):
    a, b = make(f"{seed} a", m * k, *options), make(f"{seed} b", k * n, *options)
    return a.reshape(m, k), b.reshape(k, n)


def by_blocks(module, a, b):
    """The same elements from products of parts of a with parts of b."""
    torch, tall, broad = module.torch, a.shape[0] // 3, b.shape[1] // 5
    rows = []
    for upper in (a[:tall], a[tall:]):
        found = [kernels.matmul(module, upper, part) for part in (b[:, :broad], b[:, broad:])]
        parts = [[limb.view(upper.shape[0], -1) for limb in limbs] for limbs in found]
        rows.append([torch.cat([left, right], dim=1) for left, right in zip(*parts, strict=True)])
    return [torch.cat([above, below]) for above, below in zip(*rows, strict=True)]


def _matrix_products():
    name = "tqx_matmul_kernel"
    for kind, make, *options in FACTORS:
        for size, is_long in SIZES.items():
            yield Case(
                f"{name}, {kind}, {size} elements",
                functools.partial(matrices, make, options, kind, *SHAPES[size]),
                exact.product_limbs,
                kernels.matmul,
                is_long,
            )
    for kind, make, *options in (("uniform", draw.uniform), ("wide", draw.wide, -300, 300)):
        yield Case(
            f"{name}, {kind}, long sums",
            functools.partial(matrices, make, options, f"deep {kind}", 40, 700, 40),
            exact.product_limbs,
            kernels.matmul,
            True,
        )
    yield Case(
        f"{name}, by blocks",
        functools.partial(matrices, draw.wide, (), "blocks", 60, 50, 70),
        exact.product_limbs,
        by_blocks,
    )


# ---- reductions ----

SPREAD = (
    ("uniform", draw.uniform),
    ("wide", draw.wide),
    ("very wide", draw.wide, -250, 250),
    ("finite bits", draw.finite_bits),
)


def with_large_mean(size):
    return (draw.whole("mean", size, 0, 3) * 2.0**-20 + 1e9,)


def scaled(factor):
    return lambda size: (draw.uniform(f"times {factor}", size) * factor,)


def near_one(size):
    return (draw.uniform("near one", size) * 2.0**-9 + 1.0,)


def _reductions():
    wholes = kernels.of_whole_array
    spread = kinds(*SPREAD)
    deviations = {k: v for k, v in spread.items() if k != "finite bits"}
    yield from each_size(
        "tqx_var_kernel",
        deviations | {"a large mean": with_large_mean},
        exact.mean_and_variance,
        wholes("tqx_var_kernel", 1, 1),
    )
    yield from each_size("tqx_norm_kernel", spread, exact.norm, wholes("tqx_norm_kernel", 1))
    yield from each_size(
        "tqx_prod_kernel",
        kinds(
            ("balanced", draw.balanced),
            ("balanced, wide", draw.balanced, 60),
            ("balanced, very wide", draw.balanced, 400),
        )
        | {"near one": near_one},
        exact.product_pair,
        wholes("tqx_prod_kernel", 1, 1),
    )
    yield from each_size("tqx_cumsum_kernel", kinds(*SUMMANDS), exact.prefix_limbs, kernels.cumsum)
    yield from each_size(
        "tqx_logsumexp_kernel",
        {"uniform": scaled(1.0), "logits": scaled(30.0), "far apart": scaled(700.0)}
        | kinds(("wide", draw.wide, -70, 9)),
        exact.logsumexp,
        wholes("tqx_logsumexp_kernel", 1),
    )
    for eps in (1e-6, 0.0):
        chosen = {k: v for k, v in spread.items() if (k == "uniform") == (eps > 0)}
        yield from each_size(
            f"tqx_rms_norm_kernel, eps {eps}",
            {k: lambda size, v=v, eps=eps: (*v(size), eps) for k, v in chosen.items()},
            exact.rms_norm,
            kernels.rms_norm,
        )


# ---- pairs ----

PAIRS = {
    "tqx_add_kernel": exact.sum_pairs,
    "tqx_sub_kernel": exact.difference_pairs,
    "tqx_mul_kernel": exact.product_pairs,
    "tqx_div_kernel": exact.quotient_pairs,
}
OPERANDS = (
    ("uniform", draw.uniform),
    ("wide", draw.wide, -400, 400),
    ("of like size", draw.wide, -3, 3),
    ("any bits", draw.any_bits),
)


def special_pairs():
    """Every special value met with every other, as arrays."""
    return tuple(map(np.array, golden.special_pairs()))


def _pairs():
    for name, expected in PAIRS.items():
        run = kernels.of_elements(name, 2)
        yield from each_size(name, pairs_of(OPERANDS), expected, run)
        yield Case(f"{name}, special values", special_pairs, expected, run)


# ---- one operand ----


def around(*values, count=64):
    """Each value among its neighbours, so many of them on either side."""
    patterns = np.array(values).view(np.int64)
    rows = patterns[:, None] + np.arange(-count, count + 1)
    return rows.view(np.float64).ravel()


def hard_cases(name):
    return (around(*(float.fromhex(row["x"]) for row in HARD[name])),)


def magnitudes(kind):
    return lambda size: tuple(np.abs(x) for x in kind(size))


ANY_SIGN = kinds(("uniform", draw.uniform), ("any bits", draw.any_bits))
RANGES = {"exp": 746.0, "sigmoid": 746.0, "tanh": 20.0}


def arguments(name):
    if name in RANGES:
        special = {f"to {RANGES[name]:g}": scaled(RANGES[name])} | kinds(
            ("wide", draw.wide, -60, 9)
        )
        return ANY_SIGN | special
    spread = kinds(("wide", draw.wide, -1022, 1023), ("near one", draw.wide, -53, -2))
    spread["near one"] = lambda size, offsets=spread["near one"]: (1.0 + offsets(size)[0],)
    return {kind: magnitudes(make) for kind, make in (ANY_SIGN | spread).items()}


def by_reference(name):
    return lambda x: np.array(elementary.REFERENCE[name](x.tolist()))


def leaky_relu(x, slope=0.01):
    with np.errstate(invalid="ignore"):
        return np.where(x > 0, x, slope * x)


SIMPLE = {
    "relu": (lambda x: np.where(np.isnan(x) | (x > 0), x, 0.0), ()),
    "neg": (lambda x: -x, ()),
    "leaky_relu": (leaky_relu, (0.01,)),
}


def pieces(run):
    """The same elements from launches on parts of the array, which begin at odd places."""

    def run_parts(module, x):
        ends = [0, 1, 1000, 1001, x.numel() - 3, x.numel()]
        steps = zip(ends, ends[1:], strict=False)
        return module.torch.cat([run(module, x[begin:end])[0] for begin, end in steps])

    return run_parts


def _unary():
    spread = kinds(("wide", draw.wide), ("whole numbers", draw.whole)) | ANY_SIGN
    rows = {name: (by_reference(name), (), arguments(name)) for name in elementary.NAMES}
    rows |= {name: (expected, numbers, spread) for name, (expected, numbers) in SIMPLE.items()}
    for name, (expected, numbers, found) in rows.items():
        kernel = f"tqx_{name}_kernel"
        run = kernels.of_elements(kernel, 1, *numbers)
        yield from each_size(kernel, found, expected, run)
        special = lambda: (np.array(golden.SPECIAL),)  # noqa: E731
        yield Case(f"{kernel}, special values", special, expected, run)
        some = functools.partial(found["any bits"], 4001)
        yield Case(f"{kernel}, in parts", some, expected, pieces(run))
        if name in HARD:
            hard = functools.partial(hard_cases, name)
            yield Case(f"{kernel}, hard cases and neighbours", hard, expected, run)


CASES = [*_sums(), *_matrix_products(), *_reductions(), *_pairs(), *_unary()]

if __name__ == "__main__":
    golden.write(__file__, CASES, REFERENCE)
