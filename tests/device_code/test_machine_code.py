# SPDX-License-Identifier: Apache-2.0
"""The compiled kernels of the installation, read without a GPU: what they hold and what they cost.

The golden table is written by korvex_tools.record_machine_code.
"""

import json
import re
import shutil
from pathlib import Path

import pytest

import korvex
from korvex_tools import machine_code, occupancy

CUBINS = Path(korvex.__file__).parent / "cubins"
FILES = sorted(CUBINS.glob("*.cubin"), key=machine_code.architecture)
PTX_FILES = sorted(CUBINS.glob("*.ptx"), key=machine_code.architecture)
SOURCE_TREE = Path(__file__).resolve().parents[2]
GOLDEN = json.loads((Path(__file__).parent / "golden.json").read_text())

# As many as the source of each kernel and of all that it calls holds; what is inlined or unrolled
# more than once counts so often.
FUSED_IN_SOURCE = {
    "tqx_sum_seq_kernel": 0,
    "tqx_sum_kernel": 0,
    "tqx_dot_seq_kernel": 17,
    "tqx_dot_kernel": 8,
    "tqx_matmul_kernel": 14,
    "tqx_var_kernel": 13,
    "tqx_norm_kernel": 13,
    "tqx_prod_kernel": 0,
    "tqx_cumsum_kernel": 0,
    "tqx_logsumexp_kernel": 52,
    "tqx_add_kernel": 0,
    "tqx_sub_kernel": 0,
    "tqx_mul_kernel": 1,  # the error of the product
    "tqx_div_kernel": 1,  # the remainder
    "tqx_relu_kernel": 0,
    "tqx_neg_kernel": 0,
    "tqx_exp_kernel": 12,
    "tqx_log_kernel": 12,
    "tqx_sqrt_kernel": 0,
    "tqx_sigmoid_kernel": 14,
    "tqx_tanh_kernel": 14,
    "tqx_leaky_relu_kernel": 0,
    "tqx_rms_norm_kernel": 10,
    "tqx_sum_device_kernel": 0,
    "tqx_dot_device_kernel": 8,
    "tqx_var_device_sum_kernel": 0,
    "tqx_var_device_kernel": 8,
    "tqx_norm_device_kernel": 8,
    "tqx_prod_device_kernel": 0,
    "tqx_cumsum_device_sum_kernel": 0,
    "tqx_cumsum_device_kernel": 0,
    "tqx_logsumexp_device_largest_kernel": 0,
    "tqx_logsumexp_device_sum_kernel": 28,
    "tqx_logsumexp_device_kernel": 24,
    "tqx_rms_norm_device_root_kernel": 8,
    "tqx_rms_norm_device_kernel": 2,
}

MOST_STACK = 512  # bytes of a thread

pytestmark = pytest.mark.skipif(
    not FILES and shutil.which("nvcc") is None,
    reason="no compiler for device code, so the package holds no kernels",
)
needs_cuobjdump = pytest.mark.skipif(
    machine_code.tool("cuobjdump") is None, reason="no cuobjdump: pip install nvidia-cuda-cuobjdump"
)
needs_nvdisasm = pytest.mark.skipif(
    machine_code.tool("nvdisasm") is None, reason="no nvdisasm: pip install nvidia-cuda-nvdisasm"
)


def tables() -> str:
    folder = SOURCE_TREE / "korvex" / "kernels"
    return (folder / "table.h").read_text() + (folder / "whole_device.h").read_text()


def kernels_of_the_tables() -> set[str]:
    """Those that callers name, and the loader's own."""
    public = re.findall(r'^\s*\{"(\w+)", "(?:function|launch)"', tables(), re.MULTILINE)
    return {*public, *re.findall(r'"(\w+_device\w*_kernel)"', tables())}


def workspaces_of_the_tables() -> set[str]:
    return set(re.findall(r'"(\w+_grid_memory)"', tables()))


def name(path: Path) -> str:
    return path.stem


def golden_row(cubin: Path) -> dict:
    key = machine_code.row_name(cubin)
    if key not in GOLDEN:
        pytest.skip(f"no golden row for {key}")
    return GOLDEN[key]


def test_kernels_were_built_where_there_is_a_compiler():
    assert FILES
    assert PTX_FILES


def test_every_kernel_has_its_count_of_fused_operations():
    assert FUSED_IN_SOURCE.keys() == kernels_of_the_tables()


# --- Machine code


@needs_cuobjdump
@pytest.mark.parametrize("cubin", FILES, ids=name)
def test_machine_code_holds_exactly_the_kernels_of_the_tables(cubin):
    assert machine_code.resources(cubin).keys() == kernels_of_the_tables()


@pytest.mark.parametrize("cubin", FILES, ids=name)
def test_machine_code_needs_nothing_from_outside(cubin):
    """Undefined symbols of the compiler's own begin with a dot; no library is linked in."""
    undefined, functions = machine_code.symbols(cubin)
    assert [symbol for symbol in undefined if not symbol.startswith(".nv.")] == []
    assert kernels_of_the_tables() <= set(functions)
    assert [symbol for symbol in functions if "__nv_" in symbol] == []


@pytest.mark.parametrize("cubin", FILES, ids=name)
def test_machine_code_holds_the_memory_that_the_loader_clears(cubin):
    """By the name that the loader asks for."""
    wanted = {f"{name}_grid_memory" for name in ("sum", "dot", "prod", "logsumexp")}
    assert workspaces_of_the_tables() == wanted <= set(machine_code.variables(cubin))


@needs_cuobjdump
@pytest.mark.parametrize("cubin", FILES, ids=name)
def test_machine_code_takes_no_more_than_it_did(cubin):
    golden = golden_row(cubin)
    for kernel, taken in machine_code.resources(cubin).items():
        assert kernel in golden, f"run korvex_tools.record_machine_code for {kernel}"
        for resource, amount in taken.items():
            assert amount <= golden[kernel][resource], f"{kernel}: {resource}"


def beyond_the_limit(kernels: dict) -> dict[str, int]:
    stack = {kernel: taken["stack"] for kernel, taken in kernels.items()}
    return {kernel: bytes_ for kernel, bytes_ in stack.items() if bytes_ > MOST_STACK}


@needs_cuobjdump
@pytest.mark.parametrize("cubin", FILES, ids=name)
def test_wide_numbers_do_not_lie_on_the_stack(cubin):
    """The driver reserves stack for every thread that a device can hold, for the whole context."""
    assert beyond_the_limit(machine_code.resources(cubin)) == {}


@pytest.mark.parametrize("key", GOLDEN)
def test_no_recorded_kernel_keeps_more_on_the_stack(key):
    """For the architectures that this build has not made."""
    assert GOLDEN[key].keys() == kernels_of_the_tables()
    assert beyond_the_limit(GOLDEN[key]) == {}


@needs_nvdisasm
@pytest.mark.parametrize(
    "cubin",
    [path for path in FILES if machine_code.architecture(path) >= machine_code.OLDEST_DISASSEMBLED],
    ids=name,
)
def test_inner_loops_hold_the_operations_of_the_algorithm_and_no_more(cubin):
    """Three additions an element and slice; two slices as a rule, up to four for one thread."""
    golden = golden_row(cubin)
    loops = machine_code.element_loops(cubin)
    assert {loop["fp64_per_element"] for loop in loops["tqx_sum_seq_kernel"]} == {6, 9, 12}
    for kernel in ("tqx_sum_seq_kernel", "tqx_sum_kernel"):
        fastest = loops[kernel][0]
        assert fastest["fp64_per_element"] == golden[kernel]["fp64_per_element"] == 6
        assert fastest["cycles_per_element"] <= golden[kernel]["cycles_per_element"]


@pytest.mark.parametrize(
    ("number", "expected"),
    [(90, 17.12), (80, 17.12), (86, 96), (89, 96), (120, 96), (103, 17.12)],
)
def test_cycles_of_a_loop_know_the_rate_of_double_precision(number, expected):
    """Six additions of a warp: three cycles at 64 a cycle, 96 at 2; other rates are not known."""
    assert machine_code.least_cycles(17.12, 6, number) == expected


@pytest.mark.parametrize(
    ("registers", "shared", "threads", "blocks"),
    [(64, 1568, 256, 4), (24, 0, 256, 8), (128, 0, 256, 2), (168, 0, 256, 1), (64, 0, 1024, 1)]
    + [(16, 0, 32, 32), (32, 70000, 64, 3), (255, 0, 512, 0)],
)
def test_blocks_that_a_multiprocessor_holds(registers, shared, threads, blocks):
    taken = {"registers": registers, "stack": 0, "shared": shared}
    assert occupancy.resident_blocks(taken, threads, 90) == blocks


def test_blocks_of_kernels_are_those_of_the_table():
    assert occupancy.block_of("tqx_tanh_kernel") == 256
    assert occupancy.block_of("tqx_logsumexp_kernel") == 1024


# --- PTX


@pytest.mark.parametrize("ptx", PTX_FILES, ids=name)
def test_ptx_holds_exactly_the_kernels_and_their_fused_operations(ptx):
    assert machine_code.fused_operations(ptx.read_text()) == FUSED_IN_SOURCE


@pytest.mark.parametrize("ptx", PTX_FILES, ids=name)
def test_ptx_of_single_block_kernels_leaves_them_all_registers(ptx):
    """The compiler would else spare half of them for a second block of 1024 threads."""
    heads = re.findall(r"\.entry (\w+)\(.*?\)([^{]*)\{", ptx.read_text(), re.DOTALL)
    single_block = {kernel: head for kernel, head in heads if ".maxntid 1024" in head}
    assert len(single_block) == 6
    assert all(".minnctapersm 1\n" in head for head in single_block.values())


@pytest.mark.parametrize("ptx", PTX_FILES, ids=name)
def test_ptx_rounds_every_operation_as_written_and_calls_no_library(ptx):
    assert machine_code.ptx_problems(ptx.read_text()) == []


@pytest.mark.parametrize(
    "planted",
    [
        "add.f64 %fd1, %fd2, %fd3;",
        "add.rn.ftz.f32 %f1, %f2, %f3;",
        "div.approx.f64 %fd1, %fd2, %fd3;",
        "mul.rn.f32 %f1, %f2, %f3;",
        ".extern .func (.param .b64 r) exp (.param .b64 x);",
        ".func (.param .b64 r) __nv_exp(.param .b64 x) {",
    ],
)
def test_a_planted_operation_is_found(planted):
    sound = ".visible .entry f()\n{\nadd.rn.f64 %fd1, %fd2, %fd3;\nret;\n}\n"
    assert machine_code.ptx_problems(sound) == []
    assert len(machine_code.ptx_problems(sound + planted + "\n}\n")) == 1


def test_a_fused_operation_is_counted_where_a_callee_holds_it():
    callee = ".func helper()\n{\nfma.rn.f64 %fd1, %fd2, %fd3, %fd4;\nret;\n}\n"
    kernel = ".visible .entry f()\n{\ncall.uni helper, ();\nret;\n}\n"
    assert machine_code.fused_operations(callee + kernel) == {"f": 1}
