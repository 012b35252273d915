# SPDX-License-Identifier: Apache-2.0
"""How long each part of `make test` took, as a table.

usage: python -P -m korvex_tools.times_of_tests [--write]

scripts/timed.sh leaves the time of each part in build/times; pytest leaves that of each test in
build/pytest.xml, which is added up by folder. Where several processes ran the tests, folders add up
to more than the whole. --write puts the table into docs/testing.md.
"""

import argparse
import os
import sys
import xml.etree.ElementTree as ElementTree
from collections import Counter
from datetime import UTC, datetime
from pathlib import Path, PurePosixPath

from korvex_tools.machine_facts import processor
from korvex_tools.marked_text import filled
from korvex_tools.source_tree import SOURCE_TREE

PAGE = SOURCE_TREE / "docs" / "testing.md"
MARK = "times of the parts"
PARTS = {
    "set-up": "set-up of the environment",
    "build": "build and installation",
    "cpp-build": "build of the C++ tests",
    "cpp-tests": "C++ tests",
    "cross-tests": "C++ tests for Arm, under qemu",
    "python-tests": "Python tests",
    "lint": "format and lint",
    "site": "site",
}


def seconds_of_parts(folder: Path) -> dict[str, float]:
    """By part, in the order of `PARTS`; a part that never ran is left out."""
    found = {part: folder / part for part in PARTS}
    return {part: int(path.read_text()) / 1000 for part, path in found.items() if path.exists()}


def seconds_by_folder(junit_file: Path) -> dict[str, float]:
    """Of the Python tests, the longest first; tests of no folder of their own count as `tests`.

    The examples in doc strings of the installed package run as tests too.
    """
    taken: Counter[str] = Counter()
    for case in ElementTree.parse(junit_file).iter("testcase"):
        file = PurePosixPath(case.get("file") or case.get("classname", "").replace(".", "/"))
        folder = "/".join(file.parts[:2] if len(file.parts) > 2 else file.parts[:1])
        is_test = folder.startswith("tests")
        taken[f"`{folder}`" if is_test else "doc strings"] += float(case.get("time", 0))
    return dict(taken.most_common())


def table(parts: dict[str, float], folders: dict[str, float]) -> list[str]:
    """Lines of Markdown; times are minutes."""
    lines = ["| part | minutes |", "|---|---|"]
    for part, seconds in parts.items():
        lines.append(f"| {PARTS[part]} | {seconds / 60:.1f} |")
        if part == "python-tests":
            lines += [f"| … {name} | {taken / 60:.1f} |" for name, taken in folders.items()]
    return [*lines, f"| together | {sum(parts.values()) / 60:.1f} |"]


def heading(junit_file: Path) -> str:
    """The machine, and the day of the run."""
    day = datetime.fromtimestamp(junit_file.stat().st_mtime, UTC).date()
    return (
        f"The last run of each part, on {processor()}, {os.cpu_count()} processors, {day}. Folders "
        "of Python tests add up what several processes did side by side:"
    )


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", type=Path, default=SOURCE_TREE / "build", help="build folder")
    parser.add_argument("--page", type=Path, default=PAGE, help="document of the table")
    parser.add_argument("--write", action="store_true", help="write the table into the document")
    options = parser.parse_args()
    junit_file = options.build / "pytest.xml"
    lines = table(seconds_of_parts(options.build / "times"), seconds_by_folder(junit_file))
    print("\n".join(lines))
    if options.write:
        text = filled(options.page.read_text(), MARK, [heading(junit_file), "", *lines])
        options.page.write_text(text)
    return 0


if __name__ == "__main__":
    sys.exit(main())
