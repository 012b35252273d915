# SPDX-License-Identifier: Apache-2.0
"""How a function becomes an operator of torch: kernel, shape of the result, gradient, batches.

`torch.library` keeps operators that compilers and export see. Transforms of `torch.func` do not go
through the gradients that are registered there, so where one is at work the same rules are applied
by an autograd function around the operator.
"""

from __future__ import annotations

from collections.abc import Callable
from functools import partial
from typing import Any

import torch

from korvex.exact._operators import kernels


def with_kernels(function: Callable[..., Any], *arguments: Any) -> Any:
    """Call a function so that it computes on tensors instead of calling an operator."""
    kernels.at_work = True
    try:
        return function(*map(_detached, arguments))
    finally:
        kernels.at_work = False


def _detached(value: Any) -> Any:
    return value.detach() if isinstance(value, torch.Tensor) else value


class Operator:
    """`korvex_exact::name`; call it with all of its arguments.

    Parameters
    ----------
    name, schema : str
        The parameters in torch's notation.
    function : callable
        What it computes, on plain tensors without gradients.
    shape : callable
        Returns an empty tensor like the result.
    keep, backward : callable
        As `torch.library.register_autograd` takes them.
    batch : callable, optional
        Of what to call, the batch dimensions and the arguments: the result of a batch in one call,
        and where its batch dimension is; or None where there is no such call.
    """

    def __init__(
        self,
        name: str,
        schema: str,
        function: Callable[..., Any],
        shape: Callable[..., Any],
        keep: Callable[..., None],
        backward: Callable[..., Any],
        batch: Callable[..., tuple[Any, int] | None] | None = None,
    ) -> None:
        self.name = f"korvex_exact::{name}"
        self._registered = torch.library.custom_op(
            self.name,
            lambda *arguments: with_kernels(function, *arguments),
            mutates_args=(),
            schema=f"({schema}) -> Tensor",
        )
        self._batch_in_one = batch
        self._registered.register_fake(shape)
        self._registered.register_autograd(backward, setup_context=keep)
        self._registered.register_vmap(partial(self._batch, self._registered))
        rules = {
            "forward": staticmethod(self._registered),
            "setup_context": staticmethod(keep),
            "backward": staticmethod(backward),
            "vmap": staticmethod(partial(self._batch, self)),
        }
        self._transformed: Any = type(f"{name}Function", (torch.autograd.Function,), rules)

    def __call__(self, *arguments: Any) -> Any:
        if not torch.compiler.is_dynamo_compiling():
            if torch._C._functorch.peek_interpreter_stack() is not None:
                return self._transformed.apply(*arguments)
        return self._registered(*arguments)

    def _batch(
        self, call: Callable[..., Any], info: Any, in_dims: Any, *arguments: Any
    ) -> tuple[Any, int]:
        """The result of a batch: in one call, or of its slices one after the other.

        `call` is this operator, or as it is registered where a compiler sees through the batch.
        """
        # Of an argument that is a list, in_dims has a list.
        dims = [dim if isinstance(dim, int) else None for dim in in_dims]
        in_one = self._batch_in_one(call, dims, *arguments) if self._batch_in_one else None
        if in_one is not None:
            return in_one
        if info.batch_size == 0:
            raise ValueError(f"{self.name} takes no batch of 0 elements")
        slices = []
        for place in range(info.batch_size):
            own = [
                each if dim is None else each.select(dim, place)
                for each, dim in zip(arguments, dims, strict=True)
            ]
            slices.append(call(*own))
        return torch.stack(slices), 0
