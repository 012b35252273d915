# SPDX-License-Identifier: Apache-2.0
"""The records of one machine, by benchmark: what documents and pictures are made from.

Where a folder holds records of several machines, those of the machine with the newest full run are
taken, so that figures that stand side by side are of one machine.
"""

import json
from pathlib import Path
from typing import Any

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
