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
    # What it loads was loaded by others before, so it comes from a cache.
    is_cached: bool = False


@dataclass(frozen=True)
class Work:
    threads: Threads
    # An element's, between the memory of the device and the multiprocessors.
    bytes: int
    passes: tuple[Pass, ...] = field(default_factory=tuple)
    unit: str = "an element"
    # A thread takes one element, so what it does before the loop counts for each.
    is_once: bool = False


def _elementwise(arrays: int) -> Work:
    return Work(Threads.DEVICE, 8 * arrays, (Pass("STG", elements=1),), is_once=True)


_SUM_OF_RUN = Pass("DADD", "7AddendsEE3runILi2E", is_strided=True)
_SUM_OF_SQUARES_OF_RUN = Pass("DADD", "8ProductsEE3runILi3E", arrays=2, is_strided=True)
_COPY = Pass("LDGSTS", "start_copying")

_BLOCK = kernel_table.constants()["kGridBlock"]
_SUM_TILE = kernel_table.constants()["kSumBlockElements"] // _BLOCK
_DOT_TILE = kernel_table.constants()["kDotBlockElements"] // _BLOCK
_PRODUCT_WORDS = 6  # kFastProductWords

WORK = {
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
        (Pass("DADD", "15ElementOfSlices3runILi3E", arrays=2, is_cached=True),),
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
            }
        )
    return found


def counts_of_file(cubin: Path) -> dict[str, dict[str, Any]]:
    """Of each kernel of a file: its registers, stack and shared memory, and its passes."""
    resources = machine_code.resources(cubin)
    listings = machine_code.listings(cubin)
    return {
        name: {**resources[name], "passes": counts_of(ControlFlow(listings[name]), name)}
        for name in WORK
    }
