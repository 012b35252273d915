# SPDX-License-Identifier: Apache-2.0
"""Are the bits the same here? Every promised function against the digests in tests/golden.

Each configuration runs in a process of its own: the emulated device with one thread and with all,
without and with FMA instructions, its kernels compiled at -O0 and -O2, and a GPU if there is one.
What cannot run here is shown as skipped and never counted as equal. Prints a short table, the
differences, and one line with the figures; writes a report file. Ends with status 1 on any
difference. Needs an installed korvex and the tree's tests; nothing is downloaded.
"""

import argparse
import json
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Any

from korvex_tools.source_tree import SOURCE_TREE
from korvex_tools.verify import configurations
from korvex_tools.verify import report as reports
from korvex_tools.verify.configurations import Configuration

GOLDEN = SOURCE_TREE / "tests" / "golden"
SHOWN = 10  # differences printed of a configuration; the report has all


# --- One configuration


def run(configuration: Configuration, options: argparse.Namespace) -> dict[str, Any]:
    """Its outcome: "equal", "different", "failed" or "skipped", and what belongs to that."""
    with tempfile.TemporaryDirectory() as folder:
        output = Path(folder) / "found.json"
        program = [sys.executable, "-P", "-m", "korvex_tools.verify.run"]
        command = [*program, *configuration.arguments, "--output", str(output)]
        command += ["--long"] if options.long else []
        begin = time.monotonic()
        process = subprocess.run(
            command,
            env=os.environ | configuration.environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        seconds = round(time.monotonic() - begin, 1)
        if process.returncode != 0 or not output.exists():
            said = process.stdout[-2000:] or f"status {process.returncode}"
            return {"outcome": "failed", "why": said, "seconds": seconds}
        found = json.loads(output.read_text())
    if "skipped" in found:
        return {"outcome": "skipped", "why": found["skipped"]}
    compared = compare(found.pop("cases"), options.golden)
    outcome = "different" if compared["differences"] or not compared["cases"] else "equal"
    return {"outcome": outcome} | found | compared | {"seconds": seconds}


def compare(cases: dict[str, dict[str, Any]], folder: Path) -> dict[str, Any]:
    """How many cases and values agree with the files, and which do not."""
    differences, values, count = [], 0, 0
    for name, found in cases.items():
        entries = json.loads((folder / f"{name}.json").read_text())["cases"]
        for case, outcome in found.items():
            count += 1
            values += outcome.get("count", 0)
            text = difference(outcome, entries.get(case))
            if text is not None:
                differences.append(f"{name}: {case}: {text}")
    return {"cases": count, "values": values, "differences": differences}


def difference(outcome: dict[str, Any], entry: dict[str, Any] | None) -> str | None:
    if "error" in outcome:
        return outcome["error"].strip()
    if entry is None:
        return "not in the file of digests"
    if outcome["inputs"] != entry["inputs"]:
        return "the inputs are not those the file was made from"
    if outcome["count"] != entry["count"]:
        return f"{outcome['count']} values, expected {entry['count']}"
    if outcome["sha256"] == entry["sha256"]:
        return None
    firsts = zip(outcome["first"], entry["first"], strict=True)
    place = next(
        (f"value {i} is {a}, expected {b}" for i, (a, b) in enumerate(firsts) if a != b),
        "beyond the first values",
    )
    return f"sha256 {outcome['sha256'][:16]}, expected {entry['sha256'][:16]}: {place}"


# --- All of them


def chosen(options: argparse.Namespace) -> list[Configuration]:
    everything = configurations.all_configurations()
    known = {one.name for one in everything}
    unknown = set(options.only) - known
    if unknown:
        sys.exit(f"no configuration {', '.join(sorted(unknown))}: there are {', '.join(known)}")
    picked = [one for one in everything if not options.only or one.name in options.only]
    return [*picked, *map(configurations.given, options.library)]


def run_all(options: argparse.Namespace) -> dict[str, dict[str, Any]]:
    picked = chosen(options)
    not_compiled = failed = None
    if any(one.level for one in picked):
        not_compiled = configurations.why_not_compiled()
        failed = None if not_compiled else configurations.compile_libraries()
    width = max(len(one.what) for one in picked)
    rows = {}
    for one in picked:
        if one.level and not_compiled:
            row: dict[str, Any] = {"outcome": "skipped", "why": not_compiled}
        elif one.level and failed:
            row = {"outcome": "failed", "why": failed}
        else:
            row = run(one, options)
        if one.name in options.need and row["outcome"] == "skipped":
            row["outcome"] = "failed"
        rows[one.name] = {"what": one.what} | row
        print_row(one, row, width)
    return rows


def print_row(one: Configuration, row: dict[str, Any], width: int) -> None:
    if row["outcome"] in ("equal", "different"):
        figures = f"{row['cases']:6,} cases {row['values']:12,} values {row['seconds']:7.1f} s"
        print(f"{one.what:{width}}  {row['outcome']:9} {figures}", flush=True)
        for text in row["differences"][:SHOWN]:
            print("    " + text.replace("\n", "\n    "))
        if len(row["differences"]) > SHOWN:
            print(f"    and {len(row['differences']) - SHOWN} more")
    else:
        why = row["why"] if row["outcome"] == "skipped" else "\n    " + row["why"].strip()
        print(f"{one.what:{width}}  {row['outcome']}: {why}", flush=True)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--long", action="store_true", help="about a million values per kernel")
    parser.add_argument("--only", nargs="+", default=[], metavar="NAME", help="of configurations")
    parser.add_argument("--need", nargs="+", default=[], metavar="NAME", help="must not be skipped")
    parser.add_argument(
        "--library", nargs="+", type=Path, default=[], help="more host kernels to compare"
    )
    parser.add_argument("--golden", type=Path, default=GOLDEN, help="folder of digests")
    parser.add_argument(
        "--record", action="store_true", help="report to docs/verification, of a tree as committed"
    )
    parser.add_argument("--results", type=Path, help="another folder for it than build/verify")
    options = parser.parse_args()
    rows = run_all(options)
    report = reports.make(rows, options.long)
    if options.results is None:
        is_recorded = options.record and report["tree_has_changes"] is False
        options.results = reports.FOLDER if is_recorded else configurations.BUILD
    path = reports.write(report, options.results)
    print(reports.figures(report) + f"; report: {os.path.relpath(path)}")
    return 0 if reports.is_good(report) else 1
