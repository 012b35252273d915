# SPDX-License-Identifier: Apache-2.0
"""Tables for notebooks: what `_repr_html_` of the package's objects is made of."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from html import escape


def table(title: str, rows: Iterable[Sequence[str]], head: Sequence[str] = ()) -> str:
    """A table with a caption; the first cell of a row names the row. All text is escaped."""
    parts = [f"<table><caption>{escape(title)}</caption>"]
    if head:
        parts.append("<thead><tr>" + "".join(map(_head_cell, head)) + "</tr></thead>")
    parts.append("<tbody>")
    for name, *cells in rows:
        shown = "".join(f"<td><code>{escape(cell)}</code></td>" for cell in cells)
        parts.append(f"<tr>{_head_cell(name)}{shown}</tr>")
    return "".join(parts) + "</tbody></table>"


def _head_cell(text: str) -> str:
    return f'<th style="text-align: left">{escape(text)}</th>'
