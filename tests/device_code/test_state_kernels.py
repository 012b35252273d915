# SPDX-License-Identifier: Apache-2.0
"""The compiled kernels of exact states, read without a GPU: what they hold and what they cost.

The golden table is written by korvex_tools.record_machine_code.
"""

import json
import re
from pathlib import Path

import pytest

import korvex
from korvex_tools import machine_code

SOURCE_TREE = Path(__file__).resolve().parents[2]
FOLDER = Path(korvex.__file__).parent / "exact" / "cubins"
# The other kernels: a file of the same name is by the same compiler.
KERNELS = Path(korvex.__file__).parent / "cubins"
FILES = sorted(FOLDER.glob("*.cubin"), key=machine_code.architecture)
PTX_FILES = sorted(FOLDER.glob("*.ptx"), key=machine_code.architecture)

TABLES = Path(__file__).parent
GOLDEN = json.loads((TABLES / "golden_states.json").read_text())

MOST_STACK = 512  # bytes of a thread
# Three blocks of 256 threads share 65536 registers, which come in groups of eight; or two.
MOST_REGISTERS = 80
MOST_REGISTERS_OF_TWO = dict.fromkeys(
    ("korvex_multiply", "korvex_add_axes", "korvex_multiply_axes", "korvex_sum_columns"), 128
)

needs_kernels = pytest.mark.skipif(not FILES, reason="the package holds no kernels")
needs_cuobjdump = pytest.mark.skipif(
    machine_code.tool("cuobjdump") is None, reason="no cuobjdump: pip install nvidia-cuda-cuobjdump"
)


def kernels_of_the_table() -> set[str]:
    text = (SOURCE_TREE / "korvex" / "kernels" / "states.h").read_text()
    return set(re.findall(r'\{"(korvex_\w+)"', text))


def test_the_table_has_kernels():
    assert len(kernels_of_the_table()) == 15


def beyond_their_room(kernels: dict) -> list[str]:
    """Those with more stack or registers than a thread is to have."""
    return [
        name
        for name, taken in kernels.items()
        if taken["stack"] > MOST_STACK
        or taken["registers"] > MOST_REGISTERS_OF_TWO.get(name, MOST_REGISTERS)
    ]


@needs_kernels
@needs_cuobjdump
@pytest.mark.parametrize("cubin", FILES, ids=lambda path: path.stem)
def test_machine_code_holds_exactly_the_kernels_and_keeps_to_its_room(cubin):
    resources = machine_code.resources(cubin)
    assert resources.keys() == kernels_of_the_table()
    assert beyond_their_room(resources) == []


@needs_kernels
@needs_cuobjdump
@pytest.mark.parametrize("cubin", FILES, ids=lambda path: path.stem)
def test_machine_code_takes_no_more_than_it_did(cubin):
    key = machine_code.row_name(KERNELS / cubin.name)
    if key not in GOLDEN:
        pytest.skip(f"no golden row for {key}")
    for kernel, taken in machine_code.resources(cubin).items():
        assert kernel in GOLDEN[key], f"run korvex_tools.record_machine_code for {kernel}"
        for resource, amount in taken.items():
            assert amount <= GOLDEN[key][kernel][resource], f"{kernel}: {resource}"


def test_there_is_a_row_for_each_compiled_file_of_the_other_kernels():
    assert GOLDEN.keys() == json.loads((TABLES / "golden.json").read_text()).keys()


@pytest.mark.parametrize("key", GOLDEN)
def test_recorded_kernels_keep_to_their_room(key):
    """For the architectures that this build has not made."""
    assert GOLDEN[key].keys() == kernels_of_the_table()
    assert beyond_their_room(GOLDEN[key]) == []


def test_more_than_the_room_is_noticed():
    taken = {"registers": MOST_REGISTERS, "stack": MOST_STACK}
    of_two = "korvex_multiply"
    assert beyond_their_room({"a": taken, of_two: taken | {"registers": 128}}) == []
    assert beyond_their_room({"a": taken | {"registers": 81}}) == ["a"]
    assert beyond_their_room({of_two: taken | {"stack": 513}}) == [of_two]


@needs_kernels
@pytest.mark.parametrize("cubin", FILES, ids=lambda path: path.stem)
def test_machine_code_needs_nothing_from_outside(cubin):
    undefined, functions = machine_code.symbols(cubin)
    assert [symbol for symbol in undefined if not symbol.startswith(".nv.")] == []
    assert kernels_of_the_table() <= set(functions)


@needs_kernels
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
