# SPDX-License-Identifier: Apache-2.0
"""What the blocks of figures in documents are made with: their list, tables, numbers, machines."""

from collections.abc import Callable
from typing import Any

from korvex_tools.figures.records import Records

Lines = list[str]

# By the name that a document gives: what writes the block.
BLOCKS: dict[str, Callable[[Records], Lines]] = {}


def block(function: Callable[[Records], Lines]) -> Callable[[Records], Lines]:
    """Let documents have what the function writes, under its name."""
    BLOCKS[function.__name__] = function
    return function


def table(columns: list[str], rows: list[list[Any]]) -> Lines:
    lines = [" | ".join(columns), "|".join(["---"] * len(columns))]
    return [f"| {lines[0]} |", f"|{lines[1]}|"] + [
        f"| {' | '.join(map(str, cells))} |" for cells in rows
    ]


def folded(summary: str, lines: Lines) -> Lines:
    """Behind one line that a click opens: for tables that few readers want whole."""
    return [f"<details><summary>{summary}</summary>", "", *lines, "", "</details>"]


def machine(records: Records, name: str) -> str:
    record = records[name]
    return f"{record['host']['processor']}, {record['date'][:10]}"


def short(number: float) -> str:
    """Three digits, as people write them."""
    return f"{number:.3g}" if number < 100 else f"{number:,.0f}"
