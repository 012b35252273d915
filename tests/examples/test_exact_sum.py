# SPDX-License-Identifier: Apache-2.0
"""Every form of input, and every figure printed for it, against rational arithmetic."""

import gzip
import hashlib
import re
import struct
from decimal import Context, Decimal
from fractions import Fraction

import numpy as np
import pytest

from korvex_tools.references.exact_arithmetic import (
    bits,
    canonical_limbs,
    exact_sum,
    round_to_double,
    ulp,
)

# A third is no finite decimal, 1e17 absorbs what follows, and the mean of seven does not end.
VALUES = [0.1, 1e17, 1 / 3, -1e17, 2.5e-9, 3.0, -0.7]
TEXT = "".join(f"{value!r}\n" for value in VALUES)
NAMED_CSV = "time, value,note\r\n" + "".join(
    f'"{i}", {v!r},"a,b"\r\n' for i, v in enumerate(VALUES)
)
BARE_CSV = "".join(f"{v!r},0\n" for v in VALUES)


def npy(array):
    return lambda path: np.save(path, array)


def text(content):
    return lambda path: path.write_bytes(content.encode())


def gzipped(write):
    def write_gzipped(path):
        write(path)
        path.write_bytes(gzip.compress(path.read_bytes()))

    return write_gzipped


MATRIX = np.array(VALUES[:6]).reshape(2, 3)
BIG_INTEGERS = np.array([2**53, 1, -(2**62)], np.int64)
SINGLES = np.array(VALUES, np.float32)

# Source as the user gives it, how its file is made, and the float64 values that it holds.
FORMS = {
    "plain.txt": (text(TEXT), VALUES),
    "blank_lines": (text("\n 1.5 \r\n\n\t2e3\n-inf".replace("-inf", "-7")), [1.5, 2000.0, -7.0]),
    "byte_order_mark.txt": (text("\ufeff0.5\n0.25\n"), [0.5, 0.25]),
    "one_value.txt": (text("0.1"), [0.1]),
    "plain.txt.gz": (gzipped(text(TEXT)), VALUES),
    "gzip_without_its_name": (gzipped(text(TEXT)), VALUES),
    "named.csv:value": (text(NAMED_CSV), VALUES),
    "counted.csv:2": (text(NAMED_CSV), VALUES),
    "bare.csv:1": (text(BARE_CSV), VALUES),
    "number_as_name.csv:2": (text("2,x\n5,6\n"), [5.0]),
    "colons:in:path.csv:a:b": (text("a:b\n4\n"), [4.0]),
    "zipped.csv.gz:value": (gzipped(text(NAMED_CSV)), VALUES),
    "doubles.npy": (npy(np.array(VALUES)), VALUES),
    "doubles_zipped.npy.gz": (gzipped(npy(np.array(VALUES))), VALUES),
    "big_endian.npy": (npy(np.array(VALUES, ">f8")), VALUES),
    "float32.npy": (npy(SINGLES), [float(v) for v in SINGLES]),
    "int64.npy": (npy(BIG_INTEGERS), [float(v) for v in BIG_INTEGERS]),
    "matrix.npy": (npy(MATRIX), VALUES[:6]),
    "column_order.npy": (npy(np.asfortranarray(MATRIX)), VALUES[:6]),
    "scalar.npy": (npy(np.array(0.1)), [0.1]),
    "truth.npy": (npy(np.array([True, True, False])), [1.0, 1.0, 0.0]),
    "cancelling.txt": (text("0.1\n-0.1\n"), [0.1, -0.1]),
    "thousand_and_one.txt": (text("0.1\n" * 1001), [0.1] * 1001),
}


def file_of(source):
    return re.sub(r"(\.csv(\.gz)?):.*", r"\1", source)


@pytest.fixture(scope="module")
def run(exact_sum, tmp_path_factory):
    folder = tmp_path_factory.mktemp("forms")
    for source, (write, _) in FORMS.items():
        path = folder / file_of(source)
        if path.suffix == ".gz" and ".npy" in path.name:
            write(folder / "made.npy")
            (folder / "made.npy").rename(path)
        else:
            write(path)
    return exact_sum(*FORMS, "--digits", 2000, folder=folder)


@pytest.fixture(params=FORMS)
def form(request, run):
    """The rows printed for one source, and its values."""
    return run.figures(request.param), FORMS[request.param][1]


def test_run_succeeds_without_a_word_on_standard_error(run):
    assert (run.code, run.errors) == (0, "")


def test_first_line_names_the_device(run):
    assert re.match(r"device: (emulated \(.+\)|CUDA): .+", run.device_line)


def test_values_are_counted(form):
    rows, values = form
    assert rows["title"].endswith(f": {len(values)} value" + "s" * (len(values) != 1))


def test_sum_is_the_rational_sum(form):
    rows, values = form
    assert Fraction(Decimal(rows["exact sum"])) == exact_sum(values)


def test_mean_is_the_rational_mean_at_1000_digits(form):
    rows, values = form
    mean = exact_sum(values) / len(values)
    rounded = Context(prec=1000).divide(Decimal(mean.numerator), Decimal(mean.denominator))
    shown = rows["exact mean"].partition(" (")[0]
    assert Decimal(shown.replace("...", "")) == rounded


def test_limbs_are_those_of_the_rational_sum(form):
    rows, values = form
    limbs = [float(limb) for limb in rows["limbs"].split()]
    assert list(map(bits, limbs)) == list(map(bits, canonical_limbs(exact_sum(values), 4)))


def test_numpy_sum_is_that_of_numpy(form):
    rows, values = form
    assert float(rows["numpy.sum"].split()[0]) == np.sum(values)


@pytest.mark.parametrize("name", ["numpy.sum", "torch.sum", "tqx_sum"])
def test_distance_of_float_sum_is_counted_from_the_rational_sum(form, name):
    rows, values = form
    shown, _, distance = rows[name].partition(" ")
    assert distance.strip() == expected_distance(float(shown), exact_sum(values))


def expected_distance(float_sum, exact):
    if Fraction(float_sum) == exact:
        return "exact"
    if exact == 0:
        return "off by all of itself: the exact sum is 0"
    ulps = (Fraction(float_sum) - exact) / ulp(round_to_double(exact))
    nearest = ", the nearest float64" if float_sum == round_to_double(exact) else ""
    if abs(ulps) < Fraction(1, 1000):
        return f"under 0.001 ulp{nearest}"
    form = "+.3f" if abs(ulps) < 1000 else "+.3E"
    number = float(ulps) if abs(ulps) < 1000 else Decimal(ulps.numerator) / ulps.denominator
    return f"{number:{form}} ulp{nearest}"


def test_checksum_is_the_hash_of_the_collapsed_sum(form):
    rows, _ = form
    collapsed = float(rows["tqx_sum"].split()[0])
    assert rows["checksum"] == hashlib.sha256(struct.pack("<d", collapsed)).hexdigest()


def test_some_float_sum_is_off_and_tqx_sum_is_not(run):
    """The forms would show nothing if plain sums were exact on all of them."""
    rows = run.figures("plain.txt")
    assert not rows["numpy.sum"].endswith(("exact", "nearest float64"))
    assert rows["tqx_sum"].endswith("nearest float64")


# --- Limits


# Name, values, exact decimals or what stands in their place, and words of the note.
LIMITS = {
    "infinite": (["1", "inf"], Decimal(2) ** 1024, "reads one as the finite number 2**1024"),
    "minus_infinite": (["-Infinity", "3"], -(Decimal(2) ** 1024), "The sum is infinite"),
    "nan": (["1", "nan"], 3 * Decimal(2) ** 1023, "The sum is not a number"),
    "both_infinities": (["inf", "-inf"], 3 * Decimal(2) ** 1023, "The sum is not a number"),
    "subnormal": (["5e-324"], Decimal(2**52 + 1) * Decimal(2) ** -1075, "reads a subnormal limb"),
    "too_large": (["1.7e308"] * 5, Decimal(2) ** 1024, "too large for four limbs"),
}


@pytest.fixture(scope="module")
def limits_run(exact_sum, tmp_path_factory):
    folder = tmp_path_factory.mktemp("limits")
    for name, (lines, _, _) in LIMITS.items():
        (folder / name).write_text("\n".join(lines))
    (folder / "beyond_range").write_text("1.7e308\n1.7e308\n")
    (folder / "many_digits").write_text(f"{2.0**1000!r}\n{2.0**-1000!r}\n")
    wide = [2.0**k for k in (900, 600, 300, 0, -300)]
    (folder / "five_limbs").write_text("\n".join(map(repr, wide)))
    high = [1 + 2.0**-52, 2.0**-53, -(2.0**-200)]
    (folder / "not_nearest").write_text("\n".join(map(repr, high)))
    names = [*LIMITS, "beyond_range", "many_digits", "five_limbs", "not_nearest"]
    return exact_sum(*names, "--digits", 2000, folder=folder)


def test_limits_are_no_failures(limits_run):
    assert (limits_run.code, limits_run.errors) == (0, "")


@pytest.mark.parametrize("name", LIMITS)
def test_limit_shows_what_to_decimal_gives_and_explains_it(limits_run, name):
    _, printed, note = LIMITS[name]
    rows = limits_run.figures(name)
    shown, _, pointer = rows["tqx_sum_exact"].partition(" ")
    assert Context(prec=2000).create_decimal(printed) == Decimal(shown)
    assert pointer == "(see below)"
    assert note in rows[""]


@pytest.mark.parametrize("name", ["infinite", "minus_infinite", "nan", "both_infinities"])
def test_no_exact_sum_is_shown_where_there_is_none(limits_run, name):
    assert "exact sum" not in limits_run.figures(name)


def test_sum_with_subnormal_limb_is_shown_from_the_limbs_too(limits_run):
    rows = limits_run.figures("subnormal")
    assert Fraction(Decimal(rows["exact sum"])) == Fraction(5e-324)


def test_sum_beyond_the_range_of_float64_is_exact(limits_run):
    rows = limits_run.figures("beyond_range")
    assert Fraction(Decimal(rows["exact sum"])) == 2 * Fraction(1.7e308)
    assert rows["numpy.sum"].split() == ["inf", "overflowed"]
    assert "beyond the range of float64: the limbs hold it" in rows[""]


def test_sum_of_more_than_1000_digits_is_shown_from_the_limbs_too(limits_run):
    rows = limits_run.figures("many_digits")
    exact = Fraction(2) ** 1000 + Fraction(2) ** -1000
    assert Fraction(Decimal(rows["exact sum"])) == exact
    rounded = Context(prec=1000).divide(Decimal(exact.numerator), Decimal(exact.denominator))
    assert Decimal(rows["tqx_sum_exact"].split()[0]) == rounded
    assert "rounds to 1000 digits" in rows[""]


def test_full_fourth_limb_is_pointed_out(limits_run):
    rows = limits_run.figures("five_limbs")
    assert [float(limb) for limb in rows["limbs"].split()] == [2.0**900, 2.0**600, 2.0**300, 1.0]
    assert "a sum that needs a fifth is rounded at the fourth" in rows[""]


def test_collapse_that_is_not_the_nearest_float_is_pointed_out(limits_run):
    rows = limits_run.figures("not_nearest")
    assert rows["tqx_sum"] == f"{1 + 2.0**-51!r:<24} +0.500 ulp"
    assert "here not the nearest" in rows[""]
