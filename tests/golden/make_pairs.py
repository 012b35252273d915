# SPDX-License-Identifier: Apache-2.0
"""Golden digests of sums, differences, products and quotients, and of sums of limb lists.

Run it to write pairs.json: python make_pairs.py
"""

from korvex_tools.references import exact_pairs
from korvex_tools.verify import golden
from korvex_tools.verify.golden import Case

REFERENCE = (
    "rational arithmetic for products and quotients; Python's own floats for the six operations of "
    "a sum and for the cascade of limb lists"
)

INPUTS = {
    "uniform": lambda: (golden.uniform("pair x", 3000), golden.uniform("pair y", 3000)),
    "wide": lambda: (
        golden.wide("wide x", 3000, -400, 400),
        golden.wide("wide y", 3000, -400, 400),
    ),
    "of like size": lambda: (
        golden.wide("near x", 3000, -3, 3),
        golden.wide("near y", 3000, -60, 3),
    ),
    "finite bits": lambda: (golden.patterns("bits x", 3000), golden.patterns("bits y", 3000)),
    "any bits": lambda: (
        golden.patterns("any x", 1000, finite=False),
        golden.patterns("any y", 1000, finite=False),
    ),
    "tiny over small": lambda: (
        golden.wide("tiny x", 2000, -1074, -960),
        golden.wide("small y", 2000, -1074, 60),
    ),
    "small": lambda: (
        golden.wide("low x", 2000, -560, -400),
        golden.wide("low y", 2000, -560, 500),
    ),
    "integers": lambda: (golden.integers("int x", 1000), golden.integers("int y", 1000)),
    "special": golden.special_pairs,
}

FUNCTIONS = {name: f"{name}_kernel" for name in ("tqx_add", "tqx_sub", "tqx_mul", "tqx_div")}


# ---- tensors ----


def pairs_of(kernel):
    def expected(x, y):
        pairs = [exact_pairs.PAIRS[kernel](a, b) for a, b in zip(x, y, strict=True)]
        return [value for value, _ in pairs], [error for _, error in pairs]

    return expected


def rounded(kernel):
    def expected(x, y):
        return [value + error for value, error in zip(*pairs_of(kernel)(x, y), strict=True)]

    return expected


def call(name, return_tqx):
    return lambda module, x, y: getattr(module, name)(x, y, return_tqx=return_tqx)


def _tensor_cases():
    for name, kernel in FUNCTIONS.items():
        for kind, inputs in INPUTS.items():
            yield Case(f"{name}, {kind}", inputs, rounded(kernel), call(name, False))
            yield Case(f"{name} limbs, {kind}", inputs, pairs_of(kernel), call(name, True))


# ---- limb lists ----


def _size(limb):
    return -max(map(abs, limb))


def added(x_limbs, y_limbs):
    """The cascade, element by element inside the steps that look at whole limbs."""
    limbs = sorted(x_limbs + y_limbs, key=_size)
    value, errors = limbs[0], []
    for limb in limbs[1:]:
        pairs = [exact_pairs.six_operations(a, b) for a, b in zip(value, limb, strict=True)]
        value = [s for s, _ in pairs]
        error = [e for _, e in pairs]
        if max(map(abs, error)) > 0:
            errors.append(error)
    result = [value, *errors]
    return sorted(result, key=_size)[:4] if len(result) > 4 else result


def chain(*addends):
    total = [addends[0]]
    for addend in addends[1:]:
        total = added(total, [addend])
    return total


def _negated(limbs):
    return [[-value for value in limb] for limb in limbs]


def run_chain(module, *addends):
    total = module.TQXResult([addends[0]], str(addends[0].device))
    for addend in addends[1:]:
        total = module.tqx_add(total, addend, return_tqx=True)
    return total


def limb_call(name, count):
    """The first `count` tensors as the limbs of x, the others as those of y."""

    def run(module, *limbs):
        x, y = module.TQXResult(list(limbs[:count])), module.TQXResult(list(limbs[count:]))
        return getattr(module, name)(x, y, return_tqx=True)

    return run


def limbs_of(seed, count, spread):
    return lambda: tuple(golden.wide(f"{seed} {i}", 400, -spread, spread) for i in range(count))


def _limb_cases():
    for spread in (2, 60, 400):
        inputs = limbs_of("limb", 5, spread)
        yield Case(
            f"tqx_add of limbs, {spread}",
            inputs,
            lambda *v: added([*v[:3]], [*v[3:]]),
            limb_call("tqx_add", 3),
        )
        yield Case(
            f"tqx_sub of limbs, {spread}",
            inputs,
            lambda *v: added([*v[:2]], _negated(v[2:])),
            limb_call("tqx_sub", 2),
        )
        yield Case(f"chain of tqx_add, {spread}", limbs_of("link", 12, spread), chain, run_chain)


CASES = [*_tensor_cases(), *_limb_cases()]

if __name__ == "__main__":
    golden.write(__file__, CASES, REFERENCE)
