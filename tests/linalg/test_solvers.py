# SPDX-License-Identifier: Apache-2.0
"""tqx_solve, tqx_inv and tqx_det on the device under test, against exact solutions.

Bounds are those of docs/solvers.md. They hold for any backward stable factorisation, so for torch's
on the host as for that of a GPU.
"""

import itertools
import math
import random
from fractions import Fraction

import device
import pytest
import torch
from device import tensor

from korvex_tools.references import exact_linear
from korvex_tools.references.exact_arithmetic import bits

UNIT = 2.0**-53
NOT_CUDA = "TQX requires CUDA tensor. Move tensor to GPU with .cuda()"


def has_product_kernel():
    loader = device.choose().runtime._NATIVE_LOADER
    try:
        loader.get_kernel("tqx_prod_kernel")
    except Exception:
        return False
    return True


product_kernel = pytest.mark.skipif(
    not has_product_kernel(), reason="the device has no tqx_prod_kernel"
)


def identity(n):
    return torch.eye(n, dtype=torch.float64, device="cuda")


def condition(matrix):
    return float(torch.linalg.cond(torch.tensor(matrix, dtype=torch.float64)))


def rate(matrix):
    """A bound of the relative error of one plain solve, and so of the gain of each pass."""
    return 4 * len(matrix) * UNIT * condition(matrix)


def errors(result, exact):
    """The largest error of each column, in ulps of the column's largest element."""
    found = []
    for column, expected in zip(zip(*result, strict=True), zip(*exact, strict=True), strict=True):
        difference = max(abs(Fraction(v) - t) for v, t in zip(column, expected, strict=True))
        found.append(float(difference / Fraction(math.ulp(float(max(map(abs, expected)))))))
    return found


def same_bits(a, b):
    return [bits(v) for v in a.flatten().tolist()] == [bits(v) for v in b.flatten().tolist()]


# ---- accuracy on Hilbert matrices, whose scaled doubles are exact ----


@pytest.mark.parametrize("n", range(2, 11))
def test_inverse_of_a_hilbert_matrix_is_within_an_ulp(module, n):
    matrix = exact_linear.scaled_hilbert(n)
    inverse = exact_linear.scaled_hilbert_inverse(n)
    assert max(errors(module.tqx_inv(tensor(matrix)).tolist(), inverse)) <= 1 + 2 * rate(matrix)


@pytest.mark.parametrize("n", range(2, 11))
def test_solution_with_a_hilbert_matrix_is_within_an_ulp(module, n):
    matrix = exact_linear.scaled_hilbert(n)
    right = [float((-1) ** i * (i + 1)) for i in range(n)]
    exact = exact_linear.solve(matrix, right)
    result = module.tqx_solve(tensor(matrix), tensor(right))
    assert result.shape == (n,)
    columns = [[v] for v in result.tolist()], [[v] for v in exact]
    assert max(errors(*columns)) <= 1 + 2 * rate(matrix)


@pytest.mark.parametrize("n", [9, 10, 11])
def test_each_pass_gains_the_digits_that_a_plain_solve_has(module, n):
    matrix = exact_linear.scaled_hilbert(n)
    inverse = exact_linear.scaled_hilbert_inverse(n)
    gain = rate(matrix)
    previous = max(errors(module.tqx_solve(tensor(matrix), identity(n), 0).tolist(), inverse))
    assert previous > 1e6
    for passes in range(1, 4):
        result = module.tqx_solve(tensor(matrix), identity(n), passes)
        error = max(errors(result.tolist(), inverse))
        assert error <= gain * previous + 1 + gain
        previous = error


def test_hilbert_matrix_of_twelve_is_beyond_three_passes(module):
    """Its condition number is 1.6e16, so a plain solve need not have a digit to gain."""
    matrix, inverse = exact_linear.scaled_hilbert(12), exact_linear.scaled_hilbert_inverse(12)
    assert rate(matrix) > 1
    assert max(errors(module.tqx_inv(tensor(matrix)).tolist(), inverse)) > 1000


@product_kernel
@pytest.mark.parametrize("n", range(2, 13))
def test_determinant_of_a_hilbert_matrix(module, n):
    """Within what the factorisation loses: its backward error times the condition number."""
    matrix = exact_linear.scaled_hilbert(n)
    exact = exact_linear.scaled_hilbert_determinant(n)
    result = Fraction(module.tqx_det(tensor(matrix)).item())
    assert abs(result / exact - 1) <= n * rate(matrix)


def test_closed_forms_of_hilbert_matrices_agree_with_elimination():
    for n in (1, 2, 5, 8):
        matrix, inverse = exact_linear.scaled_hilbert(n), exact_linear.scaled_hilbert_inverse(n)
        for j in range(n):
            unit = [int(i == j) for i in range(n)]
            assert exact_linear.solve(matrix, unit) == [row[j] for row in inverse]
    assert exact_linear.scaled_hilbert_determinant(2) == Fraction(6 * 2 - 3 * 3)
    assert exact_linear.scaled_hilbert_determinant(3) == Fraction(60**3, 2160)


# ---- accuracy on systems of whole numbers, with several right-hand sides ----


def random_integers(source, rows, columns, most):
    return [[source.randint(-most, most) for _ in range(columns)] for _ in range(rows)]


def ill_conditioned(source, n, exponent):
    """A dense matrix of whole numbers, all of them doubles, of about the condition 10**exponent.

    Random factors of small condition around a diagonal from 1 to 10**exponent: no scaling of rows
    or columns takes the condition away.
    """
    factors = (random_integers(source, n, n, 9) for _ in itertools.count())
    left, right = itertools.islice((f for f in factors if condition(f) < 30), 2)
    middle = [10 ** (exponent * k // (n - 1)) for k in range(n)]
    columns = list(zip(*right, strict=True))
    matrix = [
        [sum(map(math.prod, zip(row, middle, column, strict=True))) for column in columns]
        for row in left
    ]
    assert max(abs(v) for row in matrix for v in row) < 2**53
    return [[float(v) for v in row] for row in matrix]


def check_that_passes_reach_the_bound(module, launches, matrix, right):
    """Every pass gains what is documented, the third is within the bound, and torch is far off."""
    solutions = [exact_linear.solve(matrix, column) for column in zip(*right, strict=True)]
    exact = [list(row) for row in zip(*solutions, strict=True)]
    a, b, gain = tensor(matrix), tensor(right), rate(matrix)
    plain = errors(torch.linalg.solve(a, b).tolist(), exact)
    assert max(plain) > 100
    previous = max(plain)
    for passes in (1, 2, 3):
        error = max(errors(module.tqx_solve(a, b, passes).tolist(), exact))
        assert error <= gain * previous + 1 + gain
        previous = error
    del launches[:]
    refined = errors(module.tqx_solve(a, b).tolist(), exact)
    assert launches == ["tqx_matmul_kernel"] * 3
    assert all(error <= 1 + 2 * gain for error in refined)


@pytest.mark.parametrize("n", [4, 8, 12])
@pytest.mark.parametrize("exponent", range(6, 12))
def test_ill_conditioned_integers_are_solved_to_an_ulp(module, launches, n, exponent):
    source = random.Random(f"{n} {exponent}")
    matrix = ill_conditioned(source, n, exponent)
    assert 1e6 <= condition(matrix) <= 1e13
    right = [[float(v) for v in row] for row in random_integers(source, n, 3, 99)]
    check_that_passes_reach_the_bound(module, launches, matrix, right)


@pytest.mark.parametrize("n", range(5, 11))
def test_hilbert_systems_that_torch_solves_badly_are_solved_to_an_ulp(module, launches, n):
    source = random.Random(n)
    matrix = exact_linear.scaled_hilbert(n)
    right = [[float(v) for v in row] for row in random_integers(source, n, 3, 99)]
    check_that_passes_reach_the_bound(module, launches, matrix, right)


# ---- tqx_solve ----


@pytest.mark.parametrize("shape", [(5,), (5, 1), (5, 3)])
@pytest.mark.parametrize("max_iter", [0, -3])
def test_without_passes_it_is_the_plain_solution(module, launches, shape, max_iter):
    generator = torch.Generator().manual_seed(1)
    a = torch.randn(5, 5, dtype=torch.float64, generator=generator).to("cuda")
    b = torch.randn(shape, dtype=torch.float64, generator=generator).to("cuda")
    result = module.tqx_solve(a, b, max_iter)
    assert same_bits(result, torch.linalg.solve(a, b)) and result.shape == shape
    assert launches == []


@pytest.mark.parametrize("shape", [(4,), (4, 2)])
def test_system_that_is_solved_at_once_takes_one_product(module, launches, shape):
    b = torch.arange(1.0, 1.0 + math.prod(shape), dtype=torch.float64, device="cuda").view(shape)
    result = module.tqx_solve(2 * identity(4), b)
    assert same_bits(result, b / 2)
    assert launches == ["tqx_matmul_kernel"]


def test_each_pass_takes_one_product_and_no_other_kernel(module, launches):
    matrix = tensor(exact_linear.scaled_hilbert(8))
    for passes in range(1, 5):
        del launches[:]
        module.tqx_solve(matrix, identity(8), passes)
        assert launches == ["tqx_matmul_kernel"] * passes


def test_bound_of_the_residual_is_absolute(module, launches):
    """A small right-hand side is never refined: its residual is below 1e-15 from the start."""
    matrix = tensor(exact_linear.scaled_hilbert(8))
    right = identity(8) * 2.0**-60
    plain = torch.linalg.solve(matrix, right)
    assert same_bits(module.tqx_solve(matrix, right), plain)
    assert launches == ["tqx_matmul_kernel"]


def test_one_column_that_needs_refinement_refines_all(module, launches):
    matrix = tensor(exact_linear.scaled_hilbert(8))
    right = identity(8)
    right[:, 1:] *= 2.0**-60
    exact = exact_linear.scaled_hilbert_inverse(8)
    exact = [[v * (1 if j == 0 else Fraction(1, 2**60)) for j, v in enumerate(r)] for r in exact]
    refined = module.tqx_solve(matrix, right)
    assert launches == ["tqx_matmul_kernel"] * 3
    assert max(errors(refined.tolist(), exact)) <= 1.01


def test_nan_runs_through_all_passes_and_stays(module, launches):
    matrix = identity(3)
    matrix[0, 0] = math.nan
    result = module.tqx_solve(matrix, tensor([1.0, 2.0, 3.0]))
    assert bool(result.isnan().any())
    assert launches == ["tqx_matmul_kernel"] * 3


def test_stack_of_systems_is_solved_together(module):
    matrix = torch.stack([2 * identity(3), 4 * identity(3)])
    result = module.tqx_solve(matrix, torch.ones(2, 3, 1, dtype=torch.float64, device="cuda"))
    assert result.tolist() == [[[0.5]] * 3, [[0.25]] * 3]


def test_integers_and_float32_are_widened_and_stay_as_they_were(module):
    a = torch.tensor([[2, 0], [0, 4]], device="cuda")
    b = torch.tensor([1.0, 1.0], device="cuda", dtype=torch.float32)
    result = module.tqx_solve(a, b)
    assert result.tolist() == [0.5, 0.25] and result.dtype == torch.float64
    assert a.tolist() == [[2, 0], [0, 4]] and a.dtype == torch.int64 and b.tolist() == [1.0, 1.0]


@pytest.mark.parametrize("name", ["tqx_solve", "tqx_inv"])
def test_singular_matrix_is_refused_in_torchs_words(module, name):
    singular = tensor([[1.0, 2.0], [2.0, 4.0]])
    operands = [singular, tensor([1.0, 1.0])] if name == "tqx_solve" else [singular]
    with pytest.raises(torch.linalg.LinAlgError):
        getattr(module, name)(*operands)


def test_right_hand_side_on_the_host_fails_in_the_plain_solve(module):
    with pytest.raises(RuntimeError) as caught:
        module.tqx_solve(identity(2), torch.ones(2))
    assert str(caught.value) != NOT_CUDA


@pytest.mark.parametrize("name", ["tqx_solve", "tqx_inv", "tqx_det"])
def test_matrix_on_the_host_is_refused(module, name):
    operands = [torch.eye(2)] * (2 if name == "tqx_solve" else 1)
    with pytest.raises(RuntimeError) as caught:
        getattr(module, name)(*operands)
    assert str(caught.value) == NOT_CUDA


# ---- tqx_inv ----


def test_inverse_times_matrix_is_the_identity_to_the_accuracy_of_the_inverse(module):
    generator = torch.Generator().manual_seed(2)
    a = torch.randn(9, 9, dtype=torch.float64, generator=generator).to("cuda")
    product = module.tqx_matmul(module.tqx_inv(a), a)
    # Each element of the inverse is within an ulp of the largest of its column.
    scale = module.tqx_inv(a).abs().max() * a.abs().sum(0).max()
    assert float((product - identity(9)).abs().max()) <= 2.1 * UNIT * float(scale)


def test_matrix_that_is_not_square_has_no_inverse(module):
    with pytest.raises(RuntimeError, match="square"):
        module.tqx_inv(torch.ones(3, 2, device="cuda"))


# ---- tqx_det ----


@product_kernel
@pytest.mark.parametrize("n", [1, 2, 5])
def test_determinant_of_the_identity(module, launches, n):
    result = module.tqx_det(identity(n))
    assert result.item() == 1.0 and result.shape == () and result.dtype == torch.float64
    assert launches == ["tqx_prod_kernel"]


@product_kernel
@pytest.mark.parametrize(
    "order, expected", [((1, 0), -1.0), ((1, 2, 0), 1.0), ((0, 2, 1), -1.0), ((3, 2, 1, 0), 1.0)]
)
def test_determinant_of_exchanged_rows(module, order, expected):
    assert module.tqx_det(identity(len(order))[list(order)]).item() == expected


@product_kernel
def test_determinant_of_powers_of_two_is_exact_where_their_partial_products_overflow(module):
    diagonal = torch.diag(tensor([2.0**600, 2.0**600, 2.0**-600, 2.0**-500]))
    assert module.tqx_det(diagonal).item() == 2.0**100


@product_kernel
def test_determinant_of_more_rows_than_columns_is_of_the_square_on_top(module):
    assert module.tqx_det(tensor([[4.0, 1.0], [2.0, 1.0], [1.0, 0.0]])).item() == 2.0


@product_kernel
def test_determinant_of_more_columns_than_rows_runs_out_of_pivots(module):
    with pytest.raises(IndexError):
        module.tqx_det(tensor([[2.0, 1.0, 1.0], [0.0, 2.0, 1.0]]))


def test_determinant_of_a_stack_is_refused_by_diag(module):
    with pytest.raises(RuntimeError, match="1D or 2D"):
        module.tqx_det(torch.stack([identity(3), identity(3)]))


def test_determinant_of_a_singular_matrix_is_what_the_factorisation_makes_of_it(module):
    with pytest.raises(RuntimeError):
        torch.linalg.lu_factor(tensor([[1.0, 2.0], [2.0, 4.0]]))
    with pytest.raises(RuntimeError):
        module.tqx_det(tensor([[1.0, 2.0], [2.0, 4.0]]))
