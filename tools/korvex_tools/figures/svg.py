# SPDX-License-Identifier: Apache-2.0
"""Writes pictures as SVG that read on light pages and on dark ones.

Drawing code uses the light colours of PALETTE. In the file each becomes a CSS variable that a dark
scheme gives another value: that of the reader's system, or where a page of the site shows the
picture inline, the one that its `body` names. A picture brings a ground of its own.
"""

import io
import re
from pathlib import Path
from typing import Any
from xml.sax.saxutils import escape

import matplotlib

# By name: the colour on a light page, and on a dark one.
PALETTE = {
    "ink": ("#212529", "#e6e8ea"),
    "quiet": ("#495057", "#adb5bd"),
    "paper": ("#ffffff", "#131416"),
    "grid": ("#dee2e6", "#34383c"),
    "c0": ("#c1121f", "#ff6b6b"),  # what is ours
    "c1": ("#d9623f", "#f2a07f"),
    "c2": ("#1d3557", "#8fb8ff"),
    "c3": ("#6d597a", "#c9aee0"),
    "c4": ("#457b9d", "#7fb8dc"),
    "c5": ("#1f8a7d", "#4fd1bf"),
    "c6": ("#5f6870", "#a3acb5"),
    "c7": ("#868e96", "#7d8790"),
}
LIGHT = {name: colours[0] for name, colours in PALETTE.items()}
INK, QUIET, PAPER, GRID = (LIGHT[name] for name in ("ink", "quiet", "paper", "grid"))
OURS, LINE = LIGHT["c0"], LIGHT["c4"]

_HEX = re.compile(r"#[0-9a-f]{6}\b")
_NAMES = {colour: name for name, colour in LIGHT.items()}


def style() -> str:
    """The style element: the colours, by scheme."""
    selector = "svg.korvex-figure"
    light, dark = (
        " ".join(f"--{name}: {colours[scheme]};" for name, colours in PALETTE.items())
        for scheme in (0, 1)
    )
    return (
        f"<style>{selector} {{ {light} }} "
        f"@media (prefers-color-scheme: dark) {{ {selector} {{ {dark} }} }} "
        f'body[data-theme="light"] {selector} {{ {light} }} '
        f'body[data-theme="dark"] {selector} {{ {dark} }}</style>'
    )


def themed(body: str, width: float, height: float, description: str) -> str:
    """A whole file: what was drawn in light colours, which are all in the palette."""
    unknown = set(_HEX.findall(body)) - set(_NAMES)
    if unknown:
        raise ValueError(f"colours that the palette does not have: {', '.join(sorted(unknown))}")
    # An attribute takes no variable, a style does.
    body = re.sub(r'(fill|stroke)="(#[0-9a-f]{6})"', r'style="\1: \2"', body)
    body = re.sub(r'style="([^"]*)" style="([^"]*)"', r'style="\1; \2"', body)
    body = _HEX.sub(lambda match: f"var(--{_NAMES[match[0]]})", body)
    return (
        f'<svg xmlns="http://www.w3.org/2000/svg" xmlns:xlink="http://www.w3.org/1999/xlink" '
        f'class="korvex-figure" viewBox="0 0 {width:g} {height:g}" width="{width:g}" '
        f'height="{height:g}" font-family="sans-serif" role="img" '
        f'aria-label="{escape(description, {chr(34): "&quot;"})}">\n'
        f"<title>{escape(description)}</title>\n{style()}\n{body}</svg>\n"
    )


# --- matplotlib

SETTINGS = {
    "svg.fonttype": "none",  # text stays text
    "font.family": "sans-serif",
    "mathtext.fontset": "dejavusans",
    "figure.facecolor": PAPER,
    "axes.facecolor": PAPER,
    "legend.facecolor": PAPER,
    "legend.edgecolor": GRID,
    "grid.color": GRID,
    "text.color": INK,
    **{f"{part}.labelcolor": INK for part in ("axes", "xtick", "ytick")},
    **dict.fromkeys(("axes.edgecolor", "xtick.color", "ytick.color"), QUIET),
}


def save(figure: Any, path: Path, description: str) -> None:
    """Write a figure that was made under SETTINGS; equal figures give equal files."""
    file = io.StringIO()
    with matplotlib.rc_context({"svg.hashsalt": path.name}):
        figure.savefig(file, format="svg", metadata={"Date": None, "Creator": None})
    text = file.getvalue()
    body = text[text.index("<defs>") : text.rindex("</svg>")]
    width, height = (72 * inches for inches in figure.get_size_inches())
    path.write_text(themed(body, width, height, description))
    print(f"drawn: {path.name}")
