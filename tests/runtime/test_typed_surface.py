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


# ---- types of calls ----

OPERANDS = """\
import torch
import korvex.tqx_runtime as tqx
x = torch.tensor([[1.5, 2.0], [3.0, 4.0]], dtype=torch.float64, device="cuda")
v = torch.tensor([1.5, 2.0], dtype=torch.float64, device="cuda")
limbs = tqx.TQXResult([x, x], "cuda")
"""
# What the stub asks of torch, whose own types a type checker reads for a minute.
TYPES_OF_TORCH = """\
from typing import Any
class dtype: ...
class Tensor: ...
float64: dtype
def tensor(values: Any, *, dtype: dtype, device: str) -> Tensor: ...
"""
TENSOR, LIMBS, EITHER = {"Tensor"}, {"TQXResult"}, {"Tensor", "TQXResult"}
# A call, and the types of its result in the stub; none where the type checker refuses it. `flag` is
# a variable.
CALLS = {
    "tqx.tqx_sum(x, dim=0, return_tqx=True)": TENSOR,
    "tqx.tqx_sum(x, 0, True, True)": TENSOR,
    "tqx.tqx_sum(x, dim=0, return_tqx=flag)": TENSOR,
    "tqx.tqx_sum(x, dim=None, return_tqx=True)": LIMBS,
    "tqx.tqx_sum(x, None, False, True)": EITHER,
    "tqx.tqx_sum(x, return_tqx=True, exact=False)": LIMBS,
    "tqx.tqx_mean(x, 1, return_tqx=True)": TENSOR,
    "tqx.tqx_mean(x, dim=0, keepdim=True, return_tqx=flag)": TENSOR,
    "tqx.tqx_mean(x, dim=None, return_tqx=True)": LIMBS,
    "tqx.tqx_matmul(x, x, return_tqx=True)": EITHER,
    "tqx.tqx_matmul(v, v, return_tqx=True)": EITHER,
    "tqx.tqx_einsum('ij,jk->ik', x, x)": TENSOR,
    "tqx.tqx_einsum('ij,jk->ik', x, x, return_tqx=True)": EITHER,
    "tqx.tqx_einsum('ij->ji', x, return_tqx=True)": EITHER,
    "tqx.tqx_einsum('ij,jk->ik', x, x, return_tqx=flag)": EITHER,
    "tqx.tqx_exp(x, 30, True)": EITHER,
    "tqx.tqx_neg(x, True)": LIMBS,
    "tqx.tqx_pow(limbs, 2.0, flag)": EITHER,
    "tqx.tqx_fmod(x, 2.0)": set(),
    "tqx.tqx_fmod(x, 2.0, flag)": set(),
}
for name in ("tqx.tqx_add", "tqx.tqx_sub"):
    for numbers in ("x, 2.0", "2.0, x", "2.0, 3", "x, 2"):
        CALLS[f"{name}({numbers})"] = CALLS[f"{name}({numbers}, return_tqx=flag)"] = set()
        CALLS[f"{name}({numbers}, return_tqx=True)"] = CALLS[f"{name}({numbers}, True)"] = LIMBS
    for operands in ("x, x", "x, limbs", "limbs, x", "limbs, limbs"):
        CALLS[f"{name}({operands})"] = CALLS[f"{name}({operands}, False)"] = TENSOR
        CALLS[f"{name}({operands}, return_tqx=True)"] = LIMBS
        CALLS[f"{name}({operands}, return_tqx=flag)"] = EITHER
    for operands in ("limbs, 2.0", "2.0, limbs"):
        CALLS[f"{name}({operands})"] = CALLS[f"{name}({operands}, return_tqx=True)"] = set()
for name in ("tqx.tqx_mul", "tqx.tqx_div"):
    for operands in ("x, 2.0", "2.0, x", "2.0, 3.0", "limbs, 2.0", "2.0, limbs"):
        CALLS[f"{name}({operands})"] = CALLS[f"{name}({operands}, return_tqx=flag)"] = set()
        CALLS[f"{name}({operands}, return_tqx=True)"] = set()
    CALLS[f"{name}(x, x)"], CALLS[f"{name}(x, x, True)"] = TENSOR, LIMBS
    CALLS[f"{name}(x, x, return_tqx=flag)"] = EITHER
    for operands in ("x, limbs", "limbs, x", "limbs, limbs"):
        CALLS[f"{name}({operands})"] = CALLS[f"{name}({operands}, return_tqx=True)"] = LIMBS
        CALLS[f"{name}({operands}, return_tqx=flag)"] = LIMBS
OTHER_ARGUMENTS = {"exponent": "2.0", "min_val": "0.0", "max_val": "1.0"}
WITH_FORMS_OF_THEIR_OWN = set(write_interface.FORMS) | {"tqx_matmul", "tqx_bmm"}
CONVOLUTIONS = {"tqx_conv2d", "tqx_conv_transpose2d"}


def calls_with_a_flag(module):
    """Every other function of two dimensions that has the flag: without, with and with either."""
    calls = {}
    for name in set(module.__all__) - WITH_FORMS_OF_THEIR_OWN - CONVOLUTIONS:
        function = getattr(module, name)
        signature = None if isinstance(function, str | type) else inspect.signature(function)
        if signature is None or "return_tqx" not in signature.parameters:
            continue
        honoured = signature.return_annotation is signature.empty
        honoured = honoured or name in write_interface.LIMBS_ON_REQUEST
        needed = [p for p in signature.parameters.values() if p.default is p.empty]
        given = ", ".join(OTHER_ARGUMENTS.get(p.name, "x") for p in needed)
        calls[f"tqx.{name}({given})"] = TENSOR
        calls[f"tqx.{name}({given}, return_tqx=True)"] = LIMBS if honoured else TENSOR
        calls[f"tqx.{name}({given}, return_tqx=flag)"] = EITHER if honoured else TENSOR
    assert len(calls) > 90
    return calls


def types_at_run_time(call, names):
    """The types of the result, for both values of a variable flag; none if one of them fails."""
    found = set()
    for flag in (False, True) if "flag" in call else (None,):
        try:
            found.add(type(eval(call, names | {"flag": flag})).__name__)
        except AttributeError:
            return set()
    return found


def types_in_the_stub(calls, folder):
    """What a strict type checker reveals of each call; none where it refuses."""
    lines = [*OPERANDS.splitlines(), "def calls(flag: bool) -> None:"]
    first = len(lines) + 1
    program = folder / "calls.py"
    program.write_text("\n".join([*lines, *(f"    reveal_type({call})" for call in calls)]) + "\n")
    (folder / "torch").mkdir()
    (folder / "torch" / "__init__.pyi").write_text(TYPES_OF_TORCH)
    stubs = f"{folder}{os.pathsep}{TREE}"
    arguments = ["-m", "mypy", "--strict", "--config-file", os.devnull, str(program)]
    _, output = run_tool(folder, *arguments, stubs=stubs)
    found = {}
    for line, kind, text in re.findall(r"^\S*calls\.py:(\d+): (error|note): (.*)$", output, re.M):
        call = calls[int(line) - first]
        if kind == "error":
            assert "[call-overload]" in text or "[arg-type]" in text, (call, text)
            found[call] = set()
        elif text.startswith("Revealed type is"):
            found.setdefault(call, set(re.findall(r"\.(Tensor|TQXResult)\b", text)))
    assert len(found) == len(calls), output
    return found


def test_types_in_the_stub_are_those_at_run_time(module, tmp_path):
    """What the type checker accepts works and has that type; what it refuses fails."""
    expected = CALLS | calls_with_a_flag(module)
    names = {}
    exec(OPERANDS, names)
    revealed = types_in_the_stub(list(expected), tmp_path)
    assert revealed == expected
    for call, types_of_call in expected.items():
        seen = types_at_run_time(call, names)
        if types_of_call == EITHER and "flag" not in call:
            assert len(seen) == 1 and seen < EITHER, call
        else:
            assert seen == types_of_call, call


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
