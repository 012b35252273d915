# SPDX-License-Identifier: Apache-2.0
"""The operations of torch that a call makes on real tensors, in order.

Spies show the statements; this shows what reaches torch, with the types and shapes it meets there.
"""

import torch
from torch.overrides import TorchFunctionMode


class OperationLog(TorchFunctionMode):
    """Inside it, every function of torch that is called is written down with its arguments."""

    def __init__(self):
        super().__init__()
        self.lines = []

    def __torch_function__(self, function, types, args=(), kwargs=None):
        kwargs = kwargs or {}
        shown = [_text(a) for a in args] + [f"{k}={_text(v)}" for k, v in kwargs.items()]
        self.lines.append(f"{_name(function)}({', '.join(shown)})")
        return function(*args, **kwargs)


def _name(function):
    owner = getattr(function, "__self__", None)
    # A property is read through a slot that bears no name of its own.
    return getattr(owner, "__name__", "") + "." + function.__name__


def _text(value):
    if isinstance(value, torch.Tensor):
        # What is read here must not be written down.
        with torch._C.DisableTorchFunction():
            return f"<{value.dtype} {tuple(value.shape)}>"
    if isinstance(value, (list, tuple)):
        return f"[{', '.join(map(_text, value))}]"
    return repr(value)


def operations(call):
    """The operations of one call, and its result."""
    log = OperationLog()
    with log:
        result = call()
    return log.lines, result
