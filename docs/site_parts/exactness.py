# SPDX-License-Identifier: Apache-2.0
"""Where the pages define how exact a function is: rows of two tables, and a few sections.

The tables are those of numerics.md and exact.md. A function is defined by the first row that names
it; its label is `exactness-of-` with the name as callers write it.
"""

import re
from pathlib import Path

from docutils import nodes
from sphinx.application import Sphinx
from sphinx.transforms import SphinxTransform

# By page: the heading above its table, and what callers write before the names in it.
TABLES = {
    "numerics": ("Function by function", ""),
    "exact": ("What each result is", "exact."),
}
# By page and heading: what the text below it defines.
SECTIONS = {
    ("exact", "Accumulators"): ("exact.Sum", "exact.Dot", "exact.Moments"),
    ("larger_than_one_machine", "Element by element"): (
        "exact.all_reduce",
        "exact.reduce_scatter_tensor",
    ),
    ("larger_than_one_machine", "Training"): ("exact.GradientAccumulator",),
}
_NAME = re.compile(r"^(?:TQXResult\.)?(\w+)(?:\(|$)")


def named(cell: nodes.Node) -> list[str]:
    found = [_NAME.match(literal.astext()) for literal in cell.findall(nodes.literal)]
    return [match[1] for match in found if match]


def names_in(text: str, heading: str) -> set[str]:
    """The same of a page that Sphinx has not read yet."""
    section = text.partition(f"\n## {heading}\n")[2].partition("\n## ")[0]
    cells = [line.split("|")[1] for line in section.splitlines() if line.startswith("| `")]
    found = [_NAME.match(code) for cell in cells for code in re.findall(r"`([^`]+)`", cell)]
    return {match[1] for match in found if match}


def labels(source: Path) -> set[str]:
    """All that the pages of this folder define."""
    found = set()
    for page, (heading, prefix) in TABLES.items():
        path = source / f"{page}.md"
        text = path.read_text() if path.is_file() else ""
        found |= {f"exactness-of-{prefix}{name}" for name in names_in(text, heading)}
    for (page, heading), names in SECTIONS.items():
        path = source / f"{page}.md"
        if path.is_file() and f"\n## {heading}\n" in path.read_text():
            found |= {f"exactness-of-{name}" for name in names}
    return found


class LabelDefinitions(SphinxTransform):
    """Gives each such row, and each such section, its labels."""

    default_priority = 210

    def apply(self, **options: object) -> None:
        page = self.env.current_document.docname
        heading, prefix = TABLES.get(page, (None, ""))
        for section in self.document.findall(nodes.section):
            title = section[0].astext()
            self.label(section, list(SECTIONS.get((page, title), ())))
            for row in section.findall(nodes.row) if title == heading else ():
                if not isinstance(row.parent, nodes.thead):
                    self.label(row, [f"{prefix}{name}" for name in named(row[0])])

    def label(self, node: nodes.Element, names: list[str]) -> None:
        found = [f"exactness-of-{name}" for name in names]
        new = [label for label in found if label not in self.document.nameids]
        if new:
            kept = node["names"]
            node["names"] = new
            self.document.note_explicit_target(node)
            node["names"] = [*kept, *new]


def setup(app: Sphinx) -> dict[str, bool]:
    app.add_transform(LabelDefinitions)
    return {"parallel_read_safe": True, "parallel_write_safe": True}
