# SPDX-License-Identifier: Apache-2.0
"""Decides which calls go through the operators of torch: those that torch has to see.

Gradients, compilation, export and the transforms of `torch.func` work on operators that torch
knows. All other calls, those on plain tensors too, go to the arrays at once. Nothing here imports
torch; `_torch_operators`, which does, is imported by the first call that needs it.
"""

from __future__ import annotations

import sys
import threading
from typing import Any


class _Kernels(threading.local):
    """Whether this thread computes what an operator is: such calls end here."""

    at_work = False


kernels = _Kernels()


def takes_operator(*operands: object) -> bool:
    """Whether torch must see what is done with these operands, some of them or all tensors."""
    torch = sys.modules.get("torch")
    if torch is None:
        return False
    for x in operands:
        if isinstance(x, torch.Tensor) and _is_watched(x, torch):
            return True
    return False


def _is_watched(x: Any, torch: Any) -> bool:
    if torch.compiler.is_dynamo_compiling():
        return True
    kind = type(x)
    if kind is not torch.Tensor and not _is_plain(kind, torch):
        return kind in _stand_ins(torch) and not kernels.at_work
    # A mode of dispatch may be at work on the tensor, or a transform of torch.func.
    is_watched = (
        x.requires_grad
        or torch._C._len_torch_dispatch_stack() > 0
        or torch._C._functorch.is_functorch_wrapped_tensor(x)
    )
    return is_watched and not kernels.at_work


def _is_plain(kind: type, torch: Any) -> bool:
    """Whether tensors of a class hold elements as torch's own do."""
    emulation = sys.modules.get("korvex.emulation._tensor")
    if emulation is not None and issubclass(kind, emulation.Tensor):
        return False
    return bool(kind.__torch_dispatch__ is torch.Tensor.__torch_dispatch__)  # type: ignore[attr-defined]


def _stand_ins(torch: Any) -> tuple[type, ...]:
    """Classes of tensors without elements, which export and compilation compute with."""
    subclasses = torch._subclasses
    return (subclasses.FakeTensor, subclasses.functional_tensor.FunctionalTensor)


def through_operator(name: str, *operands: Any, group: Any = None, **options: Any) -> Any:
    """Call the operator of that name; its options are those of the function of this package."""
    from korvex.exact import _torch_operators

    if group is not None:
        raise TypeError(
            f"group must be None where torch watches a call: {name} over processes has no gradient"
        )
    return getattr(_torch_operators, name)(*operands, **options)
