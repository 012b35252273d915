# SPDX-License-Identifier: Apache-2.0
"""Writes the figures that documents quote from the records, or checks that they agree.

A document marks what is written here: the lines between `<!-- figures: NAME -->` and
`<!-- end of figures -->` are those of the block of that name, and nobody edits them.
"""

import argparse
import re
import sys
from pathlib import Path

from korvex_tools.figures import page_blocks, speed_blocks  # noqa: F401 (they fill BLOCKS)
from korvex_tools.figures.blocks import BLOCKS
from korvex_tools.figures.records import RESULTS_FOLDER, Records
from korvex_tools.source_tree import SOURCE_TREE

BLOCK = re.compile(r"(<!-- figures: (\w+) -->\n)(.*?)(<!-- end of figures -->)", re.DOTALL)


def documents(root: Path) -> list[Path]:
    """Those that hold a block."""
    found = [root / "README.md", *sorted((root / "docs").glob("*.md"))]
    return [path for path in found if BLOCK.search(path.read_text())]


def with_figures(text: str, records: Records) -> str:
    def block(match: re.Match[str]) -> str:
        lines = "\n".join(BLOCKS[match[2]](records))
        return f"{match[1]}{lines}\n{match[4]}"

    return BLOCK.sub(block, text)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--results", type=Path, default=RESULTS_FOLDER, help="folder of records")
    parser.add_argument(
        "--root", type=Path, default=SOURCE_TREE, help="tree whose documents are written"
    )
    parser.add_argument("--check", action="store_true", help="write nothing; fail if they differ")
    options = parser.parse_args()
    records = Records(options.results)
    stale = []
    for path in documents(options.root):
        text = path.read_text()
        fresh = with_figures(text, records)
        if fresh != text:
            stale.append(str(path.relative_to(options.root)))
            if not options.check:
                path.write_text(fresh)
    print(f"{'stale' if options.check else 'written'}: {', '.join(stale) or 'nothing'}")
    sys.exit(1 if options.check and stale else 0)


if __name__ == "__main__":
    main()
