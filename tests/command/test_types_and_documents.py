# SPDX-License-Identifier: Apache-2.0
"""Annotations pass the strict type checker, and documents show what the command prints."""

import os
import re
import shlex
import subprocess
import sys
from pathlib import Path

import pytest

from korvex.command import _codes

TREE = Path(__file__).resolve().parents[2]
DOCUMENTS = [TREE / "README.md", TREE / "docs" / "command_line.md"]
SHOWN = re.compile(r"^\$ (korvex sum .*)\n((?:(?!\$ |```).*\n)+)", re.MULTILINE)


@pytest.mark.parametrize("package", ["readers", "provenance", "command"])
def test_package_passes_the_strict_type_checker(tmp_path, package):
    pytest.importorskip("mypy")
    run = subprocess.run(
        [sys.executable, "-P", "-m", "mypy", "--config-file", TREE / "pyproject.toml"]
        + ["-p", f"korvex.{package}"],
        cwd=tmp_path,
        env=os.environ | {"MYPYPATH": str(TREE), "MYPY_CACHE_DIR": str(tmp_path.parent / "cache")},
        capture_output=True,
        text=True,
        timeout=300,
    )
    assert run.returncode == 0, run.stdout + run.stderr


@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: path.name)
def test_documents_show_what_the_command_prints(korvex, path):
    [(line, printed)] = SHOWN.findall(path.read_text())
    run = korvex(*shlex.split(line)[1:], folder=TREE)
    assert run.code == 0
    assert run.output.rstrip() == printed.rstrip()


def test_page_has_every_exit_code():
    page = (TREE / "docs" / "command_line.md").read_text()
    table = page.partition("## Exit codes")[2].partition("## ")[0]
    listed = {
        int(n) for row in re.findall(r"^\| ([\d, ]+) \|", table, re.M) for n in row.split(",")
    }
    assert listed == {value for name, value in vars(_codes).items() if name.isupper()}
