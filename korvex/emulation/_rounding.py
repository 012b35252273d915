# SPDX-License-Identifier: Apache-2.0
"""Square roots and remainders with the bits of CUDA, where torch on the CPU gives others.

torch takes square roots on the CPU from a vector library that rounds a few in a thousand wrongly,
and its vector code for fmod fails where the quotient is large. CUDA documents both without error:
an IEEE square root and an exact remainder; numpy's are the same. So torch does the operation, with
all that belongs to it (checks, types, broadcasts, autograd), and the values in the memory of its
result are then replaced.

`docs/emulation.md` has the comparison of all such operations.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator
from typing import Any

import numpy
import torch

from korvex.emulation import _native
from korvex.emulation._dispatch import Call, as_host
from korvex.emulation._reciprocals import COMPUTED_IN, DTYPES, common_dtype
from korvex.emulation._tensor import Tensor

Function = Callable[..., Any]


def _remainder(dividend: Any, divisor: Any) -> Any:
    """The remainder with the sign of the divisor, as torch defines it: one addition may round."""
    rest = numpy.fmod(dividend, divisor)  # exact
    other_sign = (rest != 0) & ((rest < 0) != (divisor < 0))
    return numpy.where(other_sign, rest + divisor, rest)


_FUNCTIONS: dict[str, Function] = {
    "sqrt": numpy.sqrt,
    "fmod": numpy.fmod,
    "remainder": _remainder,
    "mod": _remainder,
    "__rmod__": lambda divisor, dividend: _remainder(dividend, divisor),
}


_KINDS = dict.fromkeys(("sqrt", "sqrt_", "pow", "pow_", "__pow__", "__ipow__"), _native.ROOT)
_KINDS |= dict.fromkeys(("fmod", "fmod_"), _native.FMOD)
_KINDS |= dict.fromkeys(("remainder", "remainder_", "__mod__", "__imod__"), _native.REMAINDER)
_KINDS |= {"__rmod__": _native.REFLECTED_REMAINDER}


def short_way(function: Function, in_place: bool) -> Function:
    """Work on contiguous float64 and float32 tensors in C++, with few calls of torch."""
    host = torch._C.TensorBase
    questions = (host.is_contiguous, host.is_neg, host.shape.__get__, host.numel, host.data_ptr)
    return _native.replacing(function, _KINDS[function.__name__], Tensor, *DTYPES, *questions)


def run(call: Call) -> Any:
    """Let torch do the operation, and replace the values of its result."""
    operands = list(_operands(call))
    function = _function(call.name, operands)
    if function is None:
        return call.run()
    with as_host():
        if call.in_place or "out" in call.kwargs:
            operands = [x.clone() if isinstance(x, torch.Tensor) else x for x in operands]
        result = call.run()
        if result.is_floating_point():
            _replace(result, function, operands)
    return result


def _replace(result: torch.Tensor, function: Function, operands: list[Any]) -> None:
    dtype = common_dtype(*operands)
    values = [_array(operand, COMPUTED_IN.get(dtype, dtype)) for operand in operands]
    with numpy.errstate(all="ignore"):
        exact = numpy.asarray(function(*values))
    # `data` shares the memory and not the count of changes that autograd looks at.
    result.data.copy_(torch.from_numpy(exact))


def _operands(call: Call) -> Iterator[Any]:
    yield from call.args
    for name in ("input", "self", "other", "exponent"):
        if name in call.kwargs:
            yield call.kwargs[name]


def _function(name: str, operands: list[Any]) -> Function | None:
    if name != "pow":
        return _FUNCTIONS[name]
    # torch on CUDA takes the root for this exponent; for others it promises no bits.
    base, exponent = operands
    is_root = isinstance(base, torch.Tensor) and isinstance(exponent, (float, numpy.floating))
    return (lambda x, _: numpy.sqrt(x)) if is_root and exponent == 0.5 else None


def _array(operand: Any, dtype: torch.dtype) -> Any:
    if not isinstance(operand, torch.Tensor):
        return torch.tensor(operand, dtype=dtype, device="cpu").numpy()
    return operand.detach().to(dtype).resolve_neg().numpy()
