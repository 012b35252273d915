# SPDX-License-Identifier: Apache-2.0
"""A kernel's parameters, read from its line of text, and the check of a launch against them.

The text is that of the kernel table: ``x:f64[n] out:f64[4] n:i64``, where an array's brackets hold
the least number of elements as a number, the name of an integer parameter or a product ``M*K``. All
integers are sizes. A launch that passes the check reads and writes inside its arrays.
"""

from __future__ import annotations

import re
from typing import Any, NamedTuple, Protocol

_MOST_I64 = 2**63 - 1
_MOST_EXTENT = {"grid": (2**31 - 1, 65535, 65535), "block": (1024, 1024, 64)}
_MOST_THREADS = 1024
_PARAMETER = re.compile(r"(\w+):(?:(i64)|(f64)(?:\[([\w*]+)\])?)")


class Array(Protocol):
    """What a check asks of an array argument."""

    element_type: str
    element_count: int
    is_contiguous: bool
    pointer: int


class Parameter(NamedTuple):
    """One parameter of a kernel: `kind` is "i64", "f64" or "array"."""

    name: str
    kind: str
    factors: tuple[str, ...] = ()  # of an array's least number of elements: numbers and names


def parse(text: str) -> tuple[Parameter, ...]:
    """Read the line of the kernel table.

    Raises
    ------
    ValueError
        If the text is not of that form, or an array's size names no integer parameter.
    """
    parameters = tuple(_parse_one(word) for word in text.split())
    sizes = {p.name for p in parameters if p.kind == "i64"}
    for parameter in parameters:
        if not all(factor.isdigit() or factor in sizes for factor in parameter.factors):
            raise ValueError(f"the size of {parameter.name!r} is unknown in {text!r}")
    return parameters


def _parse_one(word: str) -> Parameter:
    match = _PARAMETER.fullmatch(word)
    if match is None:
        raise ValueError(f"not a kernel parameter: {word!r}")
    name, integer, _, factors = match.groups()
    if factors:
        return Parameter(name, "array", tuple(factors.split("*")))
    return Parameter(name, "i64" if integer else "f64")


def check_arguments(
    kernel: str, parameters: tuple[Parameter, ...], arguments: tuple[Any, ...], array_type: type
) -> None:
    """Check the arguments of one launch.

    Parameters
    ----------
    kernel : str
        Its name, for messages.
    parameters : tuple of Parameter
    arguments : tuple
        As the caller gave them; arrays are of `array_type` and have the members of `Array`.
    array_type : type

    Raises
    ------
    TypeError
        If their number or the kind of one is wrong.
    ValueError
        If a size is negative or beyond 64 bits, or an array is not contiguous or too short.
    """
    if len(arguments) != len(parameters):
        names = ", ".join(p.name for p in parameters)
        raise TypeError(
            f"{kernel} takes {len(parameters)} arguments ({names}), but got {len(arguments)}"
        )
    given = dict(zip((p.name for p in parameters), arguments, strict=True))
    for parameter in parameters:
        _check_kind(kernel, parameter, given[parameter.name], array_type)
    for parameter in parameters:
        if parameter.kind == "array":
            _check_array(kernel, parameter, given)


def _check_kind(kernel: str, parameter: Parameter, value: Any, array_type: type) -> None:
    expected: type = {"i64": int, "f64": float, "array": array_type}[parameter.kind]
    if not isinstance(value, expected) or isinstance(value, bool):
        raise TypeError(
            f"{kernel}: {parameter.name!r} must be of type {expected.__name__}, "
            f"not {type(value).__name__}"
        )
    if isinstance(value, int) and not 0 <= value <= _MOST_I64:
        raise ValueError(f"{kernel}: {parameter.name!r} must be a size in 64 bits, not {value}")


def _check_array(kernel: str, parameter: Parameter, given: dict[str, Any]) -> None:
    array: Array = given[parameter.name]
    if array.element_type != "float64":
        raise TypeError(
            f"{kernel}: {parameter.name!r} must hold float64 elements, not {array.element_type}"
        )
    if not array.is_contiguous:
        raise ValueError(f"{kernel}: {parameter.name!r} must be contiguous")
    least = 1
    for factor in parameter.factors:
        least *= int(factor) if factor.isdigit() else given[factor]
    if array.element_count < least:
        raise ValueError(
            f"{kernel}: {parameter.name!r} must have at least {'*'.join(parameter.factors)} = "
            f"{least} elements, but has {array.element_count}"
        )


def check_extent(kernel: str, what: str, extent: Any) -> None:
    """Check a grid or a block by the limits that every CUDA device has.

    Parameters
    ----------
    kernel : str
        Its name, for messages.
    what : {"grid", "block"}
    extent : tuple of three int

    Raises
    ------
    TypeError
        If it is no tuple of three `int`.
    ValueError
        If an extent is out of range. A grid may have an extent of 0; a block may not.
    """
    if not isinstance(extent, tuple) or len(extent) != 3:
        raise TypeError(f"{kernel}: {what} must be a tuple of three int, not {extent!r}")
    for size, most in zip(extent, _MOST_EXTENT[what], strict=True):
        if not isinstance(size, int) or isinstance(size, bool):
            raise TypeError(f"{kernel}: {what} must be a tuple of three int, not {extent!r}")
        if not (what == "block") <= size <= most:
            raise ValueError(f"{kernel}: {what} {extent} is out of range")
    if what == "block" and extent[0] * extent[1] * extent[2] > _MOST_THREADS:
        raise ValueError(f"{kernel}: {what} {extent} is out of range")
