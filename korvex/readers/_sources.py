# SPDX-License-Identifier: Apache-2.0
"""What an argument FILE or FILE:COLUMN means."""

from __future__ import annotations

import os
import re
from collections.abc import Iterable
from typing import NamedTuple

STANDARD_INPUT = "-"

_KNOWN_NAME = re.compile(
    r"(?P<path>.*?\.(csv|tsv|tab|txt|dat|npy|npz|parquet|arrow|feather|ipc)(\.(gz|zst))?)"
    r":(?P<column>.*)",
    re.IGNORECASE | re.DOTALL,
)


class Source(NamedTuple):
    """A file, or standard input, and one of its columns; all of them where none is named."""

    path: str
    column: str | None = None

    def __str__(self) -> str:
        return self.path if self.column is None else f"{self.path}:{self.column}"


def source_of(argument: str) -> Source:
    """Take FILE:COLUMN apart.

    Both parts may hold colons: the longest part in front of one that is a file is the file. Where
    no file is there, the first name with a known ending is what was meant.
    """
    if argument == STANDARD_INPUT or os.path.exists(argument):
        return Source(argument)
    if argument.startswith(STANDARD_INPUT + ":"):
        return Source(STANDARD_INPUT, argument[2:])
    for colon in reversed([found.start() for found in re.finditer(":", argument)]):
        path = argument[:colon]
        if os.path.exists(path) and not os.path.isdir(path):
            return Source(path, argument[colon + 1 :])
    known = _KNOWN_NAME.fullmatch(argument)
    return Source(known["path"], known["column"]) if known else Source(argument)


def grouped(sources: Iterable[Source]) -> dict[str, list[str | None]]:
    """The columns that are wanted of each file, so that a file is read once."""
    wanted: dict[str, list[str | None]] = {}
    for source in sources:
        columns = wanted.setdefault(source.path, [])
        if source.column not in columns:
            columns.append(source.column)
    return wanted
