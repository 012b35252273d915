# SPDX-License-Identifier: Apache-2.0
"""What each kernel does for an element: the loops of its machine code that go over the elements.

A loop is found by what it does most of, not by its place, which every change of the code moves. A
kernel whose loops are not found is an error that names it.
"""

from dataclasses import dataclass, field
from enum import StrEnum
from pathlib import Path
from typing import Any

from korvex_tools import kernel_table, machine_code
from korvex_tools.control_flow import ControlFlow, Loop, Way, operation


class Threads(StrEnum):
    """Who works on the elements."""

    DEVICE = "all multiprocessors"
    BLOCK = "one block"
    ONE = "one thread"


@dataclass(frozen=True)
class Pass:
    """One loop over all elements, the way the ordinary ones take.

    It is the loop with the most instructions of the name `most` on its ordinary way, among those
    of the functions whose name holds `function`, or of the kernel itself; then the one that loads
    most.
    """

    most: str
    function: str = ""
    # Elements of one time round; 0: as many as doubles are loaded or copied, for each array.
    elements: int = 0
    arrays: int = 1
    is_innermost: bool = False
    # A thread takes a run of its own, so that a warp's addresses lie in 32 different lines.
    is_strided: bool = False
    # Each time round of the loop before brings so many of this one.
    times: int = 1
    # What it loads was loaded by others before, or lies in the memory of the block.
    is_cached: bool = False
    # Of a block, that take part; 0: all.
    threads: int = 0


@dataclass(frozen=True)
class Work:
    threads: Threads
    # An element's, between the memory of the device and the multiprocessors.
    bytes: int
    passes: tuple[Pass, ...] = field(default_factory=tuple)
    unit: str = "an element"
    # A thread takes one element, so what it does before the loop counts for each.
    is_once: bool = False
    # No launch has more; 0: as many as a device holds.
    most_blocks: int = 0


def _elementwise(arrays: int) -> Work:
    return Work(Threads.DEVICE, 8 * arrays, (Pass("STG", elements=1),), is_once=True)


_SUM_OF_RUN = Pass("DADD", "7AddendsEE3runILi2E", is_strided=True)
_SUM_OF_SQUARES_OF_RUN = Pass("DADD", "8ProductsEE3runILi3E", arrays=2, is_strided=True)
_COPY = Pass("LDGSTS", "start_copying")

_CONSTANTS = kernel_table.constants()
_BLOCK = _CONSTANTS["kGridBlock"]
_SUM_TILE = _CONSTANTS["kSumBlockElements"] // _BLOCK
_DOT_TILE = _CONSTANTS["kDotBlockElements"] // _BLOCK
_PRODUCT_WORDS = 6  # kFastProductWords
_SCAN_RUNS = 16  # kRunsOfBlock
_SEGMENT_BLOCKS = 8192 // _CONSTANTS["kBlockSegments"]  # korvex.exact asks for no more segments
_PRODUCTS_OF_ELEMENT = Pass("DADD", "15ElementOfSlices3runILi3E", arrays=2, is_cached=True)

_OF_TABLE = {
    "tqx_sum_seq_kernel": Work(Threads.ONE, 8, (Pass("DADD", "7AddendsEE3runILi2E"), _COPY)),
    "tqx_dot_seq_kernel": Work(
        Threads.ONE, 16, (Pass("DADD", "8ProductsEE3runILi3E", arrays=2), _COPY, _COPY)
    ),
    "tqx_sum_kernel": Work(Threads.DEVICE, 8, (Pass("DADD", elements=_SUM_TILE),)),
    "tqx_dot_kernel": Work(Threads.DEVICE, 16, (Pass("DADD", elements=_DOT_TILE),)),
    # A block of 16 by 16 reads a row's and a column's element once for 16 threads each.
    "tqx_matmul_kernel": Work(
        Threads.DEVICE,
        1,
        (_PRODUCTS_OF_ELEMENT,),
        "a multiply-add",
    ),
    "tqx_var_kernel": Work(Threads.BLOCK, 16, (_SUM_OF_RUN, _SUM_OF_SQUARES_OF_RUN)),
    "tqx_norm_kernel": Work(Threads.BLOCK, 8, (_SUM_OF_SQUARES_OF_RUN,)),
    "tqx_prod_kernel": Work(
        Threads.BLOCK,
        8,
        (
            Pass("DSETP", elements=1, is_strided=True),
            Pass("LDG", elements=1, is_innermost=True, is_strided=True, times=_PRODUCT_WORDS),
        ),
    ),
    "tqx_cumsum_kernel": Work(
        Threads.BLOCK, 32, (_SUM_OF_RUN, Pass("DADD", elements=1, is_strided=True))
    ),
    "tqx_logsumexp_kernel": Work(
        Threads.BLOCK,
        16,
        (
            Pass("DSETP", elements=4, is_strided=True),
            Pass("DADD", elements=1, is_strided=True),
        ),
    ),
    "tqx_rms_norm_kernel": Work(
        Threads.BLOCK, 24, (Pass("DADD", elements=_DOT_TILE), Pass("STG", elements=1))
    ),
    **{f"tqx_{name}_kernel": _elementwise(4) for name in ("add", "sub", "mul", "div")},
    **{
        f"tqx_{name}_kernel": _elementwise(2)
        for name in ("relu", "neg", "exp", "log", "sqrt", "sigmoid", "tanh", "leaky_relu")
    },
}

_TILES_OF_SUM = Pass("DADD", "sum_of_grid", elements=_SUM_TILE)
_TILES_OF_PRODUCTS = Pass("DADD", "products_of_grid", elements=_DOT_TILE)
_TILES_OF_RUN = Pass("DADD", "sum_run", elements=_SUM_TILE)


def _over_device(bytes_: int, *passes: Pass) -> Work:
    return Work(Threads.DEVICE, bytes_, passes)


_ON_WHOLE_DEVICE = {
    "tqx_sum_device_kernel": _over_device(8, _TILES_OF_SUM),
    "tqx_dot_device_kernel": _over_device(16, _TILES_OF_PRODUCTS),
    "tqx_var_device_sum_kernel": _over_device(8, _TILES_OF_SUM),
    "tqx_var_device_kernel": _over_device(8, _TILES_OF_PRODUCTS),
    "tqx_norm_device_kernel": _over_device(8, _TILES_OF_PRODUCTS),
    "tqx_prod_device_kernel": _over_device(
        8,
        Pass("DSETP", elements=1),
        Pass("LDS", elements=1, is_innermost=True, times=_PRODUCT_WORDS, is_cached=True),
    ),
    "tqx_cumsum_device_sum_kernel": _over_device(8, _TILES_OF_RUN),
    "tqx_cumsum_device_kernel": _over_device(
        32, _TILES_OF_RUN, Pass("DADD", elements=1, is_strided=True, threads=_SCAN_RUNS)
    ),
    "tqx_logsumexp_device_largest_kernel": _over_device(8, Pass("DSETP", elements=4)),
    "tqx_logsumexp_device_sum_kernel": _over_device(8, Pass("DADD", elements=1)),
    "tqx_rms_norm_device_root_kernel": _over_device(8, _TILES_OF_PRODUCTS),
    "tqx_rms_norm_device_kernel": _over_device(16, Pass("STG", elements=1)),
}


def _of_segments(bytes_: int, most: str) -> Work:
    """A thread takes a segment of its own, and a block no more than a warp of them."""
    threads = _CONSTANTS["kBlockSegments"]
    one = Pass(most, elements=1, is_strided=True, threads=threads)
    return Work(Threads.DEVICE, bytes_, (one,), most_blocks=_SEGMENT_BLOCKS)


# By the way for the format that takes the most operations, which 64-bit integers are; along axes of
# rows whose elements lie together, and of columns that do.
_OF_STATES = {
    "korvex_add_elements": _over_device(8, Pass("DADD", elements=_SUM_TILE)),
    "korvex_add_products": _over_device(16, Pass("DADD", elements=_DOT_TILE)),
    "korvex_widen": _over_device(16, Pass("STG", elements=1)),
    "korvex_multiply": Work(Threads.DEVICE, 1, (_PRODUCTS_OF_ELEMENT,), "a multiply-add"),
    "korvex_sum_segments": _of_segments(8, "DADD"),
    "korvex_running_sums": _of_segments(16, "DADD"),
    "korvex_add_axes": _over_device(8, Pass("DADD", elements=_SUM_TILE)),
    "korvex_multiply_axes": _over_device(16, Pass("DADD", elements=_DOT_TILE)),
    "korvex_sum_columns": _over_device(8, Pass("DADD", elements=1, is_innermost=True)),
    "korvex_running_axes": _over_device(16, Pass("DADD", elements=1, is_strided=True)),
}

WORK = {**_OF_TABLE, **_ON_WHOLE_DEVICE, **_OF_STATES}

# What they do is not in proportion to elements: their time is that of a launch and a few more
# microseconds, and the model has none for it.
WITHOUT_ELEMENTS = {
    "tqx_logsumexp_device_kernel": "returns at once where the sum before it has decided the result",
    "korvex_settle_state": "one block on the digits of one state",
    "korvex_round_state": "one block on the digits of one state",
    "korvex_join_segments": "one block on at most 8192 segments",
    "korvex_round_states": "a warp on the digits of each state",
    "korvex_add_by_ids": "atomic additions, whose time is that of the busiest segment",
}

_LOADS = ("LD", "LDG", "LDS", "LDGSTS")
_ACCESSES = ("LD", "LDG", "ST", "STG")


def _elements(one: Pass, way: Way) -> int:
    """Of one time round."""
    return one.elements or _loaded(way) // one.arrays


def _loaded(way: Way) -> int:
    """Doubles that it loads or copies."""
    words = [operation(text) for text in way.texts]
    return sum(_doubles(word) for word in words if word.split(".")[0] in _LOADS)


def _doubles(word: str) -> int:
    """That an instruction moves: 2 for LDGSTS.E.BYPASS.128, none for 32 bits."""
    parts = word.split(".")
    return 2 if "128" in parts else 1 if "64" in parts else 0


def _chosen(flow: ControlFlow, kernel: str, one: Pass) -> tuple[Loop, Way]:
    found = [
        (way.count(one.most), _loaded(way), -len(way.texts), loop, way)
        for loop in flow.loops
        if (one.function in loop.function if one.function else loop.function == "")
        and (loop.is_innermost or not one.is_innermost)
        and (way := flow.way_round(loop)) is not None
    ]
    best = max(found, key=lambda each: each[:3], default=None)
    if best is None or best[0] == 0:
        raise ValueError(f"{kernel}: no loop with {one.most} in {one.function or 'the kernel'}")
    return best[3], best[4]


def counts_of(flow: ControlFlow, kernel: str) -> list[dict[str, Any]]:
    """Of each pass of a kernel: what one time round has, and how many elements it takes."""
    work = WORK[kernel]
    found = []
    for one in work.passes:
        loop, way = _chosen(flow, kernel, one)
        before = (flow.way_to(loop) if work.is_once else None) or Way((), 0)
        elements = _elements(one, way)
        if elements == 0:
            raise ValueError(f"{kernel}: the loop with {one.most} loads no element")
        found.append(
            {
                "instructions": len(way.texts) + len(before.texts),
                "doubles": way.doubles,
                "cycles": way.cycles + before.cycles,
                "accesses": way.count(*_ACCESSES) if one.is_strided else 0,
                "elements": elements,
                "times": one.times,
                "is_cached": one.is_cached,
                "threads": one.threads,
            }
        )
    return found


def counts_of_file(cubin: Path) -> dict[str, dict[str, Any]]:
    """Of each kernel of a file: its registers, stack and shared memory, and its passes."""
    resources = machine_code.resources(cubin)
    return {
        name: {**resources[name], "passes": counts_of(ControlFlow(listing), name)}
        for name, listing in machine_code.listings(cubin).items()
        if name in WORK
    }
