# SPDX-License-Identifier: Apache-2.0
"""Works out the error bounds of the fast phases, and holds measured errors against them.

Each bound is a sum of one term for each rounding and each cut, all rounded up, with the constants
read from elementary_tables.h. Prints a table: the computed bound, the one claimed
in the code, the one used in the rounding test, and the largest error met in a sample. Ends with
status 1 unless measured <= computed <= claimed < used in every row.
"""

import argparse
import math
import re
import sys

import gmpy2
import numpy as np
from gmpy2 import mpfr

from korvex_tools.elementary.probe import Probe
from korvex_tools.source_tree import SOURCE_TREE

CONTEXT = gmpy2.context(precision=120, round=gmpy2.RoundUp)
TABLES = (SOURCE_TREE / "korvex" / "arithmetic" / "elementary" / "elementary_tables.h").read_text()
U = mpfr(2) ** -53  # relative error of one rounding
HEX = r"-?0x[0-9a-f.]+p[+-]\d+"


def constant(name):
    return mpfr(float.fromhex(re.search(rf"{name} = ({HEX})", TABLES)[1]))


def table(name):
    body = re.search(rf"{name}\[\w+\] = {{\n(.*?)\n}};", TABLES, re.DOTALL)[1]
    return [tuple(mpfr(float.fromhex(x)) for x in re.findall(HEX, row)) for row in body.split("\n")]


def log2(x):
    return float(gmpy2.log2(x))


# ---- exp ----

LARGEST_COUNT = 68881  # 746 * 64 / log 2, and one


class ReducedExp:
    """Bounds of reduced_exp; `direct` where no multiple of log(2)/64 was taken off."""

    def __init__(self, direct):
        step = gmpy2.const_log2() / 64
        step_high, step_low = constant("kExpStepHigh"), constant("kExpStepLow")
        # The count is off by its own rounding too: 2^-53 of 68881, twice.
        r = self.r = step / 2 * (1 + 4 * U * LARGEST_COUNT)
        cube = r**3 / 6 * (1 + r)
        r_low = 0 if direct else U * 2**-7 + U * LARGEST_COUNT * abs(step_low)
        tail = _horner_error([mpfr(1) / math.factorial(k) for k in range(8, 2, -1)], r)
        per_cube = (2 * U + U * U) / 6 * (1 + r) + tail + U / 6 * (1 + r)  # cube, tail, their fma
        self.error = (
            r**9 / math.factorial(9) * (1 + r)  # the series is cut
            + r**3 * per_cube
            + U * (cube + r_low + U * r * r)  # rest
            + U * (cube + r_low + 2 * U * r)  # sum.error + rest
            + r_low * r * r  # the square and cube of r take r_low in to first order only
            + 4 * U * r_low
        )
        if not direct:
            self.error += LARGEST_COUNT * abs(step - step_high - step_low) * 2  # 120-bit log 2
        self.low = cube + r_low + U * r
        # All terms that are left when direct hold a factor r^3, so r gives the worst quotient.
        self.relative = self.error / (r * (1 - r)) if direct else None


def _horner_error(coefficients, r):
    """Of a polynomial by fused steps, first coefficient of the highest power; rounded constants."""
    error, value = mpfr(0), mpfr(0)
    for i, exact in enumerate(coefficients):
        value = abs(exact) + r * value
        error = r * error + U * abs(exact) + (U * value if i else 0)
    return error


def exp_pair_error():
    """Absolute, for a table value of 1; a larger one makes it no larger relatively."""
    e = ReducedExp(direct=False)
    cross = e.low + 2 * U * e.r  # t.high * e.low, t.low * e.high, product.error
    return (
        e.error
        + U * cross * 2  # two fused steps
        + U * e.low  # t.low * e.low is left out
        + U * U  # the table
        + U * (U + cross) * 3  # t.low + cross, sum.error + that
    )


def exp_relative():
    e = ReducedExp(direct=False)
    return exp_pair_error() / (1 - e.r)


# ---- expm1 ----


def expm1_error_of_exp():
    """Relative to exp(y); without a reduction the error is one of exp(y) - 1 < 1/128."""
    # exp(y) - 1 in the scale of the table, 2^-k: exp(y) / 2^k is at least the table value / 1.006.
    reduced = exp_pair_error() * 2 + 8 * U * U  # a table value below 2, and head.error
    return max(reduced, ReducedExp(direct=True).relative / 128)


def expm1_relative():
    least = gmpy2.const_log2() / 128 * (1 - mpfr(2) ** -30)  # with a reduction
    reduced = expm1_error_of_exp() * gmpy2.exp(least) / gmpy2.expm1(least)
    return max(reduced, ReducedExp(direct=True).relative)


# ---- log ----


def log_errors(entry_errors):
    """Absolute and relative, by what gives both for an entry of the table."""
    entries = table("kLogTable")
    worst = mpfr(0), mpfr(0)
    for i, entry in enumerate(entries):
        halved = i >= int(re.search(r"kLogHalfFrom = (\d+)", TABLES)[1])
        low, high = (mpfr(1 + (i + end) / 256) / (2 if halved else 1) for end in (0, 1))
        for k in (0, *(2**p for p in range(11)), *(-(2**p) for p in range(11))):
            worst = tuple(map(max, worst, entry_errors(entry, low, high, k)))
    return worst


def _log_entry(entry, low, high, k):
    """Absolute and relative; x = m 2^k' with k' from k to 2k and m from low to high."""
    c, _, t_low = entry
    r = max(abs(low * c - 1), abs(high * c - 1))
    r_low = mpfr(0) if c == 1 else U * (1 + r)
    ends = abs(gmpy2.log(low)), abs(gmpy2.log(high))
    tail = _horner_error([mpfr(1) / n for n in range(9, 2, -1)], r)
    cube = r**3 / 3 * (1 + r)
    series = (
        r**10 / 10 * (1 + r)  # the series is cut
        + r**3 * tail
        + cube * (3 * U + 3 * U * U)  # square, cube, their product with the tail
        + r**3 * r_low * (1 + 2 * r)  # of log1p(r + r_low) - log1p(r)
        + r_low * r_low
        + r_low * U * (1 + 2 * r)  # cross, twice
        + U * (2 * U * r * r + r_low)
        + U * (cube + r_low + U * r * r)  # rest
        + U * (cube + r_low + 2 * U * r)  # series.error + rest
    )
    if c == 1 and k == 0:
        return series, series / (r * (1 - r))  # as in ReducedExp: a factor r^3 in each term
    count = 2 * abs(k)
    ln2_high, ln2_low = constant("kLn2High"), constant("kLn2Low")
    size = count * ln2_high + 1
    table_low = U * size + count * abs(ln2_low) + abs(t_low)
    least = min(ends) if k == 0 else abs(k) * gmpy2.const_log2() - max(ends)
    others = (
        U * U  # the table
        + count * abs(gmpy2.const_log2() - ln2_high - ln2_low) * 2
        + U * (count * abs(ln2_low) + abs(t_low))
        + U * table_low
        + U * (U * size + table_low)
        + U * (U * size + table_low + cube + r_low + U * r)  # low
    )
    return series + others, (series + others) / least


# ---- first tries ----
#
# Roundings count as half the last place of the largest number that may be rounded there. Steps that
# are fused on some processors count as two roundings.


def half_place(size):
    return mpfr(2) ** (int(gmpy2.floor(gmpy2.log2(size))) - 53)


def _paired_error(coefficients, r):
    """Of paired_series, lowest coefficient first; products and sums rounded by themselves."""

    def constant_error(exact):
        return mpfr(0) if 1 / exact in (2, 4, 8) else half_place(exact)  # powers are exact

    def pair(low, high):
        product = r * high
        value = low + product
        error = constant_error(low) + r * constant_error(high)
        return value, error + half_place(product) + half_place(value)

    square = r * r
    value, error = coefficients[6], constant_error(coefficients[6])
    for place in (4, 2, 0):
        others, others_error = pair(*coefficients[place : place + 2])
        product = square * value
        error = square * error + half_place(square) * value + half_place(product) + others_error
        value = others + product
        error += half_place(value)
    return error


def _quick_reduction():
    """Bounds of r, of r_low and of the error of both."""
    count = 746 * 16 / gmpy2.const_log2() + 1
    step = gmpy2.const_log2() / 16
    step_high, step_low = 4 * constant("kExpStepHigh"), 4 * constant("kExpStepLow")
    r = step / 2 * (1 + 4 * U * count)
    second = count * abs(step_low)
    r_low = half_place(r)
    error = (
        count * abs(step - step_high - step_low) * 2  # 120-bit log 2
        + 3 * half_place(second)  # the product, twice, and the difference before the last step
        + 2 * half_place(r_low + second)
    )
    return r, r_low, error


def quick_exp_error(head=2):
    """Absolute, of high + low, for table values up to the one given; the largest is below 2."""
    r, r_low, reduction = _quick_reduction()
    tail_error = _paired_error([1 / gmpy2.fac(k) for k in range(2, 9)], r)
    tail = (gmpy2.exp(r) - 1 - r) / r**2
    rest = r**2 * tail + r_low
    table = U * (1 + r) * head  # t.low (1 + r)
    cross = table + half_place(head * r)
    # Without a fused multiply-add: head less its first 26 bits by those of r.
    others = mpfr(2) ** -25 * r
    low = head * rest + cross
    relative = (
        reduction * (1 + r)
        + r**9 / gmpy2.fac(9) * (1 + r)  # the series is cut
        + r_low * r * (1 + r)  # r_low enters to first order
        + r**2 * tail_error
        + half_place(r**2) * tail
        + 3 * half_place(rest + mpfr(2) ** -25 * r)  # the last with what r has beside 26 bits
        + U * U  # the table
    )
    return (
        head * relative
        + U * rest  # the table's second word meets r alone
        + 2 * half_place(table)
        + 3 * half_place(cross + others)
        + 2 * half_place(low)  # head rest + cross
        + half_place(low + half_place(mpfr(head) * (1 + r)))  # + sum.error
    )


def _direct_quick_exp_error(r):
    """As quick_exp_error, for arguments up to r that nothing is taken off."""
    tail_error = _paired_error([1 / gmpy2.fac(k) for k in range(2, 9)], r)
    tail = (gmpy2.exp(r) - 1 - r) / r**2
    rest = r**2 * tail
    return (
        r**9 / gmpy2.fac(9) * (1 + r)  # the series is cut
        + r**2 * tail_error
        + U * r**2 * tail
        + 3 * U * (rest + mpfr(2) ** -25 * r)
        + U * (rest + U * (1 + r))  # + sum.error
    )


def _quick_series(r, r_low):
    """Of r + rest, and an upper bound of rest, for arguments up to r."""
    tail_error = _paired_error([mpfr(1) / n for n in range(2, 9)], r)
    tail = (r + gmpy2.log1p(-r)) / -(r**2)  # the larger side
    rest = r**2 * tail + 2 * r_low
    error = (
        r**9 / 9 * (1 + 2 * r)  # the series is cut
        + r**2 * tail_error
        + half_place(r**2) * tail
        + half_place(r**2 * tail)  # the product, and its sum with what r_low adds
        + half_place(rest)
    )
    if r_low:
        error += r_low * r**2 * (1 + 2 * r) + r_low**2 + 2 * half_place(2 * r_low)
    return error, rest


def _quick_log_entry(entry, low, high, k):
    """Absolute and relative; x = m 2^k' with k' from k to 2k and m from low to high."""
    c, t_high, t_low = entry
    r = max(abs(low * c - 1), abs(high * c - 1))
    if c == 1 and k == 0:
        r *= 1 - mpfr(2) ** -52  # the end belongs to the next entry
        series, _ = _quick_series(r, mpfr(0))
        # In each binade of r below this one the error is a quarter, and rounded alike.
        return series, max(
            _quick_series(r / 2**p, mpfr(0))[0] / (r / 2 ** (p + 1) * (1 - r)) for p in range(40)
        )
    assert k or abs(t_high) >= r, "the sum of the table's logarithm and r is not in order"
    series, rest = _quick_series(r, half_place(1 + r))
    count = 2 * abs(k)
    ln2_high, ln2_low = constant("kLn2High"), constant("kLn2Low")
    size = count * ln2_high + 1
    low_parts = 2 * half_place(size) + count * abs(ln2_low) + abs(t_low)
    least = min(abs(gmpy2.log(low)), abs(gmpy2.log(high)))
    if k:
        ends = max(abs(gmpy2.log(low)), abs(gmpy2.log(high)))
        least = abs(k) * gmpy2.const_log2() - ends
    others = (
        U * U  # the table
        + count * abs(gmpy2.const_log2() - ln2_high - ln2_low) * 2
        + 4 * half_place(low_parts)
        + half_place(low_parts + rest)  # low
    )
    return series + others, (series + others) / least


def _quick_quotient_relative():
    """Of n / d by a quotient cut to 26 bits, whose correction is up to 2^-25 of it."""
    correction = mpfr(2) ** -25 * (1 + mpfr(2) ** -20)
    return 8 * U * correction


def quick_sigmoid_relative():
    """An error of E passes on with a factor of at most 1; high + low is at least 0.978."""
    passed_on = quick_exp_error() / mpfr("0.978") * (1 + mpfr(2) ** -20)
    return passed_on + _quick_quotient_relative() + 4 * U * U


def of_tanh(result):
    """The size of a result that the error of quick_tanh is relative to."""
    return result**2 + abs(result) * mpfr(2) ** -23


def quick_tanh_errors():
    """Absolute, and relative to of_tanh.

    tanh is (T - w) / (T + w) with T = exp(2 x) / 2^k and w = 2^-k, which passes an error of T on
    with the factor 2 w / (T + w)^2.
    """
    r, _, _ = _quick_reduction()
    ratios = []
    absolute_error = mpfr(0)
    own = _quick_quotient_relative() + 8 * U * U
    for n in range(1, 16 * 59):
        k, head = n // 16, gmpy2.exp2(mpfr(n % 16) / 16)
        w, least = mpfr(2) ** -k, head * gmpy2.exp(-r) * (1 - 2 * U)
        error = quick_exp_error(head) * 2 * w / (least + w) ** 2 * (1 + mpfr(2) ** -20)
        # What is below the numerator's last place is not relative to it where that is small.
        error += own + 2 * U * U / (least + w)
        absolute_error = max(absolute_error, error)
        with gmpy2.context(CONTEXT, round=gmpy2.RoundDown):
            result = (least - w) / (least + w)
        ratios.append(error / of_tanh(result))
    # No multiple of log(2)/16 is taken off.
    upper = r
    while upper > mpfr(2) ** -27:
        lower = upper * mpfr("0.98")
        with gmpy2.context(CONTEXT, round=gmpy2.RoundDown):
            result = gmpy2.tanh(lower / 2)
        error = _direct_quick_exp_error(upper) / 2 + own * upper / 2 + 2 * U * U
        absolute_error = max(absolute_error, error)
        ratios.append(error / of_tanh(result))
        upper = lower
    return absolute_error, max(ratios)


# ---- quotients ----


def quotient_relative():
    """Of pair_quotient for normalised pairs: corrections of at most 3 U, four roundings."""
    correction = 3 * U + 4 * U * U
    return 2 * U * U + 4 * U * correction


def sigmoid_relative():
    return exp_relative() * (1 + mpfr(2) ** -20) + quotient_relative() + 4 * U * U


def tanh_relative():
    return expm1_relative() * (1 + mpfr(2) ** -20) + quotient_relative() + 4 * U * U


def tanh_absolute():
    """tanh is e / (e + 2), which passes on an error of e with the factor 2 / (e + 2)^2.

    That of e is one of e + 1, and 2 (e + 1) / (e + 2)^2 is at most 1/2.
    """
    passed_on = expm1_error_of_exp() / 2 * (1 + mpfr(2) ** -20)
    return passed_on + quotient_relative() + 4 * U * U


# ---- measuring ----


def _reduced_reference(x, row):
    return gmpy2.expm1(mpfr(x) - int(row[2]) * gmpy2.const_log2() / 64)


REFERENCES = {
    "exp": lambda x, _: gmpy2.exp(mpfr(x)),
    "log": lambda x, _: gmpy2.log(mpfr(x)),
    "expm1": lambda x, _: gmpy2.expm1(mpfr(x)),
    "sigmoid": lambda x, _: 1 / (1 + gmpy2.exp(-mpfr(x))),
    "tanh": lambda x, _: gmpy2.tanh(mpfr(x)),
    "reduced_exp": _reduced_reference,
}
REFERENCES |= {f"quick_{name}": REFERENCES[name] for name in ("exp", "log", "sigmoid", "tanh")}


def relative(exact):
    return abs(exact)


def absolute(_):
    return 1


def of_power(exact):
    """Of 2^k, for a number in [2^k, 2^(k + 1))."""
    return mpfr(2) ** (gmpy2.get_exp(exact) - 1)


def of_exponential(expm1):
    return expm1 + 1


def measured(probe, name, x, size):
    rows = probe.pairs(name, x)
    worst = mpfr(0)
    with gmpy2.context(precision=240):
        for value, row in zip(x.tolist(), rows.tolist(), strict=True):
            exponent = 0 if name == "reduced_exp" else int(row[2])
            exact = REFERENCES[name](value, row)
            error = abs((mpfr(row[0]) + mpfr(row[1])) * mpfr(2) ** exponent - exact)
            worst = max(worst, error / size(exact))
    return worst


def samples(count):
    rng = np.random.default_rng(5)

    def uniform(low, high):
        return rng.uniform(low, high, count)

    def spread(low, high):
        return np.ldexp(rng.uniform(1, 2, count), rng.integers(low, high, count))

    near = np.concatenate([1 - spread(-40, -7), 1 + spread(-40, -7), uniform(0.99, 1.01)])
    direct = spread(-30, -8)
    tanh = np.concatenate(
        [direct / 2, uniform(0.0027, 0.03), uniform(0.0027, 0.5), uniform(0.5, 20)]
    )
    return {
        "exp": np.concatenate([uniform(-745, 709), uniform(-1, 1)]),
        "direct": direct,
        "log": np.concatenate([near, uniform(0.5, 2), spread(-1000, 1000)]),
        "expm1": np.concatenate([direct, uniform(0.0054, 0.06), uniform(0.0054, 1)]),
        "expm1 from 1": uniform(1, 39),
        "sigmoid": np.concatenate([uniform(-650, 38), uniform(-3, 3)]),
        "tanh": tanh,
        "quick_tanh": tanh[tanh >= 2.0**-27],
    }


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--count", type=int, default=20_000, help="sample of each kind")
    options = parser.parse_args()
    gmpy2.set_context(CONTEXT)
    x = samples(options.count)
    probes = Probe(), Probe(options=())  # with and without a fused multiply-add

    def met(name, kind=None, size=relative):
        # Other phases have the same bits with both.
        used = probes if name.startswith("quick") else probes[:1]
        return max(measured(probe, name, x[kind or name], size) for probe in used)

    log_absolute, log_relative = log_errors(_log_entry)
    quick_absolute, quick_relative = log_errors(_quick_log_entry)
    tanh_absolute_error, tanh_relative_error = quick_tanh_errors()
    # Name, bound, claimed, used, measured; claims and uses are exponents of 2.
    rows = [
        ("reduced_exp", ReducedExp(False).error, -74, 0, met("reduced_exp", "exp", absolute)),
        (
            "reduced_exp, k = j = 0",
            ReducedExp(True).relative,
            -67.5,
            0,
            met("reduced_exp", "direct"),
        ),
        ("exp_pair", exp_relative(), -73, -71, met("exp")),
        ("log_pair", log_relative, -67.5, -66, met("log")),
        ("log_pair, absolute", log_absolute, -75.5, -74, met("log", size=absolute)),
        ("expm1_pair", expm1_relative(), -65, 0, met("expm1")),
        (
            "expm1_pair, of exp",
            expm1_error_of_exp(),
            -72.5,
            0,
            max(met("expm1", kind, of_exponential) for kind in ("expm1", "expm1 from 1")),
        ),
        (
            "quick_exp, of 2^k",
            quick_exp_error(),
            -61,
            log2(mpfr(1.0625)) - 61,
            met("quick_exp", "exp", of_power),
        ),
        ("quick_log", quick_relative, -58.8, log2(mpfr(1.25)) - 59, met("quick_log", "log")),
        (
            "quick_log, absolute",
            quick_absolute,
            -66.9,
            log2(mpfr(1.25)) - 67,
            met("quick_log", "log", absolute),
        ),
        (
            "quick_sigmoid",
            quick_sigmoid_relative(),
            -61,
            log2(mpfr(1.0625)) - 61,
            met("quick_sigmoid", "sigmoid"),
        ),
        (
            "quick_tanh, of_tanh",
            tanh_relative_error,
            -49.5,
            log2(mpfr(1.75)) - 50,
            met("quick_tanh", "quick_tanh", of_tanh),
        ),
        (
            "quick_tanh, absolute",
            tanh_absolute_error,
            -62.5,
            -62,
            met("quick_tanh", "quick_tanh", absolute),
        ),
        ("pair_quotient", quotient_relative(), -100, 0, mpfr(0)),
        ("sigmoid", sigmoid_relative(), -71, -69, met("sigmoid")),
        ("tanh", tanh_relative(), -65, -64, met("tanh")),
        ("tanh, absolute", tanh_absolute(), -72.5, -71, met("tanh", size=absolute)),
    ]
    print("log2 of the error       computed  claimed  used    measured")
    failed = False
    for name, bound, claimed, used, error in rows:
        sample = log2(error) if error else -math.inf
        good = sample <= log2(bound) <= claimed < used
        failed = failed or not good
        figures = f"{log2(bound):8.2f} {claimed:8} {round(used, 2) or '-':>6} {sample:10.2f}"
        print(f"{name:23} {figures}  {'' if good else 'FAILED'}".rstrip())
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
