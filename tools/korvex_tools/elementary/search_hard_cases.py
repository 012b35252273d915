# SPDX-License-Identifier: Apache-2.0
"""Searches arguments whose result lies very close to the middle between two doubles.

A large random search with the double-double phase as filter, and all arguments within a few gaps of
a power of two; what passes is measured with MPFR. Writes the hardest of each function to
tests/elementwise/hard_cases.json, every one with its correct rounding, and docs/hard_cases.md.
"""

import argparse
import json
import math

import gmpy2
import numpy as np
from gmpy2 import mpfr

from korvex_tools.elementary.probe import Probe
from korvex_tools.references import elementary_reference as reference
from korvex_tools.source_tree import SOURCE_TREE

BATCH = 1_000_000
KEPT = 40
NAMES = ("exp", "log", "sigmoid", "tanh")
# Arguments for which a rounding is to be decided, with normal results.
RANGES = {
    "exp": (-708.0, 709.0, 2.0**-53),
    "log": (2.0**-1022, math.inf, 2.0**-1022),
    "sigmoid": (-708.0, 38.0, 2.0**-53),
    "tanh": (2.0**-27, 19.0, 2.0**-27),
}
EXACT = {
    "exp": gmpy2.exp,
    "log": gmpy2.log,
    "sigmoid": lambda x: 1 / (1 + gmpy2.exp(-x)),
    "tanh": gmpy2.tanh,
}
TITLE = """# Hard cases of exp, log, sigmoid and tanh

Arguments whose exact result lies close to the middle between two float64: `bits` is how many bits
past the 53 of the result agree with the middle. A computation needs about that many correct bits
more than 53 to round such a result correctly. Found by

    python -P -m korvex_tools.elementary.search_hard_cases --count {count} --seed {seed}

a random search over the whole range with the fast phase as filter, and all arguments within 32 gaps
of a power of two. There may be harder ones. sigmoid and tanh widen their computation until the
rounding is decided; exp and log decide with 256 bits of fraction
([proofs](numerics_elementary.md)). The tests compare all of `tests/elementwise/hard_cases.json`
with MPFR.
"""


def in_range(name, x):
    low, high, least = RANGES[name]
    return x[(x >= low) & (x <= high) & (np.abs(x) >= least) & (x != (name == "log"))]


def powers_of_two(name):
    """All arguments within 32 gaps of a power of two, both signs."""
    powers = np.ldexp(
        1.0, np.arange(-60 if name != "log" else -1021, 11 if name != "log" else 1023)
    )
    bits = (powers.view(np.int64)[:, None] + np.arange(-32, 33)).ravel()
    x = bits.view(np.float64)
    return in_range(name, np.concatenate([x, -x]))


def agreeing_bits(name, x):
    """Bits past the 53 of the result that agree with the middle of two doubles."""
    with gmpy2.context(precision=400):
        exact = abs(EXACT[name](mpfr(x)))
        scaled = exact * mpfr(2) ** (53 - gmpy2.frexp(exact)[0])  # in [2^52, 2^53)
        distance = abs(gmpy2.frac(scaled) - mpfr("0.5"))
        return float(-gmpy2.log2(distance)) if distance else math.inf


def candidates(probe, name, x, closeness):
    """Where the double-double says that the result lies close to the middle."""
    pair = probe.pairs(name, x)
    high, low = pair[:, 0], np.abs(pair[:, 1])
    half_gap = np.spacing(np.abs(high)) / 2
    return x[np.abs(1 - low / half_gap) < closeness]


def search(probe, name, count, seed):
    near_powers = candidates(probe, name, powers_of_two(name), 2.0**-9).tolist()
    found = {x: agreeing_bits(name, x) for x in near_powers}
    for batch in range(max(1, count // BATCH)):
        kinds = list(reference.KINDS[name])
        kind = kinds[batch % len(kinds)]
        x = in_range(name, reference.draw(name, kind, [seed, batch, len(name)], BATCH))
        for value in candidates(probe, name, x, 2.0**-13).tolist():
            found[value] = agreeing_bits(name, value)
        found = hardest(found, 4 * KEPT)
    return hardest(found, KEPT)


def hardest(found, count):
    return dict(sorted(found.items(), key=lambda item: -item[1])[:count])


def rows_of(name, found):
    results = reference.REFERENCE[name](list(found))
    return [
        {"x": x.hex(), "result": result.hex(), "bits": round(bits, 1)}
        for (x, bits), result in zip(found.items(), results, strict=True)
    ]


def page(cases, options):
    parts = [TITLE.format(count=options.count, seed=options.seed)]
    for name, rows in cases.items():
        parts.append(f"\n## {name}\n\n| argument | correct rounding | bits |\n|---|---|---|\n")
        parts += [f"| `{row['x']}` | `{row['result']}` | {row['bits']} |\n" for row in rows[:12]]
    return "".join(parts)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--count", type=int, default=100_000_000, help="arguments per function")
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    probe = Probe()
    cases = {}
    for name in NAMES:
        cases[name] = rows_of(name, search(probe, name, options.count, options.seed))
        print(f"{name}: {cases[name][0]}", flush=True)
    content = {
        "made_by": "korvex_tools.elementary.search_hard_cases",
        "count": options.count,
        "seed": options.seed,
        "cases": cases,
    }
    path = SOURCE_TREE / "tests" / "elementwise" / "hard_cases.json"
    path.write_text(json.dumps(content, indent=1) + "\n")
    (SOURCE_TREE / "docs" / "hard_cases.md").write_text(page(cases, options))


if __name__ == "__main__":
    main()
