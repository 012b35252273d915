# SPDX-License-Identifier: Apache-2.0
"""What calls over processes refuse, before anything is sent."""

import numpy as np
import pytest
import torch
import torch.distributed as dist

from korvex import exact


@pytest.fixture(scope="module", autouse=True)
def group_of_one():
    if not dist.is_available() or not dist.is_gloo_available():
        pytest.skip("this torch has no gloo")
    dist.init_process_group("gloo", store=dist.HashStore(), rank=0, world_size=1)
    yield dist.group.WORLD
    dist.destroy_process_group()


@pytest.mark.parametrize("function", [exact.sum, exact.mean, exact.var, exact.vector_norm])
def test_complex_arrays_with_a_group(function):
    with pytest.raises(TypeError, match="x is complex: with a group, give x.real and x.imag apart"):
        function(np.array([1j]), group=dist.group.WORLD)


@pytest.mark.parametrize("function", [exact.sum, exact.mean, exact.var, exact.vector_norm])
def test_an_axis_with_a_group(function):
    text = "axis= of what lies in several processes is not built yet: korvex.exact reduces their"
    with pytest.raises(ValueError, match=text):
        function(np.ones((2, 3)), axis=0, group=dist.group.WORLD)
    assert function(np.zeros((2, 3)), axis=(0, 1), group=dist.group.WORLD) == 0
    with pytest.raises(ValueError, match=text):
        exact.vecdot(np.ones((2, 3)), np.ones(3), group=dist.group.WORLD)


def test_axes_of_a_dtensor_that_every_process_has_whole():
    from torch.distributed.device_mesh import init_device_mesh
    from torch.distributed.tensor import DTensor, Replicate, Shard

    mesh, x = init_device_mesh("cpu", (1,)), torch.arange(6.0).reshape(2, 3)
    whole = exact.sum(DTensor.from_local(x, mesh, [Replicate()]), axis=0)
    assert whole.placements == (Replicate(),) and whole.to_local().tolist() == [3.0, 5.0, 7.0]
    with pytest.raises(ValueError, match="axis= of what lies in several processes"):
        exact.sum(DTensor.from_local(x, mesh, [Shard(0)]), axis=1)


def test_complex_matrices_with_a_group():
    with pytest.raises(TypeError, match="with a group a and b must be real"):
        exact.matmul(np.ones((1, 1)), np.array([[1j]]), group=dist.group.WORLD)
    with pytest.raises(ValueError, match="with a group a and b must be matrices or vectors"):
        exact.matmul(np.ones((1, 1, 1)), np.ones((1, 1)), group=dist.group.WORLD)


@pytest.mark.parametrize(
    ("t", "text"),
    [
        (np.zeros(2), "t must be a torch tensor, not ndarray"),
        (
            torch.zeros(2, dtype=torch.int64),
            "t has the dtype torch.int64, not one of float64, float32, bfloat16",
        ),
        (
            torch.zeros(2, dtype=torch.float16),
            "t has the dtype torch.float16, not one of float64, float32, bfloat16",
        ),
        (torch.zeros(2).to_sparse(), "t has the layout torch.sparse_coo: give t.to_dense"),
        (torch.zeros(2, device="meta"), "t is on the device meta"),
    ],
)
def test_tensors_that_cannot_be_added(t, text):
    with pytest.raises(TypeError, match=text):
        exact.all_reduce(t)
    with pytest.raises(TypeError, match=text):
        exact.reduce_scatter_tensor(torch.zeros(2), t)


def test_shares_that_do_not_fit():
    with pytest.raises(ValueError, match="out has 2 elements, and t has 3: with 1 processes"):
        exact.reduce_scatter_tensor(torch.zeros(2), torch.zeros(3))
    with pytest.raises(TypeError, match="out has the dtype torch.float64, and t has torch.float32"):
        exact.reduce_scatter_tensor(torch.zeros(2, dtype=torch.float64), torch.zeros(2))


@pytest.mark.parametrize(
    ("parameters", "error", "text"),
    [
        ([], ValueError, "parameters has none"),
        ([1.0], TypeError, "a parameter must be a torch tensor, not float"),
        ([torch.zeros(1, dtype=torch.int32)], TypeError, "a parameter has the dtype torch.int32"),
        ([torch.zeros(1, device="meta")], TypeError, "a parameter is on the device meta"),
        ([torch.ones(1)] * 2, ValueError, "parameters has a tensor twice"),
    ],
)
def test_parameters_that_have_no_gradients(parameters, error, text):
    with pytest.raises(error, match=text):
        exact.GradientAccumulator(parameters)


def test_too_many_micro_batches(monkeypatch):
    from korvex.exact import _gradients

    monkeypatch.setattr(_gradients, "_MOST_GRADIENTS", 2)
    gradients = exact.GradientAccumulator([torch.zeros(1)])
    gradients.add()
    gradients.add()
    with pytest.raises(OverflowError, match="room for 2 micro-batches"):
        gradients.add()


def test_parameters_are_a_bounded_state():
    """16 bytes an element, a count for each parameter and one more."""
    parameters = [torch.zeros(100, 10), torch.zeros(7)]
    gradients = exact.GradientAccumulator(parameters)
    assert gradients.nbytes == 16 * 1007 + 8 * 3
    parameters[1].grad = torch.tensor([1.0, 2.0**-40, 2.0**-53, 2.0**-60, 2.0**11, 2.0**13, 0.0])
    gradients.add()
    assert gradients.nbytes - (16 * 1007 + 8 * 3) == 1 * 72 * 8  # 2^13 alone has a wide state


def test_gradients_show_how_many_they_are():
    weights = torch.zeros(3)
    gradients = exact.GradientAccumulator([weights, torch.zeros(2)])
    weights.grad = torch.ones(3)
    gradients.add()
    assert repr(gradients) == "GradientAccumulator(count=1, parameters=2)"
