# SPDX-License-Identifier: Apache-2.0
"""Limb lists as operands and their sums: what comes out, the cap of four limbs, what is refused."""

import math
from fractions import Fraction

import pytest
import torch
from device import tensor
from hypothesis import given
from hypothesis import strategies as st


def limbs_of(result):
    return [limb.tolist() for limb in result.limbs]


def scalars(*values):
    return [tensor([value]) for value in values]


# ---- operands ----


@pytest.mark.parametrize("x", [1.5, None, "text", [1.0], torch.ones(2)], ids=repr)
def test_anything_else_passes_untouched(runtime, x):
    tensor_or_other, is_tqx = runtime._extract_tqx_tensor(x)
    assert tensor_or_other is x and is_tqx is False


def test_verified_result_is_no_limb_result(runtime):
    verified = runtime.TQXVerifiedResult(torch.ones(1), "text")
    assert runtime._extract_tqx_tensor(verified) == (verified, False)
    with pytest.raises(AttributeError, match="double"):
        runtime._get_tqx_limbs(verified)


def test_subclass_of_a_result_counts_as_one(runtime):
    class Result(runtime.TQXResult):
        pass

    result = Result(scalars(2.0, 1.0))
    collapsed, is_tqx = runtime._extract_tqx_tensor(result)
    assert is_tqx is True and collapsed.tolist() == [3.0]
    assert runtime._get_tqx_limbs(result) is result.limbs


def test_limbs_of_a_result_are_its_own_list(runtime):
    limbs = [tensor([1.0], torch.float32)]
    assert runtime._get_tqx_limbs(runtime.TQXResult(limbs)) is limbs
    assert limbs[0].dtype == torch.float32


def test_limbs_of_a_number(runtime):
    with pytest.raises(AttributeError, match="double"):
        runtime._get_tqx_limbs(1.0)


# ---- what comes out ----


@pytest.mark.parametrize("left", [True, False])
def test_single_limb_is_passed_on_as_it_is(runtime, left):
    limb = tensor([1.0], torch.float32)
    lists = ([limb], []) if left else ([], [limb])
    result = runtime._tqx_add_limbs(*lists, "d")
    assert result.limbs[0] is limb and result.n_limbs == 1 and result.device == "d"
    assert all(result.limbs is not given for given in lists)


def test_sum_without_error_is_one_limb(runtime):
    assert limbs_of(runtime._tqx_add_limbs(scalars(1.0), scalars(2.0), "d")) == [[3.0]]


def test_x_and_its_negative_are_one_zero_limb(runtime):
    for result in (
        runtime._tqx_add_limbs(scalars(0.1), scalars(-0.1), "d"),
        runtime._tqx_sub_limbs(scalars(0.1), scalars(0.1), "d"),
    ):
        assert limbs_of(result) == [[0.0]]


def test_inputs_are_neither_changed_nor_shared(runtime):
    x, y = scalars(1.0), scalars(2.0**-60)
    result = runtime._tqx_add_limbs(x, y, "d")
    for limb in result.limbs:
        limb += 1.0
    assert len(x) == len(y) == 1 and (x[0].item(), y[0].item()) == (1.0, 2.0**-60)


@pytest.mark.parametrize("x, y", [(1, 1), (2, 1), (1, 2), (2, 2)])
def test_up_to_four_limbs_come_out_as_many_at_most(runtime, x, y):
    values = [2.0 ** (-60 * i) for i in range(x + y)]
    result = runtime._tqx_add_limbs(scalars(*values[:x]), scalars(*values[x:]), "d")
    assert limbs_of(result) == [[value] for value in values]


def test_six_limbs_are_cut_to_the_four_largest(runtime):
    values = [2.0 ** (-60 * i) for i in range(6)]
    result = runtime._tqx_add_limbs(scalars(*values[::2]), scalars(*values[1::2]), "d")
    assert limbs_of(result) == [[value] for value in values[:4]]


def test_value_under_cancellation_stands_first_below_the_cap(runtime):
    result = runtime._tqx_add_limbs(scalars(2.0**100, 1.0), scalars(-(2.0**100)), "d")
    # Sorted: 2^100, -2^100, 1: the value is 1 and nothing is lost.
    assert limbs_of(result) == [[1.0]]
    result = runtime._tqx_add_limbs(scalars(2.0**100, 2.0**40), scalars(-(2.0**100) + 2.0**47), "d")
    assert sum(Fraction(limb[0]) for limb in limbs_of(result)) == 2**47 + 2**40
    result = runtime._tqx_add_limbs(
        scalars(1.0, 2.0**-53), scalars(-(1.0 - 2.0**-53), -(2.0**-53)), "d"
    )
    assert sum(Fraction(limb[0]) for limb in limbs_of(result)) == Fraction(1, 2**53)


def test_value_smaller_than_an_error(runtime):
    """2^53 + 1 rounds to 2^53 with the error 1; taking 2^53 back leaves the value 0 before it."""
    x = scalars(2.0**53, -(2.0**53))
    limbs = limbs_of(runtime._tqx_add_limbs(x, scalars(1.0), "d"))
    assert limbs == [[1.0]]  # sorted first, so the two large limbs meet
    columns = [tensor([2.0**60, 1.0]), tensor([1.0, 0.0]), tensor([-(2.0**60), 0.0])]
    limbs = limbs_of(runtime._tqx_add_limbs(columns[:1], columns[1:], "d"))
    assert limbs == [[1.0, 1.0]]
    columns = [tensor([2.0**60, 2.0**62]), tensor([1.0, 2.0**61]), tensor([-(2.0**60), 1.0])]
    limbs = limbs_of(runtime._tqx_add_limbs(columns[:1], columns[1:], "d"))
    assert limbs == [[0.0, 2.0**62 + 2.0**61], [1.0, 0.0], [0.0, 1.0]]


def test_error_tensor_is_kept_whole_for_one_element(runtime):
    x, y = tensor([1.0, 1.0, 1.0]), tensor([2.0, 2.0**-60, 4.0])
    result = runtime._tqx_add_limbs([x], [y], "d")
    assert limbs_of(result) == [[3.0, 1.0, 5.0], [0.0, 2.0**-60, 0.0]]


def test_nan_in_an_error_drops_the_whole_error_tensor(runtime):
    x, y = tensor([math.inf, 1.0]), tensor([1.0, 2.0**-60])
    result = runtime._tqx_add_limbs([x], [y], "d")
    assert limbs_of(result) == [[math.inf, 1.0]]


def test_sum_that_overflows_is_one_infinite_limb(runtime):
    result = runtime._tqx_add_limbs(scalars(1.7e308), scalars(1.7e308), "d")
    assert limbs_of(result) == [[math.inf]]


MODERATE = st.builds(math.ldexp, st.integers(-(2**53), 2**53), st.integers(-600, 600))
COLUMN = st.lists(MODERATE, min_size=3, max_size=3)


@given(st.lists(COLUMN, min_size=1, max_size=2), st.lists(COLUMN, min_size=1, max_size=2))
def test_up_to_four_limbs_add_up_exactly(module, x_columns, y_columns):
    """No cap is met, so the limbs of the result have the exact sum, element by element."""
    x, y = [tensor(c) for c in x_columns], [tensor(c) for c in y_columns]
    for function, sign in ((module._tqx_add_limbs, 1), (module._tqx_sub_limbs, -1)):
        result = function(x, y, "d")
        for element in range(3):
            expected = sum(Fraction(c[element]) for c in x_columns)
            expected += sign * sum(Fraction(c[element]) for c in y_columns)
            assert sum(Fraction(limb[element]) for limb in limbs_of(result)) == expected


# ---- failures ----


@pytest.mark.parametrize("name", ["_tqx_add_limbs", "_tqx_sub_limbs"])
def test_no_limb_at_all(runtime, name):
    with pytest.raises(IndexError):
        getattr(runtime, name)([], [], "d")


def test_limbs_that_are_no_lists(runtime):
    with pytest.raises(TypeError, match="can only concatenate list"):
        runtime._tqx_add_limbs([], (tensor([1.0]),), "d")
    with pytest.raises(TypeError):
        runtime._tqx_add_limbs(None, [tensor([1.0])], "d")


def test_limb_without_elements(runtime):
    with pytest.raises((RuntimeError, IndexError)) as caught:
        runtime._tqx_add_limbs([tensor([])], [tensor([])], "d")
    with pytest.raises(type(caught.value)) as expected:
        tensor([]).abs().max()
    assert str(caught.value) == str(expected.value)


def test_shapes_that_do_not_broadcast(runtime):
    with pytest.raises(RuntimeError, match="must match the size"):
        runtime._tqx_add_limbs([tensor([1.0, 2.0])], [tensor([1.0, 2.0, 3.0])], "d")


def test_device_must_be_text(runtime):
    with pytest.raises(TypeError, match="'device' has incorrect type"):
        runtime._tqx_add_limbs(scalars(1.0), scalars(2.0), None)
