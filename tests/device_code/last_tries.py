# SPDX-License-Identifier: Apache-2.0
"""Device code in which the last tries of sigmoid, tanh and logsumexp decide every element.

usage: last_tries.py FOLDER   write the changed headers below FOLDER, to be found before the tree's

No argument is known that gets past 256 bits in sigmoid or tanh, so nothing else would run their
last tries, let alone in all threads of a block at once. Results stay what they are: a last try
decides what the tries before it do. A change that does not fit exactly one place is an error.
"""

import sys
from pathlib import Path

SOURCE_TREE = Path(__file__).resolve().parents[2]
ELEMENTARY = Path("korvex/arithmetic/elementary")

CHANGES = {
    "logistic.h": (
        ("  return round_pair(sigmoid_pair(x), kSigmoidError);\n", "  return {0.0, false};\n"),
        ("  return fast_tanh(x);\n", "  return {0.0, false};\n"),
    ),
    "logistic_wide.h": (
        ("return fast.is_decided ? fast : accurate_sigmoid<5>(x);", "return fast;"),
        ("    tried = accurate_tanh<5>(magnitude);\n", ""),
    ),
    "log_sum_exp.h": (
        # A larger one leaves the last try no room, and is always decided before.
        (
            "  return {to, from == to};\n",
            "  return {to, from == to && absolute(largest) >= 0x1p62};\n",
        ),
    ),
    "log_sum_exp_wide.h": (
        (
            "  return rounded_log_sum(work.value, negative, n);\n",
            "  const Rounded all = rounded_log_sum(work.value, negative, n);\n"
            "  return {all.value, all.is_decided && W != kSecondTryWords};\n",
        ),
    ),
}


def plant(folder: Path) -> None:
    """Write the headers; one that is so already keeps its time."""
    for name, changes in CHANGES.items():
        text = (SOURCE_TREE / ELEMENTARY / name).read_text()
        for before, after in changes:
            if text.count(before) != 1:
                raise SystemExit(f"found {text.count(before)} times in {name}: {before!r}")
            text = text.replace(before, after)
        path = folder / ELEMENTARY / name
        path.parent.mkdir(parents=True, exist_ok=True)
        if not path.exists() or path.read_text() != text:
            path.write_text(text)


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    plant(Path(sys.argv[1]))
