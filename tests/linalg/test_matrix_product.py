# SPDX-License-Identifier: Apache-2.0
"""tqx_matmul, tqx_bmm and their exact elements on the device under test: routes, shapes, values."""

import math
import random
from decimal import Decimal
from fractions import Fraction

import pytest
import torch
from device import tensor
from hypothesis import given
from hypothesis import strategies as st
from subprocess_run import run_python

from korvex_tools.references.exact_arithmetic import bits, dot_limbs

INF, NAN = math.inf, math.nan
KERNEL = "tqx_matmul_kernel"


def matrix(source, rows, columns, spread=0):
    return [
        [source.gauss(0, 1) * 2.0 ** source.uniform(-spread, spread) for _ in range(columns)]
        for _ in range(rows)
    ]


def shaped(values, rows, columns):
    return tensor(values).reshape(rows, columns)


def check(module, a, b, rows, columns, inner):
    """All limbs of all elements against rational arithmetic."""
    result = module.tqx_matmul(shaped(a, rows, inner), shaped(b, inner, columns), return_tqx=True)
    assert [tuple(limb.shape) for limb in result.limbs] == [(rows, columns)] * 3
    limbs = [limb.tolist() for limb in result.limbs]
    for i in range(rows):
        for j in range(columns):
            expected = dot_limbs(a[i], [b[k][j] for k in range(inner)], 3)
            assert [bits(limb[i][j]) for limb in limbs] == [bits(v) for v in expected], (i, j)


def drawn(*shape):
    generator = torch.Generator().manual_seed(sum(shape))
    return torch.randn(shape, generator=generator, dtype=torch.float64).to("cuda")


# ---- values ----


@pytest.mark.parametrize("rows", [1, 3, 15, 16, 17])
@pytest.mark.parametrize("columns", [1, 2, 3, 4, 5, 8, 9, 16, 18])
@pytest.mark.parametrize("inner", [0, 1, 2, 19])
def test_sizes_around_the_borders_of_tiles(module, rows, columns, inner):
    source = random.Random(f"{rows} {columns} {inner}")
    a, b = matrix(source, rows, inner), matrix(source, inner, columns)
    check(module, a, b, rows, columns, inner)


@pytest.mark.parametrize("rows, columns, inner", [(65, 9, 5), (2, 70, 130), (4, 5, 257)])
@pytest.mark.parametrize("spread", [0, 30, 500])
def test_larger_sizes_and_spreads(module, rows, columns, inner, spread):
    source = random.Random(spread)
    a, b = matrix(source, rows, inner, spread), matrix(source, inner, columns, spread)
    check(module, a, b, rows, columns, inner)


def test_no_inner_dimension_gives_zeros(module):
    result = module.tqx_matmul(torch.empty(2, 0).to("cuda"), torch.empty(0, 3).to("cuda"))
    assert result.tolist() == [[0.0] * 3] * 2 and result.dtype is torch.float64


def test_small_parts_are_kept(module):
    ones = [[1.0] * 4] * 3
    check(module, [[1.0, 2.0**-53, 2.0**-120]], ones, 1, 4, 3)
    result = module.tqx_matmul(tensor([[1.0, 2.0**-60, 2.0**-120]]), tensor(ones), return_tqx=True)
    assert [limb[0, 3].item() for limb in result.limbs] == [1.0, 2.0**-60, 2.0**-120]


def test_a_wild_row_meets_a_matching_column(module):
    source = random.Random(1)
    a, b = matrix(source, 5, 20), matrix(source, 20, 9)
    a[2][7], a[2][8] = 1e300, 1e-300
    b[7][4], b[8][4] = 1e-300, 1e300
    check(module, a, b, 5, 9, 20)


def test_products_out_of_range_count_as_what_they_are(module):
    a = [[2.0**-600, 1.0], [2.0**512, 2.0**512], [1e308, 1e308]]
    b = [[2.0**-600, 2.0**512, 10.0, 1.0], [-1.0, -(2.0**512), -10.0, 1.0]]
    check(module, a, b, 3, 4, 2)


def test_an_infinity_in_one_row_leaves_other_rows_alone(module):
    source = random.Random(2)
    a, b = matrix(source, 20, 6), matrix(source, 6, 10)
    a[3][2], b[2][5], a[17][0] = INF, 0.0, NAN
    check(module, a, b, 20, 10, 6)
    b[1][9] = -INF
    check(module, a, b, 20, 10, 6)


@given(st.integers(0, 2**32), st.integers(1, 6), st.integers(1, 10), st.integers(0, 8))
def test_any_bits(module, seed, rows, columns, inner):
    source = random.Random(seed)
    pool = [math.ldexp(source.uniform(-1, 1), source.randint(-1074, 1023)) for _ in range(5)]
    pool += [1.0, -1.0, 0.0, 5e-324, 2.0**-53]
    a = [[source.choice(pool) for _ in range(inner)] for _ in range(rows)]
    b = [[source.choice(pool) for _ in range(columns)] for _ in range(inner)]
    check(module, a, b, rows, columns, inner)


def test_value_is_the_collapsed_limbs(module):
    a, b = drawn(20, 30), drawn(30, 10)
    limbs = module.tqx_matmul(a, b, return_tqx=True)
    assert torch.equal(module.tqx_matmul(a, b), limbs.collapse())


def test_operands_are_widened(module):
    a, b = tensor([[2**24 + 1, 3]], torch.int64), tensor([[0.1], [0.25]], torch.float32)
    expected = dot_limbs([2.0**24 + 1, 3.0], [b[0, 0].item(), b[1, 0].item()], 3)
    result = module.tqx_matmul(a, b, return_tqx=True)
    assert [limb.item() for limb in result.limbs] == expected


# ---- routes and shapes ----


def test_two_vectors_are_a_plain_dot_product(module, launches):
    x, y = drawn(7), drawn(7)
    with_limbs, without = module.tqx_matmul(x, y, return_tqx=True), module.tqx_matmul(x, y)
    assert isinstance(with_limbs, torch.Tensor) and with_limbs.shape == ()
    assert torch.equal(with_limbs, without) and torch.equal(without, module.tqx_dot(x, y))
    assert launches == ["tqx_dot_seq_kernel"] * 3


SHAPES = [
    ((5,), (5, 4), (4,), 1),
    ((3, 5), (5,), (3,), 1),
    ((3, 5), (5, 4), (3, 4), 1),
    ((5,), (2, 5, 4), (2, 4), 2),
    ((2, 3, 5), (5,), (2, 3), 2),
    ((2, 3, 5), (5, 4), (2, 3, 4), 2),
    ((3, 5), (2, 5, 4), (2, 3, 4), 2),
    ((2, 1, 3, 5), (3, 5, 4), (2, 3, 3, 4), 6),
    ((1, 3, 5), (1, 5, 4), (1, 3, 4), 1),
    ((2, 3, 1), (2, 1, 4), (2, 3, 4), 2),
]


@pytest.mark.parametrize("a_shape, b_shape, shape, count", SHAPES)
def test_shapes_are_those_of_a_tensor_product(module, launches, a_shape, b_shape, shape, count):
    a, b = drawn(*a_shape), drawn(*b_shape)
    limbs = module.tqx_matmul(a, b, return_tqx=True)
    assert type(limbs) is module.TQXResult and limbs.n_limbs == 3 and limbs.device == "cuda:0"
    assert [tuple(limb.shape) for limb in limbs.limbs] == [shape] * 3
    assert launches == [KERNEL] * count
    value = module.tqx_matmul(a, b)
    assert isinstance(value, torch.Tensor) and value.shape == shape
    assert torch.equal(value, limbs.collapse())
    close = torch.matmul(a.cpu(), b.cpu())
    assert torch.allclose(value.cpu(), close, rtol=1e-12, atol=1e-12)


def test_no_rows_or_columns_launch_and_give_nothing(module, launches):
    for rows, columns in ((0, 3), (3, 0), (0, 0)):
        result = module.tqx_matmul(drawn(rows, 2), drawn(2, columns), return_tqx=True)
        assert [tuple(limb.shape) for limb in result.limbs] == [(rows, columns)] * 3
    assert launches == [KERNEL] * 3


def test_more_rows_than_a_grid_has_blocks_for(module, launches):
    """A device takes 65535 blocks of 16 rows; the kernel goes on to the rows beyond."""
    rows, factor = 16 * 65535 + 17, 0.1
    a = torch.arange(1.0, rows + 1.0, dtype=torch.float64)
    result = module.tqx_matmul(a.view(rows, 1).to("cuda"), tensor([[factor]]), return_tqx=True)
    assert launches == [KERNEL]
    assert [tuple(limb.shape) for limb in result.limbs] == [(rows, 1)] * 3
    limbs = [limb.view(rows).cpu() for limb in result.limbs]
    assert torch.equal(limbs[0], a * factor)
    for i in (0, 16 * 65535 - 1, 16 * 65535, rows - 2, rows - 1):
        expected = dot_limbs([float(i + 1)], [factor], 3)
        assert [bits(limb[i].item()) for limb in limbs] == [bits(v) for v in expected]


def test_bmm_is_always_a_plain_tensor(module, launches):
    a, b = drawn(2, 3, 5), drawn(2, 5, 4)
    value = module.tqx_bmm(a, b, return_tqx=True)
    assert isinstance(value, torch.Tensor) and value.shape == (2, 3, 4)
    assert torch.equal(value, module.tqx_matmul(a, b)) and launches == [KERNEL] * 4


def test_exact_elements(module):
    a, b = [[0.1, 0.2], [0.3, 1e20]], [[0.7, 1e-9], [3.3, 1.1]]
    decimal = module.tqx_matmul_exact(tensor(a), tensor(b), 1, 0.9)
    assert type(decimal) is Decimal
    expected = sum(map(Fraction, dot_limbs(a[1], [0.7, 3.3], 3)))
    assert Fraction(decimal) == expected
    assert Fraction(module.tqx_bmm_exact(tensor([b, a]), tensor([a, b]), 1, 1, 0)) == expected


def test_exact_element_of_two_vectors_fails(module):
    with pytest.raises(AttributeError, match="to_decimal"):
        module.tqx_matmul_exact(drawn(3), drawn(3), 0, 0)


# ---- failures ----


def test_first_operand_off_the_gpu(module, launches):
    text = "^TQX requires CUDA tensor. Move tensor to GPU with .cuda\\(\\)$"
    with pytest.raises(RuntimeError, match=text):
        module.tqx_matmul(torch.ones(2, 2), drawn(2, 2))
    with pytest.raises(RuntimeError, match=text):
        module.tqx_bmm(torch.ones(1, 2, 2), drawn(1, 2, 2))
    assert launches == []


def test_second_operand_is_not_tested_for_cuda(module):
    with pytest.raises(Exception) as failure:
        module.tqx_matmul(drawn(2, 2), torch.ones(2, 2))
    assert "TQX requires" not in str(failure.value)


@pytest.mark.parametrize(
    "a_shape, b_shape", [((2, 3), (4, 2)), ((3,), (4, 2)), ((2, 3), (4,)), ((2, 2, 3), (2, 4, 2))]
)
def test_inner_dimensions_that_differ(module, a_shape, b_shape):
    with pytest.raises(AssertionError, match="^Inner dimensions must match: 3 vs 4$"):
        module.tqx_matmul(drawn(*a_shape), drawn(*b_shape))


def test_batch_shapes_that_do_not_broadcast(module):
    with pytest.raises(RuntimeError) as failure:
        module.tqx_matmul(drawn(2, 3, 4), drawn(3, 4, 5))
    text = "Cannot broadcast batch shapes torch.Size([2]) and torch.Size([3])"
    assert str(failure.value) == text


@pytest.mark.parametrize(
    "a_shape, b_shape",
    [((2, 3), (2, 3, 4)), ((2, 3, 4), (3, 4)), ((2, 3, 4), (3, 4, 5)), ((2, 3, 4), (2, 5, 4))],
)
def test_bmm_asserts_without_a_text(module, launches, a_shape, b_shape):
    with pytest.raises(AssertionError) as failure:
        module.tqx_bmm(drawn(*a_shape), drawn(*b_shape))
    assert failure.value.args == () and launches == []


@pytest.mark.parametrize("function", ["tqx_matmul", "tqx_bmm"])
def test_empty_batches_fail_in_the_stacking(module, function):
    """Before any test for CUDA in tqx_bmm, which is made member by member."""
    with pytest.raises(RuntimeError, match="stack"):
        getattr(module, function)(drawn(0, 3, 4), drawn(0, 4, 5))
    with pytest.raises(RuntimeError, match="stack"):
        module.tqx_bmm(torch.ones(0, 3, 4), torch.ones(0, 4, 5))


def test_operands_without_dimensions_have_no_rows(module):
    with pytest.raises(IndexError):
        module.tqx_matmul(tensor(2.0), drawn(2, 2))
    with pytest.raises(IndexError):
        module.tqx_matmul(drawn(2, 2), tensor(2.0))


def test_limb_results_are_refused(module):
    limbs = module.TQXResult([drawn(2, 2)])
    with pytest.raises(AttributeError, match="is_cuda"):
        module.tqx_matmul(limbs, drawn(2, 2))


# ---- without assertions ----

OPTIMISED = """
    import device, torch
    m = device.choose().runtime
    assert_is_off = True
    assert not assert_is_off, "assertions are off here"

    def fails(kind, text, function, *operands):
        try:
            function(*operands)
        except kind as error:
            if text not in str(error):
                raise SystemExit(f"{text!r} is not in {error!r}")
        else:
            raise SystemExit(f"no {kind}")

    def ones(*shape):
        return torch.ones(shape, dtype=torch.float64).to("cuda")

    # The inner size is that of a; b has more elements than that needs.
    product = m._tqx_matmul_2d(ones(2, 3), ones(4, 2))
    if product.tolist() != [[3.0, 3.0], [3.0, 3.0]]:
        raise SystemExit(f"{product}")
    # Fewer elements than the sizes say never reach the kernel.
    fails(ValueError, "", m.tqx_matmul, ones(2, 3), ones(2, 2))
    fails(RuntimeError, "shape", m.tqx_matmul, ones(2, 2, 3), ones(2, 4, 2))
    fails(ValueError, "need more than 2 values to unpack", m.tqx_bmm, ones(2, 3), ones(2, 3, 4))
    fails(ValueError, "need more than 1 value to unpack", m.tqx_bmm, ones(1, 3, 4), ones(3))
    too_many = "too many values to unpack (expected 3)"
    fails(ValueError, too_many, m.tqx_bmm, ones(1, 1, 1, 1), ones(3))
    product = m.tqx_bmm(ones(1, 2, 3), ones(2, 3, 4))
    if tuple(product.shape) != (1, 2, 4):
        raise SystemExit(f"{product.shape}")
    print("all as expected")
"""


def test_without_assertions_nothing_replaces_them():
    assert run_python(OPTIMISED, "-O").splitlines()[-1] == "all as expected"


def test_builtins_of_the_calling_frame_do_not_matter(module):
    x = tensor([[1.0, 2.0], [3.0, 4.0]])
    names = {"__builtins__": {}, "product": module.tqx_matmul, "x": x}
    assert eval("product(x, x)", names).tolist() == [[7.0, 10.0], [15.0, 22.0]]
    limbs = module.TQXResult([x, x])
    total = eval("add(x, x)", {"__builtins__": {}, "add": module.tqx_add, "x": limbs})
    assert total.tolist() == [[4.0, 8.0], [12.0, 16.0]]
