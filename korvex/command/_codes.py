# SPDX-License-Identifier: Apache-2.0
"""Exit codes, and the exception that carries one with its line for the user."""

from __future__ import annotations

DONE = 0
DIFFERENT = 1  # a checksum or a record was not met
UNUSABLE = 2  # arguments or input
NOT_WRITTEN = 3  # the output
NOT_INSTALLED = 4  # a package
INTERRUPTED = 130  # as shells count signals: 128 + SIGINT
TERMINATED = 143  # 128 + SIGTERM


class Stop(Exception):
    """Ends the command with one line on standard error."""

    def __init__(self, code: int, text: str) -> None:
        super().__init__(text)
        self.code = code


class Terminated(BaseException):
    """The process was asked to end."""
