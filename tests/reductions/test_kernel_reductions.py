# SPDX-License-Identifier: Apache-2.0
"""Variance, norm, product, running sums and logsumexp against their exact values, bit for bit."""

import math
import random

import pytest
import torch
from device import tensor
from hypothesis import given
from hypothesis import strategies as st

from korvex_tools.references import exact_reductions as exact
from korvex_tools.references.exact_arithmetic import bits, from_bits

LARGEST = math.ldexp(2.0 - 2.0**-52, 1023)
TINY = 2.0**-1074
INF, NAN = math.inf, math.nan


def result_bits(result):
    """The bits of each element, every NaN as the same."""
    values = result.cpu().reshape(-1).tolist()
    return [bits(exact.NAN if math.isnan(v) else v) for v in values]


def check(result, *expected):
    assert result_bits(result) == list(map(bits, expected))


def check_all(module, values):
    x = tensor(values)
    check(module.tqx_var(x), exact.variance(values))
    check(module.tqx_norm(x), exact.norm(values))
    check(module.tqx_logsumexp(x), exact.logsumexp(values))
    product = module.tqx_prod(x, return_tqx=True)
    for limb, value in zip(product.limbs, exact.product_limbs(values), strict=True):
        check(limb, value)
    sums = module.tqx_cumsum(x, return_tqx=True)
    for limb, column in zip(sums.limbs, exact.prefix_limbs(values), strict=True):
        check(limb, *column)


FINITE = st.integers(0, 2**64 - 1).map(from_bits).filter(math.isfinite)
ORDINARY = st.floats(-1000, 1000)
POWERS = st.builds(
    lambda e, s: math.ldexp(s, e), st.integers(-1074, 1023), st.sampled_from([1.0, -1.0])
)
NEARLY_EQUAL = st.integers(-8, 8).map(lambda k: 1e9 + k * 2.0**-20)
SMALL = st.integers(-(2**60), 2**60).map(lambda k: from_bits(abs(k)) * (1 if k >= 0 else -1))
ANY = st.integers(0, 2**64 - 1).map(from_bits)
LISTS = st.one_of(
    *(st.lists(each, max_size=30) for each in (FINITE, ORDINARY, POWERS, NEARLY_EQUAL, SMALL, ANY)),
    st.lists(st.sampled_from([INF, -INF, NAN, 0.0, -0.0, 1.0, -2.0]), max_size=6),
)


@given(values=LISTS)
def test_every_result_is_the_rounding_of_its_exact_value(module, values):
    check_all(module, values)


NEAR_ZERO = [
    st.lists(st.floats(-800, -1), min_size=1, max_size=5).map(lambda low: [0.0, *low]),
    st.tuples(st.floats(1e-30, 1e-10), st.floats(-3, 3)).map(
        lambda p: [-p[0], math.log(p[0]) + p[1] * 1e-3]
    ),
    st.tuples(st.integers(30, 900), st.floats(-1, 1)).map(
        lambda p: [-(2.0 ** -p[0]), max(-p[0] * math.log(2) + p[1], -745.0)]
    ),
    st.integers(2, 50).map(lambda n: [-math.log(n)] * n),
    st.lists(st.floats(1e9, 1e9 + 1), min_size=2, max_size=20),
]


@given(values=st.one_of(*NEAR_ZERO))
def test_logsumexp_is_correctly_rounded_where_it_nearly_cancels(module, values):
    check(module.tqx_logsumexp(tensor(values)), exact.logsumexp(values))


@pytest.mark.parametrize("n", [31, 32, 33, 1023, 1024, 1025, 2048, 2049])
def test_ends_of_blocks(module, n):
    source = random.Random(n)
    check_all(module, [source.gauss(0, 1) for _ in range(n)])
    check_all(
        module, [math.ldexp(source.uniform(-1, 1), source.randint(-70, 70)) for _ in range(n)]
    )


CASES = {
    "a large mean": [1e9, 1e9 + 2.0**-20, 1e9 + 2.0**-19],
    "equal values": [0.1] * 1000,
    "squares that overflow": [3e200, 4e200],
    "squares that underflow": [3 * TINY, -4 * TINY],
    "one value": [-2.5],
    "one negative zero": [-0.0],
    "nothing": [],
    "a NaN": [1.0, NAN, 2.0],
    "an infinity": [1.0, -INF, 2.0],
    "both infinities": [INF, 1.0, -INF],
    "an infinity and a zero": [0.0, INF],
    "all -infinity": [-INF, -INF],
    "largest and back": [LARGEST, LARGEST, LARGEST, -LARGEST, -LARGEST, -LARGEST, TINY],
    "powers that cancel": [2.0**600, 2.0**600, 2.0**-600, 2.0**-600],
    "a tiny term": [0.0, -600.0],
    "the least term": [0.0, -745.0],
    "terms below the least double": [0.0, *[-746.0] * 11],
    "nearly zero": [-1e-20, -46.0],
}


@pytest.mark.parametrize("values", CASES.values(), ids=CASES)
def test_case(module, values):
    check_all(module, values)


def test_variance_of_a_large_mean_is_written_out(module):
    check(module.tqx_var(tensor([1e9, 1e9 + 2.0**-20, 1e9 + 2.0**-19])), 2.0**-40)


def test_product_of_the_prime_factors_of_a_mersenne_number(module):
    factors = [3, 3, 5, 5, 7, 11, 13, 17, 31, 41, 61, 97, 151, 241, 257, 331, 673, 1321, 61681]
    factors += [394783681, 4278255361, 4562284561, 46908728641]
    limbs = module.tqx_prod(tensor(list(map(float, factors))), return_tqx=True).limbs
    check(limbs[0], 2.0**240)
    check(limbs[1], -1.0)


def test_single_value_is_its_own_logsumexp(module):
    check(module.tqx_logsumexp(tensor([0.1])), 0.1)
    check(module.tqx_logsumexp(tensor([-0.0, -INF])), 0.0)


def test_long_data_has_the_same_bits_in_slices(module):
    source = random.Random(7)
    values = [source.gauss(0, 1) * 2.0 ** source.randint(-30, 30) for _ in range(150_000)]
    limbs = module.tqx_cumsum(tensor(values), return_tqx=True).limbs
    expected = exact.prefix_limbs(values)
    check(limbs[0], *expected[0])
    check(limbs[1], *expected[1])
    check(module.tqx_norm(tensor(values)), exact.norm(values))
    check(module.tqx_var(tensor(values)), exact.variance(values))


# ---- parameters, forms and shapes ----

X = [1.0, 0.1, -3.0, 7.25, 1e-3, 2.0]


def test_unbiased_has_no_effect(runtime):
    x = tensor(X)
    for name in ("tqx_var", "tqx_std"):
        function = getattr(runtime, name)
        assert result_bits(function(x, unbiased=False)) == result_bits(function(x, unbiased=True))
        assert result_bits(function(x, False)) == result_bits(function(x))


def test_p_has_no_effect(runtime):
    x = tensor(X)
    assert result_bits(runtime.tqx_norm(x, p=1)) == result_bits(runtime.tqx_norm(x, p=2))
    assert runtime.tqx_norm_exact(x, p=1) == runtime.tqx_norm_exact(x)


@pytest.mark.parametrize("name", ["tqx_norm", "tqx_norm_exact"])
def test_p_must_be_a_number(runtime, name):
    with pytest.raises(
        TypeError, match=r"^Argument 'p' has incorrect type \(expected int, got str"
    ):
        getattr(runtime, name)(tensor(X), p="a")


@pytest.mark.parametrize("name", ["tqx_var", "tqx_std", "tqx_norm", "tqx_logsumexp"])
def test_result_is_plain_even_where_limbs_are_asked_for(runtime, name):
    plain = getattr(runtime, name)(tensor(X))
    asked = getattr(runtime, name)(tensor(X), return_tqx=True)
    assert isinstance(asked, torch.Tensor) and asked.shape == ()
    assert result_bits(asked) == result_bits(plain)


def test_deviation_is_the_root_of_the_variance(runtime):
    check(runtime.tqx_std(tensor(X)), math.sqrt(exact.variance(X)))


def test_plain_product_is_the_sum_of_its_limbs(runtime):
    first, second = (limb.item() for limb in runtime.tqx_prod(tensor(X), return_tqx=True).limbs)
    check(runtime.tqx_prod(tensor(X)), first + second)


def test_plain_running_sums_are_the_first_limb(runtime):
    limbs = runtime.tqx_cumsum(tensor(X), return_tqx=True).limbs
    assert result_bits(runtime.tqx_cumsum(tensor(X))) == result_bits(limbs[0])


def test_running_sums_go_across_the_rows(runtime):
    result = runtime.tqx_cumsum(tensor([[1.0, 2.0, 3.0], [4.0, 5.0, 6.0]]))
    assert result.tolist() == [[1.0, 3.0, 6.0], [10.0, 15.0, 21.0]]


def test_empty_tensors(runtime):
    x = tensor([])
    check(runtime.tqx_var(x), exact.NAN)
    check(runtime.tqx_norm(x), 0.0)
    check(runtime.tqx_prod(x), 1.0)
    check(runtime.tqx_logsumexp(x), -INF)
    assert runtime.tqx_cumsum(x).shape == (0,)


@pytest.mark.parametrize("name", ["tqx_var", "tqx_norm", "tqx_prod", "tqx_cumsum", "tqx_logsumexp"])
def test_one_call_is_one_launch(module, launches, name):
    getattr(module, name)(tensor(X))
    assert launches == [name + "_kernel"]


@pytest.mark.parametrize("name", ["tqx_var", "tqx_norm", "tqx_prod", "tqx_cumsum", "tqx_logsumexp"])
def test_limb_results_are_refused(runtime, name):
    limbs = runtime.tqx_sum(tensor(X), return_tqx=True)
    with pytest.raises(AttributeError):
        getattr(runtime, name)(limbs)


def test_input_is_not_changed_and_narrow_types_are_widened(runtime):
    x = tensor([1, 2, 3], dtype=torch.int32)
    assert runtime.tqx_norm(x).dtype == torch.float64
    check(runtime.tqx_cumsum(x[::2]), 1.0, 4.0)
    assert x.tolist() == [1, 2, 3]
