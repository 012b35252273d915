# SPDX-License-Identifier: Apache-2.0
"""An opened file as columns of numbers: what all formats have in common."""

from __future__ import annotations

from abc import ABC, abstractmethod
from collections.abc import Callable, Iterator, Sequence
from typing import Any, NamedTuple

import numpy as np

from korvex.readers._errors import InputError, as_input_errors

Array = np.ndarray[Any, Any]
OnRead = Callable[[int], None]

NUMBER_CHARACTERS = frozenset("?bBhHiIlLqQefd")  # of NumPy's dtypes: what korvex.exact takes
_SHOWN_NAMES = 20


class ReadOptions(NamedTuple):
    """How a file is read; each of them matters to some formats only."""

    format: str | None = None  # one of FORMATS; by content and name where none is given
    header: bool | None = None  # of CSV and TSV: whether the first row holds names
    missing: tuple[str, ...] = ()  # of text: what stands for no value


class Table(ABC):
    """Columns of numbers, read once from the beginning to the end.

    `columns` are the names of what was chosen; None stands for a file that is one column.
    `passed_over` names the columns that hold no numbers, where all were wanted. `missing` counts
    for each column the cells that hold no value; it is complete when `chunks` has ended.
    """

    columns: tuple[str | None, ...]
    passed_over: tuple[str, ...] = ()
    missing: list[int]
    what = "a file of numbers"  # in words, for what is said of damage

    def __init__(self, path: str, columns: Sequence[str | None]) -> None:
        self.path = path
        self.columns = tuple(columns)
        self.missing = [0] * len(self.columns)

    def chunks(self) -> Iterator[tuple[int, Array]]:
        """The index of a column and its next numbers; an array is good until the next one comes."""
        with as_input_errors(self.path, self.what):
            yield from self._chunks()

    @abstractmethod
    def _chunks(self) -> Iterator[tuple[int, Array]]:
        """The same; whatever is raised becomes an InputError."""


def native(values: Array) -> Array:
    """The same numbers in this machine's byte order."""
    return values if values.dtype.isnative else values.astype(values.dtype.newbyteorder("="))


def refuse_columns(path: str, wanted: Sequence[str | None]) -> None:
    """For a file that is one column."""
    for column in wanted:
        if column is not None:
            raise InputError(f"{path}: no column {column}: the file is one column without a name")


def index_of(path: str, column: str, names: Sequence[str]) -> int:
    """A column by its name, or counted from 1."""
    if names.count(column) > 1:
        raise InputError(f"{path}: more than one column is named {column}; count it, from 1")
    if column in names:
        return names.index(column)
    if column.isdecimal() and 1 <= int(column) <= len(names):
        return int(column) - 1
    listed = " ".join(", ".join(names[:_SHOWN_NAMES]).split())
    raise InputError(f"{path}: no column {column}; the columns: {listed}")


def chosen_columns(
    path: str, wanted: Sequence[str | None], names: Sequence[str], kinds: Sequence[str | None]
) -> tuple[list[int], list[str]]:
    """Indices of the columns that are wanted, and names of those that were passed over.

    A kind is what a column holds in place of numbers, or None. Wanted by name it is an error; where
    all columns are wanted it is passed over.
    """
    named = [index_of(path, column, names) for column in wanted if column is not None]
    named = list(dict.fromkeys(named))  # by name and by number it may be the same one
    for index in named:
        if kinds[index] is not None:
            raise InputError(
                f"{path}: column {names[index]} holds {kinds[index]}, and real numbers are wanted"
            )
    if None not in wanted:
        return named, []
    numbers = [index for index in range(len(names)) if kinds[index] is None]
    if not numbers:
        held = ", ".join(sorted({str(kind) for kind in kinds})) or "nothing"
        raise InputError(f"{path}: holds {held}, and real numbers are wanted")
    passed_over = [name for name, kind in zip(names, kinds, strict=True) if kind is not None]
    return numbers + [index for index in named if index not in numbers], passed_over
