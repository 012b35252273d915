# SPDX-License-Identifier: Apache-2.0
"""Parquet, and Arrow as a file or as a stream: record batches with the wanted columns alone.

Cells without a value are left out and counted.
"""

from __future__ import annotations

import io
from collections.abc import Iterator, Sequence
from contextlib import ExitStack
from typing import Any, BinaryIO

from korvex.readers._bytes import OpenFile, size_of
from korvex.readers._errors import InputError, MissingPackage
from korvex.readers._table import Array, OnRead, Table, chosen_columns

ROWS = 1 << 17  # of a batch of Parquet
MAPPED_BYTES = 1 << 26  # record batches of an Arrow file above this are mapped and not read
PAGE_BUFFER_BYTES = 1 << 20
_FILE_MAGIC = b"ARROW1"


def _import(path: str, purpose: str) -> Any:
    try:
        import pyarrow
        import pyarrow.ipc
        import pyarrow.parquet
    except ImportError as error:
        raise MissingPackage("pyarrow", f"{path}: {purpose}") from error
    return pyarrow


class _BatchTable(Table):
    """Columns of record batches."""

    def __init__(self, path: str, pyarrow: Any, schema: Any, wanted: Sequence[str | None]) -> None:
        kinds = [_kind(pyarrow.types, field.type) for field in schema]
        names = list(schema.names)
        self._indices, passed_over = chosen_columns(path, wanted, names, kinds)
        super().__init__(path, [names[index] for index in self._indices])
        self.passed_over = tuple(passed_over)
        self._pyarrow = pyarrow

    def _numbers(self, columns: Sequence[Any]) -> Iterator[tuple[int, Array]]:
        for place, column in enumerate(columns):
            if isinstance(column, self._pyarrow.DictionaryArray):
                column = column.dictionary_decode()
            self.missing[place] += column.null_count
            yield place, column.drop_null().to_numpy(zero_copy_only=False)


def _kind(types: Any, kind: Any) -> str | None:
    """What a column holds in place of numbers, or None."""
    if types.is_dictionary(kind):
        kind = kind.value_type
    is_number = types.is_integer(kind) or types.is_floating(kind) or types.is_boolean(kind)
    return None if is_number else str(kind)


class ParquetTable(_BatchTable):
    """Decoded batch by batch; of a column no more than some pages are in memory."""

    def __init__(
        self, path: str, file: BinaryIO | str, wanted: Sequence[str | None], on_read: OnRead
    ) -> None:
        pyarrow = _import(path, "Parquet")
        self._file = pyarrow.parquet.ParquetFile(
            file, buffer_size=PAGE_BUFFER_BYTES, pre_buffer=False
        )
        super().__init__(path, pyarrow, self._file.schema_arrow, wanted)
        self._bytes = size_of(path) or 0
        self._on_read = on_read

    def _chunks(self) -> Iterator[tuple[int, Array]]:
        rows = max(1, self._file.metadata.num_rows)
        names = [self._file.schema_arrow.names[index] for index in self._indices]
        for batch in self._file.iter_batches(ROWS, columns=names):
            yield from self._numbers([batch.column(name) for name in names])
            self._on_read(self._bytes * batch.num_rows // rows)


class ArrowTable(_BatchTable):
    """An Arrow stream, or an Arrow file, which holds one."""

    def __init__(self, opened: OpenFile, wanted: Sequence[str | None], on_read: OnRead) -> None:
        pyarrow = _import(opened.path, "Arrow")
        self._opened = opened
        self._resources = ExitStack()
        self._on_read = on_read
        self._reader = self._open(pyarrow)
        super().__init__(opened.path, pyarrow, self._reader.schema, wanted)

    def _open(self, pyarrow: Any) -> Any:
        """As a file where batches can be found in any order, else as a stream from the start."""
        if self._opened.head.startswith(_FILE_MAGIC) and self._opened.is_plain_file:
            mapped = self._resources.enter_context(pyarrow.memory_map(self._opened.path))
            reader = pyarrow.ipc.open_file(mapped)
            average = mapped.size() // max(1, reader.num_record_batches)
            if average > MAPPED_BYTES:
                return reader
            del reader
            self._resources.close()
            file = self._resources.enter_context(pyarrow.OSFile(self._opened.path))
            return pyarrow.ipc.open_file(file)
        if self._opened.head.startswith(_FILE_MAGIC):
            self._opened.stream.read(8)
        return pyarrow.ipc.open_stream(self._opened.stream)

    def _chunks(self) -> Iterator[tuple[int, Array]]:
        with self._resources:
            for batch in self._batches():
                yield from self._numbers([batch.column(index) for index in self._indices])

    def _batches(self) -> Iterator[Any]:
        count = getattr(self._reader, "num_record_batches", None)
        if count is None:
            yield from self._reader
            self._check_end(self._opened.stream)
            return
        size = size_of(self.path) or 0
        for number in range(count):
            yield self._reader.get_batch(number)
            self._on_read(size // count)

    def _check_end(self, stream: io.BufferedReader) -> None:
        """A file that was read as a stream must have its end; a stream may end with any batch."""
        rest = stream.read()
        if self._opened.head.startswith(_FILE_MAGIC) and not rest.endswith(_FILE_MAGIC):
            raise InputError(f"{self.path}: the file ends too early: its last part is missing")
