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
    "kFractionBits": "korvex/kernels/modular/recombination.cpp",
    "kMostDwords": "korvex/kernels/modular/residues.h",
    "kDepth": "korvex/kernels/modular/residues.h",
    "kHighest": "korvex/kernels/host/modular_lines.h",
    "kMostBits": "korvex/kernels/modular/elements.h",
    "kDoubleDepth": "korvex/kernels/modular/double_products.h",
    "kDoubleDigitBits": "korvex/kernels/modular/double_residues.h",
    "kMostDoubleDigits": "korvex/kernels/modular/double_residues.h",
    "kMostDoubles": "korvex/kernels/modular/double_recombination.h",
}
LONGEST_FLOAT32 = 2**24  # integers up to it are float32
INT32 = 2**31
LONGEST_FLOAT64 = 2**53
SHIFTED = 2**51  # integers below it may be added to 1.5 * 2^52

Row = tuple[str, object, str, object, bool]


def constant(name: str) -> int:
    text = (SOURCE_TREE / HEADERS[name]).read_text()
    return int(re.search(rf"\b{name} = (\d+);", text)[1])


CONSTANTS = {name: constant(name) for name in HEADERS}


def constants_of_double_moduli() -> dict[str, int]:
    text = (SOURCE_TREE / HEADERS["kMostModuli"]).read_text()
    body = re.search(r"struct DoubleModuli \{(.*?)\};", text, re.DOTALL)[1]
    return {name: int(value) for name, value in re.findall(r"(k\w+) = (\d+);", body)}


DOUBLE = constants_of_double_moduli()


def moduli(largest: int, most: int) -> list[int]:
    """Largest first, each coprime to all before it."""
    found: list[int] = []
    candidate = largest
    while len(found) < most:
        if all(math.gcd(candidate, other) == 1 for other in found):
            found.append(candidate)
        candidate -= 1
    return found


MODULI = moduli(CONSTANTS["kLargestModulus"], CONSTANTS["kMostModuli"])
DOUBLE_MODULI = moduli(DOUBLE["kLargestModulus"], DOUBLE["kMostModuli"])


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
        at_most("doubles of 48 bits", -(-wide_most // 3), 7),
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
    return [
        at_most(f"numbers of bits that the moduli chosen do not hold, {name}", unheld(found), 0)
        for name, found in (("bytes", MODULI), ("doubles", DOUBLE_MODULI))
    ]


def unheld(found: list[int]) -> int:
    wrong = 0
    product, kept = 1, []
    for p in found:
        product *= p
        kept.append((product.bit_length() - 1, product))
    for bits in range(1, kept[-1][0] + 1):
        chosen = next(m for whole, m in kept if whole >= bits)
        wrong += chosen < 2**bits
    return wrong


# --- Products of doubles


def largest_double_residue(p: int) -> int:
    """Of an integer of at most 2^53: half of p, and what the rounded inverse is off."""
    off = abs(Fraction(1.0 / p) - Fraction(1, p)) * LONGEST_FLOAT64 * p
    return math.floor(Fraction(p, 2) + off)


def double_products() -> list[Row]:
    digit = 2 ** CONSTANTS["kDoubleDigitBits"]
    digits = CONSTANTS["kMostDoubleDigits"]
    # The highest digit is the largest; the others are at most half of the radix.
    power = DOUBLE_MODULI[0] // 2 + 1
    sum_of_digits = (digit + (digits - 1) * digit // 2) * power
    residue = max(largest_double_residue(p) for p in DOUBLE_MODULI)
    highest_digit = max(
        2 ** (bits - CONSTANTS["kDoubleDigitBits"] * (digits_of(bits) - 1))
        for bits in range(1, CONSTANTS["kMostBits"] + 1)
    )
    quotient = max(Fraction(LONGEST_FLOAT64, p) for p in DOUBLE_MODULI)
    above = max(largest_double_residue(p) - p // 2 for p in DOUBLE_MODULI)
    return [
        at_most("highest digit of an element, doubles", highest_digit, digit),
        at_most("digits of an element, doubles", digits_of(CONSTANTS["kMostBits"]), digits),
        at_most("sum of an element's digits times powers, doubles", sum_of_digits, LONGEST_FLOAT64),
        below("quotient by p, beside the shifter 1.5 * 2^52", math.ceil(quotient), SHIFTED),
        at_most("residue above p / 2, of an integer up to 2^53", above, 1),
        at_most("any residue, as a float32", residue, LONGEST_FLOAT32),
        at_most("sum of products, and what the plane held, doubles",
                CONSTANTS["kDoubleDepth"] * residue**2 + residue, LONGEST_FLOAT64),
    ]  # fmt: skip


def digits_of(bits: int) -> int:
    return max(1, -(-bits // CONSTANTS["kDoubleDigitBits"]))


def double_recombination() -> list[Row]:
    radix = 2 ** DOUBLE["kDigitBits"]
    e = [largest_double_residue(p) for p in DOUBLE_MODULI]
    fractions = [Fraction(x, p) for x, p in zip(e, DOUBLE_MODULI, strict=True)]
    quotient = math.ceil(sum(fractions))
    # Each of the additions and each inverse rounds by 2^-53 of at most the whole sum.
    off = 2 * len(e) * sum(fractions) * Fraction(1, 2**53)
    column = (sum(e) + quotient) * (radix - 1)
    carry = math.ceil(Fraction(column, radix - 1)) + 1
    bits = math.prod(DOUBLE_MODULI).bit_length()
    doubles = -(-bits // (2 * DOUBLE["kDigitBits"]))
    # The lower columns are at most half of the radix, so what the highest has left is C itself,
    # below M, and a half: at most one more than the radix where it is the highest digit of M.
    highest = radix + 1
    rest = sum(Fraction(radix // 2 * (radix + 1), radix ** (2 * i)) for i in range(1, doubles + 1))
    rest *= (1 + Fraction(1, 2**53)) ** doubles
    return [
        below("sum of e_t / p_t, off by, doubles", float(off), 0.25),
        below("a column and a carry, doubles", column + carry, LONGEST_FLOAT64),
        below("a carry, beside the shifter 1.5 * 2^52", carry, SHIFTED),
        at_most("two columns as a double", highest * radix + radix // 2, LONGEST_FLOAT64),
        below("sum of the doubles below one, in its unit", float(rest), 1),
        at_most("doubles of two columns", doubles, CONSTANTS["kMostDoubles"]),
        at_most("digits of M, doubles", 2 * doubles, DOUBLE["kDigits"]),
        at_most("double moduli with a common factor",
                sum(math.gcd(p, math.prod(DOUBLE_MODULI) // p) != 1 for p in DOUBLE_MODULI), 0),
    ]  # fmt: skip


def double_limbs() -> list[Row]:
    product = 4 * 2**24  # M in units of B, the largest right integer, at least
    step = Fraction(product, DOUBLE["kLargestModulus"])
    bits = math.prod(DOUBLE_MODULI).bit_length()
    highest = CONSTANTS["kHighest"]
    return [
        below("1, and a wrong element in units of B, doubles", 1, float(step - 1)),
        below("highest bit of an integer times the power of a row", bits + highest, 1023),
    ]


def main() -> int:
    rows = [*residues(), *products(), *recombination(), *systems(), *plans(), *limbs()]
    rows += [*double_products(), *double_recombination(), *double_limbs()]
    width = max(len(row[0]) for row in rows)
    for name, found, relation, allowed, holds in rows:
        print(f"{name:{width}}  {found} {relation} {allowed}{'' if holds else '  DOES NOT HOLD'}")
    return 0 if all(row[-1] for row in rows) else 1


if __name__ == "__main__":
    sys.exit(main())
