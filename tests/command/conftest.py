# SPDX-License-Identifier: Apache-2.0
"""Runs the command as a user does, in a process of its own, and reads what it prints."""

import json
import subprocess
import sys
from dataclasses import dataclass

import pytest

COMMAND = [sys.executable, "-P", "-W", "error", "-m", "korvex"]
NEEDED = ("pyarrow", "rich", "tqdm")


@dataclass(frozen=True)
class Run:
    """What one process left."""

    code: int
    output: str
    errors: str

    def figures(self, title):
        """The rows printed under a title, by their labels, and the notes under ""."""
        blocks = self.output.split("\n\n")
        [block] = [b for b in blocks if b.startswith(title + ": ")]
        rows = {"title": block.partition("\n")[0], "": ""}
        for line in block.splitlines()[1:]:
            if line.startswith("  ! "):
                rows[""] += line[4:] + " "
            else:
                rows[line[2:18].strip()] = line[19:].strip()
        return rows

    @property
    def json(self):
        return json.loads(self.output)

    @property
    def results(self):
        return {result["source"]: result for result in self.json["results"]}


@pytest.fixture(scope="session")
def command():
    """The words that start the command."""
    for package in NEEDED:
        pytest.importorskip(package)
    return COMMAND


@pytest.fixture(scope="session")
def korvex(command):
    """A function that runs the command with its arguments in a folder."""

    def run(*arguments, folder=".", data=None, environment=None):
        process = subprocess.run(
            [*command, *map(str, arguments)],
            cwd=folder,
            input=data,
            stdin=subprocess.DEVNULL if data is None else None,
            capture_output=True,
            timeout=300,
            env=environment,
        )
        return Run(process.returncode, process.stdout.decode(), process.stderr.decode())

    return run
