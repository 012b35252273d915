# SPDX-License-Identifier: Apache-2.0
"""The types of the public names, and the names as they once were.

`korvex/tqx_runtime.pyi` is held against the built module by stubtest; the examples are programs
that a strict type checker passes with it. `tests/golden/surface.json` pins every public name with
signature, defaults, annotations and doc string: a difference is a decision, made with
`python tests/golden/record_surface.py`.
"""

import importlib.metadata
import json
import os
import pathlib
import subprocess
import sys

import golden
import pytest

TREE = pathlib.Path(__file__).parents[2]
record_surface = golden.load_script(golden.FOLDER / "record_surface.py")
STUBTEST = """
import sys
import korvex.emulation
korvex.emulation.activate()
import korvex.tqx_runtime
from mypy import stubtest
sys.argv = ["stubtest", "korvex.tqx_runtime", "--mypy-config-file", sys.argv[1]]
sys.exit(stubtest.main())
"""


def run_tool(folder, *arguments, stubs=TREE):
    pytest.importorskip("mypy")
    search_path = os.pathsep.join([str(stubs), str(TREE / "examples")])
    process = subprocess.run(
        [sys.executable, "-P", *arguments],
        cwd=folder,
        env=os.environ | {"MYPYPATH": search_path, "MYPY_CACHE_DIR": str(folder / "cache")},
        capture_output=True,
        text=True,
    )
    return process.returncode, process.stdout + process.stderr


def stubtest(folder, stubs=TREE):
    return run_tool(folder, "-c", STUBTEST, str(TREE / "pyproject.toml"), stubs=stubs)


# ---- types ----


def test_stub_describes_the_built_module(tmp_path):
    status, output = stubtest(tmp_path)
    assert status == 0, output


PLANTED = [
    ("tqx_sign", "def tqx_sign(x: Tensor)", "def tqx_sign(y: Tensor)"),
    ("tqx_checksum", "truncate: int = 16", "truncate: int = 17"),
    ("tqx_trace", "def tqx_trace(", "def tqx_tracer("),
]


def test_stub_that_is_wrong_is_noticed(tmp_path):
    """A parameter, a default and a name, each of which must be reported."""
    text = (TREE / "korvex" / "tqx_runtime.pyi").read_text()
    for _, expected, wrong in PLANTED:
        assert expected in text
        text = text.replace(expected, wrong)
    package = tmp_path / "korvex"
    package.mkdir()
    (package / "__init__.py").touch()
    (package / "tqx_runtime.pyi").write_text(text)
    status, output = stubtest(tmp_path, stubs=tmp_path)
    assert status == 1
    for name, _, _ in PLANTED:
        assert f"korvex.tqx_runtime.{name} " in output, output


def test_examples_pass_a_strict_type_checker(tmp_path):
    examples = sorted(map(str, (TREE / "examples").glob("*.py")))
    settings = ["--config-file", str(TREE / "pyproject.toml")]
    status, output = run_tool(tmp_path, "-m", "mypy", *settings, *examples)
    assert status == 0, output


def test_stub_is_installed():
    files = set(map(str, importlib.metadata.distribution("korvex-tqx").files))
    assert {"korvex/tqx_runtime.pyi", "korvex/py.typed"} <= files


# ---- names ----


def test_surface_is_the_recorded_one(module):
    recorded = json.loads((golden.FOLDER / "surface.json").read_text())
    assert record_surface.surface(module) == recorded


def test_recorded_surface_is_whole(module):
    recorded = json.loads((golden.FOLDER / "surface.json").read_text())
    assert list(recorded["names"]) == module.__all__
    functions = [entry for entry in recorded["names"].values() if entry["kind"] == "function"]
    assert len(functions) == 82 and all(entry["doc"] for entry in functions)
