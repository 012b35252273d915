# SPDX-License-Identifier: Apache-2.0
"""The record of a mutation run, its figures, and the reasons why some survivors change no result.

Run by itself it brings the tables of docs/mutation.md up to date from the record.
"""

import json
from collections import Counter
from datetime import UTC, datetime
from pathlib import Path
from typing import Any

from korvex_tools import machine_facts
from korvex_tools.source_tree import SOURCE_TREE

RECORD = SOURCE_TREE / "benchmarks" / "results" / "mutation.json"
PAGE = SOURCE_TREE / "docs" / "mutation.md"
REASONS = Path(__file__).with_name("reasons.json")
OUTCOMES = ("killed", "equivalent", "explained", "survived", "not compiled")


def key_of(row: dict[str, Any]) -> tuple[str, str, str, str]:
    """What a reason holds for: the change itself, on whatever line it stands by now."""
    return row["file"], row["line"], row["before"], row["after"]


def reasons(path: Path = REASONS) -> dict[tuple[str, str, str, str], str]:
    rows = json.loads(path.read_text())
    return {key_of(row): group["reason"] for group in rows for row in group["mutants"]}


def make(rows: dict[str, dict[str, Any]], seed: int, seconds: float) -> dict[str, Any]:
    known = reasons()
    mutants = []
    for row in rows.values():
        reason = known.get(key_of(row))
        is_explained = row["outcome"].startswith("survived") and reason is not None
        mutants.append({**row, "outcome": "explained", "why": reason} if is_explained else row)
    return {
        "date": datetime.now(UTC).isoformat(timespec="seconds"),
        **machine_facts.source_facts(),
        "machine": machine_facts.machine(),
        "seed": seed,
        "seconds": round(seconds),
        "mutants": mutants,
    }


def write(found: dict[str, Any], path: Path = RECORD) -> None:
    path.write_text(json.dumps(found, indent=1) + "\n")


def counts(mutants: list[dict[str, Any]]) -> Counter[str]:
    """By outcome; what passed its own tests and has not met the others counts as survived."""
    return Counter(
        "survived" if row["outcome"].startswith("survived") else row["outcome"] for row in mutants
    )


def unexplained(found: dict[str, Any]) -> list[dict[str, Any]]:
    return [row for row in found["mutants"] if row["outcome"].startswith("survived")]


def score(mutants: list[dict[str, Any]]) -> str:
    """The killed among those that change something."""
    found = counts(mutants)
    counted = found["killed"] + found["survived"]
    return f"{found['killed']} of {counted} ({100 * found['killed'] / max(counted, 1):.1f} %)"


def figures(found: dict[str, Any]) -> str:
    by_outcome = counts(found["mutants"])
    shown = ", ".join(f"{by_outcome[name]} {name}" for name in OUTCOMES)
    return f"mutation: {len(found['mutants'])} mutants: {shown}; killed {score(found['mutants'])}"
