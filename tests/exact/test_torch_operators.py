# SPDX-License-Identifier: Apache-2.0
"""Operators of torch: gradients, shapes, batches; compiled and exported in a process of its own."""

import re
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
import torch
from exact_arrays import EMULATED

from korvex import exact
from korvex.exact import _operators, _products

IDS = torch.tensor([0, 2, 2, 1, 0, 2])


def drawn(*shape, seed=3, dtype=torch.float64):
    generator = torch.Generator().manual_seed(seed)
    return torch.randn(*shape, generator=generator, dtype=torch.float64).to(dtype)


def wanting(*shape, seed=3):
    return drawn(*shape, seed=seed).requires_grad_()


# By name: a function, and its operands.
FUNCTIONS = {
    "sum": (exact.sum, (6,)),
    "sum along axes": (lambda x: exact.sum(x, axis=(0, -1)), (2, 3, 4)),
    "mean": (exact.mean, (6,)),
    "mean along an axis": (lambda x: exact.mean(x, axis=1, keepdims=True), (2, 3)),
    "var": (lambda x: exact.var(x, correction=1), (6,)),
    "var along an axis": (lambda x: exact.var(x, axis=0), (4, 3)),
    "std": (lambda x: exact.std(x, correction=0.5), (6,)),
    "std along an axis": (lambda x: exact.std(x, axis=-1, keepdims=True), (3, 4)),
    "vector_norm": (exact.vector_norm, (2, 3)),
    "vector_norm along an axis": (lambda x: exact.vector_norm(x, axis=0), (4, 3)),
    "segment_sum": (lambda x: exact.segment_sum(x, IDS, 4), (6,)),
    "segment_sum of rows": (lambda x: exact.segment_sum(x, IDS, 4), (6, 2)),
}
PAIRS = {
    "vecdot": (exact.vecdot, (5,), (5,)),
    "vecdot, broadcast": (lambda x, y: exact.vecdot(x, y, axis=0), (4, 1, 3), (4, 2, 1)),
    "vecdot of ranks": (exact.vecdot, (2, 3, 4), (4,)),
    "matmul": (exact.matmul, (3, 4), (4, 2)),
    "matrix and vector": (exact.matmul, (3, 4), (4,)),
    "vector and matrix": (exact.matmul, (4,), (4, 2)),
    "vectors": (exact.matmul, (4,), (4,)),
    "matrices in batches": (exact.matmul, (2, 3, 4), (2, 4, 2)),
    "batches, broadcast": (exact.matmul, (3, 1, 2, 2), (2, 2, 3)),
    "batches of one, broadcast": (exact.matmul, (2, 1, 2, 2), (1, 3, 2, 1)),
    "batch and matrix": (exact.matmul, (3, 2, 4), (4, 2)),
    "matrix and batch": (exact.matmul, (2, 4), (3, 4, 2)),
    "batch and vector": (exact.matmul, (3, 2, 4), (4,)),
    "vector and batch": (exact.matmul, (4,), (3, 4, 2)),
}
CASES = {
    **{name: (f, [shape]) for name, (f, shape) in FUNCTIONS.items()},
    **{name: (f, [first, second]) for name, (f, first, second) in PAIRS.items()},
}
EACH = pytest.mark.parametrize(("function", "shapes"), CASES.values(), ids=CASES)


def operands(shapes):
    return [wanting(*shape, seed=seed) for seed, shape in enumerate(shapes)]


# --- Values and gradients


@EACH
def test_results_have_the_bits_of_plain_calls(function, shapes):
    watched = operands(shapes)
    result = function(*watched)
    assert result.requires_grad and result.dtype == torch.float64
    assert torch.equal(result.detach(), function(*(each.detach() for each in watched)))


@EACH
def test_gradients_are_those_of_differences(function, shapes):
    watched = operands(shapes)
    assert torch.autograd.gradcheck(function, watched)
    assert torch.autograd.gradgradcheck(function, watched)


PLAIN = {
    "sum along axes": lambda x: x.sum((0, 2)),
    "mean along an axis": lambda x: x.mean(1, keepdim=True),
    "var": lambda x: x.var(correction=1),
    "std along an axis": lambda x: x.std(-1, correction=0, keepdim=True),
    "vector_norm along an axis": lambda x: x.norm(dim=0),
    "vecdot, broadcast": lambda x, y: (x * y).sum(0),
    "matmul": torch.matmul,
}


@pytest.mark.parametrize("name", PLAIN)
def test_gradients_are_near_those_of_torch(name):
    function, shapes = CASES[name]
    watched = operands(shapes)
    found = torch.autograd.grad(function(*watched).sum(), watched)
    plain = torch.autograd.grad(PLAIN[name](*watched).sum(), watched)
    assert all(
        torch.allclose(a, b, rtol=1e-12, atol=1e-14) for a, b in zip(found, plain, strict=True)
    )


def test_gradients_of_products_are_exact_products():
    a = torch.tensor([[1e20, 1.0, 1e20], [3.0, 2.0, 1.0]], dtype=torch.float64, requires_grad=True)
    b = torch.tensor([[1e20, 1.0], [0.5, 2.0], [-1e20, 3.0]], dtype=torch.float64)
    given = torch.tensor([[1e20, 1.0], [-1e20, 0.5]], dtype=torch.float64)
    b.requires_grad_()
    by_a, by_b = torch.autograd.grad(exact.matmul(a, b), (a, b), given)
    assert torch.equal(by_a, exact.matmul(given, b.detach().T))
    assert torch.equal(by_b, exact.matmul(a.detach().T, given))
    narrow = a.detach().float().requires_grad_()
    [by_narrow] = torch.autograd.grad(exact.matmul(narrow, b), narrow, given)
    assert by_narrow.dtype == torch.float32
    assert torch.equal(by_narrow, exact.matmul(given, b.detach().T, dtype="float32"))


def test_gradients_of_what_was_broadcast_are_one_exact_product():
    """Summed over the batch before they are rounded: 1 is all that is left."""
    a = torch.tensor([[1.0, 2.0]], dtype=torch.float64, requires_grad=True)
    b = torch.ones(3, 2, 1, dtype=torch.float64)
    given = torch.tensor([1e20, 1.0, -1e20], dtype=torch.float64).reshape(3, 1, 1)
    [by_a] = torch.autograd.grad(exact.matmul(a, b), a, given)
    assert by_a.tolist() == [[1.0, 1.0]]
    vector = torch.ones(2, dtype=torch.float64, requires_grad=True)
    [by_vector] = torch.autograd.grad(exact.matmul(b.mT, vector), vector, given.reshape(3, 1))
    assert by_vector.tolist() == [1.0, 1.0]
    none = torch.ones(0, 1, 2, dtype=torch.float64)
    [by_vector] = torch.autograd.grad(exact.matmul(none, vector).sum(), vector)
    assert by_vector.tolist() == [0.0, 0.0]


def test_gradients_are_the_documented_ones():
    x = torch.tensor([1.0, 2.0, 4.0], dtype=torch.float64, requires_grad=True)

    def of(result):
        return torch.autograd.grad(result, x)[0].tolist()

    assert of(exact.sum(x) * 3) == [3.0] * 3
    assert of(exact.mean(x)) == [1 / 3] * 3
    deviations = x.detach() - exact.mean(x.detach())
    assert of(exact.var(x, correction=1)) == (2 / (3 - 1.0) * deviations).tolist()
    norm = exact.vector_norm(x.detach())
    assert of(exact.vector_norm(x)) == (1 / norm * x.detach()).tolist()
    ids = torch.tensor([1, 0, 1])
    assert of(exact.segment_sum(x, ids, 2) @ torch.tensor([5.0, 7.0]).double()) == [7.0, 5.0, 7.0]


def test_gradients_where_the_result_is_zero():
    x = torch.zeros(3, dtype=torch.float64, requires_grad=True)
    for function in (exact.std, exact.vector_norm):
        assert torch.autograd.grad(function(x), x)[0].tolist() == [0.0] * 3
    assert torch.autograd.grad(exact.var(x, correction=3), x)[0].isnan().all()


@pytest.mark.parametrize("dtype", [torch.float16, torch.bfloat16, torch.float32])
def test_gradients_have_the_dtype_of_their_operand(dtype):
    x = drawn(6, dtype=dtype).requires_grad_()
    y = drawn(6, seed=4)
    for result in (
        exact.sum(x),
        exact.std(x, dtype=dtype),
        exact.vecdot(x, y),
        exact.matmul(y, x),
        exact.segment_sum(x, IDS, 3).sum(),
    ):
        [by_x] = torch.autograd.grad(result, x)
        assert by_x.dtype == dtype and by_x.shape == x.shape


def test_complex_sums_have_gradients():
    z = torch.view_as_complex(drawn(5, 2)).requires_grad_()
    for function in (exact.sum, exact.mean):
        assert torch.autograd.gradcheck(function, z)


def test_no_gradient_is_kept_where_none_is_wanted():
    x = wanting(4)
    with torch.no_grad():
        assert not exact.sum(x).requires_grad
    assert not exact.sum(x.detach()).requires_grad
    y = drawn(4).long()
    assert torch.autograd.grad(exact.vecdot(x, y), x)[0].tolist() == y.tolist()


def test_training_takes_steps():
    weights = torch.nn.Parameter(torch.zeros(3, 1, dtype=torch.float64))
    inputs, wanted = drawn(20, 3), drawn(20, 1, seed=5)
    step = torch.optim.SGD([weights], lr=0.1)
    losses = []
    for _ in range(20):
        step.zero_grad()
        loss = exact.mean((exact.matmul(inputs, weights) - wanted) ** 2)
        loss.backward()
        step.step()
        losses.append(loss.item())
    assert losses == sorted(losses, reverse=True) and losses[-1] < losses[0]


# --- Registration

OPERATORS = {
    "sum": lambda: (wanting(2, 3), [1], True),
    "mean": lambda: (wanting(2, 3),),
    "var": lambda: (wanting(6), None, False, None, 1.0),
    "std": lambda: (wanting(2, 3), [0]),
    "vector_norm": lambda: (wanting(6), None, True, torch.float32),
    "vecdot": lambda: (wanting(2, 4), wanting(4, seed=4)),
    "matmul": lambda: (wanting(4, 1, 2, 3), wanting(5, 3, 2, seed=4)),
    "segment_sum": lambda: (wanting(6, 2), IDS, 3),
}


@pytest.mark.parametrize("name", OPERATORS)
def test_operators_are_the_functions(name):
    arguments = OPERATORS[name]()
    exact.sum(wanting(2))  # registers them
    operator = getattr(torch.ops.korvex_exact, name)
    with torch.no_grad():
        result = operator(*arguments)
    shape = torch.empty(result.shape, dtype=result.dtype, device="meta")
    on_meta = [each.to("meta") if isinstance(each, torch.Tensor) else each for each in arguments]
    inferred = operator(*on_meta)
    assert (inferred.shape, inferred.dtype) == (shape.shape, shape.dtype)


# --- Batches


@EACH
def test_batches_are_their_slices(function, shapes):
    batch = [drawn(3, *shape, seed=seed) for seed, shape in enumerate(shapes)]
    slices = torch.stack([function(*own) for own in zip(*batch, strict=True)])
    assert torch.equal(torch.func.vmap(function)(*batch), slices)
    behind = [each.movedim(0, -1) for each in batch]
    in_dims = (-1,) * len(batch)
    assert torch.equal(torch.func.vmap(function, in_dims=in_dims)(*behind), slices)
    first_alone = torch.func.vmap(function, in_dims=(0,) + (None,) * (len(batch) - 1))
    rest = [each[0] for each in batch[1:]]
    assert torch.equal(
        first_alone(batch[0], *rest), torch.stack([function(own, *rest) for own in batch[0]])
    )


@EACH
def test_transforms_find_the_same_gradients(function, shapes):
    batch = [drawn(3, *shape, seed=seed) for seed, shape in enumerate(shapes)]

    def loss(*own):
        return (function(*own) ** 2).sum()

    found = torch.func.vmap(torch.func.grad(loss))(*batch)
    for place, own in enumerate(zip(*batch, strict=True)):
        own = [each.clone().requires_grad_() for each in own]
        assert torch.allclose(found[place], torch.autograd.grad(loss(*own), own)[0], rtol=1e-12)
    jacobian = torch.func.jacrev(function)(*(each[0] for each in batch))
    assert torch.isfinite(jacobian).all()


def test_batches_of_segment_numbers():
    x, ids = drawn(2, 4), torch.tensor([[0, 1, 1, 0], [1, 1, 1, 0]])
    found = torch.func.vmap(lambda x, ids: exact.segment_sum(x, ids, 2))(x, ids)
    assert torch.equal(
        found, torch.stack([exact.segment_sum(*each, 2) for each in zip(x, ids, strict=True)])
    )


def test_empty_batches():
    assert torch.func.vmap(exact.sum)(torch.ones(0, 3)).shape == (0,)
    assert torch.func.vmap(exact.matmul)(torch.ones(0, 2, 3), torch.ones(0, 3)).shape == (0, 2)
    assert torch.func.vmap(exact.vecdot)(torch.ones(0, 3), torch.ones(0, 2, 3)).shape == (0, 2)
    with pytest.raises(ValueError, match="korvex_exact::segment_sum takes no batch of 0 elements"):
        torch.func.vmap(lambda x, ids: exact.segment_sum(x, ids, 2))(
            torch.ones(0, 3), torch.zeros(0, 3, dtype=torch.int64)
        )


@pytest.mark.parametrize(
    ("function", "shapes"),
    [
        (exact.matmul, [(5, 2, 3), (5, 3, 4)]),
        (exact.matmul, [(5, 3), (5, 2, 3, 4)]),
        (exact.matmul, [(5, 2, 2, 3), (5, 3)]),
        (lambda x, y: exact.vecdot(x, y, axis=0), [(5, 3, 2), (5, 3)]),
    ],
)
def test_a_batch_of_products_is_one_call(function, shapes, monkeypatch):
    calls = []

    def counted(plain):
        return lambda *operands, **options: (calls.append(plain), plain(*operands, **options))[1]

    for name in ("matmul", "vecdot"):
        monkeypatch.setattr(_products, name, counted(getattr(_products, name)))
    batch = [drawn(*shape, seed=seed) for seed, shape in enumerate(shapes)]
    found = torch.func.vmap(function)(*batch)
    assert len(calls) == 1
    slices = [function(*own) for own in zip(*batch, strict=True)]
    assert torch.equal(found, torch.stack(slices))


# --- Errors: as of plain calls

X = wanting(2, 3)
WRONG = {
    "axis": (lambda: exact.sum(X, axis=2), "axis 2 is out of range for an array with 2 axes"),
    "two axes": (lambda: exact.var(X, axis=(0, 0)), "axis (0, 0) names an axis twice"),
    "kind of axis": (
        lambda: exact.mean(X, axis=1.0),
        "axis must be None, an int or a tuple of them, not 1.0",
    ),
    "keepdims": (lambda: exact.sum(X, keepdims=1), "keepdims must be a bool, not int"),
    "dtype": (
        lambda: exact.std(X, dtype="int8"),
        "dtype must be float64, float32, float16 or bfloat16, not 'int8'",
    ),
    "correction": (
        lambda: exact.var(X, correction="1"),
        "correction must be a real number, not str",
    ),
    "ord": (lambda: exact.vector_norm(X, ord=1), "ord must be 2, not 1"),
    "libraries": (
        lambda: exact.vecdot(X, np.ones(3)),
        "x is a torch tensor on the CPU and y is a NumPy array: both must be of one kind",
    ),
    "matrices": (
        lambda: exact.matmul(X, X),
        "a has rows of 3 elements, and b has columns of 2",
    ),
    "batches": (
        lambda: exact.matmul(wanting(2, 2, 2), wanting(3, 2, 2)),
        "a has batches of the shape (2,) and b of (3,): they must be equal, or 1 where they are "
        "not",
    ),
    "no axes": (
        lambda: exact.matmul(wanting(2, 2), wanting(1)[0]),
        "b has 0 axes: korvex.exact.matmul takes matrices and vectors",
    ),
    "segment": (
        lambda: exact.segment_sum(X, torch.tensor([0, 7]), 3),
        "ids[1] is 7, not from 0 to 2",
    ),
    "segments": (
        lambda: exact.segment_sum(X, torch.tensor([0, 1]), 2.0),
        "num_segments must be an int, not float",
    ),
    "group": (
        lambda: exact.sum(X, group=object()),
        "group must be None where torch watches a call: sum over processes has no gradient",
    ),
    "complex var": (
        lambda: exact.var(torch.ones(2, dtype=torch.complex64, requires_grad=True)),
        "x is complex, and var takes real arrays only",
    ),
    "complex vecdot": (
        lambda: exact.vecdot(torch.ones(2, dtype=torch.complex64), wanting(2)),
        "x is complex, and a gradient of vecdot takes real arrays only",
    ),
    "fine correction": (
        lambda: exact.var(X, correction=2**53 + 1),
        "correction must be a float64 number for torch, not 9007199254740993",
    ),
}


@pytest.mark.parametrize(("call", "text"), WRONG.values(), ids=WRONG)
def test_wrong_arguments(call, text):
    with pytest.raises((TypeError, ValueError, IndexError), match=f"^{re.escape(text)}$"):
        call()


@pytest.mark.skipif(not EMULATED, reason="the device is not emulated")
def test_the_emulated_device_has_no_gradients():
    x = torch.ones(2, device="cuda").requires_grad_()
    with pytest.raises(TypeError, match="x requires grad, and no gradient is computed here"):
        exact.sum(x)


def test_transforms_of_other_functions_are_refused():
    text = "x is traced by torch, for compilation or a transform, and this function is no operator"
    for function in (exact.cumulative_sum, exact.Sum().add, lambda x: exact.bincount(IDS[:3], x)):
        with pytest.raises(TypeError, match=text.replace("x", "(x|weights)", 1)):
            torch.func.vmap(function)(drawn(2, 3))


# --- Which calls go through operators


def test_plain_calls_do_not_go_through_operators(monkeypatch):
    def refused(*_, **__):
        raise AssertionError

    x, y = drawn(4), drawn(4, seed=5)
    exact.sum(wanting(1))
    for module in (exact._functions, exact._products, exact._segments):
        monkeypatch.setattr(module, "through_operator", refused)
    exact.sum(x), exact.std(x), exact.vecdot(x, y), exact.matmul(x, y)
    exact.sum(x.numpy()), exact.segment_sum(x, torch.tensor([0, 1, 1, 0]), 2)
    with pytest.raises(AssertionError):
        exact.sum(wanting(2))


def test_a_failing_kernel_leaves_the_next_call_watched():
    with pytest.raises(IndexError):
        exact.segment_sum(X, torch.tensor([0, 7]), 3)
    assert not _operators.kernels.at_work
    assert exact.sum(X).requires_grad


# --- In a process of its own: torch neither compiles nor exports where its tensors are emulated

PROGRAM = Path(__file__).with_name("compiled_operators.py")


@pytest.mark.parametrize("part", ["opcheck", "compile", "inductor", "export", "forward_mode"])
def test_compilation_and_export(part):
    run = subprocess.run(
        [sys.executable, "-P", PROGRAM, part], capture_output=True, text=True, timeout=600
    )
    assert run.returncode == 0, run.stdout + run.stderr
    assert run.stdout.endswith(f"{part}: done\n")


def test_torch_is_not_imported_by_the_decision():
    program = (
        "import sys, numpy\nfrom korvex import exact\n"
        "exact.sum(numpy.ones(2)), exact.matmul(numpy.ones(2), numpy.ones(2))\n"
        "assert 'torch' not in sys.modules and 'korvex.exact._torch_operators' not in sys.modules\n"
        "import torch\nexact.sum(torch.ones(2))\n"
        "assert 'korvex.exact._torch_operators' not in sys.modules\n"
    )
    run = subprocess.run([sys.executable, "-P", "-c", program], capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
