# SPDX-License-Identifier: Apache-2.0
"""Gradients and saved tensors in a user's `torch.autograd.Function`.

torch's engine makes the tensors that it hands to `backward` itself, and so does `saved_tensors`:
they are host tensors of the plain class. Which of them are on the emulated device is known when the
function is applied, from its inputs, its outputs and what it saves, and is kept on its node of the
graph. A tensor that the engine hands over may be one that the caller holds as a CPU tensor, so the
node gets another object over the same memory.
"""

from __future__ import annotations

import functools
from collections.abc import Callable, Iterable
from typing import Any

import torch
from torch.autograd.function import BackwardCFunction, Function, FunctionCtx

from korvex.emulation._patches import Patches
from korvex.emulation._tensor import DEVICE, Tensor, adopt, host_alias

# Attributes of a node; each holds a list with one bool for each input, output or saved value.
_INPUTS = "_korvex_emulated_inputs"
_OUTPUTS = "_korvex_emulated_outputs"
_SAVED = "_korvex_emulated_saved"

# The engine runs inside `as_host`; the user's code that it calls must not.
_as_in_user_code = torch._C._EnableTorchFunction


def install(patches: Patches) -> None:
    """Replace what torch calls around a user's `forward` and `backward`."""
    patches.set(Function, "apply", classmethod(_apply(vars(Function)["apply"].__func__)))
    patches.set(FunctionCtx, "save_for_backward", _save(FunctionCtx.save_for_backward))
    patches.set(BackwardCFunction, "saved_tensors", property(_saved_tensors))
    patches.set(BackwardCFunction, "apply", _backward(BackwardCFunction.apply))
    if hasattr(BackwardCFunction, "apply_boxed"):  # torch 2.13 and later
        boxed = _backward_boxed(BackwardCFunction.apply_boxed)
        patches.set(BackwardCFunction, "apply_boxed", boxed)


def _are_emulated(values: Iterable[Any]) -> list[bool]:
    return [isinstance(value, Tensor) for value in values]


def _as_tuple(values: Any) -> tuple[Any, ...]:
    return values if isinstance(values, tuple) else (values,)


def _apply(original: Callable[..., Any]) -> Callable[..., Any]:
    @functools.wraps(original)
    def apply(cls: Any, *args: Any, **kwargs: Any) -> Any:
        result = original(cls, *args, **kwargs)
        outputs = [value for value in _as_tuple(result) if isinstance(value, torch.Tensor)]
        _adopt_returned_inputs(args, outputs)
        for output in outputs:
            if isinstance(output.grad_fn, cls._backward_cls):
                setattr(output.grad_fn, _INPUTS, _are_emulated(args))
                setattr(output.grad_fn, _OUTPUTS, _are_emulated(_as_tuple(result)))
        return result

    return apply


def _adopt_returned_inputs(args: tuple[Any, ...], outputs: list[torch.Tensor]) -> None:
    """An input that `forward` returns comes out as a new view of it, of the plain class."""
    memory = {_memory(value) for value in args if isinstance(value, Tensor)}
    for output in outputs:
        if type(output) is torch.Tensor and memory and _memory(output) in memory:
            adopt(output)


def _memory(tensor: torch.Tensor) -> int:
    return host_alias(tensor.detach()).untyped_storage()._cdata


def _save(original: Callable[..., Any]) -> Callable[..., Any]:
    @functools.wraps(original)
    def save_for_backward(self: Any, *tensors: Any) -> None:
        setattr(self, _SAVED, _are_emulated(tensors))
        original(self, *tensors)

    return save_for_backward


def _saved_tensors(self: Any) -> tuple[Any, ...]:
    saved = torch._C._FunctionBase.saved_tensors.__get__(self)
    return tuple(_marked(saved, getattr(self, _SAVED, ())))


def _marked(values: Iterable[Any], emulated: Iterable[bool]) -> list[Any]:
    """The values, those on the emulated device as tensors of its class."""
    marks = [*emulated]
    marks += [False] * (len(values := list(values)) - len(marks))
    return [
        adopt(host_alias(value)) if mark and type(value) is torch.Tensor else value
        for value, mark in zip(values, marks, strict=True)
    ]


def _backward(original: Callable[..., Any]) -> Callable[..., Any]:
    @functools.wraps(original)
    def apply(self: Any, *gradients: Any) -> Any:
        with _as_in_user_code():
            result = original(self, *_marked(gradients, getattr(self, _OUTPUTS, ())))
        return _checked(self, result)

    return apply


def _backward_boxed(original: Callable[..., Any]) -> Callable[..., Any]:
    @functools.wraps(original)
    def apply_boxed(self: Any, gradients: list[Any]) -> Any:
        gradients[:] = _marked(gradients, getattr(self, _OUTPUTS, ()))
        with _as_in_user_code():
            result = original(self, gradients)
        return _checked(self, result)

    return apply_boxed


def _checked(node: Any, result: Any) -> Any:
    """Refuse a gradient on another device than its input, except one without dimensions."""
    emulated = getattr(node, _INPUTS, ())
    for index, (gradient, mark) in enumerate(zip(_as_tuple(result), emulated, strict=False)):
        if isinstance(gradient, torch.Tensor) and gradient.dim() > 0:
            if isinstance(gradient, Tensor) != mark:
                # In the words of torch, since programs and tests look for them.
                expected, found = (DEVICE, "cpu") if mark else ("cpu", DEVICE)
                raise RuntimeError(
                    f"Function {node.name()} returned an invalid gradient at index {index} - "
                    f"expected device {expected} but got {found}"
                )
    return result
