# SPDX-License-Identifier: Apache-2.0
"""`korvex sum`: exact sums of files, and float sums beside them."""

from __future__ import annotations

import argparse
import importlib.metadata
import json
import math
from typing import Any, NamedTuple

from korvex import exact
from korvex.command._codes import DIFFERENT, DONE, UNUSABLE, Stop
from korvex.command._figures import (
    Figures,
    decimal_of_ratio,
    decimal_text,
    distance_text,
    nearest_float,
    ulps_off,
)
from korvex.command._float_sums import BLOCK, FloatSums
from korvex.command._output import Output, error_line, progress_of_file, write_whole_text, written
from korvex.readers import InputError, MissingPackage, ReadOptions, grouped, open_table, source_of

_FIFTH_LIMB = "Four limbs do not hold this sum: the fourth is rounded. The exact sum is whole."
_BEYOND_RANGE = "The sum is beyond the range of float64: the decimals hold it, one float cannot."
_NO_FINITE_SUM = (
    "A value was infinite or NaN, so there is no exact sum; float64 addition gives the same."
)


class Result(NamedTuple):
    """One column of a file."""

    source: str
    path: str
    column: str | None
    figures: Figures


class FileResult(NamedTuple):
    """All columns that were taken of a file."""

    results: list[Result]
    passed_over: tuple[str, ...]


def run(options: argparse.Namespace) -> int:
    wanted = grouped(map(source_of, options.files))
    form = ReadOptions(options.format, options.header, tuple(options.missing))
    output = None if options.json else Output()
    found: list[Result] = []
    errors: list[tuple[str, str]] = []
    for path, columns in wanted.items():
        try:
            file = _sum_file(path, columns, form)
        except MissingPackage:
            raise
        except InputError as error:
            errors.append((path, str(error)))
            error_line(str(error))
            continue
        found += file.results
        if output is not None:
            _show_file(output, path, file, options.digits)
    if options.json:
        with written():
            write_whole_text(_json_text(found, errors))
    if options.verify and not errors:
        return _verify(found, options.verify, output)
    return UNUSABLE if errors else DONE


def _sum_file(path: str, columns: list[str | None], form: ReadOptions) -> FileResult:
    with progress_of_file(path) as on_read, open_table(path, columns, form, on_read) as table:
        totals = [exact.Sum() for _ in table.columns]
        floats = [FloatSums() for _ in table.columns]
        for place, values in table.chunks():
            totals[place].add(values)
            floats[place].add(values)
    if not any(total.count for total in totals):
        what = "every cell is missing" if any(table.missing) else "the file is empty"
        raise InputError(f"{path}: no values: {what}")
    results = []
    for place, column in enumerate(table.columns):
        sums = {"one by one": floats[place].sequential, "numpy.sum": floats[place].blockwise}
        figures = Figures(totals[place], table.missing[place], sums)
        source = path if column is None else f"{path}:{column}"
        results.append(Result(source, path, column, figures))
    return FileResult(results, table.passed_over)


def _verify(found: list[Result], expected: str, output: Output | None) -> int:
    """Compares as many characters as were given."""
    if len(found) != 1:
        raise Stop(UNUSABLE, f"--verify goes with one column, and here are {len(found)}")
    checksum = found[0].figures.total.checksum()
    if checksum[: len(expected)] != expected:
        error_line(
            f"{found[0].source}: checksum {checksum[: len(expected)]}, and {expected} expected"
        )
        return DIFFERENT
    if output is not None:
        output.line(f"verified: {expected}", "green")
    return DONE


# --- For a reader


def _show_file(output: Output, path: str, file: FileResult, digits: int) -> None:
    for result in file.results:
        _show(output, result, digits)
    if file.passed_over:
        output.line(f"{path}: passed over, no numbers: {', '.join(file.passed_over)}\n")


def _show(output: Output, result: Result, digits: int) -> None:
    figures = result.figures
    count = figures.total.count
    output.title(f"{result.source}: {count} value{'s' if count != 1 else ''}")
    if figures.missing:
        output.row("missing", f"{figures.missing} cells without a value, left out")
    output.row("exact sum", decimal_text(figures.total.to_decimal(), digits), "bold")
    if count:
        output.row("exact mean", decimal_text(figures.mean, digits))
    nearest = float(figures.total)
    output.row("float64", f"{nearest!r:<24} {distance_text(nearest, figures)}")
    for name, value in figures.float_sums.items():
        output.row(name, f"{value!r:<24} {distance_text(value, figures)}")
    output.row("limbs", " ".join(map(repr, figures.limbs)))
    output.row("checksum", figures.total.checksum())
    for note in _notes(figures):
        output.line(f"  ! {note}", "yellow")
    output.line("")


def _notes(figures: Figures) -> list[str]:
    if not figures.is_finite:
        return [_NO_FINITE_SUM]
    notes = [_FIFTH_LIMB] if figures.needs_more_limbs else []
    return notes + [_BEYOND_RANGE] * math.isinf(nearest_float(figures.value))


# --- For a program


def _json_text(found: list[Result], errors: list[tuple[str, str]]) -> str:
    document = {
        "korvex": importlib.metadata.version("korvex-tqx"),
        "numpy_sum_block": BLOCK,
        "results": [_json_of(result) for result in found],
        "errors": [{"file": path, "error": text} for path, text in errors],
    }
    return json.dumps(document, indent=2) + "\n"


def _json_of(result: Result) -> dict[str, Any]:
    figures, total = result.figures, result.figures.total
    return {
        "source": result.source,
        "file": result.path,
        "column": result.column,
        "count": total.count,
        "missing": figures.missing,
        "exact_sum": str(total.to_decimal()),
        "exact_mean": str(figures.mean) if total.count else None,
        "float64": repr(float(total)),
        "limbs": [repr(limb) for limb in figures.limbs],
        "float_sums": {
            name.replace(" ", "_").replace(".", "_"): _json_of_float(value, figures)
            for name, value in figures.float_sums.items()
        },
        "checksum": total.checksum(),
    }


def _json_of_float(value: float, figures: Figures) -> dict[str, Any]:
    """The distance is None where one is not finite, or the exact sum is 0 and the float is not."""
    ulps = None
    if figures.is_finite and math.isfinite(value):
        if value == figures.value:
            ulps = "0"
        elif figures.value != 0:
            ulps = decimal_of_ratio(ulps_off(value, figures.value))
    return {"value": repr(value), "ulps_off": ulps}
