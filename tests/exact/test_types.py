# SPDX-License-Identifier: Apache-2.0
"""Annotations pass the strict type checker, and say what calls return."""

import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

TREE = Path(__file__).resolve().parents[2]

REVEALED = {
    "float(exact.Sum())": "float",
    "exact.Sum().limbs(2)": "tuple[float, ...]",
    "exact.Sum() + exact.Sum()": "Sum",
    "exact.Sum().copy()": "Sum",
    "exact.Dot.from_chunks([])": "Dot",
    "exact.Moments().sum()": "Sum",
    "exact.Moments().sum_of_squares()": "Dot",
    "exact.Moments().var(correction=1)": "float",
    "exact.Sum().to_decimal(3)": "Decimal",
    "exact.Sum().to_fraction()": "Fraction",
    "exact.Sum().count": "int",
    "exact.Sum().checksum()": "str",
    "bytes(exact.Sum())": "bytes",
    "exact.loads(b'')": "Sum | Dot | Moments",
    "exact.Sum() == exact.Dot()": "bool",
}


def run_mypy(folder, *arguments, program="mypy", config="--config-file"):
    pytest.importorskip("mypy")
    return subprocess.run(
        [sys.executable, "-P", "-m", program, config, TREE / "pyproject.toml", *arguments],
        cwd=folder,
        env=os.environ | {"MYPYPATH": str(TREE), "MYPY_CACHE_DIR": str(folder.parent / "cache")},
        capture_output=True,
        text=True,
        timeout=300,
    )


def test_package_passes_the_strict_type_checker(tmp_path):
    run = run_mypy(tmp_path, "-p", "korvex.exact")
    assert run.returncode == 0, run.stdout + run.stderr


def test_stub_describes_the_built_module(tmp_path):
    stubtest = {"program": "mypy.stubtest", "config": "--mypy-config-file"}
    run = run_mypy(tmp_path, "korvex.exact._native", **stubtest)
    assert run.returncode == 0, run.stdout + run.stderr


def test_types_of_calls(tmp_path):
    lines = [f"reveal_type({expression})" for expression in REVEALED]
    program = tmp_path / "program.py"
    program.write_text("\n".join(["from korvex import exact", *lines]) + "\n")
    run = run_mypy(tmp_path, program)
    assert run.returncode == 0, run.stdout + run.stderr
    shown = re.findall(r'Revealed type is "(.*)"$', run.stdout, re.MULTILINE)
    plain = [re.sub(r"(?:\w+\.)+(?=\w)", "", text) for text in shown]
    assert dict(zip(REVEALED, plain, strict=True)) == REVEALED


def test_a_wrong_call_is_noticed(tmp_path):
    program = tmp_path / "program.py"
    program.write_text("from korvex import exact\nexact.Sum().merge(exact.Dot())\nexact.median\n")
    run = run_mypy(tmp_path, program)
    assert run.returncode == 1
    assert "[arg-type]" in run.stdout and "[attr-defined]" in run.stdout
