# SPDX-License-Identifier: Apache-2.0
"""`korvex record`: a record of the exact sums of files."""

from __future__ import annotations

import argparse
import os
from collections.abc import Callable

from korvex.command._codes import DONE, NOT_WRITTEN, UNUSABLE, Stop
from korvex.command._output import (
    folder_of_standard_output,
    progress_of_file,
    write_whole_text,
    written,
)
from korvex.provenance import Record
from korvex.readers import grouped, source_of


def run(options: argparse.Namespace) -> int:
    """Everything is computed before anything is written."""
    record = Record(_folder(options.output))
    for path, columns in grouped(map(source_of, options.files)).items():
        with progress_of_file(path) as on_read:
            _add(record, path, columns, options, on_read)
    if options.output is None:
        with written():
            write_whole_text(record.dumps())
        return DONE
    try:
        record.write(options.output)
    except FileExistsError as error:
        text = f"{options.output}: exists already, and a record is not overwritten"
        raise Stop(UNUSABLE, text) from error
    except OSError as error:
        raise Stop(NOT_WRITTEN, f"{options.output}: {error.strerror or error}") from error
    return DONE


def _add(
    record: Record,
    path: str,
    columns: list[str | None],
    options: argparse.Namespace,
    on_read: Callable[[int], None],
) -> None:
    try:
        record.add_file(
            path,
            columns,
            format=options.format,
            header=options.header,
            missing=options.missing,
            on_read=on_read,
        )
    except ValueError as error:  # two sources have one name
        raise Stop(UNUSABLE, f"{path}: {error}") from error


def _folder(output: str | None) -> str:
    """That of the record; a file that cannot be made is refused before anything is read."""
    if output is None:
        return folder_of_standard_output()
    folder = os.path.dirname(output) or "."
    if not os.path.isdir(folder):
        raise Stop(UNUSABLE, f"{output}: there is no folder {folder}")
    if os.path.lexists(output):
        raise Stop(UNUSABLE, f"{output}: exists already, and a record is not overwritten")
    return folder
