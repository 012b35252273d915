# SPDX-License-Identifier: Apache-2.0
"""Reads float64 values from text, CSV and .npy files, gzipped or not.

Each value is the float64 nearest to what the file says. "inf" and "nan" are taken where the file
says so, but a number beyond the range of float64 is refused: it would become an infinity that
nobody wrote. Every refusal is an InputError of one line, with the line of the file if there is one.
"""

import csv
import gzip
import io
import math
import re
import zlib
from array import array
from collections.abc import Buffer, Callable, Iterator
from contextlib import contextmanager
from typing import IO, TYPE_CHECKING, cast

import numpy as np

if TYPE_CHECKING:
    from _csv import Reader

_CSV_COLUMN = re.compile(r"(?P<path>.*?\.csv(\.gz)?)(:(?P<column>.*))?", re.IGNORECASE | re.DOTALL)
_NPY_NAME = re.compile(r".*\.npy(\.gz)?", re.IGNORECASE | re.DOTALL)
_READ_BYTES = 1 << 20  # at a time, so that progress shows
_GZIP_MAGIC = b"\x1f\x8b"


class InputError(Exception):
    """One line for the user: what is wrong with which file."""


def read_values(source: str, on_read: Callable[[int], None] = lambda position: None) -> np.ndarray:
    """The values that `source` names, flat; `on_read` gets the byte position in the file."""
    path, read = _reader_of(source)
    try:
        with _open_bytes(path, on_read) as stream:
            values = read(stream)
    except zlib.error as error:
        raise InputError(f"{path}: damaged gzip data: {error}") from error
    except EOFError as error:
        raise InputError(f"{path}: the file ends too early") from error
    except OSError as error:
        raise InputError(f"{path}: {error.strerror or error}") from error
    if values.size == 0:
        raise InputError(f"{path}: no values: the file is empty")
    return values


def path_of(source: str) -> str:
    """The file that `source` names, without the column."""
    return _reader_of(source)[0]


def _reader_of(source: str) -> tuple[str, Callable[[io.BufferedIOBase], np.ndarray]]:
    """The path, and the function that reads a file of this form."""
    csv_source = _CSV_COLUMN.fullmatch(source)
    if csv_source:
        path, column = csv_source["path"], csv_source["column"]
        return path, lambda stream: _csv_values(stream, path, column)
    if _NPY_NAME.fullmatch(source):
        return source, lambda stream: _npy_values(stream, source)
    return source, lambda stream: _text_values(stream, source)


# --- Bytes


class _CountedFile(io.FileIO):
    """A file that reports how far it has been read."""

    def __init__(self, path: str, on_read: Callable[[int], None]):
        super().__init__(path)
        self._on_read = on_read

    def readinto(self, buffer: Buffer) -> int:
        count = super().readinto(memoryview(buffer)[:_READ_BYTES])
        self._on_read(self.tell())
        return count

    def fileno(self) -> int:
        raise io.UnsupportedOperation("NumPy would read past readinto through the file number")


@contextmanager
def _open_bytes(path: str, on_read: Callable[[int], None]) -> Iterator[io.BufferedIOBase]:
    """Opens a file for reading, through gzip if its content is gzipped, whatever its name."""
    with io.BufferedReader(_CountedFile(path, on_read), _READ_BYTES) as stream:
        if stream.peek(2)[:2] != _GZIP_MAGIC:
            yield stream
            return
        with gzip.GzipFile(fileobj=stream) as unzipped:
            yield unzipped


def _text(stream: io.BufferedIOBase, newline: str | None = None) -> io.TextIOWrapper:
    """Undecodable bytes become a character that is in no number, so they are reported by line."""
    source = cast(IO[bytes], stream)
    return io.TextIOWrapper(source, encoding="utf-8-sig", errors="replace", newline=newline)


# --- Numbers in text


def _number(text: str, path: str, line: int) -> float:
    try:
        value = float(text)
    except ValueError:
        value = None
    if value is None or "_" in text:  # float() takes 1_000 as Python source does
        shown = text if len(text) <= 40 else text[:37] + "..."
        raise InputError(f"{path}, line {line}: {shown!r} is no number")
    if math.isinf(value) and "inf" not in text.lower():
        raise InputError(f"{path}, line {line}: {text[:40]} is beyond the range of float64")
    return value


def _text_values(stream: io.BufferedIOBase, path: str) -> np.ndarray:
    """One value a line; blank lines count as lines and hold nothing."""
    values = array("d")
    with _text(stream) as lines:
        for line_number, line in enumerate(lines, 1):
            text = line.strip()
            if text:
                values.append(_number(text, path, line_number))
    return np.array(values, np.float64)


# --- CSV


def _csv_values(stream: io.BufferedIOBase, path: str, column: str | None) -> np.ndarray:
    """One column of a comma-separated file, by the name in the first row or counted from 1."""
    with _text(stream, newline="") as lines:
        rows = csv.reader(lines)
        try:
            return np.fromiter(_column_values(rows, path, column), np.float64)
        except csv.Error as error:
            raise InputError(f"{path}, line {rows.line_num}: {error}") from error


def _column_values(rows: "Reader", path: str, column: str | None) -> Iterator[float]:
    """A column that is counted may be without a name: then its first cell is a number, a value."""
    first_row = next((row for row in rows if row), [])
    index, by_name = _find_column(first_row, path, column)
    if not by_name and _is_number(first_row[index]):
        yield _number(first_row[index].strip(), path, rows.line_num)
    for row in rows:
        if row:
            yield _number(_cell(row, index, path, rows.line_num), path, rows.line_num)


def _find_column(first_row: list[str], path: str, column: str | None) -> tuple[int, bool]:
    """The index of a column, and whether it was found by its name."""
    names = [name.strip() for name in first_row]
    if not names:
        raise InputError(f"{path}: no values: the file is empty")
    listed = " ".join(", ".join(names[:20]).split())
    if not column:
        raise InputError(f"{path}: name a column, as in {path}:{names[0]}; the first row: {listed}")
    if names.count(column) > 1:
        raise InputError(f"{path}: more than one column is named {column}; count it, from 1")
    if column in names:
        return names.index(column), True
    if column.isdecimal() and 1 <= int(column) <= len(names):
        return int(column) - 1, False
    raise InputError(f"{path}: no column {column}; the first row: {listed}")


def _cell(row: list[str], index: int, path: str, line: int) -> str:
    if index >= len(row):
        raise InputError(f"{path}, line {line}: {len(row)} columns, and column {index + 1} wanted")
    return row[index].strip()


def _is_number(text: str) -> bool:
    try:
        float(text)
    except ValueError:
        return False
    return True


# --- NumPy


def _npy_values(stream: io.BufferedIOBase, path: str) -> np.ndarray:
    """All elements in row-major order. Numbers only: no complex ones, no objects."""
    try:
        loaded = np.load(stream, allow_pickle=False)
    except ValueError as error:
        reason = str(error).partition("\n")[0]
        raise InputError(f"{path}: not a .npy file of numbers: {reason}") from error
    if not isinstance(loaded, np.ndarray) or loaded.dtype.kind not in "fiub":
        kind = getattr(loaded, "dtype", "an archive")
        raise InputError(f"{path}: holds {kind}, and real numbers are wanted")
    with np.errstate(over="ignore"):
        values = loaded.astype(np.float64).ravel()
    if loaded.dtype.itemsize > 8 and np.isinf(values).sum() > np.isinf(loaded).sum():
        raise InputError(f"{path}: holds values beyond the range of float64")
    return values
