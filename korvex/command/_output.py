# SPDX-License-Identifier: Apache-2.0
"""Standard output and standard error: lines with a style on terminals, whole texts, progress."""

from __future__ import annotations

import os
import stat
import sys
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager, contextmanager

from rich.console import Console
from rich.text import Text
from tqdm import tqdm

from korvex.command._codes import NOT_WRITTEN, Stop
from korvex.readers import size_of

_LABEL_WIDTH = 16
_WIDE_LABEL_WIDTH = 20
SHOWN_FROM_SECONDS = 0.5  # a shorter run shows no progress


class Output:
    """Lines for a reader. Nothing is wrapped or cut: checksums are to be copied."""

    def __init__(self) -> None:
        self._console = Console(file=sys.stdout, highlight=False, soft_wrap=True, markup=False)

    def title(self, text: str) -> None:
        self._print(Text(text, style="bold"))

    def row(self, label: str, text: str, style: str = "", width: int = _LABEL_WIDTH) -> None:
        line = Text(f"  {label:<{width}} ", style="cyan")
        line.append(text, style=style or "default")
        line.rstrip()
        self._print(line)

    def wide_row(self, label: str, text: str) -> None:
        self.row(label, text, width=_WIDE_LABEL_WIDTH)

    def line(self, text: str, style: str = "") -> None:
        self._print(Text(text, style=style))

    def _print(self, text: Text) -> None:
        with written():
            self._console.print(text)
            sys.stdout.flush()


def error_line(text: str) -> None:
    print(f"korvex: {text}", file=sys.stderr, flush=True)


@contextmanager
def written() -> Iterator[None]:
    """A failure to write standard output is one line, and no second one when the process ends."""
    try:
        yield
    except OSError as error:
        sys.stdout = None
        raise Stop(NOT_WRITTEN, f"standard output: {error.strerror or error}") from error


def write_whole_text(text: str) -> None:
    """Write a text to standard output; of a file that cannot hold all of it nothing is left."""
    descriptor = sys.stdout.fileno()
    status = os.fstat(descriptor)
    begin = os.lseek(descriptor, 0, os.SEEK_CUR) if stat.S_ISREG(status.st_mode) else None
    data = memoryview(text.encode())
    try:
        while data:
            data = data[os.write(descriptor, data) :]
    except OSError:
        if begin is not None:
            os.ftruncate(descriptor, min(begin, status.st_size))
        raise


def folder_of_standard_output() -> str:
    """Of the file that standard output goes to; the present one for a pipe or a terminal."""
    descriptor = sys.stdout.fileno()
    if not stat.S_ISREG(os.fstat(descriptor).st_mode):
        return "."
    return os.path.dirname(os.readlink(f"/proc/self/fd/{descriptor}")) or "."


def progress_of_file(path: str) -> AbstractContextManager[Callable[[int], None]]:
    name = "standard input" if path == "-" else os.path.basename(path)
    return progress(f"reading {name}", size_of(path))


@contextmanager
def progress(description: str, total: int | None = None) -> Iterator[Callable[[int], None]]:
    """Gives a function to be called with numbers of bytes; shows them where that is a terminal.

    tqdm's own environment variables count, `TQDM_DELAY` too.
    """
    with tqdm(
        total=total,
        desc=description,
        unit="B",
        unit_scale=True,
        leave=False,
        delay=float(os.environ.get("TQDM_DELAY", SHOWN_FROM_SECONDS)),
        disable=None,  # where standard error is no terminal
    ) as bar:

        def advance(count: int) -> None:
            bar.update(count)

        yield advance
