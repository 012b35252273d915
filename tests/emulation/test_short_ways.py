# SPDX-License-Identifier: Apache-2.0
"""The short ways of operations leave what their rules leave, and pass on what is not for them."""

import gc
import math
import operator
import sys
import weakref

import device
import numpy as np
import pytest
import torch

import korvex.emulation
from korvex.emulation import _dispatch, _native, _tensor

if not device.choose().emulated:
    pytest.skip("how the emulated device works", allow_module_level=True)

INF, NAN = math.inf, math.nan
TYPES = {torch.float64: np.float64, torch.float32: np.float32}
DIVIDENDS = [0.0, -0.0, 1.0, -3.0, 0.1, 1e30, -1e-40, 5e-324, 1e-310, 1.7e308, INF, -INF, NAN]
DIVISORS = [0, 0.0, -0.0, 1, -7, 3.0, 0.1, 5e-324, -1e-310, 1e-40, -(2.0**-126), 1e39, 1.7e308, INF]
DIVISORS += [-INF, NAN, 2**53 + 1, 2**24 + 2**54 + 1, 2**63 - 1, -(2**63), True, False]
DIVISIONS = {
    "operator": lambda x, n: x / n,
    "function": lambda x, n: torch.div(x, n),
    "out": lambda x, n: torch.div(x, n, out=torch.empty_like(x)),
    "in place": lambda x, n: operator.itruediv(x.clone(), n),
}


def bits(values):
    """Of each number as a double; every NaN counts as one."""
    return [None if math.isnan(v) else np.float64(v).tobytes() for v in values]


def short_way_of(function, *operands):
    """What the short way of an operation answers, met before so that it is there."""
    _dispatch.rule_of(function)
    with _dispatch.as_host():
        return _dispatch.SHORT_WAYS[function](*operands)


# --- Division by a number


@pytest.mark.parametrize("divisor", DIVISORS, ids=repr)
@pytest.mark.parametrize("divide", DIVISIONS.values(), ids=DIVISIONS)
@pytest.mark.parametrize("dtype", TYPES, ids=str)
def test_quotients_of_edge_values(dtype, divide, divisor):
    number = TYPES[dtype]
    with np.errstate(all="ignore"):
        dividends = np.array(DIVIDENDS).astype(number)
        converted = number(np.int64(divisor)) if type(divisor) is int else number(divisor)
        expected = dividends * (number(1) / converted)
    for _ in range(2):  # the first of all goes the whole way
        result = divide(device.tensor(DIVIDENDS, dtype), divisor)
        assert result.dtype == dtype and result.is_cuda
        assert bits(result.tolist()) == bits(expected.tolist())


@pytest.mark.parametrize("divisor", [2**63, -(2**70), 10**400], ids=["63", "70", "beyond"])
def test_integer_beyond_64_bits_is_refused_each_time(divisor):
    for _ in range(2):
        with pytest.raises((ValueError, OverflowError)):
            device.tensor([1.0]) / divisor


def test_division_of_two_types_takes_the_short_way():
    for dtype in TYPES:
        assert short_way_of(torch.div, device.tensor([1.0], dtype), 3).tolist() == pytest.approx(
            [1 / 3]
        )
        assert torch.is_tensor(short_way_of(torch.Tensor.div_, device.tensor([1.0], dtype), 3.0))


@pytest.mark.parametrize("divisor", [True, 1j, 2**63, None, "3"], ids=repr)
def test_other_divisors_go_the_whole_way(divisor):
    assert short_way_of(torch.div, device.tensor([1.0]), divisor) is NotImplemented


@pytest.mark.parametrize("dtype", [torch.float16, torch.bfloat16, torch.int64, torch.complex128])
def test_other_types_go_the_whole_way(dtype):
    x = device.tensor([1, 2], dtype)
    assert short_way_of(torch.div, x, 3) is NotImplemented
    assert short_way_of(torch.sqrt, x) is NotImplemented


@pytest.mark.parametrize("dtype", TYPES, ids=str)
def test_gradients_pass_through_the_division(dtype):
    x = device.tensor([1.0, -5.0], dtype).requires_grad_()
    reciprocal = float(TYPES[dtype](1) / TYPES[dtype](0.1))
    (x / 0.1).sum().backward()
    assert x.grad.is_cuda and x.grad.dtype == dtype and x.grad.tolist() == [reciprocal] * 2
    y = x * 1
    y /= 0.1
    [gradient] = torch.autograd.grad(y.sum(), x)
    assert gradient.is_cuda and gradient.tolist() == [reciprocal] * 2


def test_quotient_without_gradient_has_no_graph():
    assert (device.tensor([1.0]) / 3).grad_fn is None
    x = device.tensor([1.0]).requires_grad_()
    with torch.no_grad():
        assert not (x / 3).requires_grad


def test_division_in_place_is_refused_where_torch_refuses_it():
    x = device.tensor([1.0]).requires_grad_()
    for _ in range(2):
        with pytest.raises(RuntimeError, match="a leaf Variable that requires grad"):
            x /= 3
        with pytest.raises(RuntimeError, match="more than one element of the written-to tensor"):
            device.tensor([1.0]).expand(3).div_(3)
        with pytest.raises(TypeError, match="out"):
            device.tensor([1.0]).div_(3, out=device.tensor([1.0]))


def test_quotient_goes_into_a_tensor_of_another_type():
    for _ in range(2):
        wide = torch.empty(1, dtype=torch.float64, device="cuda")
        assert torch.div(device.tensor([1.0], torch.float32), 3, out=wide) is wide
        assert wide.item() == float(np.float32(1) / np.float32(3))
        with pytest.raises(RuntimeError, match="can't be cast to the desired output type Long"):
            torch.div(device.tensor([1.0]), 3, out=wide.long())
        with pytest.raises(RuntimeError, match="at least two devices"):
            torch.div(device.tensor([1.0]), 3, out=torch.empty(1, dtype=torch.float64))


def test_default_type_does_not_matter_to_floating_point_dividends():
    torch.set_default_dtype(torch.float64)
    try:
        assert (device.tensor([1.0], torch.float32) / 0.1).dtype == torch.float32
    finally:
        torch.set_default_dtype(torch.float32)


# --- Square roots


@pytest.mark.parametrize("count", [0, 1, 3, 9_999, 10_001])
def test_roots_of_any_number_of_elements(count):
    numbers = [float(i) for i in range(count)]
    for take in (torch.sqrt, lambda x: x**0.5, lambda x: x.clone().sqrt_()):
        assert take(device.tensor(numbers)).tolist() == [math.sqrt(x) for x in numbers]


def test_roots_of_a_number_and_of_a_table():
    assert device.tensor(29.0).sqrt().shape == ()
    table = device.tensor([[1.0, 29.0], [3.0, 4.0]])
    expected = [[1.0, math.sqrt(29)], [math.sqrt(3), 2.0]]
    for root in (table.sqrt(), table.t().sqrt().t(), torch.sqrt(input=table)):
        assert root.tolist() == expected


def test_root_of_an_element_with_the_sign_set_apart():
    x = torch.complex(device.tensor([1.0]), device.tensor([-29.0])).conj().imag
    assert x.is_neg() and x.is_contiguous()
    assert short_way_of(torch.sqrt, x) is NotImplemented
    assert x.sqrt().item() == math.sqrt(29.0)


def test_other_powers_are_those_of_torch():
    x = device.tensor([2.0, 3.0])
    assert (x**2).tolist() == [4.0, 9.0] and (x**True).tolist() == [2.0, 3.0]
    assert (x**x).tolist() == (x.cpu() ** x.cpu()).tolist()
    assert (2.0**x).tolist() == [4.0, 8.0]
    assert torch.pow(0.5, device.tensor([0.5])).item() == 0.5**0.5


def test_root_of_too_many_operands_is_refused():
    for _ in range(2):
        with pytest.raises(TypeError):
            device.tensor([4.0]).sqrt(0.5)


# --- Remainders


@pytest.mark.parametrize("dtype", TYPES, ids=str)
def test_remainders_take_the_short_way_with_the_bits_of_the_rule(dtype):
    x = device.tensor(DIVIDENDS, dtype)
    numbers = [each for each in DIVISORS if type(each) is float or abs(each) <= 2**53]
    for n in [*numbers, *(device.tensor([y] * len(DIVIDENDS), dtype) for y in (3.0, -0.1, 0.0))]:
        for operation in (torch.fmod, torch.remainder, torch.Tensor.__mod__, torch.Tensor.__rmod__):
            if torch.is_tensor(n) and operation is torch.Tensor.__rmod__ or type(n) is bool:
                continue
            short = short_way_of(operation, x, n)
            assert bits(short.tolist()) == bits(_dispatch.dispatch(operation, (x, n), {}).tolist())
            assert short.dtype == dtype


def test_other_remainders_go_the_whole_way():
    x = device.tensor([7.0, 8.0])
    for other in (2**53 + 1, True, x[:1], x.float(), torch.stack([x, x], 1)[:, 0]):
        assert short_way_of(torch.fmod, x, other) is NotImplemented
    assert short_way_of(torch.remainder, 7.0, x) is NotImplemented


def test_gradient_of_a_remainder():
    x, y = (device.tensor([v]).requires_grad_() for v in (7.5, 2.0))
    (x % y).backward()
    assert (x.grad.item(), y.grad.item()) == (1.0, -3.0)


def test_remainder_in_place_reads_before_it_writes():
    x = device.tensor([7.0, -8.5])
    x %= x.clone() - 4
    assert x.tolist() == [1.0, -8.5 % -12.5]
    x.fmod_(x)
    assert x.tolist() == [0.0, 0.0]


# --- What torch calls


def torch_function(*arguments, **keywords):
    return _tensor.Tensor.__torch_function__(*arguments, **keywords)


def test_every_form_of_the_call_is_taken(x):
    shape = torch.Tensor.size
    for _ in range(2):
        assert torch_function(shape, (), (x,)) == torch_function(shape, (), args=(x,)) == (3,)
        assert torch_function(shape, (), (x, 0), None) == torch_function(shape, (), [x, 0]) == 3
        assert torch_function(shape, (), (x,), {"dim": 0}) == 3
        assert torch_function(func=shape, types=(), args=(x,), kwargs={"dim": 0}) == 3


def test_call_without_its_arguments_is_refused():
    with pytest.raises(TypeError, match="missing 2 required positional arguments"):
        torch_function()
    with pytest.raises(TypeError, match="from 2 to 4 positional arguments"):
        torch_function(torch.add, (), (), {}, None)
    with pytest.raises(TypeError, match="unhashable"):
        torch_function([], (), ())


def test_operand_that_torch_does_not_know_gets_its_turn(x):
    class Other:
        def __radd__(self, left):
            return "mine"

    for _ in range(2):
        assert x + Other() == "mine"
        with pytest.raises(TypeError, match="unsupported operand"):
            x + object()


def test_tensors_in_lists_and_tuples_are_adopted(x):
    for _ in range(2):
        assert all(part.is_cuda for part in x.split(1))
        assert all(part.is_cuda for part in torch.max(x, 0))
        assert all(part.is_cuda for part in [x.unbind()[0], torch.stack([x, x])])
        with pytest.raises(RuntimeError, match="at least two devices"):
            torch.stack((x, x.cpu()))


def test_list_that_holds_itself_is_not_adopted():
    endless = []
    endless.append(endless)
    with pytest.raises(RecursionError, match="while adopting a tensor"):
        _tensor.adopt(endless)


def test_covering_an_operation_takes_it_out_of_its_short_way(x, monkeypatch):
    monkeypatch.setitem(_dispatch.TABLE, _dispatch.SAME_DEVICE, {"add", "flatten"})
    torch.flatten(x)
    assert torch.flatten in _dispatch.SHORT_WAYS
    korvex.emulation.cover("gelu")
    assert _dispatch.SHORT_WAYS == {}
    assert torch.flatten(x).is_cuda and torch.nn.functional.gelu(x).is_cuda
    assert torch.nn.functional.gelu(x).is_cuda
    _dispatch.rule_of.cache_clear()
    _dispatch.SHORT_WAYS.clear()


def test_module_functions_check_what_they_are_given():
    with pytest.raises(TypeError, match="must be type"):
        _native.adopter(1, torch.Tensor)
    with pytest.raises(TypeError, match="takes what adopter"):
        _native.torch_function({}, len, len, len, ())
    with pytest.raises(TypeError, match="division"):
        _native.division(torch.div)
    with pytest.raises(TypeError, match="replacing"):
        _native.replacing(torch.sqrt, _native.ROOT, torch.Tensor)
    with pytest.raises(ValueError, match="takes a kind"):
        _native.replacing(torch.sqrt, 4, torch.Tensor, *range(8))


# --- Methods and attributes


def test_where_torch_sees_host_tensors_their_methods_make_host_tensors(x):
    with _dispatch.as_host():
        assert type(x.add(x)) is type(x + 1) is type(x[0]) is type(x.data) is torch.Tensor
    assert type(x.add(x)) is type(x + 1) is type(x[0]) is type(x.data) is type(x)


def test_left_operand_is_asked_first(x):
    number = torch.tensor(7.0, dtype=torch.float64)
    for operation in (operator.sub, operator.add, operator.truediv, operator.pow, operator.mod):
        expected = operation(number, x.cpu()).tolist()
        assert operation(number, x).is_cuda and operation(number, x).tolist() == expected
        with pytest.raises(RuntimeError, match="at least two devices"):
            operation(x.cpu(), x)
    assert (1 - x).tolist() == [0.0, -1.0, -2.0] and (6 / x).tolist() == [6.0, 3.0, 6 * (1 / 3)]


def test_mode_sees_the_call_of_a_method(x):
    seen = []

    class Mode(torch.overrides.TorchFunctionMode):
        def __torch_function__(self, func, types, args=(), kwargs=None):
            seen.append((func.__name__, tuple(types)))
            return func(*args, **(kwargs or {}))

    with Mode():
        assert x.add(x).is_cuda and (x + 1).is_cuda and x.shape == (3,)
    assert ("add", (type(x),)) in seen and ("__get__", (type(x),)) in seen


def test_methods_refuse_what_torch_refuses(x):
    for _ in range(2):
        with pytest.raises(RuntimeError, match="at least two devices"):
            x.add(torch.ones(3))
        with pytest.raises(TypeError, match="needs an argument"):
            type(x).add()
        with pytest.raises(TypeError, match="add"):
            x.add("1", other=2)
        with pytest.raises(RuntimeError, match="shape '\\[7\\]' is invalid"):
            x.view(7)
    assert type(x).add(torch.ones(3), 1).is_cpu
    assert x.add(other=1).is_cuda and x.sum(dim=0).is_cuda


def test_attributes_are_read_set_and_deleted(x):
    assert x.grad is None and x.is_leaf and x.ndim == 1 and x.shape == (3,)
    x.requires_grad = True
    x.grad = device.tensor([7.0, 8.0, 9.0])
    assert x.grad.is_cuda and x.grad.tolist() == [7.0, 8.0, 9.0]
    del x.grad
    assert x.grad is None
    x.requires_grad = False
    x.data = device.tensor([5.0])
    assert x.data.is_cuda and x.tolist() == [5.0]
    with pytest.raises(AttributeError):
        x.shape = (1,)
    with pytest.raises(RuntimeError, match="at least two devices"):
        x.grad = torch.ones(1, dtype=torch.float64)
    assert type(x).shape.__doc__ == torch.Tensor.shape.__doc__


def test_items_are_read_and_written(x):
    x[0] = 7.0
    x[1:] = x[:2].clone()
    assert x.tolist() == [7.0, 7.0, 2.0] and len(x) == 3 and 2.0 in x
    assert x[[0, 2]].is_cuda and x[x > 3].tolist() == [7.0, 7.0] and x[..., None].shape == (3, 1)
    assert [each.item() for each in x] == [7.0, 7.0, 2.0] and all(each.is_cuda for each in x)
    x[torch.tensor([2])] = 1.0
    assert x.tolist() == [7.0, 7.0, 1.0]
    with pytest.raises(TypeError):
        del x[0]
    with pytest.raises(IndexError):
        x[3]


# --- References


@pytest.mark.parametrize(
    "operation",
    [
        lambda x: x + x,
        lambda x: x / 3,
        lambda x: x.sqrt(),
        lambda x: x**0.5,
        lambda x: x % x,
        lambda x: torch.div(x, 3, out=torch.empty_like(x)),
        lambda x: x.split(1)[0],
        lambda x: torch.stack([x, x]),
    ],
)
def test_no_reference_is_kept(operation, x):
    operation(x)
    gc.collect()
    operands, of_class = sys.getrefcount(x), sys.getrefcount(_tensor.Tensor)
    gone = [weakref.ref(operation(x)) for _ in range(100)]
    gc.collect()
    assert not any(reference() is not None for reference in gone)
    assert sys.getrefcount(x) == operands
    assert sys.getrefcount(_tensor.Tensor) < of_class + 10


@pytest.mark.parametrize("operation", [lambda x: x / None, lambda x: x.view(7), lambda x: x @ x.t])
def test_no_reference_is_kept_by_a_failure(operation, x):
    def fail():
        with pytest.raises((RuntimeError, TypeError)):
            operation(x)

    fail()
    gc.collect()
    operands, of_class = sys.getrefcount(x), sys.getrefcount(_tensor.Tensor)
    for _ in range(100):
        fail()
    gc.collect()
    assert sys.getrefcount(x) == operands
    assert sys.getrefcount(_tensor.Tensor) < of_class + 10
