# SPDX-License-Identifier: Apache-2.0
"""Runs the programs of docs/gallery, draws what they print, and puts programs into pages.

    make gallery

- `docs/gallery/*.txt`: what each program prints, a table whose first line names the columns.
- `docs/gallery/*.svg`: that table as a picture; nothing else goes into it.
- Pages: the lines between `<!-- program: NAME -->` or `<!-- output: NAME -->` and `<!-- end -->`
  are that file as a block of code, so that they can be read where pages are shown as they are.

A test runs it with --check, which writes nothing and fails where something differs.
"""

import argparse
import math
import os
import re
import subprocess
import sys
from collections.abc import Callable, Iterator
from pathlib import Path
from xml.sax.saxutils import escape

from korvex_tools.figures import svg
from korvex_tools.source_tree import SOURCE_TREE

DOCS = SOURCE_TREE / "docs"
GALLERY = DOCS / "gallery"
BLOCK = re.compile(r"(<!-- (program|output): (\S+) -->\n).*?(<!-- end -->)", re.DOTALL)
LANGUAGES = {".py": "python", ".txt": "text", ".json": "json"}
LICENCE = "# SPDX-License-Identifier: Apache-2.0\n"

WIDTH, HEIGHT = 620, 360
LEFT, RIGHT, TOP, BOTTOM = 70, 20, 40, 46  # the margins around what is drawn
COLOURS = (svg.LIGHT["c2"], svg.LIGHT["c4"], svg.OURS)  # the last column is ours

Scale = Callable[[float], float]

# --- Tables


def columns(text: str) -> dict[str, list[float]]:
    """The table by its columns. Names are apart by two blanks, or by one if they have none."""
    lines = [line for line in text.splitlines() if not line.startswith("#")]
    names = re.split(r"\s{2,}", lines[0].strip())
    rows = [[float(cell) for cell in line.split()] for line in lines[1:]]
    return {name: [row[n] for row in rows] for n, name in enumerate(names)}


# --- Parts of a picture


def words(
    x: float, y: float, text: str, anchor: str = "middle", size: int = 12, more: str = ""
) -> str:
    return (
        f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" text-anchor="{anchor}" '
        f'fill="{svg.INK}"{more}>{escape(text)}</text>'
    )


def line(x1: float, y1: float, x2: float, y2: float, colour: str, width: float = 1.0) -> str:
    return (
        f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" '
        f'stroke="{colour}" stroke-width="{width:g}"/>'
    )


def box(x: float, y: float, width: float, height: float, colour: str) -> str:
    return (
        f'<rect x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height:.1f}" fill="{colour}"/>'
    )


def power_of_ten(x: float, y: float, exponent: int, anchor: str) -> str:
    raised = f'10<tspan dy="-5" font-size="9">{signed(exponent)}</tspan>'
    return words(x, y, "", anchor).replace("></text>", f">{raised}</text>")


def signed(number: float) -> str:
    """With a minus sign in place of the hyphen."""
    return f"{number:g}".replace("-", "−")


def scale(values: list[float], low: float, high: float, logarithmic: bool) -> Scale:
    """From values to places on the picture, with the least and the largest at its ends."""
    convert = math.log10 if logarithmic else float
    first, last = convert(min(values)), convert(max(values))
    return lambda value: low + (convert(value) - first) / (last - first) * (high - low)


def exponents(values: list[float]) -> list[float]:
    """Powers of ten in the range, eight at most."""
    first, last = math.ceil(math.log10(min(values))), math.floor(math.log10(max(values)))
    return [float(n) for n in range(first, last + 1, max(1, -(-(last - first) // 7)))]


def ticks(values: list[float]) -> list[float]:
    """Round numbers in the range."""
    wide = (max(values) - min(values)) / 6
    unit = 10 ** math.floor(math.log10(wide))
    step = next(unit * n for n in (1, 2, 5, 10) if unit * n >= wide)
    first = math.ceil(min(values) / step)
    return [n * step for n in range(first, math.floor(max(values) / step) + 1)]


def frame(title: str, x_label: str, y_label: str) -> list[str]:
    middle = (TOP + HEIGHT - BOTTOM) / 2
    turned = f' transform="rotate(-90 16 {middle:.1f})"'
    return [
        box(0, 0, WIDTH, HEIGHT, svg.PAPER),
        words(WIDTH / 2, 22, title, size=14),
        words((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 10, x_label),
        words(16, middle, y_label, more=turned),
    ]


def horizontal_axis(x: Scale, marks: list[float], logarithmic: bool) -> Iterator[str]:
    foot = HEIGHT - BOTTOM
    for mark in marks:
        place = x(10.0**mark if logarithmic else mark)
        yield line(place, TOP, place, foot, svg.GRID)
        if logarithmic:
            yield power_of_ten(place, foot + 17, int(mark), "middle")
        else:
            yield words(place, foot + 17, signed(mark))


def vertical_axis(y: Scale, marks: list[float], logarithmic: bool) -> Iterator[str]:
    for mark in marks:
        place = y(10.0**mark if logarithmic else mark)
        yield line(LEFT, place, WIDTH - RIGHT, place, svg.GRID)
        if logarithmic:
            yield power_of_ten(LEFT - 8, place + 4, int(mark), "end")
        else:
            yield words(LEFT - 8, place + 4, signed(mark), "end")


def legend(names: list[str], place: tuple[float, float]) -> Iterator[str]:
    left, top = place
    for n, (name, colour) in enumerate(zip(names, colours_of(names), strict=True)):
        y = top + 18 * n
        yield line(left, y, left + 22, y, colour, 2.5)
        yield words(left + 28, y + 4, name, "start")


def colours_of(names: list[str]) -> tuple[str, ...]:
    return COLOURS[-len(names) :] if len(names) > 2 else (COLOURS[0], COLOURS[-1])


# --- Kinds of pictures


def curves(
    text: str,
    title: str,
    y_label: str,
    logarithmic: tuple[bool, bool],
    place: tuple[float, float],
    x_label: str = "",
) -> str:
    """The columns after the first, by the first. A gap in its steps of one is a gap in a curve."""
    table = columns(text)
    (first, xs), *shown = table.items()
    every = [value for _, values in shown for value in values]
    if not logarithmic[1]:
        every.append(0.0)
    x = scale(xs, LEFT, WIDTH - RIGHT, logarithmic[0])
    y = scale(every, HEIGHT - BOTTOM, TOP, logarithmic[1])
    marks = [
        (exponents if log else ticks)(values)
        for log, values in zip(logarithmic, (xs, every), strict=True)
    ]
    parts = frame(title, x_label or first, y_label)
    parts += horizontal_axis(x, marks[0], logarithmic[0])
    parts += vertical_axis(y, marks[1], logarithmic[1])
    names = [name for name, _ in shown]
    for (_, values), colour in zip(shown, colours_of(names), strict=True):
        for run in runs_of(xs, logarithmic[0]):
            points = " ".join(f"{x(xs[n]):.1f},{y(values[n]):.1f}" for n in run)
            parts.append(
                f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="2"/>'
            )
    return "\n".join([*parts, *legend(names, place)])


def runs_of(xs: list[float], logarithmic: bool) -> list[list[int]]:
    runs = [[0]]
    for n in range(1, len(xs)):
        if not logarithmic and xs[n] - xs[n - 1] > 1:
            runs.append([])
        runs[-1].append(n)
    return runs


def bars(text: str, title: str, x_label: str, y_label: str) -> str:
    table = columns(text)
    xs, heights = table.values()
    x = scale([min(xs) - 1, max(xs) + 1], LEFT, WIDTH - RIGHT, False)
    y = scale([0, max(heights) * 1.05], HEIGHT - BOTTOM, TOP, False)
    parts = frame(title, x_label, y_label)
    parts += vertical_axis(y, ticks([0, max(heights)]), False)
    wide = 0.8 * (x(1) - x(0))
    for value, height in zip(xs, heights, strict=True):
        parts.append(box(x(value) - wide / 2, y(height), wide, y(0) - y(height), COLOURS[0]))
    for mark in ticks(xs):
        parts.append(words(x(mark), HEIGHT - BOTTOM + 17, signed(mark)))
    parts.append(line(x(0), TOP, x(0), HEIGHT - BOTTOM, svg.OURS, 2.5))
    parts.append(words(x(0) + 6, TOP + 12, "exact.sum, in all orders", "start"))
    return "\n".join(parts)


def maps(text: str, title: str) -> str:
    """Two maps of signs, side by side."""
    lines = text.splitlines()
    names, rows = lines[0].split(), [row.split() for row in lines[1:] if not row.startswith("#")]
    colours = {"+": svg.LIGHT["c4"], "-": svg.LIGHT["c1"], "0": svg.INK}
    side = 260 / len(rows)
    parts = [box(0, 0, WIDTH, HEIGHT, svg.PAPER), words(WIDTH / 2, 22, title, size=14)]
    parts.append('<g shape-rendering="crispEdges">')
    for n, name in enumerate(names):
        left, top = 35 + n * 290, 42
        for down, row in enumerate(rows):
            # Neighbours of one sign are one box.
            for run in re.finditer(r"(.)\1*", row[n]):
                at, wide = left + side * run.start(), side * len(run[0]) + 0.1
                parts.append(box(at, top + side * down, wide, side + 0.1, colours[run[1]]))
        parts.append(words(left + 130, top + 278, name, size=13))
    for n, (sign, meaning) in enumerate({"+": "left", "0": "on the line", "-": "right"}.items()):
        left = 190 + 95 * n
        parts.append(box(left, HEIGHT - 22, 12, 12, colours[sign]))
        parts.append(words(left + 18, HEIGHT - 12, meaning, "start"))
    parts.append("</g>")
    return "\n".join(parts)


def drawn(name: str, text: str) -> str:
    """The whole file of a program's picture."""
    error = "relative error"
    make: Callable[[], str] = {
        "orders": lambda: bars(text, TITLES[name], "units in the last place off", "orders of 1000"),
        "running_sum": lambda: curves(text, TITLES[name], error, (True, True), (100, 60)),
        "variance": lambda: curves(
            text, TITLES[name], error, (True, True), (100, 60), "offset of the readings"
        ),
        "window": lambda: curves(text, TITLES[name], "sum", (False, False), (460, 275)),
        "half_precision": lambda: curves(text, TITLES[name], "sum", (True, True), (100, 60)),
        "side_of_a_line": lambda: maps(text, TITLES[name]),
    }[name]
    return svg.themed(make() + "\n", WIDTH, HEIGHT, TITLES[name])


TITLES = {
    "orders": "One thousand float64 numbers, summed in a thousand orders",
    "running_sum": "Tenths added up one by one",
    "variance": "The variance of a thousand readings far from zero",
    "window": "The sum of the last ten readings, before and after a huge one",
    "half_precision": "Ones counted in float16",
    "side_of_a_line": "Which side of a line are these 32 by 32 points on?",
}

# --- Files


def printed(program: Path) -> str:
    run = subprocess.run(
        [sys.executable, "-P", program], stdout=subprocess.PIPE, text=True, check=True
    )
    return run.stdout


def files(programs: list[Path]) -> Iterator[tuple[Path, str]]:
    """What each program's two files should hold."""
    for program in programs:
        text = printed(program)
        yield program.with_suffix(".txt"), text
        yield program.with_suffix(".svg"), drawn(program.stem, text)


def with_programs(page: Path) -> str:
    """The page with its blocks as the files are now."""

    def block(match: re.Match[str]) -> str:
        language = LANGUAGES[Path(match[3]).suffix]
        text = (page.parent / match[3]).read_text().removeprefix(LICENCE)
        return f"{match[1]}```{language}\n{text.strip()}\n```\n{match[4]}"

    return BLOCK.sub(block, page.read_text())


def write(path: Path, text: str, check: bool, stale: list[str]) -> None:
    if not path.exists() or path.read_text() != text:
        stale.append(os.path.relpath(path, DOCS))
        if not check:
            path.write_text(text)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--check", action="store_true", help="write nothing; fail if they differ")
    options = parser.parse_args()
    stale: list[str] = []
    for path, text in files(sorted(GALLERY.glob("*.py"))):
        write(path, text, options.check, stale)
    for page in sorted(DOCS.rglob("*.md")):
        write(page, with_programs(page), options.check, stale)
    print(f"{'stale' if options.check else 'written'}: {', '.join(stale) or 'nothing'}")
    sys.exit(1 if options.check and stale else 0)


if __name__ == "__main__":
    main()
