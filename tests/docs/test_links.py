# SPDX-License-Identifier: Apache-2.0
"""Links between documents, as a code host follows them: files of the tree, and headings in them."""

import re
from pathlib import Path

import pytest

TREE = Path(__file__).resolve().parents[2]
PLACES = ("*.md", "docs/**/*.md", "benchmarks/**/*.md", "examples/**/*.md")
DOCUMENTS = sorted(path for place in PLACES for path in TREE.glob(place))


def without_code(text):
    return re.sub(r"^```.*?^```$|`[^`\n]*`", "", text, flags=re.MULTILINE | re.DOTALL)


def headings(path):
    """The names that a code host gives them: lower case, hyphens for blanks, no punctuation."""
    text = re.sub(r"^```.*?^```$", "", path.read_text(), flags=re.MULTILINE | re.DOTALL)
    titles = re.findall(r"^#+ (.*)$", text, re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-") for title in titles}


def broken_links(path):
    broken = []
    for link in re.findall(r"\]\(([^)\s]+)\)", without_code(path.read_text())):
        if link.startswith(("https://", "http://")):
            continue
        name, _, heading = link.partition("#")
        target = (path.parent / name).resolve() if name else path
        if not target.is_file() or heading and heading not in headings(target):
            broken.append(link)
    return broken


@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: str(path.relative_to(TREE)))
def test_links_lead_somewhere(path):
    assert broken_links(path) == []


def test_broken_links_are_seen(tmp_path):
    (tmp_path / "other.md").write_text("# One two, `three`\n")
    document = tmp_path / "document.md"
    document.write_text(
        "[a](other.md) [b](other.md#one-two-three) [c](gone.md) [d](other.md#four) `[e](f)`\n"
    )
    assert broken_links(document) == ["gone.md", "other.md#four"]


def test_documents_are_found():
    assert {"README.md", "numerics.md", "index.md"} <= {path.name for path in DOCUMENTS}
