# SPDX-License-Identifier: Apache-2.0
"""Sums over the whole exponent range against exact rational arithmetic."""

import math
import random
from fractions import Fraction

import pytest
from device import tensor
from hypothesis import example, given
from hypothesis import strategies as st

from korvex_tools.references.exact_arithmetic import (
    bits,
    canonical_limbs,
    exact_sum,
    from_bits,
    round_to_double,
    sum_limbs,
    ulps_off,
)

ANY_BITS = st.integers(0, 2**64 - 1).map(from_bits)
FINITE_BITS = ANY_BITS.filter(math.isfinite)
FINITE = st.floats(allow_nan=False, allow_infinity=False)
SAME_BINADE = st.integers(-(2**53), 2**53).map(lambda m: math.ldexp(m, -52))
POWERS = st.integers(-1074, 1023).map(lambda e: math.ldexp(1.0, e))
SIGNED_POWERS = st.builds(math.copysign, POWERS, st.sampled_from([1.0, -1.0]))


def moderate(low, high):
    """Doubles whose bits all lie between 2**low and 2**high."""
    mantissas = st.integers(-(2**53) + 1, 2**53 - 1)
    return st.builds(math.ldexp, mantissas, st.integers(low, high - 53))


def lists_of(elements, max_size=40):
    return st.lists(elements, max_size=max_size)


def cancelling(elements):
    """A list, the negatives of most of it in another order, and a few elements more."""

    @st.composite
    def draw_list(draw):
        values = draw(st.lists(elements, min_size=1, max_size=30))
        kept = draw(st.integers(0, len(values)))
        mixed = values + [-v for v in values[:kept]] + draw(st.lists(elements, max_size=3))
        return draw(st.permutations(mixed))

    return draw_list()


FINITE_LISTS = st.one_of(
    lists_of(FINITE_BITS),
    lists_of(FINITE),
    lists_of(SAME_BINADE, 300),
    lists_of(SIGNED_POWERS),
    cancelling(FINITE_BITS),
    cancelling(SIGNED_POWERS),
)


def sequential_bits(module, values):
    return [bits(limb.item()) for limb in module.tqx_sum(tensor(values), return_tqx=True).limbs]


def parallel_bits(module, values):
    result = module.tqx_sum(tensor(values), exact=False, return_tqx=True)
    return [bits(limb.item()) for limb in result.limbs]


@given(FINITE_LISTS)
@example([2.0**1023, 2.0**1023, -(2.0**1023), -(2.0**1023), 2.0**-1074])
@example([1.0, 2.0**-53, 2.0**-1074])
@example([1.7e308] * 7)
def test_limbs_are_canonical(module, values):
    expected = canonical_limbs(exact_sum(values), 4)
    assert sequential_bits(module, values) == [bits(limb) for limb in expected]


@given(FINITE_LISTS)
@example([1.7e308, 1.7e308, 1.7e308])
def test_parallel_limbs_are_canonical(module, values):
    expected = canonical_limbs(exact_sum(values), 2)
    assert parallel_bits(module, values) == [bits(limb) for limb in expected]


@given(st.one_of(lists_of(moderate(-1074, 1000), 4), lists_of(moderate(-100, 60), 300)))
def test_limbs_add_up_exactly_whenever_four_can_hold_the_sum(module, values):
    limbs = module.tqx_sum(tensor(values), return_tqx=True).limbs
    assert sum(Fraction(limb.item()) for limb in limbs) == exact_sum(values)


@given(lists_of(moderate(-1074, 1000)))
def test_parallel_limbs_are_the_leading_ones(module, values):
    assert parallel_bits(module, values) == sequential_bits(module, values)[:2]


@given(FINITE_LISTS, st.randoms(use_true_random=False))
def test_order_of_the_elements_has_no_effect(module, values, randomness):
    shuffled = values[:]
    randomness.shuffle(shuffled)
    assert sequential_bits(module, shuffled) == sequential_bits(module, values)
    assert parallel_bits(module, shuffled) == parallel_bits(module, values)


@given(lists_of(st.one_of(ANY_BITS, st.sampled_from([math.inf, -math.inf, math.nan, 0.0, -0.0]))))
def test_special_values(module, values):
    assert sequential_bits(module, values) == [bits(limb) for limb in sum_limbs(values, 4)]
    assert parallel_bits(module, values) == [bits(limb) for limb in sum_limbs(values, 2)]


@given(FINITE_LISTS)
def test_no_zero_limb_is_negative(module, values):
    minus_zero = 1 << 63
    assert minus_zero not in sequential_bits(module, values) + parallel_bits(module, values)


@given(lists_of(moderate(-500, 500)))
def test_float_of_the_exact_sum_is_correctly_rounded(module, values):
    # Within these exponents no limb is subnormal and 1000 digits hold any four limbs.
    limbs = canonical_limbs(exact_sum(values), 4)
    if sum(map(Fraction, limbs)) == exact_sum(values):
        total = module.tqx_sum_exact(tensor(values))
        assert Fraction(total) == exact_sum(values)
        assert float(total) == round_to_double(exact_sum(values))


@given(st.lists(moderate(-1000, 1000), min_size=1, max_size=40))
def test_collapsed_sum_is_within_one_ulp(module, values):
    assert ulps_off(module.tqx_sum(tensor(values)).item(), exact_sum(values)) <= 1


@given(st.lists(moderate(-1000, 1000), min_size=1, max_size=40))
def test_parallel_sum_is_correctly_rounded(module, values):
    total = module.tqx_sum(tensor(values), exact=False).item()
    assert bits(total) == bits(round_to_double(exact_sum(values)))


@given(st.lists(moderate(-900, 900), min_size=1, max_size=40))
def test_mean_is_within_three_ulps(module, values):
    # One ulp from the collapse; the division rounds twice where torch multiplies by 1 / n.
    exact = exact_sum(values) / len(values)
    assert ulps_off(module.tqx_mean(tensor(values)).item(), exact) <= 3


@given(st.lists(moderate(-400, 400), min_size=1, max_size=9))
def test_exact_mean_is_the_sum_divided_at_a_thousand_digits(module, values):
    limbs = canonical_limbs(exact_sum(values), 4)
    if sum(map(Fraction, limbs)) == exact_sum(values):
        exact = exact_sum(values) / len(values)
        mean = Fraction(module.tqx_mean_exact(tensor(values)))
        assert abs(mean - exact) <= abs(exact) / 10**999


@pytest.mark.parametrize("seed", range(4))
def test_long_sums_of_random_bit_patterns(module, seed):
    randomness = random.Random(seed)
    values = [from_bits(randomness.getrandbits(64)) for _ in range(20_000)]
    values = [v for v in values if math.isfinite(v)]
    assert sequential_bits(module, values) == [bits(v) for v in sum_limbs(values, 4)]
    assert parallel_bits(module, values) == [bits(v) for v in sum_limbs(values, 2)]


@pytest.mark.parametrize("seed", range(4))
def test_long_sums_of_ordinary_values(module, seed):
    randomness = random.Random(seed)
    values = [randomness.gauss(0.0, 1.0) for _ in range(20_000)]
    assert sequential_bits(module, values) == [bits(v) for v in sum_limbs(values, 4)]
    assert parallel_bits(module, values) == [bits(v) for v in sum_limbs(values, 2)]
