# SPDX-License-Identifier: Apache-2.0
"""The calls that matrix products make on torch, cupy and the loader, one by one and in order.

Every script is complete: what is not listed is not done.
"""

import pytest
import torch
from call_recorder import Recorder

WAIT = """
    cp.cuda
    cp.cuda.Stream
    cp.cuda.Stream.null
    cp.cuda.Stream.null.synchronize
    cp.cuda.Stream.null.synchronize()
"""


def zeros(name):
    return f"""
        torch.zeros
        a.device
        torch.float64
        {name} = torch.zeros(3, 17, device=a.device, dtype=torch.float64)
    """


def array(name, source):
    return f"""
        cp.from_dlpack
        {name} = cp.from_dlpack({source})
    """


MATRICES = f"""
    a.shape
    b.shape
    a.double
    a1 = a.double()
    a1.contiguous
    a_fp64 = a1.contiguous()
    b.double
    b1 = b.double()
    b1.contiguous
    b_fp64 = b1.contiguous()
    {zeros("C0")}
    {zeros("C1")}
    {zeros("C2")}
    loader.get_kernel
    kernel = loader.get_kernel('tqx_matmul_kernel')
    kernel.function
    {array("a_array", "a_fp64")}
    {array("b_array", "b_fp64")}
    {array("C0_array", "C0")}
    {array("C1_array", "C1")}
    {array("C2_array", "C2")}
    kernel.function((2, 1, 1), (16, 16, 1), \
(a_array, b_array, C0_array, C1_array, C2_array, 3, 17, 5))
    {WAIT}
    a.device
    str(a.device)
    C0.shape
    torch.float64
"""
RETURNS = {"a.shape": (3, 5), "b.shape": (5, 17), "str(a.device)": "cuda:7"}


@pytest.fixture
def recorded(runtime, monkeypatch):
    """Makes a recorder whose `torch`, `cp` and loader the runtime under test uses."""

    def make(script, returns=None, raises=None):
        recorder = Recorder(script, RETURNS | (returns or {}), raises)
        monkeypatch.setattr(runtime, "torch", recorder.spy("torch"))
        monkeypatch.setattr(runtime, "cp", recorder.spy("cp"))
        monkeypatch.setattr(runtime, "_NATIVE_LOADER", recorder.spy("loader"))
        return recorder

    return make


@pytest.fixture
def spied(runtime, monkeypatch):
    """Replaces functions of the runtime by spies."""

    def replace(recorder, *names):
        for name in names:
            monkeypatch.setattr(runtime, name, recorder.spy(name))

    return replace


def operands(recorder):
    return recorder.spy("a"), recorder.spy("b")


# ---- two matrices ----


def test_limbs_of_two_matrices(runtime, recorded):
    recorder = recorded(MATRICES)
    result = runtime._tqx_matmul_2d(*operands(recorder), 1)
    recorder.check()
    assert repr(result.limbs) == "[<C0>, <C1>, <C2>]" and result.device == "cuda:7"


def test_value_is_the_collapsed_limbs(runtime, recorded, monkeypatch):
    recorder = recorded(MATRICES + "collapsed = collapse()")
    monkeypatch.setattr(runtime.TQXResult, "collapse", recorder.spy("collapse"))
    assert repr(runtime._tqx_matmul_2d(*operands(recorder))) == "<collapsed>"
    recorder.check()


def test_differing_inner_dimensions_stop_before_any_conversion(runtime, recorded):
    recorder = recorded("a.shape\nb.shape", {"b.shape": (6, 17)})
    with pytest.raises(AssertionError, match="^Inner dimensions must match: 5 vs 6$"):
        runtime._tqx_matmul_2d(*operands(recorder))
    recorder.check()


@pytest.mark.parametrize(
    "shape, text",
    [
        ((2, 3, 5), "too many values to unpack (expected 2)"),
        ((5,), "need more than 1 value to unpack"),
        ((), "need more than 0 values to unpack"),
    ],
)
@pytest.mark.parametrize("wrong", ["a.shape", "b.shape"])
def test_other_ranks_fail_in_the_unpacking(runtime, recorded, wrong, shape, text):
    recorder = recorded("a.shape" if wrong == "a.shape" else "a.shape\nb.shape", {wrong: shape})
    with pytest.raises(ValueError) as failure:
        runtime._tqx_matmul_2d(*operands(recorder))
    recorder.check()
    assert str(failure.value) == text


# ---- tqx_matmul ----


def test_two_vectors_go_to_tqx_dot_without_return_tqx(runtime, recorded, spied):
    script = "a.is_cuda\nbool(a.is_cuda)\na.ndim\nb.ndim\nresult = tqx_dot(a, b)"
    recorder = recorded(script, {"a.ndim": 1, "b.ndim": 1})
    spied(recorder, "tqx_dot")
    assert repr(runtime.tqx_matmul(*operands(recorder), return_tqx=True)) == "<result>"
    recorder.check()


def test_two_matrices_are_one_product(runtime, recorded, spied):
    recorder = recorded(
        """
        a.is_cuda
        bool(a.is_cuda)
        a.ndim
        a.ndim
        b.ndim
        a.ndim
        b.ndim
        result = _tqx_matmul_2d(a, b, True)
        """,
        {"a.ndim": 2, "b.ndim": 2},
    )
    spied(recorder, "_tqx_matmul_2d")
    assert repr(runtime.tqx_matmul(*operands(recorder), True)) == "<result>"
    recorder.check()


def test_a_vector_and_a_matrix(runtime, recorded, spied):
    recorder = recorded(
        """
        a.is_cuda
        bool(a.is_cuda)
        a.ndim
        b.ndim
        a.ndim
        a.unsqueeze
        row = a.unsqueeze(0)
        b.ndim
        row.ndim
        b.ndim
        product = _tqx_matmul_2d(row, b, True)
        product.squeeze
        result = product.squeeze(-2)
        """,
        {"a.ndim": 1, "b.ndim": 2, "row.ndim": 2},
    )
    spied(recorder, "_tqx_matmul_2d")
    assert repr(runtime.tqx_matmul(*operands(recorder), True)) == "<result>"
    recorder.check()


def test_a_matrix_and_a_vector(runtime, recorded, spied):
    recorder = recorded(
        """
        a.is_cuda
        bool(a.is_cuda)
        a.ndim
        a.ndim
        b.ndim
        b.unsqueeze
        column = b.unsqueeze(-1)
        a.ndim
        column.ndim
        product = _tqx_matmul_2d(a, column, False)
        product.squeeze
        result = product.squeeze(-1)
        """,
        {"a.ndim": 2, "b.ndim": 1, "column.ndim": 2},
    )
    spied(recorder, "_tqx_matmul_2d")
    assert repr(runtime.tqx_matmul(*operands(recorder))) == "<result>"
    recorder.check()


BATCHES = """
    a.is_cuda
    bool(a.is_cuda)
    a.ndim
    a.ndim
    b.ndim
    a.ndim
    a.shape
    b.shape
    torch.broadcast_shapes
    torch.broadcast_shapes(torch.Size([2, 1]), torch.Size([2]))
    b.expand
    b.shape
    b.shape
    wide_b = b.expand(2, 1, 4, 5)
    a.shape
    a.shape
    wide_b.shape
    wide_b.shape
    a.reshape
    a_flat = a.reshape(2, 3, 4)
    wide_b.reshape
    b_flat = wide_b.reshape(2, 4, 5)
    a0 = a_flat[0]
    b0 = b_flat[0]
    r0 = _tqx_matmul_2d(a0, b0, {flag})
    a1 = a_flat[1]
    b1 = b_flat[1]
    r1 = _tqx_matmul_2d(a1, b1, {flag})
"""
BATCH_RETURNS = {
    "a.ndim": 4,
    "b.ndim": 3,
    "a.shape": torch.Size((2, 1, 3, 4)),
    "b.shape": torch.Size((2, 4, 5)),
    "wide_b.shape": torch.Size((2, 1, 4, 5)),
    "torch.broadcast_shapes(torch.Size([2, 1]), torch.Size([2]))": torch.Size((2, 1)),
}


def test_values_of_a_batch_are_stacked(runtime, recorded, spied):
    recorder = recorded(
        BATCHES.format(flag=False)
        + """
        torch.stack
        stack = torch.stack([r0, r1])
        stack.reshape
        result = stack.reshape(2, 1, 3, 5)
        """,
        BATCH_RETURNS,
    )
    spied(recorder, "_tqx_matmul_2d")
    assert repr(runtime.tqx_matmul(*operands(recorder))) == "<result>"
    recorder.check()


def test_limbs_of_a_batch_are_stacked_one_by_one(runtime, recorded, spied):
    stacks = "".join(
        f"""
        torch.stack
        r0.limbs
        p{i} = r0.limbs[{i}]
        r1.limbs
        q{i} = r1.limbs[{i}]
        s{i} = torch.stack([p{i}, q{i}])
        """
        for i in range(3)
    )
    reshapes = "".join(
        f"""
        s{i}.reshape
        limb{i} = s{i}.reshape(2, 1, 3, 5)
        """
        for i in range(3)
    )
    recorder = recorded(
        BATCHES.format(flag=True)
        + stacks
        + reshapes
        + """
        a.device
        str(a.device)
        limb0.shape
        torch.float64
        """,
        BATCH_RETURNS,
    )
    spied(recorder, "_tqx_matmul_2d")
    result = runtime.tqx_matmul(*operands(recorder), return_tqx=True)
    recorder.check()
    assert repr(result.limbs) == "[<limb0>, <limb1>, <limb2>]"


@pytest.mark.parametrize("kind, text", [
    (RuntimeError, "Cannot broadcast batch shapes torch.Size([2, 1]) and torch.Size([2])"),
    (TypeError, "as it was"),
])  # fmt: skip
def test_only_a_runtime_error_of_the_broadcast_is_reworded(runtime, recorded, kind, text):
    label = "torch.broadcast_shapes(torch.Size([2, 1]), torch.Size([2]))"
    recorder = recorded(
        BATCHES[: BATCHES.index("b.expand")], BATCH_RETURNS, {label: kind("as it was")}
    )
    with pytest.raises(kind) as failure:
        runtime.tqx_matmul(*operands(recorder))
    recorder.check()
    assert str(failure.value) == text


# ---- tqx_bmm ----


def test_bmm_multiplies_member_by_member(runtime, recorded, spied):
    recorder = recorded(
        """
        a.ndim
        b.ndim
        a.shape
        b.shape
        a0 = a[0]
        b0 = b[0]
        r0 = tqx_matmul(a0, b0, return_tqx=False)
        a1 = a[1]
        b1 = b[1]
        r1 = tqx_matmul(a1, b1, return_tqx=False)
        torch.stack
        result = torch.stack([r0, r1])
        """,
        {"a.ndim": 3, "b.ndim": 3, "a.shape": (2, 3, 5), "b.shape": (2, 5, 4)},
    )
    spied(recorder, "tqx_matmul")
    assert repr(runtime.tqx_bmm(*operands(recorder), return_tqx=True)) == "<result>"
    recorder.check()
