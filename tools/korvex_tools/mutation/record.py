# SPDX-License-Identifier: Apache-2.0
"""The record of a mutation run, its figures, and the reasons why some survivors change no result.

Run by itself it brings the section of docs/testing.md up to date from the record.
"""

import json
import sys
from collections import Counter
from datetime import UTC, datetime
from pathlib import Path
from typing import Any

from korvex_tools import machine_facts
from korvex_tools.marked_text import filled
from korvex_tools.source_tree import SOURCE_TREE

RECORD = SOURCE_TREE / "benchmarks" / "results" / "mutation.json"
PAGE = SOURCE_TREE / "docs" / "testing.md"
REASONS = Path(__file__).with_name("reasons.json")
FOLDERS = {
    "korvex/arithmetic/base": "arithmetic/base",
    "korvex/arithmetic/bignum": "arithmetic/bignum",
    "korvex/arithmetic/elementary": "arithmetic/elementary",
    "korvex/arithmetic/exact": "arithmetic/exact",
    "korvex/kernels/host": "kernels/host",
    "korvex/kernels/device": "kernels/device",
}
OUTCOMES = ("killed", "equivalent", "explained", "survived", "not compiled")


def key_of(row: dict[str, Any]) -> tuple[str, str, str, str]:
    """What a reason holds for: the change itself, on whatever line it stands by now."""
    return row["file"], row["line"], row["before"], row["after"]


def reasons(path: Path = REASONS) -> dict[tuple[str, str, str, str], str]:
    rows = json.loads(path.read_text())
    return {key_of(row): group["reason"] for group in rows for row in group["mutants"]}


def reason_of(row: dict[str, Any]) -> str | None:
    return reasons().get(key_of(row))


def make(rows: dict[str, dict[str, Any]], seed: int) -> dict[str, Any]:
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
        "seconds": round(sum(row["seconds"] for row in rows.values())),
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


# --- The page


def lines_of_page(found: dict[str, Any]) -> list[str]:
    """What docs/testing.md says of the run: a table of folders, and every survivor."""
    mutants = found["mutants"]
    commit = (found["commit"] or "unknown")[:10]
    lines = [
        f"Run of {found['date'][:10]} at {commit}, seed {found['seed']}: {len(mutants)} mutants, "
        f"killed {score(mutants)} of those that are neither equivalent nor explained.",
        "",
        "| folder | " + " | ".join(["mutants", *OUTCOMES]) + " |",
        "|---|" + "---:|" * (1 + len(OUTCOMES)),
    ]
    for folder, name in FOLDERS.items():
        lines.append(row_of_table(name, [m for m in mutants if is_in(m, folder)]))
    lines += [row_of_table("together", mutants), ""]
    return lines + lines_of_survivors(mutants)


def is_in(mutant: dict[str, Any], folder: str) -> bool:
    return str(mutant["file"]).rpartition("/")[0] == folder


def row_of_table(name: str, mutants: list[dict[str, Any]]) -> str:
    by_outcome = counts(mutants)
    numbers = [len(mutants), *(by_outcome[outcome] for outcome in OUTCOMES)]
    return f"| {name} | " + " | ".join(map(str, numbers)) + " |"


def lines_of_survivors(mutants: list[dict[str, Any]]) -> list[str]:
    lines = []
    for reason in dict.fromkeys(row["why"] for row in mutants if row["outcome"] == "explained"):
        lines += [f"- {reason}", ""]
        lines += [f"  - {shown(row)}" for row in mutants if row.get("why") == reason]
        lines.append("")
    left = [row for row in mutants if row["outcome"].startswith("survived")]
    if left:
        lines += ["- Survivors for which there is neither a test nor a reason yet:", ""]
        lines += [f"  - {shown(row)}" for row in left] + [""]
    return lines[:-1]


def shown(row: dict[str, Any]) -> str:
    after = f"`{row['after']}`" if row["after"] else "nothing"
    file = str(row["file"]).removeprefix("korvex/")
    return f"`{file}`: `{row['before']}` to {after} in `{row['line']}`"


def page(text: str, found: dict[str, Any]) -> str:
    return filled(text, "mutation run", lines_of_page(found))


def main() -> int:
    PAGE.write_text(page(PAGE.read_text(), json.loads(RECORD.read_text())))
    return 0


if __name__ == "__main__":
    sys.exit(main())
