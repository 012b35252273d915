# SPDX-License-Identifier: Apache-2.0
"""The torch operations that the functions use, each against torch on the CPU, and the table itself.

The emulated device does them with torch's own host arithmetic, so results are compared bit by bit;
division by a number, where CUDA rounds differently, has tests of its own.
"""

import operator

import device
import pytest
import torch

from korvex import emulation
from korvex.emulation import _coverage, _dispatch

pytestmark = pytest.mark.skipif(
    not device.choose().emulated, reason="compares the bits of torch on the CPU and on a GPU"
)

HERE = torch.device("cuda", 0)


def operands(where):
    generator = torch.Generator().manual_seed(11)

    def random(*shape):
        return torch.randn(*shape, dtype=torch.float64, generator=generator).to(where)

    return random(6), random(6), random(4, 4)


def exchanged(m):
    """Two slices of the last axis exchanged in one assignment, as the radix-2 transform does."""
    c = m.clone()
    c[..., 0], c[..., 3] = c[..., 3].clone(), c[..., 0].clone()
    return c


def member_assigned(m):
    """A member of a stack of zeros assigned as a whole, as the convolutions do."""
    stack = torch.zeros(2, 4, 4, dtype=torch.float64, device=m.device)
    stack[1] = m
    return stack


# x and y are vectors of six elements, m is a matrix of four rows; all are float64.
OPERATIONS = {
    # methods
    "double": lambda x, y, m: x.float().double(),
    "contiguous": lambda x, y, m: m.t().contiguous(),
    "view": lambda x, y, m: x.view(2, 3),
    "reshape": lambda x, y, m: m.t().reshape(-1),
    "flatten": lambda x, y, m: m.flatten(),
    "squeeze": lambda x, y, m: [m[:1].squeeze(), m[:1].squeeze(0)],
    "unsqueeze": lambda x, y, m: x.unsqueeze(-1),
    "expand": lambda x, y, m: x.expand(3, 6),
    "expand_as": lambda x, y, m: x[:4].expand_as(m),
    "narrow": lambda x, y, m: x.narrow(0, 1, 3),
    "clone": lambda x, y, m: x.clone(),
    "abs": lambda x, y, m: [x.abs(), torch.abs(x), abs(x)],
    "max": lambda x, y, m: [x.max(), m.max(0).values, m.max(1, True).indices],
    "min": lambda x, y, m: [x.min(), m.min(0).indices],
    "argmin": lambda x, y, m: [x.argmin(), x.flatten().argmin()],
    "argmax": lambda x, y, m: x.argmax(),
    "sum": lambda x, y, m: [x.sum(), m.sum(dim=0), m.sum(dim=-1, keepdim=True)],
    "t": lambda x, y, m: [m.t(), m.T, m.mT],
    "conj": lambda x, y, m: torch.complex(x, y).conj() * 1,
    "real": lambda x, y, m: [torch.complex(x, y).real, torch.complex(x, y).imag],
    "indexing": lambda x, y, m: [m[0], m[1:, ::2], m[..., None], m[m > 0], m[[1, 2]], m[0, 1]],
    "indexing of the last axis": lambda x, y, m: [m[..., 1], m[..., 1:-1], exchanged(m)],
    "diag": lambda x, y, m: [torch.diag(x), torch.diag(m)],
    # factories of an operand
    "zeros_like": lambda x, y, m: torch.zeros_like(m),
    "ones_like": lambda x, y, m: torch.ones_like(m),
    # operators
    "add": lambda x, y, m: [x + y, x + 2.5, 2 + x, x + True],
    "sub": lambda x, y, m: [x - y, x - 2 * torch.pi, 1.0 - x],
    "mul": lambda x, y, m: [x * y, x * 3, 0.5 * x],
    "div": lambda x, y, m: [x / y, 1.0 / x, x / y[0]],
    "pow": lambda x, y, m: [x**2, 2**x, x.abs() ** y],
    "neg": lambda x, y, m: [-x, +x],
    "mod": lambda x, y, m: [x % y, x % 2, 2 % x],
    "compare": lambda x, y, m: [x == y, x != y, x < y, x <= 0, x > y, x >= 0],
    "logic": lambda x, y, m: [(x > 0) & (y > 0), (x > 0) | (y > 0), (x > 0) ^ (y > 0), ~(x > 0)],
    "matmul operator": lambda x, y, m: m @ m,
    "in place": lambda x, y, m: [
        operator.iadd(x.clone(), y),
        operator.isub(x.clone(), y),
        operator.imul(x.clone(), y),
        operator.itruediv(x.clone(), y),
        operator.ipow(x.clone(), 2),
    ],
    # functions
    "cat": lambda x, y, m: [torch.cat([x, y]), torch.cat((m, m), dim=1)],
    "stack": lambda x, y, m: [torch.stack([x, y]), torch.stack([x, y], -1)],
    "flip": lambda x, y, m: torch.flip(m, dims=[-1]),
    "where": lambda x, y, m: [torch.where(x > y, x, y), torch.where(x > 0, x, 0.0)],
    "broadcast_tensors": lambda x, y, m: torch.broadcast_tensors(x.view(6, 1), y),
    "remainder": lambda x, y, m: torch.remainder(x, 2 * torch.pi),
    "fmod": lambda x, y, m: torch.fmod(x, y),
    "rounding": lambda x, y, m: [f(x * 3) for f in (torch.floor, torch.ceil, torch.trunc)],
    "round": lambda x, y, m: [torch.round(x * 3), x.round(decimals=1)],
    "sign": lambda x, y, m: torch.sign(x),
    "clamp": lambda x, y, m: [torch.clamp(x, -0.5, 0.5), torch.clamp(x, min=y), x.clamp(max=0)],
    "sqrt": lambda x, y, m: torch.sqrt(x.abs()),
    "cos, sin": lambda x, y, m: [torch.cos(x), torch.sin(x)],
    "log2": lambda x, y, m: torch.log2(x.abs()),
    "complex": lambda x, y, m: torch.complex(x, y),
    "complex of scalars": lambda x, y, m: torch.complex(torch.cos(x[0]), torch.sin(y[0])),
    "complex operators": lambda x, y, m: [
        torch.complex(x, y) * torch.complex(x[0], y[0]),
        torch.complex(x, y) + torch.complex(y, x),
        torch.complex(x, y) - torch.complex(y, x),
        torch.complex(x, y) / 8,
        -torch.complex(x, y),
    ],
    "flip of conjugates": lambda x, y, m: torch.flip(torch.complex(x, y)[..., 1:-1].conj(), [-1]),
    "comparisons": lambda x, y, m: [
        f(x, y) for f in (torch.eq, torch.ne, torch.lt, torch.le, torch.gt, torch.ge)
    ],
    "einsum": lambda x, y, m: [torch.einsum("i,i->", x, y), torch.einsum("ij,jk->ik", m, m)],
    "linalg.solve": lambda x, y, m: torch.linalg.solve(m, m[0]),
    "linalg.lu_factor": lambda x, y, m: list(torch.linalg.lu_factor(m)),
    "fft": lambda x, y, m: [torch.fft.fft(x), torch.fft.fft(x, n=8, dim=-1)],
    "ifft": lambda x, y, m: torch.fft.ifft(torch.fft.fft(x), n=6),
    "fft along a dimension": lambda x, y, m: [
        torch.fft.fft(m, n=None, dim=0),
        torch.fft.ifft(torch.fft.fft(m, dim=0), n=None, dim=0),
    ],
    "pad": lambda x, y, m: torch.nn.functional.pad(m.view(1, 1, 4, 4), (1, 1, 1, 1)),
    "unfold": lambda x, y, m: torch.nn.functional.unfold(m.view(1, 1, 4, 4), (2, 2), stride=1),
    "fold": lambda x, y, m: torch.nn.functional.fold(m.view(1, 4, 4), (3, 3), (2, 2)),
    "fold with padding": lambda x, y, m: torch.nn.functional.fold(
        m.view(1, 4, 4), (4, 4), (2, 2), stride=2, padding=0
    ),
    "unfold with stride": lambda x, y, m: torch.nn.functional.unfold(
        m.view(1, 1, 4, 4), (3, 1), stride=2
    ),
    "assignment of a member": lambda x, y, m: member_assigned(m),
    "solve for columns": lambda x, y, m: [
        torch.linalg.solve(m, m),
        torch.linalg.solve(m, torch.eye(4, dtype=torch.float64, device=m.device)),
    ],
    "pivots": lambda x, y, m: [pivot != 2 for pivot in torch.linalg.lu_factor(m)[1]],
    "dot": lambda x, y, m: [torch.dot(x, y), x.dot(y), torch.outer(x, y)],
    "statistics": lambda x, y, m: [x.mean(), x.var(), x.std(), x.norm(), x.prod(), x.cumsum(0)],
    "logsumexp": lambda x, y, m: torch.logsumexp(x, 0),
    "sort": lambda x, y, m: list(x.sort(descending=True)),
}


def flat(results):
    return [results] if isinstance(results, torch.Tensor) else list(results)


def bits(tensor):
    host = tensor.cpu().resolve_conj().contiguous()
    return str(host.dtype), tuple(host.shape), host.numpy().tobytes()


@pytest.mark.parametrize("operation", OPERATIONS.values(), ids=OPERATIONS)
def test_operation_gives_the_bits_of_the_cpu_on_the_device(operation):
    results = flat(operation(*operands("cuda")))
    expected = flat(operation(*operands("cpu")))
    assert [result.device for result in results] == [HERE] * len(expected)
    assert list(map(bits, results)) == list(map(bits, expected))


QUERIES = {
    "numel": lambda x, m: (x.numel(), m.nelement(), torch.numel(m)),
    "shape": lambda x, m: (x.shape, m.size(), m.size(-1), m.stride()),
    "ndim": lambda x, m: (x.ndim, m.dim(), m.ndimension()),
    "dtype": lambda x, m: (x.dtype, m.float().dtype, x.element_size(), x.itemsize),
    "kind": lambda x, m: (x.is_complex(), x.is_floating_point(), x.is_contiguous()),
    "transposed": lambda x, m: (m.t().is_contiguous(), m.t().stride(), m[1:].storage_offset()),
    "item": lambda x, m: (x[0].item(), m.sum().item()),
    "attributes": lambda x, m: (x.requires_grad, x.is_leaf, x.grad, x.grad_fn, x.layout),
    "flags": lambda x, m: (x.is_sparse, x.is_quantized, x.is_meta, x.is_nested, x.is_mkldnn),
    "types": lambda x, m: (torch.result_type(x, 3), torch.is_tensor(x), torch.is_complex(x)),
    "equality": lambda x, m: (torch.equal(x, x.clone()), torch.allclose(m, m + 1)),
    "broadcast_shapes": lambda x, m: torch.broadcast_shapes(x.shape, (3, 1)),
}


@pytest.mark.parametrize("query", QUERIES.values(), ids=QUERIES)
def test_query_has_the_answer_of_the_cpu(query):
    x, _, m = operands("cuda")
    host_x, _, host_m = operands("cpu")
    assert query(x, m) == query(host_x, host_m)


def test_comparison_helpers_of_torch_work():
    x, y, _ = operands("cuda")
    torch.testing.assert_close(x, x.clone(), rtol=0, atol=0)
    with pytest.raises(AssertionError, match="not close"):
        torch.testing.assert_close(x, y)
    with pytest.raises(AssertionError, match="cuda:0 != cpu"):
        torch.testing.assert_close(x, x.cpu())


# --- What the table does not hold


def test_operation_outside_the_table_is_refused():
    x, _, _ = operands("cuda")
    for name, refused in (
        ("gelu", lambda: torch.nn.functional.gelu(x)),
        ("erfinv", lambda: x.erfinv()),
        ("__floordiv__", lambda: x // 2),
        ("untyped_storage", lambda: x.untyped_storage()),
        ("sparse_coo_tensor", lambda: torch.sparse_coo_tensor([[0]], x[:1], (3,))),
    ):
        with pytest.raises(NotImplementedError, match=f"not cover the torch operation {name!r}"):
            refused()


def test_cpu_tensors_are_not_concerned():
    assert torch.nn.functional.gelu(torch.zeros(1)).item() == 0.0
    assert torch.sparse_coo_tensor([[0]], torch.ones(1), (3,), check_invariants=True).is_sparse
    assert (torch.tensor([7]) // 2).item() == 3


def test_memory_is_not_lent_to_other_libraries():
    x, _, _ = operands("cuda")
    assert not hasattr(x, "__cuda_array_interface__")
    assert x.__dlpack_device__()[0] == torch.utils.dlpack.DLDeviceType.kDLCUDA
    with pytest.raises(BufferError):
        x.__dlpack__()


def test_user_can_cover_more(monkeypatch):
    monkeypatch.setitem(_coverage.TABLE, "same device", set(_coverage.TABLE["same device"]))
    x, _, _ = operands("cuda")
    emulation.cover(torch.nn.functional.gelu, "erf")
    assert torch.nn.functional.gelu(x).device == x.erf().device == HERE
    assert "gelu" in emulation.covered()["same device"]
    emulation.cover("linear")
    with pytest.raises(RuntimeError, match="same device"):
        torch.nn.functional.linear(x, x.cpu().view(1, 6))
    with pytest.raises(ValueError, match="'to' under the rule 'device'"):
        emulation.cover("to")
    monkeypatch.undo()
    _dispatch.rule_of.cache_clear()


def test_fused_product_and_sum_is_covered_where_torch_has_it(monkeypatch):
    """torch 2.13 has none: a function of that name stands in, dispatched as torch does its own."""

    def fma(*operands):
        if torch.overrides.has_torch_function(operands):
            return torch.overrides.handle_torch_function(fma, operands, *operands)
        return torch.addcmul(operands[2], operands[0], operands[1])

    if not hasattr(torch, "fma"):
        monkeypatch.setattr(torch, "fma", fma, raising=False)
    x, y, _ = operands("cuda")
    assert torch.fma(x, y, -(x * y)).device == HERE


# --- The table itself


def names_in_torch():
    functions = torch.overrides.get_testing_overrides()
    names = {function.__name__ for function in functions if hasattr(function, "__name__")}
    return names | set(dir(torch)) | set(dir(torch.Tensor))


def test_every_name_in_the_table_is_one_of_torch():
    known = names_in_torch() | {"fma"}  # of later torch
    unknown = {
        name
        for names in emulation.covered().values()
        for name in names
        if not {name, f"__{name}__"} & known
    }
    assert unknown == set()


def test_no_name_stands_in_the_table_twice():
    names = [name for group in emulation.covered().values() for name in group]
    assert sorted(names) == sorted(set(names))


def test_every_rule_of_the_table_exists():
    assert set(emulation.covered()) == set(_dispatch.RULES)
