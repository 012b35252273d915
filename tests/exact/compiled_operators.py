# SPDX-License-Identifier: Apache-2.0
"""Operators of torch, checked, compiled and exported: run by `test_torch_operators.py`.

A process of its own, as torch neither compiles nor exports where its tensors are emulated.
"""

import sys

import torch

from korvex import exact

IDS = torch.tensor([0, 2, 2, 1, 0, 2])


def drawn(*shape: int, seed: int = 3) -> torch.Tensor:
    generator = torch.Generator().manual_seed(seed)
    return torch.randn(*shape, generator=generator, dtype=torch.float64).requires_grad_()


# By operator: a call of the function, its operands, and arguments of the operator itself.
CASES = {
    "sum": (lambda x: exact.sum(x, axis=1), [drawn(2, 3)], lambda x: (x, [1], True)),
    "mean": (exact.mean, [drawn(2, 3)], lambda x: (x,)),
    "var": (
        lambda x: exact.var(x, axis=-1, correction=1),
        [drawn(2, 3)],
        lambda x: (x, None, False, None, 1.0),
    ),
    "std": (lambda x: exact.std(x, keepdims=True), [drawn(6)], lambda x: (x, [0])),
    "vector_norm": (
        lambda x: exact.vector_norm(x, dtype=torch.float32),
        [drawn(6)],
        lambda x: (x, None, True, torch.float32),
    ),
    "vecdot": (exact.vecdot, [drawn(2, 4), drawn(4, seed=4)], lambda *both: both),
    "matmul": (exact.matmul, [drawn(4, 1, 2, 3), drawn(5, 3, 2, seed=4)], lambda *both: both),
    "segment_sum": (
        lambda x: exact.segment_sum(x, IDS, 3),
        [drawn(6, 2)],
        lambda x: (x, IDS, 3),
    ),
}


def opcheck() -> None:
    exact.sum(drawn(1))  # registers them
    for name, (_, operands, arguments) in CASES.items():
        operator = getattr(torch.ops.korvex_exact, name).default
        found = torch.library.opcheck(operator, arguments(*operands))
        assert found and set(found.values()) == {"SUCCESS"}, (name, found)


def compile_with(backend: str, names: list[str]) -> None:
    for name in names:
        function, operands, _ = CASES[name]
        compiled = torch.compile(function, fullgraph=True, backend=backend)
        result, plain = compiled(*operands), function(*operands)
        assert torch.equal(result, plain), name
        given = torch.ones_like(plain)
        gradients = torch.autograd.grad(result, operands, given)
        for found, wanted in zip(
            gradients, torch.autograd.grad(plain, operands, given), strict=True
        ):
            assert torch.equal(found, wanted), name
        without = [each.detach() for each in operands]
        assert torch.equal(compiled(*without), plain.detach()), name


def compile_() -> None:
    compile_with("aot_eager", list(CASES))
    dynamic = torch.compile(exact.mean, fullgraph=True, backend="aot_eager", dynamic=True)
    for length in (3, 5, 8):
        assert torch.equal(dynamic(drawn(length)), exact.mean(drawn(length)))
    others = torch.compile(exact.cumulative_sum, fullgraph=True, backend="aot_eager")
    try:
        others(drawn(3).detach())
    except Exception as error:  # of Dynamo's own class, around the TypeError
        assert "this function is no operator of torch" in str(error), error
    else:
        raise AssertionError
    batched = torch.compile(torch.func.vmap(exact.sum), fullgraph=True, backend="aot_eager")
    x = drawn(3, 4).detach()
    assert torch.equal(batched(x), exact.sum(x, axis=1))


def inductor() -> None:
    compile_with("inductor", ["std", "matmul"])


class Model(torch.nn.Module):
    def forward(self, x: torch.Tensor, weights: torch.Tensor) -> torch.Tensor:
        products = exact.matmul(x, weights)
        return exact.segment_sum(products, IDS, 3) + exact.std(x, axis=0) + exact.mean(products)


def export() -> None:
    x, weights = drawn(6, 2).detach(), drawn(2, 2, seed=5).detach()
    for strict in (False, True):
        program = torch.export.export(Model(), (x, weights), strict=strict)
        targets = [str(node.target) for node in program.graph.nodes if node.op == "call_function"]
        ours = [target for target in targets if target.startswith("korvex_exact.")]
        assert sorted(ours) == [
            f"korvex_exact.{name}.default" for name in ("matmul", "mean", "segment_sum", "std")
        ], targets
        assert torch.equal(program.module()(x, weights), Model()(x, weights))


def forward_mode() -> None:
    x = drawn(3).detach()
    try:
        torch.func.jvp(exact.sum, (x,), (x,))
    except RuntimeError as error:
        assert "forward mode AD" in str(error)
    else:
        raise AssertionError


PARTS = {
    "opcheck": opcheck,
    "compile": compile_,
    "inductor": inductor,
    "export": export,
    "forward_mode": forward_mode,
}

if __name__ == "__main__":
    PARTS[sys.argv[1]]()
    print(f"{sys.argv[1]}: done")
