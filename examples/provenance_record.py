#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes a record of results that an auditor can file, and verifies it later.

    provenance_record.py record FILE.json --seed 7
    provenance_record.py record FILE.json --values measured.csv:mass other.npy
    provenance_record.py verify FILE.json

A record holds checksums of inputs and results with the shapes and dtypes that checksums leave out,
and what they were computed on. `verify` computes everything anew. A difference in the environment
is reported and is no failure. The exit code is 0 if all results are the recorded ones, 1 if one is
not, and 2 if an argument or a file was of no use.
"""

import argparse
import datetime
import json
import os
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from audited_results import Entries, of_files, of_seed
from run_environment import environment_of
from sum_device import SumDevice, choose_device
from value_files import InputError, path_of

VERIFIED, DIFFERENT, UNUSABLE = 0, 1, 2

FORMAT = "korvex provenance record 1"
_ABSENT = "(absent)"


def main(arguments: list[str]) -> int:
    options = _parse(arguments)
    path = Path(options.file)
    try:
        if options.command == "record":
            return _record(path, options)
        return _verify(path, _read(path), choose_device(options.emulated))
    except InputError as error:
        print(f"provenance_record.py: {error}", file=sys.stderr)
        return UNUSABLE


def _parse(arguments: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="provenance_record.py",
        description=__doc__,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    commands = parser.add_subparsers(dest="command", required=True)
    record = commands.add_parser("record", help="compute and write a record")
    verify = commands.add_parser("verify", help="compute anew and compare with a record")
    for command in (record, verify):
        command.add_argument("file", metavar="FILE.json")
        command.add_argument("--emulated", action="store_true", help="emulated device, GPU or not")
    work = record.add_mutually_exclusive_group(required=True)
    work.add_argument("--seed", type=int, help="tensors made from this whole number")
    work.add_argument(
        "--values", nargs="+", metavar="SOURCE", help="text, FILE.csv:COLUMN or FILE.npy"
    )
    return parser.parse_args(arguments)


# --- Record


def _record(path: Path, options: argparse.Namespace) -> int:
    """A record that is there already is never overwritten."""
    if path.exists():
        raise InputError(f"{path}: exists already, and a record is not overwritten")
    if not path.parent.is_dir():
        raise InputError(f"{path}: there is no folder {path.parent}")
    sources = [_from_folder(source, path.parent) for source in options.values or []]
    device = choose_device(options.emulated)
    inputs, results = _compute(device, options.seed, sources, path.parent)
    record = {
        "format": FORMAT,
        "made": datetime.datetime.now(datetime.UTC).isoformat(timespec="seconds"),
        "seed": options.seed,
        "files": sources,
        "inputs": inputs,
        "results": results,
        "environment": environment_of(device),
    }
    try:
        with path.open("x", encoding="utf-8") as stream:
            stream.write(json.dumps(record, indent=2) + "\n")
    except OSError as error:
        raise InputError(f"{path}: {error.strerror or error}") from error
    print(f"device: {device.description}")
    for name, result in results.items():
        print(f"{result['checksum']}  {name}")
    print(f"recorded: {path}")
    return VERIFIED


def _from_folder(source: str, folder: Path) -> str:
    """The source as seen from the record's folder, so that both can move together."""
    path = path_of(source)
    return os.path.relpath(path, folder) + source[len(path) :]


def _compute(
    device: SumDevice, seed: int | None, sources: list[str], folder: Path
) -> tuple[Entries, Entries]:
    if seed is not None:
        return of_seed(device, seed)
    return of_files(device, sources, folder)


# --- Verify


def _read(path: Path) -> dict[str, Any]:
    """The record; what is not one is refused in one line."""
    try:
        record = json.loads(path.read_text(encoding="utf-8"))
    except OSError as error:
        raise InputError(f"{path}: {error.strerror or error}") from error
    except ValueError as error:
        raise InputError(f"{path}: not a JSON text: {error}") from error
    if not isinstance(record, dict) or record.get("format") != FORMAT:
        raise InputError(f'{path}: not a record: "format" is not "{FORMAT}"')
    kinds = {"made": str, "files": list, "inputs": dict, "results": dict, "environment": dict}
    for key, kind in kinds.items():
        if not isinstance(record.get(key), kind):
            raise InputError(f'{path}: not a record: "{key}" is missing or of another kind')
    seed, files = record.get("seed"), record["files"]
    if not (type(seed) is int and not files or seed is None and files):
        raise InputError(f'{path}: not a record: either "seed" or "files" says what was computed')
    if not all(isinstance(source, str) for source in files):
        raise InputError(f'{path}: not a record: "files" holds something else than names')
    return record


def _verify(path: Path, record: dict[str, Any], device: SumDevice) -> int:
    print(f"record: {path}, made {record['made']}")
    print(f"device: {device.description}")
    inputs, results = _compute(device, record["seed"], record["files"], path.parent)
    computed = {"inputs": inputs, "results": results}
    changes = _differences(record["environment"], environment_of(device))
    failures = _differences({key: record[key] for key in computed}, computed)
    _show("environment, for information", changes)
    _show("inputs and results", failures)
    if failures:
        print(f"NOT VERIFIED: {len(failures)} recorded values differ now")
        return DIFFERENT
    print(f"verified: {len(results)} results of {len(inputs)} inputs")
    return VERIFIED


def _differences(recorded: Any, now: Any) -> list[tuple[str, str, str]]:
    """Name, recorded text and present text of every value that is not the same in both."""
    before, after = dict(_leaves(recorded)), dict(_leaves(now))
    rows = [
        (": ".join(path), before.get(path, _ABSENT), after.get(path, _ABSENT))
        for path in dict.fromkeys([*before, *after])
    ]
    return [row for row in rows if row[1] != row[2]]


def _leaves(value: Any, path: tuple[str, ...] = ()) -> Iterator[tuple[tuple[str, ...], str]]:
    """The values of nested dicts as JSON texts, by their keys; an empty dict has none."""
    if not isinstance(value, dict):
        yield path, json.dumps(value)
        return
    for key, inner in value.items():
        yield from _leaves(inner, (*path, key))


def _show(title: str, differences: list[tuple[str, str, str]]) -> None:
    if not differences:
        print(f"{title}: no difference")
        return
    print(f"{title}:")
    width = max(len(name) for name, _, _ in differences)
    for name, before, after in differences:
        print(f"  {name:{width}}  recorded {before}")
        print(f"  {'':{width}}  now      {after}")


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
