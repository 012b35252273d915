# SPDX-License-Identifier: Apache-2.0
"""All public names, one by one: each does on real operands what its kind of function does.

Per name: a call with small operands, what comes back, and what comes back when limbs are asked for.
Values are those of the mathematics, to a tolerance: this test finds a name that does another's
work, not a wrong last bit. A kernel that the device does not have skips the calls that fetch it.
"""

import hashlib
import inspect
import math
import struct
from dataclasses import dataclass
from decimal import Decimal

import pytest
import torch
from device import tensor

KERNELS = {
    f"tqx_{name}_kernel"
    for name in """
        sum_seq sum dot_seq dot var norm prod cumsum logsumexp add sub mul div relu neg exp log sqrt
        sigmoid tanh leaky_relu rms_norm matmul
    """.split()
}
CLOSE = 1e-12
NO_LIMBS = 0  # return_tqx has no effect, or there is no such parameter


@dataclass(frozen=True)
class Call:
    name: str
    operands: tuple  # a list becomes a tensor
    expected: object  # float, nested list, bool, str, Decimal, list of Decimal
    limbs: int = NO_LIMBS  # how many come back with return_tqx=True
    dtype: torch.dtype = torch.float64

    def run(self, module, **named):
        operands = [tensor(o) if isinstance(o, list) else o for o in self.operands]
        return getattr(module, self.name)(*operands, **named)


V, W = [1.5, -2.25, 4.0], [2.0, 0.5, -1.0]
P = [0.5, 2.0, 8.0]  # positive
M, N = [[4.0, 1.0], [2.0, 3.0]], [[1.0, -2.0], [0.5, 3.0]]
MN = [[4.5, -5.0], [3.5, 5.0]]
IMAGE, TAPS = [[[[1.0, 2.0], [3.0, 4.0]]]], [[[[1.0, 10.0]]]]
BOOL, LONG = torch.bool, torch.int64


def each(function, *lists):
    return [function(*items) for items in zip(*lists, strict=True)]


def one_limb(name, function, values=V, *rest):
    return Call(f"tqx_{name}", (values, *rest), each(function, values), limbs=1)


def comparison(name, flags):
    return Call(f"tqx_{name}", (V, [1.5, 0.0, 5.0]), flags, dtype=BOOL)


MEAN = sum(V) / 3
VARIANCE = sum((v - MEAN) ** 2 for v in V) / 2
NORM = math.sqrt(sum(v * v for v in V))
LOGSUMEXP = math.log(sum(map(math.exp, V)))

CALLS = [
    Call("tqx_sum", (V,), 3.25, limbs=4),
    Call("tqx_mean", (V,), MEAN, limbs=4),
    Call("tqx_var", (V,), VARIANCE),
    Call("tqx_std", (V,), math.sqrt(VARIANCE)),
    Call("tqx_norm", (V,), NORM),
    Call("tqx_prod", (V,), -13.5, limbs=2),
    Call("tqx_cumsum", (V,), [1.5, -0.75, 3.25], limbs=2),
    Call("tqx_logsumexp", (V,), LOGSUMEXP),
    Call("tqx_min", (V,), -2.25),
    Call("tqx_max", (V,), 4.0),
    Call("tqx_argmin", (V,), 1, dtype=LONG),
    Call("tqx_argmax", (V,), 2, dtype=LONG),
    Call("tqx_trace", (M,), 7.0),
    Call("tqx_sum_exact", (V,), Decimal("3.25")),
    Call("tqx_mean_exact", (V,), Decimal(MEAN)),
    Call("tqx_dot_exact", (V, W), Decimal("-2.125")),
    Call("tqx_matmul_exact", (M, N, 0, 1), Decimal(-5)),
    Call("tqx_bmm_exact", ([N, M], [M, N], 1, 1, 0), Decimal("3.5")),
    Call("tqx_var_exact", (V,), Decimal(VARIANCE)),
    Call("tqx_std_exact", (V,), Decimal(math.sqrt(VARIANCE))),
    Call("tqx_norm_exact", (V,), Decimal(NORM)),
    Call("tqx_prod_exact", (V,), Decimal("-13.5")),
    Call("tqx_cumsum_exact", (V,), [Decimal("1.5"), Decimal("-0.75"), Decimal("3.25")]),
    Call("tqx_trace_exact", (M,), Decimal(7)),
    Call("tqx_logsumexp_exact", (V,), Decimal(LOGSUMEXP)),
    Call("tqx_dot", (V, W), -2.125, limbs=4),
    Call("tqx_matmul", (M, N), MN, limbs=3),
    Call("tqx_bmm", ([M, N], [N, M]), [MN, [[0.0, -5.0], [8.0, 9.5]]]),
    Call("tqx_linear", (N, M, [1.0, 2.0]), [[3.0, -2.0], [6.0, 12.0]]),
    Call("tqx_conv2d", (IMAGE, TAPS), [[[[21.0], [43.0]]]]),
    Call("tqx_conv_transpose2d", (IMAGE, TAPS), [[[[1.0, 12.0, 20.0], [3.0, 34.0, 40.0]]]]),
    Call("tqx_einsum", ("ij,jk->ik", M, N), MN, limbs=3),
    Call("tqx_mse_loss", (V, W), sum((v - w) ** 2 for v, w in zip(V, W, strict=True)) / 3),
    Call("tqx_add", (V, W), [3.5, -1.75, 3.0], limbs=2),
    Call("tqx_sub", (V, W), [-0.5, -2.75, 5.0], limbs=2),
    Call("tqx_mul", (V, W), [3.0, -1.125, -4.0], limbs=2),
    Call("tqx_div", (V, W), [0.75, -4.5, -4.0], limbs=2),
    one_limb("neg", lambda v: -v),
    one_limb("abs", abs),
    one_limb("pow", lambda v: v**1.5, P, 1.5),
    one_limb("clamp", lambda v: min(max(v, -1.0), 2.0), V, -1.0, 2.0),
    Call("tqx_fmod", (V, W), each(math.fmod, V, W), limbs=1),
    one_limb("exp", math.exp),
    one_limb("log", math.log, P),
    one_limb("sqrt", math.sqrt, P),
    one_limb("rsqrt", lambda v: 1 / math.sqrt(v), P),
    one_limb("sin", math.sin),
    one_limb("cos", math.cos, [0.0, 0.5, 1.0]),
    one_limb("tan", math.tan, [0.0, 0.5, 1.0]),
    one_limb("asin", math.asin, [0.0, 0.25, -0.25]),
    one_limb("acos", math.acos, [0.0, 0.25, -0.25]),
    one_limb("atan", math.atan, [0.0, 1e-5, 1e5]),
    Call("tqx_atan2", ([0.0, 1e-5], [1.0, 2.0]), [0.0, 5e-6], limbs=1),
    one_limb("sinh", math.sinh, [0.0, 0.5, -2.0]),
    one_limb("cosh", math.cosh, [0.0, 0.5, -2.0]),
    one_limb("tanh", math.tanh),
    one_limb("floor", math.floor),
    one_limb("ceil", math.ceil),
    one_limb("round", round),
    one_limb("trunc", math.trunc),
    Call("tqx_sign", (V,), [1.0, -1.0, 1.0]),
    comparison("eq", [True, False, False]),
    comparison("ne", [False, True, True]),
    comparison("lt", [False, True, True]),
    comparison("le", [True, True, True]),
    comparison("gt", [False, False, False]),
    comparison("ge", [True, False, False]),
    one_limb("relu", lambda v: max(v, 0.0)),
    one_limb("sigmoid", lambda v: 1 / (1 + math.exp(-v))),
    one_limb("leaky_relu", lambda v: v if v > 0 else 0.01 * v),
    Call("tqx_det", (M,), 10.0),
    Call("tqx_inv", (M,), [[0.3, -0.1], [-0.2, 0.4]]),
    Call("tqx_solve", (M, [9.0, 7.0]), [2.0, 1.0]),
]
# Called otherwise, below.
APART = ["__version__", "TQXResult", "TQXVerifiedResult", "tqx_verify", "get_backend_info"]
APART += [
    "tqx_where",
    "tqx_fft",
    "tqx_ifft",
    "tqx_rfft",
    "tqx_irfft",
    "tqx_checksum",
    "tqx_checksum_hex",
]
BY_NAME = [pytest.param(call, id=call.name) for call in CALLS]


class AskingLoader:
    """Passes everything on; a kernel that the device does not have skips the test."""

    def __init__(self, loader):
        self._loader = loader

    def __getattr__(self, name):
        return getattr(self._loader, name)

    def get_kernel(self, name):
        assert name in KERNELS
        try:
            return self._loader.get_kernel(name)
        except Exception:
            pytest.skip(f"the device has no {name}")


@pytest.fixture
def surface(module, monkeypatch):
    monkeypatch.setattr(module, "_NATIVE_LOADER", AskingLoader(module._NATIVE_LOADER))
    return module


def near(value, expected):
    if isinstance(expected, (list, tuple)):
        assert len(value) == len(expected)
        for v, e in zip(value, expected, strict=True):
            near(v, e)
    else:
        assert float(abs(value - expected)) <= CLOSE * max(1.0, float(abs(expected)))


def of_decimals(call):
    first = call.expected[0] if isinstance(call.expected, list) else call.expected
    return isinstance(first, Decimal)


@pytest.mark.parametrize("call", BY_NAME)
def test_function_gives_its_kind_of_result(surface, call):
    result = call.run(surface)
    if of_decimals(call):
        parts = result if isinstance(result, list) else [result]
        assert isinstance(result, type(call.expected))
        assert all(type(part) is Decimal for part in parts)
        near(result, call.expected)
    else:
        assert isinstance(result, torch.Tensor) and result.is_cuda
        assert result.dtype == call.dtype
        near(result.tolist(), call.expected)


@pytest.mark.parametrize("call", BY_NAME)
def test_function_gives_the_limbs_of_its_kind_when_asked(surface, call):
    if "return_tqx" not in inspect.signature(getattr(surface, call.name)).parameters:
        assert call.limbs == NO_LIMBS
        return
    result = call.run(surface, return_tqx=True)
    if call.limbs == NO_LIMBS:
        assert isinstance(result, torch.Tensor)
        near(result.tolist(), call.expected)
    else:
        assert type(result) is surface.TQXResult and result.device == "cuda:0"
        assert [limb.dtype for limb in result.limbs] == [torch.float64] * call.limbs
        near(result.collapse().tolist(), call.expected)


def test_where_chooses(surface):
    chosen = surface.tqx_where(tensor([True, False], torch.bool), tensor(V[:2]), tensor(W[:2]))
    assert chosen.tolist() == [1.5, 0.5] and chosen.dtype == torch.float64


def test_transforms_give_complex_tensors_and_the_last_a_real_one(surface):
    real, turned = [1.0, 2.0, 3.0, 4.0], [10, -2 + 2j, -2, -2 - 2j]
    for name, values, expected in [
        ("tqx_fft", real, turned),
        ("tqx_ifft", turned, real),
        ("tqx_rfft", real, turned[:3]),
        ("tqx_irfft", turned[:3], real),
    ]:
        operand = tensor(values, torch.complex128 if values[0] == 10 else torch.float64)
        result = getattr(surface, name)(operand)
        assert result.is_cuda and result.is_complex() == (name != "tqx_irfft")
        near(result.tolist(), expected)


def test_checksums_are_texts_and_verify_compares_them(surface):
    expected = hashlib.sha256(struct.pack("<3d", *V)).hexdigest()
    assert surface.tqx_checksum(tensor(V)) == expected[:16]
    assert surface.tqx_checksum_hex(tensor(V)) == expected
    assert surface.tqx_verify(tensor(V), expected[:16]) is True


def test_classes_hold_their_values(surface):
    result = surface.TQXResult([tensor([1.0]), tensor([2.0**-60])])
    assert (result.n_limbs, result.device, result.shape) == (2, "cuda", (1,))
    verified = surface.TQXVerifiedResult(result)
    assert verified.checksum == surface.tqx_checksum(result)


def test_facts_are_of_their_types(surface):
    assert surface.__version__ == "3.4.8"
    assert type(surface.get_backend_info()) is dict and len(surface.get_backend_info()) == 6


def test_every_name_is_called_here(module):
    called = [call.name for call in CALLS] + APART
    assert sorted(called) == sorted(module.__all__)
