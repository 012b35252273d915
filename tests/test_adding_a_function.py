# SPDX-License-Identifier: Apache-2.0
"""The checklist in docs/adding_a_function.md, followed to the letter for its made-up function."""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

TREE = Path(__file__).resolve().parent.parent
STEP = re.compile(
    r"^### \d+\. `(?P<file>[^`]+)`.*?"
    r"^(?P<where>After|Before) the line `(?P<line>[^\n]*)`:\n\n```\w+\n(?P<text>.*?)^```$",
    re.MULTILINE | re.DOTALL,
)
BUILT_FROM = ["CMakeLists.txt", "LICENSE", "README.md", "cmake", "korvex", "pyproject.toml"]
OVERLOADS = """\
@overload
def tqx_cube(x: _Operand, return_tqx: Literal[False] = False) -> Tensor: ...
@overload
def tqx_cube(x: _Operand, return_tqx: Literal[True]) -> TQXResult: ...
@overload
def tqx_cube(x: _Operand, return_tqx: bool = False) -> Tensor | TQXResult: ...
"""


def steps():
    text = (TREE / "docs" / "adding_a_function.md").read_text()
    return [match.groupdict() for match in STEP.finditer(text)]


def follow(step, tree):
    """Put the text of a step before or after the one line it names."""
    path = tree / step["file"]
    lines = path.read_text().splitlines(keepends=True)
    [place] = [number for number, line in enumerate(lines) if line == step["line"] + "\n"]
    lines.insert(place + (step["where"] == "After"), step["text"])
    path.write_text("".join(lines))


def test_every_step_names_a_file_and_one_line_of_it():
    assert len(steps()) == 7
    for step in steps():
        lines = (TREE / step["file"]).read_text().splitlines()
        assert lines.count(step["line"]) == 1, f"{step['file']}: {step['line']}"


def test_tests_that_the_checklist_names_exist():
    text = (TREE / "docs" / "adding_a_function.md").read_text()
    named = re.findall(r"`((?:tests|docs)/[\w/]+\.(?:py|md))`", text)
    assert len(named) > 5
    assert [name for name in named if not (TREE / name).exists()] == []


CALLS = """
import korvex.emulation
korvex.emulation.activate()
import korvex.tqx_runtime as runtime, torch
x = torch.tensor([2.0, -0.1, float("nan")], dtype=torch.float64, device="cuda")
assert runtime.__all__[-1] == "tqx_cube" and runtime.tqx_cube.__doc__ == "Cube of each element."
cubes = runtime.tqx_cube(x).cpu().tolist()
assert cubes[:2] == [8.0, -0.1 * -0.1 * -0.1], cubes
assert runtime.tqx_cube(x, return_tqx=True).n_limbs == 1
try:
    runtime.tqx_cube()
except TypeError as error:
    assert str(error) == "tqx_cube() takes at least 1 positional argument (0 given)"
else:
    raise AssertionError
"""


def copy_of_the_tree(tree):
    for name in [*BUILT_FROM, "scripts", "tools", "docs/api"]:
        source = TREE / name
        if source.is_dir():
            shutil.copytree(source, tree / name, ignore=shutil.ignore_patterns("__pycache__"))
        elif source.exists():
            shutil.copy(source, tree / name)


def python(site, *arguments, folder):
    search_path = os.pathsep.join([str(site), str(folder / "tools")])
    environment = os.environ | {"PYTHONPATH": search_path}
    subprocess.run([sys.executable, "-P", *arguments], check=True, env=environment, cwd=folder)


def build(tree, folder, site):
    command = [tree / "scripts" / "install_tree.sh", sys.executable, folder, site]
    subprocess.run([*command, "KORVEX_CUDA_ARCHITECTURES=none"], check=True, cwd=tree)


@pytest.mark.long
def test_steps_make_a_function_that_works(tmp_path):
    """Builds the changed tree, writes what follows, and builds again: some minutes."""
    tree, site = tmp_path / "tree", tmp_path / "site"
    tree.mkdir()
    copy_of_the_tree(tree)
    for step in steps():
        follow(step, tree)
    build(tree, tmp_path / "build", site)
    python(site, "-m", "korvex_tools.write_interface", folder=tree)
    assert (tree / "korvex" / "tqx_runtime.pyi").read_text().endswith(OVERLOADS)
    assert "tqx_cube\n```" in (tree / "docs" / "api" / "elementwise.md").read_text()
    build(tree, tmp_path / "build", site)
    python(site, "-c", CALLS, folder=tmp_path)
