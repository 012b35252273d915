# SPDX-License-Identifier: Apache-2.0
"""The calls that a dot product makes on torch, cupy and the loader, one by one and in order.

Every script is complete: what is not listed is not done. So only x is tested for CUDA, the length
of y is never read, and one launch is listed with one wait directly after it.
"""

import pytest
from call_recorder import Recorder

FLAT = """
    x.is_cuda
    bool(x.is_cuda)
    x.double
    x1 = x.double()
    x1.contiguous
    x2 = x1.contiguous()
    x2.view
    x_flat = x2.view(-1)
    y.double
    y1 = y.double()
    y1.contiguous
    y2 = y1.contiguous()
    y2.view
    y_flat = y2.view(-1)
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
ARRAYS = """
    cp.from_dlpack
    x_array = cp.from_dlpack(x_flat)
    cp.from_dlpack
    y_array = cp.from_dlpack(y_flat)
    cp.from_dlpack
    out_array = cp.from_dlpack(out)
"""


def zeros(name, count):
    return f"""
        torch.zeros
        torch.float64
        x.device
        {name} = torch.zeros({count}, dtype=torch.float64, device=x.device)
    """


SEQUENTIAL = f"""
    {FLAT}
    {zeros("out", 4)}
    loader.get_kernel
    kernel = loader.get_kernel('tqx_dot_seq_kernel')
    kernel.function
    {ARRAYS}
    kernel.function((1, 1, 1), (1, 1, 1), (x_array, y_array, out_array, 300))
    {WAIT}
    l0 = out[0]
    l1 = out[1]
    l2 = out[2]
    l3 = out[3]
    x.device
    str(x.device)
    l0.shape
    torch.float64
"""
PARALLEL = f"""
    {FLAT}
    {zeros("out", 1)}
    {zeros("out_err", 1)}
    {zeros("out_err2", 1)}
    loader.get_kernel
    kernel = loader.get_kernel('tqx_dot_kernel')
    kernel.launch
    {ARRAYS}
    cp.from_dlpack
    err_array = cp.from_dlpack(out_err)
    cp.from_dlpack
    err2_array = cp.from_dlpack(out_err2)
    kernel.launch(x_array, y_array, out_array, err_array, err2_array, 300, grid=(2, 1, 1))
    {WAIT}
"""
RETURNS = {"n": 300, "str(x.device)": "cuda:7"}


@pytest.fixture
def recorded(runtime, monkeypatch):
    """Makes a recorder whose `torch`, `cp` and loader the runtime under test uses."""

    def make(script, **returns):
        recorder = Recorder(script, RETURNS | returns)
        monkeypatch.setattr(runtime, "torch", recorder.spy("torch"))
        monkeypatch.setattr(runtime, "cp", recorder.spy("cp"))
        monkeypatch.setattr(runtime, "_NATIVE_LOADER", recorder.spy("loader"))
        return recorder

    return make


def operands(recorder):
    return recorder.spy("x"), recorder.spy("y")


def test_sequential_limbs(runtime, recorded):
    recorder = recorded(SEQUENTIAL)
    result = runtime.tqx_dot(*operands(recorder), return_tqx=True)
    recorder.check()
    assert repr(result.limbs) == "[<l0>, <l1>, <l2>, <l3>]" and result.device == "cuda:7"


def test_sequential_value_is_the_collapsed_limbs(runtime, recorded, monkeypatch):
    recorder = recorded(SEQUENTIAL + "collapsed = collapse()")
    monkeypatch.setattr(runtime.TQXResult, "collapse", recorder.spy("collapse"))
    assert repr(runtime.tqx_dot(*operands(recorder))) == "<collapsed>"
    recorder.check()


def test_parallel_limbs(runtime, recorded):
    recorder = recorded(
        PARALLEL
        + """
        out.squeeze
        value = out.squeeze()
        out_err.squeeze
        error = out_err.squeeze()
        out_err2.squeeze
        error2 = out_err2.squeeze()
        x.device
        str(x.device)
        value.shape
        torch.float64
        """
    )
    result = runtime.tqx_dot(*operands(recorder), True, False)
    recorder.check()
    assert repr(result.limbs) == "[<value>, <error>, <error2>]"


def test_parallel_value_is_added_from_left_to_right(runtime, recorded):
    recorder = recorded(
        PARALLEL
        + """
        two = out + out_err
        three = two + out_err2
        three.squeeze
        total = three.squeeze()
        """
    )
    assert repr(runtime.tqx_dot(*operands(recorder), exact=False)) == "<total>"
    recorder.check()


def test_nothing_happens_off_the_gpu(runtime, recorded):
    recorder = recorded("x.is_cuda\nbool(x.is_cuda)", **{"bool(x.is_cuda)": False})
    with pytest.raises(RuntimeError, match="^TQX requires CUDA tensor. Move tensor to GPU with"):
        runtime.tqx_dot(*operands(recorder))
    recorder.check()


def test_exact_decimal_of_the_limbs(runtime, recorded, monkeypatch):
    recorder = recorded(
        """
        result = tqx_dot(x, y, return_tqx=True)
        result.to_decimal
        value = result.to_decimal()
        """
    )
    monkeypatch.setattr(runtime, "tqx_dot", recorder.spy("tqx_dot"))
    assert repr(runtime.tqx_dot_exact(*operands(recorder))) == "<value>"
    recorder.check()


def test_exact_decimal_of_one_element(runtime, recorded, monkeypatch):
    recorder = recorded(
        """
        result = tqx_matmul(a, b, return_tqx=True)
        result.to_decimal
        value = result.to_decimal(index=(2, -1))
        """
    )
    monkeypatch.setattr(runtime, "tqx_matmul", recorder.spy("tqx_matmul"))
    a, b = recorder.spy("a"), recorder.spy("b")
    assert repr(runtime.tqx_matmul_exact(a, b, 2.7, -1)) == "<value>"
    recorder.check()


def test_exact_decimal_of_one_batch_member(runtime, recorded, monkeypatch):
    recorder = recorded(
        """
        a1 = a[1]
        b1 = b[1]
        result = tqx_matmul(a1, b1, return_tqx=True)
        result.to_decimal
        value = result.to_decimal(index=(0, 3))
        """
    )
    monkeypatch.setattr(runtime, "tqx_matmul", recorder.spy("tqx_matmul"))
    a, b = recorder.spy("a"), recorder.spy("b")
    assert repr(runtime.tqx_bmm_exact(a, b, True, 0, 3)) == "<value>"
    recorder.check()
