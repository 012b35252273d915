# SPDX-License-Identifier: Apache-2.0
"""Tensors of the emulated device: ordinary host tensors whose class says "cuda:0".

A tensor becomes one by a change of its class, in place: memory, views, identity and autograd graph
stay what torch made of them. So only objects that nobody else holds as CPU tensors may be adopted,
and a change of device always copies.
"""

from __future__ import annotations

import copy
import enum
from collections.abc import Callable
from typing import Any, NoReturn

import torch

from korvex.emulation import _device, _native
from korvex.emulation._dispatch import SHORT_WAYS, as_host, call_as_host, dispatch

DEVICE = torch.device("cuda", 0)

# The methods as torch made them; those of `torch.Tensor` are replaced while the device is active.
_HOST = torch._C.TensorBase


class Tensor(torch.Tensor):
    """A tensor of the emulated device.

    The class bears the name that a tensor on hardware has, since messages and printed tensors show
    it; and of the same length, since torch indents printed tensors by it.
    """

    @property
    def device(self) -> torch.device:  # type: ignore[override]
        return DEVICE

    @property
    def is_cuda(self) -> bool:  # type: ignore[override]
        return True

    @property
    def is_cpu(self) -> bool:  # type: ignore[override]
        return False

    @property
    def __cuda_array_interface__(self) -> NoReturn:
        # As if absent: whoever found it would take the host address for one on a GPU.
        raise AttributeError("memory of the emulated device has no __cuda_array_interface__")

    def get_device(self) -> int:
        return 0

    def to(self, *args: Any, **kwargs: Any) -> Any:
        return to(self, *args, **kwargs)

    def cpu(self, memory_format: torch.memory_format = torch.preserve_format) -> Any:
        return move(self, torch.device("cpu"), memory_format=memory_format)

    def cuda(self, *args: Any, **kwargs: Any) -> Any:
        return cuda(self, *args, **kwargs)

    def type(self, dtype: Any = None, non_blocking: bool = False) -> Any:
        if dtype is None:
            with as_host():
                return super().type().replace("torch.", "torch.cuda.", 1)
        if not isinstance(dtype, torch.dtype):
            raise NotImplementedError("the emulated device knows types by their torch.dtype only")
        return move(self, DEVICE, dtype)

    def type_as(self, other: torch.Tensor) -> Any:
        return type_as(self, other)

    def numpy(self, *, force: bool = False) -> Any:
        if force:
            return self.detach().cpu().numpy(force=True)
        _refuse_numpy()

    def __array__(self, *args: Any, **kwargs: Any) -> NoReturn:
        _refuse_numpy()

    def __dlpack_device__(self) -> tuple[enum.IntEnum, int]:
        return (torch.utils.dlpack.DLDeviceType.kDLCUDA, 0)

    def __dlpack__(self, **kwargs: Any) -> NoReturn:
        raise BufferError("memory of the emulated device is lent to the emulated cupy only")

    def __repr__(self, *, tensor_contents: Any = None) -> Any:  # type: ignore[override]
        with as_host():
            text = torch.Tensor.__repr__(self, tensor_contents=tensor_contents)  # type: ignore
        return text.replace("Tensor(", "tensor(", 1)

    def __format__(self, format_spec: str) -> str:
        if self.dim() == 0:
            return format(self.item(), format_spec)
        return object.__format__(self, format_spec)

    def __reduce_ex__(self, protocol: Any) -> tuple[Any, ...]:
        return (rebuild_tensor, (host_alias(self.detach()), self.requires_grad))

    def __deepcopy__(self, memo: dict[int, Any]) -> Any:
        if id(self) in memo:
            return memo[id(self)]
        if not self.is_leaf:
            with as_host():
                return super().__deepcopy__(memo)  # raises
        result = adopt(copy.deepcopy(host_alias(self.detach()), memo))
        if getattr(self, "_is_param", False):
            result = torch.nn.Parameter(result)
        result.requires_grad_(self.requires_grad)
        if self.grad is not None:
            result.grad = copy.deepcopy(self.grad, memo)
        memo[id(self)] = result
        return result


# Makes the plain tensors in a result, one by one in place, tensors of the emulated device; returns
# the result.
adopt = _native.adopter(Tensor, torch.Tensor)


def _whole_way(
    func: Callable[..., Any],
    types: Any,
    args: tuple[Any, ...] = (),
    kwargs: dict[str, Any] | None = None,
) -> Any:
    return dispatch(func, args, kwargs or {})


# The types of operands that a rule need not look at: all these, and lists and tuples of them.
_PLAIN_TYPES = (
    *(Tensor, bool, int, float, complex, str, slice),
    *(type(None), type(Ellipsis), torch.dtype, torch.Size),
)
_torch_function = _native.torch_function(SHORT_WAYS, call_as_host, _whole_way, adopt, _PLAIN_TYPES)
Tensor.__torch_function__ = _torch_function  # type: ignore[method-assign, assignment]


def host_alias(tensor: torch.Tensor) -> torch.Tensor:
    """Return a plain host tensor over the same memory."""
    with as_host():
        return tensor.as_subclass(torch.Tensor)


def is_emulated_device(device: Any) -> bool:
    """Return whether a device argument of torch means the emulated device.

    Raises
    ------
    RuntimeError
        For a CUDA device of another number, as there is only one.
    """
    if isinstance(device, int):
        device = torch.device("cuda", device)
    elif not isinstance(device, torch.device):
        device = torch.device(device)
    if device.type != "cuda":
        return False
    if device.index not in (None, 0):
        raise RuntimeError(f"there is one emulated device, cuda:0, and no {device}")
    return True


def move(
    tensor: torch.Tensor,
    device: torch.device | None,
    dtype: torch.dtype | None = None,
    copy: bool = False,
    memory_format: torch.memory_format = torch.preserve_format,
) -> Any:
    """Convert as `torch.Tensor.to` does where the emulated device is one side; None keeps."""
    was_emulated = isinstance(tensor, Tensor)
    emulated = was_emulated if device is None else is_emulated_device(device)
    with as_host():
        result = _HOST.to(
            tensor,
            "cpu" if emulated or device is None else device,
            dtype or tensor.dtype,
            copy=copy or emulated != was_emulated,
            memory_format=memory_format,
        )
    return adopt(result) if emulated else result


def to(tensor: torch.Tensor, *args: Any, **kwargs: Any) -> Any:
    """Read the forms of arguments that `torch.Tensor.to` takes, and convert."""
    device, dtype = kwargs.pop("device", None), kwargs.pop("dtype", None)
    other = kwargs.pop("other", None)
    rest = list(args)
    if rest and isinstance(rest[0], torch.Tensor):
        other = rest.pop(0)
    elif rest and isinstance(rest[0], torch.dtype):
        dtype = rest.pop(0)
    elif rest:
        device = rest.pop(0)
        if rest:
            dtype = rest.pop(0)
    if other is not None:
        device, dtype = other.device, other.dtype
    _, copies = _to_arguments(*rest, **kwargs)
    memory_format = kwargs.get("memory_format") or torch.preserve_format
    return move(tensor, device, dtype, copies, memory_format)


def _to_arguments(
    non_blocking: bool = False, copy: bool = False, *, memory_format: Any = None
) -> tuple[bool, bool]:
    return non_blocking, copy


def cuda(
    tensor: torch.Tensor,
    device: Any = None,
    non_blocking: bool = False,
    memory_format: torch.memory_format = torch.preserve_format,
) -> Any:
    """Do what `torch.Tensor.cuda` does."""
    if device is not None and not is_emulated_device(device):
        raise RuntimeError(f"expected a CUDA device, but got {device}")
    return move(tensor, DEVICE, memory_format=memory_format)


def type_as(tensor: torch.Tensor, other: torch.Tensor) -> Any:
    """Do what `torch.Tensor.type_as` does."""
    return move(tensor, other.device, other.dtype)


def _refuse_numpy() -> NoReturn:
    # The words are torch's own, from a device that it always has.
    try:
        torch.empty(0, device="meta").numpy()
    except TypeError as error:
        raise TypeError(str(error).replace("meta", str(DEVICE), 1)) from None
    raise AssertionError("torch made a numpy array of a meta tensor")


def rebuild_tensor(host: torch.Tensor, requires_grad: bool) -> Any:
    """Unpickle a tensor of the emulated device from the host tensor that holds its memory.

    Raises
    ------
    RuntimeError
        If this process has no emulated device.
    """
    if _device.active is None:
        raise RuntimeError(
            "this tensor belongs to the emulated device: call korvex.emulation.activate() first"
        )
    return adopt(host).requires_grad_(requires_grad)
