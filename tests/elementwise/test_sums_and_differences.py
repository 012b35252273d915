# SPDX-License-Identifier: Apache-2.0
"""tqx_add and tqx_sub: what each route takes, refuses and leaves."""

import math
from fractions import Fraction

import pytest
import torch
from device import tensor
from hypothesis import example, given
from hypothesis import strategies as st

from korvex_tools.references.exact_arithmetic import LARGEST, bits, round_to_double
from korvex_tools.references.exact_pairs import six_operations

NAMES = ("tqx_add", "tqx_sub")
SIGN = {"tqx_add": 1, "tqx_sub": -1}
both = pytest.mark.parametrize("name", NAMES)


@pytest.fixture
def call(runtime):
    return lambda name, *args, **kwargs: getattr(runtime, name)(*args, **kwargs)


def limbs(runtime, *values):
    return runtime.TQXResult([tensor(value) for value in values], "cuda:0")


def shown(result):
    """Bits, shape and device of a tensor or of each limb."""
    if hasattr(result, "limbs"):
        return [shown(limb) for limb in result.limbs], result.device
    return list(map(bits, result.flatten().tolist())), tuple(result.shape), str(result.device)


# ---- the kernel route ----


@both
def test_kernel_route_is_one_launch(module, launches, name):
    getattr(module, name)(tensor([1.0]), tensor([2.0]))
    assert launches == [f"{name}_kernel"]


@both
def test_result_is_the_rounded_sum(call, name):
    """A zero loses its sign when its error, +0, is added."""
    x, y = [1e16, 0.1, -0.0, -0.0, 5e-324], [1.0, 0.2, 0.0, -0.0, 5e-324]
    result = call(name, tensor(x), tensor(y))
    expected = [a + SIGN[name] * b + 0.0 for a, b in zip(x, y, strict=True)]
    assert list(map(bits, result.tolist())) == list(map(bits, expected))
    assert result.dtype == torch.float64 and str(result.device) == "cuda:0"


def test_result_off_the_range_is_nan(call):
    """The error of an infinite sum is NaN, and value and error are added."""
    x = tensor([math.inf, 1.0, 1.7e308, -math.inf])
    y = tensor([1.0, -math.inf, 1.7e308, -math.inf])
    assert all(math.isnan(v) for v in call("tqx_add", x, y).tolist())


def test_second_operand_of_the_largest_size_can_overflow_within(call):
    """x + y is finite, and the part of y in it, (x + y) - x, is not; the other order is exact."""
    x, y = tensor([-3 * 2.0**970]), tensor([LARGEST])
    value, error = call("tqx_add", x, y, return_tqx=True).limbs
    assert value.item() == LARGEST - 2.0**971 and math.isnan(error.item())
    assert math.isnan(call("tqx_add", x, y).item())
    value, error = call("tqx_add", y, x, return_tqx=True).limbs
    assert (value.item(), error.item()) == (LARGEST - 2.0**971, -(2.0**970))
    assert call("tqx_add", y, x).item() == LARGEST - 2.0**971


BELOW_LARGEST = st.floats(-LARGEST + 2.0**971, LARGEST - 2.0**971)
NEAR_LARGEST = st.builds(lambda m: m * 2.0**970, st.integers(-(2**54) + 2, 2**54 - 2))


@both
@given(x=NEAR_LARGEST, y=st.one_of(NEAR_LARGEST, BELOW_LARGEST))
@example(x=LARGEST, y=-(2.0**970))
@example(x=-(2.0**970), y=LARGEST - 2.0**971)
def test_pair_is_exact_up_to_overflow(module, name, x, y):
    """Unless y is of the largest size, whatever x is."""
    value, error = module.tqx_add(tensor([x]), tensor([y]), return_tqx=True).limbs
    if math.isfinite(value.item()) and abs(y) < LARGEST:
        assert Fraction(value.item()) + Fraction(error.item()) == Fraction(x) + Fraction(y)


SHAPES = [
    ((), (), ()),
    ((), (3,), (3,)),
    ((3,), (), (3,)),
    ((3, 1), (4,), (3, 4)),
    ((1, 4), (3, 1), (3, 4)),
    ((2, 1, 3), (5, 1), (2, 5, 3)),
    ((1,), (0,), (0,)),
    ((0,), (0,), (0,)),
    ((2, 0), (2, 1), (2, 0)),
]


@both
@pytest.mark.parametrize("return_tqx", [False, True])
@pytest.mark.parametrize("x_shape, y_shape, shape", SHAPES)
def test_shapes_are_broadcast(call, name, x_shape, y_shape, shape, return_tqx):
    x = torch.arange(1.0, 1.0 + math.prod(x_shape), dtype=torch.float64).reshape(x_shape) / 7
    y = torch.arange(1.0, 1.0 + math.prod(y_shape), dtype=torch.float64).reshape(y_shape) / 9
    result = call(name, x.to("cuda"), y.to("cuda"), return_tqx)
    value = result.limbs[0] if return_tqx else result
    assert tuple(value.shape) == tuple(result.shape) == shape
    assert value.tolist() == (x + SIGN[name] * y).tolist()


@both
@pytest.mark.parametrize("n", [0, 1])
def test_empty_operands_reach_the_launch_with_an_empty_grid(module, monkeypatch, name, n):
    grids = []
    loader = module._NATIVE_LOADER

    class Kernel:
        def __init__(self, kernel):
            self.kernel = kernel

        def launch(self, *args, grid):
            grids.append(grid)
            return self.kernel.launch(*args, grid=grid)

    spying = type("Loader", (), {"get_kernel": lambda self, k: Kernel(loader.get_kernel(k))})
    monkeypatch.setattr(module, "_NATIVE_LOADER", spying())
    result = getattr(module, name)(tensor([0.0] * n), tensor([0.0] * n))
    assert grids == [(n, 1, 1)] and result.shape == (n,) and result.dtype == torch.float64


@both
@pytest.mark.parametrize("return_tqx", [False, True])
def test_operands_that_are_not_contiguous(call, name, return_tqx):
    x = torch.arange(12.0, dtype=torch.float64).reshape(3, 4) / 7
    y = torch.arange(24.0, dtype=torch.float64).reshape(4, 6)[:, ::2] / 9
    result = call(name, x.to("cuda").t(), y.to("cuda"), return_tqx)
    value = result.limbs[0] if return_tqx else result
    assert value.tolist() == (x.t() + SIGN[name] * y).tolist()


@both
@pytest.mark.parametrize("return_tqx", [False, True])
@pytest.mark.parametrize(
    "dtype", [torch.float32, torch.float16, torch.int64, torch.int8, torch.uint8, torch.bool]
)
def test_other_real_types_are_widened_first(call, name, dtype, return_tqx):
    x, y = torch.tensor([1, 0, 1]).to(dtype), torch.tensor([0.1, 3.0, 1.0])
    result = call(name, x.to("cuda"), y.to("cuda"), return_tqx)
    value = result.limbs[0] if return_tqx else result
    assert value.dtype == torch.float64
    assert value.tolist() == (x.double() + SIGN[name] * y.double()).tolist()


@both
def test_large_integers_are_rounded_on_the_way_in(call, name):
    x = torch.tensor([2**53 + 1], device="cuda")
    assert call(name, x, torch.tensor([0], device="cuda")).tolist() == [2.0**53]


@both
@pytest.mark.parametrize("return_tqx", [False, True])
@pytest.mark.filterwarnings("ignore:Casting complex values to real")
def test_complex_operand_is_what_double_makes_of_it(call, name, return_tqx):
    """torch drops the imaginary part, and warns of it once in a process."""
    result = call(name, torch.tensor([3 + 2j], device="cuda"), tensor([7.0]), return_tqx)
    value = result.limbs[0] if return_tqx else result
    assert value.tolist() == [3.0 + SIGN[name] * 7.0]


@both
def test_operands_are_not_changed(call, name):
    x, y = tensor([1e16]), tensor([1.0])
    for return_tqx in (False, True):
        call(name, x, y, return_tqx)
        call(name, x, x, return_tqx)
    assert (x.tolist(), y.tolist()) == ([1e16], [1.0])


# ---- Python numbers ----


@both
@pytest.mark.parametrize("number", [1.0, 2, True, None, "1"])
def test_number_in_the_kernel_route(call, name, number):
    for operands in ((number, tensor([1.0])), (tensor([1.0]), number), (number, number)):
        with pytest.raises(AttributeError, match="'double'"):
            call(name, *operands)


def test_pair_of_two_numbers(call):
    result = call("tqx_add", 1.0, 2.0, return_tqx=True)
    assert [limb.shape for limb in result.limbs] == [(), ()]
    assert [limb.item() for limb in result.limbs] == [3.0, 0.0]
    assert result.device.startswith("cuda") and result.limbs[0].is_cuda


def test_difference_of_two_numbers_keeps_the_lost_part(call):
    result = call("tqx_sub", 1e16, 1.0, return_tqx=True)
    assert Fraction(result.limbs[0].item()) + Fraction(result.limbs[1].item()) == 10**16 - 1
    assert shown(result) == shown(call("tqx_add", 1e16, -1.0, return_tqx=True))


@both
def test_number_is_broadcast_over_a_tensor(call, name):
    result = call(name, tensor([1e16, 2.0]), 1.0, return_tqx=True)
    expected = [six_operations(v, SIGN[name] * 1.0) for v in (1e16, 2.0)]
    assert list(zip(*(limb.tolist() for limb in result.limbs), strict=True)) == expected


@both
def test_number_beside_a_host_tensor_in_the_pair_route(call, name):
    """The number lives on "cuda", and torch refuses to meet the tensor there."""
    with pytest.raises(RuntimeError, match="same device"):
        call(name, torch.tensor([1.0, 2.0]), 1.0, return_tqx=True)


@both
@pytest.mark.parametrize("return_tqx", [False, True])
def test_number_beside_limbs(runtime, call, name, return_tqx):
    result = limbs(runtime, [1.0], [2.0**-60])
    for operands in ((result, 1.0), (1.0, result)):
        with pytest.raises(AttributeError, match="'double'"):
            call(name, *operands, return_tqx)


@both
@pytest.mark.parametrize("number", [None, "1", [1.0], object()])
def test_pair_of_what_torch_makes_no_scalar_of(call, name, number):
    """A list is no number, yet torch.tensor takes it."""
    if isinstance(number, list):
        assert call(name, number, tensor([1.0]), return_tqx=True).shape == (1,)
        return
    with pytest.raises((TypeError, RuntimeError, ValueError)):
        call(name, number, tensor([1.0]), return_tqx=True)


# ---- the pair route ----


@both
def test_pair_of_tensors_launches_nothing(module, launches, name):
    result = getattr(module, name)(tensor([[1e16], [1.0]]), tensor([1.0, 2.0]), return_tqx=True)
    assert launches == [] and result.n_limbs == 2 and result.shape == (2, 2)


@both
def test_pair_of_host_tensors_stays_on_the_host(call, name):
    result = call(name, torch.tensor([1.0]), torch.tensor([2.0]), return_tqx=True)
    assert result.device == "cpu" and result.limbs[0].device.type == "cpu"


@both
def test_pair_keeps_a_zero_error(call, name):
    """Unlike the sum of limb lists, which drops an error without a non-zero element."""
    assert call(name, tensor([1.0]), tensor([2.0]), return_tqx=True).limbs[1].tolist() == [0.0]


MODERATE = st.floats(-(2.0**1000), 2.0**1000)
PAIRS = st.lists(st.tuples(MODERATE, MODERATE), min_size=1, max_size=30)


@both
@given(pairs=PAIRS)
@example(pairs=[(1e16, 1.0), (5e-324, -5e-324), (1.0, 2.0**-1074)])
def test_pair_is_the_exact_result(module, name, pairs):
    x, y = zip(*pairs, strict=True)
    value, error = getattr(module, name)(tensor(x), tensor(y), return_tqx=True).limbs
    rounded = getattr(module, name)(tensor(x), tensor(y))
    for i, (a, b) in enumerate(pairs):
        exact = Fraction(a) + SIGN[name] * Fraction(b)
        assert Fraction(value[i].item()) + Fraction(error[i].item()) == exact
        assert value[i].item() == rounded[i].item() == round_to_double(exact)


@both
@given(pairs=st.lists(st.tuples(st.floats(), st.floats()), min_size=1, max_size=30))
def test_pair_and_kernel_have_the_same_operations(module, name, pairs):
    """Also where the result is infinite: the pair's own sum is the tensor result, NaN as NaN."""
    x, y = zip(*pairs, strict=True)
    pair = getattr(module, name)(tensor(x), tensor(y), return_tqx=True)
    expected = (pair.limbs[0] + pair.limbs[1]).tolist()
    result = getattr(module, name)(tensor(x), tensor(y)).tolist()
    for a, b in zip(expected, result, strict=True):
        assert bits(a) == bits(b) or (math.isnan(a) and math.isnan(b))


# ---- the limb route ----


@both
def test_limbs_launch_nothing(module, launches, name):
    result = limbs(module, [1.0], [2.0**-60])
    for operands in ((result, result), (result, tensor([1.0])), (tensor([1.0]), result)):
        getattr(module, name)(*operands)
        getattr(module, name)(*operands, return_tqx=True)
    assert launches == []


@both
def test_limbs_are_kept_or_collapsed_as_asked(runtime, call, name):
    x, y = limbs(runtime, [1.0], [2.0**-60]), limbs(runtime, [2.0**-120])
    kept = call(name, x, y, return_tqx=True)
    exact = 1 + Fraction(2) ** -60 + SIGN[name] * Fraction(2) ** -120
    assert isinstance(kept, runtime.TQXResult) and kept.device == "cuda:0"
    assert sum(Fraction(limb.item()) for limb in kept.limbs) == exact
    collapsed = call(name, x, y)
    assert isinstance(collapsed, torch.Tensor) and collapsed.tolist() == [1.0]


@both
def test_tensor_beside_limbs_is_one_limb(runtime, call, name):
    x, y = limbs(runtime, [1e16, 1.0]), tensor([1, 2], torch.int32)
    kept = call(name, x, y, return_tqx=True)
    expected = [Fraction(10**16) + SIGN[name], Fraction(1) + SIGN[name] * 2]
    assert [sum(Fraction(limb[i].item()) for limb in kept.limbs) for i in range(2)] == expected


def test_device_of_limbs_is_that_of_the_first_operand(runtime, call):
    named, other = limbs(runtime, [1.0]), limbs(runtime, [2.0])
    named.device, other.device = "first", "second"
    assert call("tqx_add", named, other, return_tqx=True).device == "first"
    assert call("tqx_add", tensor([1.0]), other, return_tqx=True).device == "cuda:0"


@both
def test_limbs_beside_what_cannot_be_widened(runtime, call, name):
    verified = runtime.TQXVerifiedResult(torch.ones(1), "text")
    for other in (verified, None, [1.0], {}):
        with pytest.raises(AttributeError, match="'double'"):
            call(name, limbs(runtime, [1.0]), other)


@both
def test_shapes_that_do_not_broadcast(runtime, call, name):
    x, y = tensor([1.0, 2.0]), tensor([1.0, 2.0, 3.0])
    for return_tqx in (False, True):
        with pytest.raises(RuntimeError, match="(?i)match|broadcast"):
            call(name, x, y, return_tqx)
        with pytest.raises(RuntimeError, match="must match the size"):
            call(name, limbs(runtime, [1.0, 2.0]), y, return_tqx)


@both
def test_host_tensor_in_the_kernel_route_fails_where_arrays_are_made(call, name):
    with pytest.raises(Exception, match="(?i)device|cuda|cpu"):
        call(name, torch.tensor([1.0]), torch.tensor([2.0]))
    with pytest.raises(Exception, match="(?i)device|cuda|cpu"):
        call(name, tensor([1.0]), torch.tensor([2.0]))


# ---- chains ----


def test_chain_keeps_what_float_sums_lose(runtime, call):
    total = limbs(runtime, [0.0])
    for value in (2.0**100, 1.0, 2.0**-100, -(2.0**100), -1.0):
        total = call("tqx_add", total, tensor([value]), return_tqx=True)
    assert float(total) == 2.0**-100


def test_sums_of_limbs_are_exact_until_a_fifth_is_needed(runtime, call):
    """2^0 + 2^-60 + ... : four limbs hold four of them, and the fifth is dropped."""
    total = limbs(runtime, [1.0])
    for step in range(1, 6):
        total = call("tqx_add", total, tensor([2.0 ** (-60 * step)]), return_tqx=True)
        held = sum(Fraction(limb.item()) for limb in total.limbs)
        assert held == sum(Fraction(2) ** (-60 * i) for i in range(min(step, 3) + 1))
        assert total.n_limbs == min(step + 1, 4)


DOC_LINES = [
    "Accepts tensors or TQXResult. Propagates TQX precision through chains.",
    "When inputs are TQXResult or return_tqx=True, preserves ALL limbs",
    "for maximum precision in chained operations.",
    "Uses FP64 TwoSum throughout to avoid FP32 precision loss.",
]


@both
def test_doc_string(module, name):
    word = {"tqx_add": "addition", "tqx_sub": "subtraction"}[name]
    lines = [line.strip() for line in getattr(module, name).__doc__.strip().splitlines()]
    assert lines == [f"TQX exact {word} using TwoSum.", *DOC_LINES]
