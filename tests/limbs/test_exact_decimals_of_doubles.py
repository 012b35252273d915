# SPDX-License-Identifier: Apache-2.0
"""Limb results as Decimal values, and the conversion of one double bit by bit."""

import decimal
import math
import struct
import threading
from decimal import Decimal
from fractions import Fraction

import device
import pytest
import torch
from hypothesis import example, given
from hypothesis import strategies as st

from korvex_tools.references.exact_arithmetic import SMALLEST, SMALLEST_NORMAL, from_bits


def host(*values):
    return [torch.tensor(value, dtype=torch.float64) for value in values]


# ---- one double ----


def test_one_keeps_the_exponent_of_the_power(runtime):
    converted = runtime.TQXResult._fp64_to_decimal(1.0)
    assert converted == 1 and str(converted) == "1." + "0" * 52


def test_a_tenth_is_the_stored_double(runtime):
    converted = runtime.TQXResult._fp64_to_decimal(0.1)
    assert str(converted) == "0.10000000000000000555111512312578270211815834045410156250"


@pytest.mark.parametrize("zero", [0.0, -0.0, 0, False])
def test_zero_loses_its_sign(runtime, zero):
    converted = runtime.TQXResult._fp64_to_decimal(zero)
    assert str(converted) == "0"


def test_smallest_normal_is_exact(runtime):
    converted = runtime.TQXResult._fp64_to_decimal(2.2250738585072014e-308)
    assert Fraction(converted) == Fraction(1, 2**1022)


def test_infinity_becomes_a_finite_power(runtime):
    convert = runtime.TQXResult._fp64_to_decimal
    assert convert(math.inf) == Decimal(2) ** 1024
    assert convert(-math.inf) == -(Decimal(2) ** 1024)


@pytest.mark.parametrize(
    "pattern, expected",
    [
        (0x7FF8000000000000, 3 * 2**1023),
        (0xFFF8000000000000, -3 * 2**1023),
        (0x7FF0000000000001, (2**52 + 1) * 2**972),
        (0x7FFFFFFFFFFFFFFF, (2**53 - 1) * 2**972),
    ],
)
def test_nan_becomes_a_finite_value_of_its_payload(runtime, pattern, expected):
    assert runtime.TQXResult._fp64_to_decimal(from_bits(pattern)) == expected


@pytest.mark.parametrize("fraction", [1, 2, 0x8000000000000, 0xFFFFFFFFFFFFF])
def test_subnormal_gets_the_implicit_bit(runtime, fraction):
    expected = Fraction(fraction + 2**52, 2**1075)
    for sign in (1, -1):
        converted = runtime.TQXResult._fp64_to_decimal(sign * fraction * SMALLEST)
        assert Fraction(converted) == sign * expected


def test_smallest_subnormal_reads_about_a_normal(runtime):
    converted = runtime.TQXResult._fp64_to_decimal(SMALLEST)
    assert f"{converted:.13E}" == "1.1125369292536E-308"


def by_definition(f):
    """The steps on the bits, in rational arithmetic."""
    if f == 0.0:
        return Fraction(0)
    stored = struct.unpack("Q", struct.pack("d", f))[0]
    sign = -1 if stored >> 63 else 1
    mantissa = (stored & (2**52 - 1)) | 2**52
    return sign * mantissa * Fraction(2) ** (((stored >> 52) & 2047) - 1075)


@given(st.integers(0, 2**64 - 1).map(from_bits))
@example(math.ldexp(2.0 - 2.0**-52, 1023))
@example(-SMALLEST_NORMAL)
def test_any_bit_pattern_converts_as_its_bits_say(module, f):
    converted = module.TQXResult._fp64_to_decimal(f)
    assert Fraction(converted) == by_definition(f)
    if math.isfinite(f) and abs(f) >= SMALLEST_NORMAL:
        assert Fraction(converted) == Fraction(f)


def test_static_method_is_reached_from_class_and_instance(runtime):
    assert runtime.TQXResult._fp64_to_decimal(2.0) == 2
    assert runtime.TQXResult([])._fp64_to_decimal(2.0) == 2


# ---- a limb result ----


def test_no_limbs_give_zero(runtime):
    assert str(runtime.TQXResult([]).to_decimal()) == "0"
    assert str(runtime.TQXResult([]).to_decimal((1, 2))) == "0"


def test_limbs_are_added_exactly(runtime):
    total = runtime.TQXResult(host(1e16, 1.0, 2.0**-60)).to_decimal()
    assert Fraction(total) == 10**16 + 1 + Fraction(1, 2**60)


def test_first_element_of_each_limb_without_an_index(runtime):
    assert runtime.TQXResult(host([1.0, 2.0, 3.0], [0.5, 9.0, 9.0])).to_decimal() == Decimal("1.5")


def test_limbs_of_different_shapes_are_each_read_by_their_own(runtime):
    assert runtime.TQXResult(host([[1.0, 7.0]], 0.5, [0.25])).to_decimal() == Decimal("1.75")


def test_index_selects_the_element_of_each_limb(runtime):
    result = runtime.TQXResult(host([[1.0, 2.0], [3.0, 4.0]], [[0.1, 0.2], [0.5, 0.4]]))
    assert result.to_decimal((1, 0)) == Decimal("3.5")
    assert result.to_decimal(index=(-1, -2)) == Decimal("3.5")
    with pytest.raises(TypeError, match=r"'index' has incorrect type \(expected tuple, got list\)"):
        result.to_decimal(index=[1, 0])


def test_index_may_hold_anything_that_torch_takes(runtime):
    result = runtime.TQXResult(host([[1.0, 2.0], [3.0, 4.0]]))
    assert result.to_decimal((slice(1, 2), 0)) == 3
    assert result.to_decimal((Ellipsis, 0, 1)) == 2


def test_index_that_selects_more_than_one_element(runtime):
    with pytest.raises(RuntimeError, match="cannot be converted to Scalar"):
        runtime.TQXResult(host([[1.0, 2.0]])).to_decimal((0,))


def test_index_that_does_not_fit_fails_at_the_limb_where_it_happens(runtime):
    with pytest.raises(IndexError):
        runtime.TQXResult(host([1.0, 2.0], [1.0])).to_decimal((1,))


def test_empty_limb_without_an_index(runtime):
    with pytest.raises(IndexError):
        runtime.TQXResult([torch.zeros(0)]).to_decimal()


def test_wrong_index_is_refused_before_a_limb_is_read(runtime):
    with pytest.raises(TypeError, match="'index'"):
        runtime.TQXResult([torch.zeros(0)]).to_decimal([0])


def test_loop_goes_by_the_list_and_not_by_n_limbs(runtime):
    result = runtime.TQXResult(host(1.0))
    result.limbs.append(torch.tensor(2.0))
    assert result.to_decimal() == 3


def test_limbs_that_are_no_floats_are_converted(runtime):
    assert runtime.TQXResult([torch.tensor(3), torch.tensor(True)]).to_decimal() == 4


def test_limbs_on_the_device(runtime):
    result = runtime.TQXResult([device.tensor([1.0, 2.0]), device.tensor([0.5, 0.25])], "cuda:0")
    assert result.to_decimal() == Decimal("1.5") and result.to_decimal((1,)) == Decimal("2.25")


def test_wide_pair_within_a_thousand_digits_is_exact(runtime):
    total = runtime.TQXResult(host(2.0**200, 2.0**-200)).to_decimal()
    assert Fraction(total) == 2**200 + Fraction(1, 2**200)
    assert len(total.normalize().as_tuple().digits) == 261


def test_wide_pair_beyond_a_thousand_digits_is_rounded(runtime):
    total = runtime.TQXResult(host(2.0**1000, 2.0**-1000)).to_decimal()
    exact = 2**1000 + Fraction(1, 2**1000)  # 302 digits before the point, so 698 behind it stay
    assert len(total.as_tuple().digits) == 1000
    assert 0 < abs(Fraction(total) - exact) <= Fraction(1, 2 * 10**698)


def test_rounding_follows_the_context_of_the_calling_thread(runtime):
    results = []

    def work():
        results.append(runtime.TQXResult(host(1e16, 2.0**-30)).to_decimal())
        results.append(runtime.TQXResult._fp64_to_decimal(0.1))

    thread = threading.Thread(target=work)
    thread.start()
    thread.join()
    with decimal.localcontext(decimal.Context(prec=28)):
        assert results == [
            Decimal(10**16) + Decimal(2**52) * Decimal(2) ** -82,
            Decimal(0x1999999999999A) * Decimal(2) ** -56,
        ]
    assert len(results[0].as_tuple().digits) == 28


def test_limb_addition_starts_from_zero_under_the_context(runtime):
    with decimal.localcontext(decimal.Context(prec=5)):
        assert str(runtime.TQXResult(host(123456.0)).to_decimal()) == "1.2346E+5"
