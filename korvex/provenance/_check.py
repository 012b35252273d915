# SPDX-License-Identifier: Apache-2.0
"""Whether a record agrees with itself: what shows without computing anything anew."""

from __future__ import annotations

import math
import re
from typing import Any

from korvex.provenance._entry import (
    DIGITS,
    Entry,
    canonical_sha256,
    limb_sha256,
    result_sha256,
    shape_sha256,
)
from korvex.provenance._faults import Fault

_CHECKSUM = re.compile("[0-9a-f]{64}")


def faults_of_document(document: dict[str, Any]) -> list[Fault]:
    """All faults of the results; of the rest only where the results have none."""
    faults = []
    for entry in document["results"]:
        faults += faults_of_entry(entry)
    if faults:
        return faults
    if cut := _checksum_fault("", "the record's SHA-256", document["sha256"]):
        return [cut]
    if document_sha256(document) != document["sha256"]:
        text = "the record is not the one that its SHA-256 was taken of"
        return [Fault("record", "", text)]
    return []


def document_sha256(document: dict[str, Any]) -> str:
    return canonical_sha256({key: value for key, value in document.items() if key != "sha256"})


def faults_of_entry(entry: Entry) -> list[Fault]:
    """In the order of the entry; the checksum of the whole only where its parts are sound."""
    name = entry["name"]
    faults = _faults_of_checksums(entry)
    if not faults and shape_sha256(entry["shape"]) != entry["shape_sha256"]:
        text = f"shape {entry['shape']} is not the recorded one: it has another SHA-256"
        faults.append(Fault("shape", name, text))
    size = math.prod(entry["shape"])
    for index, limb in enumerate(entry["limbs"]):
        if "bits" in limb and limb_sha256(limb["bits"]) != limb["sha256"]:
            text = f"limb {index}: its bits are not those that its SHA-256 was taken of"
            faults.append(Fault("limb", name, text))
        elif "bits" in limb and len(limb["bits"]) != size and not faults:
            text = f"limb {index}: {len(limb['bits'])} elements, and {size} by the shape"
            faults.append(Fault("limb", name, text))
    if not faults and result_sha256(entry) != entry["sha256"]:
        text = (
            "kind, dtype, count, exact value or a limb's SHA-256 is not the recorded one: "
            "the result has another SHA-256"
        )
        faults.append(Fault("checksum", name, text))
    return faults


def _faults_of_checksums(entry: Entry) -> list[Fault]:
    texts = {f"limb {index}'s SHA-256": limb["sha256"] for index, limb in enumerate(entry["limbs"])}
    texts["the SHA-256 of the shape"] = entry["shape_sha256"]
    if "state_sha256" in entry:
        texts["the SHA-256 of the exact value"] = entry["state_sha256"]
    texts["the SHA-256"] = entry["sha256"]
    found = (_checksum_fault(entry["name"], what, text) for what, text in texts.items())
    return [fault for fault in found if fault is not None]


def _checksum_fault(name: str, what: str, text: str) -> Fault | None:
    if _CHECKSUM.fullmatch(text):
        return None
    if len(text) < DIGITS:
        return Fault("checksum", name, f"{what} is cut: {len(text)} of {DIGITS} digits")
    return Fault("checksum", name, f"{what} is not {DIGITS} hexadecimal digits")
