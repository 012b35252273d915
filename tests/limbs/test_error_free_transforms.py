# SPDX-License-Identifier: Apache-2.0
"""The error-free transforms: each operation in its place, and what comes out of them.

The scripts are complete: an operation too many, too few or in another place fails the test.
"""

import math
from fractions import Fraction

import pytest
import torch
from device import tensor
from hypothesis import example, given
from hypothesis import strategies as st

from korvex_tools.references.exact_arithmetic import bits

TWO_SUM = """
    s = a + b
    v = s - a
    a_part = s - v
    a_error = a - a_part
    b_error = b - v
    e = a_error + b_error
"""
WITH_FMA = """
    p = a * b
    torch.fma
    torch.fma
    minus_p = -p
    e = torch.fma(a, b, minus_p)
"""
SPLIT = """
    p = a * b
    torch.fma
    a_scaled = 134217729.0 * a
    a_scaled_again = 134217729.0 * a
    a_low_removed = a_scaled_again - a
    ah = a_scaled - a_low_removed
    al = a - ah
    b_scaled = 134217729.0 * b
    b_scaled_again = 134217729.0 * b
    b_low_removed = b_scaled_again - b
    bh = b_scaled - b_low_removed
    bl = b - bh
    low_low = al * bl
    high_high = ah * bh
    rest1 = p - high_high
    low_high = al * bh
    rest2 = rest1 - low_high
    high_low = ah * bl
    rest3 = rest2 - high_low
    e = low_low - rest3
"""
NO_FMA = {"torch.fma": AttributeError("fma")}
SUMS = ("_twosum_f64", "_two_sum")


# ---- TwoSum ----


@pytest.mark.parametrize("name", SUMS)
def test_two_sum_is_six_operations(runtime, recorded, name):
    recorder = recorded(TWO_SUM)
    pair = getattr(runtime, name)(recorder.spy("a"), recorder.spy("b"))
    recorder.check()
    assert type(pair) is tuple and repr(pair) == "(<s>, <e>)"


@pytest.mark.parametrize("name", SUMS)
def test_operands_of_two_sum_go_by_keyword_too(runtime, recorded, name):
    recorder = recorded(TWO_SUM)
    getattr(runtime, name)(b=recorder.spy("b"), a=recorder.spy("a"))
    recorder.check()


def test_the_twins_are_two_objects(runtime):
    assert runtime._twosum_f64 is not runtime._two_sum
    assert runtime._twosum_f64.__name__ == "_twosum_f64"
    assert runtime._two_sum.__name__ == "_two_sum"


@given(st.floats(), st.floats())
@example(-0.0, -0.0)
def test_the_twins_answer_alike(module, a, b):
    pairs = [getattr(module, name)(a, b) for name in SUMS]
    shown = [[bits(part) for part in pair] for pair in pairs]
    assert shown[0] == shown[1]


@pytest.mark.parametrize("name, other", [SUMS, SUMS[::-1]])
def test_replacing_one_twin_leaves_the_other(runtime, monkeypatch, name, other):
    monkeypatch.setattr(runtime, name, None)
    assert getattr(runtime, other)(1e16, 1.0) == (1e16, 1.0)


MODERATE = st.floats(-(2.0**1000), 2.0**1000)


@pytest.mark.parametrize("name", SUMS)
@given(a=MODERATE, b=MODERATE)
@example(a=5e-324, b=1.0)
def test_two_sum_is_exact(module, name, a, b):
    s, e = getattr(module, name)(tensor([a]), tensor([b]))
    assert s.item() == a + b
    assert Fraction(s.item()) + Fraction(e.item()) == Fraction(a) + Fraction(b)


@pytest.mark.parametrize("name", SUMS)
def test_two_sum_of_floats(runtime, name):
    assert getattr(runtime, name)(1e16, 1.0) == (1e16, 1.0)
    s, e = getattr(runtime, name)(math.inf, 1.0)
    assert s == math.inf and math.isnan(e)


@pytest.mark.parametrize("name", SUMS)
def test_two_sum_of_tensors_broadcasts_and_promotes(runtime, name):
    s, e = getattr(runtime, name)(tensor([[1e16], [1.0]]), tensor([1.0, 2.0, 3.0]))
    assert s.shape == e.shape == (2, 3) and e[0, 0].item() == 1.0
    s, e = getattr(runtime, name)(tensor([1.0], torch.float32), tensor([2**-60]))
    assert s.dtype == e.dtype == torch.float64 and e.item() == 2**-60
    s, e = getattr(runtime, name)(torch.tensor([1.0]), torch.tensor([2.0]))
    assert s.dtype == torch.float32 and s.device.type == "cpu"


@pytest.mark.parametrize("name", SUMS)
def test_two_sum_returns_new_objects_and_changes_none(runtime, name):
    a, b = tensor([1.0]), tensor([0.0])
    s, e = getattr(runtime, name)(a, b)
    s += 1.0
    e += 1.0
    assert (a.item(), b.item()) == (1.0, 0.0)


# ---- TwoProduct ----


def test_torch_is_asked_for_fma_at_every_call(runtime, recorded):
    """The attribute comes and goes between calls, and each call takes the path of its moment."""
    for script in [SPLIT, WITH_FMA, SPLIT, SPLIT, WITH_FMA]:
        recorder = recorded(script, raises=NO_FMA if script is SPLIT else None)
        pair = runtime._two_product(recorder.spy("a"), recorder.spy("b"))
        recorder.check()
        assert type(pair) is tuple and repr(pair) == "(<p>, <e>)"


def exact_fma(a, b, c):
    """a * b + c on one element with one rounding, infinities as the hardware has them."""
    a, b, c = (float(x) for x in (a, b, c))
    if not math.isfinite(a * b):
        return torch.tensor([c if math.isfinite(a) and math.isfinite(b) else math.nan])
    return torch.tensor([float(Fraction(a) * Fraction(b) + Fraction(c))], dtype=torch.float64)


@pytest.fixture(params=["fma", "split"])
def product_path(request, monkeypatch):
    """Gives torch an fma of its own, or takes it away."""
    if request.param == "fma":
        monkeypatch.setattr(torch, "fma", exact_fma, raising=False)
    else:
        monkeypatch.delattr(torch, "fma", raising=False)
    return request.param


def test_product_that_needs_all_its_bits(runtime, product_path):
    p, e = runtime._two_product(tensor([134217729.0]), tensor([134217729.0]))
    assert (p.item(), e.item()) == (2.0**54 + 2.0**28, 1.0)


def test_product_that_overflows(runtime, product_path):
    p, e = runtime._two_product(tensor([1e200]), tensor([1e200]))
    assert p.item() == math.inf
    assert e.item() == -math.inf if product_path == "fma" else math.isnan(e.item())


def test_split_overflows_before_the_product_does(runtime, product_path):
    p, e = runtime._two_product(tensor([1.4e300]), tensor([0.5]))
    assert p.item() == 0.7e300
    assert e.item() == 0.0 if product_path == "fma" else math.isnan(e.item())


FACTOR = st.builds(math.ldexp, st.integers(-(2**53) + 1, 2**53 - 1), st.integers(-400, 300))


@given(FACTOR, FACTOR)
def test_product_is_exact_on_the_split_path(module, a, b):
    with pytest.MonkeyPatch.context() as patch:
        patch.delattr(torch, "fma", raising=False)
        p, e = module._two_product(tensor([a]), tensor([b]))
    assert p.item() == a * b
    assert Fraction(p.item()) + Fraction(e.item()) == Fraction(a) * Fraction(b)


# ---- the compensated sum ----


def test_sum_of_no_terms_has_defaults_of_torch(runtime):
    s, e = runtime._compensated_sum([])
    assert s is not e and (s.item(), e.item()) == (0.0, 0.0)
    assert s.shape == e.shape == ()
    assert s.dtype == e.dtype == torch.get_default_dtype()
    assert s.device == e.device == torch.tensor(0.0).device


def test_sum_of_one_term_is_a_clone_and_zeros(runtime):
    term = tensor([[1.0, -0.0]], torch.float32)
    s, e = runtime._compensated_sum([term])
    assert s is not term and s.data_ptr() != term.data_ptr() and torch.equal(s, term)
    assert e.shape == term.shape and e.dtype == term.dtype and e.device == term.device
    assert e.tolist() == [[0.0, 0.0]]


def test_lost_term_lies_in_the_error(runtime):
    s, e = runtime._compensated_sum([tensor([1e16]), tensor([1.0]), tensor([-1e16])])
    assert (s.item(), e.item()) == (0.0, 1.0)


def test_errors_are_added_with_their_own_errors_dropped(runtime):
    """Three lost terms whose own sum does not fit one double."""
    terms = [2.0**200, 2.0**100, 1.0, -(2.0**200), -(2.0**100)]
    s, e = runtime._compensated_sum([tensor([t]) for t in terms])
    assert (s.item(), e.item()) == (-(2.0**100), 2.0**100)


@pytest.mark.parametrize("terms", [(torch.ones(1),), None, "text", {}, torch.ones(2)])
def test_terms_must_be_a_list(runtime, terms):
    name = "Tensor" if isinstance(terms, torch.Tensor) else type(terms).__name__
    with pytest.raises(TypeError) as caught:
        runtime._compensated_sum(terms)
    text = f"Argument 'terms' has incorrect type (expected list, got {name})"
    assert caught.value.args == (text,)


def test_subclass_of_list_is_refused(runtime):
    class Terms(list):
        pass

    with pytest.raises(TypeError, match=r"\(expected list, got Terms\)"):
        runtime._compensated_sum(Terms([torch.ones(1)]))


def test_element_without_clone(runtime):
    with pytest.raises(AttributeError, match="clone"):
        runtime._compensated_sum([1.0])
