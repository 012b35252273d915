# SPDX-License-Identifier: Apache-2.0
"""Tensors on the device under test: where they are, how they get there and what they share.

Nothing here knows which device runs, so on hardware these tests say what torch itself does.
"""

import copy
import io
import pickle

import device
import numpy as np
import pytest
import torch

HERE = torch.device("cuda", 0)
CPU = torch.device("cpu")
NOT_NUMPY = (
    "can't convert cuda:0 device type tensor to numpy. "
    "Use Tensor.cpu() to copy the tensor to host memory first."
)


# --- Where a tensor is


def test_tensor_tells_its_device(x):
    assert (x.device, str(x.device)) == (HERE, "cuda:0")
    assert (x.is_cuda, x.is_cpu, x.get_device()) == (True, False, 0)
    assert x.type() == "torch.cuda.DoubleTensor"
    assert isinstance(x, torch.Tensor) and type(x).__name__ == "Tensor"


def test_device_without_number_is_another_device_object(x):
    assert torch.device("cuda") != x.device == torch.device("cuda:0")


def test_printed_tensor_names_the_device(x):
    assert repr(x) == "tensor([1., 2., 3.], device='cuda:0', dtype=torch.float64)"
    assert repr(x.float()) == "tensor([1., 2., 3.], device='cuda:0')"
    assert str(x[:0].view(0, 2)) == "tensor([], device='cuda:0', size=(0, 2), dtype=torch.float64)"
    assert repr(x.float() * x.float().requires_grad_()) == (
        "tensor([1., 4., 9.], device='cuda:0', grad_fn=<MulBackward0>)"
    )


def test_long_printed_tensor_is_indented_as_on_the_cpu(x):
    long = x.repeat(27)
    numbers, suffix = repr(long).split("]")
    assert numbers.count("\n") > 1
    assert numbers == repr(long.cpu()).split("]")[0]
    assert suffix.split() == [",", "device='cuda:0',", "dtype=torch.float64)"]


def test_number_is_formatted_like_a_python_number(x):
    assert f"{x[2]:.2f}" == "3.00"
    assert f"{x}" == str(x)


# --- Factories

FACTORIES = {
    "tensor": lambda d: torch.tensor([1, 2], device=d),
    "as_tensor of a list": lambda d: torch.as_tensor([1.0], device=d),
    "as_tensor by position": lambda d: torch.as_tensor([1.0], torch.float64, d),
    "asarray": lambda d: torch.asarray([1.0], device=d),
    "scalar_tensor": lambda d: torch.scalar_tensor(2.0, device=d),
    "zeros": lambda d: torch.zeros(2, 3, device=d),
    "ones": lambda d: torch.ones((2, 3), dtype=torch.int64, device=d),
    "empty": lambda d: torch.empty(2, device=d).fill_(0),
    "empty_strided": lambda d: torch.empty_strided((2,), (1,), device=d).fill_(0),
    "full": lambda d: torch.full((2,), 3.0, device=d),
    "arange": lambda d: torch.arange(3, device=d),
    "linspace": lambda d: torch.linspace(0, 1, 5, device=d),
    "logspace": lambda d: torch.logspace(0, 2, 3, device=d),
    "eye": lambda d: torch.eye(3, device=d),
    "tril_indices": lambda d: torch.tril_indices(3, 3, device=d),
    "triu_indices": lambda d: torch.triu_indices(3, 3, device=d),
}
RANDOM_FACTORIES = {
    "rand": lambda d: torch.rand(4, device=d),
    "randn": lambda d: torch.randn(4, dtype=torch.float64, device=d),
    "randint": lambda d: torch.randint(0, 100, (4,), device=d),
    "randperm": lambda d: torch.randperm(10, device=d),
}


@pytest.mark.parametrize("where", ["cuda", "cuda:0", 0, HERE, torch.device("cuda")], ids=str)
@pytest.mark.parametrize("make", FACTORIES.values(), ids=FACTORIES)
def test_factory_makes_the_same_there_as_on_the_cpu(make, where):
    made = make(where)
    assert made.device == HERE
    torch.testing.assert_close(made.cpu(), make("cpu"), rtol=0, atol=0)


@pytest.mark.parametrize("make", RANDOM_FACTORIES.values(), ids=RANDOM_FACTORIES)
def test_random_factory_repeats_itself_from_a_seed(make):
    torch.manual_seed(7)
    first, second = make("cuda"), make("cuda")
    torch.cuda.manual_seed(7)
    assert first.device == HERE
    assert not torch.equal(first, second)
    assert torch.equal(make("cuda"), first)


@pytest.mark.parametrize("make", FACTORIES.values(), ids=FACTORIES)
def test_factory_without_a_device_makes_cpu_tensors(make):
    assert make(None).device == CPU
    assert make("cpu").device == CPU


@pytest.mark.parametrize(
    "name", ["zeros_like", "ones_like", "empty_like", "rand_like", "randn_like"]
)
def test_like_factory_follows_its_operand_or_the_device_given(name, x, host):
    make = getattr(torch, name)
    assert make(x).device == make(input=x).device == make(host, device="cuda").device == HERE
    assert make(x, device="cpu").device == make(host).device == CPU
    assert make(x, dtype=torch.float32).dtype == torch.float32


def test_full_like_and_randint_like_too(x, host):
    assert torch.full_like(x, 2.0).tolist() == [2.0, 2.0, 2.0]
    assert torch.randint_like(x, 5).device == HERE
    assert torch.full_like(host, 2.0, device="cuda").device == HERE


@pytest.mark.parametrize(
    "make",
    [
        lambda t, **where: t.new_zeros(2, **where),
        lambda t, **where: t.new_ones((2, 2), **where),
        lambda t, **where: t.new_empty(2, **where),
        lambda t, **where: t.new_full((2,), 3.0, **where),
        lambda t, **where: t.new_tensor([1.0, 2.0], **where),
        lambda t, **where: t.new_empty_strided((2,), (1,), **where),
    ],
)
def test_new_method_follows_its_tensor_or_the_device_given(make, x, host):
    assert make(x).device == make(host, device="cuda").device == HERE
    assert make(host).device == make(x, device="cpu").device == CPU


def test_factory_copies_what_it_is_given(host):
    array = np.ones(3)
    for made in (
        torch.as_tensor(host, device="cuda"),
        torch.as_tensor(array, device="cuda"),
        torch.asarray(array, device="cuda"),
        torch.from_numpy(array).cuda(),
    ):
        made.fill_(9.0)
    assert host.tolist() == [1.0, 2.0, 3.0] and array.tolist() == [1.0, 1.0, 1.0]
    assert host.device == CPU


def test_tensor_already_there_is_not_copied(x):
    assert torch.as_tensor(x) is torch.asarray(x) is x.to("cuda") is x.cuda() is x


@pytest.mark.filterwarnings("ignore:To copy construct from a tensor")
def test_copy_by_tensor_stays_on_its_device(x):
    assert torch.tensor(x).device == HERE
    assert torch.tensor(x, device="cpu").device == CPU


def test_factory_makes_leaves_of_the_graph():
    leaf = torch.zeros(2, device="cuda", requires_grad=True)
    assert leaf.is_leaf and leaf.requires_grad


# --- The default device


def test_device_as_context_sets_the_default():
    with torch.device("cuda"):
        made = [torch.zeros(2), torch.tensor([1.0]), torch.arange(3), torch.as_tensor([1.0])]
        assert torch.zeros(2, device="cpu").device == CPU
        assert torch.get_default_device() == HERE
    assert {tensor.device for tensor in made} == {HERE}
    assert torch.zeros(2).device == CPU


def test_default_device_can_be_set_for_good():
    torch.set_default_device("cuda")
    try:
        quotient = torch.ones(3) / 3
    finally:
        torch.set_default_device(None)
    assert quotient.device == HERE and torch.ones(3).device == CPU


def test_other_devices_as_context_still_work():
    with torch.device("meta"):
        assert torch.zeros(2).is_meta and torch.rand(2).is_meta
    with torch.device("cpu"):
        assert torch.zeros(2).device == CPU


# --- From one device to the other


@pytest.mark.parametrize(
    "move",
    [
        lambda t: t.cuda(),
        lambda t: t.cuda(0),
        lambda t: t.cuda("cuda:0", non_blocking=True),
        lambda t: t.to("cuda"),
        lambda t: t.to(HERE, torch.float64),
        lambda t: t.to(device="cuda", dtype=torch.float64),
        lambda t: t.to(0),
        lambda t: t.to("cuda", non_blocking=True, copy=True),
        lambda t: t.to(device.tensor([0.0])),
        lambda t: t.to(other=device.tensor([0.0])),
        lambda t: t.type_as(device.tensor([0.0])),
    ],
)
def test_cpu_tensor_is_copied_to_the_device(move, host):
    moved = move(host)
    assert (moved.device, moved.dtype, moved.tolist()) == (HERE, torch.float64, host.tolist())
    moved.fill_(9.0)
    assert host.tolist() == [1.0, 2.0, 3.0] and host.device == CPU


@pytest.mark.parametrize(
    "move",
    [
        lambda t: t.cpu(),
        lambda t: t.to("cpu"),
        lambda t: t.to(CPU, torch.float64),
        lambda t: t.to(torch.zeros(1, dtype=torch.float64)),
        lambda t: t.type_as(torch.zeros(1, dtype=torch.float64)),
    ],
)
def test_tensor_is_copied_to_the_cpu(move, x):
    moved = move(x)
    assert (moved.device, type(moved), moved.tolist()) == (CPU, torch.Tensor, x.tolist())
    moved.fill_(9.0)
    assert x.tolist() == [1.0, 2.0, 3.0]


def test_type_changes_on_the_way(host):
    assert host.to("cuda", torch.float32).dtype == torch.float32
    assert host.to(device.tensor([1], torch.int64)).dtype == torch.int64
    assert host.cuda().to("cpu", torch.int32).dtype == torch.int32


def test_conversion_of_type_stays_on_the_device(x):
    for converted in (x.float(), x.to(torch.int64), x.type(torch.float32), x.bool(), x.half()):
        assert converted.device == HERE
    assert x.double() is x.to(torch.float64) is x
    assert x.to(torch.float64, copy=True) is not x


def test_strides_survive_the_move(host):
    turned = host.repeat(2, 1).t()
    assert turned.cuda().stride() == turned.stride()
    assert turned.cuda().cpu().stride() == turned.stride()


def test_copy_goes_either_way(x, host):
    assert x.copy_(host + 1) is x
    assert host.copy_(x) is host
    assert host.tolist() == x.tolist() == [2.0, 3.0, 4.0]
    assert (host.device, x.device) == (CPU, HERE)


def test_numpy_is_refused_in_the_words_of_torch(x):
    for convert in (torch.Tensor.numpy, np.asarray, np.array, lambda t: t.numpy()):
        with pytest.raises(TypeError) as caught:
            convert(x)
        assert str(caught.value) == NOT_NUMPY
    assert x.cpu().numpy().tolist() == x.numpy(force=True).tolist() == [1.0, 2.0, 3.0]


def test_cuda_of_another_device_is_refused(host):
    with pytest.raises((RuntimeError, ValueError, AssertionError)):
        host.cuda("cpu")
    with pytest.raises(RuntimeError):
        host.to("cuda:77")
    with pytest.raises(RuntimeError):
        torch.zeros(1, device="cuda:77")


def test_senseless_arguments_of_to_are_refused(x, host):
    for tensor in (x, host):
        with pytest.raises(TypeError):
            tensor.to("cuda", colour=1)
        with pytest.raises(RuntimeError):
            tensor.to("nowhere")


# --- What tensors share


def test_views_share_memory(x):
    x.view(-1)[0] = 7.0
    x[1:][0] = 8.0
    x.reshape(3, 1).unsqueeze(0).squeeze()[2] = 9.0
    assert x.tolist() == [7.0, 8.0, 9.0]
    assert x.view(3, 1)._base is x and x.data_ptr() == x.detach().data_ptr()


def test_in_place_operations_return_their_tensor(x):
    assert x.add_(1) is x and x.zero_() is x and x.requires_grad_(False) is x


def test_iteration_gives_views(x):
    for element in x:
        element += 1
    assert x.tolist() == [2.0, 3.0, 4.0]
    assert [e.device for e in x.unbind()] == [HERE] * 3


# --- Copies of objects


def test_deep_copy_has_its_own_memory_and_keeps_views_together(x):
    whole, part = copy.deepcopy([x, x[1:]])
    part[0] = 9.0
    assert whole.tolist() == [1.0, 9.0, 3.0] and x.tolist() == [1.0, 2.0, 3.0]
    assert whole.device == part.device == HERE


def test_deep_copy_keeps_what_autograd_knows(x):
    x.requires_grad_()
    x.sum().backward()
    copied = copy.deepcopy(x)
    assert copied.is_leaf and copied.requires_grad and copied.grad.tolist() == [1.0, 1.0, 1.0]
    with pytest.raises(RuntimeError, match="Only Tensors created explicitly by the user"):
        copy.deepcopy(x * 2)


def test_shallow_copy_shares_memory(x):
    copied = copy.copy(x)
    copied[0] = 9.0
    assert copied is not x and x[0] == 9.0 and copied.device == HERE


def test_pickled_tensor_comes_back_on_the_device(x):
    back = pickle.loads(pickle.dumps(x.requires_grad_()))
    assert back.device == HERE and back.requires_grad and back.tolist() == [1.0, 2.0, 3.0]


def test_saved_tensor_comes_back_on_the_device(x):
    file = io.BytesIO()
    torch.save({"x": x}, file)
    file.seek(0)
    back = torch.load(file)["x"]
    assert back.device == HERE and back.tolist() == [1.0, 2.0, 3.0]


# --- Reading values


def test_values_are_read_as_python_numbers(x):
    assert (x[0].item(), float(x[1]), int(x[2]), bool(x[0])) == (1.0, 2.0, 3, True)
    assert x.tolist() == [1.0, 2.0, 3.0] and len(x) == 3 and 2.0 in x
    assert ["a", "b"][device.tensor(1, torch.int64)] == "b"
    with pytest.raises(RuntimeError):
        x.item()


# --- Modules


def test_module_moves_its_parameters_there_and_back():
    module = torch.nn.Linear(2, 3)
    module.cuda()
    assert {p.device for p in module.parameters()} == {HERE}
    assert all(p.is_leaf and p.requires_grad for p in module.parameters())
    assert {p.device for p in copy.deepcopy(module).parameters()} == {HERE}
    assert module.double().weight.dtype == torch.float64
    assert {p.device for p in module.to("cpu").parameters()} == {CPU}


# --- torch.cuda


def test_torch_cuda_knows_the_device():
    assert torch.cuda.is_available() and torch.cuda.device_count() >= 1
    assert torch.cuda.current_device() == 0
    assert isinstance(torch.cuda.get_device_name(0), str)
    assert torch.cuda.get_device_name() == torch.cuda.get_device_name("cuda:0")


def test_torch_cuda_waits_and_cleans_up():
    torch.cuda.synchronize()
    torch.cuda.synchronize("cuda")
    torch.cuda.empty_cache()
    torch.cuda.set_device(0)
    with torch.cuda.device(0):
        assert torch.cuda.memory_allocated() >= 0


def test_random_state_can_be_kept():
    with torch.random.fork_rng():
        torch.rand(3, device="cuda")
    state = torch.cuda.get_rng_state()
    first = torch.rand(3, device="cuda")
    torch.cuda.set_rng_state(state)
    assert torch.equal(torch.rand(3, device="cuda"), first)
