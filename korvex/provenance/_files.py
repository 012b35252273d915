# SPDX-License-Identifier: Apache-2.0
"""Results of files: exact sums of their columns, with the checksum of the file beside them."""

from __future__ import annotations

import os
from collections.abc import Callable, Sequence
from pathlib import Path
from typing import Any

from korvex import exact
from korvex.provenance._entry import Entry, entry_of
from korvex.provenance._environment import file_sha256
from korvex.provenance._faults import Fault

OnRead = Callable[[int], None]


def entries_of_file(
    path: str,
    columns: Sequence[str | None],
    folder: str | os.PathLike[str],
    options: Any,
    on_read: OnRead,
) -> list[Entry]:
    """One entry a column. Paths in a record start at its folder, so that both can move together."""
    sums, facts = _sums_of_file(path, columns, options, on_read)
    is_pipe = path == "-"
    shown = None if is_pipe else os.path.relpath(path, folder)
    entries = []
    for column, total in sums.items():
        source = {"file": shown, "column": column, **facts, **_options_given(options)}
        name = path if is_pipe else str(shown)
        entry = {"name": name if column is None else f"{name}:{column}"}
        entries.append(entry | entry_of(total) | {"source": source})
    return entries


def _options_given(options: Any) -> dict[str, Any]:
    given: dict[str, Any] = {}
    if options.format is not None:
        given["format"] = options.format
    if options.header is not None:
        given["header"] = options.header
    if options.missing:
        given["missing"] = list(options.missing)
    return given


def _sums_of_file(
    path: str, columns: Sequence[str | None], options: Any, on_read: OnRead
) -> tuple[dict[str | None, exact.Sum], dict[str, Any]]:
    from korvex import readers

    with readers.as_input_errors(path, "readable"):
        is_file = readers.is_regular_file(path)
    digest = None if is_file else readers.Digest()
    with readers.open_table(path, columns, options, on_read, digest) as table:
        sums = [exact.Sum() for _ in table.columns]
        for place, values in table.chunks():
            sums[place].add(values)
        names = table.columns
    if len(set(names)) < len(names):
        raise readers.InputError(f"{path}: more than one column has the same name; count them")
    if digest is not None:
        facts = {"sha256": digest.sha256.hexdigest(), "bytes": digest.bytes}
    else:
        facts = {"sha256": file_sha256(Path(path)), "bytes": os.stat(path).st_size}
    return dict(zip(names, sums, strict=True)), facts


# --- Verifying


def file_faults(
    recorded: Sequence[Entry],
    folder: str | os.PathLike[str],
    on_read: OnRead,
    differences: Callable[[str, Entry, Entry], list[Fault]],
) -> list[Fault]:
    """Reads every file of the entries again, each once, and compares file and results."""
    faults: list[Fault] = []
    for entries in _grouped(recorded).values():
        faults += _faults_of_group(entries, folder, on_read, differences)
    return faults


def _grouped(recorded: Sequence[Entry]) -> dict[tuple[Any, ...], list[Entry]]:
    groups: dict[tuple[Any, ...], list[Entry]] = {}
    for entry in recorded:
        source = entry["source"]
        if source["file"] is not None:
            missing = tuple(source.get("missing", ()))
            key = (source["file"], source.get("format"), source.get("header"), missing)
            groups.setdefault(key, []).append(entry)
    return groups


def _faults_of_group(
    entries: Sequence[Entry],
    folder: str | os.PathLike[str],
    on_read: OnRead,
    differences: Callable[[str, Entry, Entry], list[Fault]],
) -> list[Fault]:
    from korvex import readers

    source = entries[0]["source"]
    path = str(Path(folder) / source["file"])
    options = readers.ReadOptions(
        source.get("format"), source.get("header"), tuple(source.get("missing", ()))
    )
    columns = [entry["source"]["column"] for entry in entries]
    try:
        sums, facts = _sums_of_file(path, columns, options, on_read)
    except readers.InputError as error:
        return [Fault("unreadable", entries[0]["name"], str(error))]
    faults = []
    for entry in entries:
        for key, what in (("bytes", "bytes"), ("sha256", "SHA-256")):
            if entry["source"][key] != facts[key]:
                text = f"{what} of the file: {facts[key]}, and {entry['source'][key]} is recorded"
                faults.append(Fault("file", entry["name"], text))
        faults += differences(entry["name"], entry, entry_of(sums[entry["source"]["column"]]))
    return faults
