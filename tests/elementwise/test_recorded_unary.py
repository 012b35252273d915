# SPDX-License-Identifier: Apache-2.0
"""The calls of the one-operand functions, of rounding, comparison and what is composed of them, on
torch, cupy and the loader, one by one and in order. Every script is complete.
"""

import pytest
from call_recorder import Recorder

UNARY = ("relu", "neg", "exp", "log", "sqrt", "sigmoid", "tanh", "leaky_relu")
ROUNDING = ("floor", "ceil", "round", "trunc")
COMPARISONS = ("eq", "ne", "lt", "le", "gt", "ge")
RETURNS = {"n": 300, "str(x.device)": "cuda:7", "bool(x.is_cuda)": True}


def launched(kernel, arguments="x_array, out_array, 300, grid=(2, 1, 1)"):
    return f"""
        x.double
        x_f64 = x.double()
        x_f64.contiguous
        x_packed = x_f64.contiguous()
        x_packed.view
        x_flat = x_packed.view(-1)
        x_flat.numel
        n = x_flat.numel()
        torch.empty
        torch.float64
        x.device
        out = torch.empty(300, dtype=torch.float64, device=x.device)
        loader.get_kernel
        kernel = loader.get_kernel('{kernel}')
        kernel.launch
        cp.from_dlpack
        x_array = cp.from_dlpack(x_flat)
        cp.from_dlpack
        out_array = cp.from_dlpack(out)
        kernel.launch({arguments})
        cp.cuda
        cp.cuda.Stream
        cp.cuda.Stream.null
        cp.cuda.Stream.null.synchronize
        cp.cuda.Stream.null.synchronize()
        out.view
        x.shape
        result = out.view(x.shape)
    """


CUDA_TEST = """
    x.is_cuda
    bool(x.is_cuda)
"""
AS_LIMB = """
    x.device
    str(x.device)
    result.shape
    torch.float64
"""


@pytest.fixture
def recorded(runtime, monkeypatch):
    """Makes a recorder whose `torch`, `cp` and loader the runtime under test uses."""

    def make(script, returns=None):
        recorder = Recorder(script, RETURNS | (returns or {}))
        monkeypatch.setattr(runtime, "torch", recorder.spy("torch"))
        monkeypatch.setattr(runtime, "cp", recorder.spy("cp"))
        monkeypatch.setattr(runtime, "_NATIVE_LOADER", recorder.spy("loader"))
        return recorder

    return make


def course_of(name):
    slope = "0.01, " if name == "leaky_relu" else ""
    return launched(f"tqx_{name}_kernel", f"x_array, {slope}out_array, 300, grid=(2, 1, 1)")


@pytest.mark.parametrize("name", UNARY)
def test_unary_kernel_is_launched_once_and_waited_for(runtime, recorded, name):
    recorder = recorded(course_of(name))
    result = getattr(runtime, f"tqx_{name}")(recorder.spy("x"))
    recorder.check()
    assert repr(result) == "<result>"


@pytest.mark.parametrize("name", UNARY)
def test_unary_result_as_one_limb(runtime, recorded, name):
    recorder = recorded(course_of(name) + AS_LIMB)
    result = getattr(runtime, f"tqx_{name}")(recorder.spy("x"), return_tqx=True)
    recorder.check()
    assert repr(result.limbs) == "[<result>]" and result.device == "cuda:7"


def test_slope_goes_between_the_tensors_as_a_float(runtime, recorded):
    arguments = "x_array, 2.0, out_array, 300, grid=(2, 1, 1)"
    recorder = recorded(launched("tqx_leaky_relu_kernel", arguments))
    runtime.tqx_leaky_relu(recorder.spy("x"), 2)
    recorder.check()


def test_nothing_is_launched_with_no_blocks(runtime, recorded):
    course = launched("tqx_exp_kernel", "x_array, out_array, 0, grid=(0, 1, 1)")
    recorder = recorded(course.replace("empty(300", "empty(0"), {"n": 0})
    runtime.tqx_exp(recorder.spy("x"))
    recorder.check()


def test_rms_norm_is_one_block_with_eps_last(runtime, recorded):
    arguments = "x_array, out_array, 300, 0.5, grid=(1, 1, 1)"
    recorder = recorded(launched("tqx_rms_norm_kernel", arguments))
    result = runtime._placeholder_rms_norm(recorder.spy("x"), 0.5)
    recorder.check()
    assert repr(result) == "<result>"


# ---- calls of torch ----


def one_call(name, arguments="x_f64", returned="result"):
    return f"""
        torch.{name}
        x.double
        x_f64 = x.double()
        {returned} = torch.{name}({arguments})
    """


def two_operands(name):
    return f"""
        torch.{name}
        x.double
        x_f64 = x.double()
        y.double
        y_f64 = y.double()
        result = torch.{name}(x_f64, y_f64)
    """


@pytest.mark.parametrize("name", ROUNDING)
@pytest.mark.parametrize("return_tqx", [False, True])
def test_rounding_is_one_call_after_the_test_for_cuda(runtime, recorded, name, return_tqx):
    recorder = recorded(CUDA_TEST + one_call(name) + (AS_LIMB if return_tqx else ""))
    getattr(runtime, f"tqx_{name}")(recorder.spy("x"), return_tqx)
    recorder.check()


def test_abs_makes_no_test_for_cuda(runtime, recorded):
    recorder = recorded(one_call("abs") + AS_LIMB)
    runtime.tqx_abs(recorder.spy("x"), True)
    recorder.check()


def test_clamp_gets_its_bounds_as_floats_by_position(runtime, recorded):
    recorder = recorded(one_call("clamp", "x_f64, 0.0, 2.0") + AS_LIMB)
    runtime.tqx_clamp(recorder.spy("x"), 0, 2, True)
    recorder.check()


def test_sign_is_one_call(runtime, recorded):
    recorder = recorded(CUDA_TEST + one_call("sign"))
    assert repr(runtime.tqx_sign(recorder.spy("x"))) == "<result>"
    recorder.check()


@pytest.mark.parametrize("name", COMPARISONS)
def test_comparison_tests_its_first_operand_only(runtime, recorded, name):
    recorder = recorded(CUDA_TEST + two_operands(name))
    result = getattr(runtime, f"tqx_{name}")(recorder.spy("x"), recorder.spy("y"))
    recorder.check()
    assert repr(result) == "<result>"


@pytest.mark.parametrize("return_tqx", [False, True])
def test_fmod_tests_its_first_operand_only(runtime, recorded, return_tqx):
    recorder = recorded(CUDA_TEST + two_operands("fmod") + (AS_LIMB if return_tqx else ""))
    runtime.tqx_fmod(recorder.spy("x"), recorder.spy("y"), return_tqx)
    recorder.check()


def test_condition_of_where_goes_on_as_it_came(runtime, recorded):
    course = two_operands("where").replace("(x_f64, y_f64)", "(condition, x_f64, y_f64)")
    recorder = recorded(CUDA_TEST + course)
    runtime.tqx_where(recorder.spy("condition"), recorder.spy("x"), recorder.spy("y"))
    recorder.check()


# ---- calls of each other ----


@pytest.mark.parametrize("return_tqx", [False, True])
def test_rsqrt_divides_1_by_the_root(runtime, recorded, monkeypatch, return_tqx):
    course = """
        root = tqx_sqrt(x)
        result = 1.0 / root
    """
    recorder = recorded(course + (AS_LIMB if return_tqx else ""))
    monkeypatch.setattr(runtime, "tqx_sqrt", recorder.spy("tqx_sqrt"))
    runtime.tqx_rsqrt(recorder.spy("x"), return_tqx)
    recorder.check()


@pytest.mark.parametrize("return_tqx", [False, True])
def test_pow_multiplies_from_the_left(runtime, recorded, monkeypatch, return_tqx):
    course = """
        logarithm = tqx_log(x)
        product = 3.0 * logarithm
        result = tqx_exp(product)
    """
    recorder = recorded(course + (AS_LIMB if return_tqx else ""))
    for name in ("tqx_log", "tqx_exp"):
        monkeypatch.setattr(runtime, name, recorder.spy(name))
    runtime.tqx_pow(recorder.spy("x"), 3, return_tqx)
    recorder.check()
