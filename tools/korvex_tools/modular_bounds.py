# SPDX-License-Identifier: Apache-2.0
"""Checks every bound of the matrix product by residues, in whole numbers.

    python -P -m korvex_tools.modular_bounds

The constants are read from the headers, the rest is worked out anew with integers and fractions.
Prints a row for each bound, what was found and what is allowed, and ends with status 1 where one
does not hold. The bounds are those of docs/numerics_modular.md, in its order.
"""

import math
import re
import struct
import sys
from fractions import Fraction

from korvex_tools.source_tree import SOURCE_TREE

HEADERS = {
    "kLargestModulus": "korvex/arithmetic/exact/residue_system.h",
    "kMostModuli": "korvex/arithmetic/exact/residue_system.h",
    "kDigits": "korvex/arithmetic/exact/residue_system.h",
    "kFractionBits": "korvex/arithmetic/exact/residue_system.h",
    "kMostDwords": "korvex/kernels/modular/residues.h",
    "kDepth": "korvex/kernels/modular/residues.h",
    "kHighest": "korvex/kernels/host/modular_lines.h",
}
LONGEST_FLOAT32 = 2**24  # integers up to it are float32
INT32 = 2**31

Row = tuple[str, object, str, object, bool]


def constant(name: str) -> int:
    text = (SOURCE_TREE / HEADERS[name]).read_text()
    return int(re.search(rf"\b{name} = (\d+);", text)[1])


CONSTANTS = {name: constant(name) for name in HEADERS}


def moduli() -> list[int]:
    """Largest first, each coprime to all before it."""
    found: list[int] = []
    candidate = CONSTANTS["kLargestModulus"]
    while len(found) < CONSTANTS["kMostModuli"]:
        if all(math.gcd(candidate, other) == 1 for other in found):
            found.append(candidate)
        candidate -= 1
    return found


MODULI = moduli()


def float32(x: Fraction) -> Fraction:
    """x rounded to float32: exact here, as rounding to float64 first decides no tie of 1 / p."""
    return Fraction(struct.unpack("f", struct.pack("f", float(x)))[0])


def at_most(name: str, found: object, allowed: object) -> Row:
    return name, found, "<=", allowed, found <= allowed


def below(name: str, found: object, allowed: object) -> Row:
    return name, found, "<", allowed, found < allowed


# --- One residue


def largest_residue(p: int, largest: int) -> int:
    """Of an integer of at most `largest`: half of p, and what the rounded inverse is off."""
    off = abs(float32(Fraction(1, p)) - Fraction(1, p)) * largest * p
    return math.floor(Fraction(p, 2) + off)


def residues() -> list[Row]:
    bytes_of_element = 4 * CONSTANTS["kMostDwords"]
    sum_of_digits = bytes_of_element * 255 * (CONSTANTS["kLargestModulus"] // 2 + 1)
    quotient = max(Fraction(LONGEST_FLOAT32, p) for p in MODULI)
    largest = max(largest_residue(p, LONGEST_FLOAT32) - p // 2 for p in MODULI)
    return [
        below("sum of an element's bytes times powers, beside 1.5 * 2^23", sum_of_digits, 2**22),
        below("quotient by p, beside the shifter 1.5 * 2^23", math.ceil(quotient), 2**22),
        at_most("residue above p / 2, of an integer up to 2^24", largest, 1),
        at_most("any residue, a signed byte",
                max(largest_residue(p, LONGEST_FLOAT32) for p in MODULI), 127),
        at_most("residue of the right operand plus 128",
                128 + max(largest_residue(p, LONGEST_FLOAT32) for p in MODULI), 255),
    ]  # fmt: skip


# --- Products for one modulus


def products() -> list[Row]:
    depth = CONSTANTS["kDepth"]
    residue = max(largest_residue(p, LONGEST_FLOAT32) for p in MODULI)
    start = 128 * depth * residue
    return [
        below("sum on the way, with the offset", start + depth * (128 + residue) * residue, INT32),
        at_most("corrected sum, and what the plane held", depth * residue**2 + residue,
                LONGEST_FLOAT32),
    ]  # fmt: skip


# --- Recombination, for every number of moduli


def largest_quotient() -> int:
    e = [largest_residue(p, LONGEST_FLOAT32) for p in MODULI]
    return math.ceil(sum(Fraction(x, p) for x, p in zip(e, MODULI, strict=True)))


def fractions_of_moduli() -> list[int]:
    unit = 2 ** CONSTANTS["kFractionBits"]
    return [(2 * unit // p + 1) // 2 for p in MODULI]


def largest_offset() -> Fraction:
    """How far the sum of e_t / p_t is off, in units of 2^-16."""
    unit = 2 ** CONSTANTS["kFractionBits"]
    return sum(
        largest_residue(p, LONGEST_FLOAT32) * abs(Fraction(f, unit) - Fraction(1, p))
        for f, p in zip(fractions_of_moduli(), MODULI, strict=True)
    )


def recombination() -> list[Row]:
    e = [largest_residue(p, LONGEST_FLOAT32) for p in MODULI]
    fractions = fractions_of_moduli()
    column = (sum(e) + largest_quotient()) * 255
    carry = math.ceil(Fraction(257 * column, 65536 - 1)) + 1
    return [
        below("sum of e_t / p_t, off by", float(largest_offset()), 0.25),
        at_most("2^16 / p_t, in two bytes", max(fractions), 65535),
        below("sum of fractions", 257 * 255 * sum(e) + 2**15, INT32),
        at_most("quotient q, a signed byte", largest_quotient(), 127),
        below("two columns and a carry", 257 * column + carry, INT32),
        at_most("a digit of radix 2^48 as a double", 2**15 * 2**32, 2**53),
        below("sum of the digits below a digit, in its unit", float(largest_rest()), 1),
    ]  # fmt: skip


def largest_rest() -> Fraction:
    """Of the digits of radix 2^48 below one, with a rounding for each of them."""
    rest = sum(Fraction(2**47, 2 ** (48 * i)) for i in range(1, 9))
    return rest * (1 + Fraction(1, 2**53)) ** 8


def systems() -> list[Row]:
    product = 1
    short, wide_most = 0, 0
    for p in MODULI:
        product *= p
        wide = (product.bit_length() + 15) // 16
        wide_most = max(wide_most, wide)
        # Balanced digits of radix 2^48 reach this far up, and further down.
        doubles = (wide + 2) // 3
        reach = (2**47 - 1) * (2 ** (48 * doubles) - 1) // (2**48 - 1)
        short += product // 4 > reach
    return [
        at_most("moduli with a common factor", sum(math.gcd(p, product // p) != 1 for p in MODULI),
                0),
        at_most("numbers of moduli whose M / 4 the digits do not reach", short, 0),
        at_most("digits of radix 2^16, of M", 2 * wide_most, CONSTANTS["kDigits"]),
        at_most("doubles of 48 bits", -(-wide_most // 3), 8),
        below("exponent of the highest double", 48 * 7 + 49, 1023),
    ]  # fmt: skip


# --- Limbs, and the redundant modulus


def limbs() -> list[Row]:
    additions = 7  # of magnitudes, at most, each with a relative error of 2^-53
    product = 4 * 2**8  # M in units of B, the largest right integer, at least
    step = Fraction(product, CONSTANTS["kLargestModulus"])
    wrapped = (Fraction(1, 2) - largest_offset()) * product  # below 2^(16 * digits) again
    return [
        below("relative error of the rest, in 2^-40", float(additions * Fraction(1, 2**13)), 1),
        below("1, and a wrong element in units of B", 1, float(step - 1)),
        below("1, and a wrapped element in units of B", 1, float(wrapped)),
        below("highest bit of a product of two elements", 2 * CONSTANTS["kHighest"], 1023),
        below("exponent of a digit taken alone", 48 * 7 + 49 + CONSTANTS["kHighest"], 1023),
    ]


def plans() -> list[Row]:
    """For every width of elements: M is at least four times the largest sum of K products."""
    wrong = 0
    product, kept = 1, []
    for p in MODULI:
        product *= p
        kept.append((product.bit_length() - 1, product))
    for bits in range(1, kept[-1][0] + 1):
        chosen = next(m for whole, m in kept if whole >= bits)
        wrong += chosen < 2**bits
    return [at_most("numbers of bits that the moduli chosen do not hold", wrong, 0)]


def main() -> int:
    rows = [*residues(), *products(), *recombination(), *systems(), *plans(), *limbs()]
    width = max(len(row[0]) for row in rows)
    for name, found, relation, allowed, holds in rows:
        print(f"{name:{width}}  {found} {relation} {allowed}{'' if holds else '  DOES NOT HOLD'}")
    return 0 if all(row[-1] for row in rows) else 1


if __name__ == "__main__":
    sys.exit(main())
