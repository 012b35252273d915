# SPDX-License-Identifier: Apache-2.0
"""Runs an example as a user does, on the device of the tests, and loads one as a module."""

import os
import subprocess
import sys
from pathlib import Path

from korvex_tools.verify import golden

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"


def run_example(name, *arguments, folder=None):
    """The finished process; a warning ends it."""
    emulated = os.environ.get("KORVEX_TEST_DEVICE") == "emulated"
    return subprocess.run(
        [sys.executable, "-W", "error", EXAMPLES / f"{name}.py", *map(str, arguments)]
        + ["--emulated"] * emulated,
        cwd=folder,
        capture_output=True,
        text=True,
        timeout=300,
    )


def load_example(name):
    return golden.load_script(EXAMPLES / f"{name}.py")
