# SPDX-License-Identifier: Apache-2.0
"""A progress bar on standard error for reading large files; none where that is no terminal."""

import os
import sys
from collections.abc import Callable, Iterator
from contextlib import contextmanager

LARGE_FILE_BYTES = 50_000_000
_BAR_WIDTH = 40


@contextmanager
def progress_bar(path: str) -> Iterator[Callable[[int], None]]:
    """Gives a function to be called with the byte position reached; removes the bar at the end."""
    size = os.path.getsize(path) if os.path.isfile(path) else 0
    if size <= LARGE_FILE_BYTES or not sys.stderr.isatty():
        yield lambda position: None
        return
    bar = _Bar(os.path.basename(path), size)
    try:
        yield bar.show
    finally:
        bar.remove()


class _Bar:
    def __init__(self, name: str, size: int):
        self._name = name
        self._size = size
        self._percent = -1

    def show(self, position: int) -> None:
        percent = 100 * position // self._size
        if percent == self._percent:
            return
        self._percent = percent
        filled = _BAR_WIDTH * position // self._size
        bar = "#" * filled + "." * (_BAR_WIDTH - filled)
        print(f"\rreading [{bar}] {percent:3d} % {self._name}", end="", file=sys.stderr, flush=True)

    def remove(self) -> None:
        print("\r\x1b[K", end="", file=sys.stderr, flush=True)
