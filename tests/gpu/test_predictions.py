# SPDX-License-Identifier: Apache-2.0
"""Predicted times: how machine code is read, and the model."""

import math
from dataclasses import replace

import pytest

from korvex_tools import kernel_table, machine_code
from korvex_tools.control_flow import ControlFlow
from korvex_tools.gpu import predict, work
from korvex_tools.gpu.devices import A100, DEVICES, H100, RTX_4090, device_named
from korvex_tools.gpu.model import predict as prediction
from korvex_tools.gpu.model import resident_warps
from korvex_tools.gpu.work import WITHOUT_ELEMENTS, WORK

# --- Ways through machine code


def listing(text):
    """Of lines as nvdisasm prints them, each instruction with 2 cycles."""
    found = machine_code.Listing()
    for line in map(str.strip, text.strip().splitlines()):
        if line.endswith(":"):
            found.labels[line[:-1]] = len(found.instructions)
        else:
            found.instructions.append((line, 2))
    return found


ELEMENTWISE = """
    LDC R1, c[0x0][0x28]
    @P0 EXIT
.L_x_0:
    LDG.E.64 R2, desc[UR4][R2.64]
    @P1 BRA `(.L_x_2)
    DADD R4, R2, R2
    DMUL R4, R4, R4
    @!P2 BRA `(.L_x_1)
    DADD R4, R4, R2
    CALL.REL.NOINC `($slow)
.L_x_1:
    STG.E.64 desc[UR4][R6.64], R4
    @P0 BRA `(.L_x_0)
    EXIT
.L_x_2:
    DADD R4, R2, 1
    BRA `(.L_x_1)
$slow:
.L_x_3:
    DADD R8, R8, R8
    @P3 BRA `(.L_x_3)
    RET.REL.NODEC R20 0x0
"""


def test_ordinary_way_has_most_doubles_and_calls_nothing():
    flow = ControlFlow(listing(ELEMENTWISE))
    [loop] = [loop for loop in flow.loops if loop.function == ""]
    way = flow.way_round(loop)
    assert [text.split()[0] for text in way.texts] == [
        "LDG.E.64", "@P1", "DADD", "DMUL", "@!P2", "STG.E.64", "@P0",
    ]  # fmt: skip
    assert way.doubles == 2 and way.cycles == 14
    assert len(flow.way_to(loop).texts) == 2


def test_loops_of_functions_are_kept_apart():
    flow = ControlFlow(listing(ELEMENTWISE))
    assert sorted(loop.function for loop in flow.loops) == ["", "$slow"]


NESTED = """
.L_x_0:
    LDG.E.128 R2, desc[UR4][R2.64]
.L_x_1:
    DADD R4, R4, R2
    @P0 BRA `(.L_x_1)
    @P1 BRA `(.L_x_0)
    EXIT
"""


LEFT_BY_A_CALL = """
.L_x_0:
    DADD R4, R4, R2
    @P1 CALL.REL.NOINC `(.L_x_1)
    BRA `(.L_x_0)
.L_x_1:
    EXIT
"""


def test_a_loop_may_be_left_by_a_call_of_a_place_in_the_function():
    """So the compilers do for 8.0."""
    [loop] = ControlFlow(listing(LEFT_BY_A_CALL)).loops
    assert len(loop.body) == 2 and loop.is_innermost


def test_a_loop_within_a_loop_is_not_part_of_the_way_round():
    flow = ControlFlow(listing(NESTED))
    inner, outer = sorted(flow.loops, key=lambda loop: len(loop.body))
    assert inner.is_innermost and not outer.is_innermost
    assert flow.way_round(outer) is None, "each way round goes through the inner loop"
    assert flow.way_round(inner).doubles == 1


def test_a_kernel_without_its_loop_is_an_error_that_names_it():
    flow = ControlFlow(listing(NESTED))
    with pytest.raises(ValueError, match="tqx_add_kernel: no loop with STG in the kernel"):
        work.counts_of(flow, "tqx_add_kernel")


def test_counts_of_an_elementwise_kernel():
    flow = ControlFlow(listing(ELEMENTWISE))
    [found] = work.counts_of(flow, "tqx_exp_kernel")
    assert (found["instructions"], found["doubles"], found["cycles"]) == (9, 2, 18)
    assert (found["elements"], found["times"], found["accesses"]) == (1, 1, 0)


# --- The model

PASS = {
    "instructions": 100,
    "doubles": 10,
    "cycles": 300,
    "accesses": 0,
    "elements": 1,
    "times": 1,
    "is_cached": False,
    "threads": 0,
}
COUNTS = {"registers": 64, "stack": 0, "shared": 0, "passes": [PASS]}


def of(kernel, device, **changes):
    passes = [PASS | changes]
    return prediction(kernel, COUNTS | {"passes": passes}, device)


def test_every_kernel_has_a_description_or_a_reason_for_none():
    whole_device = {name for row in kernel_table.on_the_whole_device().values() for name in row}
    assert not WORK.keys() & WITHOUT_ELEMENTS.keys()
    assert WORK.keys() | WITHOUT_ELEMENTS.keys() == {
        *kernel_table.rows(),
        *whole_device,
        *kernel_table.of_states(),
    }


def test_memory_limits_what_does_little():
    found = of("tqx_add_kernel", H100, instructions=10, doubles=2, cycles=20)
    assert found.limit == "memory"
    assert found.nanoseconds == pytest.approx(32 / (3352 * 0.92))


def test_double_precision_limits_a_gpu_with_few_lanes():
    found = of("tqx_exp_kernel", RTX_4090, doubles=56)
    assert found.limit == "double precision"
    assert found.nanoseconds == pytest.approx(56 / (2 * 128 * 2.52))


def test_issue_limits_what_has_many_other_instructions():
    found = of("tqx_exp_kernel", H100, instructions=400)
    assert found.limit == "issue"
    assert found.nanoseconds == pytest.approx(400 / 128 / (132 * 1.98))


def test_latency_limits_few_warps():
    few = COUNTS | {"registers": 255, "passes": [PASS | {"cycles": 2000}]}
    assert prediction("tqx_exp_kernel", few, H100).limit == "latency"


def test_runs_of_single_threads_are_limited_by_look_ups():
    found = of("tqx_norm_kernel", H100, accesses=8, elements=4)
    assert found.limit == "look-ups"
    assert found.nanoseconds == pytest.approx(2 / 1.98)


def test_one_thread_takes_the_cycles_of_the_scheduler_or_of_the_doubles():
    one = {"cycles": 170, "doubles": 60, "elements": 10}
    assert of("tqx_sum_seq_kernel", H100, **one).nanoseconds == pytest.approx(17 / 1.98)
    assert of("tqx_sum_seq_kernel", RTX_4090, **one).nanoseconds == pytest.approx(96 / 2.52)
    assert of("tqx_sum_seq_kernel", A100, **one).limit == "one thread"


def test_one_block_does_not_gain_by_more_multiprocessors():
    block, device = of("tqx_prod_kernel", H100), of("tqx_exp_kernel", H100, instructions=4000)
    assert block.nanoseconds > 10 * 100 / 128 / (132 * 1.98)
    assert device.nanoseconds == pytest.approx(4000 / 128 / (132 * 1.98))


@pytest.mark.parametrize(
    ("registers", "shared", "warps"),
    [(32, 0, 64), (64, 0, 32), (65, 0, 24), (128, 0, 16), (255, 0, 8), (32, 40_000, 40)],
)
def test_warps_that_fit_by_registers_and_shared_memory(registers, shared, warps):
    """As NVIDIA's occupancy calculator has it for blocks of 256 threads on 9.0."""
    counts = {"registers": registers, "shared": shared}
    assert resident_warps("tqx_exp_kernel", counts, H100) == warps


def test_no_more_blocks_count_than_a_launch_has():
    counts = {"registers": 32, "shared": 0}
    assert resident_warps("tqx_sum_kernel", counts, H100) == 4 * 8
    assert resident_warps("tqx_var_kernel", counts, H100) == 32
    assert resident_warps("tqx_sum_seq_kernel", counts, H100) == 1


def test_blocks_over_the_whole_device_are_those_of_its_table():
    counts = {"registers": 32, "shared": 0}
    assert resident_warps("tqx_norm_device_kernel", counts, H100) == 3 * 8
    assert resident_warps("tqx_rms_norm_device_kernel", counts, H100) == 8 * 8
    assert resident_warps("korvex_multiply", counts, H100) == 2 * 8


def test_segments_of_running_sums_fill_no_more_blocks_than_there_are():
    """256 blocks of 32 segments, on 132 multiprocessors, or 108, or 16."""
    counts = {"registers": 32, "shared": 0}
    assert resident_warps("korvex_sum_segments", counts, H100) == 2 * 8
    assert resident_warps("korvex_sum_segments", counts, A100) == 3 * 8
    few = replace(H100, multiprocessors=16)
    assert resident_warps("korvex_sum_segments", counts, few) == 3 * 8


@pytest.mark.parametrize(
    ("threads", "limit", "cycles"),
    [(0, "issue", 1000 / 128), (32, "latency", 3600 / 128), (16, "latency", 3600 / 64)],
)
def test_threads_that_take_no_part_leave_the_others_to_wait(threads, limit, cycles):
    """All 256 of a block, a warp, half a warp; four blocks at a time."""
    one = {"instructions": 1000, "cycles": 3000, "threads": threads}
    found = of("tqx_cumsum_device_kernel", H100, **one)
    assert found.limit == limit
    assert found.nanoseconds == pytest.approx(cycles / (132 * 1.98))


def test_rates_are_those_that_nvidia_publishes():
    """Trillions of operations in double precision a second, a fused one counted twice."""
    published = {"H100 SXM": 33.5, "A100 SXM 80 GB": 9.7, "RTX 4090": 1.29, "H200": 33.5}
    for device in DEVICES:
        rate = 2 * device.multiprocessors * device.doubles_a_cycle * device.gigahertz / 1e3
        assert rate == pytest.approx(published[device.name], rel=0.01), device.name


def test_devices_are_found_by_the_name_that_the_driver_gives():
    assert device_named("NVIDIA H100 80GB HBM3") is H100
    assert device_named("NVIDIA GeForce RTX 4090") is RTX_4090
    assert device_named("NVIDIA A100-SXM4-80GB") is A100
    assert device_named("NVIDIA T4") is None


# --- What is printed


def test_times_are_written_with_two_digits():
    assert [predict.time_text(x) for x in (0.002594, 0.0104, 0.72, 9.912, 25.69)] == [
        "2.6 ps",
        "10 ps",
        "0.72 ns",
        "9.9 ns",
        "26 ns",
    ]
    assert math.isclose(float(predict.time_text(0.0959).split()[0]), 96)
