# SPDX-License-Identifier: Apache-2.0
"""Operations whose operands lie on the device and on the CPU: which are refused, and how."""

import device
import pytest
import torch

HERE = torch.device("cuda", 0)
CPU = torch.device("cpu")
TWO_DEVICES = (
    "Expected all tensors to be on the same device, but found at least two devices, cuda:0 and cpu!"
)


ELEMENT_BY_ELEMENT = {
    "add": lambda x, h: x + h,
    "add, the other first": lambda x, h: h + x,
    "sub": lambda x, h: x - h,
    "mul": lambda x, h: torch.mul(x, h),
    "div": lambda x, h: x / h,
    "pow": lambda x, h: x**h,
    "maximum": lambda x, h: torch.maximum(x, h),
    "eq": lambda x, h: torch.eq(x, h),
    "lt": lambda x, h: x < h,
    "fmod": lambda x, h: torch.fmod(x, h),
    "in place": lambda x, h: x.add_(h),
    "into the CPU tensor": lambda x, h: h.add_(x),
    "out": lambda x, h: torch.add(x, x, out=h),
    "0-dimensional on the device": lambda x, h: x[0] + h,
    "0-dimensional CPU tensor in place": lambda x, h: h[0].add_(x[0]),
}


@pytest.mark.parametrize("operation", ELEMENT_BY_ELEMENT.values(), ids=ELEMENT_BY_ELEMENT)
def test_cpu_tensor_is_refused_element_by_element(operation, x, host):
    with pytest.raises(RuntimeError) as caught:
        operation(x, host)
    assert str(caught.value).startswith(TWO_DEVICES)
    assert host.tolist() == x.tolist() == [1.0, 2.0, 3.0]


OTHERS = {
    "dot": lambda x, h: torch.dot(x, h),
    "matmul": lambda x, h: x @ h,
    "matmul, the other first": lambda x, h: h.diag() @ x,
    "cat": lambda x, h: torch.cat([x, h]),
    "stack": lambda x, h: torch.stack((h, x)),
    "stack of numbers": lambda x, h: torch.stack([x[0], h[0]]),
    "einsum": lambda x, h: torch.einsum("i,i->", x, h),
    "solve": lambda x, h: torch.linalg.solve(x.diag(), h),
    "index_select": lambda x, h: x.index_select(0, torch.tensor([0])),
    "gather": lambda x, h: x.gather(0, torch.tensor([0])),
    "where": lambda x, h: torch.where(h > 0, x, x),
    "equal": lambda x, h: torch.equal(x, h),
}


@pytest.mark.parametrize("operation", OTHERS.values(), ids=OTHERS)
def test_cpu_tensor_is_refused_by_other_operations(operation, x, host):
    with pytest.raises(RuntimeError, match="same device"):
        operation(x, host)


@pytest.mark.parametrize(
    "operation",
    [
        lambda x, number: x + number,
        lambda x, number: number + x,
        lambda x, number: x * number,
        lambda x, number: torch.maximum(x, number),
        lambda x, number: x.add_(number),
        lambda x, number: torch.where(x > 5.0, x, number),
        lambda x, number: torch.fmod(x, number),
        lambda x, number: x < number,
    ],
)
def test_cpu_tensor_without_dimensions_passes_as_a_number(operation, x):
    number = torch.tensor(2.0, dtype=torch.float64)
    expected = operation(x.cpu(), number)
    result = operation(x, number)
    assert result.device == HERE and number.device == CPU
    assert torch.equal(result.cpu(), expected)


def test_broadcast_leaves_each_operand_where_it_is(x, host):
    first, second = torch.broadcast_tensors(x, host.view(3, 1))
    assert (first.device, second.device) == (HERE, CPU)
    assert first.shape == second.shape == (3, 3)


def test_form_may_come_from_a_tensor_elsewhere(x, host):
    assert x.expand_as(torch.zeros(2, 3)).device == HERE
    assert host.view_as(x.view(3, 1)).device == CPU


# --- Indices and assignments


def test_indices_may_be_on_the_cpu(x):
    for index in (torch.tensor([2, 0]), torch.tensor([True, False, True]), [2, 0]):
        assert x[index].device == HERE
    assert x[torch.tensor([2, 0])].tolist() == [3.0, 1.0]


def test_indices_on_the_device_do_not_pick_from_a_cpu_tensor(host):
    with pytest.raises(RuntimeError, match="indices should be either on cpu or on the same"):
        host[device.tensor([0], torch.int64)]
    with pytest.raises(RuntimeError, match="indices should be either on cpu or on the same"):
        host[device.tensor([0], torch.int64)] = 1.0


def test_index_without_dimensions_is_read_as_a_number(host):
    element = host[device.tensor(1, torch.int64)]
    assert (element.item(), element.device) == (2.0, CPU)


def test_slices_are_assigned_across_devices(x, host):
    x[1:] = torch.tensor([8.0, 9.0])
    host[0] = x[1]
    assert x.tolist() == [1.0, 8.0, 9.0] and host.tolist() == [8.0, 2.0, 3.0]
    host[...] = x
    assert host.tolist() == x.tolist() and host.device == CPU


def test_picked_elements_are_assigned_on_one_device(x, host):
    index = torch.tensor([0, 2])
    for to, value in ((x, host[:2]), (host, x[:2])):
        with pytest.raises(RuntimeError, match="same device"):
            to[index] = value
    x[index] = torch.tensor(5.0, dtype=torch.float64)
    x[[1]] = 7.0
    assert x.tolist() == [5.0, 7.0, 5.0]


# --- Autograd


def test_gradient_of_another_device_is_refused(x):
    with pytest.raises(RuntimeError):
        x.requires_grad_().grad = torch.zeros(3, dtype=torch.float64)


def test_gradient_flows_across_devices(host):
    host.requires_grad_()
    (host.cuda() * 2).cpu().sum().backward()
    assert host.grad.tolist() == [2.0, 2.0, 2.0] and host.grad.device == CPU


def test_gradient_is_on_the_device_of_its_tensor(x):
    x.requires_grad_()
    (x * x).sum().backward()
    assert x.grad.device == HERE and x.grad.tolist() == [2.0, 4.0, 6.0]
    assert x.grad is x.grad
    x.grad.zero_()
    assert x.grad.tolist() == [0.0, 0.0, 0.0]
    (gradient,) = torch.autograd.grad((x * x).sum(), x)
    assert gradient.device == HERE and gradient.tolist() == [2.0, 4.0, 6.0]
