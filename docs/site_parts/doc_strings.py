# SPDX-License-Identifier: Apache-2.0
"""Doc strings as they are set on the reference pages: paragraphs, lists, sections and examples.

Two forms of sections are read: `Args:` with indented entries, and NumPy's, underlined by dashes.
Every word is kept in its order; what goes are backquotes, the dashes of lists and of underlines.
"""

import re
from collections.abc import Iterator

from docutils import nodes

_SECTION = re.compile(r"^(Args|Returns|Raises|Example|Examples):$")
_WIDTH = 88  # a line that had room for the next word below it ends on purpose

Lines = list[str]


def doc_string(text: str) -> nodes.container:
    made = nodes.container("", *body(text.splitlines()), classes=["doc-string"])
    made["support_smartquotes"] = False  # it is quoted
    return made


def body(lines: Lines) -> list[nodes.Node]:
    made: list[nodes.Node] = []
    blocks = list(blocks_of(lines))
    while blocks:
        block = blocks.pop(0)
        if len(block) > 1 and re.fullmatch("-{3,}", block[1]):
            made.append(nodes.rubric("", block[0]))
            made += entries(block[2:]) if block[2:] else []
        elif _SECTION.match(block[0]):
            made.append(nodes.rubric("", block[0]))
            made += indented_section(block)
        elif block[0].startswith(">>> "):
            made.append(nodes.literal_block("", "\n".join(block), language="pycon"))
        elif listed := next((n for n, line in enumerate(block) if line.startswith("- ")), None):
            made += [paragraph(block[:listed]), bullets(block[listed:])]
        elif block[0].startswith("- "):
            made.append(bullets(block))
        else:
            made.append(paragraph(block))
    return made


def blocks_of(lines: Lines) -> Iterator[Lines]:
    """What blank lines divide; indented lines after one go on with the block before."""
    block: Lines = []
    for line in [*lines, ""]:
        if line.strip():
            block.append(line)
        elif block:
            yield block
            block = []


def indented_section(block: Lines) -> list[nodes.Node]:
    """`Args:` and the like: their lines are indented by four blanks."""
    lines = [line[4:] for line in block[1:]]
    if lines[0].startswith(">>> "):
        return [nodes.literal_block("", "\n".join(lines), language="pycon")]
    found = [re.match(r"^(\w+):( .*)$", line) for line in lines]
    if not found[0]:
        return body(lines)
    items: list[nodes.Node] = []
    for line, match in zip(lines, found, strict=True):
        if match:
            items.append(item([nodes.literal("", match[1]), nodes.Text(":")], [match[2].strip()]))
        else:
            items[-1][1].extend([nodes.Text(" "), *inline(line.strip())])
    for each in items:
        each[1] = nodes.definition("", nodes.paragraph("", "", *each[1].children))
    return [nodes.definition_list("", *items)]


def item(term: list[nodes.Node], text: Lines) -> nodes.definition_list_item:
    inner = nodes.definition("", *inline(" ".join(text)))
    return nodes.definition_list_item("", nodes.term("", "", *term), inner)


def entries(lines: Lines) -> list[nodes.Node]:
    """A section of NumPy's form: `name : type`, or a type or an error, with indented text below."""
    if lines[0].startswith(">>> "):
        return [nodes.literal_block("", "\n".join(lines), language="pycon")]
    items: list[nodes.Node] = []
    while lines:
        name, _, kind = lines.pop(0).partition(" : ")
        text: Lines = []
        while lines and lines[0].startswith("    "):
            text.append(lines.pop(0)[4:])
        is_name = bool(kind) or " " not in name
        term: list[nodes.Node] = [nodes.literal("", name)] if is_name else inline(name)
        if kind:
            term += [nodes.Text(" : "), *inline(kind)]
        definition = nodes.definition("", *(body(text) if text else []))
        items.append(nodes.definition_list_item("", nodes.term("", "", *term), definition))
    return [nodes.definition_list("", *items)]


def bullets(lines: Lines) -> nodes.bullet_list:
    made = nodes.bullet_list()
    for line in lines:
        if line.startswith("- "):
            made += nodes.list_item("", nodes.paragraph("", "", *inline(line[2:])))
        else:
            made[-1][0].extend([nodes.Text(" "), *inline(line.strip())])
    return made


def paragraph(lines: Lines) -> nodes.Node:
    """Filled lines flow; a line that ends on purpose stays a line."""
    joined = [lines[0]]
    for before, line in zip(lines, lines[1:], strict=False):
        if ends_on_purpose(before, line):
            joined.append(line)
        else:
            joined[-1] += f" {line.strip()}"
    if len(joined) == 1:
        return nodes.paragraph("", "", *inline(joined[0]))
    return nodes.line_block("", *(nodes.line("", "", *inline(line)) for line in joined))


def ends_on_purpose(line: str, after: str) -> bool:
    word = after.split()[0]
    had_room = len(line) + 1 + len(word) <= _WIDTH
    return had_room and (line[-1] in ".:" or not word[0].islower())


def inline(text: str) -> list[nodes.Node]:
    """Backquotes, one or two, hold code."""
    made: list[nodes.Node] = []
    for number, part in enumerate(re.split(r"``?([^`]+)``?", text)):
        if part:
            made.append(nodes.literal("", part) if number % 2 else nodes.Text(part))
    return made
