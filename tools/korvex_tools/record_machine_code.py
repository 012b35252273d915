# SPDX-License-Identifier: Apache-2.0
"""Write down what the compiled kernels in some folders cost, as the golden tables of the tests.

usage: python -P -m korvex_tools.record_machine_code FOLDER...

A folder is that of the kernels in a build: build/wheel holds one for all architectures. The kernels
of exact states are in its folder `states` and have a table of their own. Rows of other compilers
and architectures stay as they are.
"""

import json
import sys
from collections.abc import Callable
from pathlib import Path

from korvex_tools import machine_code
from korvex_tools.source_tree import SOURCE_TREE

TABLES = SOURCE_TREE / "tests" / "device_code"


def row(cubin: Path) -> dict:
    kernels = machine_code.resources(cubin)
    if machine_code.architecture(cubin) >= machine_code.OLDEST_DISASSEMBLED:
        for name, loops in machine_code.element_loops(cubin).items():
            if loops:
                kernels[name] |= loops[0]  # the fast way
    return kernels


def record(table: Path, folder: Path, compilers: Path, row: Callable[[Path], dict]) -> None:
    """The rows of all files in a folder; `compilers` has files of the same names and makers."""
    golden = json.loads(table.read_text()) if table.exists() else {}
    for cubin in sorted(folder.glob("*.cubin"), key=machine_code.architecture):
        key = machine_code.row_name(compilers / cubin.name)
        golden[key] = row(cubin)
        print(f"{table.stem}: {key}")
    lines = [f"{json.dumps(key)}: {json.dumps(golden[key])}" for key in sorted(golden)]
    table.write_text("{\n" + ",\n".join(lines) + "\n}\n")


def main(folders: list[str]) -> int:
    for folder in map(Path, folders):
        record(TABLES / "golden.json", folder, folder, row)
        states = TABLES / "golden_states.json"
        record(states, folder / "states", folder, machine_code.resources)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
