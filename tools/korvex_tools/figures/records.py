# SPDX-License-Identifier: Apache-2.0
"""The records of benchmarks: how one is written, and those of one machine by name.

Where a folder holds records of several machines, those of the machine with the newest full run are
taken, so that figures that stand side by side are of one machine.
"""

import json
import os
import platform
import re
from datetime import UTC, datetime
from importlib.metadata import version
from pathlib import Path
from typing import Any

from korvex_tools.machine_facts import processor
from korvex_tools.source_tree import SOURCE_TREE

RESULTS_FOLDER = SOURCE_TREE / "benchmarks" / "results"
RUN = "figures"  # the record of a full run: how long each part took


class Records:
    """Records by the name of their script; a missing one is a KeyError that names it."""

    def __init__(self, folder: Path) -> None:
        runs = [(json.loads(path.read_text()), path) for path in folder.glob(f"{RUN}-*.json")]
        kind = max(runs, key=lambda run: run[0]["date"])[1].stem.removeprefix(f"{RUN}-")
        self.kind = kind
        self._records = {
            path.stem.removesuffix(f"-{kind}"): json.loads(path.read_text())
            for path in folder.glob(f"*-{kind}.json")
        }

    def __getitem__(self, name: str) -> dict[str, Any]:
        if name not in self._records:
            raise KeyError(f"no record of {name} on {self.kind}: make figures")
        return self._records[name]

    def names(self) -> list[str]:
        return sorted(self._records)

    def all_of_run(self) -> list[dict[str, Any]]:
        return [self[name] for name in self.names()]


def row(part: dict[str, Any], candidate: str) -> dict[str, Any]:
    """The one row of a part that is of this candidate."""
    [found] = [
        row for row in part["results"] if (row.get("candidate") or row.get("case")) == candidate
    ]
    return found


# --- Writing


def host_kind() -> str:
    """A word for file names: results of like machines replace each other."""
    return re.sub(r"[^a-z0-9]+", "-", f"{processor()} {os.cpu_count()}cpu".lower()).strip("-")


def host_description() -> dict[str, Any]:
    flags = re.search(r"^flags\s*: (.+)$", Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    known = ("fma", "avx2", "avx512f")
    return {
        "processor": processor(),
        "processors": os.cpu_count(),
        "instructions": [name for name in known if flags and name in flags[1].split()],
        "system": platform.platform(),
        "versions": {
            "python": platform.python_version(),
            **{name: version(name) for name in ("korvex-tqx", "numpy", "torch")},
        },
        # Others at work on the machine; 1.0 is one busy processor.
        "load_average_1_minute": round(os.getloadavg()[0], 2),
    }


def write_results(name: str, folder: Path, content: dict[str, Any]) -> None:
    """Writes folder/NAME-HOST.json with the date and the machine."""
    now = datetime.now(UTC).isoformat(timespec="seconds")
    record = {"benchmark": name, "date": now, "host": host_description(), **content}
    folder.mkdir(parents=True, exist_ok=True)
    path = folder / f"{name}-{host_kind()}.json"
    path.write_text(json.dumps(record, indent=2) + "\n")
    print(f"\nwritten: {os.path.relpath(path)}")
