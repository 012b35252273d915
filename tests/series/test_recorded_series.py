# SPDX-License-Identifier: Apache-2.0
"""Every operation of the series functions, recorded one by one and in order."""

import math

import pytest
from call_recorder import Recorder, text
from series_scripts import SCRIPTS, WITH_TERMS, Script

OPERANDS = {name: ["y", "x"] if name == "tqx_atan2" else ["x"] for name in SCRIPTS}
NO_FMA = {"torch.fma": AttributeError("module 'torch' has no attribute 'fma'")}


@pytest.fixture
def recorded(runtime, monkeypatch):
    """Makes a recorder whose `torch` the runtime under test uses."""

    def make(script, returns=None, raises=None):
        recorder = Recorder(script, returns=returns, raises=raises)
        monkeypatch.setattr(runtime, "torch", recorder.spy("torch"))
        return recorder

    return make


# ---- whole courses, written by hand: torch.pi is a spy too ----

REDUCTION = """
    x.is_cuda
    bool(x.is_cuda)
    x.double
    d = x.double()
    torch.remainder
    torch.pi
    two_pi = 2 * torch.pi
    rem = torch.remainder(d, two_pi)
    torch.where
    torch.pi
    above = rem > torch.pi
    torch.pi
    two_pi_again = 2 * torch.pi
    wrapped = rem - two_pi_again
    red = torch.where(above, wrapped, rem)
"""
SIN_OF_ONE_TERM = (
    REDUCTION
    + """
    torch.zeros_like
    result = torch.zeros_like(d)
    torch.zeros_like
    error = torch.zeros_like(d)
    red.clone
    term = red.clone()
    torch.tensor
    torch.float64
    d.device
    factorial = torch.tensor(1.0, dtype=torch.float64, device=d.device)
    x_squared = red * red
    torch.fma
    torch.fma
    minus = -x_squared
    unread = torch.fma(red, red, minus)
    s = result + term
    v = s - result
    sv = s - v
    left = result - sv
    right = term - v
    e = left + right
    error1 = error + e
    torch.tensor
    torch.float64
    d.device
    divisor = torch.tensor(6, dtype=torch.float64, device=d.device)
    term_x2 = term * x_squared
    torch.fma
    torch.fma
    minus1 = -term_x2
    unread1 = torch.fma(term, x_squared, minus1)
    negative = -term_x2
    term1 = negative / divisor
    final = s + error1
    """
)
COS_OF_TWO_TERMS = (
    REDUCTION
    + """
    torch.ones_like
    result = torch.ones_like(d)
    torch.zeros_like
    error = torch.zeros_like(d)
    x_squared = red * red
    torch.fma
    torch.fma
    minus = -x_squared
    unread = torch.fma(red, red, minus)
    negative = -x_squared
    term = negative / 2.0
    s = result + term
    v = s - result
    sv = s - v
    left = result - sv
    right = term - v
    e = left + right
    error1 = error + e
    torch.tensor
    torch.float64
    d.device
    divisor = torch.tensor(12, dtype=torch.float64, device=d.device)
    term_x2 = term * x_squared
    torch.fma
    torch.fma
    minus1 = -term_x2
    unread1 = torch.fma(term, x_squared, minus1)
    negative1 = -term_x2
    term1 = negative1 / divisor
    final = s + error1
    """
)
ASIN_OF_TWO_TERMS = """
    x.is_cuda
    bool(x.is_cuda)
    x.double
    d = x.double()
    d.clone
    result = d.clone()
    torch.zeros_like
    error = torch.zeros_like(d)
    d.clone
    term = d.clone()
    x_squared = d * d
    torch.fma
    torch.fma
    minus = -x_squared
    unread = torch.fma(d, d, minus)
    term_x2 = term * x_squared
    torch.fma
    torch.fma
    minus1 = -term_x2
    unread1 = torch.fma(term, x_squared, minus1)
    scaled = term_x2 * 1
    term1 = scaled / 6
    s = result + term1
    v = s - result
    sv = s - v
    left = result - sv
    right = term1 - v
    e = left + right
    error1 = error + e
    final = s + error1
"""
ATAN_OF_TWO_TERMS = """
    x.is_cuda
    bool(x.is_cuda)
    x.double
    d = x.double()
    torch.tensor
    torch.pi
    half = torch.pi / 2
    torch.float64
    d.device
    pi_half = torch.tensor(half, dtype=torch.float64, device=d.device)
    d.abs
    magnitude = d.abs()
    large_x = magnitude > 1
    torch.where
    inverted = 1.0 / d
    x_adj = torch.where(large_x, inverted, d)
    x_adj.clone
    result = x_adj.clone()
    torch.zeros_like
    error = torch.zeros_like(d)
    x_adj.clone
    term = x_adj.clone()
    x_squared = x_adj * x_adj
    torch.fma
    torch.fma
    minus = -x_squared
    unread = torch.fma(x_adj, x_adj, minus)
    neg_x_squared = -x_squared
    term_x2 = term * neg_x_squared
    torch.fma
    torch.fma
    minus1 = -term_x2
    unread1 = torch.fma(term, neg_x_squared, minus1)
    torch.tensor
    torch.float64
    d.device
    divisor = torch.tensor(3, dtype=torch.float64, device=d.device)
    term1 = term_x2 / divisor
    s = result + term1
    v = s - result
    sv = s - v
    left = result - sv
    right = term1 - v
    e = left + right
    error1 = error + e
    final = s + error1
    torch.where
    positive = d > 0
    above = large_x & positive
    upper = pi_half - final
    final1 = torch.where(above, upper, final)
    torch.where
    negative = d < 0
    below = large_x & negative
    minus_pi_half = -pi_half
    lower = minus_pi_half - final1
    final2 = torch.where(below, lower, final1)
"""
SINH_OF_TWO_TERMS = """
    x.is_cuda
    bool(x.is_cuda)
    x.double
    d = x.double()
    d.clone
    result = d.clone()
    torch.zeros_like
    error = torch.zeros_like(d)
    d.clone
    term = d.clone()
    x_squared = d * d
    torch.fma
    torch.fma
    minus = -x_squared
    unread = torch.fma(d, d, minus)
    torch.tensor
    torch.float64
    d.device
    divisor = torch.tensor(6, dtype=torch.float64, device=d.device)
    term_x2 = term * x_squared
    torch.fma
    torch.fma
    minus1 = -term_x2
    unread1 = torch.fma(term, x_squared, minus1)
    term1 = term_x2 / divisor
    s = result + term1
    v = s - result
    sv = s - v
    left = result - sv
    right = term1 - v
    e = left + right
    error1 = error + e
    final = s + error1
"""
COSH_OF_TWO_TERMS = """
    x.is_cuda
    bool(x.is_cuda)
    x.double
    d = x.double()
    torch.ones_like
    result = torch.ones_like(d)
    torch.zeros_like
    error = torch.zeros_like(d)
    x_squared = d * d
    torch.fma
    torch.fma
    minus = -x_squared
    unread = torch.fma(d, d, minus)
    term = x_squared / 2.0
    s = result + term
    v = s - result
    sv = s - v
    left = result - sv
    right = term - v
    e = left + right
    error1 = error + e
    torch.tensor
    torch.float64
    d.device
    divisor = torch.tensor(12, dtype=torch.float64, device=d.device)
    term_x2 = term * x_squared
    torch.fma
    torch.fma
    minus1 = -term_x2
    unread1 = torch.fma(term, x_squared, minus1)
    term1 = term_x2 / divisor
    final = s + error1
"""
BY_HAND = [
    ("tqx_sin", 1, SIN_OF_ONE_TERM, "<final>"),
    ("tqx_cos", 2, COS_OF_TWO_TERMS, "<final>"),
    ("tqx_asin", 2, ASIN_OF_TWO_TERMS, "<final>"),
    ("tqx_atan", 2, ATAN_OF_TWO_TERMS, "<final2>"),
    ("tqx_sinh", 2, SINH_OF_TWO_TERMS, "<final>"),
    ("tqx_cosh", 2, COSH_OF_TWO_TERMS, "<final>"),
]


@pytest.mark.parametrize("name, n_terms, script, result", BY_HAND)
def test_course_of_few_terms(runtime, recorded, name, n_terms, script, result):
    recorder = recorded(script)
    returned = getattr(runtime, name)(recorder.spy("x"), n_terms)
    recorder.check()
    assert repr(returned) == result


# ---- any number of terms ----


def run(runtime, recorded, name, *arguments, with_fma=True, **options):
    script = Script(with_fma)
    result = SCRIPTS[name](script, *OPERANDS[name], *arguments, **options)
    recorder = recorded(
        "\n".join(script.lines),
        returns={"torch.pi": math.pi},
        raises={} if with_fma else NO_FMA,
    )
    operands = [recorder.spy(operand) for operand in OPERANDS[name]]
    returned = getattr(runtime, name)(*operands, *arguments, **options)
    recorder.check()
    return returned, result


@pytest.mark.parametrize("with_fma", [True, False], ids=["fma", "split"])
@pytest.mark.parametrize("n_terms", [-3, 0, 1, 2, 3, 200])
@pytest.mark.parametrize("name", WITH_TERMS)
def test_course_of_any_number_of_terms(runtime, recorded, name, n_terms, with_fma):
    returned, result = run(runtime, recorded, name, n_terms, with_fma=with_fma)
    assert text(returned) == result


@pytest.mark.parametrize("with_fma", [True, False], ids=["fma", "split"])
@pytest.mark.parametrize("name", SCRIPTS)
def test_course_with_the_default_number_of_terms(runtime, recorded, name, with_fma):
    returned, result = run(runtime, recorded, name, with_fma=with_fma)
    assert text(returned) == result


@pytest.mark.parametrize("with_fma, told", [(True, 13), (False, 29)])
def test_cost_of_a_term_of_the_sine(with_fma, told):
    """Operations of torch, as the documents state them."""

    def operations(n_terms):
        script = Script(with_fma)
        SCRIPTS["tqx_sin"](script, "x", n_terms)
        return sum(" = " in line for line in script.lines)

    assert operations(5) - operations(4) == told


@pytest.mark.parametrize("name", SCRIPTS)
def test_asked_for_limbs_the_tensor_is_the_only_one(runtime, recorded, name):
    returned, result = run(runtime, recorded, name, return_tqx=True)
    assert type(returned) is runtime.TQXResult and text(returned.limbs) == f"[{result}]"


@pytest.mark.parametrize("name", SCRIPTS)
def test_device_of_the_result_is_a_text(runtime, recorded, name):
    returned, _ = run(runtime, recorded, name, return_tqx=True)
    assert type(returned.device) is str and returned.device.endswith(".device")


@pytest.mark.parametrize("n_terms, told", [(3.9, 3), (True, 1), (-0.5, 0)])
def test_number_of_terms_is_converted(runtime, recorded, n_terms, told):
    script = Script()
    SCRIPTS["tqx_cosh"](script, "x", told)
    recorder = recorded("\n".join(script.lines))
    runtime.tqx_cosh(recorder.spy("x"), n_terms)
    recorder.check()


# ---- operands ----


def limb_result(runtime, recorder, *limbs):
    result = runtime.TQXResult.__new__(runtime.TQXResult)
    result.limbs = [recorder.spy(limb) for limb in limbs]
    result.device, result.n_limbs = "d", len(limbs)
    return result


@pytest.mark.parametrize("name", [name for name in SCRIPTS if name != "tqx_atan2"])
def test_limbs_are_collapsed_before_the_device_is_tested(runtime, recorded, name):
    script = Script()
    collapsed = script.method("hi", "double")
    SCRIPTS[name](script, collapsed)
    recorder = recorded("\n".join(script.lines), returns={"torch.pi": math.pi})
    getattr(runtime, name)(limb_result(runtime, recorder, "hi"))
    recorder.check()


def test_atan2_collapses_both_before_it_tests_either(runtime, recorded):
    script = Script()
    y, x = script.method("yhi", "double"), script.method("xhi", "double")
    SCRIPTS["tqx_atan2"](script, y, x)
    recorder = recorded("\n".join(script.lines), returns={"torch.pi": math.pi})
    runtime.tqx_atan2(limb_result(runtime, recorder, "yhi"), limb_result(runtime, recorder, "xhi"))
    recorder.check()


NOT_CUDA = "TQX requires CUDA tensor. Move tensor to GPU with .cuda()"


@pytest.mark.parametrize("name", SCRIPTS)
def test_operand_on_the_cpu_is_refused_at_once(runtime, recorded, name):
    first = OPERANDS[name][0]
    recorder = recorded(
        f"""
        {first}.is_cuda
        bool({first}.is_cuda)
        """,
        returns={f"bool({first}.is_cuda)": False},
    )
    with pytest.raises(RuntimeError) as caught:
        getattr(runtime, name)(*map(recorder.spy, OPERANDS[name]))
    assert caught.value.args == (NOT_CUDA,)
    recorder.check()


@pytest.mark.parametrize("name", [name for name in SCRIPTS if name != "tqx_atan2"])
def test_limbs_on_the_cpu_are_refused_after_the_collapse(runtime, recorded, name):
    recorder = recorded(
        """
        hi.double
        c = hi.double()
        c.is_cuda
        bool(c.is_cuda)
        """,
        returns={"bool(c.is_cuda)": False},
    )
    with pytest.raises(RuntimeError) as caught:
        getattr(runtime, name)(limb_result(runtime, recorder, "hi"))
    assert caught.value.args == (NOT_CUDA,)
    recorder.check()


def test_atan2_tests_its_second_operand_too(runtime, recorded):
    recorder = recorded(
        """
        y.is_cuda
        bool(y.is_cuda)
        x.is_cuda
        bool(x.is_cuda)
        """,
        returns={"bool(x.is_cuda)": False},
    )
    with pytest.raises(RuntimeError, match="TQX requires CUDA tensor"):
        runtime.tqx_atan2(recorder.spy("y"), recorder.spy("x"))
    recorder.check()


# ---- what is looked up in the module ----


def patched(runtime, monkeypatch, recorder, *names):
    for name in names:
        monkeypatch.setattr(runtime, name, recorder.spy(name))


def test_tan_asks_the_module_for_sine_and_cosine(runtime, recorded, monkeypatch):
    recorder = recorded(
        """
        x.is_cuda
        bool(x.is_cuda)
        sine = tqx_sin(x)
        cosine = tqx_cos(x)
        sine / cosine
        """
    )
    patched(runtime, monkeypatch, recorder, "tqx_sin", "tqx_cos")
    runtime.tqx_tan(recorder.spy("x"))
    recorder.check()


def test_acos_asks_the_module_for_the_arcsine(runtime, recorded, monkeypatch):
    recorder = recorded(
        """
        x.is_cuda
        bool(x.is_cuda)
        torch.tensor
        torch.pi
        half = torch.pi / 2
        torch.float64
        x.device
        pi_half = torch.tensor(half, dtype=torch.float64, device=x.device)
        arcsine = tqx_asin(x)
        pi_half - arcsine
        """
    )
    patched(runtime, monkeypatch, recorder, "tqx_asin")
    runtime.tqx_acos(recorder.spy("x"))
    recorder.check()


ATAN2 = """
    y.is_cuda
    bool(y.is_cuda)
    x.is_cuda
    bool(x.is_cuda)
    y.double
    dy = y.double()
    x.double
    dx = x.double()
    torch.tensor
    torch.pi
    torch.float64
    dy.device
    pi = torch.tensor(torch.pi, dtype=torch.float64, device=dy.device)
    quotient = dy / dx
    base = tqx_atan(quotient)
    torch.where
    c1 = dx > 0
    r1 = torch.where(c1, base, base)
    torch.where
    a2 = dx < 0
    b2 = dy >= 0
    c2 = a2 & b2
    v2 = base + pi
    r2 = torch.where(c2, v2, r1)
    torch.where
    a3 = dx < 0
    b3 = dy < 0
    c3 = a3 & b3
    v3 = base - pi
    r3 = torch.where(c3, v3, r2)
    torch.where
    a4 = dx == 0
    b4 = dy > 0
    c4 = a4 & b4
    v4 = pi / 2
    r4 = torch.where(c4, v4, r3)
    torch.where
    a5 = dx == 0
    b5 = dy < 0
    c5 = a5 & b5
    minus_pi = -pi
    v5 = minus_pi / 2
    r5 = torch.where(c5, v5, r4)
    torch.where
    a6 = dx == 0
    b6 = dy == 0
    c6 = a6 & b6
    torch.tensor
    dy.device
    v6 = torch.tensor(0.0, device=dy.device)
    r6 = torch.where(c6, v6, r5)
"""


def test_course_of_atan2_around_the_arctangent(runtime, recorded, monkeypatch):
    recorder = recorded(ATAN2)
    patched(runtime, monkeypatch, recorder, "tqx_atan")
    returned = runtime.tqx_atan2(recorder.spy("y"), recorder.spy("x"))
    recorder.check()
    assert repr(returned) == "<r6>"


@pytest.mark.parametrize("name", ["_two_sum", "_two_product"])
def test_series_asks_the_module_for_its_primitives(runtime, monkeypatch, name):
    calls = []
    original = getattr(runtime, name)
    monkeypatch.setattr(runtime, name, lambda a, b: calls.append((a, b)) or original(a, b))
    recorder = Recorder()
    monkeypatch.setattr(runtime, "torch", recorder.spy("torch"))
    runtime.tqx_sinh(recorder.spy("x"), 3)
    assert len(calls) == {"_two_sum": 2, "_two_product": 3}[name]


# ---- failures ----


@pytest.mark.parametrize("failing", ["d", "x_squared", "unread", "divisor", "term1", "e", "final"])
def test_series_stops_at_the_first_failure(runtime, recorded, failing):
    told = RuntimeError("from torch")
    recorder = recorded(SINH_OF_TWO_TERMS, raises={failing: told})
    with pytest.raises(RuntimeError) as caught:
        runtime.tqx_sinh(recorder.spy("x"), 2)
    assert caught.value is told
    assert recorder.events == recorder.expected[: len(recorder.events)]
    assert recorder.events[-1].startswith(f"{failing} = ")


@pytest.mark.parametrize("name", SCRIPTS)
@pytest.mark.parametrize("operand", [1.5, [1.0], None])
def test_operand_without_a_device_is_an_attribute_error(runtime, name, operand):
    with pytest.raises(AttributeError, match="is_cuda"):
        getattr(runtime, name)(*[operand] * len(OPERANDS[name]))


@pytest.mark.parametrize("name", WITH_TERMS)
@pytest.mark.parametrize("n_terms", [None, "20", [20]])
def test_number_of_terms_that_is_none_is_refused_before_the_body(runtime, name, n_terms):
    with pytest.raises(TypeError) as caught:
        getattr(runtime, name)(None, n_terms)
    kind = type(n_terms).__name__
    assert caught.value.args == (
        f"Argument 'n_terms' has incorrect type (expected int, got {kind})",
    )


COUNT_TEXTS = [
    ("tqx_sin", 0, "tqx_sin() takes at least 1 positional argument (0 given)"),
    ("tqx_sin", 4, "tqx_sin() takes at most 3 positional arguments (4 given)"),
    ("tqx_tan", 0, "tqx_tan() takes at least 1 positional argument (0 given)"),
    ("tqx_tan", 3, "tqx_tan() takes at most 2 positional arguments (3 given)"),
    ("tqx_acos", 3, "tqx_acos() takes at most 2 positional arguments (3 given)"),
    ("tqx_atan2", 1, "tqx_atan2() takes at least 2 positional arguments (1 given)"),
    ("tqx_atan2", 4, "tqx_atan2() takes at most 3 positional arguments (4 given)"),
]


@pytest.mark.parametrize("name, count, told", COUNT_TEXTS)
def test_wrong_number_of_arguments(runtime, name, count, told):
    with pytest.raises(TypeError) as caught:
        getattr(runtime, name)(*[1] * count)
    assert caught.value.args == (told,)
