# SPDX-License-Identifier: Apache-2.0
"""The calls that three reductions make on torch, cupy and the loader, one by one and in order.

Every script is complete: what is not listed is not done. So one launch is listed and one wait
directly after it, and each array is made after the kernel's own attribute is read and directly
before the launch. All other reductions and options are compared with the reference implementation,
in tests/runtime.
"""

from call_recorder import FLAT, WAIT

RETURNS = {"n": 300, "str(x.device)": "cuda:7"}


def test_limbs_of_the_sequential_sum(runtime, recorded):
    recorder = recorded(
        f"""
        x.is_cuda
        bool(x.is_cuda)
        {FLAT}
        torch.zeros
        torch.float64
        x.device
        out = torch.zeros(4, dtype=torch.float64, device=x.device)
        loader.get_kernel
        kernel = loader.get_kernel('tqx_sum_seq_kernel')
        kernel.function
        cp.from_dlpack
        x_array = cp.from_dlpack(x_flat)
        cp.from_dlpack
        out_array = cp.from_dlpack(out)
        kernel.function((1, 1, 1), (1, 1, 1), (x_array, out_array, 300))
        {WAIT}
        l0 = out[0]
        l1 = out[1]
        l2 = out[2]
        l3 = out[3]
        x.device
        str(x.device)
        l0.shape
        torch.float64
        """,
        returns=RETURNS,
    )
    result = runtime.tqx_sum(recorder.spy("x"), return_tqx=True)
    recorder.check()
    assert repr(result.limbs) == "[<l0>, <l1>, <l2>, <l3>]" and result.device == "cuda:7"


def test_value_of_the_parallel_dot_product(runtime, recorded):
    """Only x is tested for CUDA, and the length of y is never read."""
    recorder = recorded(
        f"""
        x.is_cuda
        bool(x.is_cuda)
        {FLAT.partition("x_flat.numel")[0]}
        y.double
        y1 = y.double()
        y1.contiguous
        y2 = y1.contiguous()
        y2.view
        y_flat = y2.view(-1)
        x_flat.numel
        n = x_flat.numel()
        torch.zeros
        torch.float64
        x.device
        out = torch.zeros(1, dtype=torch.float64, device=x.device)
        torch.zeros
        torch.float64
        x.device
        out_err = torch.zeros(1, dtype=torch.float64, device=x.device)
        torch.zeros
        torch.float64
        x.device
        out_err2 = torch.zeros(1, dtype=torch.float64, device=x.device)
        loader.get_kernel
        kernel = loader.get_kernel('tqx_dot_kernel')
        kernel.launch
        cp.from_dlpack
        x_array = cp.from_dlpack(x_flat)
        cp.from_dlpack
        y_array = cp.from_dlpack(y_flat)
        cp.from_dlpack
        out_array = cp.from_dlpack(out)
        cp.from_dlpack
        err_array = cp.from_dlpack(out_err)
        cp.from_dlpack
        err2_array = cp.from_dlpack(out_err2)
        kernel.launch(x_array, y_array, out_array, err_array, err2_array, 300, grid=(2, 1, 1))
        {WAIT}
        two = out + out_err
        three = two + out_err2
        three.squeeze
        total = three.squeeze()
        """,
        returns=RETURNS,
    )
    assert repr(runtime.tqx_dot(recorder.spy("x"), recorder.spy("y"), exact=False)) == "<total>"
    recorder.check()


def test_limbs_of_the_running_sums(runtime, recorded):
    recorder = recorded(
        f"""
        {FLAT}
        torch.empty
        torch.float64
        x.device
        out = torch.empty(300, dtype=torch.float64, device=x.device)
        torch.empty
        torch.float64
        x.device
        out_err = torch.empty(300, dtype=torch.float64, device=x.device)
        loader.get_kernel
        kernel = loader.get_kernel('tqx_cumsum_kernel')
        kernel.launch
        cp.from_dlpack
        x_array = cp.from_dlpack(x_flat)
        cp.from_dlpack
        out_array = cp.from_dlpack(out)
        cp.from_dlpack
        err_array = cp.from_dlpack(out_err)
        kernel.launch(x_array, out_array, err_array, 300, grid=(1, 1, 1))
        {WAIT}
        out.view
        x.shape
        value = out.view(x.shape)
        out_err.view
        x.shape
        error = out_err.view(x.shape)
        x.device
        str(x.device)
        value.shape
        torch.float64
        """,
        returns=RETURNS,
    )
    result = runtime.tqx_cumsum(recorder.spy("x"), return_tqx=True)
    recorder.check()
    assert repr(result.limbs) == "[<value>, <error>]" and result.device == "cuda:7"
