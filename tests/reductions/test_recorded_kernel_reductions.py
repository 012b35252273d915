# SPDX-License-Identifier: Apache-2.0
"""The calls that single-block reductions, their decimals and the extrema make, in order.

Every script is complete: what is not listed is not done. Parameters without effect are varied, and
the script stays the same.
"""

import pytest
from call_recorder import Recorder

CUDA_TEST = """
    x.is_cuda
    bool(x.is_cuda)
"""
FLAT = """
    x.double
    x1 = x.double()
    x1.contiguous
    x2 = x1.contiguous()
    x2.view
    x_flat = x2.view(-1)
    x_flat.numel
    n = x_flat.numel()
"""
WAIT = """
    cp.cuda
    cp.cuda.Stream
    cp.cuda.Stream.null
    cp.cuda.Stream.null.synchronize
    cp.cuda.Stream.null.synchronize()
"""
DEVICE_TEXT = """
    x.device
    str(x.device)
"""


def zeros(name):
    return f"""
        torch.zeros
        torch.float64
        x.device
        {name} = torch.zeros(1, dtype=torch.float64, device=x.device)
    """


def empty(name):
    return f"""
        torch.empty
        torch.float64
        x.device
        {name} = torch.empty(300, dtype=torch.float64, device=x.device)
    """


def launch(kernel, *outputs):
    """One launch of a single block, each array made directly before it, and one wait."""
    arrays = "".join(
        f"""
        cp.from_dlpack
        {name}_array = cp.from_dlpack({name})
        """
        for name in ("x_flat", *outputs)
    )
    names = "".join(f"{name}_array, " for name in ("x_flat", *outputs))
    return f"""
        loader.get_kernel
        kernel = loader.get_kernel('{kernel}')
        kernel.launch
        {arrays}
        kernel.launch({names}300, grid=(1, 1, 1))
        {WAIT}
    """


VAR = (
    CUDA_TEST
    + FLAT
    + zeros("out_mean")
    + zeros("out_var")
    + launch("tqx_var_kernel", "out_mean", "out_var")
    + """
    out_var.squeeze
    result = out_var.squeeze()
    """
)
NORM = (
    CUDA_TEST
    + FLAT
    + zeros("out")
    + launch("tqx_norm_kernel", "out")
    + """
    out.squeeze
    result = out.squeeze()
    """
)
LOGSUMEXP = (
    FLAT
    + zeros("out")
    + launch("tqx_logsumexp_kernel", "out")
    + """
    out.squeeze
    result = out.squeeze()
    """
)
PROD = FLAT + zeros("out") + zeros("out_err") + launch("tqx_prod_kernel", "out", "out_err")
CUMSUM = FLAT + empty("out") + empty("out_err") + launch("tqx_cumsum_kernel", "out", "out_err")
RETURNS = {"n": 300, "str(x.device)": "cuda:7"}


@pytest.fixture
def recorded(runtime, monkeypatch):
    """Makes a recorder whose `torch`, `cp`, loader and named globals the runtime uses."""

    def make(script, *spied, returns=None):
        recorder = Recorder(script, RETURNS | (returns or {}))
        monkeypatch.setattr(runtime, "torch", recorder.spy("torch"))
        monkeypatch.setattr(runtime, "cp", recorder.spy("cp"))
        monkeypatch.setattr(runtime, "_NATIVE_LOADER", recorder.spy("loader"))
        for name in spied:
            monkeypatch.setattr(runtime, name, recorder.spy(name))
        return recorder

    return make


FLAGS = [{}, {"return_tqx": True}]
UNBIASED = [*FLAGS, {"unbiased": False}, {"unbiased": False, "return_tqx": True}]
POWERS = [*FLAGS, {"p": 1}, {"p": 2.7, "return_tqx": True}]


@pytest.mark.parametrize(
    "name, script, options",
    [
        *[("tqx_var", VAR, options) for options in UNBIASED],
        *[("tqx_norm", NORM, options) for options in POWERS],
        *[("tqx_logsumexp", LOGSUMEXP, options) for options in FLAGS],
    ],
)
def test_parameters_without_effect_change_no_call(runtime, recorded, name, script, options):
    recorder = recorded(script)
    result = getattr(runtime, name)(recorder.spy("x"), **options)
    recorder.check()
    assert repr(result) == "<result>"


@pytest.mark.parametrize("options, unbiased", [({}, True), ({"unbiased": 0}, False)])
@pytest.mark.parametrize("return_tqx", [False, True])
def test_deviation_is_the_root_of_the_variance(runtime, recorded, options, unbiased, return_tqx):
    recorder = recorded(
        CUDA_TEST
        + f"""
        torch.sqrt
        variance = tqx_var(x, unbiased={unbiased})
        root = torch.sqrt(variance)
        """,
        "tqx_var",
    )
    result = runtime.tqx_std(recorder.spy("x"), return_tqx=return_tqx, **options)
    recorder.check()
    assert repr(result) == "<root>"


def test_product_folds_its_error_in(runtime, recorded):
    recorder = recorded(
        PROD
        + """
        both = out + out_err
        both.squeeze
        result = both.squeeze()
        """
    )
    result = runtime.tqx_prod(recorder.spy("x"))
    recorder.check()
    assert repr(result) == "<result>"


def test_product_as_limbs(runtime, recorded):
    recorder = recorded(
        PROD
        + """
        out.squeeze
        value = out.squeeze()
        out_err.squeeze
        error = out_err.squeeze()
        """
        + DEVICE_TEXT
        + """
        value.shape
        torch.float64
        """
    )
    result = runtime.tqx_prod(recorder.spy("x"), return_tqx=True)
    recorder.check()
    assert repr(result.limbs) == "[<value>, <error>]" and result.device == "cuda:7"


def test_running_sums_drop_their_error(runtime, recorded):
    recorder = recorded(
        CUMSUM
        + """
        out.view
        x.shape
        result = out.view(x.shape)
        """
    )
    result = runtime.tqx_cumsum(recorder.spy("x"))
    recorder.check()
    assert repr(result) == "<result>"


def test_running_sums_as_limbs(runtime, recorded):
    recorder = recorded(
        CUMSUM
        + """
        out.view
        x.shape
        value = out.view(x.shape)
        out_err.view
        x.shape
        error = out_err.view(x.shape)
        """
        + DEVICE_TEXT
        + """
        value.shape
        torch.float64
        """
    )
    result = runtime.tqx_cumsum(recorder.spy("x"), return_tqx=True)
    recorder.check()
    assert repr(result.limbs) == "[<value>, <error>]" and result.device == "cuda:7"


@pytest.mark.parametrize("name", ["tqx_var", "tqx_std", "tqx_norm", "tqx_trace"])
def test_operand_off_the_gpu_stops_at_the_first_step(runtime, recorded, name):
    recorder = recorded(CUDA_TEST, returns={"bool(x.is_cuda)": False})
    with pytest.raises(
        RuntimeError, match=r"^TQX requires CUDA tensor\. Move tensor to GPU with \.cuda\(\)$"
    ):
        getattr(runtime, name)(recorder.spy("x"))
    recorder.check()


# ---- decimals ----


LIMB_FORMS = {
    "tqx_sum_exact": ("tqx_sum", ("x",), "x"),
    "tqx_dot_exact": ("tqx_dot", ("x", "y"), "x, y"),
    "tqx_prod_exact": ("tqx_prod", ("x",), "x"),
}


@pytest.mark.parametrize("name", LIMB_FORMS)
def test_direct_form_is_the_decimal_of_the_limbs(runtime, recorded, name):
    form, operands, names = LIMB_FORMS[name]
    recorder = recorded(
        f"""
        limbs = {form}({names}, return_tqx=True)
        limbs.to_decimal
        result = limbs.to_decimal()
        """,
        form,
    )
    result = getattr(runtime, name)(*map(recorder.spy, operands))
    recorder.check()
    assert repr(result) == "<result>"


def test_matrix_element(runtime, recorded):
    recorder = recorded(
        """
        limbs = tqx_matmul(a, b, return_tqx=True)
        limbs.to_decimal
        result = limbs.to_decimal(index=(2, 1))
        """,
        "tqx_matmul",
    )
    runtime.tqx_matmul_exact(recorder.spy("a"), recorder.spy("b"), 2.7, True)
    recorder.check()


def test_element_of_a_batch(runtime, recorded):
    recorder = recorded(
        """
        a3 = a[3]
        b3 = b[3]
        limbs = tqx_matmul(a3, b3, return_tqx=True)
        limbs.to_decimal
        result = limbs.to_decimal(index=(2, 1))
        """,
        "tqx_matmul",
    )
    runtime.tqx_bmm_exact(recorder.spy("a"), recorder.spy("b"), 3, 2, 1)
    recorder.check()


def test_trace_is_the_exact_sum_of_the_diagonal(runtime, recorded):
    recorder = recorded(
        """
        torch.diag
        x.double
        wide = x.double()
        diagonal = torch.diag(wide)
        result = tqx_sum_exact(diagonal)
        """,
        "tqx_sum_exact",
    )
    runtime.tqx_trace_exact(recorder.spy("x"))
    recorder.check()


@pytest.mark.parametrize("options", [{}, {"p": 1}])
def test_norm_rounds_the_squares(runtime, recorded, options):
    recorder = recorded(
        """
        x.double
        x1 = x.double()
        x1.flatten
        x_f64 = x1.flatten()
        x_sq = x_f64 * x_f64
        sum_sq = tqx_sum_exact(x_sq)
        sum_sq.sqrt
        result = sum_sq.sqrt()
        """,
        "tqx_sum_exact",
    )
    runtime.tqx_norm_exact(recorder.spy("x"), **options)
    recorder.check()


@pytest.mark.parametrize("unbiased, divisor", [(True, 299), (False, 300)])
def test_variance_rounds_the_mean(runtime, recorded, unbiased, divisor):
    recorder = recorded(
        f"""
        x.double
        x1 = x.double()
        x1.flatten
        x_f64 = x1.flatten()
        x_f64.numel
        n = x_f64.numel()
        mean_dec = tqx_mean_exact(x)
        torch.tensor
        float(mean_dec)
        torch.float64
        x.device
        mean = torch.tensor(0.25, dtype=torch.float64, device=x.device)
        diff = x_f64 - mean
        diff_sq = diff * diff
        sum_sq = tqx_sum_exact(diff_sq)
        divisor = Decimal({divisor})
        result = sum_sq / divisor
        """,
        "tqx_mean_exact",
        "tqx_sum_exact",
        "Decimal",
        returns={"float(mean_dec)": 0.25},
    )
    runtime.tqx_var_exact(recorder.spy("x"), unbiased=unbiased)
    recorder.check()


@pytest.mark.parametrize("unbiased", [True, False])
def test_exact_deviation_is_the_root_of_the_exact_variance(runtime, recorded, unbiased):
    recorder = recorded(
        f"""
        var = tqx_var_exact(x, unbiased={unbiased})
        var.sqrt
        result = var.sqrt()
        """,
        "tqx_var_exact",
    )
    runtime.tqx_std_exact(recorder.spy("x"), unbiased=unbiased)
    recorder.check()


def test_running_sums_are_converted_one_by_one(runtime, recorded):
    recorder = recorded(
        """
        limbs = tqx_cumsum(x, return_tqx=True)
        x.flatten
        x_flat = x.flatten()
        x_flat.numel
        count = x_flat.numel()
        limbs.to_decimal
        d0 = limbs.to_decimal(index=(0,))
        limbs.to_decimal
        d1 = limbs.to_decimal(index=(1,))
        """,
        "tqx_cumsum",
        returns={"count": 2},
    )
    result = runtime.tqx_cumsum_exact(recorder.spy("x"))
    recorder.check()
    assert repr(result) == "[<d0>, <d1>]"


# ---- extrema ----


@pytest.mark.parametrize("name", ["min", "max"])
def test_extremum_is_that_of_the_widened_values(runtime, recorded, name):
    recorder = recorded(
        f"""
        x.double
        wide = x.double()
        wide.{name}
        result = wide.{name}()
        """
    )
    getattr(runtime, f"tqx_{name}")(recorder.spy("x"))
    recorder.check()


@pytest.mark.parametrize("name", ["argmin", "argmax"])
def test_index_is_that_of_the_values_as_they_are(runtime, recorded, name):
    recorder = recorded(
        f"""
        x.flatten
        flat = x.flatten()
        flat.{name}
        result = flat.{name}()
        """
    )
    getattr(runtime, f"tqx_{name}")(recorder.spy("x"))
    recorder.check()


def test_trace_sums_the_diagonal(runtime, recorded):
    recorder = recorded(
        CUDA_TEST
        + """
        torch.diag
        x.double
        wide = x.double()
        diagonal = torch.diag(wide)
        result = tqx_sum(diagonal)
        """,
        "tqx_sum",
    )
    runtime.tqx_trace(recorder.spy("x"))
    recorder.check()
