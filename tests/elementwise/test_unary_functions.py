# SPDX-License-Identifier: Apache-2.0
"""The unary functions, rounding, comparison, selection and what is composed of them, by results."""

import math

import device
import numpy as np
import pytest
import torch

UNARY = ("relu", "neg", "exp", "log", "sqrt", "sigmoid", "tanh", "leaky_relu")
ROUNDING = ("floor", "ceil", "round", "trunc")
COMPARISONS = ("eq", "ne", "lt", "le", "gt", "ge")
X = [0.5, 1.5, 2.5, 3.0, 0.1]


def function(runtime, name):
    return getattr(runtime, f"tqx_{name}")


def limbs(runtime, count=3):
    return runtime.TQXResult(
        [device.tensor([1.5, 2.5])] + [device.tensor([2.0**-60] * 2)] * (count - 1)
    )


def same_bits(a, b):
    return np.array_equal(a.cpu().numpy().view(np.uint64), b.cpu().numpy().view(np.uint64))


# ---- the unary kernels ----


@pytest.mark.parametrize(
    "name, parameter", [("exp", "terms"), ("log", "terms"), ("sqrt", "iterations")]
)
def test_series_length_and_iterations_change_nothing(runtime, name, parameter):
    call, x = function(runtime, name), device.tensor(X)
    for count in (5, 1000, -1, 2.5, True):
        assert same_bits(call(x), call(x, **{parameter: count}))


@pytest.mark.parametrize(
    "name, parameter", [("exp", "terms"), ("log", "terms"), ("sqrt", "iterations")]
)
def test_series_length_must_be_a_number(runtime, name, parameter):
    expected = rf"^Argument '{parameter}' has incorrect type \(expected int, got str\)$"
    with pytest.raises(TypeError, match=expected):
        function(runtime, name)(device.tensor(X), "a")


@pytest.mark.parametrize("name", UNARY)
def test_limbs_are_folded_and_do_not_force_limbs_out(runtime, name):
    r = limbs(runtime)
    plain = function(runtime, name)(r)
    assert isinstance(plain, torch.Tensor)
    assert same_bits(plain, function(runtime, name)(r.collapse()))


@pytest.mark.parametrize("name", (*UNARY, *ROUNDING, "abs", "rsqrt"))
@pytest.mark.parametrize("from_limbs", [False, True])
def test_asked_for_limbs_there_is_one(runtime, name, from_limbs):
    x = limbs(runtime) if from_limbs else device.tensor(X)
    result = function(runtime, name)(x, return_tqx=True)
    assert type(result) is runtime.TQXResult
    assert result.n_limbs == 1
    assert result.device == str(device.tensor(X).device)
    assert same_bits(result.limbs[0], function(runtime, name)(x))


@pytest.mark.parametrize("name", UNARY)
def test_0_dimensional_and_empty_tensors_keep_their_shape(runtime, name):
    assert function(runtime, name)(device.tensor(0.5)).shape == ()
    assert function(runtime, name)(device.tensor([[], []])).shape == (2, 0)


@pytest.mark.parametrize("name", UNARY)
def test_input_of_any_stride_and_type_gives_a_contiguous_float64_result(runtime, name):
    x = device.tensor([[0.5, 1.0, 2.0], [3.0, 4.0, 5.0]], dtype=torch.float32).t()
    result = function(runtime, name)(x)
    assert result.dtype == torch.float64 and result.is_contiguous() and result.shape == (3, 2)
    assert same_bits(result, function(runtime, name)(x.double().contiguous()))


@pytest.mark.parametrize("name", UNARY)
def test_input_is_not_changed(runtime, name):
    x = device.tensor(X)
    function(runtime, name)(x)
    assert x.tolist() == X


@pytest.mark.parametrize("name", (*UNARY, "abs", "rsqrt"))
def test_a_number_is_no_tensor(runtime, name):
    with pytest.raises(AttributeError, match="double"):
        function(runtime, name)(1.0)


def test_leaky_relu_uses_its_slope(runtime):
    x = device.tensor([-2.0, 3.0])
    assert runtime.tqx_leaky_relu(x).tolist() == [-2.0 * 0.01, 3.0]
    assert runtime.tqx_leaky_relu(x, 0.2).tolist() == [-2.0 * 0.2, 3.0]
    with pytest.raises(TypeError):
        runtime.tqx_leaky_relu(x, "a")


# ---- rounding, comparison, selection ----


@pytest.mark.parametrize("name", ROUNDING)
def test_rounding_is_that_of_torch_on_float64(runtime, name):
    x = [0.5, 1.5, 2.5, -0.5, -1.5, 1e300, -0.0, math.inf]
    expected = getattr(torch, name)(torch.tensor(x, dtype=torch.float64))
    assert same_bits(function(runtime, name)(device.tensor(x)), expected)
    r = runtime.TQXResult([device.tensor(x[:7])])
    assert same_bits(function(runtime, name)(r), expected[:7])


def test_value_of_limbs_is_rounded_after_they_are_folded(runtime):
    r = runtime.TQXResult([device.tensor([2.0]), device.tensor([-(2.0**-80)])])
    assert runtime.tqx_floor(r).tolist() == [2.0]


def test_fmod_takes_the_sign_of_its_first_operand(runtime):
    x, y = device.tensor([5.5, -5.5, 5.5, -5.5]), device.tensor([3.0, 3.0, -3.0, -3.0])
    assert runtime.tqx_fmod(x, y).tolist() == [2.5, -2.5, 2.5, -2.5]
    r = runtime.TQXResult([x, x * 0.0])
    assert runtime.tqx_fmod(r, runtime.TQXResult([y])).tolist() == [2.5, -2.5, 2.5, -2.5]
    assert runtime.tqx_fmod(r, y, return_tqx=True).n_limbs == 1


def test_sign(runtime):
    assert runtime.tqx_sign(device.tensor([-2.0, 0.0, 3.0])).tolist() == [-1.0, 0.0, 1.0]


@pytest.mark.parametrize("name", COMPARISONS)
def test_comparisons_are_those_of_torch_on_float64(runtime, name):
    x, y = [0.1, 1.0, 2.0, math.nan, -0.0], [0.1, 2.0, 1.0, math.nan, 0.0]
    pair = [torch.tensor(values, dtype=torch.float64) for values in (x, y)]
    result = function(runtime, name)(device.tensor(x), device.tensor(y))
    assert result.dtype == torch.bool
    assert result.tolist() == getattr(torch, name)(*pair).tolist()


def test_float32_is_widened_before_it_is_compared(runtime):
    x = device.tensor([0.1], dtype=torch.float32)
    assert runtime.tqx_eq(x, device.tensor([0.1])).tolist() == [False]
    assert runtime.tqx_gt(x, device.tensor([0.1])).tolist() == [True]


def test_where_selects_float64(runtime):
    condition = device.tensor([True, False], dtype=torch.bool)
    x, y = device.tensor([1.0, 2.0], dtype=torch.float32), device.tensor([3.0, 4.0])
    result = runtime.tqx_where(condition, x, y)
    assert result.dtype == torch.float64 and result.tolist() == [1.0, 4.0]


NEEDS_CUDA = (*ROUNDING, "fmod", "sign", *COMPARISONS, "where")


def operands_of(name, x, y):
    if name == "where":
        return device.tensor([True] * 5, dtype=torch.bool), x, y
    return (x, y) if name == "fmod" or name in COMPARISONS else (x,)


@pytest.mark.parametrize("name", NEEDS_CUDA)
def test_first_operand_must_be_on_the_device(runtime, name):
    host = torch.tensor(X, dtype=torch.float64)
    expected = r"^TQX requires CUDA tensor\. Move tensor to GPU with \.cuda\(\)$"
    with pytest.raises(RuntimeError, match=expected):
        function(runtime, name)(*operands_of(name, host, device.tensor(X)))


@pytest.mark.parametrize("name", ("sign", *COMPARISONS, "where"))
def test_these_know_no_limbs_as_first_operand(runtime, name):
    r = limbs(runtime)
    with pytest.raises(AttributeError, match="is_cuda"):
        function(runtime, name)(*operands_of(name, r, r))


@pytest.mark.parametrize("name", (*COMPARISONS, "where"))
def test_these_know_no_limbs_as_second_operand(runtime, name):
    with pytest.raises(AttributeError, match="double"):
        function(runtime, name)(*operands_of(name, device.tensor(X), limbs(runtime)))


@pytest.mark.parametrize("name", ("fmod", *COMPARISONS, "where"))
def test_second_operand_is_no_number(runtime, name):
    with pytest.raises(AttributeError, match="double"):
        function(runtime, name)(*operands_of(name, device.tensor(X), 1.0))


@pytest.mark.parametrize("name", NEEDS_CUDA)
def test_first_operand_is_no_number(runtime, name):
    with pytest.raises(AttributeError, match="is_cuda"):
        function(runtime, name)(*operands_of(name, 1.0, device.tensor(X)))


# ---- composed ----


def test_abs_and_clamp_need_no_device(runtime):
    x = torch.tensor([-1.0, 2.0])
    assert runtime.tqx_abs(x).tolist() == [1.0, 2.0]
    assert runtime.tqx_clamp(x, -0.5, 1.5).tolist() == [-0.5, 1.5]
    assert runtime.tqx_clamp(x, 1.0, 0.0).tolist() == torch.clamp(x, 1.0, 0.0).tolist()


def test_clamp_needs_two_numbers(runtime):
    with pytest.raises(TypeError):
        runtime.tqx_clamp(device.tensor(X), 0.0, None)
    with pytest.raises(TypeError):
        runtime.tqx_clamp(device.tensor(X), 0.0)


def test_rsqrt_of_zero_is_infinite(runtime):
    assert runtime.tqx_rsqrt(device.tensor([0.0, 4.0, 0.25])).tolist() == [math.inf, 0.5, 2.0]


def test_pow_is_exp_of_a_multiple_of_log(runtime):
    x = device.tensor([*X, 0.0])
    for exponent in (2.0, 0.5, -1.0, 3):
        expected = runtime.tqx_exp(exponent * runtime.tqx_log(x))
        assert same_bits(runtime.tqx_pow(x, exponent), expected)


def test_pow_does_not_square_a_negative_number(runtime):
    assert math.isnan(runtime.tqx_pow(device.tensor([-2.0]), 2.0).item())


def test_zeroth_power_is_not_1_where_the_logarithm_is_not_finite(runtime):
    result = runtime.tqx_pow(device.tensor([0.0, math.inf, -1.0, 2.0]), 0.0).tolist()
    assert [math.isnan(v) for v in result] == [True, True, True, False]
    assert result[3] == 1.0


def test_pow_needs_an_exponent(runtime):
    for arguments in ((), (None,), ("a",)):
        with pytest.raises(TypeError):
            runtime.tqx_pow(device.tensor(X), *arguments)


def test_rms_norm_knows_no_limbs(runtime):
    with pytest.raises(AttributeError, match="double"):
        runtime._placeholder_rms_norm(limbs(runtime))
