# SPDX-License-Identifier: Apache-2.0
"""Every operation of the transforms, recorded one by one and in order."""

import math

import pytest
import torch as real_torch
from call_recorder import Recorder, text

PI = math.pi


@pytest.fixture
def recorded(runtime, monkeypatch):
    """Makes a recorder whose `torch` the runtime under test uses."""

    def make(script, **returns):
        recorder = Recorder(script, returns={"torch.pi": PI} | returns)
        monkeypatch.setattr(runtime, "torch", recorder.spy("torch"))
        return recorder

    return make


def shapes(**of):
    return {f"{owner}.shape": real_torch.Size(shape) for owner, shape in of.items()}


# ---- the radix-2 transform ----

LENGTH_TWO = """
    x.shape
    x.clone
    c = x.clone()
    torch.log2
    torch.tensor
    n = torch.tensor(2)
    log = torch.log2(n)
    log.item
    bits = log.item()
    torch.pi
    torch.cos
    torch.tensor
    torch.float64
    c.device
    a1 = torch.tensor({zero}, dtype=torch.float64, device=c.device)
    w_real = torch.cos(a1)
    torch.sin
    torch.tensor
    torch.float64
    c.device
    a2 = torch.tensor({zero}, dtype=torch.float64, device=c.device)
    w_imag = torch.sin(a2)
    torch.complex
    w = torch.complex(w_real, w_imag)
    upper = c[(Ellipsis, 1)]
    t = upper * w
    lower = c[(Ellipsis, 0)]
    lower.clone
    u = lower.clone()
    sum = u + t
    c[(Ellipsis, 0)] := sum
    difference = u - t
    c[(Ellipsis, 1)] := difference
"""


def test_length_two_forward(runtime, recorded):
    recorder = recorded(LENGTH_TWO.format(zero=-0.0), bits=1.0, **shapes(x=(2,)))
    returned = runtime._tqx_fft_butterfly(recorder.spy("x"))
    recorder.check()
    assert text(returned) == "c"


def test_length_two_inverse(runtime, recorded):
    script = LENGTH_TWO.format(zero=0.0) + "mean = c / 2"
    recorder = recorded(script, bits=1.0, **shapes(x=(2,)))
    returned = runtime._tqx_fft_butterfly(recorder.spy("x"), inverse=True)
    recorder.check()
    assert text(returned) == "mean"


class Script:
    """The told course for any power of two."""

    def __init__(self, n, inverse):
        self.lines = ["x.shape", "x.clone", "c = x.clone()"]
        self.lines += ["torch.log2", "torch.tensor", f"n = torch.tensor({n})"]
        self.lines += ["log = torch.log2(n)", "log.item", "bits = log.item()"]
        self.permute(n, n.bit_length() - 1)
        size = 2
        while size <= n:
            self.lines.append("torch.pi")
            step = (2.0 if inverse else -2.0) * PI / size
            for start in range(0, n, size):
                for k in range(size // 2):
                    self.butterfly(step * k, start + k, start + k + size // 2)
            size *= 2
        if inverse:
            self.lines.append(f"mean = c / {n}")

    def name(self, event):
        self.lines.append(f"v{len(self.lines)} = {event}")
        return f"v{len(self.lines) - 1}"

    def element(self, index):
        return self.name(f"c[(Ellipsis, {index})]")

    def cloned(self, index):
        element = self.element(index)
        self.lines.append(f"{element}.clone")
        return self.name(f"{element}.clone()")

    def permute(self, n, bits):
        for i in range(n):
            j = sum(((i >> digit) & 1) << (bits - 1 - digit) for digit in range(bits))
            if i < j:
                from_j, from_i = self.cloned(j), self.cloned(i)
                self.lines.append(f"c[(Ellipsis, {i})] := {from_j}")
                self.lines.append(f"c[(Ellipsis, {j})] := {from_i}")

    def of_angle(self, function, angle):
        self.lines += [f"torch.{function}", "torch.tensor", "torch.float64", "c.device"]
        a = self.name(f"torch.tensor({angle!r}, dtype=torch.float64, device=c.device)")
        return self.name(f"torch.{function}({a})")

    def butterfly(self, angle, idx1, idx2):
        w_real, w_imag = self.of_angle("cos", angle), self.of_angle("sin", angle)
        self.lines.append("torch.complex")
        w = self.name(f"torch.complex({w_real}, {w_imag})")
        t = self.name(f"{self.element(idx2)} * {w}")
        u = self.cloned(idx1)
        self.lines.append(f"c[(Ellipsis, {idx1})] := {self.name(f'{u} + {t}')}")
        self.lines.append(f"c[(Ellipsis, {idx2})] := {self.name(f'{u} - {t}')}")


@pytest.mark.parametrize("inverse", [False, True], ids=["forward", "inverse"])
@pytest.mark.parametrize("n", [2, 4, 8, 16, 64, 256])
def test_any_power_of_two(runtime, recorded, n, inverse):
    recorder = recorded("\n".join(Script(n, inverse).lines), bits=math.log2(n), **shapes(x=(3, n)))
    runtime._tqx_fft_butterfly(recorder.spy("x"), inverse)
    recorder.check()


@pytest.mark.parametrize("inverse", [False, True])
@pytest.mark.parametrize("length", [0, 1])
def test_length_below_two_comes_back_untouched(runtime, recorded, length, inverse):
    recorder = recorded("x.shape", **shapes(x=(4, length)))
    x = recorder.spy("x")
    assert runtime._tqx_fft_butterfly(x, inverse) is x
    recorder.check()


def indices_written(events):
    written = [event.partition(" := ")[0] for event in events if " := " in event]
    return [int(target.rpartition(", ")[2].partition(")")[0]) for target in written]


def test_permutation_of_length_eight_swaps_two_pairs():
    assert indices_written(Script(8, False).lines)[:5] == [1, 4, 3, 6, 0]


def test_number_of_bits_is_truncated(runtime, recorded):
    """Of six indices two have their two bits swapped; longer ones are read with all their bits."""
    recorder = recorded("", **{"torch.log2(torch.tensor(6)).item()": 2.58}, **shapes(x=(6,)))
    runtime._tqx_fft_butterfly(recorder.spy("x"))
    assert indices_written(recorder.events)[:3] == [1, 2, 0]


# ---- the public transforms ----

FORWARD = """
    x.is_cuda
    bool(x.is_cuda)
    x.double
    d = x.double()
"""
PROMOTED = """
    {source}.is_complex
    is_complex = {source}.is_complex()
    bool(is_complex)
    torch.complex
    torch.zeros_like
    imaginary = torch.zeros_like({source})
    z = torch.complex({source}, imaginary)
    result = _tqx_fft_butterfly(z, inverse=False)
"""
LIBRARY = """
    torch.fft
    torch.fft.fft
    result = torch.fft.fft({source}, n={n}, dim={dim})
"""
PADDED = """
    d.shape
    d.shape
    d.shape
    torch.cat
    torch.zeros
    d.dtype
    d.device
    zeros = torch.zeros({pad_shape}, dtype=d.dtype, device=d.device)
    l = torch.cat([d, zeros], dim={dim})
    l.shape
"""
NARROWED = """
    d.shape
    d.narrow
    l = d.narrow({dim}, 0, {n})
    l.shape
"""


def check_transform(runtime, monkeypatch, recorder, name, *arguments, **options):
    monkeypatch.setattr(runtime, "_tqx_fft_butterfly", recorder.spy("_tqx_fft_butterfly"))
    returned = getattr(runtime, name)(recorder.spy("x"), *arguments, **options)
    recorder.check()
    return returned


# length, the n given, dim, the script after the start, the length that is measured
ROUTES = [
    ((8,), None, -1, "d.shape" + PROMOTED.format(source="d"), None),
    ((2, 8), None, -1, "d.shape" + PROMOTED.format(source="d"), None),
    ((1,), None, -1, "d.shape" + PROMOTED.format(source="d"), None),
    ((6,), None, -1, "d.shape" + LIBRARY.format(source="d", n=None, dim=-1), None),
    ((0,), None, -1, "d.shape" + LIBRARY.format(source="d", n=None, dim=-1), None),
    ((8,), None, 0, "d.shape" + LIBRARY.format(source="d", n=None, dim=0), None),
    ((8, 3), None, -2, "d.shape" + LIBRARY.format(source="d", n=None, dim=-2), None),
    ((5,), 8, -1, PADDED.format(pad_shape=[3], dim=-1) + PROMOTED.format(source="l"), (8,)),
    (
        (2, 5),
        6,
        -1,
        PADDED.format(pad_shape=[2, 1], dim=-1) + LIBRARY.format(source="l", n=6, dim=-1),
        (2, 6),
    ),
    (
        (5, 3),
        8,
        0,
        PADDED.format(pad_shape=[3, 3], dim=0) + LIBRARY.format(source="l", n=8, dim=0),
        (8, 3),
    ),
    ((8,), 8, -1, NARROWED.format(n=8, dim=-1) + PROMOTED.format(source="l"), (8,)),
    (
        (8,),
        5,
        -1,
        NARROWED.format(n=5, dim=-1) + LIBRARY.format(source="l", n=5, dim=-1),
        (5,),
    ),
    (
        (8,),
        0,
        -1,
        NARROWED.format(n=0, dim=-1) + LIBRARY.format(source="l", n=0, dim=-1),
        (0,),
    ),
]


@pytest.mark.parametrize("shape, n, dim, script, measured", ROUTES)
def test_course_of_fft(runtime, recorded, monkeypatch, shape, n, dim, script, measured):
    returns = shapes(d=shape) | (shapes(l=measured) if measured else {})
    recorder = recorded(FORWARD + script, **returns, **{"bool(is_complex)": False})
    returned = check_transform(runtime, monkeypatch, recorder, "tqx_fft", n, dim)
    assert text(returned) == "result"


def test_complex_answer_skips_the_promotion(runtime, recorded, monkeypatch):
    """After the widening no tensor of torch answers so; the test is made all the same."""
    script = (
        FORWARD
        + """
        d.shape
        d.is_complex
        is_complex = d.is_complex()
        bool(is_complex)
        _tqx_fft_butterfly(d, inverse=False)
        """
    )
    recorder = recorded(script, **shapes(d=(4,)))
    check_transform(runtime, monkeypatch, recorder, "tqx_fft")


INVERSE = """
    x.is_cuda
    bool(x.is_cuda)
    x.shape
"""
IFFT_ROUTES = [
    ((8,), None, -1, "result = _tqx_fft_butterfly(x, inverse=True)"),
    ((8,), 5, -1, "result = _tqx_fft_butterfly(x, inverse=True)"),
    ((3, 1), None, -1, "result = _tqx_fft_butterfly(x, inverse=True)"),
    ((8,), 5, 0, "result = torch.fft.ifft(x, n=5, dim=0)"),
    ((6,), 8, -1, "result = torch.fft.ifft(x, n=8, dim=-1)"),
    ((6,), None, -1, "result = torch.fft.ifft(x, n=None, dim=-1)"),
    ((0,), None, -1, "result = torch.fft.ifft(x, n=None, dim=-1)"),
]


@pytest.mark.parametrize("shape, n, dim, last", IFFT_ROUTES)
def test_course_of_ifft(runtime, recorded, monkeypatch, shape, n, dim, last):
    library = "torch.fft\ntorch.fft.ifft\n" if "torch" in last else ""
    recorder = recorded(INVERSE + library + last, **shapes(x=shape))
    returned = check_transform(runtime, monkeypatch, recorder, "tqx_ifft", n, dim)
    assert text(returned) == "result"


@pytest.mark.parametrize("bins, stop", [((8,), 5), ((2, 6), 4), ((8, 3), 2), ((1,), 1)])
def test_course_of_rfft(runtime, recorded, monkeypatch, bins, stop):
    recorder = recorded(
        f"""
        x.is_cuda
        bool(x.is_cuda)
        full = tqx_fft(x, n=7, dim=0)
        full.shape
        cut = full[(Ellipsis, {slice(None, stop)})]
        """,
        **shapes(full=bins),
    )
    monkeypatch.setattr(runtime, "tqx_fft", recorder.spy("tqx_fft"))
    returned = check_transform(runtime, monkeypatch, recorder, "tqx_rfft", 7, 0)
    assert text(returned) == "cut"


@pytest.mark.parametrize("n, dim, told", [(None, -1, 8), (None, 0, 4), (7, 0, 7), (0, -1, 0)])
def test_course_of_irfft(runtime, recorded, monkeypatch, n, dim, told):
    length = "x.shape" if n is None else ""
    recorder = recorded(
        f"""
        x.is_cuda
        bool(x.is_cuda)
        {length}
        torch.flip
        inner = x[(Ellipsis, {slice(1, -1)})]
        inner.conj
        conjugated = inner.conj()
        negative = torch.flip(conjugated, dims=[{dim}])
        torch.cat
        spectrum = torch.cat([x, negative], dim={dim})
        values = tqx_ifft(spectrum, n={told}, dim={dim})
        values.real
        """,
        **shapes(x=(3, 5)),
    )
    monkeypatch.setattr(runtime, "tqx_ifft", recorder.spy("tqx_ifft"))
    returned = check_transform(runtime, monkeypatch, recorder, "tqx_irfft", n, dim)
    assert text(returned) == "values.real"


# ---- failures and arguments ----

TRANSFORMS = ["tqx_fft", "tqx_ifft", "tqx_rfft", "tqx_irfft"]


@pytest.mark.parametrize("name", TRANSFORMS)
def test_operand_on_the_cpu_is_refused_at_once(runtime, recorded, name):
    recorder = recorded("x.is_cuda\nbool(x.is_cuda)", **{"bool(x.is_cuda)": False})
    with pytest.raises(RuntimeError) as caught:
        getattr(runtime, name)(recorder.spy("x"))
    assert caught.value.args == ("TQX requires CUDA tensor. Move tensor to GPU with .cuda()",)
    recorder.check()


@pytest.mark.parametrize("name", TRANSFORMS)
def test_limbs_are_not_collapsed(runtime, name):
    with pytest.raises(AttributeError, match="is_cuda"):
        getattr(runtime, name)(runtime.TQXResult([real_torch.ones(4)]))


@pytest.mark.parametrize("name", TRANSFORMS)
def test_numbers_are_converted_n_before_dim(runtime, recorded, monkeypatch, name):
    inner = {"tqx_rfft": "tqx_fft", "tqx_irfft": "tqx_ifft"}.get(name)
    recorder = recorded("", **shapes(x=(6, 6)), **{"x.double().shape": real_torch.Size((6, 6))})
    if inner:
        monkeypatch.setattr(runtime, inner, recorder.spy(inner))
        recorder.returns |= {f"{inner}(x, n=6, dim=0).shape": real_torch.Size((6, 6))}
    getattr(runtime, name)(recorder.spy("x"), 6.9, 0.9)
    assert any("n=6, dim=0" in event or "narrow(0, 0, 6)" in event for event in recorder.events)


@pytest.mark.parametrize("name", TRANSFORMS)
@pytest.mark.parametrize(
    "n, dim, parameter, kind",
    [
        ("8", -1, "n", "str"),
        ([8], None, "n", "list"),
        (None, None, "dim", "NoneType"),
        (8, "x", "dim", "str"),
    ],
)
def test_what_is_no_number_is_refused_before_the_body(runtime, name, n, dim, parameter, kind):
    with pytest.raises(TypeError) as caught:
        getattr(runtime, name)(None, n, dim)
    told = f"Argument '{parameter}' has incorrect type (expected int, got {kind})"
    assert caught.value.args == (told,)


@pytest.mark.parametrize(
    "count, told",
    [
        (0, "{}() takes at least 1 positional argument (0 given)"),
        (4, "{}() takes at most 3 positional arguments (4 given)"),
    ],
)
@pytest.mark.parametrize("name", TRANSFORMS)
def test_wrong_number_of_arguments(runtime, name, count, told):
    with pytest.raises(TypeError) as caught:
        getattr(runtime, name)(*[1] * count)
    assert caught.value.args == (told.format(name),)


@pytest.mark.parametrize("operand", [[1.0], 2.0, None])
def test_radix_two_transform_of_what_has_no_shape(runtime, operand):
    with pytest.raises(AttributeError, match="shape"):
        runtime._tqx_fft_butterfly(operand)


def test_radix_two_transform_asks_no_device(runtime):
    """It is internal: the test is made by those who call it."""
    x = real_torch.tensor([1.0, 3.0], dtype=real_torch.complex128)
    assert runtime._tqx_fft_butterfly(x).tolist() == [4.0, -2.0]


def test_length_that_is_no_power_of_two_is_not_caught(runtime):
    with pytest.raises(IndexError):
        runtime._tqx_fft_butterfly(real_torch.zeros(6, dtype=real_torch.complex128))
