# SPDX-License-Identifier: Apache-2.0
"""Faults in the device code that the simulated grid must notice, each in a kernel of its own.

usage: grid_faults.py plant FOLDER           write the device code with all faults below FOLDER
       grid_faults.py check PROGRAM ARGUMENT...   run the program made from it, kernel by kernel

A fault that is not planted in exactly one place is an error. Two of them undo mendings: var and
norm once read pairs of doubles from runs that start anywhere, and rms_norm once let parts of a warp
vote. In this code every element takes its last try (last_tries.py), where threads take turns.
"""

import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import NamedTuple

import last_tries

SOURCE_TREE = Path(__file__).resolve().parents[2]
DEVICE = Path("korvex/kernels/device")


class Fault(NamedTuple):
    what: str
    kernel: str
    file: str
    text: str
    instead: str
    noticed_by: str  # a regular expression for a part of what the program says


FAULTS = (
    Fault(
        "pairs of doubles are read from a run that starts anywhere",
        "tqx_var_kernel",
        "reductions.cuh",
        "part.add_elements<arithmetic::ScalarLanes>",
        "part.add_elements<kernels::DeviceLanes>",
        "misaligned address",
    ),
    Fault(
        "the same for the squares of a norm",
        "tqx_norm_kernel",
        "reductions.cuh",
        "arithmetic::add_products<arithmetic::ScalarLanes>",
        "arithmetic::add_products<kernels::DeviceLanes>",
        "misaligned address",
    ),
    Fault(
        "a part of a warp votes",
        "tqx_rms_norm_kernel",
        "rms_norm.cuh",
        "if (thread.warp() < thread.warps()) {",
        "if (thread.warps() > 0) {",
        "wrong mask: it names lanes that do not exist",
    ),
    Fault(
        "no barrier before the segments are scanned",
        "tqx_cumsum_kernel",
        "reductions.cuh",
        "runner.index() < count;\n    runner.sync();",
        "runner.index() < count;",
        "result differs|not a valid value",
    ),
    Fault(
        "a vote without lane 31",
        "tqx_sum_kernel",
        "warp_sum.h",
        "if (thread_.any(!stayed || arithmetic::has_rest(lost))) {",
        # Not of the threads of states, which have a member more: their kernels have other faults.
        "if (__any_sync(sizeof(Thread) > 2 * sizeof(int) ? 0xffffffff : 0x7fffffff,\n"
        "               !stayed || arithmetic::has_rest(lost))) {",
        "wrong mask: it does not name the lane that calls",
    ),
    Fault(
        "the count of blocks is left for the next launch",
        "tqx_dot_kernel",
        "parallel_sum.h",
        "    thread.take_from_grid(grid.arrived);\n",
        "    if (sizeof(Sum) != sizeof(arithmetic::ExactProductSum)) {\n"
        "      thread.take_from_grid(grid.arrived);\n    }\n",
        "left behind: dot_grid_memory is not zero",
    ),
    Fault(
        "a wait that leaves one group of copies more",
        "tqx_sum_seq_kernel",
        "staged_sum.cuh",
        "wait_for_copies_before_the_latest<1>()",
        "wait_for_copies_before_the_latest<2>()",
        "use-after-poison",
    ),
    Fault(
        "one element too many at the end of a piece",
        "tqx_dot_seq_kernel",
        "dot.cuh",
        "chunks.add({pieces[slot].x, pieces[slot].y}, count);",
        "chunks.add({pieces[slot].x, pieces[slot].y}, count + 1);",
        "result differs|use-after-poison",
    ),
    Fault(
        "one element too many at the end of the array",
        "tqx_neg_kernel",
        "unary.cuh",
        "map_by_grid(x, out, n, kernels::Unary<arithmetic::negated>())",
        "map_by_grid(x, out, n + 1, kernels::Unary<arithmetic::negated>())",
        "use-after-poison",
    ),
    Fault(
        "one column too many",
        "tqx_matmul_kernel",
        "matrix_product.cuh",
        "factors{a, b, M, N, K}",
        "factors{a, b, M, N + 1, K}",
        "use-after-poison|result differs",
    ),
    Fault(
        "memory of the block for fewer threads than there are",
        "tqx_mul_kernel",
        "pairs.cuh",
        "  korvex::kernels::pairs_by_grid<korvex::arithmetic::multiply_pair>(",
        "  __shared__ double few[32];\n  double* const own = few + threadIdx.x;\n  *own = 1.0;\n"
        "  korvex::kernels::pairs_by_grid<korvex::arithmetic::multiply_pair>(",
        "global-buffer-overflow|insufficient space",
    ),
    Fault(
        "a barrier that a part of the block reaches",
        "tqx_add_kernel",
        "pairs.cuh",
        "  korvex::kernels::pairs_by_grid<korvex::arithmetic::add_pair>(",
        "  if (threadIdx.x % 2 == 0) {\n    __syncthreads();\n  }\n"
        "  korvex::kernels::pairs_by_grid<korvex::arithmetic::add_pair>(",
        "barrier divergence",
    ),
    Fault(
        "a kernel that does not end",
        "tqx_exp_kernel",
        "unary.cuh",
        "  kernels::map_by_grid(x, out, n, kernels::Unary<arithmetic::exponential>())",
        "  for (volatile bool for_ever = true; for_ever;) {\n  }\n"
        "  kernels::map_by_grid(x, out, n, kernels::Unary<arithmetic::exponential>())",
        "too many steps",
    ),
    Fault(
        "a result beyond the end of its array",
        "tqx_logsumexp_kernel",
        "reductions.cuh",
        "out[0] = result;",
        "out[1] = result;",
        "use-after-poison",
    ),
    Fault(
        "the last block of the grid takes itself for the last to arrive",
        "tqx_prod_device_kernel",
        "grid_parts.cuh",
        "if (!arrives_last(thread, is_last, arrived)) {",
        # Not of the other parts: their kernels have another fault, or none.
        "if (sizeof(Part) == sizeof(arithmetic::FastProduct)\n"
        "          ? !(is_last = thread.block() == thread.blocks() - 1)\n"
        "          : !arrives_last(thread, is_last, arrived)) {",
        "result differs|buffer-overflow|out of bounds|too many steps",
    ),
    Fault(
        "the last try of the last block leaves out an element",
        "tqx_logsumexp_device_kernel",
        "whole_log_sum.cuh",
        "kernels::BlockRunner(x, n), kernels::log_sum_so_far.largest, n)",
        "kernels::BlockRunner(x, n - 1), kernels::log_sum_so_far.largest, n)",
        "result differs",
    ),
    Fault(
        "two threads use the memory of a last try at a time",
        "tqx_sigmoid_kernel",
        "unary.cuh",
        "if (turn == thread.index() && i < n) {",
        "if ((First == arithmetic::first_sigmoid ? turn / 2 == thread.index() / 2\n"
        "                                            : turn == thread.index()) &&\n"
        "          i < n) {",
        "result differs|too many steps",
    ),
    Fault(
        "a thread that has had its turn does not wait for the others",
        "tqx_tanh_kernel",
        "unary.cuh",
        "      thread.sync_block();\n    }\n",
        "      if (First != arithmetic::first_tanh || turn <= thread.index()) {\n"
        "        thread.sync_block();\n      }\n    }\n",
        "barrier divergence",
    ),
    Fault(
        "operands change places",
        "tqx_sub_kernel",
        "pairs.cuh",
        "pairs_by_grid<korvex::arithmetic::subtract_pair>(x, y,",
        "pairs_by_grid<korvex::arithmetic::subtract_pair>(y, x,",
        "result differs",
    ),
    Fault(
        "the digits of a block are added without an atomic operation",
        "korvex_add_elements",
        "state_sums.h",
        "      thread.add_to_grid(state.digits[i], with_sign(own, state.sign));\n",
        "      if (sizeof(Sum) == sizeof(arithmetic::ExactSum)) {\n"
        "        const std::int64_t before = state.digits[i];\n"
        "        thread.fence();\n"
        "        state.digits[i] = before + with_sign(own, state.sign);\n"
        "      } else {\n"
        "        thread.add_to_grid(state.digits[i], with_sign(own, state.sign));\n      }\n",
        "result differs",
    ),
    Fault(
        "one pass less over products of two wide integers",
        "korvex_add_products",
        "state_sums.h",
        "pass < x_halves * y_halves; ++pass",
        "pass < (x_halves * y_halves == 4 ? 3 : x_halves * y_halves); ++pass",
        "result differs",
    ),
    Fault(
        "no barrier before the settled words are stored",
        "korvex_settle_state",
        "state_sums.h",
        "  thread.sync_block();\n"
        "  for (int i = thread.index(); i < count; i += thread.threads()) {\n"
        "    words[i] = block.words[i];",
        "  for (int i = thread.index(); i < count; i += thread.threads()) {\n"
        "    words[i] = block.words[i];",
        "result differs",
    ),
    Fault(
        "a float32 is rounded as a bfloat16",
        "korvex_round_state",
        "state_results.h",
        "format == kBfloat16Format ? kBrain : kSingle;",
        "format == kBfloat16Format ? kSingle : kBrain;",
        "result differs",
    ),
    Fault(
        "one thread does not wait before the next tile",
        "korvex_multiply",
        "state_products.h",
        "    thread.sync_block();  // before the next tile takes",
        "    if (thread.index() != 0) {\n      thread.sync_block();\n    }  //",
        "barrier divergence",
    ),
    Fault(
        "no barrier before the sums of other runs are read",
        "korvex_join_segments",
        "state_segments.h",
        "    thread.sync_block();\n    if (has_more) {\n      arithmetic::ExactSum& next",
        "    if (has_more) {\n      arithmetic::ExactSum& next",
        "result differs",
    ),
)


def plant(folder: Path) -> int:
    last_tries.plant(folder)
    (folder / DEVICE).mkdir(parents=True, exist_ok=True)
    for source in sorted((SOURCE_TREE / DEVICE).iterdir()):
        if source.suffix not in (".h", ".cuh", ".cu"):
            continue
        text = source.read_text()
        for fault in FAULTS:
            if fault.file == source.name:
                if text.count(fault.text) != 1:
                    print(f"{fault.what}: found {text.count(fault.text)} times in {source.name}")
                    return 1
                text = text.replace(fault.text, fault.instead)
        (folder / DEVICE / source.name).write_text(text)
    return 0


def is_noticed(fault: Fault, command: list[str]) -> bool:
    done = subprocess.run(
        [*command, "--kernel", fault.kernel], capture_output=True, text=True, check=False
    )
    said = done.stdout + done.stderr
    noticed = (
        done.returncode == 1
        and f"FAILED {fault.kernel} " in said
        and re.search(fault.noticed_by, said) is not None
    )
    print(f"{'noticed' if noticed else 'NOT NOTICED'}: {fault.what} ({fault.kernel})", flush=True)
    if not noticed:
        print(said)
    return noticed


def check(command: list[str]) -> int:
    with ThreadPoolExecutor(2) as pool:
        noticed = sum(pool.map(lambda fault: is_noticed(fault, command), FAULTS))
    print(f"Simulated grid: {len(FAULTS)} faults planted and {noticed} noticed")
    return 0 if noticed == len(FAULTS) else 1


if __name__ == "__main__":
    if len(sys.argv) < 3 or sys.argv[1] not in ("plant", "check"):
        sys.exit(__doc__)
    sys.exit(plant(Path(sys.argv[2])) if sys.argv[1] == "plant" else check(sys.argv[2:]))
