# SPDX-License-Identifier: Apache-2.0
"""The compiled kernels of exact states, read without a GPU: what they hold and what they cost."""

import re
from pathlib import Path

import pytest

import korvex
from korvex_tools import machine_code

SOURCE_TREE = Path(__file__).resolve().parents[2]
FOLDER = Path(korvex.__file__).parent / "exact" / "cubins"
FILES = sorted(FOLDER.glob("*.cubin"), key=machine_code.architecture)
PTX_FILES = sorted(FOLDER.glob("*.ptx"), key=machine_code.architecture)

MOST_STACK = 512  # bytes of a thread
# Three blocks of 256 threads share 65536 registers, which come in groups of eight; or two.
MOST_REGISTERS = 80
MOST_REGISTERS_OF_TWO = dict.fromkeys(
    ("korvex_multiply", "korvex_add_axes", "korvex_multiply_axes", "korvex_sum_columns"), 128
)

pytestmark = pytest.mark.skipif(not FILES, reason="the package holds no kernels")
needs_cuobjdump = pytest.mark.skipif(
    machine_code.tool("cuobjdump") is None, reason="no cuobjdump: pip install nvidia-cuda-cuobjdump"
)


def kernels_of_the_table() -> set[str]:
    text = (SOURCE_TREE / "korvex" / "kernels" / "states.h").read_text()
    return set(re.findall(r'\{"(korvex_\w+)"', text))


def test_the_table_has_kernels():
    assert len(kernels_of_the_table()) == 15


@needs_cuobjdump
@pytest.mark.parametrize("cubin", FILES, ids=lambda path: path.stem)
def test_machine_code_holds_exactly_the_kernels_and_keeps_to_its_room(cubin):
    resources = machine_code.resources(cubin)
    assert resources.keys() == kernels_of_the_table()
    if machine_code.architecture(cubin) >= 80:  # older devices are not looked at
        assert {
            name: taken["stack"] for name, taken in resources.items() if taken["stack"] > MOST_STACK
        } == {}
        assert {
            name: taken["registers"]
            for name, taken in resources.items()
            if taken["registers"] > MOST_REGISTERS_OF_TWO.get(name, MOST_REGISTERS)
        } == {}


@pytest.mark.parametrize("cubin", FILES, ids=lambda path: path.stem)
def test_machine_code_needs_nothing_from_outside(cubin):
    undefined, functions = machine_code.symbols(cubin)
    assert [symbol for symbol in undefined if not symbol.startswith(".nv.")] == []
    assert kernels_of_the_table() <= set(functions)


@pytest.mark.parametrize("ptx", PTX_FILES, ids=lambda path: path.stem)
def test_ptx_rounds_every_operation_as_written_and_calls_no_library(ptx):
    assert machine_code.ptx_problems(ptx.read_text()) == []
    fused = machine_code.fused_operations(ptx.read_text())
    assert fused.keys() == kernels_of_the_table()
    assert {name for name, count in fused.items() if count > 0} == {
        "korvex_add_products",
        "korvex_multiply",
        "korvex_multiply_axes",
        "korvex_sum_columns",
    }
