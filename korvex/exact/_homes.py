# SPDX-License-Identifier: Apache-2.0
"""Where results belong: the library and the device of the array that was given.

A result comes as a NumPy array of a dtype that is named beside it, and leaves as an array of the
library that it belongs to. Values of bfloat16 come as their bits in uint16.
"""

from __future__ import annotations

import sys
from collections.abc import Sequence
from typing import Any

import numpy as np

from korvex.exact._rounding import FORMATS

Array = np.ndarray[Any, Any]

# Of a complex result, by the format of its halves.
_COMPLEX_NAMES = {"float64": "complex128", "float32": "complex64"}
_HALVES = {name: half for half, name in _COMPLEX_NAMES.items()}


class Home:
    """A library of arrays and a device of it; equal homes may share one call."""

    description: str

    def give(self, values: Array, name: str) -> Any:
        """Return the values as an array of this library, of the dtype of that name."""
        raise NotImplementedError

    def __eq__(self, other: object) -> bool:
        return type(self) is type(other) and vars(self) == vars(other)

    def __hash__(self) -> int:
        return hash(type(self))


class NumpyHome(Home):
    """NumPy; a result without dimensions is a scalar, as NumPy's own are."""

    description = "a NumPy array"

    def give(self, values: Array, name: str) -> Any:
        if name == "bfloat16":
            values = values.view(_bfloat16_of_numpy())
        return values[()]


NUMPY = NumpyHome()


def _bfloat16_of_numpy() -> Any:
    try:
        import ml_dtypes
    except ImportError:
        raise ValueError(
            "dtype bfloat16 of NumPy comes from the package ml_dtypes, which is not installed"
        ) from None
    return ml_dtypes.bfloat16


class TorchHome(Home):
    """torch, on the CPU, on the emulated device or on a GPU."""

    def __init__(self, emulated: bool, device: str | None = None) -> None:
        self.emulated = emulated
        self.device = device

    @property
    def description(self) -> str:  # type: ignore[override]
        place = "the emulated device" if self.emulated else self.device or "the CPU"
        return f"a torch tensor on {place}"

    def give(self, values: Array, name: str) -> Any:
        result = sys.modules["torch"].from_numpy(values)
        if name == "bfloat16":
            result = result.view(sys.modules["torch"].bfloat16)
        if self.device is not None:
            return result.to(self.device)
        return sys.modules["korvex.emulation._tensor"].adopt(result) if self.emulated else result


class CupyHome(Home):
    """CuPy, on one of its devices."""

    def __init__(self, ordinal: int) -> None:
        self.ordinal = ordinal

    @property
    def description(self) -> str:  # type: ignore[override]
        return f"a CuPy array on cuda:{self.ordinal}"

    def give(self, values: Array, name: str) -> Any:
        if name == "bfloat16":
            raise ValueError("dtype bfloat16 does not exist in CuPy")
        cupy = sys.modules["cupy"]
        with cupy.cuda.Device(self.ordinal):
            return cupy.asarray(values)


class NamespaceHome(Home):
    """A library that follows the Python array API standard."""

    def __init__(self, namespace: Any, device: Any) -> None:
        self.namespace = namespace
        self.device = device

    @property
    def description(self) -> str:  # type: ignore[override]
        return f"an array of {self.namespace.__name__} on {self.device}"

    def give(self, values: Array, name: str) -> Any:
        dtype = getattr(self.namespace, name, None)
        if dtype is None:
            raise ValueError(f"dtype {name} does not exist in {self.namespace.__name__}")
        if name == "bfloat16":
            values = values.view(_bfloat16_of_numpy())
        return self.namespace.asarray(values, dtype=dtype, device=self.device)


# --- The dtype of a result


def format_of(dtype: object, is_complex: bool = False) -> str:
    """Return the format to round to, once for each half, by what was given as `dtype`."""
    if dtype is None:
        return "float64"
    name = _name_of(dtype)
    known = _HALVES if is_complex else dict.fromkeys(FORMATS)
    if name not in known:
        *others, last = known
        raise ValueError(
            f"dtype must be {', '.join(others)} or {last}"
            f"{' for complex arrays' if is_complex else ''}, not {dtype!r}"
        )
    return known[name] or name


def _name_of(dtype: object) -> str:
    if isinstance(dtype, str):
        return dtype
    if isinstance(dtype, np.dtype) or (isinstance(dtype, type) and issubclass(dtype, np.generic)):
        return np.dtype(dtype).name
    return str(dtype).rpartition(".")[2]  # torch.float32, array_api_strict.float32


def empty(shape: tuple[int, ...], form: str) -> Array:
    """An array for values of a format, as the native half writes them."""
    return np.empty(shape, np.uint16 if form == "bfloat16" else form)


def give_parts(home: Home, parts: Sequence[Array], form: str) -> Any:
    """Return one part as it is, or the halves of a complex result as one array."""
    if len(parts) == 1:
        return home.give(parts[0], form)
    name = _COMPLEX_NAMES[form]
    result = np.empty(parts[0].shape, name)
    result.real, result.imag = parts
    return home.give(result, name)


def give_values(home: Home, values: Sequence[float], form: str, shape: tuple[int, ...]) -> Any:
    """Return numbers of a format, one or two halves of one, as an array with one element."""
    parts = [np.full(shape, in_format([value], form)) for value in values]
    return give_parts(home, parts, form)


def in_format(values: Sequence[float], form: str) -> Array:
    """Numbers of a format as `empty` makes room for them."""
    if form == "bfloat16":
        bits = np.array(values, np.float32).view(np.uint32) >> 16  # the lower bits are 0
        return bits.astype(np.uint16)
    return np.array(values, form)
