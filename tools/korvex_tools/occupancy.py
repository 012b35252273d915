# SPDX-License-Identifier: Apache-2.0
"""What compiled kernels leave room for: a table of registers, stack, and warps side by side.

usage: python -P -m korvex_tools.occupancy KERNEL,... ROW GOLDEN [GOLDEN]

One line for each kernel, from a row of the golden table of korvex_tools.record_machine_code, as in
"sm_90, nvcc 13.0"; from two tables, before and after a change. Blocks and warps are those that a
multiprocessor holds at a time, by registers, shared memory and its own limits (CUDA C++ Programming
Guide, technical limits). All stacks are what a driver reserves for a whole device, one with
132 multiprocessors.
"""

import json
import re
import sys
from pathlib import Path

from korvex_tools.source_tree import SOURCE_TREE

# Of a multiprocessor: warps, blocks, bytes of shared memory.
LIMITS = {90: (64, 32, 228 << 10), 100: (64, 32, 228 << 10)}
REGISTERS = 65536  # of a multiprocessor; a warp gets them in units of 256, on one of 4 partitions
RESERVED_SHARED = 1 << 10  # by the system, in each block; counted with what a kernel takes
MULTIPROCESSORS = 132
WARP = 32


def block_of(kernel: str) -> int:
    """The threads of a block of form "launch", from the table of kernels."""
    text = (SOURCE_TREE / "korvex" / "kernels" / "table.h").read_text()
    constant = re.search(rf'"{kernel}", "launch", (\w+)', text).group(1)
    return int(re.search(rf"unsigned {constant} = (\d+);", text).group(1))


def resident_blocks(taken: dict[str, int], threads: int, architecture: int) -> int:
    most_warps, most_blocks, shared = LIMITS[architecture]
    warps = -(-threads // WARP)
    registers_of_warp = -(-taken["registers"] * WARP // 256) * 256
    warps_by_registers = REGISTERS // 4 // registers_of_warp * 4
    by_shared = shared // max(taken["shared"], RESERVED_SHARED)
    return min(min(most_warps, warps_by_registers) // warps, most_blocks, by_shared)


def cells(golden: str, row: str, kernel: str) -> list[str]:
    taken = json.loads(Path(golden).read_text())[row][kernel]
    architecture, threads = int(re.search(r"sm_(\d+)", row).group(1)), block_of(kernel)
    blocks = resident_blocks(taken, threads, architecture)
    stacks = taken["stack"] * LIMITS[architecture][0] * WARP * MULTIPROCESSORS
    numbers = (
        taken["registers"],
        taken["stack"],
        taken["shared"],
        blocks,
        blocks * threads // WARP,
    )
    return [*map(str, numbers), f"{stacks / 1e6:.0f} MB"]


def main(kernels: str, row: str, *golden: str) -> int:
    heads = ["kernel", "registers", "stack", "shared", "blocks", "warps", "all stacks"]
    print("| " + " | ".join(heads) + " |\n|---|" + "---:|" * (len(heads) - 1))
    for kernel in kernels.split(","):
        tables = [cells(table, row, kernel) for table in golden]
        joined = [" to ".join(dict.fromkeys(values)) for values in zip(*tables, strict=True)]
        print("| " + " | ".join([f"`{kernel}`", *joined]) + " |")
    return 0


if __name__ == "__main__":
    if len(sys.argv) not in (4, 5):
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
