# SPDX-License-Identifier: Apache-2.0
"""Writes a compilation database for clang-tidy that holds each source once.

usage: tidy_commands.py COMPILE_COMMANDS.json FOLDER

Some sources are compiled at many optimisation levels, and clang-tidy would check each of them. A
library that a test compiles when it needs it gets a command here. Options that g++ alone knows are
left out.
"""

import json
import re
import sys
import sysconfig
from pathlib import Path

SOURCE_TREE = Path(__file__).resolve().parent.parent
WITH_PYTHON = ("tests/fuzz/failing_allocations.cpp",)
OPTIONS_OF_GCC = re.compile(r" -fsanitize-sections=\S+")


def commands_of_tests() -> list[dict]:
    include = sysconfig.get_path("include")
    return [
        {
            "directory": str(SOURCE_TREE),
            "command": f"c++ -std=c++20 -isystem {include} -o library.o -c {SOURCE_TREE / name}",
            "file": str(SOURCE_TREE / name),
        }
        for name in WITH_PYTHON
    ]


if __name__ == "__main__":
    commands = json.loads(Path(sys.argv[1]).read_text()) + commands_of_tests()
    for entry in commands:
        entry["command"] = OPTIONS_OF_GCC.sub("", entry["command"])
    first_of_each_source = {entry["file"]: entry for entry in reversed(commands)}
    folder = Path(sys.argv[2])
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "compile_commands.json").write_text(
        json.dumps(list(first_of_each_source.values()), indent=1)
    )
