# SPDX-License-Identifier: Apache-2.0
"""How long a kernel takes on a GPU for an element: a model, to be proved wrong by measurements.

For each pass over the elements, five times are worked out from counts of the machine code and
published figures, and the longest of them is taken; passes follow each other. The five: bytes by
the memory's speed, instructions by the issue of four warps a cycle, double-precision operations by
their rate, the wait for memory and for results spread over the warps that fit, and look-ups of
lines where a warp's addresses lie apart. One thread waits for everything, so there the scheduler's
cycles are the time.
"""

import math
from dataclasses import dataclass
from typing import Any

from korvex_tools import kernel_table
from korvex_tools.gpu.devices import Device
from korvex_tools.gpu.work import WORK, Threads
from korvex_tools.machine_code import WARP, least_cycles

SCHEDULERS = 4  # of a multiprocessor; each issues one instruction of a warp in a cycle

# Guesses, which no published figure gives.
SHARE_OF_BANDWIDTH = 0.92  # that a copy reaches
CYCLES_TO_MEMORY = 600  # until a loaded value is there
CYCLES_TO_CACHE = 270  # the same out of the second cache
BYTES_A_CYCLE = 64  # that reach one multiprocessor from the second cache
LOOKUPS_A_CYCLE = 1  # of lines in a multiprocessor's own cache

# How far a measured time may be from the predicted one, as factors.
TOLERANCE = {Threads.DEVICE: (0.7, 1.3), Threads.BLOCK: (0.5, 2.0), Threads.ONE: (0.7, 1.3)}

_MATRIX_BLOCK = 16 * 16


@dataclass(frozen=True)
class Prediction:
    nanoseconds: float  # an element
    limit: str
    warps: int  # at a time on a multiprocessor that works

    def as_record(self) -> dict[str, Any]:
        digits = 4 - math.ceil(math.log10(self.nanoseconds))
        return {
            "nanoseconds": round(self.nanoseconds, digits),
            "limit": self.limit,
            "warps": self.warps,
        }


def _rounded_up(number: int, unit: int) -> int:
    return -(-number // unit) * unit


def threads_of_block(kernel: str) -> int:
    """In the launches of the package."""
    row = kernel_table.rows().get(kernel)
    return row.block or _MATRIX_BLOCK if row else kernel_table.constants()["kGridBlock"]


def _blocks_per_multiprocessor(kernel: str) -> int:
    row = kernel_table.rows().get(kernel)
    if row:
        return row.blocks_per_multiprocessor
    return kernel_table.blocks_per_multiprocessor()[kernel]


def resident_warps(kernel: str, counts: dict[str, Any], device: Device) -> int:
    """Warps of a kernel that a multiprocessor holds, of as many blocks as its launches have."""
    threads = WORK[kernel].threads
    if threads is Threads.ONE:
        return 1
    block = threads_of_block(kernel)
    warps = block // WARP
    if threads is Threads.BLOCK:
        return warps
    whole = device.multiprocessor
    # Registers are given to warps in units of 256, out of a quarter for each scheduler; a block's
    # shared memory in units of 128 bytes, with 1 KiB that the system takes.
    of_warp = _rounded_up(counts["registers"] * WARP, 256)
    by_registers = whole.registers // SCHEDULERS // of_warp * SCHEDULERS // warps
    by_memory = whole.shared_bytes // _rounded_up(counts["shared"] + 1024, 128)
    blocks = min(by_registers, by_memory, whole.threads // block, whole.blocks)
    of_launch = _blocks_per_multiprocessor(kernel) or blocks
    if most := WORK[kernel].most_blocks:
        of_launch = min(of_launch, -(-most // device.multiprocessors))  # where there are most
    return warps * min(blocks, of_launch)


def predict(kernel: str, counts: dict[str, Any], device: Device) -> Prediction:
    warps = resident_warps(kernel, counts, device)
    work = WORK[kernel]
    total, limits = 0.0, {}
    for one in counts["passes"]:
        if work.threads is Threads.ONE:
            times = {"one thread": _cycles_of_one(one, device) / device.gigahertz}
        else:
            times = _times(one, warps, device, kernel)
        limit = max(times, key=lambda name: times[name])
        limits[limit] = limits.get(limit, 0.0) + times[limit]
        total += times[limit]
    memory = _memory_time(work.bytes, device, work.threads)
    if memory > total:
        return Prediction(memory, "memory", warps)
    return Prediction(total, max(limits, key=lambda name: limits[name]), warps)


def _cycles_of_one(one: dict[str, Any], device: Device) -> float:
    cycles = least_cycles(one["cycles"], one["doubles"], device.architecture)
    return cycles * one["times"] / one["elements"]


def _times(one: dict[str, Any], warps: int, device: Device, kernel: str) -> dict[str, float]:
    """Nanoseconds that an element needs for each of these, if nothing else were to wait for."""
    wait = CYCLES_TO_CACHE if one["is_cached"] else CYCLES_TO_MEMORY
    block = threads_of_block(kernel)
    working = one["threads"] or block
    lanes = min(WARP, working)  # of a warp that works; the others pass the time
    cycles = {
        "issue": one["instructions"] / (SCHEDULERS * lanes),
        "double precision": one["doubles"] / device.doubles_a_cycle * WARP / lanes,
        "latency": (one["cycles"] + wait) / (warps * WARP * working / block),
        "look-ups": one["accesses"] / LOOKUPS_A_CYCLE,
    }
    threads = WORK[kernel].threads
    multiprocessors = device.multiprocessors if threads is Threads.DEVICE else 1
    scale = one["times"] / (one["elements"] * multiprocessors * device.gigahertz)
    return {name: number * scale for name, number in cycles.items()}


def _memory_time(count: int, device: Device, threads: Threads) -> float:
    whole = count / (device.gigabytes_per_second * SHARE_OF_BANDWIDTH)
    if threads is Threads.DEVICE:
        return whole
    return max(whole, count / (BYTES_A_CYCLE * device.gigahertz))
