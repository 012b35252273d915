# SPDX-License-Identifier: Apache-2.0
"""Decimals of reductions: which are exact, which go through float64, and the extrema."""

import decimal
import math
import threading
from decimal import Decimal
from fractions import Fraction

import pytest
import torch
from device import tensor

from korvex_tools.references import exact_reductions as exact

VALUES = [1.0, 0.1, -3.0, 7.25, 1e-3, 2.0]


def test_sum_of_a_hundred_thousand_tenths(runtime):
    total = runtime.tqx_sum_exact(torch.full((100_000,), 0.1, dtype=torch.float64).to("cuda"))
    assert total == Decimal("10000.00000000000055511151231257827021181583404541015625")
    assert Fraction(total) == 100_000 * Fraction(0.1)


def test_mean_that_does_not_divide_has_a_thousand_digits(runtime):
    mean = runtime.tqx_mean_exact(tensor([1.0, 2.0, 4.0]))
    assert len(mean.as_tuple().digits) == 1000
    assert abs(Fraction(mean) - Fraction(7, 3)) <= Fraction(1, 2 * 10**999)


def rounded_squares(values):
    """The sum of squared differences from the rounded mean, each operation rounded but the sum."""
    mean = exact.mean(values)
    return sum((Fraction((v - mean) * (v - mean)) for v in values), Fraction())


@pytest.mark.parametrize("options, lost", [({}, 1), ({"unbiased": True}, 1), ({"unbiased": 0}, 0)])
def test_variance_divides_by_the_documented_count(runtime, options, lost):
    expected = rounded_squares(VALUES) / (len(VALUES) - lost)
    variance = runtime.tqx_var_exact(tensor(VALUES), **options)
    assert abs(Fraction(variance) - expected) <= expected / 10**999
    assert runtime.tqx_std_exact(tensor(VALUES), **options) == variance.sqrt()


def test_norm_is_the_root_of_rounded_squares(runtime):
    norm = runtime.tqx_norm_exact(tensor(VALUES))
    squares = sum(Fraction(v * v) for v in VALUES)
    assert abs(Fraction(norm) ** 2 - squares) <= squares / 10**998
    assert runtime.tqx_norm_exact(tensor(VALUES), p=1) == norm


def test_product_is_that_of_its_two_limbs(runtime):
    product = runtime.tqx_prod_exact(tensor(VALUES))
    assert Fraction(product) == sum(map(Fraction, exact.product_limbs(VALUES)))


def test_running_sums_are_those_of_their_two_limbs(runtime):
    sums = runtime.tqx_cumsum_exact(tensor(VALUES))
    expected = [Fraction(a) + Fraction(b) for a, b in zip(*exact.prefix_limbs(VALUES), strict=True)]
    assert isinstance(sums, list) and list(map(Fraction, sums)) == expected


def test_running_sums_of_rows_of_several_elements_stop(runtime):
    with pytest.raises(RuntimeError):
        runtime.tqx_cumsum_exact(tensor([[1.0, 2.0], [3.0, 4.0]]))
    assert runtime.tqx_cumsum_exact(tensor([[1.0], [2.0]])) == [Decimal(1), Decimal(3)]


def test_logsumexp_is_its_one_double_written_out(runtime):
    x = tensor(VALUES)
    assert runtime.tqx_logsumexp_exact(x) == Decimal(float(runtime.tqx_logsumexp(x)))


def test_one_element_has_no_variance(runtime):
    with pytest.raises(decimal.DecimalException):
        runtime.tqx_var_exact(tensor([1.0]))
    assert runtime.tqx_var_exact(tensor([1.0]), unbiased=False) == 0


@pytest.mark.parametrize("name", ["tqx_mean_exact", "tqx_var_exact", "tqx_std_exact"])
def test_nothing_has_no_mean(runtime, name):
    with pytest.raises(decimal.DecimalException):
        getattr(runtime, name)(tensor([]))


def test_product_of_two_vectors_has_no_limbs(runtime):
    with pytest.raises(AttributeError):
        runtime.tqx_matmul_exact(tensor([1.0]), tensor([1.0]), 0, 0)


def test_another_thread_rounds_to_its_own_precision(runtime):
    x = tensor([1e20, 1.0, 1e-20])
    found = []

    def work():
        decimal.getcontext().prec = 10
        found.append(runtime.tqx_sum_exact(x))
        found.append(runtime.tqx_mean_exact(tensor([1.0, 2.0, 4.0])))

    thread = threading.Thread(target=work)
    thread.start()
    thread.join()
    assert found == [Decimal("1E+20"), Decimal("2.333333333")]
    assert runtime.tqx_sum_exact(x) == Decimal(1e20) + 1 + Decimal(1e-20)


# ---- extrema and trace ----


def test_indices_are_those_of_the_flat_values(runtime):
    x = tensor([[1.0, 5.0, 2.0], [-3.0, 7.0, 0.0]])
    assert runtime.tqx_argmax(x).item() == 4 and runtime.tqx_argmin(x).item() == 3
    assert runtime.tqx_max(x).item() == 7.0 and runtime.tqx_min(x).item() == -3.0


def test_extrema_are_widened_and_indices_are_not(runtime):
    x = torch.tensor([1.0, 0.1], dtype=torch.float32)
    assert runtime.tqx_min(x).dtype == torch.float64
    assert runtime.tqx_min(x).item() == x[1].item()
    assert runtime.tqx_argmin(x).item() == 1


def test_extrema_work_on_the_cpu_and_the_trace_does_not(runtime):
    x = torch.ones(2, 2)
    assert runtime.tqx_max(x).device.type == "cpu"
    with pytest.raises(RuntimeError, match="^TQX requires CUDA tensor"):
        runtime.tqx_trace(x)


@pytest.mark.parametrize("name", ["tqx_min", "tqx_max", "tqx_argmin", "tqx_argmax"])
def test_nothing_has_no_extremum(runtime, name):
    with pytest.raises((RuntimeError, IndexError)):
        getattr(runtime, name)(torch.empty(0))


@pytest.mark.parametrize(
    "values, expected",
    [([0.1, 0.2, 0.3], [0.1, 0.2, 0.3]), ([[1e20, 2, 3], [4, 1.0, 6]], [1e20, 1.0])],
)
def test_trace_sums_the_diagonal(runtime, values, expected):
    assert Fraction(runtime.tqx_trace_exact(tensor(values))) == sum(map(Fraction, expected))
    assert runtime.tqx_trace(tensor(values)).item() == math.fsum(expected)


def test_trace_of_three_dimensions_is_refused(runtime):
    with pytest.raises(RuntimeError):
        runtime.tqx_trace(tensor([[[1.0]]]))
