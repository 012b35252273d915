# SPDX-License-Identifier: Apache-2.0
"""What do exact sums by segment cost, beside the rounded ones of torch and NumPy?

`exact.segment_sum` on one thread, beside `torch.index_add_`, the same in torch's deterministic
mode, `numpy.add.at` and `numpy.bincount`: random and sorted segment numbers, rows of several
columns, and values over so many binades that two float64 a segment do not hold them. Some segments
are compared with `exact.sum` of their elements, which has tests against rational numbers, before
anything is timed. Also the memory that a call holds.
"""

import argparse
import os
from collections.abc import Callable
from typing import Any

os.environ["OPENBLAS_NUM_THREADS"] = "1"

import numpy as np
import torch

from korvex import exact
from korvex.emulation._library import best_instruction_set
from korvex_tools.figures.command import cut_short, host_parser, record
from korvex_tools.figures.memory import held_by
from korvex_tools.figures.timing import print_targets, time_part, times_target

SEED = 20261122
SEGMENTS = (1_000, 100_000, 1_000_000)
COLUMNS = 8
TIMES_AT_MOST = 4.0  # of torch.index_add_
JUDGED_FROM = 10_000_000  # elements: below, the memory of the segments counts for more
CHECKED = 20  # segments

Candidates = dict[str, Callable[[], Any]]


def in_torch(x: np.ndarray, ids: np.ndarray, segments: int) -> Callable[[], torch.Tensor]:
    rows, numbers = torch.from_numpy(x), torch.from_numpy(ids)
    return lambda: torch.zeros(segments, *rows.shape[1:], dtype=rows.dtype).index_add_(
        0, numbers, rows
    )


def deterministic(call: Callable[[], Any]) -> Callable[[], Any]:
    def in_that_mode() -> Any:
        torch.use_deterministic_algorithms(True)
        try:
            return call()
        finally:
            torch.use_deterministic_algorithms(False)

    return in_that_mode


def added_at(x: np.ndarray, ids: np.ndarray, segments: int) -> np.ndarray:
    sums = np.zeros((segments, *x.shape[1:]), x.dtype)
    np.add.at(sums, ids, x)
    return sums


def candidates(x: np.ndarray, ids: np.ndarray, segments: int) -> Candidates:
    plain = in_torch(x, ids, segments)
    found: Candidates = {
        "exact.segment_sum": lambda: exact.segment_sum(x, ids, segments),
        "torch.index_add_": plain,
        "torch.index_add_, deterministic mode": deterministic(plain),
        "numpy.add.at": lambda: added_at(x, ids, segments),
    }
    if x.ndim == 1:
        found["numpy.bincount"] = lambda: np.bincount(ids, weights=x, minlength=segments)
    return found


def check_results(x: np.ndarray, ids: np.ndarray, segments: int) -> None:
    sums = exact.segment_sum(x, ids, segments)
    rows = x.reshape(len(x), -1)
    for number in np.linspace(0, segments - 1, CHECKED).astype(np.int64):
        wanted = [exact.sum(column.copy()) for column in rows[ids == number].T]
        assert sums[number].reshape(-1).tolist() == [float(each) for each in wanted], number


def inputs(n: int) -> dict[str, tuple[np.ndarray, np.ndarray, int]]:
    """By what they are: elements, their segments' numbers, and how many segments there are."""
    generator = np.random.default_rng(SEED)
    x = generator.standard_normal(n)
    found = {}
    for segments in SEGMENTS:
        ids = generator.integers(0, segments, n)
        found[f"{segments:,} segments"] = (x, ids, segments)
    ids = found["100,000 segments"][1]
    found["100,000 segments, sorted"] = (x, np.sort(ids), 100_000)
    rows = n // COLUMNS
    matrix = x[: rows * COLUMNS].reshape(rows, COLUMNS)
    found[f"100,000 segments, rows of {COLUMNS}"] = (matrix, ids[:rows].copy(), 100_000)
    wide = x * 2.0 ** generator.uniform(-300, 300, n)
    found["1,000 segments, over 600 binades"] = (wide, generator.integers(0, 1000, n), 1000)
    return found


def time_segments(
    name: str, x: np.ndarray, ids: np.ndarray, segments: int, options: argparse.Namespace
) -> dict[str, Any]:
    check_results(x, ids, segments)
    part = time_part(name, candidates(x, ids, segments), x.size, options.repeats)
    held = held_by(lambda: exact.segment_sum(x, ids, segments))
    part["results"][0]["kilobytes_held"] = held // 1000
    if "binades" not in name and options.n >= JUDGED_FROM:
        judge(part)
    return part


def judge(part: dict[str, Any]) -> None:
    times = {row["candidate"]: row["ns_per_element_processor"] for row in part["results"]}
    target = times_target(times, "exact.segment_sum", "torch.index_add_", TIMES_AT_MOST)
    part["targets"].append(target)
    print_targets(part["targets"])


def main() -> None:
    parser = host_parser(__doc__, 10_000_000, "elements", 7)
    options = parser.parse_args()
    cut_short(options, n=200_000, repeats=3)
    torch.set_num_threads(1)
    exact.set_threads(1)
    parts = [time_segments(name, *given, options) for name, given in inputs(options.n).items()]
    settings = {
        "n": options.n,
        "repeats": options.repeats,
        "seed": SEED,
        "threads": [1],
        "instruction_set": best_instruction_set(),
    }
    record("bench_exact_segments", options, settings, runs=parts)


if __name__ == "__main__":
    main()
