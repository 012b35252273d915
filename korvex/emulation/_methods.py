# SPDX-License-Identifier: Apache-2.0
"""The methods and attributes of emulated tensors that need not wait for torch to ask the class.

torch takes most of a microsecond to find out that a tensor has a class of its own and what that
does with an operation. Those of its methods and attributes that have a short way stand in the class
themselves: they go it at once where torch would ask, and leave everything else to torch.
"""

from __future__ import annotations

import inspect
import types
from collections.abc import Callable
from typing import Any

import torch

from korvex.emulation import _native
from korvex.emulation._dispatch import ANSWERED_BY_THE_CLASS, short_way
from korvex.emulation._tensor import Tensor

_METHODS = (types.MethodDescriptorType, types.WrapperDescriptorType)


def install() -> None:
    """Give the class of emulated tensors the methods and attributes that torch has in C."""
    for name in sorted(set(dir(torch.Tensor)) - vars(Tensor).keys() - ANSWERED_BY_THE_CLASS):
        found = inspect.getattr_static(torch.Tensor, name)
        if getattr(found, "__objclass__", None) is not torch._C.TensorBase:
            continue  # a function in Python, or of every object
        if isinstance(found, _METHODS) and (method := _method(found)):
            setattr(Tensor, name, _native.bindable(method))
        elif isinstance(found, types.GetSetDescriptorType) and (get := _method(found.__get__)):
            change = _method(found.__set__)
            setattr(Tensor, name, property(get, change, found.__delete__, found.__doc__))


def _method(function: Callable[..., Any]) -> Callable[..., Any] | None:
    """The function for a class, or None where the operation has no short way."""
    way = short_way(function)
    if way is None:
        return None
    return _native.method(
        function,
        way,
        torch._C._is_torch_function_enabled,
        torch._C._is_torch_function_mode_enabled,
        Tensor.__torch_function__,
    )
