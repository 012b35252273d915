# SPDX-License-Identifier: Apache-2.0
"""Text, CSV, TSV and NPY in every form, and every figure printed, against rational arithmetic."""

import gzip
import re
from decimal import Context, Decimal
from fractions import Fraction

import numpy as np
import pytest

from korvex import exact
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
    "counted.csv:2": (text(NAMED_CSV), VALUES),  # shown by its name
    "bare.csv:1": (text(BARE_CSV), VALUES),
    "number_as_name.csv:2": (text("2,x\n5,6\n"), [5.0]),
    "tabs.tsv:value": (text("a b\tvalue\nx,y\t1.5\nz\t2.5\n"), [1.5, 2.5]),
    "lines_in_quotes.csv:n": (text('note,n\n"two\nlines, ""quoted""",1\n"b",2.5\n'), [1.0, 2.5]),
    "pluses_and_blanks.txt": (text("+1\n .5\n5. \n"), [1.0, 0.5, 5.0]),
    "uneven.csv:a": (text("a,b\n1,2\n3\n4,5,6\n"), [1.0, 3.0, 4.0]),
    "semicolons_are_text.csv:b": (text("a;c,b\n1;2,3\n"), [3.0]),
    "colons:in:path.csv:a:b": (text("a:b\n4\n"), [4.0]),
    "zipped.csv.gz:value": (gzipped(text(NAMED_CSV)), VALUES),
    "members.csv.gz:a": (
        lambda path: path.write_bytes(gzip.compress(b"a\n1\n") + gzip.compress(b"2\n")),
        [1.0, 2.0],
    ),
    "doubles.npy": (npy(np.array(VALUES)), VALUES),
    "doubles_zipped.npy.gz": (gzipped(npy(np.array(VALUES))), VALUES),
    "big_endian.npy": (npy(np.array(VALUES, ">f8")), VALUES),
    "float32.npy": (npy(SINGLES), [float(v) for v in SINGLES]),
    "int64.npy": (npy(BIG_INTEGERS), [int(v) for v in BIG_INTEGERS]),
    "uint64.npy": (npy(np.array([2**64 - 1, 1], np.uint64)), [2**64 - 1, 1]),
    "halves.npy": (npy(np.array([0.1, 6e4], np.float16)), [float(np.float16(0.1)), 6e4]),
    "records.npy:price": (
        npy(np.array([(1, 0.1), (2, 0.2)], [("id", "<i4"), ("price", ">f8")])),
        [0.1, 0.2],
    ),
    "matrix.npy": (npy(MATRIX), VALUES[:6]),
    "column_order.npy": (npy(np.asfortranarray(MATRIX)), MATRIX.ravel("F").tolist()),
    "scalar.npy": (npy(np.array(0.1)), [0.1]),
    "truth.npy": (npy(np.array([True, True, False])), [1.0, 1.0, 0.0]),
    "cancelling.txt": (text("0.1\n-0.1\n"), [0.1, -0.1]),
    "thousand_and_one.txt": (text("0.1\n" * 1001), [0.1] * 1001),
}


def file_of(source):
    return re.sub(r"(\.(csv|tsv|npy)(\.gz)?):.*", r"\1", source)


@pytest.fixture(scope="module")
def run(korvex, tmp_path_factory):
    folder = tmp_path_factory.mktemp("forms")
    for source, (write, _) in FORMS.items():
        path = folder / file_of(source)
        if path.suffix == ".gz" and ".npy" in path.name:
            write(folder / "made.npy")
            (folder / "made.npy").rename(path)
        else:
            write(path)
    return korvex("sum", *FORMS, "--digits", 2000, folder=folder)


@pytest.fixture(params=FORMS)
def form(request, run):
    """The rows printed for one source, and its values."""
    shown = {"counted.csv:2": "counted.csv:value"}
    return run.figures(shown.get(request.param, request.param)), FORMS[request.param][1]


def test_run_succeeds_without_a_word_on_standard_error(run):
    assert (run.code, run.errors) == (0, "")


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
    assert float(rows["numpy.sum"].split()[0]) == np.sum(np.array(values, np.float64))


def test_sum_one_by_one_is_that_of_a_loop(form):
    rows, values = form
    total = 0.0
    for value in values:
        total += float(value)
    assert float(rows["one by one"].split()[0]) == total


def test_float64_is_the_rational_sum_rounded_once(form):
    rows, values = form
    assert bits(float(rows["float64"].split()[0])) == bits(round_to_double(exact_sum(values)))


@pytest.mark.parametrize("name", ["one by one", "numpy.sum", "float64"])
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


def test_checksum_is_that_of_the_accumulator(form):
    rows, values = form
    total = exact.Sum()
    for value in values:
        total.add(np.array(value))
    assert rows["checksum"] == total.checksum()


def test_some_float_sum_is_off_and_the_exact_one_is_not(run):
    """The forms would show nothing if plain sums were exact on all of them."""
    rows = run.figures("plain.txt")
    assert not rows["numpy.sum"].endswith(("exact", "nearest float64"))
    assert rows["float64"].endswith("nearest float64")


# --- Limits


# Name, lines, and what the sum is in float64 and in decimal.
NOT_FINITE = {
    "infinite": (["1", "inf"], "inf", "Infinity"),
    "minus_infinite": (["-Infinity", "3"], "-inf", "-Infinity"),
    "nan": (["1", "nan"], "nan", "NaN"),
    "both_infinities": (["inf", "-inf"], "nan", "NaN"),
}


@pytest.fixture(scope="module")
def limits_run(korvex, tmp_path_factory):
    folder = tmp_path_factory.mktemp("limits")
    for name, (lines, _, _) in NOT_FINITE.items():
        (folder / name).write_text("\n".join(lines))
    (folder / "subnormal").write_text("5e-324")
    (folder / "beyond_range").write_text("1.7e308\n1.7e308\n")
    (folder / "many_digits").write_text(f"{2.0**1000!r}\n{2.0**-1000!r}\n")
    wide = [2.0**k for k in (900, 600, 300, 0, -300)]
    (folder / "five_limbs").write_text("\n".join(map(repr, wide)))
    names = [*NOT_FINITE, "subnormal", "beyond_range", "many_digits", "five_limbs"]
    return korvex("sum", *names, "--digits", 2000, folder=folder)


def test_limits_are_no_failures(limits_run):
    assert (limits_run.code, limits_run.errors) == (0, "")


@pytest.mark.parametrize("name", NOT_FINITE)
def test_a_sum_that_is_not_finite_is_that_of_float64_and_said_so(limits_run, name):
    _, nearest, decimal = NOT_FINITE[name]
    rows = limits_run.figures(name)
    assert (rows["exact sum"], rows["exact mean"], rows["float64"]) == (decimal, decimal, nearest)
    assert "there is no exact sum" in rows[""]


def test_subnormal_sum_is_exact(limits_run):
    rows = limits_run.figures("subnormal")
    assert Fraction(Decimal(rows["exact sum"])) == Fraction(5e-324)
    assert rows[""] == ""


def test_sum_beyond_the_range_of_float64_is_exact(limits_run):
    rows = limits_run.figures("beyond_range")
    assert Fraction(Decimal(rows["exact sum"])) == 2 * Fraction(1.7e308)
    assert rows["numpy.sum"].split() == ["inf", "overflowed"]
    assert "beyond the range of float64: the decimals hold it" in rows[""]


def test_sum_of_more_than_1000_digits_is_shown_whole(limits_run):
    rows = limits_run.figures("many_digits")
    assert Fraction(Decimal(rows["exact sum"])) == Fraction(2) ** 1000 + Fraction(2) ** -1000


def test_sum_that_four_limbs_do_not_hold_is_pointed_out(limits_run):
    rows = limits_run.figures("five_limbs")
    assert [float(limb) for limb in rows["limbs"].split()] == [2.0**900, 2.0**600, 2.0**300, 1.0]
    assert "the fourth is rounded" in rows[""]
    exact_value = sum(Fraction(2) ** k for k in (900, 600, 300, 0, -300))
    assert Fraction(Decimal(rows["exact sum"])) == exact_value
