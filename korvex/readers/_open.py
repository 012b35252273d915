# SPDX-License-Identifier: Apache-2.0
"""Finds out what a file is, and opens it as a table."""

from __future__ import annotations

import re
from collections.abc import Iterator, Sequence
from contextlib import ExitStack, contextmanager

from korvex.readers._arrow import ArrowTable, ParquetTable
from korvex.readers._bytes import SHOWN_COMPRESSION, Digest, OpenFile, open_bytes
from korvex.readers._errors import InputError, as_input_errors
from korvex.readers._npy import NpyTable, NpzTable
from korvex.readers._table import OnRead, ReadOptions, Table
from korvex.readers._text import DELIMITERS, TextTable

FORMATS = ("text", "csv", "tsv", "npy", "npz", "parquet", "arrow")

# How a file of each format begins; text begins with anything else.
_MAGIC = {
    b"\x93NUMPY": "npy",
    b"PK\x03\x04": "npz",
    b"PK\x05\x06": "npz",
    b"PAR1": "parquet",
    b"ARROW1": "arrow",
    b"\xff\xff\xff\xff": "arrow",
}
_REFUSED = {b"FEA1": "Feather of version 1", b"\x89HDF": "HDF5", b"PARE": "encrypted Parquet"}
_NAMES = {
    "csv": r"\.csv",
    "tsv": r"\.(tsv|tab)",
    "npy": r"\.npy",
    "npz": r"\.npz",
    "parquet": r"\.parquet",
    "arrow": r"\.(arrow|feather|ipc)",
}
_SHOWN = {
    "text": "a text of numbers",
    "csv": "a CSV file",
    "tsv": "a TSV file",
    "npy": "a .npy file",
    "npz": "a .npz file",
    "parquet": "a Parquet file",
    "arrow": "an Arrow file",
}


def _no_matter(count: int) -> None:
    pass


@contextmanager
def open_table(
    path: str,
    wanted: Sequence[str | None] = (None,),
    options: ReadOptions | None = None,
    on_read: OnRead = _no_matter,
    digest: Digest | None = None,
) -> Iterator[Table]:
    """Open a file, or standard input where `path` is "-"; `on_read` gets numbers of bytes.

    A digest is for sources that can be read once: it is complete when this ends.
    """
    options = options or ReadOptions()
    with open_bytes(path, on_read, digest) as opened:
        form = options.format or _format_of(opened, wanted)
        what = SHOWN_COMPRESSION[opened.compression] if opened.compression else _SHOWN[form]
        with ExitStack() as files:
            with as_input_errors(path, what):
                table = _table(opened, form, wanted, options, on_read, files)
                table.what = what
            yield table


def _table(
    opened: OpenFile,
    form: str,
    wanted: Sequence[str | None],
    options: ReadOptions,
    on_read: OnRead,
    files: ExitStack,
) -> Table:
    path = opened.path
    if form == "npy":
        return NpyTable(path, opened.stream, wanted)
    if form == "npz":
        return NpzTable(path, files.enter_context(opened.seekable()), wanted)
    if form == "parquet":
        if opened.is_plain_file:  # pyarrow reads it by itself
            return ParquetTable(path, path, wanted, on_read)
        return ParquetTable(path, files.enter_context(opened.seekable()), wanted, _no_matter)
    if form == "arrow":
        return ArrowTable(opened, wanted, on_read)
    return TextTable(path, opened.stream, form, wanted, options)


def _format_of(opened: OpenFile, wanted: Sequence[str | None]) -> str:
    """By the content; what is a text by its name, and where that says nothing by what is wanted."""
    if not opened.head:
        raise InputError(f"{opened.path}: no values: the file is empty")
    for magic, refused in _REFUSED.items():
        if opened.head.startswith(magic):
            raise InputError(f"{opened.path}: {refused} is not read")
    for magic, form in _MAGIC.items():
        if opened.head.startswith(magic):
            return form
    for form, name in _NAMES.items():
        if re.search(rf"{name}(\.\w+)?$", opened.path, re.IGNORECASE):
            return _of_named_text(opened, form)
    if any(column is not None for column in wanted):
        return "tsv" if b"\t" in opened.stream.peek().partition(b"\n")[0] else "csv"
    return "text"


def _of_named_text(opened: OpenFile, form: str) -> str:
    if form in DELIMITERS:
        return form
    raise InputError(f"{opened.path}: not {_SHOWN[form]}: it does not begin as one")
