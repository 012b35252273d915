# SPDX-License-Identifier: Apache-2.0
"""Golden data: digests of results that an independent reference works out, once, by a script.

A folder of functions has one script, `tests/golden/make_<folder>.py`, which lists its cases and
writes `<folder>.json` when it is run. `tests/golden/test_golden.py` finds every such script, runs
each case on the device of the run and compares. A case:

    Case("tqx_sum limbs, wide", inputs, expected, run)

    inputs()             the operands: lists of doubles (nested for matrices), numbers, texts
    expected(*operands)  what the reference says, never from the code under test
    run(module, *tensors) what the module says; lists and arrays arrive as tensors on the device

A case of many values says `long`: it runs with the tests of that mark and in `make verify-long`.

Results are numbers, lists, arrays, tensors, limb results, decimals or texts, or tuples of them.
Their digest is the SHA-256 of all doubles, little-endian, with every NaN as 0x7ff8000000000000; a
text counts as UTF-8 and a line feed, and so does a decimal, as digits without trailing zeros.
Inputs come from whole-number arithmetic alone, so they are the same on every machine, and their own
digest is kept beside the result's.
"""

import hashlib
import importlib.util
import json
import math
import pathlib
import random
import struct
from collections.abc import Callable
from dataclasses import dataclass
from decimal import Decimal
from fractions import Fraction
from typing import Any

import numpy as np

from korvex_tools.source_tree import SOURCE_TREE

FOLDER = SOURCE_TREE / "tests" / "golden"
CANONICAL_NAN = 0x7FF8000000000000
_SHOWN = 8  # so many values of a result stand in the file in full, for a reader


@dataclass(frozen=True)
class Case:
    name: str
    inputs: Callable[[], tuple]
    expected: Callable[..., Any]
    run: Callable[..., Any]
    long: bool = False


# ---- inputs ----


def uniform(seed, count):
    """Doubles in (-1, 1), multiples of 2**-53."""
    source = random.Random(seed)
    return [math.ldexp(source.getrandbits(54) - 2**53, -53) for _ in range(count)]


def wide(seed, count, low=-60, high=60):
    """Full 53-bit mantissas with exponents spread from `low` to `high`, either sign."""
    source = random.Random(seed)

    def one():
        mantissa = source.getrandbits(52) + 2**52
        exponent = low + source.getrandbits(32) % (high - low + 1)
        return math.ldexp(-mantissa if source.getrandbits(1) else mantissa, exponent - 52)

    return [one() for _ in range(count)]


def integers(seed, count, low=-9, high=9):
    """Small whole numbers as doubles: many ties and equal values."""
    source = random.Random(seed)
    return [float(low + source.getrandbits(32) % (high - low + 1)) for _ in range(count)]


def patterns(seed, count, finite=True):
    """Random bit patterns: every exponent, subnormal numbers, and NaN unless `finite`."""
    source = random.Random(seed)
    values = []
    while len(values) < count:
        (value,) = struct.unpack("<d", struct.pack("<Q", source.getrandbits(64)))
        if not finite or math.isfinite(value):
            values.append(value)
    return values


SPECIAL = [
    0.0,
    -0.0,
    1.0,
    -1.0,
    math.inf,
    -math.inf,
    math.nan,
    5e-324,
    -5e-324,
    2.0**-1022,
    -(2.0**-1022) + 5e-324,
    2.0**-53,
    1.0 + 2.0**-52,
    1.0 - 2.0**-53,
    1e308,
    -(2.0 - 2.0**-52) * 2.0**1023,
    2.0**53,
    2.0**53 - 1.0,
    0.1,
    -2.5,
]


def special_pairs():
    """Two lists: every special value met with every other."""
    pairs = [(a, b) for a in SPECIAL for b in SPECIAL]
    return [a for a, _ in pairs], [b for _, b in pairs]


def rows(values, columns):
    """A flat list as a matrix of so many columns."""
    return [values[i : i + columns] for i in range(0, len(values), columns)]


# ---- digests ----


def flat(value):
    """Every double and text in a result, in order."""
    if isinstance(value, (bool, int, float)):
        return [float(value)]
    if isinstance(value, str):
        return [value]
    if isinstance(value, (Decimal, Fraction)):
        return [decimal_text(value)]
    if isinstance(value, (list, tuple)):
        return [part for item in value for part in flat(item)]
    if hasattr(value, "limbs"):
        return flat(value.limbs)
    return array(value).tolist()


def array(value):
    """The doubles of an array or a tensor on any device, flat."""
    if not isinstance(value, np.ndarray):
        value = value.double().cpu().flatten().numpy()
    return value.astype("<f8").ravel()


def decimal_text(value):
    """A decimal, or a fraction that a decimal can hold, as digits without trailing zeros."""
    if isinstance(value, Decimal):
        if not value.is_finite():
            return str(value)
        sign, digits, exponent = value.as_tuple()
        number = int("".join(map(str, digits))) * (-1 if sign else 1)
    else:
        exponent = -value.denominator.bit_length()  # no prime 2 or 5 is in there more often
        number, rest = divmod(value.numerator * 10**-exponent, value.denominator)
        assert rest == 0, "no finite decimal"
    while number and number % 10 == 0:
        number, exponent = number // 10, exponent + 1
    return f"{number}e{exponent if number else 0}"


def digest(value):
    state = hashlib.sha256()
    for part in _stored(value):
        state.update(part)
    return state.hexdigest()


def _stored(value):
    """The bytes that a result counts as, piece by piece."""
    if isinstance(value, str):
        yield value.encode() + b"\n"
    elif isinstance(value, (Decimal, Fraction)):
        yield decimal_text(value).encode() + b"\n"
    elif isinstance(value, (bool, int, float)):
        yield _doubles(np.array([value], dtype="<f8"))
    elif isinstance(value, (list, tuple)):
        if value and all(type(item) is float for item in value):
            yield _doubles(np.array(value, dtype="<f8"))
        else:
            for item in value:
                yield from _stored(item)
    elif hasattr(value, "limbs"):
        yield from _stored(value.limbs)
    else:
        yield _doubles(array(value))


def _doubles(values):
    """With every NaN as the one that counts."""
    patterns = values.view("<u8")
    return np.where(np.isnan(values), np.uint64(CANONICAL_NAN), patterns).astype("<u8").tobytes()


def count(value):
    """How many doubles and texts a result has."""
    if isinstance(value, np.ndarray):
        return value.size
    if isinstance(value, (list, tuple)) and not all(type(item) is float for item in value):
        return sum(map(count, value))
    return len(flat(value))


def shown(value):
    """The first values of a result, exactly: hexadecimal doubles and shortened texts."""
    return [part[:80] if isinstance(part, str) else part.hex() for part in _first(value, _SHOWN)]


def _first(value, most):
    """So many doubles and texts of a result, without making a list of all of them."""
    if isinstance(value, (list, tuple)):
        found = []
        for item in value:
            found += _first(item, most - len(found))
            if len(found) >= most:
                break
        return found
    if isinstance(value, np.ndarray):
        value = value.ravel()[:most]
    return flat(value)[:most]


# ---- making ----


def write(maker, cases, reference):
    """Work out every case and write the file beside the script `maker`. Ends each script."""
    maker = pathlib.Path(maker).resolve()
    names = [case.name for case in cases]
    assert len(set(names)) == len(names), "two cases of one name"
    content = {
        "made_by": f"tests/golden/{maker.name}",
        "reference": reference,
        "digest": "SHA-256 of all doubles, little-endian, every NaN as 0x7ff8000000000000",
        "cases": {case.name: _entry(case) for case in cases},
    }
    path = maker.with_name(maker.stem.removeprefix("make_") + ".json")
    path.write_text(json.dumps(content, indent=1) + "\n")
    print(f"{path.name}: {len(cases)} cases")


def _entry(case):
    operands = case.inputs()
    expected = case.expected(*operands)
    return {
        "inputs": digest(operands),
        "count": count(expected),
        "sha256": digest(expected),
        "first": shown(expected),
    }


# ---- comparing ----


def makers():
    return sorted(FOLDER.glob("make_*.py"))


def load_script(path):
    """A script as a module; what stands under its `if __name__` does not run."""
    form = importlib.util.spec_from_file_location(path.stem, path)
    script = importlib.util.module_from_spec(form)
    form.loader.exec_module(script)
    return script


def load(maker):
    """The script as a module, and the data it wrote."""
    data = maker.with_name(maker.stem.removeprefix("make_") + ".json")
    return load_script(maker), json.loads(data.read_text())


def outcome(module, case, to_tensor):
    """Run one case: what its file would say of the inputs and of the result."""
    operands = case.inputs()
    result = case.run(
        module, *(to_tensor(o) if isinstance(o, (list, np.ndarray)) else o for o in operands)
    )
    return {
        "inputs": digest(operands),
        "count": count(result),
        "sha256": digest(result),
        "first": shown(result),
    }


def compare(module, case, entry, to_tensor):
    """Run one case and hold its result against the file."""
    found = outcome(module, case, to_tensor)
    assert found["inputs"] == entry["inputs"], "the inputs are not those the file was made from"
    assert (found["count"], found["first"]) == (entry["count"], entry["first"])
    assert found["sha256"] == entry["sha256"]
