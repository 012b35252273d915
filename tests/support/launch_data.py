# SPDX-License-Identifier: Apache-2.0
"""Data that C++ tests of launches and the checks on a GPU share: tests/launches, hard cases."""

import functools
import json
import re
from pathlib import Path

import numpy as np

_TESTS = Path(__file__).resolve().parents[1]


def _text(name: str) -> str:
    """A file of C++ initialisers, without its comments."""
    return re.sub(r"//.*", "", (_TESTS / "launches" / f"{name}.inc").read_text())


def _number(text: str) -> float:
    """Of a literal, or of a sum of such, as 1e9 + 0x1p-20."""
    return sum(float.fromhex(term) if "0x" in term else float(term) for term in text.split(" + "))


@functools.cache
def notable_arrays() -> list[np.ndarray]:
    """Short arrays that a kernel needs care to be right for."""
    found = re.findall(r"\{([^}]*)\}", _text("notable_arrays"))
    return [np.array([_number(word.strip()) for word in row.split(",")]) for row in found]


@functools.cache
def sizes() -> list[int]:
    """Around every border of the kernels' work."""
    return [int(word) for word in _text("sizes").split(",")]


@functools.cache
def threads() -> list[int]:
    """Of a block."""
    return [int(word) for word in _text("threads").split(",")]


@functools.cache
def hard_cases() -> np.ndarray:
    """Arguments for which an elementary function needs its second try."""
    rows = json.loads((_TESTS / "elementwise" / "hard_cases.json").read_text())
    text = json.dumps(rows)
    return np.array([float.fromhex(x) for x in re.findall(r'"x": "([^"]+)"', text)])
