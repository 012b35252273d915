# SPDX-License-Identifier: Apache-2.0
"""Writes a compilation database for clang-tidy that holds each source once.

usage: tidy_commands.py COMPILE_COMMANDS.json FOLDER

Some sources are compiled at many optimisation levels, and clang-tidy would check each of them.
"""

import json
import sys
from pathlib import Path

if __name__ == "__main__":
    commands = json.loads(Path(sys.argv[1]).read_text())
    first_of_each_source = {entry["file"]: entry for entry in reversed(commands)}
    folder = Path(sys.argv[2])
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "compile_commands.json").write_text(
        json.dumps(list(first_of_each_source.values()), indent=1)
    )
