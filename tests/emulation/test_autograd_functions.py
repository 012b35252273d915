# SPDX-License-Identifier: Apache-2.0
"""A user's `autograd.Function` on the device: everything its `backward` sees is there.

Nothing here knows which device runs, so on hardware these tests say what torch itself does.
"""

import device
import pytest
import torch

HERE = torch.device("cuda", 0)
CPU = torch.device("cpu")


def tensor(values, requires_grad=True):
    return device.tensor(values).requires_grad_(requires_grad)


def function(forward, backward, **members):
    members |= {"forward": staticmethod(forward), "backward": staticmethod(backward)}
    return type("Example", (torch.autograd.Function,), members)


class Cubes(torch.autograd.Function):
    """Saves its input and its result, and writes down where each tensor of `backward` is."""

    seen = []

    @staticmethod
    def forward(ctx, x):
        result = x * x * x
        ctx.save_for_backward(x, result)
        return result

    @staticmethod
    def backward(ctx, gradient):
        x, result = ctx.saved_tensors
        Cubes.seen = [t.device for t in (gradient, x, result)]
        assert gradient.is_cuda and x.is_cuda and result.is_cuda
        return gradient * 3 * x * x


def test_gradient_and_saved_tensors_are_on_the_device():
    x = tensor([1.0, 2.0])
    result = Cubes.apply(x)
    result.sum().backward()
    assert Cubes.seen == [HERE] * 3
    assert (result.device, x.grad.device, x.grad.tolist()) == (HERE, HERE, [3.0, 12.0])


def test_inputs_inside_a_graph_are_saved_on_the_device_too():
    x = tensor([1.0, 2.0])
    Cubes.apply(x * 2).sum().backward()
    assert Cubes.seen == [HERE] * 3 and x.grad.tolist() == [24.0, 96.0]


def test_gradient_of_a_gradient():
    x = tensor([2.0])
    (first,) = torch.autograd.grad(Cubes.apply(x), x, create_graph=True)
    (second,) = torch.autograd.grad(first, x)
    assert (first.device, second.device) == (HERE, HERE)
    assert (first.item(), second.item()) == (12.0, 12.0)


def test_setup_context_works_as_well():
    def setup_context(ctx, inputs, output):
        ctx.save_for_backward(*inputs)

    def backward(ctx, gradient):
        (x,) = ctx.saved_tensors
        assert gradient.is_cuda and x.is_cuda
        return gradient * x.cos()

    sine = function(lambda x: x.sin(), backward, setup_context=staticmethod(setup_context))
    x = tensor([0.0])
    sine.apply(x).sum().backward()
    assert x.grad.tolist() == [1.0]


def test_boxed_gradients_are_on_the_device():
    def backward(ctx, gradients):
        gradient = gradients[0] if isinstance(gradients, list) else gradients
        assert gradient.is_cuda
        return gradient * 2

    twice = function(lambda ctx, x: x * 2, backward, boxed_grads_call=True)
    x = tensor([1.0])
    twice.apply(x).sum().backward()
    assert x.grad.tolist() == [2.0]


def test_gradients_that_torch_makes_for_unused_outputs_are_on_the_device():
    def backward(ctx, first, second):
        assert first.is_cuda and second.is_cuda
        return first + second

    both = function(lambda ctx, x: (x * 1, x * 1), backward)
    x = tensor([1.0])
    both.apply(x)[0].sum().backward()
    assert x.grad.tolist() == [1.0]


def test_gradient_that_is_none_stays_none():
    def forward(ctx, x):
        ctx.set_materialize_grads(False)
        return x * 1, x * 1

    def backward(ctx, first, second):
        assert second is None and first.is_cuda
        return first

    both = function(forward, backward)
    x = tensor([1.0])
    both.apply(x)[0].sum().backward()
    assert x.grad.is_cuda


def test_input_that_is_returned_is_on_the_device():
    def backward(ctx, gradient):
        assert gradient.is_cuda
        return -gradient

    reversed_gradient = function(lambda ctx, x: x.view_as(x), backward)
    same = function(lambda ctx, x: x, backward)
    for example in (reversed_gradient, same):
        x = tensor([1.0, 2.0])
        result = example.apply(x)
        assert result.is_cuda
        (result * 2).sum().backward()
        assert x.grad.tolist() == [-2.0, -2.0] and x.grad.is_cuda


def test_input_that_is_changed_in_place_is_on_the_device():
    def forward(ctx, x):
        ctx.mark_dirty(x)
        return x.add_(1)

    def backward(ctx, gradient):
        assert gradient.is_cuda
        return gradient * 5

    x = tensor([1.0])
    y = x * 1
    result = function(forward, backward).apply(y)
    assert result is y and result.is_cuda
    result.sum().backward()
    assert x.grad.tolist() == [5.0]


# --- Between the devices


class ToHost(torch.autograd.Function):
    @staticmethod
    def forward(ctx, x):
        return x.cpu()

    @staticmethod
    def backward(ctx, gradient):
        assert gradient.device == CPU
        return gradient.cuda()


def test_function_between_devices_sees_each_where_it_is():
    x = tensor([1.0, 2.0])
    result = ToHost.apply(x)
    assert result.device == CPU
    result.sum().backward()
    assert x.grad.device == HERE and x.grad.tolist() == [1.0, 1.0]


def test_gradient_of_the_caller_stays_on_the_cpu():
    x = tensor([1.0, 2.0])
    gradient = torch.ones(2, dtype=torch.float64)
    Cubes.apply(x).cpu().backward(gradient)
    assert Cubes.seen == [HERE] * 3
    assert (gradient.device, type(gradient)) == (CPU, torch.Tensor)


def test_gradient_on_the_wrong_device_is_refused():
    x = tensor([1.0, 2.0])
    wrong = function(lambda ctx, x: x * 1, lambda ctx, gradient: gradient.cpu())
    with pytest.raises(RuntimeError, match="ExampleBackward returned an invalid gradient at index"):
        wrong.apply(x).sum().backward()


def test_functions_on_the_cpu_are_not_concerned():
    def backward(ctx, gradient):
        (x,) = ctx.saved_tensors
        assert (gradient.device, x.device) == (CPU, CPU)
        return gradient * x

    def forward(ctx, x):
        ctx.save_for_backward(x)
        return x * 1

    x = torch.tensor([3.0], requires_grad=True)
    function(forward, backward).apply(x).sum().backward()
    assert x.grad.tolist() == [3.0] and type(x.grad) is torch.Tensor


def test_function_keeps_its_name_and_place():
    result = Cubes.apply(tensor([1.0]))
    assert type(result.grad_fn).__name__ == "CubesBackward"
    assert torch.autograd.Function.apply.__name__ == "apply"
