# SPDX-License-Identifier: Apache-2.0
"""Accumulators: what each method gives, what it refuses, and that every digit is right."""

import copy
import decimal
import hashlib
import math
import pickle
import xml.etree.ElementTree as ElementTree
from decimal import Decimal
from fractions import Fraction

import exact_oracle as oracle
import numpy as np
import pytest
from exact_arrays import (
    BORDERS,
    LEAST,
    MAX,
    REAL_DTYPES,
    drawn,
    extremes,
    float_lists,
    with_specials,
)
from exact_oracle import bits, numbers_of
from hypothesis import given
from hypothesis import strategies as st

from korvex import exact

INF, NAN = math.inf, math.nan


def float64(values):
    return np.array(values, np.float64)


def sum_of(values):
    total = exact.Sum()
    total.add(float64(values))
    return total


def dot_of(x, y):
    total = exact.Dot()
    total.add(float64(x), float64(y))
    return total


def moments_of(values):
    total = exact.Moments()
    total.add(float64(values))
    return total


MAKERS = {"Sum": sum_of, "Dot": lambda v: dot_of(v, v), "Moments": moments_of}
EACH_CLASS = pytest.mark.parametrize("make", MAKERS.values(), ids=MAKERS)


def text_of(error):
    return str(error.value)


# --- Values


@given(values=with_specials | float_lists)
def test_sum_against_rational_numbers(values):
    total, expected = sum_of(values), oracle.exact_sum(values)
    assert bits(float(total)) == bits(oracle.rounded(expected))
    for count in range(1, 5):
        assert [*map(bits, total.limbs(count))] == [*map(bits, oracle.limbs_of(expected, count))]
    assert total.limbs() == total.limbs(4) or math.isnan(expected)
    if not isinstance(expected, float):
        assert total.to_fraction() == expected
        assert Fraction(total.to_decimal()) == expected


@given(pairs=st.lists(st.tuples(st.floats(), st.floats()), max_size=10))
def test_dot_against_rational_numbers(pairs):
    x, y = zip(*pairs, strict=True) if pairs else ((), ())
    total, expected = dot_of(x, y), oracle.exact_sum(oracle.products(x, y))
    assert bits(float(total)) == bits(oracle.rounded(expected))
    assert [*map(bits, total.limbs(3))] == [*map(bits, oracle.limbs_of(expected, 3))]
    if not isinstance(expected, float):
        assert total.to_fraction() == expected


@given(values=with_specials | float_lists, correction=st.integers(-1, 4))
def test_moments_against_rational_numbers(values, correction):
    total = moments_of(values)
    squares = oracle.exact_sum(oracle.products(values, values))
    variance = oracle.exact_variance(values, correction)
    assert total.sum() == sum_of(values)
    assert total.sum_of_squares() == dot_of(values, values)
    assert bits(total.norm()) == bits(oracle.rounded_root(squares))
    assert bits(total.var(correction=correction)) == bits(oracle.rounded(variance))
    assert bits(total.std(correction=correction)) == bits(oracle.rounded_root(variance))
    assert bits(total.mean()) == bits(exact.mean(float64(values)))
    assert total.count == len(values)


@pytest.mark.parametrize("value", BORDERS, ids=float.hex)
def test_every_border_of_the_digits(value):
    """A number at a border, its neighbours and its negative: they cancel, and 1/3 is left."""
    beside = [value, math.nextafter(value, INF), math.nextafter(value, -INF)]
    beside = [each for each in beside if math.isfinite(each)]
    total = sum_of([*beside, 1 / 3, *(-each for each in beside)])
    assert total.to_fraction() == Fraction(1 / 3)
    assert sum_of(beside).to_fraction() == sum(map(Fraction, beside))
    product = dot_of(beside, [1 - 2.0**-53] * len(beside))
    assert product.to_fraction() == sum(map(Fraction, beside)) * Fraction(1 - 2.0**-53)
    squares = dot_of(beside, beside)
    assert squares.to_fraction() == sum(Fraction(each) ** 2 for each in beside)


@pytest.mark.parametrize("name", REAL_DTYPES)
def test_every_dtype_with_its_ends(name):
    for x in (extremes(name), drawn(name, 100)):
        values = numbers_of(x)
        total, products, moments = exact.Sum(), exact.Dot(), exact.Moments()
        total.add(x)
        products.add(x, x)
        moments.add(x)
        assert total.to_fraction() == oracle.exact_sum(values)
        assert products.to_fraction() == oracle.exact_sum(oracle.products(values, values))
        assert moments.sum() == total and moments.sum_of_squares() == products


def test_sum_whose_digits_all_carry():
    """All ones, then one unit more: the carry runs through every digit."""
    values = [2.0**e for e in range(-1074, 1024)]
    total = sum_of(values)
    assert total.to_fraction() == Fraction(2) ** 1024 - Fraction(2) ** -1074
    total.add(float64([LEAST]))
    assert total.to_fraction() == Fraction(2) ** 1024
    assert (total.state[:-5] == 0).sum() == 67 - 1
    total.subtract(float64([LEAST]))
    assert total == sum_of(values)


def test_many_large_numbers_stay_exact():
    total = sum_of([MAX] * 5000)
    assert total.to_fraction() == 5000 * Fraction(MAX)
    assert float(total) == INF
    assert total.limbs(2) == (INF, 0.0) and sum_of([MAX, MAX]).limbs(2) == (MAX, MAX)
    total.subtract(float64([MAX] * 4999))
    assert float(total) == MAX


# --- Subtracting undoes adding


@given(kept=with_specials, taken=with_specials)
@EACH_CLASS
def test_subtract_undoes_add(make, kept, taken):
    total = make(kept)
    arguments = [float64(taken)] * (2 if isinstance(total, exact.Dot) else 1)
    total.add(*arguments)
    total.subtract(*arguments)
    assert total == make(kept)


@pytest.mark.parametrize(
    ("value", "name"),
    [
        (1.0, "elements"),
        (INF, "positive infinities"),
        (-INF, "negative infinities"),
        (NAN, "nans"),
    ],
)
def test_a_count_below_zero_is_an_error_where_a_value_is_read(value, name):
    total = exact.Sum()
    total.subtract(float64([value]))
    if name != "elements":
        total.add(float64([1.0]))
    readings = [float, exact.Sum.limbs, exact.Sum.to_fraction, exact.Sum.to_decimal]
    for read in [*readings, lambda t: t.count]:
        with pytest.raises(ValueError) as error:
            read(total)
        assert text_of(error) == (f"the count of {name} is -1: more were taken away than added")
    assert "value undefined" in repr(total)
    total.add(float64([value]))
    assert total.count >= 0 and math.isfinite(float(total))


def test_counts_below_zero_of_moments():
    total = exact.Moments()
    total.subtract(float64([1.0]))
    readings = [exact.Moments.mean, exact.Moments.var, exact.Moments.std, exact.Moments.norm]
    for read in [*readings, lambda t: t.count, lambda t: float(t.sum())]:
        with pytest.raises(ValueError, match="the count of elements is -1"):
            read(total)
    assert repr(total) == "Moments(count=-1, value undefined)"


def test_order_of_adding_and_subtracting_is_free():
    total = exact.Sum()
    total.subtract(float64([INF, 2.0]))
    total.add(float64([1.0, INF, 2.0]))
    assert repr(total) == "Sum(count=1, value=1.0)"


# --- Of several


@EACH_CLASS
def test_merge_and_operators(make):
    a, b, whole = make([1.0, 1e300]), make([-1e300, 2.0]), make([1.0, 1e300, -1e300, 2.0])
    before = bytes(b)
    assert a + b == whole and a == make([1.0, 1e300])
    a += b
    assert a == whole
    c = make([])
    c.merge(a)
    assert c == whole and bytes(b) == before
    c.merge(c)
    assert c.count == 8


@EACH_CLASS
def test_only_the_same_class_mixes(make):
    a = make([1.0])
    other = exact.Dot() if isinstance(a, exact.Sum) else exact.Sum()
    with pytest.raises(TypeError) as error:
        a.merge(other)
    assert text_of(error) == f"other must be a {type(a).__name__}, not {type(other).__name__}"
    for wrong in (other, 1.0, float64([1.0]), np.float64(1.0)):
        with pytest.raises(TypeError, match="unsupported operand|does not support ufuncs"):
            a + wrong
        with pytest.raises(TypeError):  # the text is NumPy's own for its arrays
            wrong + a
        with pytest.raises(TypeError, match="unsupported operand|does not support ufuncs"):
            a += wrong
        assert a != wrong and not a == wrong


@EACH_CLASS
def test_equality_is_that_of_value_and_counts(make):
    assert make([1.0, 2.0]) == make([2.0, 1.0])
    assert make([1.0, 2.0]) != make([1.0, 2.5])
    assert make([1.0]) != make([1.0, 0.0])
    assert make([NAN]) == make([NAN]) != make([INF])
    with pytest.raises(TypeError, match="unhashable type"):
        hash(make([1.0]))


# --- State, copies, bytes


@EACH_CLASS
def test_state_is_the_accumulators_own(make):
    a, b = make([1e300, 3.0]), make([-1e300, 4.0])
    state = a.state
    assert state.dtype == np.int64 and state.flags.writeable and state.flags.c_contiguous
    state += b.state
    assert a == make([1e300, 3.0, -1e300, 4.0])
    assert np.array_equal(a.state, make([1e300, 3.0, -1e300, 4.0]).state)


def test_sizes_of_states():
    assert [make([1.0]).state.size for make in MAKERS.values()] == [72, 138, 206]
    assert [len(bytes(make([1.0]))) for make in MAKERS.values()] == [620, 1148, 1692]


def test_settled_digits_lie_in_their_range():
    for values in ([-1.0], [-MAX, LEAST], [MAX] * 10, [-LEAST]):
        digits = sum_of(values).state[:-4]
        assert ((digits[:-1] >= 0) & (digits[:-1] < 2**32)).all()


def test_sum_of_states_of_many_processes():
    """What an all-reduce does: plain integer additions of settled states, a carry only later."""
    parts = [sum_of([MAX, -LEAST, float(n)]) for n in range(1000)]
    total = exact.Sum()
    total.state[:] = np.add.reduce([part.state for part in parts])
    assert total.to_fraction() == sum((part.to_fraction() for part in parts), Fraction())
    assert total.count == 3000


@EACH_CLASS
@pytest.mark.parametrize(
    "duplicate",
    [
        copy.copy,
        copy.deepcopy,
        lambda a: a.copy(),
        lambda a: exact.loads(bytes(a)),
        *(
            lambda a, p=p: pickle.loads(pickle.dumps(a, p))
            for p in range(pickle.HIGHEST_PROTOCOL + 1)
        ),
    ],
)
def test_copies_are_independent(make, duplicate):
    a = make([1.0, INF, 0.1])
    b = duplicate(a)
    assert type(b) is type(a) and b == a and b is not a
    b.merge(make([1.0]))
    assert a == make([1.0, INF, 0.1]) and b.count == 4


@EACH_CLASS
def test_checksum_is_the_digest_in_the_bytes(make):
    a = make([1.0, 2.0])
    data = bytes(a)
    assert a.checksum() == hashlib.sha256(data[:-32]).hexdigest() == data[-32:].hex()
    assert make([2.0, 1.0]).checksum() == a.checksum() != make([2.0]).checksum()


def test_checksums_of_empty_accumulators_differ_by_class():
    assert len({make([]).checksum() for make in MAKERS.values()}) == 3


def test_from_chunks():
    chunks = [float64([1.0, 2.0]), float64([]), np.array([[3]], np.int8)]
    assert exact.Sum.from_chunks(chunks) == sum_of([1.0, 2.0, 3.0])
    assert exact.Sum.from_chunks(iter([])) == exact.Sum()
    assert exact.Moments.from_chunks(chunks) == moments_of([1.0, 2.0, 3.0])
    assert exact.Dot.from_chunks((c, c) for c in chunks) == dot_of([1, 2, 3], [1, 2, 3])


# --- Decimal


def test_decimal_has_all_digits():
    assert str(sum_of([LEAST]).to_decimal()).startswith("4.94065645841246544176568792868221372365")
    assert len(sum_of([LEAST]).to_decimal().as_tuple().digits) == 751
    assert sum_of([0.5, 0.25]).to_decimal() == Decimal("0.75")
    assert sum_of([1e22]).to_decimal() == Decimal(10**22)
    assert str(sum_of([]).to_decimal()) == "0"


def test_decimal_is_rounded_once_whatever_the_context_is():
    total = sum_of([1.0, 2.0**-70])
    with decimal.localcontext(prec=3, rounding=decimal.ROUND_UP, Emax=5, Emin=-5):
        assert total.to_decimal(22) == total.to_decimal(22)
        text = str(total.to_decimal(30)), str(total.to_decimal())
    exact_text = "1.0000000000000000000008470329472543003390683225006796419620513916015625"
    assert text == ("1.00000000000000000000084703295", exact_text)
    assert str(sum_of([0.5, 0.125]).to_decimal(2)) == "0.62"
    assert str(sum_of([0.125, 0.25]).to_decimal(2)) == "0.38"


@pytest.mark.parametrize(("value", "text"), [(INF, "Infinity"), (-INF, "-Infinity"), (NAN, "NaN")])
def test_decimal_of_special_values(value, text):
    assert str(sum_of([value]).to_decimal()) == str(sum_of([value]).to_decimal(3)) == text


@pytest.mark.parametrize(("value", "error"), [(INF, OverflowError), (NAN, ValueError)])
def test_fraction_of_special_values(value, error):
    with pytest.raises(error) as raised:
        sum_of([value]).to_fraction()
    with pytest.raises(error) as expected:
        Fraction(value)
    assert text_of(raised) == text_of(expected)


# --- Text


def test_repr():
    assert repr(sum_of([1.5, 2.0])) == "Sum(count=2, value=3.5)"
    assert repr(dot_of([1.5], [2.0])) == "Dot(count=1, value=3.0)"
    assert repr(moments_of([1.0, 3.0])) == "Moments(count=2, sum=4.0, sum_of_squares=10.0)"
    assert repr(sum_of([NAN])) == "Sum(count=1, value=nan)"
    assert repr(moments_of([INF])) == "Moments(count=1, sum=inf, sum_of_squares=inf)"
    assert repr(moments_of([-INF])) == "Moments(count=1, sum=-inf, sum_of_squares=inf)"


def cells_of(html):
    """Rows of a table by their first cell; the text must be well formed."""
    root = ElementTree.fromstring(html)
    rows = [["".join(cell.itertext()) for cell in row] for row in root.iter("tr")]
    return root[0].text, {name: cells for name, *cells in rows}


def test_tables_for_notebooks():
    total = sum_of([0.5, 0.5, 2.0**-60])
    assert cells_of(total._repr_html_()) == (
        "korvex.exact.Sum",
        {
            "count": ["3"],
            "value": ["1.0"],
            "limbs": [f"1.0 + {2.0**-60!r} + 0.0 + 0.0"],
            "checksum": [total.checksum()],
        },
    )
    assert cells_of(dot_of([3.0], [2.0])._repr_html_())[1]["value"] == ["6.0"]
    caption, rows = cells_of(moments_of([1.0, 3.0])._repr_html_())
    assert caption == "korvex.exact.Moments" and rows["std"] == ["1.0"] and rows["mean"] == ["2.0"]
    assert "nan" in cells_of(sum_of([NAN])._repr_html_())[1]["value"]
    empty = sum_of([])
    empty.subtract(np.ones(2))
    assert cells_of(empty._repr_html_())[1] == {
        "count": ["-2"],
        "value": ["undefined: more was subtracted than added"],
    }


# --- Wrong arguments

WRONG = [
    (lambda: exact.Sum("cpu"), TypeError, "takes 1 positional argument but 2 were given"),
    (
        lambda: exact.Sum(device="gpu"),
        ValueError,
        "device must be None, 'cpu', 'cuda', 'cuda:0' and so on, or a device of torch or CuPy, not "
        "'gpu'",
    ),
    (lambda: sum_of([1]).limbs(0), ValueError, "count must be from 1 to 4, not 0"),
    (lambda: sum_of([1]).limbs(5), ValueError, "count must be from 1 to 4, not 5"),
    (lambda: sum_of([1]).limbs(True), TypeError, "count must be an int, not bool"),
    (lambda: sum_of([1]).limbs(2.0), TypeError, "count must be an int, not float"),
    (lambda: sum_of([1]).to_decimal(0), ValueError, "precision must be from 1 to "),
    (lambda: sum_of([1]).to_decimal(3.0), TypeError, "precision must be an int, not float"),
    (
        lambda: exact.Sum().add(np.array([1j])),
        TypeError,
        "x is complex: give x.real and x.imag to one each",
    ),
    (
        lambda: exact.Dot().add(np.array([1.0]), np.array([1j])),
        TypeError,
        "y is complex: give y.real and y.imag to one each",
    ),
    (
        lambda: exact.Sum().add([1.0]),
        TypeError,
        "x must be an array, not list: numpy.asarray makes",
    ),
    (lambda: exact.Sum().add(1.0), TypeError, "x must be an array, not float: numpy.asarray makes"),
    (lambda: exact.Sum().add(exact.Sum()), TypeError, "x must be an array, not Sum"),
    (lambda: exact.Sum().add(), TypeError, "missing 1 required positional argument: 'x'"),
    (lambda: moments_of([1]).var(correction="1"), TypeError, "correction must be a real number, "),
    (lambda: moments_of([1]).var(1), TypeError, "takes 1 positional argument but 2 were given"),
]


@pytest.mark.parametrize(("call", "kind", "text"), WRONG)
def test_wrong_argument(call, kind, text):
    with pytest.raises(kind) as error:
        call()
    assert text in text_of(error)


def test_shapes_of_a_pair_must_be_equal_and_nothing_is_added():
    total = dot_of([1.0], [2.0])
    for x, y in [((2,), (3,)), ((2, 3), (6,)), ((1,), ()), ((2, 1), (1, 2))]:
        for step in (total.add, total.subtract):
            with pytest.raises(ValueError) as error:
                step(np.ones(x), np.ones(y))
            assert text_of(error) == f"x and y must have one shape, but have {x} and {y}"
    assert total == dot_of([1.0], [2.0])


def test_a_failed_step_leaves_the_state_alone():
    total = sum_of([1.0])
    for wrong in (np.array(["a"]), np.array([1j]), np.array([1], np.longdouble), object()):
        with pytest.raises(TypeError):
            total.add(wrong)
        with pytest.raises(TypeError):
            total.subtract(wrong)
    assert total == sum_of([1.0])
