# SPDX-License-Identifier: Apache-2.0
"""What does `korvex sum` cost beside the libraries that read the same files?

Files of each format with four columns, written to a temporary folder and read from the page cache:
by pyarrow or NumPy alone, by the readers of the command, and by all that `korvex sum` does with a
file, the exact sums and the float sums beside them. Each sum is compared before anything is timed.
"""

import os
import tempfile
from collections.abc import Callable
from pathlib import Path
from typing import Any

import numpy as np
import pyarrow
import pyarrow.csv
import pyarrow.parquet

from korvex import exact
from korvex.command import _sum
from korvex.readers import ReadOptions, open_table
from korvex_tools.figures.command import cut_short, host_parser, record
from korvex_tools.figures.timing import measure, nanoseconds, print_table, print_targets

SEED = 20261122
COLUMNS = 4
TIMES_OF_PYARROW = 2.0  # at most, for CSV

Candidates = dict[str, Callable[[], Any]]


def write_files(folder: Path, values: np.ndarray) -> pyarrow.Table:
    table = pyarrow.table({f"c{n}": column for n, column in enumerate(values)})
    pyarrow.csv.write_csv(table, folder / "values.csv")
    pyarrow.parquet.write_table(table, folder / "values.parquet")
    np.save(folder / "values.npy", values)
    return table


def batches_of_csv(path: str) -> None:
    with pyarrow.csv.open_csv(path) as batches:
        for _ in batches:
            pass


def read(path: str) -> None:
    with open_table(path) as table:
        for _ in table.chunks():
            pass


def sums(path: str) -> list[str]:
    """What `korvex sum` does before it prints."""
    found = _sum._sum_file(path, [None], ReadOptions()).results
    return [result.figures.total.checksum() for result in found]


def parts(folder: Path) -> dict[str, Candidates]:
    csv, parquet, npy = (str(folder / f"values.{form}") for form in ("csv", "parquet", "npy"))
    return {
        "CSV": {
            "pyarrow.csv.read_csv": lambda: pyarrow.csv.read_csv(csv),
            "pyarrow.csv.open_csv": lambda: batches_of_csv(csv),
            "CSV: korvex.readers": lambda: read(csv),
            "CSV: korvex sum": lambda: sums(csv),
        },
        "Parquet": {
            "pyarrow.parquet.read_table": lambda: pyarrow.parquet.read_table(parquet),
            "Parquet: korvex.readers": lambda: read(parquet),
            "Parquet: korvex sum": lambda: sums(parquet),
        },
        "NPY": {
            "numpy.load": lambda: np.load(npy),
            "NPY: korvex.readers": lambda: read(npy),
            "NPY: korvex sum": lambda: sums(npy),
        },
    }


def check_results(folder: Path, values: np.ndarray) -> None:
    expected = [exact.Sum.from_chunks([column]).checksum() for column in values]
    for form in ("csv", "parquet"):
        if sums(str(folder / f"values.{form}")) != expected:
            raise AssertionError(f"{form}: another sum")
    if sums(str(folder / "values.npy")) != [exact.Sum.from_chunks([values]).checksum()]:
        raise AssertionError("npy: another sum")


def time_part(name: str, candidates: Candidates, count: int, repeats: int) -> dict[str, Any]:
    timings = measure(candidates, repeats)
    results = [
        {
            "candidate": label,
            "ns_per_value": nanoseconds(timing.median, count),
            "ns_per_value_processor": nanoseconds(timing.processor_median, count),
        }
        for label, timing in timings.items()
    ]
    print_table(
        f"{name}, {count} values, median of {repeats}, ns per value",
        ["candidate", "on the clock", "processor"],
        [[label, *(f"{t:.2f}" for t in times)] for label, *times in (r.values() for r in results)],
    )
    return {"data": name, "results": results, "targets": []}


def judge(part: dict[str, Any]) -> None:
    """CSV beside the faster of pyarrow's two ways, on the clock and in processor time."""
    times = {row["candidate"]: row for row in part["results"]}
    ways = [times["pyarrow.csv.read_csv"], times["pyarrow.csv.open_csv"]]
    for key, words in (("ns_per_value", "clock"), ("ns_per_value_processor", "processor")):
        ratio = times["CSV: korvex sum"][key] / min(way[key] for way in ways)
        part["targets"].append(
            {
                "candidate": f"korvex sum, beside pyarrow.csv, {words}",
                "times_at_most": TIMES_OF_PYARROW,
                "times": round(ratio, 3),
                "met": ratio <= TIMES_OF_PYARROW,
            }
        )


def main() -> None:
    parser = host_parser(__doc__, 1_000_000, "values in each file", 7)
    options = parser.parse_args()
    cut_short(options, n=40_000, repeats=2)
    values = np.random.default_rng(SEED).standard_normal((COLUMNS, options.n // COLUMNS))
    runs = []
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        write_files(folder, values)
        check_results(folder, values)
        for part_name, candidates in parts(folder).items():
            runs.append(time_part(part_name, candidates, values.size, options.repeats))
    judge(runs[0])
    print_targets(runs[0]["targets"])
    settings = {
        "n": values.size,
        "repeats": options.repeats,
        "columns": COLUMNS,
        "threads": len(os.sched_getaffinity(0)),
        "pyarrow": pyarrow.__version__,
    }
    record("bench_command", options, settings, runs=runs)


if __name__ == "__main__":
    main()
