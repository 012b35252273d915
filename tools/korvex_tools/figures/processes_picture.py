# SPDX-License-Identifier: Apache-2.0
"""Draws who sends what: the picture of docs/larger_than_one_machine.md, as SVG.

usage: python -P -m korvex_tools.figures.processes_picture [--output FOLDER]
"""

import argparse
from pathlib import Path
from xml.sax.saxutils import escape

from korvex.exact import _native
from korvex_tools.figures.svg import GRID, INK, LINE, OURS, PAPER, QUIET, themed
from korvex_tools.source_tree import SOURCE_TREE

NAME = "who_sends_what.svg"
WIDTH, HEIGHT = 860, 430
RANKS = 4


def text(x: float, y: float, words: str, size: int = 13, colour: str = INK, more: str = "") -> str:
    return (
        f'<text x="{x:g}" y="{y:g}" font-size="{size}" fill="{colour}" text-anchor="middle"{more}>'
        f"{escape(words)}</text>"
    )


def box(x: float, y: float, width: float, height: float, edge: str = QUIET) -> str:
    return (
        f'<rect x="{x:g}" y="{y:g}" width="{width:g}" height="{height:g}" rx="6" fill="{PAPER}" '
        f'stroke="{edge}" stroke-width="1.5"/>'
    )


def arrow(x1: float, y1: float, x2: float, y2: float) -> str:
    return (
        f'<line x1="{x1:g}" y1="{y1:g}" x2="{x2:g}" y2="{y2:g}" stroke="{LINE}" '
        'stroke-width="1.8" marker-end="url(#head)"/>'
    )


def accumulators(left: float) -> list[str]:
    """Each process adds what it has; one state a process goes through the engine."""
    middle = left + 200
    message = f"{8 * _native.words(_native.SUM)} bytes"
    parts = [text(middle, 40, "One value: accumulators and exact.sum(x, group=...)", 15)]
    for rank in range(RANKS):
        x = left + 8 + 100 * rank
        centre = x + 42
        parts += [box(x, 62, 84, 56), text(centre, 84, f"process {rank}")]
        parts += [text(centre, 103, "any part", 12, QUIET), arrow(centre, 118, centre, 146)]
        parts += [box(x, 150, 84, 40, OURS), text(centre, 175, message, 12, OURS)]
        parts += [arrow(centre, 190, centre, 226), arrow(centre, 280, centre, 316)]
        parts += [box(x, 320, 84, 44, OURS), text(centre, 347, "the sum", 13, OURS)]
    parts += [box(left + 8, 230, 384, 50, LINE)]
    parts += [text(middle, 260, "the engine's own all_reduce: int64, SUM", 14, LINE)]
    note = "the message is the state: digits and counts, added word by word"
    return [*parts, text(middle, 392, note, 12, QUIET)]


def shares(left: float, y: float, height: float, label: str) -> list[str]:
    """A tensor as one box a share; that of process 1 stands out."""
    parts, width = [], 384 / RANKS
    for share in range(RANKS):
        edge = OURS if share == 1 else QUIET
        parts.append(box(left + 8 + width * share, y, width - 6, height, edge))
        centre = left + 5 + width * (share + 0.5)
        parts.append(text(centre, y + height / 2 + 4, f"{label}, share {share}", 11, edge))
    return parts


def elements(left: float) -> list[str]:
    """Each process is sent one share by all, sums it, and sends it back rounded."""
    middle = left + 200
    parts = [text(middle, 40, "Element by element: exact.all_reduce(t)", 15)]
    for rank in range(RANKS):
        parts += shares(left, 62 + 30 * rank, 24, f"t{rank}")
    parts += [arrow(left + 149, 180, left + 160, 222)]
    parts += [text(left + 290, 205, "1. all_to_all: share 1 to process 1", 12, LINE)]
    parts += [box(left + 50, 226, 300, 58, OURS)]
    parts += [text(middle, 250, "process 1: t0 + t1 + t2 + t3 of its share", 13, OURS)]
    parts += [text(middle, 271, "2. each element exact, rounded once", 12, OURS)]
    parts += [arrow(middle, 284, middle, 316)]
    parts += [text(left + 296, 304, "3. its share to all others", 12, LINE)]
    parts += shares(left, 320, 44, "sum")
    note = "the bytes of a ring: each element out once, each sum back once"
    return [*parts, text(middle, 392, note, 12, QUIET)]


def picture() -> str:
    marker = (
        '<defs><marker id="head" viewBox="0 0 8 8" refX="7" refY="4" markerWidth="7" '
        f'markerHeight="7" orient="auto"><path d="M0,0 L8,4 L0,8 z" fill="{LINE}"/></marker></defs>'
    )
    ground = f'<rect width="{WIDTH}" height="{HEIGHT}" rx="10" fill="{PAPER}" stroke="{GRID}"/>'
    body = "\n".join([marker, ground, *accumulators(15), *elements(445), ""])
    return themed(body, WIDTH, HEIGHT, "what processes send each other")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--output", type=Path, default=SOURCE_TREE / "docs", help="folder")
    options = parser.parse_args()
    (options.output / NAME).write_text(picture())
    print(f"drawn: {NAME}")


if __name__ == "__main__":
    main()
