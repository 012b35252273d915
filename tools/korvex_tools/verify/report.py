# SPDX-License-Identifier: Apache-2.0
"""The reports of a verification: how one is made, and the page that collects them.

Run by itself it brings the two tables of docs/reproducibility.md up to date: that of the promises
from promises.py, that of the reports from docs/verification/.
"""

import json
import platform
import sys
from collections import Counter
from datetime import UTC, datetime
from pathlib import Path
from typing import Any

from korvex_tools import machine_facts
from korvex_tools.marked_text import filled
from korvex_tools.source_tree import SOURCE_TREE
from korvex_tools.verify import configurations, promises

FOLDER = SOURCE_TREE / "docs" / "verification"
PAGE = SOURCE_TREE / "docs" / "reproducibility.md"


# --- One report


def make(rows: dict[str, dict[str, Any]], is_long: bool) -> dict[str, Any]:
    return {
        "date": datetime.now(UTC).isoformat(timespec="seconds"),
        "form": "long" if is_long else "short",
        **machine_facts.source_facts(),
        "machine": machine_facts.machine(),
        "gpu": machine_facts.gpu_fact("name"),
        "driver": machine_facts.gpu_fact("driver_version"),
        "toolkit": machine_facts.toolkit(),
        "compiler": configurations.compiler_version(),
        "python": platform.python_version(),
        "versions": {
            name: machine_facts.version_of(name)
            for name in ("korvex-tqx", "torch", "numpy", "cupy-cuda13x", "cupy-cuda12x")
        },
        "configurations": rows,
    }


def outcomes(report: dict[str, Any]) -> Counter[str]:
    return Counter(row["outcome"] for row in report["configurations"].values())


def is_good(report: dict[str, Any]) -> bool:
    """Something was compared, and nothing differed or failed."""
    found = outcomes(report)
    return found["equal"] > 0 and not found["different"] and not found["failed"]


def figures(report: dict[str, Any]) -> str:
    found = outcomes(report)
    compared = [row for row in report["configurations"].values() if "cases" in row]
    return (
        f"verify: {found['equal']} configurations equal, {found['different']} different, "
        f"{found['failed']} failed, {found['skipped']} skipped; "
        f"{sum(row['cases'] for row in compared):,} comparisons of "
        f"{sum(row['values'] for row in compared):,} values, "
        f"{sum(len(row['differences']) for row in compared)} differences"
    )


def write(report: dict[str, Any], folder: Path) -> Path:
    """FOLDER/MACHINE-COMMIT.json; a later report of the same two replaces it."""
    machine = report["machine"]
    name = machine_facts.slug(f"{machine['processor']} {machine['processors']}cpu")
    if report["gpu"]:
        name += "-" + machine_facts.slug(report["gpu"])
    commit = (report["commit"] or "unknown")[:10]
    changed = "-changed" if report["tree_has_changes"] else ""
    folder.mkdir(parents=True, exist_ok=True)
    path = folder / f"{name}-{commit}{changed}.json"
    path.write_text(json.dumps(report, indent=1) + "\n")
    return path


# --- The page


def table_of_reports(folder: Path = FOLDER) -> list[str]:
    lines = [
        "| date | commit | machine | GPU, driver | torch | compared | values each | differences |",
        "|---|---|---|---|---|---|---|---|",
    ]
    reports = [(json.loads(path.read_text()), path.name) for path in sorted(folder.glob("*.json"))]
    return lines + [line_of(*one) for one in sorted(reports, key=lambda one: one[0]["date"])]


def line_of(report: dict[str, Any], file: str) -> str:
    rows = report["configurations"].values()
    compared = [row for row in rows if "cases" in row]
    skipped = [name for name, row in report["configurations"].items() if "cases" not in row]
    # Of libraries that were named, the file without its folder.
    names = ", ".join(Path(n).name for n, row in report["configurations"].items() if "cases" in row)
    left_out = f"; not: {', '.join(skipped)}" if skipped else ""
    gpu = f"{report['gpu']}, {report['driver']}" if report["gpu"] else "none"
    commit = (report["commit"] or "unknown")[:10]
    changed = " with changes" if report["tree_has_changes"] else ""
    values = sorted({row["values"] for row in compared})
    counted = " to ".join(f"{number:,}" for number in dict.fromkeys((values[0], values[-1])))
    if report["form"] == "short":
        counted += " (short form)"
    differences = sum(len(row["differences"]) for row in compared)
    return (
        f"| {report['date'][:10]} | [{commit}](verification/{file}){changed} "
        f"| {report['machine']['processor']}, {report['machine']['processors']} processors "
        f"| {gpu} | {report['versions']['torch']} | {names}{left_out} | {counted} | {differences} |"
    )


def page(text: str) -> str:
    text = filled(text, "promises", list(promises.table()))
    return filled(text, "reports", table_of_reports())


def main() -> int:
    PAGE.write_text(page(PAGE.read_text()))
    return 0


if __name__ == "__main__":
    sys.exit(main())
