# SPDX-License-Identifier: Apache-2.0
"""Sums and means as Decimal values on the device under test."""

import decimal
import threading
from decimal import Decimal
from fractions import Fraction

import pytest
import torch
from device import tensor


def test_long_sum_of_a_tenth_is_exact(module, launches):
    x = torch.full((100_000,), 0.1, dtype=torch.float64, device="cuda")
    expected = Decimal("10000.00000000000055511151231257827021181583404541015625")
    total = module.tqx_sum_exact(x)
    assert type(total) is Decimal and total == expected == 100_000 * Decimal(0.1)
    assert launches == ["tqx_sum_seq_kernel"]


def test_sum_keeps_what_a_double_cannot(module):
    total = module.tqx_sum_exact(tensor([1e16, 1.0, 2.0**-60, -1e16]))
    assert Fraction(total) == 1 + Fraction(1, 2**60)


def test_sum_of_nothing_is_zero(module):
    assert str(module.tqx_sum_exact(tensor([]))) == "0"


def test_sum_of_an_infinity_is_what_the_bits_give(module):
    assert module.tqx_sum_exact(tensor([float("inf")])) == Decimal(2) ** 1024
    assert module.tqx_sum_exact(tensor([float("nan")])) == 3 * Decimal(2) ** 1023


def test_sum_of_any_shape_and_type(module):
    assert module.tqx_sum_exact(tensor([[1, 2], [3, 4]], torch.int16)) == 10
    assert module.tqx_sum_exact(tensor(0.25)) == Decimal("0.25")


def test_mean_that_does_not_divide_has_a_thousand_digits(module, launches):
    mean = module.tqx_mean_exact(tensor([1.0, 0.0, 0.0]))
    assert len(mean.as_tuple().digits) == 1000
    assert str(mean) == "0." + "3" * 1000
    assert launches == ["tqx_sum_seq_kernel"]


def test_mean_that_divides_is_exact(module):
    assert module.tqx_mean_exact(tensor([0.5, 1.0, 1.5, 3.0])) == Decimal("1.5")


def test_mean_of_nothing_is_the_contexts_division_error(module):
    with pytest.raises(decimal.InvalidOperation):  # zero by zero
        module.tqx_mean_exact(tensor([]))


def test_mean_counts_all_elements_of_any_shape(module):
    assert module.tqx_mean_exact(tensor([[1, 2], [3, 6]], torch.int32)) == 3


def test_other_thread_computes_under_its_own_precision(module):
    x = tensor([1.0, 0.0, 0.0])
    results = []
    thread = threading.Thread(target=lambda: results.append(module.tqx_mean_exact(x)))
    thread.start()
    thread.join()
    assert str(results[0]) == "0." + "3" * 28


def test_context_of_the_caller_is_not_changed(module):
    with decimal.localcontext(decimal.Context(prec=7)) as context:
        module.tqx_mean_exact(tensor([1.0, 2.0]))
        assert decimal.getcontext() is context and context.prec == 7
