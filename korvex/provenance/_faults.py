# SPDX-License-Identifier: Apache-2.0
"""What verifying finds, and what a text that is no record is refused with."""

from __future__ import annotations

from typing import NamedTuple


class Fault(NamedTuple):
    """One thing that is not as it was recorded.

    `kind` is a word for programs: "limb", "shape", "dtype", "kind", "count", "state", "checksum",
    "value", "file", "missing", "unknown" or "record". `result` is the name of the result, empty for
    the record as a whole; `text` says what differs.
    """

    kind: str
    result: str
    text: str

    def __str__(self) -> str:
        return f"{self.result}: {self.text}" if self.result else self.text


class RecordError(ValueError):
    """A text that is no record of this version.

    `kind` is "json", "format", "version" or "content".
    """

    def __init__(self, kind: str, text: str) -> None:
        super().__init__(text)
        self.kind = kind
