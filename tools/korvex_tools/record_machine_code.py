# SPDX-License-Identifier: Apache-2.0
"""Write down what the compiled kernels in some folders cost, as the golden table of the tests.

usage: python -P -m korvex_tools.record_machine_code FOLDER...

A folder is that of the kernels in a build: build/wheel holds one for all architectures. Rows of
other compilers and architectures stay as they are.
"""

import json
import sys
from pathlib import Path

from korvex_tools import machine_code
from korvex_tools.source_tree import SOURCE_TREE

GOLDEN = SOURCE_TREE / "tests" / "device_code" / "golden.json"


def row(cubin: Path) -> dict:
    kernels = machine_code.resources(cubin)
    if machine_code.architecture(cubin) >= machine_code.OLDEST_DISASSEMBLED:
        for name, loops in machine_code.element_loops(cubin).items():
            if loops:
                kernels[name] |= loops[0]  # the fast way
    return kernels


def main(folders: list[str]) -> int:
    golden = json.loads(GOLDEN.read_text()) if GOLDEN.exists() else {}
    for folder in folders:
        for cubin in sorted(Path(folder).glob("*.cubin"), key=machine_code.architecture):
            key = f"sm_{machine_code.architecture(cubin)}, {machine_code.compiler_of(cubin)}"
            golden[key] = row(cubin)
            print(key)
    lines = [f"{json.dumps(key)}: {json.dumps(golden[key])}" for key in sorted(golden)]
    GOLDEN.write_text("{\n" + ",\n".join(lines) + "\n}\n")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
