# SPDX-License-Identifier: Apache-2.0
"""The calls of a function of two operands and of one, on torch, cupy and the loader, in order.

Every script is complete: no operand is tested for CUDA, and one launch is listed with one wait
directly after it. All other functions and routes are compared with the reference implementation, in
tests/runtime.
"""

from call_recorder import FLAT, WAIT


def test_limbs_of_a_product_of_broadcast_operands(runtime, recorded):
    recorder = recorded(
        f"""
        x.double
        x_f64 = x.double()
        y.double
        y_f64 = y.double()
        x_f64.shape
        y_f64.shape
        x_f64.shape != y_f64.shape
        bool((x_f64.shape != y_f64.shape))
        torch.broadcast_tensors
        wide = torch.broadcast_tensors(x_f64, y_f64)
        x_wide.shape
        x_wide.contiguous
        x_packed = x_wide.contiguous()
        x_packed.view
        x_flat = x_packed.view(-1)
        y_wide.contiguous
        y_packed = y_wide.contiguous()
        y_packed.view
        y_flat = y_packed.view(-1)
        x_flat.numel
        n = x_flat.numel()
        torch.empty
        torch.float64
        x.device
        out = torch.empty(300, dtype=torch.float64, device=x.device)
        torch.empty
        torch.float64
        x.device
        out_err = torch.empty(300, dtype=torch.float64, device=x.device)
        loader.get_kernel
        kernel = loader.get_kernel('tqx_mul_kernel')
        kernel.launch
        cp.from_dlpack
        x_array = cp.from_dlpack(x_flat)
        cp.from_dlpack
        y_array = cp.from_dlpack(y_flat)
        cp.from_dlpack
        out_array = cp.from_dlpack(out)
        cp.from_dlpack
        err_array = cp.from_dlpack(out_err)
        kernel.launch(x_array, y_array, out_array, err_array, 300, grid=(2, 1, 1))
        {WAIT}
        out.view
        value = out.view(x_wide.shape)
        out_err.view
        error = out_err.view(x_wide.shape)
        x.device
        str(x.device)
        value.shape
        torch.float64
        """,
        returns={"n": 300, "str(x.device)": "cuda:7"},
    )
    recorder.returns["wide"] = (recorder.spy("x_wide"), recorder.spy("y_wide"))
    result = runtime.tqx_mul(recorder.spy("x"), recorder.spy("y"), return_tqx=True)
    recorder.check()
    assert repr(result.limbs) == "[<value>, <error>]" and result.device == "cuda:7"


def test_unary_kernel_with_a_parameter_between_the_tensors(runtime, recorded):
    recorder = recorded(
        f"""
        {FLAT}
        torch.empty
        torch.float64
        x.device
        out = torch.empty(300, dtype=torch.float64, device=x.device)
        loader.get_kernel
        kernel = loader.get_kernel('tqx_leaky_relu_kernel')
        kernel.launch
        cp.from_dlpack
        x_array = cp.from_dlpack(x_flat)
        cp.from_dlpack
        out_array = cp.from_dlpack(out)
        kernel.launch(x_array, 2.0, out_array, 300, grid=(2, 1, 1))
        {WAIT}
        out.view
        x.shape
        result = out.view(x.shape)
        x.device
        str(x.device)
        result.shape
        torch.float64
        """,
        returns={"n": 300, "str(x.device)": "cuda:7"},
    )
    result = runtime.tqx_leaky_relu(recorder.spy("x"), 2, return_tqx=True)
    recorder.check()
    assert repr(result.limbs) == "[<result>]" and result.device == "cuda:7"
