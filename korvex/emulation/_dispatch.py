# SPDX-License-Identifier: Apache-2.0
"""Finds the rule for an operation of torch that has an operand on the emulated device.

torch calls `dispatch` through the tensor class, for what has no short way yet. The table in
`_coverage.py` names the rule of each operation; the functions that carry the rules out register
themselves here with `rule` and `accessor`. This module knows none of them, so that tensors and
rules need not import each other.
"""

from __future__ import annotations

import functools
from collections.abc import Callable, Iterator
from typing import Any, NamedTuple, NoReturn

import torch

from korvex.emulation._coverage import TABLE

# Inside it torch treats emulated tensors as the host tensors that they are.
as_host = torch._C.DisableTorchFunctionSubclass

# The same for one call of torch: it takes the function, types, arguments and keywords.
call_as_host = torch._C._disabled_torch_function_impl

SAME_DEVICE = "same device"


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


class Found(NamedTuple):
    """The rule of an operation."""

    rule: Rule
    name: str
    in_place: bool
    makes_short_way: ShortWay | None = None


# Makes of an operation, and of whether it is done in place, what stands for it where all operands
# are emulated tensors and numbers. That is called while torch takes the tensors for host tensors,
# and the tensors in its result are adopted; it may answer NotImplemented to what only the rule can.
ShortWay = Callable[[Callable[..., Any], bool], Callable[..., Any]]

SHORT_WAYS: dict[Callable[..., Any], Callable[..., Any]] = {}  # by the operation, as met
RULES: dict[str, Rule] = {}  # by the key of the table
_MAKERS: dict[Rule, ShortWay] = {}
_ACCESSORS: dict[str, Rule] = {}  # by what Python calls on a property
ANSWERED_BY_THE_CLASS = {"device", "is_cuda", "is_cpu", "__cuda_array_interface__"}


def rule(*keys: str) -> Callable[[Rule], Rule]:
    """Register a function as the rule for these keys of the table."""
    return functools.partial(_register, RULES, keys)


def accessor(*names: str) -> Callable[[Rule], Rule]:
    """Register a function for ``__get__``, ``__set__`` or ``__delete__`` of tensor attributes."""
    return functools.partial(_register, _ACCESSORS, names)


def in_short(make: ShortWay) -> Callable[[Rule], Rule]:
    """Give a rule a short way."""
    return functools.partial(_register_maker, make)


def _register_maker(make: ShortWay, function: Rule) -> Rule:
    _MAKERS[function] = make
    return function


# Of a rule that has nothing to check or to change where all operands are emulated.
plain = in_short(lambda function, in_place: function)


def _register(registry: dict[str, Rule], keys: tuple[str, ...], function: Rule) -> Rule:
    registry.update(dict.fromkeys(keys, function))
    return function


def dispatch(function: Callable[..., Any], args: tuple[Any, ...], kwargs: dict[str, Any]) -> Any:
    """Do one operation that has an operand on the emulated device, by its rule."""
    found = rule_of(function)
    return found.rule(Call(found.name, function, args, kwargs, found.in_place))


def cover(name: str) -> None:
    """Add an operation to the table, under the rule for the same device."""
    for key, names in TABLE.items():
        if name in names and key != SAME_DEVICE:
            raise ValueError(f"the emulated device already has {name!r} under the rule {key!r}")
    TABLE[SAME_DEVICE].add(name)
    rule_of.cache_clear()
    SHORT_WAYS.clear()


def not_covered(operation: str) -> NotImplementedError:
    """Return the exception for an operation that is not in the table."""
    return NotImplementedError(
        f"the emulated device does not cover the torch operation {operation!r}; what it covers "
        "stands in korvex.emulation.covered(), and korvex.emulation.cover() adds to it"
    )


@rule("refused")
def refuse(call: Call) -> NoReturn:
    raise not_covered(call.name)


@functools.cache
def rule_of(function: Callable[..., Any]) -> Found:
    """Find the rule of an operation; from then on the operation takes its short way, if any."""
    if (way := short_way(function)) is not None:
        SHORT_WAYS[function] = way
    return _find(function)


def short_way(function: Callable[..., Any]) -> Callable[..., Any] | None:
    """Make the short way of an operation."""
    found = _find(function)
    return found.makes_short_way and found.makes_short_way(function, found.in_place)


def _find(function: Callable[..., Any]) -> Found:
    name = function.__name__
    if name in _ACCESSORS:
        rule, name = _ACCESSORS[name], _name_of_property(function)
        make = None if name in ANSWERED_BY_THE_CLASS else _MAKERS.get(rule)
        return Found(rule, name, False, make)
    for form, in_place in _forms(name):
        for key, names in TABLE.items():
            if form in names:
                return Found(RULES[key], form, in_place, _MAKERS.get(RULES[key]))
    return Found(refuse, name, False)


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
