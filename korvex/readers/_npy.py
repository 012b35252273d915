# SPDX-License-Identifier: Apache-2.0
"""NPY and NPZ: arrays of NumPy, read piece by piece.

No file is mapped into memory: one that is cut would end the process, and a pipe has no map.
"""

from __future__ import annotations

import math
import zipfile
from collections.abc import Buffer, Iterator, Sequence
from typing import Any, BinaryIO, Protocol, cast

import numpy as np
from numpy.lib import format as npy_format

from korvex.readers._errors import InputError, as_input_errors
from korvex.readers._table import (
    NUMBER_CHARACTERS,
    Array,
    Table,
    chosen_columns,
    native,
    refuse_columns,
)

PIECE_BYTES = 1 << 22
_SUFFIX = ".npy"


class Bytes(Protocol):
    """A stream, or a member of an archive."""

    def read(self, size: int = ..., /) -> bytes: ...

    def readinto(self, buffer: Buffer, /) -> int: ...


class _Header:
    """What stands in front of the elements."""

    def __init__(self, path: str, stream: Bytes) -> None:
        with as_input_errors(path, "a .npy file"):
            version = npy_format.read_magic(stream)
            if version not in ((1, 0), (2, 0)):
                raise InputError(f"{path}: version {version[0]}.{version[1]} of .npy is not read")
            read = getattr(npy_format, f"read_array_header_{version[0]}_0")
            shape, _, self.dtype = read(stream)
        self.count = math.prod(shape)

    def kind(self) -> str | None:
        """What it holds in place of numbers, or None."""
        return _kind(self.dtype)


def _kind(dtype: np.dtype[Any]) -> str | None:
    return None if dtype.base.char in NUMBER_CHARACTERS else str(dtype)


class NpyTable(Table):
    """All elements of one array, or the fields of an array of records."""

    def __init__(self, path: str, stream: Bytes, wanted: Sequence[str | None]) -> None:
        self._stream = stream
        self._header = header = _Header(path, stream)
        self._fields = list(header.dtype.names or ())
        if not self._fields:
            refuse_columns(path, wanted)
            if header.kind() is not None:
                raise InputError(f"{path}: holds {header.dtype}, and real numbers are wanted")
            super().__init__(path, [None])
            return
        kinds = [_kind(header.dtype[name]) for name in self._fields]
        indices, passed_over = chosen_columns(path, wanted, self._fields, kinds)
        super().__init__(path, [self._fields[index] for index in indices])
        self.passed_over = tuple(passed_over)

    def _chunks(self) -> Iterator[tuple[int, Array]]:
        for piece in pieces(self.path, self._stream, self._header.dtype, self._header.count):
            for place, name in enumerate(self.columns):
                yield place, native(piece if name is None else piece[name])
        if self._stream.read(1):
            raise InputError(f"{self.path}: more bytes follow the array than its header says")


class NpzTable(Table):
    """Arrays by their names; each is read from its beginning to its end."""

    def __init__(self, path: str, file: BinaryIO, wanted: Sequence[str | None]) -> None:
        with as_input_errors(path, "a .npz file"):
            self._archive = zipfile.ZipFile(file)
            members = [name for name in self._archive.namelist() if name.endswith(_SUFFIX)]
            if not members:
                raise InputError(f"{path}: no .npz file: no array is in the archive")
            kinds = [self._kind(path, member) for member in members]
        names = [member.removesuffix(_SUFFIX) for member in members]
        indices, passed_over = chosen_columns(path, wanted, names, kinds)
        super().__init__(path, [names[index] for index in indices])
        self.passed_over = tuple(passed_over)

    def _kind(self, path: str, member: str) -> str | None:
        with self._archive.open(member) as stream:
            return _Header(path, cast(Bytes, stream)).kind()

    def _chunks(self) -> Iterator[tuple[int, Array]]:
        for place, name in enumerate(self.columns):
            with self._archive.open(f"{name}{_SUFFIX}") as opened:
                stream = cast(Bytes, opened)
                header = _Header(self.path, stream)
                for piece in pieces(self.path, stream, header.dtype, header.count):
                    yield place, native(piece)
                if stream.read(1):  # at the end the archive compares its own checksum
                    raise InputError(f"{self.path}: more bytes follow {name} than its header says")


def pieces(path: str, stream: Bytes, dtype: np.dtype[Any], count: int) -> Iterator[Array]:
    """Elements in the order in which they are stored; each piece takes the place of the last."""
    at_once = max(1, PIECE_BYTES // dtype.itemsize)
    buffer = np.empty(min(at_once, count) * dtype.itemsize, np.uint8)
    for first in range(0, count, at_once):
        elements = min(at_once, count - first)
        view = memoryview(buffer)[: elements * dtype.itemsize]
        if _read_fully(stream, view) < len(view):
            raise InputError(f"{path}: the file ends too early: {count} values are announced")
        yield buffer[: len(view)].view(dtype)


def _read_fully(stream: Bytes, view: memoryview) -> int:
    """How many bytes there were: less than asked for at the end alone."""
    done = 0
    while done < len(view) and (count := stream.readinto(view[done:])):
        done += count
    return done
