# SPDX-License-Identifier: Apache-2.0
"""Runs the examples as a user does, in a process of their own, and reads what they print."""

import os
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path

import pytest

EXAMPLES = Path(__file__).resolve().parent.parent.parent / "examples"


@dataclass(frozen=True)
class Run:
    """What one process left."""

    code: int
    output: str
    errors: str

    @property
    def device_line(self):
        return self.output.partition("\n")[0]

    def figures(self, title):
        """The rows printed under a title, by their labels, and the notes under ""."""
        blocks = self.output.split("\n\n")
        [block] = [b for b in blocks if b.startswith(title + ": ")]
        rows = {"title": block.partition("\n")[0], "": ""}
        for line in block.splitlines()[1:]:
            if line.startswith(("  ! ", "    ")):
                rows[""] += line[4:] + " "
            else:
                rows[line[2:18].strip()] = line[19:].strip()
        return rows


@pytest.fixture(scope="session")
def exact_sum():
    """A function that runs the program with its arguments in a folder."""
    emulated = os.environ.get("KORVEX_TEST_DEVICE") == "emulated"

    def run(*arguments, folder="."):
        process = subprocess.run(
            [sys.executable, "-W", "error", EXAMPLES / "exact_sum.py", *map(str, arguments)]
            + ["--emulated"] * emulated,
            cwd=folder,
            capture_output=True,
            text=True,
            timeout=300,
        )
        return Run(process.returncode, process.stdout, process.stderr)

    return run
