# SPDX-License-Identifier: Apache-2.0
"""tqx_mul and tqx_div: one route for every operand, and two limbs whenever limbs came in."""

import math
from fractions import Fraction

import pytest
import torch
from device import tensor
from hypothesis import example, given
from hypothesis import strategies as st

from korvex_tools.references.exact_arithmetic import bits, round_to_double
from korvex_tools.references.exact_pairs import product_pair, quotient_pair

NAMES = ("tqx_mul", "tqx_div")
TORCH = {"tqx_mul": torch.mul, "tqx_div": torch.div}
PAIR = {"tqx_mul": product_pair, "tqx_div": quotient_pair}
both = pytest.mark.parametrize("name", NAMES)
either_form = pytest.mark.parametrize("return_tqx", [False, True])


@pytest.fixture
def call(runtime):
    return lambda name, *args, **kwargs: getattr(runtime, name)(*args, **kwargs)


def limbs(runtime, *values):
    return runtime.TQXResult([tensor(value) for value in values], "cuda:0")


def value_of(result):
    return result.limbs[0] if hasattr(result, "limbs") else result


@both
@either_form
def test_every_call_is_one_launch(module, launches, name, return_tqx):
    function = getattr(module, name)
    result = limbs(module, [1.0], [2.0**-60])
    for operands in ((tensor([1.0]), tensor([2.0])), (result, result), (result, tensor([1.0]))):
        launches.clear()
        function(*operands, return_tqx)
        assert launches == [f"{name}_kernel"]


@both
@either_form
@pytest.mark.parametrize(
    "x_shape, y_shape, shape",
    [
        ((), (), ()),
        ((), (3,), (3,)),
        ((3,), (), (3,)),
        ((3, 1), (4,), (3, 4)),
        ((2, 1, 3), (5, 1), (2, 5, 3)),
        ((1,), (0,), (0,)),
        ((0,), (0,), (0,)),
    ],
)
def test_shapes_are_broadcast(call, name, x_shape, y_shape, shape, return_tqx):
    x = torch.arange(1.0, 1.0 + math.prod(x_shape), dtype=torch.float64).reshape(x_shape) / 7
    y = torch.arange(1.0, 1.0 + math.prod(y_shape), dtype=torch.float64).reshape(y_shape) / 9
    result = call(name, x.to("cuda"), y.to("cuda"), return_tqx)
    assert tuple(result.shape) == tuple(value_of(result).shape) == shape
    assert value_of(result).tolist() == TORCH[name](x, y).tolist()
    if return_tqx:
        assert [tuple(limb.shape) for limb in result.limbs] == [shape, shape]


@both
@either_form
def test_operands_that_are_not_contiguous(call, name, return_tqx):
    x = torch.arange(12.0, dtype=torch.float64).reshape(3, 4) / 7
    y = (1 + torch.arange(24.0, dtype=torch.float64)).reshape(4, 6)[:, ::2] / 9
    result = call(name, x.to("cuda").t(), y.to("cuda"), return_tqx)
    assert value_of(result).tolist() == TORCH[name](x.t(), y).tolist()


@both
@either_form
@pytest.mark.parametrize(
    "dtype", [torch.float32, torch.float16, torch.int64, torch.int8, torch.uint8, torch.bool]
)
def test_other_real_types_are_widened_first(call, name, dtype, return_tqx):
    x, y = torch.tensor([1, 0, 1]).to(dtype), torch.tensor([0.1, 3.0, 7.0])
    result = call(name, x.to("cuda"), y.to("cuda"), return_tqx)
    assert value_of(result).dtype == torch.float64
    assert value_of(result).tolist() == TORCH[name](x.double(), y.double()).tolist()


@both
@either_form
@pytest.mark.filterwarnings("ignore:Casting complex values to real")
def test_complex_operand_is_what_double_makes_of_it(call, name, return_tqx):
    """torch drops the imaginary part, and warns of it once in a process."""
    result = call(name, torch.tensor([3 + 2j], device="cuda"), tensor([7.0]), return_tqx)
    assert value_of(result).tolist() == TORCH[name](tensor([3.0]), tensor([7.0])).tolist()


@both
@either_form
@pytest.mark.parametrize("number", [2.0, 2, True, None, "2", [2.0]])
def test_numbers_are_not_taken(runtime, call, name, number, return_tqx):
    for operand in (tensor([1.0]), limbs(runtime, [1.0]), number):
        for operands in ((operand, number), (number, operand)):
            with pytest.raises(AttributeError, match="'double'"):
                call(name, *operands, return_tqx)


@both
def test_verified_result_is_not_taken(runtime, call, name):
    with pytest.raises(AttributeError, match="'double'"):
        call(name, runtime.TQXVerifiedResult(torch.ones(1), "text"), tensor([1.0]))


@both
def test_limb_operand_gives_limbs_whatever_the_flag(runtime, call, name):
    result = limbs(runtime, [3.0], [2.0**-60])
    for operands in ((result, tensor([7.0])), (tensor([7.0]), result), (result, result)):
        for return_tqx in (False, True):
            made = call(name, *operands, return_tqx)
            assert isinstance(made, runtime.TQXResult) and made.n_limbs == 2
            assert made.device == "cuda:0"


@both
def test_lower_limbs_of_an_operand_are_collapsed_away(runtime, call, name):
    x, y = limbs(runtime, [3.0], [2.0**-60]), tensor([7.0])
    expected = call(name, tensor([3.0]), y, return_tqx=True)
    made = call(name, x, y, return_tqx=True)
    assert [limb.tolist() for limb in made.limbs] == [limb.tolist() for limb in expected.limbs]


def test_device_is_that_of_the_first_operand_after_collapse(runtime, call):
    named = limbs(runtime, [1.0])
    named.device = "of the result"
    assert call("tqx_mul", named, tensor([1.0])).device == "cuda:0"


@both
def test_operands_are_not_changed(runtime, call, name):
    x, y = tensor([3.0]), tensor([7.0])
    result = runtime.TQXResult([x, y], "cuda:0")
    for return_tqx in (False, True):
        call(name, x, y, return_tqx)
        call(name, x, x, return_tqx)
        call(name, result, y, return_tqx)
    assert (x.tolist(), y.tolist(), len(result.limbs)) == ([3.0], [7.0], 2)


@both
def test_shapes_that_do_not_broadcast(call, name):
    with pytest.raises(RuntimeError, match="(?i)match|broadcast"):
        call(name, tensor([1.0, 2.0]), tensor([1.0, 2.0, 3.0]))


@both
def test_host_tensor_fails_where_arrays_are_made(call, name):
    for operands in (
        (torch.tensor([1.0]), torch.tensor([2.0])),
        (tensor([1.0]), torch.tensor([2.0])),
    ):
        with pytest.raises(Exception, match="(?i)device|cuda|cpu"):
            call(name, *operands)


# ---- values ----

SPECIAL_QUOTIENTS = [
    # x, y, value, error
    (1.0, 0.0, math.inf, 0.0),
    (1.0, -0.0, -math.inf, 0.0),
    (-1.0, 0.0, -math.inf, 0.0),
    (0.0, 0.0, math.nan, 0.0),
    (0.0, -5.0, -0.0, 0.0),
    (math.inf, math.inf, math.nan, 0.0),
    (math.inf, -2.0, -math.inf, 0.0),
    (2.0, -math.inf, -0.0, 0.0),
    (math.nan, 1.0, math.nan, 0.0),
    (1.0, math.nan, math.nan, 0.0),
    (1e308, 1e-308, math.inf, 0.0),
    (5e-324, 2.0, 0.0, 0.0),
    (1.0, 3.0, 1 / 3, 2.0**-54 / 3),
    (2.0**-1000, 3 * 2.0**-971, 2.0**-29 / 3, 2.0**-83 / 3),
]
SPECIAL_PRODUCTS = [
    (1e200, 1e200, math.inf, 0.0),
    (math.inf, 0.0, math.nan, 0.0),
    (math.inf, -1.0, -math.inf, 0.0),
    (math.nan, 0.0, math.nan, 0.0),
    (0.0, -3.0, -0.0, 0.0),
    (5e-324, 0.25, 0.0, 0.0),
    (134217729.0, 134217729.0, 2.0**54 + 2.0**28, 1.0),
]


@pytest.mark.parametrize(
    "name, x, y, value, error",
    [("tqx_div", *row) for row in SPECIAL_QUOTIENTS]
    + [("tqx_mul", *row) for row in SPECIAL_PRODUCTS],
)
def test_special_values(call, name, x, y, value, error):
    made = call(name, tensor([x]), tensor([y]), return_tqx=True)
    got = [bits(limb.item()) for limb in made.limbs]
    assert got == [0x7FF8000000000000 if math.isnan(value) else bits(value), bits(error)]
    collapsed = call(name, tensor([x]), tensor([y])).item()
    assert collapsed == value or math.isnan(value) and math.isnan(collapsed)


FACTOR = st.builds(math.ldexp, st.integers(-(2**53) + 1, 2**53 - 1), st.integers(-480, 450))


@given(st.lists(st.tuples(FACTOR, FACTOR), min_size=1, max_size=30))
def test_product_is_exact_while_the_error_is_a_double(module, pairs):
    x, y = zip(*pairs, strict=True)
    made = module.tqx_mul(tensor(x), tensor(y), return_tqx=True)
    for i, (a, b) in enumerate(pairs):
        assert sum(Fraction(limb[i].item()) for limb in made.limbs) == Fraction(a) * Fraction(b)


FINITE = st.floats(allow_nan=False, allow_infinity=False)


@both
@given(pairs=st.lists(st.tuples(FINITE, FINITE.filter(bool)), min_size=1, max_size=30))
@example(pairs=[(5e-324, 3e-300), (2.0**-1000, 3.0 * 2.0**-30), (2.0**-1022, 1.5)])
def test_error_is_the_rounded_rest(module, name, pairs):
    x, y = zip(*pairs, strict=True)
    made = getattr(module, name)(tensor(x), tensor(y), return_tqx=True)
    rounded = getattr(module, name)(tensor(x), tensor(y))
    for i, (a, b) in enumerate(pairs):
        exact = Fraction(a) * Fraction(b) if name == "tqx_mul" else Fraction(a) / Fraction(b)
        value, error = (limb[i].item() for limb in made.limbs)
        assert abs(value) == abs(round_to_double(exact)) and value == rounded[i].item()
        if math.isfinite(value):
            assert bits(error) == bits(round_to_double(exact - Fraction(value)))
        else:
            assert bits(error) == 0


@both
@given(pairs=st.lists(st.tuples(st.floats(), st.floats()), min_size=1, max_size=30))
def test_any_operands_give_the_expected_pair(module, name, pairs):
    x, y = zip(*pairs, strict=True)
    made = getattr(module, name)(tensor(x), tensor(y), return_tqx=True)
    for i, (a, b) in enumerate(pairs):
        expected = [0x7FF8000000000000 if math.isnan(v) else bits(v) for v in PAIR[name](a, b)]
        assert [bits(limb[i].item()) for limb in made.limbs] == expected


@both
def test_doc_string(module, name):
    word, form = {
        "tqx_mul": ("multiplication", "scalar * vector"),
        "tqx_div": ("division", "scalar / vector"),
    }[name]
    lines = [line.strip() for line in getattr(module, name).__doc__.strip().splitlines()]
    assert lines[0] == f"TQX exact {word} using native CUDA kernel."
    assert lines[-1] == f"Supports broadcasting ({form}, etc.)."
