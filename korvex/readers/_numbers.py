# SPDX-License-Identifier: Apache-2.0
"""What is a number in a text, cell by cell: the rule that fast parsing must agree with.

Each value is the float64 nearest to what the text says. "inf" and "nan" are taken where the text
says so, but a number beyond the range of float64 is refused: it would become an infinity that
nobody wrote.
"""

from __future__ import annotations

import csv
import io
import math
from collections.abc import Iterator, Sequence
from typing import TYPE_CHECKING

import numpy as np

from korvex.readers._errors import InputError
from korvex.readers._table import Array

if TYPE_CHECKING:
    from _csv import Reader

_MOST_SHOWN = 40


def number(text: str, path: str, line: int) -> float:
    try:
        value = float(text)
    except ValueError:
        value = None
    if value is None or "_" in text:  # float() takes 1_000 as Python source does
        shown = text if len(text) <= _MOST_SHOWN else text[: _MOST_SHOWN - 3] + "..."
        raise InputError(f"{path}, line {line}: {shown!r} is no number")
    if math.isinf(value) and "inf" not in text.lower():
        raise InputError(
            f"{path}, line {line}: {text[:_MOST_SHOWN]} is beyond the range of float64"
        )
    return value


def is_number(text: str) -> bool:
    try:
        float(text)
    except ValueError:
        return False
    return True


def rows_of(block: bytes, delimiter: str) -> Reader:
    """Bytes that are no UTF-8 become a character that is in no number, so a line is named."""
    return csv.reader(io.StringIO(decoded(block), newline=""), delimiter=delimiter)


def decoded(block: bytes) -> str:
    return block.decode("utf-8", errors="replace")


class SlowParser:
    """Parses a block of whole lines cell by cell, and finds the line that is wrong."""

    def __init__(
        self, path: str, delimiter: str | None, columns: Sequence[int], missing: Sequence[str]
    ) -> None:
        self._path = path
        self._delimiter = delimiter  # None: one value a line
        self._columns = columns
        self._missing = frozenset(missing)

    def parse(self, block: bytes, first_line: int) -> list[tuple[Array, int]]:
        """For each column its numbers and how many cells hold none; `first_line` counts from 1."""
        values: list[list[float]] = [[] for _ in self._columns]
        missing = [0] * len(self._columns)
        for line, cells in self._cells(block, first_line):
            for place, text in enumerate(cells):
                if text in self._missing:
                    missing[place] += 1
                else:
                    values[place].append(number(text, self._path, line))
        return [(np.array(v, np.float64), m) for v, m in zip(values, missing, strict=True)]

    def _cells(self, block: bytes, first_line: int) -> Iterator[tuple[int, list[str]]]:
        """The cells of the columns, of each line that is not blank."""
        if self._delimiter is None:
            for line, text in enumerate(io.StringIO(decoded(block), newline=None), first_line):
                if text.strip():
                    yield line, [text.strip()]
            return
        rows = rows_of(block, self._delimiter)
        try:
            for row in rows:
                if row:
                    line = first_line + rows.line_num - 1
                    yield line, [self._cell(row, index, line) for index in self._columns]
        except csv.Error as error:
            line = first_line + rows.line_num - 1
            raise InputError(f"{self._path}, line {line}: {error}") from error

    def _cell(self, row: list[str], index: int, line: int) -> str:
        if index >= len(row):
            raise InputError(
                f"{self._path}, line {line}: {len(row)} columns, and column {index + 1} wanted"
            )
        return row[index].strip()
