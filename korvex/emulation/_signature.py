# SPDX-License-Identifier: Apache-2.0
"""A kernel's parameters, read from its line of text, and the check of a launch against them.

The text is that of the kernel table: ``x:f64[n] out:f64[4] n:i64``, where an array's brackets hold
the least number of elements as a number, the name of an integer parameter or a product ``M*K``. All
integers are sizes. A launch that passes the check reads and writes inside its arrays.

The checks read numbers and tuples as the loader of a real device does in C: objects of subclasses
of `int`, `float` and `tuple` are taken, and what counts is the number or the items that they hold,
not what their methods answer. The messages are the loader's.
"""

from __future__ import annotations

import math
import re
from typing import Any, NamedTuple, Protocol

_MOST_I64 = 2**63 - 1
_MOST_BLOCKS = 2**31 - 1  # along x
_MOST_BLOCKS_ALONG_Y = 65535
_MOST_EXTENT = {
    "grid": (_MOST_BLOCKS, _MOST_BLOCKS_ALONG_Y, 65535),
    "block": (1024, 1024, 64),
}
_MOST_STRIDING_GRID = (_MOST_BLOCKS, _MOST_BLOCKS, 65535)
_MOST_THREADS = 1024
_THREE_INTS = (int, int, int)
_MOST_THREADS_OF_FUNCTION = 256  # of a block that the caller chooses: korvex/kernels/table.h
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
) -> list[Any]:
    """Check the arguments of one launch, and return what the kernel gets.

    Parameters
    ----------
    kernel : str
        Its name, for messages.
    parameters : tuple of Parameter
    arguments : tuple
        As the caller gave them; arrays are of `array_type` and have the members of `Array`.
    array_type : type

    Returns
    -------
    list
        An `int` or a `float` itself for each number; the arrays as they were given.

    Raises
    ------
    TypeError
        If their number or the kind of one is wrong.
    ValueError
        If a size is negative or beyond 64 bits, or an array is not contiguous or too short.
    """
    if _are_usual(parameters, arguments, array_type):
        return list(arguments)
    if len(arguments) != len(parameters):
        names = ", ".join(p.name for p in parameters)
        raise TypeError(
            f"{kernel} takes {len(parameters)} arguments ({names}), but got {len(arguments)}"
        )
    given = {
        parameter.name: _value_of(kernel, parameter, argument, array_type)
        for parameter, argument in zip(parameters, arguments, strict=True)
    }
    for parameter in parameters:
        if parameter.kind == "array":
            _check_array(kernel, parameter, given)
    return list(given.values())


def _are_usual(
    parameters: tuple[Parameter, ...], arguments: tuple[Any, ...], array_type: type
) -> bool:
    """Whether nothing is wrong and each argument is of the very type, as in nearly all launches.

    All else goes through the checks one by one, which find the message.
    """
    if len(arguments) != len(parameters):
        return False
    sizes: dict[str, int] = {}
    for (name, kind, _), argument in zip(parameters, arguments, strict=True):
        if kind == "i64":
            if type(argument) is not int or not 0 <= argument <= _MOST_I64:
                return False
            sizes[name] = argument
        elif type(argument) is not (array_type if kind == "array" else float):
            return False
    return all(
        argument.element_type == "float64"
        and argument.is_contiguous
        and argument.element_count >= _least_count(parameter, sizes)
        for parameter, argument in zip(parameters, arguments, strict=True)
        if parameter.kind == "array"
    )


def _least_count(parameter: Parameter, sizes: dict[str, int]) -> int:
    least = 1
    for factor in parameter.factors:
        least *= int(factor) if factor.isdigit() else sizes[factor]
    return least


def _value_of(kernel: str, parameter: Parameter, argument: Any, array_type: type) -> Any:
    expected: type = {"i64": int, "f64": float, "array": array_type}[parameter.kind]
    if not _holds(argument, expected):
        raise TypeError(
            f"{kernel}: {parameter.name!r} must be of type {expected.__name__}, "
            f"not {type(argument).__name__}"
        )
    if parameter.kind == "array":
        return argument
    if parameter.kind == "f64":
        return float.__float__(argument)
    size = int.__int__(argument)
    if not 0 <= size <= _MOST_I64:
        raise ValueError(
            f"{kernel}: {parameter.name!r} must be a size in 64 bits, not {argument!r}"
        )
    return size


def _holds(value: Any, expected: type) -> bool:
    """By the type itself: `isinstance` would ask the object, which may claim another class."""
    return issubclass(type(value), expected) and type(value) is not bool


def items_of(value: Any) -> tuple[Any, ...] | None:
    """Return the items that a tuple holds, whatever its class answers; None for other objects."""
    return tuple.__getitem__(value, slice(None)) if _holds(value, tuple) else None


def is_of_plain_ints(extent: Any) -> bool:
    """Whether it is a tuple of three `int` themselves, of which equal ones mean the same."""
    return type(extent) is tuple and tuple(map(type, extent)) == _THREE_INTS


def _check_array(kernel: str, parameter: Parameter, given: dict[str, Any]) -> None:
    array: Array = given[parameter.name]
    if array.element_type != "float64":
        raise TypeError(
            f"{kernel}: {parameter.name!r} must hold float64 elements, not {array.element_type}"
        )
    if not array.is_contiguous:
        raise ValueError(f"{kernel}: {parameter.name!r} must be contiguous")
    least = _least_count(parameter, given)
    if array.element_count < least:
        raise ValueError(
            f"{kernel}: {parameter.name!r} must have at least {'*'.join(parameter.factors)} = "
            f"{least} elements, but has {array.element_count}"
        )


def check_grid(kernel: str, grid: Any, strides_along_y: bool) -> tuple[int, int, int]:
    """Check a grid, and return the numbers with which a device is to launch it.

    A kernel that strides along y takes any number of blocks there, and gets the most that it can.

    Raises
    ------
    TypeError, ValueError
        As `check_extent`.
    """
    if not strides_along_y:
        return check_extent(kernel, "grid", grid)
    x, y, z = check_extent(kernel, "grid", grid, _MOST_STRIDING_GRID)
    return x, min(y, _MOST_BLOCKS_ALONG_Y), z


def check_block(kernel: str, block: Any, own: int) -> tuple[int, int, int]:
    """Check a block, and return its numbers.

    Parameters
    ----------
    kernel : str
        Its name, for messages.
    block : tuple of three int
    own : int
        The threads of the kernel's own block; 0 for a kernel whose callers choose.

    Raises
    ------
    TypeError
        As `check_extent`.
    ValueError
        If it is out of range, has more threads than a caller may choose, or is not the kernel's.
    """
    extent = check_extent(kernel, "block", block)
    if own == 0 and math.prod(extent) > _MOST_THREADS_OF_FUNCTION:
        raise ValueError(f"{kernel}: block {block!r} is out of range")
    if own != 0 and extent != (own, 1, 1):
        raise ValueError(f"{kernel}: block must be ({own}, 1, 1), not {block!r}")
    return extent


def check_extent(
    kernel: str, what: str, extent: Any, most: tuple[int, int, int] | None = None
) -> tuple[int, int, int]:
    """Check a grid or a block by the limits that every CUDA device has, and return its numbers.

    Parameters
    ----------
    kernel : str
        Its name, for messages.
    what : {"grid", "block"}
    extent : tuple of three int
    most : tuple of three int, optional
        The limits, if not those of `what`.

    Raises
    ------
    TypeError
        If it is no tuple of three `int`.
    ValueError
        If an extent is out of range. A grid may have an extent of 0; a block may not.
    """
    items = items_of(extent)
    if items is None or len(items) != 3 or not all(_holds(item, int) for item in items):
        raise TypeError(f"{kernel}: {what} must be a tuple of three int, not {extent!r}")
    x, y, z = map(int.__int__, items)
    least = 1 if what == "block" else 0
    limits = most or _MOST_EXTENT[what]
    fits = all(least <= n <= most for n, most in zip((x, y, z), limits, strict=True))
    if not fits or (what == "block" and x * y * z > _MOST_THREADS):
        raise ValueError(f"{kernel}: {what} {extent!r} is out of range")
    return x, y, z
