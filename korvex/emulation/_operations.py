# SPDX-License-Identifier: Apache-2.0
"""What torch does when an operand is on the emulated device: one small function for each rule.

Every operation comes in through `dispatch`. Its rule decides which operands may be on the CPU and
where the result is; the work is done by torch itself on the host memory.
"""

from __future__ import annotations

import functools
from collections.abc import Callable, Iterator
from typing import Any, NamedTuple, NoReturn

import torch

from korvex.emulation import _factories, _reciprocals
from korvex.emulation._coverage import TABLE
from korvex.emulation._tensor import DEVICE, Tensor, adopt, as_host, not_covered, type_as

_SAME_DEVICE = "same device"


class Call(NamedTuple):
    """One use of an operation of torch."""

    name: str
    function: Callable[..., Any]
    args: tuple[Any, ...]
    kwargs: dict[str, Any]
    in_place: bool

    def run(self) -> Any:
        """Let torch do it on the host memory."""
        with as_host():
            return self.function(*self.args, **self.kwargs)

    def operands(self) -> Iterator[torch.Tensor]:
        """All tensors among the arguments, in their order, those in lists included."""
        for value in (*self.args, *self.kwargs.values()):
            if isinstance(value, torch.Tensor):
                yield value
            elif type(value) in (list, tuple):
                yield from (item for item in value if isinstance(item, torch.Tensor))

    def outputs(self) -> Iterator[torch.Tensor]:
        """The tensors that the operation writes to."""
        written = [self.kwargs.get("out")] + [self.args[0] if self.in_place else None]
        for value in written:
            if isinstance(value, torch.Tensor):
                yield value


Rule = Callable[[Call], Any]


def dispatch(function: Callable[..., Any], args: tuple[Any, ...], kwargs: dict[str, Any]) -> Any:
    """Do one operation that has an operand on the emulated device, by its rule."""
    rule, name, in_place = _rule_of(function)
    return rule(Call(name, function, args, kwargs, in_place))


def cover(name: str) -> None:
    """Add an operation to the table, under the rule for the same device."""
    for rule, names in TABLE.items():
        if name in names and rule != _SAME_DEVICE:
            raise ValueError(f"the emulated device already has {name!r} under the rule {rule!r}")
    TABLE[_SAME_DEVICE].add(name)
    _rule_of.cache_clear()


@functools.cache
def _rule_of(function: Callable[..., Any]) -> tuple[Rule, str, bool]:
    name = function.__name__
    if name in ("__get__", "__set__", "__delete__"):
        return _ACCESSORS[name], _name_of_property(function), False
    for form, in_place in _forms(name):
        for rule, names in TABLE.items():
            if form in names:
                return _RULES[rule], form, in_place
    return _refuse, name, False


def _name_of_property(accessor: Callable[..., Any]) -> str:
    owner = accessor.__self__  # type: ignore[attr-defined]
    name: str = getattr(owner, "fget", owner).__name__
    return name


def _forms(name: str) -> Iterator[tuple[str, bool]]:
    """The names under which the table may hold an operation, and whether this is done in place."""
    is_operator = name.startswith("__") and name.endswith("__")
    yield name, name.endswith("_") and not is_operator
    if is_operator:
        yield name[2:-2], False
        if name[2] in "ir":
            yield name[3:-2], name[2] == "i"
    elif name.endswith("_"):
        yield name[:-1], True


# --- The rules


def _element_by_element(call: Call) -> Any:
    check_devices(call, numbers_pass=True)
    return adopt(call.run())


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


def _division(call: Call) -> Any:
    check_devices(call, numbers_pass=True)
    keywords = dict(call.kwargs)
    operands = [*call.args, *(keywords.pop(k) for k in ("input", "other") if k in keywords)]
    if len(operands) != 2 or not _reciprocals.multiplies(*operands):
        return adopt(call.run())
    if keywords.pop("rounding_mode", None) is not None:
        _refuse(call._replace(name=f"{call.name} by a number with rounding_mode"))
    with as_host():
        if not call.in_place:
            return adopt(_reciprocals.quotient(*operands, **keywords))
        if torch.can_cast(_reciprocals.common_dtype(*operands), operands[0].dtype):
            return _reciprocals.divide_in_place(*operands)
        return call.run()  # raises


def _form_of_another(call: Call) -> Any:
    result = call.run()
    return adopt(result) if isinstance(call.args[0], Tensor) else result


def _each_for_itself(call: Call) -> Any:
    operands, results = list(call.operands()), call.run()
    for operand, result in zip(operands, results, strict=True):
        if isinstance(operand, Tensor):
            adopt(result)
    return results


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


def _copy(call: Call) -> Any:
    return call.run()  # the tensor that was written, whichever device it is on


def _factory_of_an_operand(call: Call) -> Any:
    return _factories.make_like(call.function, *call.args, **call.kwargs)


def _device(call: Call) -> Any:
    if call.name == "type_as":
        return type_as(*call.args)
    return getattr(Tensor, call.name)(*call.args, **call.kwargs)


def _query(call: Call) -> Any:
    return call.run()


def _have_compatible_memory(call: Call) -> bool:
    """Whether a module may keep a parameter object when it moves: not across devices."""
    tensor, other = call.args
    return isinstance(tensor, Tensor) == isinstance(other, Tensor) and call.run()


def _refuse(call: Call) -> NoReturn:
    raise not_covered(call.name)


# --- Attributes


_TOLD_BY_THE_CLASS = {"device", "is_cuda", "is_cpu", "__cuda_array_interface__"}


def _get(call: Call) -> Any:
    if call.name in _TOLD_BY_THE_CLASS:
        return getattr(call.args[0], call.name)
    return adopt(call.run())


def _set(call: Call) -> Any:
    check_devices(call, numbers_pass=False)
    return call.run()


_ACCESSORS: dict[str, Rule] = {"__get__": _get, "__set__": _set, "__delete__": _set}

_RULES: dict[str, Rule] = {
    "factory": _query,
    "refused": _refuse,
    "factory of an operand": _factory_of_an_operand,
    "element by element": _element_by_element,
    "division": _division,
    _SAME_DEVICE: _same_device,
    "form of another": _form_of_another,
    "each for itself": _each_for_itself,
    "indexing": _indexing,
    "copy": _copy,
    "device": _device,
    "query": _query,
    "module": _have_compatible_memory,
}
