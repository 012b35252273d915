# SPDX-License-Identifier: Apache-2.0
"""The step that runs the device code on the host: what it says where nothing can be compiled."""

import re
import subprocess
import sys
from pathlib import Path

FOLDER = Path(__file__).resolve().parent
SCRIPT = FOLDER / "run_device_code.py"


def test_without_nvcc_the_step_says_that_it_is_skipped(tmp_path):
    command = [sys.executable, SCRIPT, "tool", "library", tmp_path]
    done = subprocess.run(command, capture_output=True, text=True, env={"PATH": str(tmp_path)})
    assert done.returncode == 77
    assert done.stdout == "PTX machine: skipped, as there is no nvcc on PATH\n"


def test_every_kind_of_check_has_a_planted_fault():
    """Each message that tells of a faulty program is wanted by some fault."""
    faults = (FOLDER / "faults.cpp").read_text()
    kinds = "misaligned address|out of bounds|race|barrier divergence|wrong mask|in flight"
    kinds += "|nobody wrote|was never written|result differs|too many steps|left behind"
    kinds += "|unknown instructions"
    missing = [kind for kind in kinds.split("|") if not re.search(rf'"[^"]*{kind}', faults)]
    assert missing == []
