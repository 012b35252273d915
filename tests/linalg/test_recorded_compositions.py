# SPDX-License-Identifier: Apache-2.0
"""Every step of the contractions, the convolutions and the solvers, one by one and in order.

Every script is complete: what is not listed is not done. The functions of the module that a body
calls are spies too, so a script shows which of them are called and whether limbs are asked for.
"""

import pytest
import torch as real_torch
from call_recorder import Recorder, text

GLOBALS = ("tqx_dot", "tqx_matmul", "tqx_bmm", "tqx_add", "tqx_sub", "tqx_mul", "tqx_mean")
GLOBALS += ("tqx_sum", "tqx_prod", "TQXResult", "torch")


@pytest.fixture
def recorded(runtime, monkeypatch):
    """Makes a recorder whose spies stand for all that a body calls."""

    def make(script, returns=None, raises=None):
        recorder = Recorder(script, returns, raises)
        for name in GLOBALS:
            monkeypatch.setattr(runtime, name, recorder.spy(name))
        return recorder

    return make


def shape(*extents):
    return real_torch.Size(extents)


# ---- tqx_linear ----

PRODUCT_OF_LINEAR = """
    weight.t
    w_t = weight.t()
    result = tqx_matmul(x, w_t)
"""
WITH_BIAS = """
    result.double
    result_f64 = result.double()
    bias.double
    bias_f64 = bias.double()
    bias_f64.expand_as
    wide = bias_f64.expand_as(result)
    total = tqx_add(result_f64, wide)
"""


def test_linear_asks_for_no_limbs_of_the_product_or_of_the_sum(runtime, recorded):
    recorder = recorded(PRODUCT_OF_LINEAR + WITH_BIAS)
    returned = runtime.tqx_linear(*map(recorder.spy, ("x", "weight", "bias")))
    recorder.check()
    assert text(returned) == "total"


@pytest.mark.parametrize("given", [(), (None,)])
def test_linear_without_bias_is_the_product_itself(runtime, recorded, given):
    recorder = recorded(PRODUCT_OF_LINEAR)
    returned = runtime.tqx_linear(recorder.spy("x"), recorder.spy("weight"), *given)
    recorder.check()
    assert text(returned) == "result"


def test_linear_asks_no_bias_for_its_truth(runtime, recorded):
    recorder = recorded(PRODUCT_OF_LINEAR + WITH_BIAS, returns={"bool(bias)": False})
    runtime.tqx_linear(*map(recorder.spy, ("x", "weight", "bias")))
    recorder.check()


# ---- tqx_einsum ----

ROUTES = {
    "i,i->": "tqx_dot",
    "ij,jk->ik": "tqx_matmul",
    "mk,kn->mn": "tqx_matmul",
    "bij,bjk->bik": "tqx_bmm",
}


@pytest.mark.parametrize("asked", [False, True])
@pytest.mark.parametrize("equation", ROUTES)
def test_recognised_equation_goes_to_its_function_with_return_tqx(
    runtime, recorded, equation, asked
):
    recorder = recorded(f"r = {ROUTES[equation]}(a, b, return_tqx={asked})")
    returned = runtime.tqx_einsum(equation, *map(recorder.spy, "ab"), return_tqx=asked)
    recorder.check()
    assert text(returned) == "r"


@pytest.mark.parametrize("equation", ROUTES)
def test_recognised_equation_drops_further_operands(runtime, recorded, equation):
    recorder = recorded(f"r = {ROUTES[equation]}(a, b, return_tqx=False)")
    runtime.tqx_einsum(equation, *map(recorder.spy, "abcd"))
    recorder.check()


@pytest.mark.parametrize(
    "equation",
    ["ij, jk -> ik", "ij,jk", "i, i->", "I,I->", "ij,jl->il", " ij,jk->ik", "ij,jk->ik\0"],
)
@pytest.mark.parametrize("asked", [False, True])
def test_any_other_spelling_goes_to_torch_after_all_are_widened(runtime, recorded, equation, asked):
    recorder = recorded(f"""
        a.double
        a_f64 = a.double()
        b.double
        b_f64 = b.double()
        torch.einsum
        r = torch.einsum({equation!r}, a_f64, b_f64)
    """)
    returned = runtime.tqx_einsum(equation, *map(recorder.spy, "ab"), return_tqx=asked)
    recorder.check()
    assert text(returned) == "r"


def test_torch_gets_every_operand(runtime, recorded):
    recorder = recorded("""
        a.double
        a_f64 = a.double()
        b.double
        b_f64 = b.double()
        c.double
        c_f64 = c.double()
        torch.einsum
        torch.einsum('i,j,k->ijk', a_f64, b_f64, c_f64)
    """)
    runtime.tqx_einsum("i,j,k->ijk", *map(recorder.spy, "abc"))
    recorder.check()


# ---- tqx_mse_loss ----


def loss_script(reduction):
    return f"""
        diff = tqx_sub(pred, target)
        diff.double
        left = diff.double()
        diff.double
        right = diff.double()
        sq = tqx_mul(left, right)
        loss = {reduction}(sq)
    """


@pytest.mark.parametrize("asked", [False, True])
@pytest.mark.parametrize(
    "given, reduction",
    [
        ({}, "tqx_mean"),
        ({"reduction": "mean"}, "tqx_mean"),
        ({"reduction": "sum"}, "tqx_sum"),
        ({"reduction": "none"}, "tqx_sum"),
        ({"reduction": "Mean"}, "tqx_sum"),
        ({"reduction": ""}, "tqx_sum"),
    ],
)
def test_only_the_text_mean_means_the_mean(runtime, recorded, given, reduction, asked):
    recorder = recorded(loss_script(reduction))
    operands = map(recorder.spy, ("pred", "target"))
    returned = runtime.tqx_mse_loss(*operands, return_tqx=asked, **given)
    recorder.check()
    assert text(returned) == "loss"


# ---- tqx_conv2d ----

WIDENED = """
    x.double
    x64 = x.double()
    weight.double
    w64 = weight.double()
    x64.shape
    w64.shape
"""
PADDED = """
    torch.nn
    torch.nn.functional
    torch.nn.functional.pad
    x_padded = torch.nn.functional.pad(x64, (2, 2, 2, 2))
"""
CONV_SHAPES = {"x64.shape": shape(2, 3, 7, 9), "w64.shape": shape(5, 3, 3, 2)}


def convolution_script(x, stride, h_out, w_out, before=""):
    members = "".join(
        f"""
        patches{b} = x_col[{b}]
        member{b} = tqx_matmul(weight_mat, patches{b}, return_tqx=False)
        output[{b}] := member{b}
        """
        for b in range(2)
    )
    return f"""
        {WIDENED}
        {before}
        torch.nn
        torch.nn.functional
        torch.nn.functional.unfold
        x_col = torch.nn.functional.unfold({x}, (3, 2), stride={stride})
        w64.view
        weight_mat = w64.view(5, -1)
        torch.zeros
        torch.float64
        {x}.device
        output = torch.zeros(2, 5, {h_out * w_out}, dtype=torch.float64, device={x}.device)
        {members}
        output.view
        result = output.view(2, 5, {h_out}, {w_out})
    """


@pytest.mark.parametrize("asked", [False, True])
def test_conv2d_takes_one_product_a_member_and_asks_for_no_limbs(runtime, recorded, asked):
    recorder = recorded(convolution_script("x64", 1, 5, 8), CONV_SHAPES)
    returned = runtime.tqx_conv2d(recorder.spy("x"), recorder.spy("weight"), return_tqx=asked)
    recorder.check()
    assert text(returned) == "result"


def test_conv2d_pads_before_it_unfolds_and_counts_the_padded_size(runtime, recorded):
    # (7 + 4 - 3) // 3 + 1 and (9 + 4 - 2) // 3 + 1: the second drops an incomplete block
    recorder = recorded(convolution_script("x_padded", 3, 3, 4, PADDED), CONV_SHAPES)
    runtime.tqx_conv2d(recorder.spy("x"), recorder.spy("weight"), 3, 2)
    recorder.check()


@pytest.mark.parametrize("padding", [0, -1, -7])
def test_conv2d_takes_no_padding_step_for_a_padding_that_is_not_positive(
    runtime, recorded, padding
):
    recorder = recorded(convolution_script("x64", 1, 5, 8), CONV_SHAPES)
    runtime.tqx_conv2d(recorder.spy("x"), recorder.spy("weight"), 1, padding)
    recorder.check()


def test_conv2d_of_no_members_makes_no_product(runtime, recorded):
    script = """
        torch.nn
        torch.nn.functional
        torch.nn.functional.unfold
        x_col = torch.nn.functional.unfold(x64, (3, 2), stride=1)
        w64.view
        w64.view(5, -1)
        torch.zeros
        torch.float64
        x64.device
        output = torch.zeros(0, 5, 40, dtype=torch.float64, device=x64.device)
        output.view
        output.view(0, 5, 5, 8)
    """
    shapes = CONV_SHAPES | {"x64.shape": shape(0, 3, 7, 9)}
    recorder = recorded(WIDENED + script, shapes)
    runtime.tqx_conv2d(recorder.spy("x"), recorder.spy("weight"))
    recorder.check()


@pytest.mark.parametrize("name", ["tqx_conv2d", "tqx_conv_transpose2d"])
@pytest.mark.parametrize(
    "x_shape, weight_shape, message",
    [
        ((1, 2, 3, 4, 5), (1, 1, 1, 1), "too many values to unpack (expected 4)"),
        ((1, 2, 3), (1, 1, 1, 1), "need more than 3 values to unpack"),
        ((1,), (1, 1, 1, 1), "need more than 1 value to unpack"),
        ((), (1, 1, 1, 1), "need more than 0 values to unpack"),
        ((1, 1, 1, 1), (1, 2), "need more than 2 values to unpack"),
        ((1, 1, 1, 1), (1,) * 5, "too many values to unpack (expected 4)"),
    ],
)
def test_operand_without_four_dimensions_is_refused_where_its_shape_is_taken(
    runtime, recorded, name, x_shape, weight_shape, message
):
    seen = WIDENED if len(x_shape) == 4 else WIDENED.replace("w64.shape", "")
    recorder = recorded(seen, {"x64.shape": shape(*x_shape), "w64.shape": shape(*weight_shape)})
    with pytest.raises(ValueError) as caught:
        getattr(runtime, name)(recorder.spy("x"), recorder.spy("weight"))
    assert str(caught.value) == message
    recorder.check()


def test_conv2d_fails_at_a_stride_of_zero_before_it_unfolds(runtime, recorded):
    recorder = recorded(WIDENED, CONV_SHAPES)
    with pytest.raises(ZeroDivisionError):
        runtime.tqx_conv2d(recorder.spy("x"), recorder.spy("weight"), 0)
    recorder.check()


# ---- tqx_conv_transpose2d ----

TRANSPOSED_SHAPES = {"x64.shape": shape(2, 5, 4, 3), "w64.shape": shape(5, 6, 3, 2)}


def transposed_script(stride, padding, h_out, w_out):
    members = "".join(
        f"""
        weight_mat.t
        turned{b} = weight_mat.t()
        member_x{b} = x_flat[{b}]
        member{b} = tqx_matmul(turned{b}, member_x{b}, return_tqx=False)
        output_col[{b}] := member{b}
        """
        for b in range(2)
    )
    return f"""
        {WIDENED}
        x64.view
        x_flat = x64.view(2, 5, -1)
        w64.view
        weight_mat = w64.view(5, -1)
        torch.zeros
        torch.float64
        x64.device
        output_col = torch.zeros(2, 36, 12, dtype=torch.float64, device=x64.device)
        {members}
        torch.nn
        torch.nn.functional
        torch.nn.functional.fold
        result = torch.nn.functional.fold(output_col, ({h_out}, {w_out}), (3, 2), \
stride={stride}, padding={padding})
    """


@pytest.mark.parametrize("asked", [False, True])
def test_conv_transpose2d_turns_the_weight_anew_for_each_member(runtime, recorded, asked):
    recorder = recorded(transposed_script(1, 0, 6, 4), TRANSPOSED_SHAPES)
    operands = map(recorder.spy, ("x", "weight"))
    returned = runtime.tqx_conv_transpose2d(*operands, return_tqx=asked)
    recorder.check()
    assert text(returned) == "result"


def test_conv_transpose2d_gives_output_padding_to_the_size_alone(runtime, recorded):
    # (4 - 1) * 3 - 2 * 1 + 3 + 2 and (3 - 1) * 3 - 2 * 1 + 2 + 2
    recorder = recorded(transposed_script(3, 1, 12, 8), TRANSPOSED_SHAPES)
    runtime.tqx_conv_transpose2d(recorder.spy("x"), recorder.spy("weight"), 3, 1, 2)
    recorder.check()


def test_conv_transpose2d_passes_a_negative_padding_on(runtime, recorded):
    recorder = recorded(transposed_script(1, -1, 8, 6), TRANSPOSED_SHAPES)
    runtime.tqx_conv_transpose2d(recorder.spy("x"), recorder.spy("weight"), 1, -1)
    recorder.check()


# ---- tqx_solve ----

SET_OUT = """
    A.is_cuda
    bool(A.is_cuda)
    A.double
    A64 = A.double()
    B.double
    B64 = B.double()
    torch.linalg
    torch.linalg.solve
    x0 = torch.linalg.solve(A64, B64)
    A64.device
    str(A64.device)
    sum0 = TQXResult([x0], 'cuda:5')
"""


def residual_script(i):
    """Up to the stop test of pass number i."""
    return f"""
        sum{i}.collapse
        current{i} = sum{i}.collapse()
        Ax{i} = tqx_matmul(A64, current{i}, return_tqx=True)
        limbs{i} = tqx_sub(B64, Ax{i}, return_tqx=True)
        limbs{i}.collapse
        residual{i} = limbs{i}.collapse()
        residual{i}.abs
        sizes{i} = residual{i}.abs()
        sizes{i}.max
        norm{i} = sizes{i}.max()
        small{i} = norm{i} < 1e-15
        bool(small{i})
    """


def correction_script(i):
    return f"""
        torch.linalg
        torch.linalg.solve
        correction{i} = torch.linalg.solve(A64, residual{i})
        sum{i + 1} = tqx_add(sum{i}, correction{i}, return_tqx=True)
    """


def ended(i):
    return f"""
        sum{i}.collapse
        result = sum{i}.collapse()
    """


def passes(count):
    return "".join(residual_script(i) + correction_script(i) for i in range(count))


def solve(runtime, recorder, *given):
    returned = runtime.tqx_solve(recorder.spy("A"), recorder.spy("B"), *given)
    recorder.check()
    assert text(returned) == "result"


NEVER_SMALL = {"str(A64.device)": "cuda:5"} | {f"bool(small{i})": False for i in range(9)}


@pytest.mark.parametrize("given, count", [((), 3), ((1,), 1), ((2,), 2), ((5,), 5), ((2.9,), 2)])
def test_solve_corrects_as_often_as_asked_and_measures_no_last_residual(
    runtime, recorded, given, count
):
    solve(runtime, recorded(SET_OUT + passes(count) + ended(count), NEVER_SMALL), *given)


@pytest.mark.parametrize("max_iter", [0, -1, -(10**30), False])
def test_solve_without_passes_is_the_collapse_of_one_limb(runtime, recorded, max_iter):
    solve(runtime, recorded(SET_OUT + ended(0), NEVER_SMALL), max_iter)


@pytest.mark.parametrize("corrections", [0, 1, 2])
def test_solve_stops_before_the_correction_of_a_small_residual(runtime, recorded, corrections):
    script = SET_OUT + passes(corrections) + residual_script(corrections) + ended(corrections)
    returns = NEVER_SMALL | {f"bool(small{corrections})": True}
    solve(runtime, recorded(script, returns))


def test_solve_and_its_kin_test_only_the_first_operand_for_cuda(runtime, recorded):
    message = "TQX requires CUDA tensor. Move tensor to GPU with .cuda()"
    for name, operands in [("tqx_solve", "AB"), ("tqx_inv", "A"), ("tqx_det", "A")]:
        recorder = recorded("A.is_cuda\nbool(A.is_cuda)", {"bool(A.is_cuda)": False})
        with pytest.raises(RuntimeError) as caught:
            getattr(runtime, name)(*map(recorder.spy, operands))
        assert str(caught.value) == message
        recorder.check()


def test_refusal_of_the_factorisation_passes_through(runtime, recorded):
    refusal = real_torch.linalg.LinAlgError("told by torch")
    recorder = recorded(SET_OUT[: SET_OUT.index("    A64.device")], raises={"x0": refusal})
    with pytest.raises(real_torch.linalg.LinAlgError) as caught:
        runtime.tqx_solve(recorder.spy("A"), recorder.spy("B"))
    assert caught.value is refusal
    recorder.check()


# ---- tqx_inv ----


def test_inv_solves_for_the_identity_with_the_default_passes(runtime, recorded, monkeypatch):
    recorder = recorded(
        """
        x.is_cuda
        bool(x.is_cuda)
        x.shape
        torch.eye
        torch.float64
        x.device
        I = torch.eye(7, dtype=torch.float64, device=x.device)
        result = tqx_solve(x, I)
        """,
        {"x.shape": shape(2, 3, 7)},
    )
    monkeypatch.setattr(runtime, "tqx_solve", recorder.spy("tqx_solve"))
    returned = runtime.tqx_inv(recorder.spy("x"))
    recorder.check()
    assert text(returned) == "result"


# ---- tqx_det ----


def determinant_script(sign, moved):
    """`moved` tells of each row whether its pivot is another row."""
    pivots = "".join(
        f"""
        pivot{i} = pivots[{i}]
        moved{i} = pivot{i} != {i + 1}
        bool(moved{i})
        """
        for i in range(len(moved))
    )
    return f"""
        x.is_cuda
        bool(x.is_cuda)
        x.double
        x64 = x.double()
        torch.linalg
        torch.linalg.lu_factor
        factors = torch.linalg.lu_factor(x64)
        torch.diag
        diag = torch.diag(LU)
        det_abs = tqx_prod(diag)
        x64.shape
        {pivots}
        result = det_abs * {sign}
    """


@pytest.mark.parametrize(
    "moved, sign",
    [
        ((), 1),
        ((False, False), 1),
        ((True, False), -1),
        ((True, True, False), 1),
        ((True, True, True), -1),
    ],
)
def test_det_flips_the_sign_for_each_exchanged_row(runtime, recorded, moved, sign):
    recorder = recorded(determinant_script(sign, moved))
    recorder.returns |= {f"bool(moved{i})": flag for i, flag in enumerate(moved)}
    recorder.returns |= {"x64.shape": shape(len(moved), len(moved))}
    recorder.returns["factors"] = (recorder.spy("LU"), recorder.spy("pivots"))
    returned = runtime.tqx_det(recorder.spy("x"))
    recorder.check()
    assert text(returned) == "result"


def test_det_reads_pivots_up_to_the_number_of_columns(runtime, recorded):
    end = IndexError("told by torch")
    recorder = recorded(
        determinant_script(1, (False, False)).partition("result")[0] + "pivots[2]",
        {"x64.shape": shape(2, 3), "bool(moved0)": False, "bool(moved1)": False},
        {"pivots[2]": end},
    )
    recorder.returns["factors"] = (recorder.spy("LU"), recorder.spy("pivots"))
    with pytest.raises(IndexError) as caught:
        runtime.tqx_det(recorder.spy("x"))
    assert caught.value is end
    recorder.check()
