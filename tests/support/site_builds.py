# SPDX-License-Identifier: Apache-2.0
"""Builds a site as `make site` does."""

import subprocess
import sys
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]


def build_site(target, source=TREE / "docs"):
    return subprocess.run(
        [TREE / "scripts" / "build_site.sh", sys.executable, target, source],
        capture_output=True,
        text=True,
    )
