# SPDX-License-Identifier: Apache-2.0
"""`korvex verify`: compares a record with itself and with its files."""

from __future__ import annotations

import argparse
import sys
from pathlib import Path

from korvex import provenance
from korvex.command._codes import DIFFERENT, DONE, UNUSABLE, Stop
from korvex.command._output import Output, progress
from korvex.provenance import Fault, Record


def run(options: argparse.Namespace) -> int:
    record = _read(options)
    output = Output()
    output.title(f"record: {options.record}, made {record.made}")
    with progress("verifying") as on_read:
        faults = record.verify(files=not options.no_files, on_read=on_read)
    _show_environment(output, record)
    results = record.results.values()
    of_files = [entry for entry in results if entry.get("source", {}).get("file") is not None]
    read = 0 if options.no_files else len(of_files)
    output.line(
        f"results: {read} computed anew from files, {len(results) - read} as they were recorded"
    )
    return _end(output, faults, len(results))


def _end(output: Output, faults: list[Fault], results: int) -> int:
    for fault in faults:
        output.line(f"  {fault.kind}: {fault}", "red")
    if not faults:
        output.line(f"verified: {results} result{'s' if results != 1 else ''}", "green")
        return DONE
    output.line(f"NOT VERIFIED: {len(faults)} fault{'s' if len(faults) != 1 else ''}", "bold red")
    if all(fault.kind == "unreadable" for fault in faults):
        raise Stop(UNUSABLE, faults[0].text)
    return DIFFERENT


def _read(options: argparse.Namespace) -> Record:
    """The record; what is not one is refused in one line."""
    try:
        if options.record == "-":
            return provenance.loads(sys.stdin.buffer.read(), folder=options.folder or ".")
        path = Path(options.record)
        return provenance.loads(path.read_bytes(), folder=options.folder or path.parent)
    except OSError as error:
        raise Stop(UNUSABLE, f"{options.record}: {error.strerror or error}") from error
    except provenance.RecordError as error:
        raise Stop(UNUSABLE, f"{options.record}: {error}") from error


def _show_environment(output: Output, record: Record) -> None:
    changes = record.environment_changes()
    if not changes:
        output.line("environment, for information: no difference")
        return
    output.line("environment, for information:")
    width = max(len(name) for name, _, _ in changes)
    for name, before, now in changes:
        output.line(f"  {name:{width}}  recorded {before or '(absent)'}")
        output.line(f"  {'':{width}}  now      {now or '(absent)'}")
