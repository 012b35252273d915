# SPDX-License-Identifier: Apache-2.0
"""The types of the public names, the files written from their rows, and the names as recorded.

`korvex/tqx_runtime.pyi` is held against the built module by stubtest; the examples are programs
that a strict type checker passes with it. `tests/golden/surface.json` pins every public name with
signature, defaults, annotations and doc string: a difference is a decision, made with
`PYTHONPATH=tests/support python tests/golden/record_surface.py`.
"""

import importlib.metadata
import inspect
import json
import os
import pathlib
import re
import subprocess
import sys
import types

import pytest

from korvex_tools import write_interface
from korvex_tools.verify import golden

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
    for _, right, wrong in PLANTED:
        assert right in text
        text = text.replace(right, wrong)
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
    names_of_no_function = {"__version__", "TQXResult", "TQXVerifiedResult"}
    assert len(functions) == len(set(module.__all__) - names_of_no_function)
    assert all(entry["doc"] for entry in functions)


# ---- files that follow from the rows ----


def test_files_that_follow_from_the_rows_are_up_to_date(module):
    """Otherwise: build, `make interface`, and build again."""
    for path, text in write_interface.written_files(module).items():
        assert path.read_text() == text, path.name


def test_new_public_function_goes_to_the_end_of_all(module):
    changed = types.SimpleNamespace(**vars(module) | {"tqx_cube": module.tqx_relu, "_x": module.cp})
    assert write_interface.public_names(changed) == [*module.__all__, "tqx_cube"]


def test_name_that_is_gone_leaves_all(module):
    changed = types.SimpleNamespace(**vars(module))
    del changed.tqx_where
    expected = [name for name in module.__all__ if name != "tqx_where"]
    assert write_interface.public_names(changed) == expected


def test_every_public_name_stands_on_one_page(module):
    pages = write_interface.pages(module.__all__).values()
    listed = [re.search(r"korvex\.tqx_runtime\n([^`]*)```", page)[1].split() for page in pages]
    names = [name for page in listed for name in page if not name.startswith(":")]
    assert sorted(names) == sorted(module.__all__)


# ---- sentences of doc strings that do not hold ----

ROW = re.compile(r'^\| (`[^|]*`) \| "(.*)" \| (.*) \|$', re.MULTILINE)
KEPT_SENTENCES = ROW.findall((TREE / "docs" / "api" / "index.md").read_text())


def test_reference_quotes_sentences():
    assert len(KEPT_SENTENCES) > 25


@pytest.mark.parametrize(("names", "sentence", "instead"), KEPT_SENTENCES)
def test_sentence_that_the_reference_corrects_is_in_the_doc_string(
    module, names, sentence, instead
):
    for name in re.findall(r"`([^`]+)`", names):
        documented = module if name == module.__name__ else getattr(module, name)
        assert sentence.replace("\\|", "|") in " ".join(inspect.getdoc(documented).split())
    assert instead


def test_example_of_sum_exact_gives_what_the_reference_says(module):
    x = module.torch.ones(100000, device="cuda") * 0.1
    [instead] = [each for names, _, each in KEPT_SENTENCES if names == "`tqx_sum_exact`"]
    shown = re.search(r"returns ([\d.]+)\.\.\.", instead)[1]
    assert str(module.tqx_sum_exact(x)).startswith(shown)
