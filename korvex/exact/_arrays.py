# SPDX-License-Identifier: Apache-2.0
"""Recognises arrays where they come in, and makes results of the same kind.

An operand is looked at without a copy: its elements stay where they are. Nothing here imports
torch, cupy or any other library of arrays: an array of one that is not imported cannot be given.
Whatever cannot be read is a TypeError that names the argument and says what can be given instead.
"""

from __future__ import annotations

import functools
import sys
from collections.abc import Sequence
from typing import Any, NamedTuple, NoReturn

import numpy as np

from korvex.exact._devices import CupyDevice, Device, TorchDevice
from korvex.exact._homes import NUMPY, CupyHome, Home, NamespaceHome, TorchHome

# Characters of NumPy's dtypes: bool, integers, float16, float32, float64; complex64, complex128.
REAL_CHARACTERS = frozenset("?bBhHiIlLqQefd")
_COMPLEX_CHARACTERS = frozenset("FD")
_TORCH_DTYPES = frozenset(
    """bool int8 uint8 int16 uint16 int32 uint32 int64 uint64
    float16 bfloat16 float32 float64 complex64 complex128""".split()
)
_TAKEN = "bool, integers, float16, bfloat16, float32, float64, complex64 and complex128"

# Kinds of devices in DLPack's header.
_DLPACK_CPU = 1
_DLPACK_CUDA = (2, 13)  # memory of a device, and managed memory


class Real(NamedTuple):
    """Real numbers as the native half takes them; on a device, as its library has them."""

    values: Any
    format: str | None = None  # "bfloat16": what values of uint16 stand for
    device: Device | None = None  # None: the host


class Operand(NamedTuple):
    """An array that was recognised: its elements, and where results for it belong."""

    values: Any
    format: str | None
    shape: tuple[int, ...]
    is_complex: bool
    home: Home
    device: Device | None = None

    def halves(self) -> list[Real]:
        """The array itself, or the real and the imaginary half of a complex one."""
        if self.is_complex:
            halves = (self.values.real, self.values.imag)
            return [Real(half, None, self.device) for half in halves]
        return [Real(self.values, self.format, self.device)]


def as_operand(x: object, name: str) -> Operand:
    """Recognise the array that was given as the argument `name`."""
    if isinstance(x, np.ndarray):
        return _of_numpy(x, name, NUMPY)
    if isinstance(x, np.generic):
        return _of_numpy(np.asarray(x), name, NUMPY)
    torch = sys.modules.get("torch")
    if torch is not None and isinstance(x, torch.Tensor):
        return _of_torch(x, name, torch)
    if hasattr(x, "__cuda_array_interface__"):
        return _of_cupy(x, name)
    if hasattr(x, "__dlpack__") and hasattr(x, "__dlpack_device__"):
        return _of_dlpack(x, name)
    raise TypeError(
        f"{name} must be an array, not {type(x).__name__}: numpy.asarray makes one of numbers "
        "and lists"
    )


def as_real(x: object, name: str) -> Real:
    """The same for an accumulator, which takes real arrays only."""
    operand = as_operand(x, name)
    if operand.is_complex:
        raise TypeError(f"{name} is complex: give {name}.real and {name}.imag to one each")
    return Real(operand.values, operand.format, operand.device)


def refuse_cuda(function: str, *operands: tuple[str, Operand]) -> None:
    """Say of a function that has no kernels for GPUs what to do instead."""
    for name, operand in operands:
        if operand.device is not None:
            raise TypeError(
                f"{name} is in the memory of a GPU, and korvex.exact.{function} has no kernels for "
                f"GPUs yet: copy it to the host, {name}.cpu() in torch and {name}.get() in CuPy"
            )


def _refuse_unknown_cuda(name: str) -> NoReturn:
    raise TypeError(
        f"{name} is in the memory of a GPU, and korvex.exact takes tensors of torch and arrays of "
        f"CuPy there: give torch.from_dlpack({name}) or cupy.from_dlpack({name})"
    )


def _refuse_dtype(dtype: object, name: str) -> NoReturn:
    raise TypeError(f"{name} has the dtype {dtype}, and korvex.exact takes {_TAKEN}")


# --- NumPy


def _of_numpy(x: np.ndarray[Any, Any], name: str, home: Home) -> Operand:
    masked = sys.modules.get("numpy.ma")
    if masked is not None and isinstance(x, masked.MaskedArray):
        raise TypeError(f"{name} is masked: give {name}.compressed(), or {name}.filled(0)")
    if type(x) is not np.ndarray and not isinstance(x, np.memmap):
        # Units, labels and the like would be lost.
        raise TypeError(f"{name} is a {type(x).__name__}: numpy.asarray gives its numbers alone")
    dtype = x.dtype
    if not dtype.isnative:
        raise TypeError(
            f"{name} has the dtype {dtype.str}, which is not in this machine's byte order: give "
            f'{name}.astype({name}.dtype.newbyteorder("="))'
        )
    if dtype.char in REAL_CHARACTERS:
        return Operand(x, None, x.shape, False, home)
    if dtype.char in _COMPLEX_CHARACTERS:
        return Operand(x, None, x.shape, True, home)
    if dtype.name == "bfloat16":
        return Operand(x.view(np.uint16), "bfloat16", x.shape, False, home)
    _refuse_dtype(dtype, name)


# --- torch


def _of_torch(x: Any, name: str, torch: Any) -> Operand:
    if torch.compiler.is_dynamo_compiling() or torch._C._functorch.is_functorch_wrapped_tensor(x):
        raise TypeError(
            f"{name} is traced by torch, for compilation or a transform, and this function is no "
            "operator of torch"
        )
    if x.requires_grad:
        raise TypeError(
            f"{name} requires grad, and no gradient is computed here: give {name}.detach()"
        )
    emulation = sys.modules.get("korvex.emulation._tensor")
    emulated = emulation is not None and isinstance(x, emulation.Tensor)
    if emulated:
        x = emulation.host_alias(x)  # type: ignore[union-attr]
    elif x.device.type == "cuda":
        return _of_torch_cuda(x, name, torch)
    elif x.device.type != "cpu":
        raise TypeError(f"{name} is on the device {x.device}: give a tensor on the CPU")
    _check_torch_form(x, name, torch)
    if x.is_conj() or x.is_neg():
        x = x.resolve_conj().resolve_neg()  # copies: conjugates and negatives are written out now
    home = TorchHome(emulated)
    shape = tuple(x.shape)
    if x.dtype == torch.bfloat16:
        return Operand(x.view(torch.uint16).numpy(), "bfloat16", shape, False, home)
    return Operand(x.numpy(), None, shape, x.dtype.is_complex, home)


def _of_torch_cuda(x: Any, name: str, torch: Any) -> Operand:
    _check_torch_form(x, name, torch)
    if x.is_conj() or x.is_neg():
        x = x.resolve_conj().resolve_neg()
    device = TorchDevice(x.device.index)
    home = TorchHome(False, device.name)
    return Operand(x, None, tuple(x.shape), x.dtype.is_complex, home, device)


@functools.cache
def _torch_dtypes(torch: Any) -> frozenset[Any]:
    return frozenset(getattr(torch, name) for name in _TORCH_DTYPES)


def _check_torch_form(x: Any, name: str, torch: Any) -> None:
    kind = type(x)
    if kind is not torch.Tensor and kind.__torch_dispatch__ is not torch.Tensor.__torch_dispatch__:
        raise TypeError(
            f"{name} is a {type(x).__name__}, which is not one tensor in host memory: give that"
        )
    if x.layout != torch.strided:
        raise TypeError(f"{name} has the layout {x.layout}: give {name}.to_dense()")
    if x.dtype not in _torch_dtypes(torch):
        _refuse_dtype(x.dtype, name)


# --- CuPy


def _of_cupy(x: Any, name: str) -> Operand:
    cupy = sys.modules.get("cupy")
    if cupy is None or not isinstance(x, cupy.ndarray):
        _refuse_unknown_cuda(name)
    dtype = x.dtype
    if dtype.char not in REAL_CHARACTERS and dtype.char not in _COMPLEX_CHARACTERS:
        _refuse_dtype(dtype, name)
    is_complex = dtype.char in _COMPLEX_CHARACTERS
    device = CupyDevice(int(x.device.id))
    return Operand(x, None, tuple(x.shape), is_complex, CupyHome(device.ordinal), device)


# --- DLPack


def _of_dlpack(x: Any, name: str) -> Operand:
    kind, _ = x.__dlpack_device__()
    if kind in _DLPACK_CUDA:
        _refuse_unknown_cuda(name)
    if kind != _DLPACK_CPU:
        raise TypeError(f"{name} is on a device of DLPack's kind {int(kind)}: give one on the CPU")
    if nulls := getattr(x, "null_count", 0):  # of Arrow
        raise TypeError(f"{name} has {nulls} null{'s' * (nulls > 1)}: give {name}.drop_null()")
    home = _home_of(x)
    if str(getattr(x, "dtype", "")).endswith("bfloat16"):
        return Operand(x, None, tuple(x.shape), False, home)  # NumPy has no such dtype
    return _of_numpy(np.from_dlpack(x), name, home)


def _home_of(x: Any) -> Home:
    if hasattr(x, "__array_namespace__"):
        return NamespaceHome(x.__array_namespace__(), getattr(x, "device", None))
    return NUMPY


# --- Two operands


def check_same_home(operands: Sequence[tuple[str, Operand]]) -> Home:
    """Return where the result of several operands belongs: all must be of one kind."""
    (first_name, first), *others = operands
    for name, other in others:
        if other.home != first.home:
            raise TypeError(
                f"{first_name} is {first.home.description} and {name} is "
                f"{other.home.description}: both must be of one kind"
            )
    return first.home
