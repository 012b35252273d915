# SPDX-License-Identifier: Apache-2.0
"""Writes elementary_tables.h: the constants of exp, log, sigmoid and tanh.

Every constant is computed with MPFR at 2000 bits and rounded once.
"""

import gmpy2
from gmpy2 import mpfr

from korvex_tools.source_tree import SOURCE_TREE

TARGET = SOURCE_TREE / "korvex" / "arithmetic" / "elementary" / "elementary_tables.h"
PRECISION = 2000
EXP_ENTRIES = 64
LOG_ENTRIES = 256
RECIPROCAL_BITS = 10  # significant bits of a table reciprocal: m times it has 63 bits
LN2_WORDS = 24

TEMPLATE = """\
// SPDX-License-Identifier: Apache-2.0
// The constants of exp, log, sigmoid and tanh, written by korvex_tools.elementary.make_tables.
#pragma once

#include "korvex/arithmetic/base/portability.h"

namespace korvex::arithmetic {{

// clang-format off
constexpr int kExpEntries = {exp_entries};
constexpr double kExpEntriesPerLn2 = {per_ln2};  // RN(64 / log 2)
// log 2 / 64 in two parts; the first has 36 bits, so its product with an int of 17 bits is exact.
constexpr double kExpStepHigh = {step_high};
constexpr double kExpStepLow = {step_low};
// log 2 in two parts; the first has 42 bits, so its product with an int of 11 bits is exact.
constexpr double kLn2High = {ln2_high};
constexpr double kLn2Low = {ln2_low};
constexpr int kLogEntries = {log_entries};
// From this entry on, m >= sqrt 2: it is halved and the exponent is one higher.
constexpr int kLogHalfFrom = {half_from};
constexpr int kLn2Words = {ln2_words};

// 2^(j/64) as an unevaluated sum of two doubles.
struct PowerEntry {{
  double high;
  double low;
}};
KORVEX_TABLE PowerEntry kPowerTable[kExpEntries] = {{
{power_rows}
}};

// A reciprocal of 10 bits, and minus its logarithm as a sum of two doubles.
struct LogEntry {{
  double reciprocal;
  double high;
  double low;
}};
KORVEX_TABLE LogEntry kLogTable[kLogEntries] = {{
{log_rows}
}};

// log 2 rounded down to {ln2_bits} fractional bits, the lowest word first; the last is the integer.
KORVEX_TABLE std::uint64_t kLn2Digits[kLn2Words] = {{
{ln2_rows}
}};
// clang-format on

}}  // namespace korvex::arithmetic
"""


def two_parts(exact) -> tuple[float, float]:
    high = float(exact)
    return high, float(exact - mpfr(high))


def with_bits(exact, bits: int) -> float:
    """The value rounded to so many significant bits."""
    exponent, mantissa = gmpy2.frexp(exact)
    return float(gmpy2.rint(mantissa * mpfr(2) ** bits) * mpfr(2) ** (exponent - bits))


def power_row(j: int) -> str:
    high, low = two_parts(mpfr(2) ** (mpfr(j) / EXP_ENTRIES))
    return f"  {{{high.hex()}, {low.hex()}}},"


def half_from() -> int:
    return int((gmpy2.sqrt(mpfr(2)) - 1) * LOG_ENTRIES) + 1


def reciprocal(i: int) -> float:
    """About 1 / m for m from 1 + i/256 on; exactly 1 beside m = 1, on both sides of it."""
    if i in (0, LOG_ENTRIES - 1):
        return 1.0
    middle = 1 + (mpfr(i) + mpfr("0.5")) / LOG_ENTRIES
    return with_bits((2 if i >= half_from() else 1) / middle, RECIPROCAL_BITS)


def log_row(i: int) -> str:
    c = reciprocal(i)
    high, low = two_parts(-gmpy2.log(mpfr(c)))
    return f"  {{{c.hex()}, {(high + 0.0).hex()}, {(low + 0.0).hex()}}},"


def ln2_row(i: int) -> str:
    scaled = int(gmpy2.floor(gmpy2.log(mpfr(2)) * mpfr(2) ** (64 * (LN2_WORDS - 1))))
    return f"  {(scaled >> (64 * i)) & (2**64 - 1):#018x},"


def main() -> None:
    gmpy2.get_context().precision = PRECISION
    ln2 = gmpy2.log(mpfr(2))
    step = ln2 / EXP_ENTRIES
    step_high = with_bits(step, 36)
    ln2_high = with_bits(ln2, 42)
    text = TEMPLATE.format(
        exp_entries=EXP_ENTRIES,
        per_ln2=float(EXP_ENTRIES / ln2).hex(),
        step_high=step_high.hex(),
        step_low=float(step - mpfr(step_high)).hex(),
        ln2_high=ln2_high.hex(),
        ln2_low=float(ln2 - mpfr(ln2_high)).hex(),
        log_entries=LOG_ENTRIES,
        half_from=half_from(),
        ln2_words=LN2_WORDS,
        ln2_bits=64 * (LN2_WORDS - 1),
        power_rows="\n".join(map(power_row, range(EXP_ENTRIES))),
        log_rows="\n".join(map(log_row, range(LOG_ENTRIES))),
        ln2_rows="\n".join(map(ln2_row, range(LN2_WORDS))),
    )
    TARGET.write_text(text)


if __name__ == "__main__":
    main()
