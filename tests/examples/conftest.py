# SPDX-License-Identifier: Apache-2.0
"""Runs the examples as a user does, in a process of their own, and reads what they print."""

from dataclasses import dataclass

import pytest
from example_run import run_example


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

    def run(*arguments, folder="."):
        process = run_example("exact_sum", *arguments, folder=folder)
        return Run(process.returncode, process.stdout, process.stderr)

    return run
