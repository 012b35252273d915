# SPDX-License-Identifier: Apache-2.0
"""The bytes of a file or of standard input: counted, decompressed, and looked at once.

Everything is read from the beginning to the end, so a pipe will do. Formats that begin at the end
of a file, as Parquet and zip do, get a file: that which was named, or an unnamed one on the disk.
"""

from __future__ import annotations

import hashlib
import io
import os
import shutil
import stat
import sys
import tempfile
from collections.abc import Buffer, Iterator
from contextlib import ExitStack, contextmanager
from typing import Any, BinaryIO, cast

from korvex.readers._errors import InputError, MissingPackage, as_input_errors
from korvex.readers._sources import STANDARD_INPUT
from korvex.readers._table import OnRead

HEAD_BYTES = 8
_BUFFER_BYTES = 1 << 20
_COMPRESSIONS = {b"\x1f\x8b": "gzip", b"\x28\xb5\x2f\xfd": "zstd"}
SHOWN_COMPRESSION = {"gzip": "gzip data", "zstd": "zstandard data"}


class OpenFile:
    """The bytes of one source after decompression, and what they begin with."""

    def __init__(
        self,
        path: str,
        stream: io.BufferedReader,
        head: bytes,
        compression: str | None,
        on_read: OnRead,
    ) -> None:
        self.path = path
        self._on_read = on_read
        self.stream = stream
        self.head = head
        self.compression = compression

    @property
    def is_plain_file(self) -> bool:
        """Whether `path` can be opened again, anywhere in it, and holds these very bytes."""
        return self.compression is None and is_regular_file(self.path)

    def seekable(self) -> BinaryIO:
        """The bytes as a file on the disk, of which nothing is left when it is closed."""
        if self.is_plain_file:
            return cast(BinaryIO, io.BufferedReader(_CountedFile(self.path, self._on_read)))
        copy = cast(BinaryIO, tempfile.TemporaryFile())
        shutil.copyfileobj(self.stream, copy, _BUFFER_BYTES)
        copy.seek(0)
        return copy


class Digest:
    """SHA-256 of the bytes of a source as they are stored, and their number."""

    def __init__(self) -> None:
        self.sha256 = hashlib.sha256()
        self.bytes = 0

    def update(self, data: memoryview) -> None:
        self.sha256.update(data)
        self.bytes += len(data)


class _CountedFile(io.FileIO):
    """A file that reports how much of it has been read, and takes its digest on the way."""

    def __init__(
        self, file: str | int, on_read: OnRead, closefd: bool = True, digest: Digest | None = None
    ) -> None:
        super().__init__(file, closefd=closefd)
        self._on_read = on_read
        self._digest = digest

    def readinto(self, buffer: Buffer) -> int:
        view = memoryview(buffer)[:_BUFFER_BYTES]
        count = super().readinto(view) or 0
        if self._digest is not None:
            self._digest.update(view[:count])
        self._on_read(count)
        return count

    def read_rest(self) -> None:
        """So that the digest is of all bytes."""
        buffer = bytearray(_BUFFER_BYTES)
        while self.readinto(buffer):
            pass

    def fileno(self) -> int:
        raise io.UnsupportedOperation("a library would read past readinto through the file number")


class _Rejoined(io.RawIOBase):
    """The bytes that were looked at, and then the rest."""

    def __init__(self, head: bytes, rest: Any):
        self._head = head
        self._rest = rest

    def readable(self) -> bool:
        return True

    def readinto(self, buffer: Buffer) -> int:
        view = memoryview(buffer)
        if not self._head:
            return self._rest.readinto(view) or 0
        count = min(len(view), len(self._head))
        view[:count], self._head = self._head[:count], self._head[count:]
        return count


@contextmanager
def open_bytes(path: str, on_read: OnRead, digest: Digest | None = None) -> Iterator[OpenFile]:
    """Open a source, through decompression if its content is compressed, whatever its name is.

    A digest is complete when this ends, and good for what is read from its beginning to its end.
    """
    with ExitStack() as stack:
        with as_input_errors(path, "readable"):
            raw = stack.enter_context(_open_raw(path, on_read, digest))
            stream, head = _looked_at(raw)
        compression = next(
            (c for magic, c in _COMPRESSIONS.items() if head.startswith(magic)), None
        )
        if compression is not None:
            stream, head = _decompressed(path, stream, compression, stack)
        yield OpenFile(path, stream, head, compression, on_read)
        if digest is not None:
            with as_input_errors(path, "readable"):
                raw.read_rest()


def _open_raw(path: str, on_read: OnRead, digest: Digest | None) -> _CountedFile:
    if path != STANDARD_INPUT:
        return _CountedFile(path, on_read, digest=digest)
    if sys.stdin is None:
        raise InputError("-: standard input is closed")
    return _CountedFile(sys.stdin.fileno(), on_read, closefd=False, digest=digest)


def _looked_at(raw: Any) -> tuple[io.BufferedReader, bytes]:
    buffer, done = bytearray(HEAD_BYTES), 0
    while done < HEAD_BYTES and (count := raw.readinto(memoryview(buffer)[done:])):
        done += count  # a pipe may give one byte at a time
    head = bytes(buffer[:done])
    return io.BufferedReader(_Rejoined(head, raw), _BUFFER_BYTES), head


def _decompressed(
    path: str, stream: io.BufferedReader, compression: str, stack: ExitStack
) -> tuple[io.BufferedReader, bytes]:
    try:
        import pyarrow
    except ImportError as error:
        raise MissingPackage("pyarrow", f"{path}: {SHOWN_COMPRESSION[compression]}") from error
    with as_input_errors(path, SHOWN_COMPRESSION[compression]):
        opened = pyarrow.CompressedInputStream(pyarrow.PythonFile(stream, mode="r"), compression)
        return _looked_at(stack.enter_context(opened))


def is_regular_file(path: str) -> bool:
    return path != STANDARD_INPUT and stat.S_ISREG(os.stat(path).st_mode)


def size_of(path: str) -> int | None:
    """In bytes, where that can be known beforehand."""
    if path == STANDARD_INPUT:
        path = "/dev/stdin"
    try:
        status = os.stat(path)
    except OSError:
        return None
    return status.st_size if stat.S_ISREG(status.st_mode) else None
