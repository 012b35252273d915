# SPDX-License-Identifier: Apache-2.0
"""True division by a number, with the roundings that torch has on CUDA.

There, a divisor in host memory (a Python number, or a CPU tensor without dimensions) is read before
the launch: its reciprocal is rounded once, and the kernel multiplies by it. So two roundings take
the place of one, and about a third of the quotients differ from the CPU's in the last bit. The
reciprocal and the product are formed in the type that torch computes in: float32 for float16 and
bfloat16, else the common type of the operands. Complex halves are divided.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy
import torch

from korvex.emulation import _native
from korvex.emulation._dispatch import as_host
from korvex.emulation._tensor import Tensor

# What torch computes in for the types that it only stores.
COMPUTED_IN = {torch.float16: torch.float32, torch.bfloat16: torch.float32}
_TYPE_OF_NUMBER = {
    bool: torch.bool,
    int: torch.int64,
    float: torch.float64,
    complex: torch.complex128,
}

# How C++ learns the type of a tensor, and the types that it knows.
DTYPES = (torch._C.TensorBase.dtype.__get__, torch.float64, torch.float32)
_NUMBERS = (int, float, complex, numpy.number)


def multiplies(dividend: Any, divisor: Any) -> bool:
    """Whether CUDA multiplies by the reciprocal here."""
    if not isinstance(dividend, Tensor) or isinstance(divisor, Tensor):
        return False
    if not isinstance(divisor, (*_NUMBERS, torch.Tensor)):
        return False
    with as_host():
        return common_dtype(dividend, divisor) != torch.complex32


def common_dtype(*operands: Any) -> torch.dtype:
    """Return the type of a quotient or a root: integers become floating-point numbers."""
    dtype = torch.result_type(operands[0], operands[-1])
    return dtype if dtype.is_floating_point or dtype.is_complex else torch.get_default_dtype()


def quotient(dividend: torch.Tensor, divisor: Any, **kwargs: Any) -> torch.Tensor:
    """Divide a host tensor by a number as CUDA does.

    Parameters
    ----------
    dividend : torch.Tensor
        In host memory; an integer tensor is converted first.
    divisor : number or torch.Tensor without dimensions
        As the caller gave it.
    **kwargs
        `out`, if anything.
    """
    dtype = common_dtype(dividend, divisor)
    computed_in = COMPUTED_IN.get(dtype, dtype)
    product = torch.mul(dividend.to(computed_in), _reciprocal(divisor, computed_in), **kwargs)
    return product if kwargs else product.to(dtype)


def short_way(function: Callable[..., Any], in_place: bool) -> Callable[..., Any]:
    """Divide float64 and float32 tensors by Python numbers with few calls of torch.

    It forms the same reciprocal in C++ and multiplies by it as by a Python number, which changes no
    bit: torch converts the number to the type of the tensor, exactly.
    """
    multiply = torch.Tensor.mul_ if in_place else torch.mul
    return _native.division(function, multiply, Tensor, *DTYPES)


def divide_in_place(dividend: torch.Tensor, divisor: Any) -> torch.Tensor:
    """The same into the dividend, whose type the quotient must fit."""
    return dividend.copy_(quotient(dividend, divisor))


def _reciprocal(divisor: Any, dtype: torch.dtype) -> torch.Tensor:
    if not isinstance(divisor, torch.Tensor):
        exact_type = _TYPE_OF_NUMBER.get(type(divisor))
        divisor = torch.tensor(divisor, dtype=exact_type, device="cpu")
    divisor = divisor.to(dtype)  # rounds once
    if dtype.is_complex:
        return _complex_reciprocal(divisor)
    return torch.true_divide(torch.ones((), dtype=dtype, device="cpu"), divisor)


def _complex_reciprocal(divisor: torch.Tensor) -> torch.Tensor:
    """Smith's division of 1 by a complex number, in the order of c10::complex (CACM 5, 435, 1962).

    Each step rounds once, on single numbers: torch's own complex division on the CPU rounds
    differently.
    """
    real, imag = divisor.real, divisor.imag
    if real.abs() >= imag.abs():
        if real == 0 and imag == 0:
            return torch.complex(1.0 / real.abs(), 0.0 / imag.abs())
        ratio = imag / real
        scale = 1.0 / (real + imag * ratio)
        return torch.complex((1.0 + 0.0 * ratio) * scale, (0.0 - ratio) * scale)
    ratio = real / imag
    scale = 1.0 / (imag + real * ratio)
    return torch.complex((ratio + 0.0) * scale, (0.0 * ratio - 1.0) * scale)
