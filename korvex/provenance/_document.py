# SPDX-License-Identifier: Apache-2.0
"""The text of a record: what is read must have the form of the schema, save for its checksums.

A checksum that is cut or changed is no reason to refuse a text: verifying it is what finds that.
"""

from __future__ import annotations

import json
import re
from typing import Any, NoReturn

from korvex.provenance._faults import RecordError

FORMAT = "korvex provenance record"
VERSION = 1

_KEYS = {"made": str, "environment": dict, "results": list, "sha256": str}
_ENTRY_KEYS = {
    "name": str,
    "kind": str,
    "shape": list,
    "dtype": str,
    "shape_sha256": str,
    "limbs": list,
    "sha256": str,
}
_MORE_ENTRY_KEYS = {"count": int, "state_sha256": str, "value": str, "source": dict}
_SOURCE_KEYS = {"file": (str, type(None)), "column": (str, type(None)), "sha256": str, "bytes": int}
_MORE_SOURCE_KEYS = {"format": str, "header": bool, "missing": list}


def parsed(text: str | bytes) -> dict[str, Any]:
    """The document of a text; a `RecordError` says why there is none."""
    try:
        document = json.loads(text, parse_constant=_refuse_constant)
    except RecordError:
        raise
    except (ValueError, RecursionError) as error:
        raise RecordError("json", f"not a JSON text: {error}") from error
    if not isinstance(document, dict) or document.get("format") != FORMAT:
        raise RecordError("format", f'not a record: "format" is not "{FORMAT}"')
    version = document.get("version")
    if type(version) is not int or version != VERSION:
        raise RecordError(
            "version",
            f"version {json.dumps(version)} of the format, and this korvex reads version {VERSION}",
        )
    _check(document, "the record", {"format": str, "version": int, **_KEYS}, {})
    if not all(isinstance(line, str) for line in document["environment"].values()):
        _refuse("environment holds something else than texts")
    for number, entry in enumerate(document["results"]):
        _check_entry(entry, f"result {number}")
    names = [entry["name"] for entry in document["results"]]
    if len(set(names)) < len(names):
        _refuse("two results have the same name")
    return document


def _refuse_constant(text: str) -> NoReturn:
    raise RecordError("json", f"not a JSON text: {text} is no number there")


def _check_entry(entry: Any, place: str) -> None:
    _check(entry, place, _ENTRY_KEYS, _MORE_ENTRY_KEYS)
    if not all(type(length) is int and length >= 0 for length in entry["shape"]):
        _refuse(f'{place}: "shape" holds something else than lengths')
    if not entry["limbs"]:
        _refuse(f"{place}: no limb")
    for index, limb in enumerate(entry["limbs"]):
        _check(limb, f"{place}, limb {index}", {"sha256": str}, {"bits": list})
        if not all(
            isinstance(b, str) and re.fullmatch("([0-9a-f]{2})+", b) for b in limb.get("bits", [])
        ):
            _refuse(f'{place}, limb {index}: "bits" holds something else than hexadecimal digits')
    if "source" in entry:
        _check(entry["source"], f"{place}, source", _SOURCE_KEYS, _MORE_SOURCE_KEYS)
        if not all(isinstance(text, str) for text in entry["source"].get("missing", [])):
            _refuse(f'{place}, source: "missing" holds something else than texts')


def _is_hexadecimal(text: Any) -> bool:
    return isinstance(text, str) and re.fullmatch("([0-9a-f]{2})+", text) is not None


def _check(value: Any, place: str, wanted: dict[str, Any], more: dict[str, Any]) -> None:
    if not isinstance(value, dict):
        _refuse(f"{place} is no object")
    for key, kind in (wanted | more).items():
        if key not in value and key in wanted:
            _refuse(f'{place}: "{key}" is missing')
        if key in value and (
            not isinstance(value[key], kind) or (kind is int and isinstance(value[key], bool))
        ):
            _refuse(f'{place}: "{key}" is of another kind')
    if unknown := sorted(value.keys() - wanted.keys() - more.keys()):
        _refuse(f'{place}: "{unknown[0]}" is no part of a record')


def _refuse(text: str) -> NoReturn:
    raise RecordError("content", f"not a record: {text}")
