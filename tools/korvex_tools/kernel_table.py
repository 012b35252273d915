# SPDX-License-Identifier: Apache-2.0
"""The table of kernels as the sources have it, for programs that need no built package."""

import functools
import math
import re
from typing import NamedTuple

from korvex_tools.source_tree import SOURCE_TREE

TABLE = SOURCE_TREE / "korvex" / "kernels" / "table.h"
WHOLE_DEVICE_TABLE = TABLE.with_name("whole_device.h")
STATES_TABLE = TABLE.with_name("states.h")

_CONSTANT = re.compile(r"constexpr unsigned (k\w+) = ([\w* ]+);")
_ROW = re.compile(r'^\s*\{"(\w+)",\s*"(\w+)",\s*(\w+),\s*"([^"]*)"([^}]*)\}', re.MULTILINE)


_DEVICE_LAUNCH = re.compile(r'\{"(\w+_device\w*_kernel)",\s*(\w+),')
_STATE_ROW = re.compile(r'\{"(korvex_\w+)",\s*"[^"]*", \d+,\s*(\w+),')


class Row(NamedTuple):
    """As KernelRow of the sources, whose comments say what each member is."""

    name: str
    form: str
    block: int
    parameters: str
    blocks_per_multiprocessor: int
    strides_along_y: bool
    elements_per_block: int


@functools.cache
def constants() -> dict[str, int]:
    """The numbers of the launch shapes, by name."""
    texts = [path.read_text() for path in (TABLE, WHOLE_DEVICE_TABLE, STATES_TABLE)]
    found: dict[str, int] = {}
    for name, product in _CONSTANT.findall("\n".join(texts)):
        found[name] = math.prod(_number(word.strip(), found) for word in product.split("*"))
    return found


def _number(word: str, known: dict[str, int]) -> int:
    return known[word] if word in known else int(word)


@functools.cache
def rows() -> dict[str, Row]:
    """All kernels, by name."""
    known = {**constants(), "true": 1, "false": 0}
    found = {}
    for name, form, block, parameters, rest in _ROW.findall(TABLE.read_text()):
        words = [*re.findall(r"\w+", rest), "0", "0", "0"][:3]
        blocks, along_y, elements = (_number(word, known) for word in words)
        threads = _number(block, known)
        found[name] = Row(name, form, threads, parameters, blocks, bool(along_y), elements)
    return found


@functools.cache
def on_the_whole_device() -> dict[str, tuple[str, ...]]:
    """The kernels for which others may stand, and the names of those in the order of launches."""
    names = re.findall(r'"(tqx_\w+_kernel)"', WHOLE_DEVICE_TABLE.read_text())
    found: dict[str, list[str]] = {}
    for name in names:
        if "_device_" in name:
            found[next(reversed(found))].append(name)
        else:
            found[name] = []
    return {name: tuple(launches) for name, launches in found.items()}


@functools.cache
def of_states() -> tuple[str, ...]:
    """The kernels of exact states."""
    return tuple(re.findall(r'\{"(korvex_\w+)"', STATES_TABLE.read_text()))


@functools.cache
def blocks_per_multiprocessor() -> dict[str, int]:
    """Of the kernels for the whole device and of those of states; 0: a single block."""
    found = _DEVICE_LAUNCH.findall(WHOLE_DEVICE_TABLE.read_text())
    found += _STATE_ROW.findall(STATES_TABLE.read_text())
    return {name: _number(blocks, constants()) for name, blocks in found}
