# SPDX-License-Identifier: Apache-2.0
"""How a call ends, in a form that compares: bits of results, type and text of failures."""

import torch

# Loops of that many passes would not end in this life.
LOOP_COUNTS = {"n_terms", "max_iter"}
MOST_PASSES = 1000


def shown(value):
    """A value as something that compares bit by bit."""
    if isinstance(value, torch.Tensor):
        plain = value.detach().resolve_conj().resolve_neg().cpu().contiguous().numpy()
        return str(value.dtype), str(value.device), tuple(value.shape), plain.tobytes()
    if type(value).__name__ in ("TQXResult", "TQXVerifiedResult"):
        return type(value).__name__, {name: shown(item) for name, item in vars(value).items()}
    if isinstance(value, (list, tuple)):
        return type(value).__name__, [shown(item) for item in value]
    return type(value).__name__, repr(value)


def text_of(error):
    """The text of an exception without the addresses that torch appends to some."""
    return str(error).partition("\nException raised from")[0]


def is_endless(row, args, kwargs):
    given = dict(zip(row.parameters, args, strict=False)) | kwargs
    counts = [given[name] for name in LOOP_COUNTS & given.keys()]
    return any(isinstance(count, int) and count > MOST_PASSES for count in counts)


def outcome(runtime, row, args, kwargs):
    """Makers of arguments, by position and by keyword, are called with the runtime."""
    args = [make(runtime) for make in args]
    kwargs = {name: make(runtime) for name, make in kwargs.items()}
    if is_endless(row, args, kwargs):
        return "left out"
    try:
        result = shown(row.call(runtime, *args, **kwargs))
    except Exception as error:
        return type(error).__name__, text_of(error), len(getattr(error, "__notes__", ()))
    # The operands too: a constructor fills its receiver, nothing else may change anything.
    return result, [shown(value) for value in args]
