# SPDX-License-Identifier: Apache-2.0
"""exp, log, sqrt, sigmoid and tanh rounded correctly by MPFR, and arguments to try them on.

Imports nothing of the project. MPFR rounds four of them itself, subnormal results included. For
sigmoid a quotient of 200 bits is widened until both ends of its error round to one double. gmpy2,
which brings MPFR, is needed to work out results and not to read what was worked out.
"""

import math

import numpy as np

NAMES = ("exp", "log", "sqrt", "sigmoid", "tanh")


def _by_mpfr(name):
    def rounded(values):
        import gmpy2

        function = getattr(gmpy2, name)
        with gmpy2.context(gmpy2.ieee(64)):
            return [float(function(gmpy2.mpfr(value))) for value in values]

    return rounded


def _to_doubles(wide):
    import gmpy2

    with gmpy2.context(gmpy2.ieee(64)):
        return [float(gmpy2.mpfr(value)) for value in wide]


def sigmoid(values, precision=200):
    """1 / (1 + exp(-x)): three roundings, each of at most 2**-precision."""
    import gmpy2
    from gmpy2 import mpfr

    with gmpy2.context(precision=precision):
        wide = [1 / (1 + gmpy2.exp(-mpfr(value))) for value in values]
        margin = mpfr(2) ** (4 - precision)
        below = [value * (1 - margin) for value in wide]
        above = [value * (1 + margin) for value in wide]
    results = list(map(list, zip(_to_doubles(below), _to_doubles(above), strict=True)))
    for i, (low, high) in enumerate(results):
        if low != high:  # NaN included
            exact = math.isnan(values[i]) or precision > 4000
            results[i][0] = (
                _to_doubles([wide[i]])[0] if exact else sigmoid([values[i]], 4 * precision)[0]
            )
    return [low for low, _ in results]


REFERENCE = {
    "exp": _by_mpfr("exp"),
    "log": _by_mpfr("log"),
    "sqrt": _by_mpfr("sqrt"),
    "sigmoid": sigmoid,
    "tanh": _by_mpfr("tanh"),
}

# ---- arguments ----


def _spread(rng, count, low, high):
    """Full mantissas with exponents from low to high, both signs."""
    return np.ldexp(rng.uniform(1, 2, count), rng.integers(low, high, count)) * rng.choice(
        [-1.0, 1.0], count
    )


def _positive(rng, count, low, high):
    return np.abs(_spread(rng, count, low, high))


# Each kind: draws so many arguments. Ends of ranges lie a little beyond where results are constant.
KINDS = {
    "exp": {
        "whole range": lambda rng, n: rng.uniform(-746, 710, n),
        "around 0": lambda rng, n: rng.uniform(-1, 1, n),
        "small": lambda rng, n: _spread(rng, n, -56, 0),
        "subnormal results": lambda rng, n: rng.uniform(-745.2, -707, n),
        "next to overflow": lambda rng, n: rng.uniform(709.7, 709.8, n),
    },
    "log": {
        "whole range": lambda rng, n: _positive(rng, n, -1074, 1024),
        "around 1": lambda rng, n: rng.uniform(0.5, 2, n),
        "next to 1": lambda rng, n: 1 + _spread(rng, n, -53, -3),
        "subnormal arguments": lambda rng, n: _positive(rng, n, -1074, -1021),
    },
    "sqrt": {
        "whole range": lambda rng, n: _positive(rng, n, -1074, 1024),
        "one binade": lambda rng, n: rng.uniform(1, 4, n),
    },
    "sigmoid": {
        "whole range": lambda rng, n: rng.uniform(-746, 39, n),
        "around 0": lambda rng, n: rng.uniform(-40, 40, n),
        "small": lambda rng, n: _spread(rng, n, -55, 1),
        "subnormal results": lambda rng, n: rng.uniform(-745.2, -707, n),
    },
    "tanh": {
        "whole range": lambda rng, n: rng.uniform(-20, 20, n),
        "around 0": lambda rng, n: rng.uniform(-1, 1, n),
        "small": lambda rng, n: _spread(rng, n, -30, 1),
    },
}


def draw(name, kind, seed, count):
    """Arguments of one kind, a float64 array."""
    return KINDS[name][kind](np.random.default_rng(seed), count)


# ---- comparing ----


def differences(arguments, results, expected):
    """(argument, result, expected) in hexadecimal wherever the bits differ; every NaN is equal."""
    results, expected = np.asarray(results), np.asarray(expected)
    same = (results.view(np.uint64) == expected.view(np.uint64)) | (
        np.isnan(results) & np.isnan(expected)
    )
    return [
        (float(arguments[i]).hex(), float(results[i]).hex(), float(expected[i]).hex())
        for i in np.flatnonzero(~same)
    ]
