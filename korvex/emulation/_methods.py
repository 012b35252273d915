# SPDX-License-Identifier: Apache-2.0
"""The methods and attributes of emulated tensors that need not wait for torch to ask the class.

torch takes most of a microsecond to find out that a tensor has a class of its own and what that
does with an operation. Those of its methods and attributes that have a short way stand in the class
themselves: they go it at once where torch would ask, and leave everything else to torch.
"""

from __future__ import annotations

import functools
import inspect
import types
from collections.abc import Callable
from typing import Any

import torch

from korvex.emulation import _native
from korvex.emulation._dispatch import ANSWERED_BY_THE_CLASS, short_way
from korvex.emulation._tensor import Tensor

_FUNCTIONS = (types.MethodDescriptorType, types.WrapperDescriptorType, types.FunctionType)
# To call a method of a class the interpreter makes an object; where it has no memory for that, it
# takes a class for one without these methods, and forgets the MemoryError.
_LEFT_TO_TORCH = {
    "__eq__",
    "__ge__",
    "__gt__",
    "__hash__",
    "__iter__",
    "__le__",
    "__lt__",
    "__ne__",
}


def install() -> None:
    """Give the class of emulated tensors what torch's class has of short ways."""
    names = set(dir(torch.Tensor))
    for name in sorted(names - vars(Tensor).keys() - ANSWERED_BY_THE_CLASS - _LEFT_TO_TORCH):
        found = inspect.getattr_static(torch.Tensor, name)
        if getattr(found, "__objclass__", torch._C.TensorBase) is not torch._C.TensorBase:
            continue  # of every object
        if isinstance(found, types.GetSetDescriptorType) and (get := _method(found.__get__)):
            change = _method(found.__set__)
            setattr(Tensor, name, property(get, change, found.__delete__, found.__doc__))
        elif isinstance(found, _FUNCTIONS):
            is_reflected = name.startswith("__r") and f"__{name[3:]}" in names
            otherwise = _reflected(found) if is_reflected else found
            if method := _method(found, otherwise):
                setattr(Tensor, name, _native.bindable(method))


def _method(
    function: Callable[..., Any], otherwise: Callable[..., Any] | None = None
) -> Callable[..., Any] | None:
    """The function for a class, or None where the operation has no short way."""
    way = short_way(function)
    if way is None:
        return None
    return _native.method(
        otherwise or function,
        way,
        torch._C._is_torch_function_enabled,
        torch._C._is_torch_function_mode_enabled,
        Tensor.__torch_function__,
    )


def _reflected(function: Callable[..., Any]) -> Callable[..., Any]:
    """Leave an operation with a CPU tensor on the left to that tensor.

    Python asks the right operand first where its class is derived from that of the left one and has
    a method of its own.
    """

    @functools.wraps(function)
    def method(self: Any, other: Any) -> Any:
        if isinstance(other, torch.Tensor) and not isinstance(other, Tensor):
            return NotImplemented
        return function(self, other)

    return method
