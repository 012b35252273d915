# SPDX-License-Identifier: Apache-2.0
"""Doc strings and pages: every example is run, and every public name has one."""

import doctest
import importlib
import inspect
import os
import pkgutil
import re
import subprocess
import sys
from pathlib import Path

import page_code
import pytest

from korvex import exact

PAGE = Path(__file__).resolve().parents[2] / "docs" / "exact.md"
GRADIENTS = PAGE.with_name("gradients.md")
SEGMENTS = PAGE.with_name("segments.md")
MODULES = ["korvex.exact"] + [
    f"korvex.exact.{found.name}" for found in pkgutil.iter_modules(exact.__path__)
]


def documented():
    """Public functions, classes, and methods with a doc string of their own."""
    for name in exact.__all__:
        value = getattr(exact, name)
        yield name, value
        if isinstance(value, type):
            for member_name, member in inspect.getmembers(value):
                if not member_name.startswith("_"):
                    yield f"{name}.{member_name}", member


@pytest.mark.parametrize("name", MODULES)
def test_examples_of_doc_strings(name):
    failed, _ = doctest.testmod(importlib.import_module(name))
    assert failed == 0


@pytest.mark.parametrize(
    ("name", "value"), [pytest.param(*pair, id=pair[0]) for pair in documented()]
)
def test_every_public_name_has_an_example(name, value):
    assert ">>> " in inspect.getdoc(value), name


def test_examples_of_the_page():
    assert len(page_code.blocks_of(PAGE.read_text(), "pycon")) >= 5
    _, examples = page_code.run_code(PAGE.read_text())
    assert examples > 20


def test_examples_of_the_page_about_segments():
    _, examples = page_code.run_code(SEGMENTS.read_text())
    assert examples > 10


def test_examples_of_the_page_about_gradients():
    """In a process of its own: torch exports nothing where its tensors are emulated."""
    program = "import pathlib, sys, page_code\n"
    program += "print(page_code.run_code(pathlib.Path(sys.argv[1]).read_text())[1])"
    folders = [str(Path(page_code.__file__).parent), os.environ.get("PYTHONPATH", "")]
    run = subprocess.run(
        [sys.executable, "-P", "-c", program, GRADIENTS],
        env=os.environ | {"PYTHONPATH": os.pathsep.join(filter(None, folders))},
        capture_output=True,
        text=True,
        timeout=300,
    )
    assert run.returncode == 0, run.stdout + run.stderr
    assert int(run.stdout) > 15


def test_the_first_block_has_ten_lines_of_use():
    first = re.search(r"^```pycon\n(.*?)^```$", PAGE.read_text(), re.MULTILINE | re.DOTALL)[1]
    assert 8 <= len(re.findall(r"^>>> ", first, re.MULTILINE)) <= 12


def test_the_page_names_every_public_name():
    text = PAGE.read_text()
    assert [
        name for name in exact.__all__ if f"`{name}" not in text and f"exact.{name}" not in text
    ] == []
