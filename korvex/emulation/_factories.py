# SPDX-License-Identifier: Apache-2.0
"""The functions and methods of torch that are replaced because they make or move tensors.

torch offers no way to be asked before it makes a tensor on a device, so these functions stand in
place of its own. A call whose `device` argument or default device is the emulated one does its work
in host memory; every other call goes to torch unchanged.
"""

from __future__ import annotations

import functools
from collections.abc import Callable
from typing import Any

import torch
from torch.overrides import _get_current_function_mode_stack
from torch.utils._device import DeviceContext, _device_constructors

from korvex.emulation import _tensor
from korvex.emulation._coverage import TABLE
from korvex.emulation._dispatch import as_host, not_covered
from korvex.emulation._patches import Patches
from korvex.emulation._tensor import DEVICE, Tensor, adopt, is_emulated_device


def install(patches: Patches) -> None:
    """Replace the functions of torch, and the methods of its tensors."""
    _device_constructors()  # torch remembers its own functions here, before they are replaced
    special: dict[str, Callable[..., Any]] = {
        "tensor": _tensor_function,
        "as_tensor": _as_tensor,
        "asarray": _asarray,
    }
    makers = {name: special.get(name, _make) for name in TABLE["factory"]}
    for name, make in (makers | dict.fromkeys(TABLE["refused"], _refuse)).items():
        original = getattr(torch, name)
        patches.set(torch, name, functools.wraps(original)(functools.partial(make, original)))
    for name in TABLE["factory of an operand"]:
        owner = torch.Tensor if name.startswith("new_") else torch
        patches.set(owner, name, _like(getattr(owner, name)))
    patches.set(torch.Tensor, "to", _to_method(torch.Tensor.to))
    patches.set(torch.Tensor, "cuda", _cuda_method(torch.Tensor.cuda))
    # So that `torch.load` may read what `torch.save` wrote.
    torch.serialization.add_safe_globals([_tensor.rebuild_tensor])


def means_emulated(device: Any) -> bool:
    """Whether a factory called with this `device`, or with None, makes an emulated tensor."""
    if device is not None:
        return is_emulated_device(device)
    if torch._C._len_torch_function_stack() == 0:
        return False
    contexts = (m for m in _get_current_function_mode_stack() if isinstance(m, DeviceContext))
    return any(context.device.type == "cuda" for context in contexts)


def _make(original: Callable[..., Any], *args: Any, **kwargs: Any) -> Any:
    if not means_emulated(kwargs.get("device")):
        return original(*args, **kwargs)
    kwargs["device"] = "cpu"
    with as_host():
        return adopt(original(*args, **kwargs))


def _refuse(original: Callable[..., Any], *args: Any, **kwargs: Any) -> Any:
    if any(isinstance(value, Tensor) for value in (*args, *kwargs.values())):
        raise not_covered(original.__name__)
    return original(*args, **kwargs)


def _tensor_function(original: Callable[..., Any], *args: Any, **kwargs: Any) -> Any:
    data = args[0] if args else kwargs.get("data")
    if kwargs.get("device") is None and isinstance(data, Tensor):
        kwargs["device"] = DEVICE  # a copy stays where the original is
    return _make(original, *args, **kwargs)


def _as_tensor(
    original: Callable[..., Any], data: Any, dtype: torch.dtype | None = None, device: Any = None
) -> Any:
    if isinstance(data, Tensor):
        return data.to(device, dtype)
    if not means_emulated(device):
        return original(data, dtype=dtype, device=device)
    # A copy in any case: what is given may lend its memory to the host tensor.
    return adopt(original(data, dtype=dtype, device="cpu").clone())


def _asarray(
    original: Callable[..., Any],
    obj: Any,
    *,
    dtype: torch.dtype | None = None,
    device: Any = None,
    copy: bool | None = None,
    requires_grad: bool = False,
) -> Any:
    if copy is False and means_emulated(device) != isinstance(obj, Tensor):
        raise ValueError("the emulated device shares no memory with the CPU: a copy is needed")
    if isinstance(obj, Tensor):
        result = obj.to(device, dtype, copy=bool(copy))
    elif means_emulated(device):
        result = adopt(original(obj, dtype=dtype, device="cpu").clone())
    else:
        return original(obj, dtype=dtype, device=device, copy=copy, requires_grad=requires_grad)
    return result.detach().requires_grad_() if requires_grad else result


def make_like(
    original: Callable[..., Any], operand: torch.Tensor, *args: Any, **kwargs: Any
) -> Any:
    """Make a tensor after the model of another, on its device or on the one that is given."""
    device = kwargs.pop("device", None)
    emulated = isinstance(operand, Tensor) if device is None else is_emulated_device(device)
    if device is not None or emulated:
        kwargs["device"] = "cpu" if emulated else device
    with as_host():
        result = original(operand, *args, **kwargs)
    return adopt(result) if emulated else result


def _like(original: Callable[..., Any]) -> Callable[..., Any]:
    @functools.wraps(original)
    def factory(*args: Any, **kwargs: Any) -> Any:
        operand = args[0] if args else kwargs.pop("input", None)
        return make_like(original, operand, *args[1:], **kwargs)

    return factory


def _to_method(original: Callable[..., Any]) -> Callable[..., Any]:
    @functools.wraps(original)
    def to(self: torch.Tensor, *args: Any, **kwargs: Any) -> Any:
        target = args[0] if args else kwargs.get("device", kwargs.get("other"))
        if isinstance(target, torch.Tensor):
            involved = isinstance(target, Tensor)
        else:
            is_type = target is None or isinstance(target, torch.dtype)
            involved = not is_type and is_emulated_device(target)
        if involved or isinstance(self, Tensor):
            return _tensor.to(self, *args, **kwargs)
        return original(self, *args, **kwargs)

    return to


def _cuda_method(original: Callable[..., Any]) -> Callable[..., Any]:
    return functools.wraps(original)(lambda *args, **kwargs: _tensor.cuda(*args, **kwargs))
