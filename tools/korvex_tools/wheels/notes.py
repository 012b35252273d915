# SPDX-License-Identifier: Apache-2.0
"""The notes of a release: what changed, which wheels there are, and how each one was tested."""

import hashlib
import json
import re
import subprocess
from collections.abc import Iterable
from pathlib import Path

from korvex_tools.source_tree import SOURCE_TREE

HEAD = """# korvex-tqx {version}

Commit {commit}. A wheel is installed from its file: `pip install FILE`, with an
extra `pip install "FILE[torch]"`. What was not tried stands in the table of platforms of
docs/installation.md.

## Changes
"""
WHEELS = """## Wheels and how each was tested

Linux with a C library of {glibc} or newer. {kernels}

| wheel | SHA-256 | outcome |
|---|---|---|
"""


def write(folder: Path, rows: Iterable[tuple[Path, str]], kernels: Path | None, glibc: str) -> Path:
    """Into the folder of the wheels; a row is a wheel and what became of it, in words."""
    listed = list(rows)
    version = listed[0][0].name.split("-")[1]
    text = HEAD.format(version=version, commit=commit()) + f"\n{changes(version)}\n"
    text += WHEELS.format(glibc=glibc, kernels=sentence_on(kernels))
    for wheel, outcome in listed:
        digest = hashlib.sha256(wheel.read_bytes()).hexdigest()
        text += f"| `{wheel.name}` | `{digest}` | {outcome} |\n"
    path = folder / f"release-notes-{version}.md"
    path.write_text(text)
    return path


def commit() -> str:
    """Of this tree, and whether it had changes; "unknown" outside a repository."""
    said = subprocess.run(
        ["git", "describe", "--always", "--abbrev=40", "--exclude=*", "--dirty= with changes"],
        capture_output=True,
        text=True,
        cwd=SOURCE_TREE,
    )
    return said.stdout.strip() or "unknown"


def changes(version: str) -> str:
    """The section of a version in CHANGELOG.md; before there is one, that of what is unreleased."""
    text = (SOURCE_TREE / "CHANGELOG.md").read_text()
    sections = dict(re.findall(r"^## \[([^\]]+)\][^\n]*\n(.*?)(?=^## |\Z)", text, re.M | re.S))
    section = sections.get(version) or sections.get("Unreleased") or ""
    return section.strip() + "\n"


def sentence_on(kernels: Path | None) -> str:
    if kernels is None:
        return "They hold no kernels for GPUs."
    made_by: dict[str, list[str]] = {}
    for name, compiler in json.loads((kernels / "compilers.json").read_text()).items():
        made_by.setdefault(compiler, []).append(name)
    parts = [f"{len(files)} files by {compiler}" for compiler, files in made_by.items()]
    return f"All hold the same kernels for GPUs: {', '.join(parts)}."
