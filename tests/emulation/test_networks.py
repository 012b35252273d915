# SPDX-License-Identifier: Apache-2.0
"""Layers, losses and optimisers of torch.nn on the device, forward and backward."""

import device
import pytest
import torch
from torch.nn import functional

HERE = torch.device("cuda", 0)


def data(shape, seed):
    generator = torch.Generator().manual_seed(seed)
    return torch.randn(*shape, dtype=torch.float64, generator=generator)


X, Y = data((5, 3), 1), data((5, 3), 2)
CLASSES = torch.tensor([0, 2, 1, 1, 0])

# Of the prediction, of a target of its form, of classes, of a weight of each class.
FUNCTIONS = {
    "linear": lambda x, y, c, w: functional.linear(x, y),
    "linear with bias": lambda x, y, c, w: functional.linear(x, y, y[:, 0]),
    "softmax": lambda x, y, c, w: functional.softmax(x, dim=1),
    "softmax method": lambda x, y, c, w: x.softmax(0),
    "torch.softmax": lambda x, y, c, w: torch.softmax(x, -1),
    "log_softmax": lambda x, y, c, w: functional.log_softmax(x, dim=1),
    "mse_loss": lambda x, y, c, w: functional.mse_loss(x, y),
    "mse_loss sum": lambda x, y, c, w: functional.mse_loss(x, y, reduction="sum"),
    "l1_loss": lambda x, y, c, w: functional.l1_loss(x, y),
    "l1_loss none": lambda x, y, c, w: functional.l1_loss(x, y, reduction="none"),
    "smooth_l1_loss": lambda x, y, c, w: functional.smooth_l1_loss(x, y, beta=0.5),
    "huber_loss": lambda x, y, c, w: functional.huber_loss(x, y, delta=0.5),
    "cross_entropy": lambda x, y, c, w: functional.cross_entropy(x, c),
    "cross_entropy weighted": lambda x, y, c, w: functional.cross_entropy(
        x, c, weight=w, label_smoothing=0.1, ignore_index=1
    ),
    "cross_entropy of probabilities": lambda x, y, c, w: functional.cross_entropy(
        x, functional.softmax(y, 1)
    ),
    "nll_loss": lambda x, y, c, w: functional.nll_loss(x, c, weight=w),
}


def results(compute, where):
    """Where the result and each gradient are, and their values."""
    x, y = (t.clone().to(where).requires_grad_() for t in (X, Y))
    weight = torch.tensor([1.0, 2.0, 0.5], dtype=torch.float64).to(where)
    result = compute(x, y, CLASSES.to(where), weight)
    (result * result).sum().backward()
    tensors = [result.detach(), *(t.grad for t in (x, y) if t.grad is not None)]
    return {(t.device, t.is_cuda) for t in tensors}, [t.tolist() for t in tensors]


@pytest.mark.parametrize("compute", FUNCTIONS.values(), ids=FUNCTIONS)
def test_function_and_its_gradient_are_on_the_device(compute):
    places, found = results(compute, "cuda")
    assert places == {(HERE, True)}
    if device.choose().emulated:
        assert found == results(compute, "cpu")[1]


@pytest.mark.parametrize("name", [name for name in FUNCTIONS if "softmax" not in name])
def test_cpu_tensor_among_the_operands_is_refused(name):
    y, classes = Y.cuda(), CLASSES.cuda()
    weight = torch.ones(3, dtype=torch.float64, device="cuda")
    with pytest.raises(RuntimeError, match="same device"):
        FUNCTIONS[name](X, y, classes, weight)


class Network(torch.nn.Module):
    def __init__(self):
        super().__init__()
        torch.manual_seed(3)
        self.first = torch.nn.Linear(3, 4).double()
        self.second = torch.nn.Linear(4, 3).double()
        self.last = torch.nn.Softmax(dim=1)

    def forward(self, x):
        hidden = torch.nn.functional.relu(self.first(x))
        assert hidden.is_cuda == x.is_cuda
        return self.last(self.second(hidden))


LOSSES = {
    "MSELoss": lambda output, where: torch.nn.MSELoss()(output, Y.to(where)),
    "L1Loss": lambda output, where: torch.nn.L1Loss()(output, Y.to(where)),
    "CrossEntropyLoss": lambda output, where: torch.nn.CrossEntropyLoss()(
        output, CLASSES.to(where)
    ),
}


def trained(loss_of, optimiser, where, steps=5):
    network = Network().to(where)
    steps_of = optimiser(network.parameters())
    losses = []
    for _ in range(steps):
        steps_of.zero_grad()
        loss = loss_of(network(X.to(where)), where)
        loss.backward()
        assert {p.grad.device.type for p in network.parameters()} == {where}
        steps_of.step()
        losses.append(loss.item())
    assert {p.device.type for p in network.parameters()} == {where}
    return losses


@pytest.mark.parametrize("loss_of", LOSSES.values(), ids=LOSSES)
def test_network_learns_the_same_on_either_device(loss_of):
    def plain(parameters):
        return torch.optim.SGD(parameters, lr=0.1, momentum=0.9)

    found, expected = (trained(loss_of, plain, where) for where in ("cuda", "cpu"))
    assert found[-1] < found[0]
    # 5 steps of a few hundred roundings each
    assert found == pytest.approx(expected, rel=1e-11)


def test_adam_works():
    def adam(parameters):
        return torch.optim.Adam(parameters, lr=0.01)

    found, expected = (trained(LOSSES["MSELoss"], adam, where) for where in ("cuda", "cpu"))
    assert found[-1] < found[0]
    assert found == pytest.approx(expected, rel=1e-11)


@pytest.mark.skipif(not device.choose().emulated, reason="a limit of the emulated device")
@pytest.mark.parametrize(
    "name, refused",
    [
        ("dropout", lambda x: functional.dropout(x)),
        ("layer_norm", lambda x: functional.layer_norm(x, (3,))),
        ("kl_div", lambda x: functional.kl_div(x, x)),
        ("binary_cross_entropy", lambda x: functional.binary_cross_entropy(x, x)),
        ("gelu", lambda x: functional.gelu(x)),
    ],
)
def test_other_layers_and_losses_are_refused_by_name(name, refused):
    with pytest.raises(NotImplementedError, match=f"not cover the torch operation {name!r}"):
        refused(X.cuda())
