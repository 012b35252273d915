# SPDX-License-Identifier: Apache-2.0
"""What a report says of the machine, the versions and the commit that it belongs to."""

import importlib.metadata
import os
import platform
import re
import subprocess
from pathlib import Path
from typing import Any

from korvex_tools.source_tree import SOURCE_TREE


def first_line(command: list[str], pattern: str = "(.*)") -> str | None:
    """What the first match of the pattern in a command's output holds, if the command is there."""
    try:
        text = subprocess.run(command, capture_output=True, text=True, cwd=SOURCE_TREE).stdout
    except OSError:
        return None
    found = re.search(pattern, text)
    return found.group(1).strip() or None if found else None


def version_of(distribution: str) -> str | None:
    try:
        return importlib.metadata.version(distribution)
    except importlib.metadata.PackageNotFoundError:
        return None


def gpu_fact(name: str) -> str | None:
    return first_line(["nvidia-smi", f"--query-gpu={name}", "--format=csv,noheader"])


def toolkit() -> str | None:
    return first_line(["nvcc", "--version"], r"(release .*)")


# Where runs leave their reports: a report that one stage wrote is no change to the next.
REPORTS = ("benchmarks/results", "docs/verification", "docs/reproducibility.md")


def source_facts() -> dict[str, Any]:
    """The commit, and whether the tree was that of the commit: unknown outside a checkout, where
    $KORVEX_COMMIT may name the commit of the copy."""
    commit = first_line(["git", "rev-parse", "HEAD"])
    if not commit:
        return {"commit": os.environ.get("KORVEX_COMMIT"), "tree_has_changes": None}
    others = [f":(exclude){path}" for path in REPORTS]
    changed = first_line(["git", "status", "--porcelain", "--", ".", *others])
    return {"commit": commit, "tree_has_changes": changed is not None}


def processor() -> str:
    # Under an emulator the system shows the processor that the emulator runs on, or none.
    if emulator := os.environ.get("KORVEX_EMULATOR"):
        return f"{platform.machine()} emulated by {emulator}"
    try:
        text = Path("/proc/cpuinfo").read_text()
    except OSError:
        text = ""
    found = re.search(r"^model name\s*:\s*(.+)$", text, re.MULTILINE)
    return found.group(1).strip() if found else platform.processor() or platform.machine()


def machine() -> dict[str, Any]:
    return {
        "processor": processor(),
        "processors": os.cpu_count(),
        "usable_processors": len(os.sched_getaffinity(0)),
        "system": platform.platform(),
        "libc": " ".join(platform.libc_ver()),
    }


def slug(text: str) -> str:
    """Letters, digits and single hyphens, without marks of trade."""
    plain = re.sub(r"\((r|tm)\)", "", text.lower())
    return re.sub(r"[^a-z0-9]+", "-", plain).strip("-")
