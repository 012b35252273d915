# SPDX-License-Identifier: Apache-2.0
"""Formulas of the site: LaTeX becomes MathML, powers and indices of plain text are set as such.

MathML is part of a page, so nothing is loaded to show it. In running text the documents write
2^-53, x_i and `a <= b`, which read well as they are; the site sets them as people print them.
Code, doc strings and headings stay as they are.
"""

import re

from docutils import nodes
from latex2mathml.converter import convert
from sphinx.application import Sphinx
from sphinx.transforms import SphinxTransform
from sphinx.writers.html5 import HTML5Translator

# Text inside these is quoted, or looked up by what it says.
_AS_IT_IS = (nodes.literal, nodes.literal_block, nodes.title, nodes.math, nodes.math_block)
_AS_IT_IS += (nodes.raw, nodes.comment)

_INNER = r"\([^()]*(?:\([^()]*\)[^()]*)*\)"  # parentheses, and those within
_INDEX = rf"(?:[0-9]+|[a-z](?![a-zA-Z])|{_INNER})"
_SCRIPT = re.compile(
    rf"(?<=[\w)])\^(?P<power>-?[0-9]+|-?[a-z](?:_{_INDEX})?(?![a-zA-Z])|[A-Z]?{_INNER})"
    rf"|(?<![\w.])(?P<base>[a-zA-Z])_(?P<index>{_INDEX})"
    r"|(?<![\w.])(?P<limb>l)(?P<number>[0-3])(?!\w)"  # l0 to l3 are the limbs of a value
)
_SIGNS = (
    (re.compile("<="), "≤"),
    (re.compile(">="), "≥"),
    # At the beginning of a text: after a power, an index or code.
    (re.compile(r"(?:(?<=[\w)'|])|^) \* (?=[\w(])"), " · "),
    (re.compile(r"(?:(?<=[\w)'|])|^) - (?=[\w(|])"), " − "),
    (re.compile(r"(?<![\w)])-(?=\d)"), "−"),
)


def with_signs(text: str) -> str:
    for pattern, sign in _SIGNS:
        text = pattern.sub(sign, text)
    return text


def set_scripts(text: str) -> list[nodes.Node]:
    """The text with its powers raised and its indices lowered, those within them too."""
    made: list[nodes.Node] = []
    end = 0
    for found in _SCRIPT.finditer(text):
        base = found["base"] or found["limb"] or ""
        made.append(nodes.Text(with_signs(text[end : found.start()] + base)))
        kind = nodes.superscript if found["power"] else nodes.subscript
        inner = found["power"] or found["index"] or found["number"]
        if inner.startswith("("):
            inner = inner[1:-1]
        inner = inner.replace("-", "−")
        made.append(kind("", "", *set_scripts(inner)))
        end = found.end()
    made.append(nodes.Text(with_signs(text[end:])))
    return [node for node in made if not isinstance(node, nodes.Text) or str(node)]


def is_quoted(node: nodes.Node) -> bool:
    parent = node.parent
    while parent is not None:
        if isinstance(parent, _AS_IT_IS) or parent.get("support_smartquotes") is False:
            return True
        parent = parent.parent
    return False


class SetFormulas(SphinxTransform):
    """Once the page is read, before quotation marks are curled."""

    default_priority = 740

    def apply(self, **options: object) -> None:
        for node in list(self.document.findall(nodes.Text)):
            if re.search(r"[_^]|<=|>=| [*-] |-\d|l[0-3]", node) and not is_quoted(node):
                node.parent.replace(node, set_scripts(str(node)))


def mathml(formula: str, display: str) -> str:
    """What the converter does not know it writes out as it stands: that must not go unseen."""
    made = convert(formula, display=display)
    if left := re.search(r"<m[ion]>(?:&(?!#?\w+;)|\\).*?</m", made):
        raise ValueError(f"no MathML for {left[0]!r} in the formula {formula}")
    return made


def visit_inline(translator: HTML5Translator, node: nodes.math) -> None:
    translator.body.append(mathml(node.astext(), "inline"))
    raise nodes.SkipNode


def visit_block(translator: HTML5Translator, node: nodes.math_block) -> None:
    formula = mathml(node.astext(), "block")
    translator.body.append(f'<div class="math wide">{formula}</div>\n')
    raise nodes.SkipNode


def setup(app: Sphinx) -> dict[str, bool]:
    app.add_transform(SetFormulas)
    app.add_html_math_renderer("mathml", (visit_inline, None), (visit_block, None))
    return {"parallel_read_safe": True, "parallel_write_safe": True}
