# SPDX-License-Identifier: Apache-2.0
"""tqx_linear, tqx_einsum and tqx_mse_loss on the device under test: routes, values, failures."""

import math
import operator
import random
from fractions import Fraction

import pytest
import torch
from device import tensor

from korvex_tools.references import exact_linear
from korvex_tools.references.exact_arithmetic import (
    bits,
    dot_limbs,
    exact_dot,
    exact_sum,
    round_to_double,
)

MATMUL = "tqx_matmul_kernel"
NOT_CUDA = "TQX requires CUDA tensor. Move tensor to GPU with .cuda()"


def drawn(seed, *extents):
    source = random.Random(f"{seed} {extents}")
    if len(extents) == 1:
        return [source.gauss(0, 1) * 2.0 ** source.randrange(-20, 20) for _ in range(extents[0])]
    return [drawn(f"{seed} {i}", *extents[1:]) for i in range(extents[0])]


def all_bits(nested):
    return [bits(v) for v in torch.tensor(nested, dtype=torch.float64).flatten().tolist()]


def rounded_product(a, b):
    """Each element the rounding of its exact sum."""
    columns = list(zip(*b, strict=True))
    return [[round_to_double(exact_dot(row, column)) for column in columns] for row in a]


# ---- tqx_linear ----


def test_linear_rounds_the_product_and_then_the_sum(module, launches):
    x, weight, bias = drawn(1, 4, 6), drawn(2, 3, 6), drawn(3, 3)
    product = rounded_product(x, list(zip(*weight, strict=True)))
    expected = [[p + c for p, c in zip(row, bias, strict=True)] for row in product]
    result = module.tqx_linear(tensor(x), tensor(weight), tensor(bias))
    assert all_bits(result.tolist()) == all_bits(expected)
    assert launches == [MATMUL, "tqx_add_kernel"]


def test_linear_keeps_no_error_of_the_product_for_the_bias(module):
    # 2**60 + 1 is rounded to 2**60 before the bias takes 2**60 away.
    x, weight = tensor([[2.0**60, 1.0]]), tensor([[1.0, 1.0]])
    assert module.tqx_linear(x, weight, tensor([-(2.0**60)])).tolist() == [[0.0]]


@pytest.mark.parametrize("extents", [(6,), (4, 6), (2, 4, 6), (2, 1, 4, 6)])
@pytest.mark.parametrize("with_bias", [False, True])
def test_linear_takes_operands_of_any_batch_shape(module, launches, extents, with_bias):
    weight, bias = drawn(2, 3, 6), drawn(3, 3)
    x = drawn(1, *extents)
    result = module.tqx_linear(tensor(x), tensor(weight), tensor(bias) if with_bias else None)
    assert tuple(result.shape) == (*extents[:-1], 3) and result.dtype == torch.float64
    rows = tensor(x).reshape(-1, 6).tolist()
    expected = rounded_product(rows, list(zip(*weight, strict=True)))
    if with_bias:
        expected = [[p + c for p, c in zip(row, bias, strict=True)] for row in expected]
    assert all_bits(result.tolist()) == all_bits(expected)
    members = 1 if len(extents) < 3 else 2
    assert launches == [MATMUL] * members + ["tqx_add_kernel"] * with_bias


def test_zero_bias_is_added(module, launches):
    module.tqx_linear(tensor([[1.0]]), tensor([[1.0]]), tensor([0.0]))
    assert launches == [MATMUL, "tqx_add_kernel"]


def test_linear_widens_integers_and_float32(module):
    x = torch.tensor([[1, 2]], device="cuda")
    weight = torch.tensor([[0.1, 0.2]], device="cuda", dtype=torch.float32)
    bias = torch.tensor([3], device="cuda")
    exact = exact_dot([1.0, 2.0], weight[0].double().tolist())
    result = module.tqx_linear(x, weight, bias)
    assert result.tolist() == [[round_to_double(exact) + 3.0]]


def test_linear_refuses_a_bias_of_another_width_in_torchs_words(module):
    with pytest.raises(RuntimeError, match="must match the existing size"):
        module.tqx_linear(tensor([[1.0, 2.0]]), tensor([[1.0, 2.0]]), tensor([1.0, 2.0]))


def test_linear_refuses_inner_dimensions_that_differ(module):
    with pytest.raises(AssertionError) as caught:
        module.tqx_linear(tensor([[1.0, 2.0]]), tensor([[1.0, 2.0, 3.0]]))
    assert str(caught.value) == "Inner dimensions must match: 2 vs 3"


def test_linear_of_more_samples_than_a_grid_has_blocks_for(module, launches):
    samples = 16 * 65535 + 17
    x = torch.arange(1.0, samples + 1.0, dtype=torch.float64)
    result = module.tqx_linear(x.view(samples, 1).to("cuda"), tensor([[0.1]]), tensor([0.25]))
    assert launches == [MATMUL, "tqx_add_kernel"] and result.shape == (samples, 1)
    assert torch.equal(result.view(samples).cpu(), x * 0.1 + 0.25)


# ---- tqx_einsum ----


def test_vectors_of_einsum_give_limbs_where_matmul_would_not(module, launches):
    x, y = drawn(4, 9), drawn(5, 9)
    result = module.tqx_einsum("i,i->", tensor(x), tensor(y), return_tqx=True)
    assert isinstance(result, module.TQXResult)
    assert all_bits([limb.item() for limb in result.limbs]) == all_bits(dot_limbs(x, y, 4))
    assert launches == ["tqx_dot_seq_kernel"]
    assert isinstance(module.tqx_einsum("i,i->", tensor(x), tensor(y)), torch.Tensor)


@pytest.mark.parametrize("equation", ["ij,jk->ik", "mk,kn->mn"])
def test_matrices_of_einsum_give_three_limbs(module, equation):
    a, b = drawn(6, 3, 5), drawn(7, 5, 2)
    result = module.tqx_einsum(equation, tensor(a), tensor(b), return_tqx=True)
    assert [tuple(limb.shape) for limb in result.limbs] == [(3, 2)] * 3
    plain = module.tqx_einsum(equation, tensor(a), tensor(b))
    assert all_bits(plain.tolist()) == all_bits(rounded_product(a, b))


def test_batches_of_einsum_give_no_limbs(module):
    a, b = drawn(8, 2, 3, 4), drawn(9, 2, 4, 2)
    result = module.tqx_einsum("bij,bjk->bik", tensor(a), tensor(b), return_tqx=True)
    assert isinstance(result, torch.Tensor)
    expected = [rounded_product(p, q) for p, q in zip(a, b, strict=True)]
    assert all_bits(result.tolist()) == all_bits(expected)


def test_blanks_in_the_equation_lead_to_torch(module, launches):
    a, b = tensor([[1, 2], [3, 4]], torch.int32), tensor([[5, 6], [7, 8]], torch.float32)
    result = module.tqx_einsum("ij, jk -> ik", a, b, return_tqx=True)
    assert isinstance(result, torch.Tensor) and result.dtype == torch.float64
    assert result.tolist() == [[19.0, 22.0], [43.0, 50.0]]
    assert launches == []


def test_other_equations_work_off_the_gpu(module):
    a = torch.tensor([[1.0, 2.0], [3.0, 4.0]])
    assert module.tqx_einsum("ii->", a).tolist() == 5.0
    assert module.tqx_einsum("ij->ji", a).tolist() == [[1.0, 3.0], [2.0, 4.0]]


@pytest.mark.parametrize("equation", ["i,i->", "ij,jk->ik", "mk,kn->mn", "bij,bjk->bik"])
def test_recognised_equations_lead_to_the_cuda_test(module, equation):
    extents = {"i,i->": (2,), "bij,bjk->bik": (1, 2, 2)}.get(equation, (2, 2))
    with pytest.raises(RuntimeError) as caught:
        module.tqx_einsum(equation, torch.ones(extents), torch.ones(extents))
    assert str(caught.value) == NOT_CUDA


@pytest.mark.parametrize("equation", ["i,i->", "ij,jk->ik", "mk,kn->mn", "bij,bjk->bik"])
@pytest.mark.parametrize("count", [0, 1])
def test_too_few_operands_are_an_index_error(module, equation, count):
    with pytest.raises(IndexError):
        module.tqx_einsum(equation, *[tensor([[1.0]])] * count)


def test_einsum_refuses_shapes_as_the_function_that_it_calls(module):
    with pytest.raises(AssertionError) as caught:
        module.tqx_einsum("ij,jk->ik", tensor([[1.0, 2.0]]), tensor([[1.0]]))
    assert str(caught.value) == "Inner dimensions must match: 2 vs 1"
    with pytest.raises(AssertionError) as caught:
        module.tqx_einsum("bij,bjk->bik", tensor([[1.0]]), tensor([[1.0]]))
    assert str(caught.value) == ""


# ---- tqx_mse_loss ----


def test_loss_rounds_difference_and_square_and_keeps_the_errors_of_the_sum(module, launches):
    pred, target = drawn(10, 40), drawn(11, 40)
    differences = map(operator.sub, pred, target)
    squares = [d * d for d in differences]
    total = round_to_double(exact_sum(squares))
    assert module.tqx_mse_loss(tensor(pred), tensor(target), "sum").item() == total
    assert launches == ["tqx_sub_kernel", "tqx_mul_kernel", "tqx_sum_seq_kernel"]


def test_mean_of_equal_squares_is_that_square(module):
    pred, target = tensor([[0.0, 3.0], [6.0, -3.0]]), tensor([[3.0, 0.0], [3.0, 0.0]])
    loss = module.tqx_mse_loss(pred, target)
    assert loss.item() == 9.0 and loss.shape == () and loss.dtype == torch.float64


@pytest.mark.parametrize("reduction", ["sum", "none", "MEAN", "", "mean "])
def test_every_other_text_is_the_sum(module, reduction):
    pred, target = tensor([1.0, 2.0, 4.0]), tensor([0.0, 0.0, 0.0])
    loss = module.tqx_mse_loss(pred, target, reduction, return_tqx=True)
    assert type(loss) is type(pred) and loss.shape == () and loss.item() == 21.0


def test_loss_broadcasts_as_its_difference_does(module):
    assert module.tqx_mse_loss(tensor([[1.0], [2.0]]), tensor([1.0, 3.0]), "sum").item() == 6.0


def test_loss_of_limb_results_takes_their_exact_difference(module):
    # The lower limb is lost in a plain tensor, and is the whole difference here.
    value = module.TQXResult([tensor([1.0]), tensor([2.0**-60])], "cuda:0")
    assert module.tqx_mse_loss(value, tensor([1.0]), "sum").item() == 2.0**-120


def test_loss_of_something_else_fails_in_the_difference(module):
    with pytest.raises(AttributeError):
        module.tqx_mse_loss("text", tensor([1.0]))


# ---- a fit by normal equations ----


def test_line_through_points_by_normal_equations(module):
    """Times of 33 eighths past 1000: the condition of the normal equations is about 1e12."""
    source = random.Random(12)
    times = [1000.0 + i / 8 for i in range(33)]
    design = [[1.0, t] for t in times]
    values = [3.0 + 2.0 * t + source.randrange(-64, 65) / 1024 for t in times]
    columns = list(zip(*design, strict=True))
    normal = module.tqx_matmul(tensor(columns), tensor(design))
    right = module.tqx_matmul(tensor(columns), tensor(values))
    # All values have few enough bits for both products to be exact.
    assert normal.tolist() == [[exact_dot(p, q) for q in columns] for p in columns]
    assert right.tolist() == [exact_dot(p, values) for p in columns]
    exact = exact_linear.solve(normal.tolist(), right.tolist())
    fitted = module.tqx_solve(normal, right).tolist()
    # Refinement ends within an ulp of the larger number; the other error term is far below.
    allowed = 1.01 * math.ulp(max(map(abs, exact)))
    assert all(abs(v - e) <= allowed for v, e in zip(map(Fraction, fitted), exact, strict=True))
