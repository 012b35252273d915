# SPDX-License-Identifier: Apache-2.0
"""tqx_dot and tqx_dot_exact on the device under test: paths, shapes, types, failures, values."""

import math
import random
from decimal import Decimal
from fractions import Fraction

import pytest
import torch
from device import tensor
from hypothesis import example, given
from hypothesis import strategies as st

from korvex_tools.references.exact_arithmetic import (
    LARGEST,
    NAN_BITS,
    bits,
    canonical_limbs,
    dot_limbs,
    exact_dot,
)

INF, NAN = math.inf, math.nan
SEQUENTIAL, PARALLEL = ["tqx_dot_seq_kernel"], ["tqx_dot_kernel"]


def limb_bits(result):
    return [bits(limb.item()) for limb in result.limbs]


def all_bits(values):
    return [bits(value) for value in values]


def check(module, x, y):
    """Both paths against rational arithmetic."""
    sequential = module.tqx_dot(tensor(x), tensor(y), return_tqx=True)
    assert limb_bits(sequential) == all_bits(dot_limbs(x, y, 4))
    parallel = module.tqx_dot(tensor(x), tensor(y), return_tqx=True, exact=False)
    assert limb_bits(parallel) == all_bits(dot_limbs(x, y, 3))


# ---- paths ----


def test_default_path_collapses_four_limbs(module, launches):
    value = module.tqx_dot(tensor([1.0, 2.0]), tensor([3.0, 2.0**-60]))
    assert value.shape == () and value.dtype is torch.float64 and value.is_cuda
    assert value.item() == 3.0 and launches == SEQUENTIAL


def test_default_path_with_limbs(module, launches):
    x = tensor([1.0, 2.0**-60, 2.0**-60])
    result = module.tqx_dot(x, tensor([1.0, 1.0, 2.0**-60]), return_tqx=True)
    assert type(result) is module.TQXResult and result.n_limbs == 4
    assert result.device == str(x.device) == "cuda:0" and result.shape == ()
    assert [limb.item() for limb in result.limbs] == [1.0, 2.0**-60, 2.0**-120, 0.0]
    assert launches == SEQUENTIAL


def test_limbs_are_views_of_one_buffer_in_index_order(module):
    limbs = module.tqx_dot(tensor([1.0]), tensor([1.0]), return_tqx=True).limbs
    assert [limb.data_ptr() - limbs[0].data_ptr() for limb in limbs] == [0, 8, 16, 24]
    assert {limb.dim() for limb in limbs} == {0}


def test_only_exact_false_reaches_the_parallel_kernel(module, launches):
    value = module.tqx_dot(tensor([1.0, 2.0]), tensor([3.0, 4.0]), exact=False)
    assert value.shape == () and value.item() == 11.0 and launches == PARALLEL
    module.tqx_dot(tensor([1.0]), tensor([3.0]), False, [])
    assert launches == PARALLEL * 2


def test_parallel_path_has_three_limbs(module):
    x = tensor([1.0, 2.0**-60, 2.0**-60])
    result = module.tqx_dot(x, tensor([1.0, 1.0, 2.0**-60]), return_tqx=True, exact=False)
    assert result.n_limbs == 3 and result.device == "cuda:0" and result.shape == ()
    assert [limb.item() for limb in result.limbs] == [1.0, 2.0**-60, 2.0**-120]


# ---- operands ----


def test_operands_of_any_shapes_are_paired_by_flat_index(module):
    x, y = tensor([[1.0, 2.0, 3.0], [4.0, 5.0, 6.0]]), tensor([1.0, 10.0, 100.0, 1e3, 1e4, 1e5])
    assert module.tqx_dot(x, y).item() == module.tqx_dot(x, y, exact=False).item() == 654321.0
    assert module.tqx_dot(x.t(), y).item() == 635241.0


def test_operands_are_widened_and_unchanged(module):
    x, y = tensor([2**24 + 1, 2**31 - 1], torch.int64), tensor([0.5, 0.25], torch.float32)
    assert module.tqx_dot(x, y).item() == (2**24 + 1) / 2 + (2**31 - 1) / 4
    assert x.tolist() == [2**24 + 1, 2**31 - 1] and y.dtype is torch.float32


def test_empty_operands_give_zero_limbs(module):
    x, y = tensor([]), tensor([])
    assert limb_bits(module.tqx_dot(x, y, return_tqx=True)) == [0] * 4
    assert limb_bits(module.tqx_dot(x, y, return_tqx=True, exact=False)) == [0] * 3
    assert bits(module.tqx_dot(x, y).item()) == bits(module.tqx_dot(x, y, exact=False).item()) == 0
    assert module.tqx_dot_exact(x, y) == Decimal(0)


def test_more_elements_in_y_are_not_read(module):
    assert module.tqx_dot(tensor([1.0, 2.0]), tensor([1.0, 1.0, NAN])).item() == 3.0


def test_fewer_elements_in_y_are_refused_at_the_launch(module):
    for exact in (True, False):
        with pytest.raises(ValueError):
            module.tqx_dot(tensor([1.0, 2.0]), tensor([1.0]), exact=exact)


def test_first_operand_off_the_gpu(module, launches):
    with pytest.raises(RuntimeError) as failure:
        module.tqx_dot(torch.ones(2), tensor([1.0, 1.0]))
    assert str(failure.value) == "TQX requires CUDA tensor. Move tensor to GPU with .cuda()"
    assert launches == []


def test_second_operand_is_not_tested_for_cuda(module):
    with pytest.raises(Exception) as failure:
        module.tqx_dot(tensor([1.0, 1.0]), torch.ones(2))
    assert "TQX requires" not in str(failure.value)


def test_limb_results_are_refused(module):
    limbs = module.TQXResult([tensor([1.0])])
    with pytest.raises(AttributeError, match="is_cuda"):
        module.tqx_dot(limbs, tensor([1.0]))
    with pytest.raises(AttributeError, match="double"):
        module.tqx_dot(tensor([1.0]), limbs)


# ---- values ----


@pytest.mark.parametrize(
    "x, y",
    [
        ([2.0**-600, 1.0], [2.0**-600, -1.0]),
        ([2.0**512, 2.0**512, 1.0], [2.0**512, -(2.0**512), 1.0]),
        ([1.0, 2.0**-53, 2.0**-120], [1.0, 1.0, 1.0]),
        ([LARGEST] * 2 + [1.0], [LARGEST, -LARGEST, 2.0**-1074]),
        ([LARGEST], [2.0]),
        ([LARGEST], [3.0]),
        ([-LARGEST], [5.0]),
        ([2.0**-600] * 1024, [2.0**-475] * 1024),
        ([2.0**-600, 5e-324], [2.0**-475, 5e-324]),
        ([INF, 1.0], [2.0, 1.0]),
        ([INF, INF], [2.0, -1.0]),
        ([INF, 1.0], [0.0, 1.0]),
        ([1.0, NAN], [1.0, 0.0]),
        ([-0.0, 0.0], [1.0, -1.0]),
        ([1e300, 1e-300], [1e-300, 1e300]),
    ],
)
def test_chosen_products(module, x, y):
    check(module, x, y)
    filling = [0.0] * 5000
    check(module, x + filling, y + filling)


def ill_conditioned(seed, count, condition):
    """Pairs whose products are up to `condition` times larger than their sum."""
    source = random.Random(seed)
    exponents = [source.uniform(0, math.log2(condition) / 2) for _ in range(count)]
    x = [source.uniform(-1, 1) * 2.0**e for e in exponents]
    y = [source.uniform(-1, 1) * 2.0**e for e in exponents]
    for _ in range(count):  # each further product takes back what is left, down to the last bits
        left = exact_dot(x, y)
        x.append(source.uniform(1, 2) * 2.0 ** (math.frexp(float(left))[1] // 2) if left else 1.0)
        y.append(float(-left / Fraction(x[-1])))
    order = list(range(len(x)))
    source.shuffle(order)
    return [x[i] for i in order], [y[i] for i in order]


@pytest.mark.parametrize("condition", [1e10, 1e30, 1e60, 1e100])
def test_ill_conditioned_products(module, condition):
    x, y = ill_conditioned(condition, 30, condition)
    check(module, x, y)
    value = exact_dot(x, y)
    assert float(module.tqx_dot_exact(tensor(x), tensor(y))) == float(value)
    size = sum(abs(Fraction(a) * Fraction(b)) for a, b in zip(x, y, strict=True))
    assert size > abs(value) * Fraction(condition) / 10**6


def test_exact_decimal_is_the_value_of_the_limbs(module):
    x, y = [0.1, 0.2, -0.3, 1e20], [0.7, 1e-9, 3.3, 1.1]
    decimal = module.tqx_dot_exact(tensor(x), tensor(y))
    assert type(decimal) is Decimal and Fraction(decimal) == exact_dot(x, y)


@pytest.mark.parametrize("count", [1, 7, 8, 9, 511, 512, 513, 1024, 70_001])
def test_long_products_on_both_paths(module, count):
    source = random.Random(count)
    x = [source.gauss(0, 1) for _ in range(count)]
    y = [source.gauss(0, 1) * 2.0 ** source.uniform(-30, 30) for _ in range(count)]
    check(module, x, y)


def test_special_values_write_one_nan(module):
    result = module.tqx_dot(tensor([INF, 1.0]), tensor([0.0, 1.0]), return_tqx=True)
    assert limb_bits(result) == [NAN_BITS, 0, 0, 0]


ANY = st.floats()
FINITE = st.floats(allow_nan=False, allow_infinity=False)
POWERS = st.builds(math.ldexp, st.sampled_from([1.0, -1.0]), st.integers(-1074, 1023))


@st.composite
def cancelling(draw):
    """Products, most of them taken back in another order with their factors exchanged."""
    pairs = draw(st.lists(st.tuples(FINITE, FINITE), min_size=1, max_size=15))
    kept = draw(st.integers(0, len(pairs)))
    back = [(-b, a) for a, b in pairs[:kept]]
    return draw(st.permutations(pairs + back))


@given(
    st.one_of(
        st.lists(st.tuples(FINITE, FINITE), max_size=20),
        st.lists(st.tuples(POWERS, POWERS), max_size=20),
        cancelling(),
        st.lists(st.tuples(ANY, ANY), max_size=4),
    )
)
@example([(5e-324, 5e-324)] * 3)
def test_limbs_are_canonical(module, pairs):
    check(module, [a for a, _ in pairs], [b for _, b in pairs])


@given(cancelling(), st.integers(-1074, 1000))
def test_last_bit_that_remains_is_kept(module, pairs, exponent):
    x = [a for a, _ in pairs] + [-a for a, _ in pairs] + [math.ldexp(1.0, exponent)]
    y = [b for _, b in pairs] + [b for _, b in pairs] + [1.0]
    expected = canonical_limbs(Fraction(2) ** exponent, 4)
    result = module.tqx_dot(tensor(x), tensor(y), return_tqx=True)
    assert limb_bits(result) == all_bits(expected)
