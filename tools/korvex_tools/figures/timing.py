# SPDX-License-Identifier: Apache-2.0
"""What all benchmarks share: fair timing, a table for the reader, targets.

Candidates run in turns, so that a change of the machine's mood falls on all of them, and are
compared by their medians within one run. Smallest and largest times are kept: they show the noise.
"""

import statistics
import time
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any


@dataclass(frozen=True)
class Timing:
    """Seconds that one call took, over all rounds: on the clock, and of processor time.

    Processor time counts all threads of this process and leaves out the turns of other processes,
    so on a busy machine it is the fairer measure of one thread.
    """

    median: float
    least: float
    most: float
    processor_median: float
    processor_least: float

    @classmethod
    def of(cls, rounds: list[tuple[float, float]]) -> "Timing":
        clock, processor = zip(*rounds, strict=True)
        return cls(
            statistics.median(clock),
            min(clock),
            max(clock),
            statistics.median(processor),
            min(processor),
        )


def measure(candidates: dict[str, Callable[[], Any]], repeats: int) -> dict[str, Timing]:
    """Times every candidate `repeats` times, in turns, after one untimed round."""
    rounds: dict[str, list[tuple[float, float]]] = {name: [] for name in candidates}
    for call in candidates.values():
        call()
    for _ in range(repeats):
        for name, call in candidates.items():
            begin, processor_begin = time.perf_counter(), time.process_time()
            call()
            processor_end, end = time.process_time(), time.perf_counter()
            rounds[name].append((end - begin, processor_end - processor_begin))
    return {name: Timing.of(taken) for name, taken in rounds.items()}


def nanoseconds(seconds: float, count: int) -> float:
    """Of one of so many elements, as a record keeps it."""
    return round(seconds / count * 1e9, 4)


def threads_text(threads: int) -> str:
    return "1 thread" if threads == 1 else f"{threads} threads"


def print_table(title: str, columns: list[str], rows: list[list[str]]) -> None:
    """The first column to the left, the others to the right."""
    widths = [max(map(len, cells)) for cells in zip(columns, *rows, strict=True)]
    print(f"\n{title}")
    for cells in [columns, ["-" * width for width in widths], *rows]:
        first = cells[0].ljust(widths[0])
        others = [cell.rjust(width) for cell, width in zip(cells[1:], widths[1:], strict=True)]
        print("  ".join([first, *others]), flush=True)


def time_part(
    name: str, candidates: dict[str, Callable[[], Any]], count: int, repeats: int
) -> dict[str, Any]:
    """A part of a record: all candidates on the same elements, printed as a table."""
    timings = measure(candidates, repeats)
    results = [
        {
            "candidate": label,
            "ns_per_element": nanoseconds(timing.median, count),
            "ns_per_element_least": nanoseconds(timing.least, count),
            "ns_per_element_processor": nanoseconds(timing.processor_median, count),
        }
        for label, timing in timings.items()
    ]
    print_table(
        f"{name}, n = {count}, median of {repeats}, ns per element",
        ["candidate", "median", "least", "processor"],
        [[label, *(f"{t:.3f}" for t in times)] for label, *times in (r.values() for r in results)],
    )
    return {"data": name, "results": results, "targets": []}


# --- Targets


def times_target(times: dict[str, float], ours: str, other: str, most: float) -> dict[str, Any]:
    """How many times the time of another candidate ours may take."""
    ratio = times[ours] / times[other]
    return {
        "candidate": f"{ours}, beside {other}",
        "times_at_most": most,
        "times": round(ratio, 3),
        "met": ratio <= most,
    }


TIMES_ON_TWO_THREADS = 1.7  # as fast as on one, at least, for the parallel kernels


def threads_target(
    candidate: str, one: float, many: float, least: float = TIMES_ON_TWO_THREADS
) -> dict[str, Any]:
    """What the second thread gains, from the least times on one thread and on two.

    Only rounds in which the system left both processors to us show what splitting costs.
    """
    times = round(one / many, 2)
    return {
        "candidate": candidate,
        "times_on_two_threads_at_least": least,
        "times_on_two_threads": times,
        "met": times >= least,
    }


def print_targets(targets: list[dict[str, Any]]) -> None:
    """One line for each: the candidate, what it was to reach, and whether it did."""
    words = {
        "times_faster_at_least": "at least {:g} times faster than math.fsum",
        "ns_at_most": "at most {:g} ns",
        "times_without_at_most": "at most {:g} times the time with a finite one",
        "times_on_two_threads_at_least": "two threads: at least {:g} times",
        "times_at_most": "at most {:g} times its time",
        "times_of_slices_at_least": "at least {:g} times faster than by slices",
        "ms_at_most": "at most {:g} ms",
        "megabytes_at_most": "at most {:g} MB beside the operands",
    }
    for target in targets:
        [aim] = [text.format(target[key]) for key, text in words.items() if key in target]
        print(f"target: {target['candidate']}, {aim}: {'met' if target['met'] else 'NOT MET'}")
