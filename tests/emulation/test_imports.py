# SPDX-License-Identifier: Apache-2.0
"""The modules of the emulation import each other in one direction."""

import ast
import graphlib
from pathlib import Path

import pytest

FOLDER = Path(__file__).resolve().parents[2] / "korvex" / "emulation"
PACKAGE = "korvex.emulation"
# The stub of the extension module stands for it.
MODULES = {path.stem: path for path in FOLDER.iterdir() if path.suffix in (".py", ".pyi")}


def imported_modules(tree):
    """The modules of the package that a file names in an import, wherever in the file it stands."""
    for node in ast.walk(tree):
        if isinstance(node, ast.Import):
            names = [alias.name for alias in node.names]
        elif isinstance(node, ast.ImportFrom):
            assert node.level == 0, "imports are written in full"
            names = [f"{node.module}.{alias.name}" for alias in node.names]
        else:
            continue
        for name in names:
            if name == PACKAGE or name.startswith(PACKAGE + "."):
                module = name.removeprefix(PACKAGE).lstrip(".").partition(".")[0]
                yield module if module in MODULES else "__init__"


def graph(sources):
    return {name: set(imported_modules(ast.parse(text))) for name, text in sources.items()}


def order(sources):
    """The modules, each after those it imports; CycleError if there is no such order."""
    return list(graphlib.TopologicalSorter(graph(sources)).static_order())


def test_modules_have_no_import_cycle():
    names = order({name: path.read_text() for name, path in MODULES.items()})
    assert sorted(names) == sorted(MODULES)
    assert names.index("_dispatch") < names.index("_tensor") < names.index("_operations")


def test_cycle_is_found_wherever_the_import_stands():
    sources = {
        "_tensor": "def f():\n    from korvex.emulation._operations import dispatch\n",
        "_operations": "from korvex.emulation import _tensor\n",
    }
    with pytest.raises(graphlib.CycleError):
        order(sources)
    with pytest.raises(graphlib.CycleError):
        order({"__init__": "import korvex.emulation._device", "_device": f"import {PACKAGE}"})
