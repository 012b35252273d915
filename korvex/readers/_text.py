# SPDX-License-Identifier: Apache-2.0
"""Text with one value a line, CSV and TSV: cut into blocks of whole lines, parsed by pyarrow.

Several blocks are parsed at a time, each on a thread of its own, and come out in their order. Where
pyarrow refuses a block, or finds an infinity in it, the block is parsed again cell by cell: that
takes what the fast way is too strict for, and names the line of what is wrong.
"""

from __future__ import annotations

import io
import os
from collections import deque
from collections.abc import Iterator, Sequence
from concurrent.futures import Future, ThreadPoolExecutor
from typing import Any, NamedTuple

import numpy as np

from korvex.readers._errors import InputError, MissingPackage
from korvex.readers._numbers import SlowParser, is_number, rows_of
from korvex.readers._table import (
    Array,
    ReadOptions,
    Table,
    chosen_columns,
    index_of,
    refuse_columns,
)

DELIMITERS = {"text": None, "csv": ",", "tsv": "\t"}
BLOCK_BYTES = 1 << 22
MOST_BYTES_OF_A_LINE = 1 << 26
_BYTE_ORDER_MARK = b"\xef\xbb\xbf"
_NO_DELIMITER = "\x1f"  # in no number: a line is one cell
_AHEAD = 2  # blocks that wait beside those that are parsed

Parsed = list[tuple[Array, int]]


class TextTable(Table):
    """Numbers of a text; the columns of CSV and TSV have names or are counted from 1."""

    def __init__(
        self,
        path: str,
        stream: io.BufferedReader,
        form: str,
        wanted: Sequence[str | None],
        options: ReadOptions,
    ) -> None:
        delimiter = DELIMITERS[form]
        self._blocks = _Blocks(path, stream, quotes=delimiter is not None)
        first = next(self._blocks, None)
        if first is None:
            raise InputError(f"{path}: no values: the file is empty")
        if delimiter is None:
            layout = _one_column(path, wanted)
        else:
            layout = _columns_of(path, wanted, first, delimiter, options)
        super().__init__(path, layout.columns)
        self.passed_over = layout.passed_over
        self._first_block = first[layout.header_bytes :]
        self._header_lines = layout.header_lines
        self._slow = SlowParser(path, delimiter, layout.indices, options.missing)
        self._fast = _fast_parser(path, delimiter, layout, options)

    def _chunks(self) -> Iterator[tuple[int, Array]]:
        line = 1 + self._header_lines
        for block, parsed in self._in_order():
            if parsed is None:
                parsed = self._slow.parse(block, line)
            line += block.count(b"\n")
            for place, (values, missing) in enumerate(parsed):
                self.missing[place] += missing
                yield place, values

    def _in_order(self) -> Iterator[tuple[bytes, Parsed | None]]:
        """Each block, and what pyarrow made of it; None where it is to be parsed cell by cell."""
        workers = len(os.sched_getaffinity(0))
        waiting: deque[tuple[bytes, Future[Parsed | None]]] = deque()
        pool = ThreadPoolExecutor(workers, "korvex-reader")
        try:
            for block in self._all_blocks():
                waiting.append((block, pool.submit(self._fast.parse, block)))
                if len(waiting) >= workers + _AHEAD:
                    done, future = waiting.popleft()
                    yield done, future.result()
            while waiting:
                done, future = waiting.popleft()
                yield done, future.result()
        finally:
            pool.shutdown(wait=True, cancel_futures=True)

    def _all_blocks(self) -> Iterator[bytes]:
        if self._first_block:
            yield self._first_block
        yield from self._blocks


class _Blocks(Iterator[bytes]):
    """Blocks of whole lines; a quoted value that goes over several lines is not cut."""

    def __init__(self, path: str, stream: io.BufferedReader, quotes: bool) -> None:
        self._path = path
        self._stream = stream
        self._quotes = quotes
        self._rest = b""
        self._is_first = True

    def __next__(self) -> bytes:
        while data := self._stream.read(BLOCK_BYTES):
            if self._is_first:
                data, self._is_first = data.removeprefix(_BYTE_ORDER_MARK), False
            if block := self._whole_lines(data):
                return block
            if len(self._rest) > MOST_BYTES_OF_A_LINE:
                raise InputError(
                    f"{self._path}: no line ends within {MOST_BYTES_OF_A_LINE >> 20} MiB: no text, "
                    "or a quote that is not closed"
                )
        if not self._rest:
            raise StopIteration
        block, self._rest = self._rest, b""
        return block

    def _whole_lines(self, data: bytes) -> bytes:
        """The lines that end in what was read; empty where none does. What is behind them waits."""
        end = data.rfind(b"\n") + 1
        if end and not (self._quotes and (b'"' in data or b'"' in self._rest)):
            block = b"".join((self._rest, memoryview(data)[:end]))  # copies once
            self._rest = data[end:]
            return block
        block = self._rest + data
        end = self._end_of_lines(block)
        self._rest = block[end:]
        return block[:end]

    def _end_of_lines(self, block: bytes) -> int:
        """Behind the last end of a line that lies outside quotes; 0 where there is none."""
        end = block.rfind(b"\n") + 1
        if not self._quotes:
            return end
        is_inside = block.count(b'"', 0, end) % 2
        while end and is_inside:
            before = block.rfind(b"\n", 0, end - 1) + 1
            is_inside ^= block.count(b'"', before, end) % 2
            end = before
        return end


# --- Columns


class _Layout(NamedTuple):
    """Which columns are read, and what of the first block is the row of names."""

    columns: list[str | None]
    indices: list[int]
    passed_over: tuple[str, ...]
    width: int
    header_bytes: int
    header_lines: int


def _one_column(path: str, wanted: Sequence[str | None]) -> _Layout:
    refuse_columns(path, wanted)
    return _Layout([None], [0], (), 1, 0, 0)


def _columns_of(
    path: str, wanted: Sequence[str | None], block: bytes, delimiter: str, options: ReadOptions
) -> _Layout:
    rows = rows_of(block, delimiter)
    first_row = next((row for row in rows if row), None)
    if first_row is None:
        raise InputError(f"{path}: no values: the file is empty")
    header_lines = rows.line_num
    cells = [name.strip() for name in first_row]
    has_names = _has_names(path, wanted, cells, options)
    names = cells if has_names else [str(index + 1) for index in range(len(cells))]
    if has_names:
        first_row = next((row for row in rows if row), None)
    kinds: list[str | None] = [None] * len(names)
    if None in wanted and first_row is not None:
        kinds = [_kind_of_cell(first_row, index, options) for index in range(len(names))]
        for column in wanted:  # what is named is read, whatever its first cell says
            if column is not None:
                kinds[index_of(path, column, names)] = None
    indices, passed_over = chosen_columns(path, wanted, names, kinds)
    lines = block.splitlines(keepends=True)[:header_lines] if has_names else []
    return _Layout(
        [names[index] for index in indices],
        indices,
        tuple(passed_over),
        len(names),
        sum(map(len, lines)),
        len(lines),
    )


def _has_names(
    path: str, wanted: Sequence[str | None], cells: list[str], options: ReadOptions
) -> bool:
    """Whether the first row holds names: as asked for, or where a wanted column is found by its
    name, or where none of the cells that matter is a number."""
    if options.header is not None:
        return options.header
    named = [column for column in wanted if column is not None]
    if any(column in cells for column in named):
        return True
    judged = [cells[index_of(path, column, cells)] for column in named]
    return not any(map(is_number, judged if judged and None not in wanted else cells))


def _kind_of_cell(row: list[str], index: int, options: ReadOptions) -> str | None:
    """What a column holds, judged by its first cell."""
    text = row[index].strip() if index < len(row) else ""
    return None if is_number(text) or text in options.missing else "text"


# --- The fast way


class _FastParser:
    """Parses blocks by pyarrow; None stands for a block that is to be parsed cell by cell."""

    def __init__(self, delimiter: str | None, layout: _Layout, options: ReadOptions) -> None:
        import pyarrow
        from pyarrow import csv

        self._pyarrow, self._csv = pyarrow, csv
        names = [str(index) for index in range(layout.width)]
        chosen = [names[index] for index in layout.indices]
        self._names = names
        # Looking for ends of lines in quotes costs a pass over the block, in vain without quotes.
        self._parse_lines, self._parse_quoted = (
            csv.ParseOptions(
                delimiter=delimiter or _NO_DELIMITER,
                quote_char=False if delimiter is None else '"',
                newlines_in_values=quotes,
            )
            for quotes in (False, delimiter is not None)
        )
        self._convert = csv.ConvertOptions(
            include_columns=chosen,
            column_types=dict.fromkeys(chosen, pyarrow.float64()),
            null_values=list(options.missing),
        )

    def parse(self, block: bytes) -> Parsed | None:
        read = self._csv.ReadOptions(
            use_threads=False, block_size=len(block) + 1, column_names=self._names
        )
        parse = self._parse_quoted if b'"' in block else self._parse_lines
        try:
            table = self._csv.read_csv(self._pyarrow.py_buffer(block), read, parse, self._convert)
        except self._pyarrow.ArrowInvalid:
            return None
        parsed = [_numbers_of(column) for column in table.columns]
        if any(np.isinf(values).any() for values, _ in parsed):
            return None
        return parsed


def _numbers_of(column: Any) -> tuple[Array, int]:
    parts = [part.drop_null().to_numpy(zero_copy_only=False) for part in column.chunks]
    values = parts[0] if len(parts) == 1 else np.concatenate([np.empty(0), *parts])
    return values, column.null_count


def _fast_parser(
    path: str, delimiter: str | None, layout: _Layout, options: ReadOptions
) -> _FastParser:
    try:
        return _FastParser(delimiter, layout, options)
    except ImportError as error:
        raise MissingPackage("pyarrow", f"{path}: text") from error
