# SPDX-License-Identifier: Apache-2.0
"""The rules of the table of covered operations: one small function for each.

A rule decides which operands may be on the CPU and where the result is; the work is done by torch
itself on the host memory. Importing this module registers all of them.
"""

from __future__ import annotations

from typing import Any, NoReturn

import torch

from korvex.emulation import _factories, _reciprocals, _rounding
from korvex.emulation._dispatch import (
    ANSWERED_BY_THE_CLASS,
    SAME_DEVICE,
    Call,
    accessor,
    as_host,
    in_short,
    plain,
    refuse,
    rule,
)
from korvex.emulation._tensor import DEVICE, Tensor, adopt, type_as


@plain
@rule("element by element")
def _element_by_element(call: Call) -> Any:
    check_devices(call, numbers_pass=True)
    return adopt(call.run())


@plain
@rule(SAME_DEVICE)
def _same_device(call: Call) -> Any:
    check_devices(call, numbers_pass=False)
    return adopt(call.run())


def check_devices(call: Call, numbers_pass: bool) -> None:
    """Refuse CPU tensors, except those without dimensions where they may stand for numbers."""
    if not all(isinstance(output, Tensor) for output in call.outputs()):
        _refuse_mixed_devices()
    for operand in call.operands():
        if not isinstance(operand, Tensor) and not (numbers_pass and operand.dim() == 0):
            _refuse_mixed_devices()


def _refuse_mixed_devices() -> NoReturn:
    # In the words of torch, since programs and tests look for them.
    raise RuntimeError(
        "Expected all tensors to be on the same device, "
        f"but found at least two devices, {DEVICE} and cpu!"
    )


@in_short(_rounding.short_way)
@rule("rounded as on CUDA")
def _rounded(call: Call) -> Any:
    check_devices(call, numbers_pass=True)
    return adopt(_rounding.run(call))


@in_short(_reciprocals.short_way)
@rule("division")
def _division(call: Call) -> Any:
    check_devices(call, numbers_pass=True)
    keywords = dict(call.kwargs)
    operands = [*call.args, *(keywords.pop(k) for k in ("input", "other") if k in keywords)]
    if len(operands) != 2 or not _reciprocals.multiplies(*operands):
        return adopt(call.run())
    if call.in_place and "out" in keywords:
        return call.run()  # raises
    if keywords.pop("rounding_mode", None) is not None:
        refuse(call._replace(name=f"{call.name} by a number with rounding_mode"))
    with as_host():
        if not call.in_place:
            return adopt(_reciprocals.quotient(*operands, **keywords))
        if torch.can_cast(_reciprocals.common_dtype(*operands), operands[0].dtype):
            return _reciprocals.divide_in_place(*operands)
        return call.run()  # raises


@plain
@rule("form of another")
def _form_of_another(call: Call) -> Any:
    result = call.run()
    return adopt(result) if isinstance(call.args[0], Tensor) else result


@rule("each for itself")
def _each_for_itself(call: Call) -> Any:
    operands, results = list(call.operands()), call.run()
    for operand, result in zip(operands, results, strict=True):
        if isinstance(operand, Tensor):
            adopt(result)
    return results


@plain
@rule("indexing")
def _indexing(call: Call) -> Any:
    container, index, *assigned = call.args
    if not isinstance(container, Tensor):
        _check_indices_of_host_tensor(index)
    if assigned and _gathers(index):
        _check_assigned(container, assigned[0])
    result = call.run()
    return adopt(result) if isinstance(container, Tensor) else result


def _index_items(index: Any) -> tuple[Any, ...]:
    return index if isinstance(index, tuple) else (index,)


def _is_number(item: Any) -> bool:
    """A tensor that torch reads as a plain integer, wherever it is."""
    return isinstance(item, torch.Tensor) and item.dim() == 0 and item.dtype != torch.bool


def _check_indices_of_host_tensor(index: Any) -> None:
    if any(isinstance(item, Tensor) and not _is_number(item) for item in _index_items(index)):
        # In the words of torch, as above.
        raise RuntimeError(
            "indices should be either on cpu or on the same device as the indexed tensor (cpu)"
        )


def _gathers(index: Any) -> bool:
    """Whether the index picks single elements, rather than a view."""
    is_view = (int, slice, type(None), type(Ellipsis))
    return not all(isinstance(item, is_view) or _is_number(item) for item in _index_items(index))


def _check_assigned(container: torch.Tensor, value: Any) -> None:
    if isinstance(value, torch.Tensor) and value.dim() > 0:
        if isinstance(value, Tensor) != isinstance(container, Tensor):
            _refuse_mixed_devices()


@plain
@rule("copy")
def _copy(call: Call) -> Any:
    return call.run()  # the tensor that was written, whichever device it is on


@rule("factory of an operand")
def _factory_of_an_operand(call: Call) -> Any:
    return _factories.make_like(call.function, *call.args, **call.kwargs)


@rule("device")
def _device(call: Call) -> Any:
    if call.name == "type_as":
        return type_as(*call.args)
    return getattr(Tensor, call.name)(*call.args, **call.kwargs)


@rule("factory")
def _factory(call: Call) -> Any:
    return call.run()


@plain
@rule("query")
def _query(call: Call) -> Any:
    return call.run()  # no tensor


@rule("module")
def _have_compatible_memory(call: Call) -> bool:
    """Whether a module may keep a parameter object when it moves: not across devices."""
    tensor, other = call.args
    return isinstance(tensor, Tensor) == isinstance(other, Tensor) and call.run()


# --- Attributes


@plain
@accessor("__get__")
def _get(call: Call) -> Any:
    if call.name in ANSWERED_BY_THE_CLASS:
        return getattr(call.args[0], call.name)
    return adopt(call.run())


@plain
@accessor("__set__", "__delete__")
def _set(call: Call) -> Any:
    check_devices(call, numbers_pass=False)
    return call.run()
