# SPDX-License-Identifier: Apache-2.0
"""Which instruction sets a build has kernels for, and what runs where some were left out."""

import json
import os
import shutil
import subprocess
import sys
import textwrap
from pathlib import Path

import pytest

import korvex
from korvex.emulation import _library
from korvex.exact import _native
from korvex_tools.source_tree import SOURCE_TREE

PACKAGE = Path(_native.__file__).resolve().parents[1]
BEST = _library.best_instruction_set()
ADVICE = "--config-settings=cmake.define.KORVEX_INSTRUCTION_SETS=all"

needs_choice = pytest.mark.skipif(BEST == "base", reason="this processor runs one of them only")


# --- The build


def configure(folder: Path, value: str) -> subprocess.CompletedProcess:
    """Of the project with host kernels alone, which wants a compiler and no Python."""
    command = ["cmake", "-S", SOURCE_TREE / "cmake" / "verify", "-B", folder]
    command.append("-DCMAKE_EXPORT_COMPILE_COMMANDS=ON")
    return subprocess.run(
        [*command, f"-DKORVEX_INSTRUCTION_SETS={value}"], capture_output=True, text=True
    )


def configured(folder: Path, value: str) -> set[str]:
    run = configure(folder, value)
    assert run.returncode == 0, run.stderr
    commands = json.loads((folder / "compile_commands.json").read_text())
    prefix = "korvex_host_kernels_"
    names = {entry["command"].partition(f"-D{prefix}")[2] for entry in commands}
    return {name.partition("_")[0] for name in names}


@pytest.mark.skipif(shutil.which("cmake") is None, reason="needs cmake")
@needs_choice
@pytest.mark.parametrize(
    "value, expected",
    [
        ("all", {"base", "fma", "avx512"}),
        ("native", {"base", BEST}),
        ("base;fma", {"base", "fma"}),
        ("base", {"base"}),
    ],
)
def test_a_build_has_those_that_are_asked_for(value, expected, tmp_path):
    assert configured(tmp_path, value) == expected


@pytest.mark.skipif(shutil.which("cmake") is None, reason="needs cmake")
@pytest.mark.parametrize("value", ["fma", "base;sse9", "natve"])
def test_a_build_without_base_or_with_an_unknown_one_is_refused(value, tmp_path):
    run = configure(tmp_path, value)
    assert run.returncode != 0
    message = " ".join(run.stderr.split())
    assert "KORVEX_INSTRUCTION_SETS is all, native, or a list that begins with base" in message


# --- The installation


def installation(folder: Path, *left_out: str) -> Path:
    """The installed package by links, without the libraries of these instruction sets."""
    without = {f"libkorvex_host_kernels_{name}.so" for name in left_out}
    for path in PACKAGE.rglob("*"):
        if path.is_file() and path.name not in without and path.suffix != ".pyc":
            link = folder / "korvex" / path.relative_to(PACKAGE)
            link.parent.mkdir(parents=True, exist_ok=True)
            link.symlink_to(path)
    return folder


def run_there(folder: Path, script: str) -> str:
    run = subprocess.run(
        [sys.executable, "-P", "-c", textwrap.dedent(script)],
        capture_output=True,
        text=True,
        cwd=folder,
        env=os.environ | {"PYTHONPATH": str(folder)},
    )
    assert run.returncode == 0, run.stderr
    return run.stdout.strip()


@needs_choice
def test_exact_runs_the_best_of_those_that_are_installed(tmp_path):
    folder = installation(tmp_path, BEST)
    best_left = "fma" if BEST == "avx512" and (PACKAGE / _path("fma")).exists() else "base"
    script = """
        import numpy as np
        from korvex import exact
        from korvex.exact import _native
        assert exact.sum(np.array([1e16, 1.0, -1e16])) == 1.0
        print(_native.instruction_set())
    """
    assert run_there(folder, script) == best_left


@needs_choice
def test_exact_says_how_to_install_one_that_is_left_out(tmp_path):
    script = f"""
        from korvex.exact import _native
        before = _native.instruction_set()
        try:
            _native.set_instruction_set({BEST!r})
        except ValueError as error:
            assert _native.instruction_set() == before
            print(error)
    """
    said = run_there(installation(tmp_path, BEST), script)
    assert said == f"this installation has no kernels for {BEST}: install korvex with {ADVICE}"


@needs_choice
def test_emulation_runs_the_best_of_those_that_are_installed(tmp_path):
    script = """
        import korvex.emulation
        from korvex.emulation import _library
        assert korvex.emulation.activate().instruction_set == _library.usable_instruction_sets()[-1]
        print(*_library.usable_instruction_sets())
    """
    found = run_there(installation(tmp_path, BEST), script).split()
    assert found == [name for name in _library.usable_instruction_sets() if name != BEST]


@needs_choice
def test_emulation_says_how_to_install_one_that_is_left_out(monkeypatch, tmp_path):
    monkeypatch.setattr(_library, "_path", lambda name: tmp_path / name)
    monkeypatch.setattr(_library, "best_instruction_set", lambda: BEST)
    with pytest.raises(ImportError) as refusal:
        _library.HostLibrary(BEST, 1)
    expected = f"this installation has no kernels for {BEST}: install korvex with {ADVICE}"
    assert str(refusal.value) == expected


def _path(instruction_set: str) -> Path:
    return Path("emulation") / f"libkorvex_host_kernels_{instruction_set}.so"


def test_all_are_installed_where_the_tree_was_built_for_tests():
    """A build by `make` runs the tests of every instruction set."""
    assert Path(korvex.__file__).parent == PACKAGE
    assert _library.usable_instruction_sets() == _library.INSTRUCTION_SETS[: _index(BEST) + 1]


def _index(instruction_set: str) -> int:
    return _library.INSTRUCTION_SETS.index(instruction_set)
