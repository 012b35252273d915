# SPDX-License-Identifier: Apache-2.0
"""What the series functions give: documented values, special values, kinds of operands.

The values at the defaults are those of the sums as they are, truncated where they are truncated:
they are compared to the digits in which they are documented, not with the true function.
"""

import math
import signal
import struct

import device
import numpy
import pytest
import reference_runtime
import torch
from hypothesis import given, settings
from hypothesis import strategies as st
from operation_log import operations
from public_signatures import SERIES

INF, NAN = math.inf, math.nan
NAMES = [row.path for row in SERIES]
ONE_OPERAND = [name for name in NAMES if name != "tqx_atan2"]
WITH_TERMS = [row.path for row in SERIES if "n_terms" in row.parameters]


def value(runtime, name, *operands, **options):
    """The function of scalars, as one float."""
    result = getattr(runtime, name)(*map(device.tensor, operands), **options)
    assert result.dtype == torch.float64 and result.shape == () and result.is_cuda
    return result.item()


def bits(number):
    return struct.pack("<d", number)


def values(module, name, operands, **options):
    return getattr(module, name)(device.tensor(operands), **options).tolist()


# ---- documented values ----

TO_TEN_DIGITS = [
    ("tqx_asin", (0.5,), 0.5235987756),
    ("tqx_asin", (0.9,), 1.1197253053),
    ("tqx_asin", (1.0,), 1.4577757566),  # not pi/2
    ("tqx_asin", (-1.0,), -1.4577757566),
    ("tqx_acos", (0.5,), 1.0471975512),
    ("tqx_acos", (1.0,), 0.1130205702),
    ("tqx_acos", (-1.0,), 3.0285720834),
    ("tqx_atan", (0.5,), 0.4603442826),
    ("tqx_atan", (1.0,), 0.7247784590),
    ("tqx_atan", (2.0,), 1.1104520442),
    ("tqx_atan", (-2.0,), -1.1104520442),
    ("tqx_atan2", (1.0, 1.0), 0.7247784590),
    ("tqx_atan2", (1.0, -1.0), 2.4168141946),
    ("tqx_atan2", (-1.0, -1.0), -2.4168141946),
    ("tqx_atan2", (-1.0, 1.0), -0.7247784590),
    ("tqx_sinh", (1.0,), 1.1752011936),
    ("tqx_cosh", (1.0,), 1.5430806348),
    ("tqx_sinh", (2.0,), 3.6268604078),
    ("tqx_cosh", (2.0,), 3.7621956911),
]


@pytest.mark.parametrize("name, operands, expected", TO_TEN_DIGITS)
def test_value_to_ten_digits(runtime, name, operands, expected):
    assert round(value(runtime, name, *operands), 10) == expected


EXACT = [
    ("tqx_sin", (1.0,), 0.8414709848078965),
    ("tqx_cos", (1.0,), 0.5403023058681398),
    ("tqx_acos", (0.0,), 1.5707963267948966),
    ("tqx_atan2", (1.0, 0.0), math.pi / 2),
    ("tqx_atan2", (-1.0, 0.0), -math.pi / 2),
    ("tqx_atan2", (0.0, 0.0), 0.0),
    ("tqx_atan2", (0.0, -1.0), math.pi),
    ("tqx_atan2", (-0.0, -1.0), math.pi),  # a negative zero counts as zero
    ("tqx_atan", (INF,), math.pi / 2),
    ("tqx_atan", (-INF,), -math.pi / 2),
]


@pytest.mark.parametrize("name, operands, expected", EXACT)
def test_value_to_the_last_bit(runtime, name, operands, expected):
    assert bits(value(runtime, name, *operands)) == bits(expected)


OF_FEW_TERMS = [
    ("tqx_sin", 2, 0.8333333333333334),  # 1 - 1/6
    ("tqx_cos", 2, 0.5),
    ("tqx_atan", 2, 1 - 1 / 3),
    ("tqx_sinh", 2, 1 + 1 / 6),
    ("tqx_cosh", 2, 1.5),
]


@pytest.mark.parametrize("name, n_terms, expected", OF_FEW_TERMS)
def test_value_at_one_of_two_terms(runtime, name, n_terms, expected):
    assert value(runtime, name, 1.0, n_terms=n_terms) == expected


def test_arctangent_of_three_terms(runtime):
    assert round(value(runtime, "tqx_atan", 1.0, n_terms=3), 10) == 0.7333333333


def test_arcsine_outside_its_domain_is_the_partial_sum(runtime):
    assert value(runtime, "tqx_asin", 2.0) == pytest.approx(1.794349207e12, rel=5e-10)


def test_hyperbolic_functions_show_their_term_count_at_twenty(runtime):
    sinh, cosh = value(runtime, "tqx_sinh", 20.0), value(runtime, "tqx_cosh", 20.0)
    assert (round(sinh, 4), round(cosh, 4)) == (242574208.7054, 242565174.9335)
    assert round(math.sinh(20.0), 4) == round(math.cosh(20.0), 4) == 242582597.7049


def test_arctangent_jumps_at_magnitude_one(module):
    below, above = values(module, "tqx_atan", [math.nextafter(1, 0), math.nextafter(1, 2)])
    assert (round(below, 4), round(above, 4)) == (0.7248, 0.8460)


def test_quadrants_take_pi_from_the_quotient(module):
    """Of (1, -1) the arctangent is negative and pi is added; of (-1, -1) it is positive."""
    base = value(module, "tqx_atan", -1.0)
    assert value(module, "tqx_atan2", 1.0, -1.0) == base + math.pi
    assert value(module, "tqx_atan2", -1.0, -1.0) == -base - math.pi


# ---- number of terms ----

NO_TERMS = [
    ("tqx_sin", [0.0, 0.0]),
    ("tqx_cos", [1.0, 1.0]),
    ("tqx_asin", [0.5, -3.0]),
    ("tqx_atan", [0.5, -math.pi / 2 + 1 / 3]),
    ("tqx_sinh", [0.5, -3.0]),
    ("tqx_cosh", [1.0, 1.0]),
]


@pytest.mark.parametrize("n_terms", [0, -1, -(10**30)])
@pytest.mark.parametrize("name, expected", NO_TERMS)
def test_no_terms(runtime, name, expected, n_terms):
    assert values(runtime, name, [0.5, -3.0], n_terms=n_terms) == expected


@pytest.mark.parametrize("name, expected", [row for row in NO_TERMS if row[0] != "tqx_sin"])
def test_one_term_is_as_none(runtime, name, expected):
    assert values(runtime, name, [0.5, -3.0], n_terms=1) == expected


def test_sine_of_one_term_is_the_reduced_argument(runtime):
    reduced = values(runtime, "tqx_sin", [0.5, -3.0, 7.0], n_terms=1)
    expected = [numpy.remainder(x, 2 * math.pi) for x in (0.5, -3.0, 7.0)]
    assert reduced == [x - 2 * math.pi if x > math.pi else x for x in expected]


class Interrupted(Exception):
    pass


def test_long_series_can_be_interrupted(module):
    def interrupt(signal_number, frame):
        raise Interrupted

    previous = signal.signal(signal.SIGALRM, interrupt)
    signal.setitimer(signal.ITIMER_REAL, 0.05)
    try:
        with pytest.raises(Interrupted):
            module.tqx_cosh(device.tensor([0.5]), 10**30)
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, previous)


# ---- reduction ----


def test_reduced_argument_has_the_same_sine(module):
    assert value(module, "tqx_sin", 7.0) == value(module, "tqx_sin", 7.0 - 2 * math.pi)


def test_tiny_negative_argument_is_reduced_to_zero(runtime):
    assert bits(value(runtime, "tqx_sin", -1e-20)) == bits(0.0)
    assert bits(value(runtime, "tqx_sin", 1e-20)) == bits(1e-20)


def test_pi_is_not_reduced(runtime):
    assert value(runtime, "tqx_sin", math.pi, n_terms=1) == math.pi
    assert value(runtime, "tqx_sin", math.nextafter(math.pi, 4), n_terms=1) < 0


# ---- special values ----


@pytest.mark.parametrize("special", [NAN, INF, -INF])
@pytest.mark.parametrize("name", ["tqx_sin", "tqx_cos", "tqx_tan"])
def test_circular_functions_of_what_is_not_finite(runtime, name, special):
    alone, beside = values(runtime, name, [special, 0.5])
    assert math.isnan(alone) and not math.isnan(beside)


@pytest.mark.parametrize("name", ["tqx_asin", "tqx_acos", "tqx_atan", "tqx_sinh", "tqx_cosh"])
def test_nan_stays_in_its_element(runtime, name):
    alone, beside = values(runtime, name, [NAN, 0.5])
    assert math.isnan(alone) and not math.isnan(beside)


@pytest.mark.parametrize("y, x", [(NAN, 1.0), (1.0, NAN), (NAN, -1.0), (-1.0, NAN), (NAN, NAN)])
def test_atan2_of_nan(runtime, y, x):
    assert math.isnan(value(runtime, "tqx_atan2", y, x))


@pytest.mark.parametrize("x", [1e150, 1e200, -1e200])
@pytest.mark.parametrize("name", ["tqx_sinh", "tqx_cosh"])
def test_term_that_overflows_gives_nan(runtime, name, x):
    assert math.isnan(value(runtime, name, x))


@pytest.mark.parametrize("name", ["tqx_asin", "tqx_atan", "tqx_sinh"])
def test_zero_of_either_sign_gives_positive_zero(runtime, name):
    assert [bits(v) for v in values(runtime, name, [0.0, -0.0])] == [bits(0.0)] * 2


def test_tangent_divides_without_a_guard(module, monkeypatch):
    monkeypatch.setattr(module, "tqx_cos", lambda x: device.tensor([0.0, -0.0]))
    assert values(module, "tqx_tan", [1.0, 1.0]) == [INF, -INF]


@settings(max_examples=30)
@given(st.lists(st.floats(-700.0, 700.0), min_size=1, max_size=40))
def test_hyperbolic_functions_are_odd_and_even_to_the_last_bit(module, numbers):
    x = device.tensor(numbers)
    for name, sign in (("tqx_sinh", -1.0), ("tqx_cosh", 1.0)):
        function = getattr(module, name)
        assert function(-x).tolist() == (sign * function(x)).tolist()


# ---- kinds of operands ----


def host_bits(tensor):
    return str(tensor.dtype), tuple(tensor.shape), tensor.cpu().contiguous().numpy().tobytes()


KINDS = {
    "float64": lambda: device.tensor([[0.25, -0.5], [0.75, 1.0]]),
    "float32": lambda: device.tensor([0.1, -0.7], torch.float32),
    "float16": lambda: device.tensor([0.1, -0.7], torch.float16),
    "integer": lambda: device.tensor([0, 1, -1, 3], torch.int64),
    "bool": lambda: device.tensor([True, False], torch.bool),
    "scalar": lambda: device.tensor(0.5),
    "empty": lambda: device.tensor([]),
    "empty matrix": lambda: device.tensor([]).view(3, 0),
    "transposed": lambda: device.tensor([[0.25, -0.5], [0.75, 1.0]]).t(),
}


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("name", NAMES)
def test_operand_of_any_kind_gives_float64_of_its_shape(module, name, kind):
    operands = [KINDS[kind]() for _ in range(2 if name == "tqx_atan2" else 1)]
    before = [host_bits(operand) for operand in operands]
    result = getattr(module, name)(*operands)
    assert result.dtype == torch.float64 and result.shape == operands[0].shape
    assert [host_bits(operand) for operand in operands] == before
    widened = getattr(module, name)(*[operand.double() for operand in operands])
    assert host_bits(result) == host_bits(widened)


@pytest.fixture
def same_globals(module, monkeypatch):
    for name in ("torch", "cp", "_NATIVE_LOADER"):
        monkeypatch.setattr(reference_runtime, name, getattr(module, name))


def fused(a, b, c):
    """In the place of torch.fma: the series read nothing of what it returns."""
    return torch.addcmul(c, a, b)


@pytest.fixture(params=["fma", "split"])
def way_of_two_product(request, monkeypatch):
    """torch with its fma, or with one in its place, and torch without."""
    if request.param == "split":
        monkeypatch.delattr(torch, "fma", raising=False)
    elif not hasattr(torch, "fma"):
        monkeypatch.setattr(torch, "fma", fused, raising=False)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("name", NAMES)
def test_operations_are_those_of_plain_python(module, same_globals, way_of_two_product, name, kind):
    operands = [KINDS[kind]() for _ in range(2 if name == "tqx_atan2" else 1)]
    assert_equal_operations(module, name, *operands)


@pytest.mark.parametrize("n_terms", [0, 1, 2, 200])
@pytest.mark.parametrize("name", WITH_TERMS)
def test_operations_of_any_number_of_terms_are_those_of_plain_python(
    module, same_globals, name, n_terms
):
    assert_equal_operations(module, name, KINDS["float64"](), n_terms)


def assert_equal_operations(module, name, *arguments):
    lines, result = operations(lambda: getattr(module, name)(*arguments))
    expected_lines, expected = operations(lambda: getattr(reference_runtime, name)(*arguments))
    assert lines == expected_lines and len(lines) > 3
    assert host_bits(result) == host_bits(expected)


@pytest.mark.parametrize("name", ONE_OPERAND)
def test_limbs_are_collapsed_and_do_not_pass_through(runtime, name):
    limbs = [device.tensor([0.5, 0.25]), device.tensor([2.0**-60, 2.0**-54])]
    operand = runtime.TQXResult(limbs, "cuda:0")
    function = getattr(runtime, name)
    assert host_bits(function(operand)) == host_bits(function(operand.collapse()))


def test_atan2_takes_limbs_on_either_side(runtime):
    plain = device.tensor([0.5, -0.25])
    limbs = runtime.TQXResult([plain, torch.zeros_like(plain)], "cuda:0")
    expected = host_bits(runtime.tqx_atan2(plain, plain))
    for pair in ((limbs, plain), (plain, limbs), (limbs, limbs)):
        assert host_bits(runtime.tqx_atan2(*pair)) == expected


@pytest.mark.parametrize("name", NAMES)
def test_result_asked_for_as_limbs_has_one(runtime, name):
    operands = [KINDS["float64"]() for _ in range(2 if name == "tqx_atan2" else 1)]
    function = getattr(runtime, name)
    result = function(*operands, return_tqx=True)
    assert type(result) is runtime.TQXResult and result.n_limbs == 1
    assert result.device == "cuda:0" and result.shape == operands[0].shape
    assert host_bits(result.limbs[0]) == host_bits(function(*operands))


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("operand", [1.5, [1.0], None])
def test_operand_without_a_device_is_an_attribute_error(runtime, name, operand):
    with pytest.raises(AttributeError, match="is_cuda"):
        getattr(runtime, name)(*[operand] * (2 if name == "tqx_atan2" else 1))


@pytest.mark.parametrize("name", NAMES)
def test_operand_on_the_cpu_is_refused(runtime, name):
    operands = [torch.ones(2, dtype=torch.float64)] * (2 if name == "tqx_atan2" else 1)
    with pytest.raises(RuntimeError, match="^TQX requires CUDA tensor. Move tensor to GPU with"):
        getattr(runtime, name)(*operands)
    with pytest.raises(RuntimeError, match="^TQX requires CUDA tensor. Move tensor to GPU with"):
        getattr(runtime, name)(*[runtime.TQXResult([x], "cpu") for x in operands])


def test_atan2_refuses_a_second_operand_on_the_cpu(runtime):
    with pytest.raises(RuntimeError, match="^TQX requires CUDA tensor"):
        runtime.tqx_atan2(device.tensor([1.0]), torch.ones(1, dtype=torch.float64))


def test_atan2_broadcasts_and_passes_on_what_torch_says(runtime):
    y = device.tensor([[1.0], [2.0]])
    assert runtime.tqx_atan2(y, device.tensor([1.0, 2.0, 3.0])).shape == (2, 3)
    with pytest.raises(RuntimeError, match="size of tensor a"):
        runtime.tqx_atan2(device.tensor([1.0, 2.0]), device.tensor([1.0, 2.0, 3.0]))


@pytest.mark.parametrize("name", NAMES)
def test_value_does_not_depend_on_the_error_of_twoproduct(module, monkeypatch, name):
    operands = [device.tensor([0.1, -0.7, 0.999, 2.5])] * (2 if name == "tqx_atan2" else 1)
    monkeypatch.delattr(torch, "fma", raising=False)
    split = host_bits(getattr(module, name)(*operands))
    calls = []

    def nothing(a, b, c):
        calls.append((a, b, c))
        return c * NAN

    monkeypatch.setattr(torch, "fma", nothing, raising=False)
    assert host_bits(getattr(module, name)(*operands)) == split
    assert all(torch.equal(c, -(a * b)) for a, b, c in calls) and len(calls) >= 20
