# SPDX-License-Identifier: Apache-2.0
"""True division by a number: on CUDA, torch multiplies by the reciprocal.

Expected bits are computed apart from torch: in Python floats, and for the shorter types by numpy.
The same tests are meant for hardware, where they confirm the rule.
"""

import operator

import device
import numpy as np
import pytest
import torch
from hypothesis import given
from hypothesis import strategies as st

BINARY64 = st.floats(allow_nan=False, width=64)
DIVIDENDS = [1.0, 3.0, 7.0, 0.1, -5.0, 1e300, 1e-310, 5e-324, float("inf"), 0.0, -0.0]


def bits(tensor):
    return tensor.cpu().double().numpy().tobytes()


def by_reciprocal(dividends, divisor):
    return np.array([x * (1.0 / divisor) for x in dividends]).tobytes()


FORMS = {
    "operator": lambda x, n: x / n,
    "method": lambda x, n: x.div(n),
    "divide": lambda x, n: x.divide(n),
    "true_divide": lambda x, n: x.true_divide(n),
    "function": lambda x, n: torch.div(x, n),
    "keywords": lambda x, n: torch.div(input=x, other=n),
    "rounding_mode": lambda x, n: torch.div(x, n, rounding_mode=None),
    "true_divide_function": lambda x, n: torch.true_divide(x, n),
    "out": lambda x, n: torch.div(x, n, out=torch.empty_like(x)),
    "in_place": lambda x, n: x.clone().div_(n),
    "in_place_operator": lambda x, n: operator.itruediv(x.clone(), n),
}


@pytest.mark.parametrize("divide", FORMS.values(), ids=FORMS)
@pytest.mark.parametrize("divisor", [3, 10, 49.0, 0.1, -7])
def test_every_form_multiplies_by_the_reciprocal(divide, divisor):
    result = divide(device.tensor(DIVIDENDS), divisor)
    assert bits(result) == by_reciprocal(DIVIDENDS, divisor)


@pytest.mark.parametrize("divisor", [3, 10.0])
def test_cpu_tensor_without_dimensions_counts_as_a_number(divisor):
    result = device.tensor(DIVIDENDS) / torch.tensor(divisor)
    assert bits(result) == by_reciprocal(DIVIDENDS, divisor)


def test_about_a_third_of_the_quotients_differ_from_the_true_ones():
    numbers = [float(i) for i in range(1, 1001)]
    quotients = (device.tensor(numbers) / 3).tolist()
    assert 250 < sum(q != x / 3 for q, x in zip(quotients, numbers, strict=True)) < 400


def test_tensor_on_the_device_divides_truly():
    result = device.tensor(DIVIDENDS) / device.tensor(3.0)
    assert bits(result) == np.array([x / 3.0 for x in DIVIDENDS]).tobytes()


def test_number_divided_by_a_tensor_is_its_reciprocal_times_the_number():
    result = 3 / device.tensor([7.0, 49.0])
    assert bits(result) == np.array([(1 / 7) * 3, (1 / 49) * 3]).tobytes()


def test_cpu_tensor_without_dimensions_divided_by_a_tensor_divides_truly():
    result = torch.tensor(3.0, dtype=torch.float64) / device.tensor([7.0, 49.0])
    assert bits(result) == np.array([3 / 7, 3 / 49]).tobytes()


@given(dividend=BINARY64, divisor=BINARY64.filter(lambda x: x != 0))
def test_any_pair(dividend, divisor):
    result = device.tensor([dividend]) / divisor
    with np.errstate(all="ignore"):
        expected = np.float64(dividend) * (np.float64(1.0) / np.float64(divisor))
    result = result.item()
    assert (result, np.signbit(result)) == (expected, np.signbit(expected)) or (
        np.isnan(result) and np.isnan(expected)
    )


def test_division_by_zero_multiplies_by_an_infinity():
    result = (device.tensor([1.0, -1.0, 0.0]) / 0).tolist()
    assert result[:2] == [float("inf"), float("-inf")] and np.isnan(result[2])


# --- Other types


def test_float32_computes_in_float32():
    numbers = np.arange(1, 1001, dtype=np.float32)
    result = device.tensor(numbers.tolist(), torch.float32) / 0.1
    expected = numbers * (np.float32(1) / np.float32(0.1))
    assert result.dtype == torch.float32
    assert result.cpu().numpy().tobytes() == expected.tobytes()


def test_large_integer_divisor_is_rounded_once():
    divisor = 2**24 + 2**54 + 1  # through float64 it would end at a tie in float32
    result = device.tensor([1.0], torch.float32) / divisor
    assert result.item() == float(np.float32(1) / np.float32(np.int64(divisor)))


def test_float16_computes_in_float32_and_rounds_at_the_end():
    numbers = np.arange(1, 1001, dtype=np.float16)
    result = device.tensor(numbers.tolist(), torch.float16) / 3
    expected = (numbers.astype(np.float32) * (np.float32(1) / np.float32(3))).astype(np.float16)
    assert result.dtype == torch.float16
    assert result.cpu().numpy().tobytes() == expected.tobytes()


def test_bfloat16_computes_in_float32_and_rounds_at_the_end():
    numbers = torch.arange(1, 257).float()
    result = device.to_device(numbers.bfloat16()) / 3
    expected = (numbers * float(np.float32(1) / np.float32(3))).bfloat16()
    assert result.dtype == torch.bfloat16
    assert torch.equal(result.cpu(), expected)


def test_integers_are_divided_in_the_default_type():
    result = device.tensor([1, 2, 3, 7], torch.int64) / 3
    third = np.float32(1) / np.float32(3)
    assert result.dtype == torch.float32
    assert result.tolist() == [float(np.float32(x) * third) for x in (1, 2, 3, 7)]


def test_complex_divided_by_a_number_scales_both_parts():
    result = device.tensor([1 + 2j, 3 - 7j], torch.complex128) / 49
    parts = [part * (1 / 49) for part in (1.0, 2.0, 3.0, -7.0)]
    assert torch.view_as_real(result).flatten().tolist() == parts


def test_complex_divisor_is_inverted_by_smiths_method():
    a, b = 3.0, 0.7
    ratio = b / a
    scale = 1.0 / (a + b * ratio)
    result = device.tensor([1.0, 2.0], torch.complex128) / complex(a, b)
    assert result.tolist()[1] == complex(2 * scale, 2 * -(ratio * scale))


def test_quotient_that_the_dividend_cannot_hold_is_refused_in_place():
    with pytest.raises(RuntimeError, match="can't be cast to the desired output type Long"):
        device.tensor([1, 2], torch.int64).div_(3)


def test_numpy_numbers_are_numbers():
    for divisor in (np.float64(3), np.int64(3), np.float32(3)):
        assert bits(device.tensor(DIVIDENDS) / divisor) == by_reciprocal(DIVIDENDS, 3)


def test_gradient_passes_through_the_division():
    x = device.tensor([1.0, 2.0]).requires_grad_()
    (x / 3).sum().backward()
    assert x.grad.tolist() == [1 / 3, 1 / 3]


# --- What is not copied from CUDA is refused


@pytest.mark.skipif(not device.choose().emulated, reason="a limit of the emulated device")
@pytest.mark.parametrize("mode", ["floor", "trunc"])
def test_rounded_division_by_a_number_is_not_covered(mode):
    with pytest.raises(NotImplementedError, match="'div by a number with rounding_mode'"):
        torch.div(device.tensor([1.0]), 3, rounding_mode=mode)
