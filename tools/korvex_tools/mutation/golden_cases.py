# SPDX-License-Identifier: Apache-2.0
"""Golden cases on a library of mutated host kernels."""

import sys
from pathlib import Path
from typing import Any

from korvex_tools.mutation.prepared import EQUAL, serve
from korvex_tools.verify import comparison, golden, promises

# Whose cases run the kernels on few values; what else there is launches the same kernels.
FOLDERS = ("kernel_reductions", "pairs", "products", "elementwise", "reductions")
# The folder of a file is tried first, and its cases of that word before all.
LIKELIEST = {
    "dot.cpp": ("products", "dot"),
    "pairs.cpp": ("pairs", ""),
    "rms_norm.cpp": ("elementwise", "rms"),
    "rms_norm.h": ("elementwise", "rms"),
    "sum.cpp": ("reductions", "tqx_sum"),
    "unary.cpp": ("elementwise", ""),
    "matrix_product.cpp": ("products", "matmul"),
}


def first_difference(file: str, library: str, _instruction_set: str) -> str:
    import korvex.emulation

    korvex.emulation.activate(2, None, Path(library))
    import torch

    import korvex.tqx_runtime

    def to_tensor(values: object) -> object:
        return torch.tensor(values, dtype=torch.float64, device="cuda")

    for folder, case, entry in cases_for(Path(file).name):
        found = golden.outcome(korvex.tqx_runtime, case, to_tensor)
        if comparison.difference(found, entry):
            return f"{folder}: {case.name}"
    return EQUAL


def cases_for(file: str) -> list[tuple[str, Any, Any]]:
    first, word = LIKELIEST.get(file, (FOLDERS[0], ""))
    rows = []
    for folder in FOLDERS:
        script, data = golden.load(golden.FOLDER / f"make_{folder}.py")
        for case in script.CASES:
            if not case.long and promises.is_compared(folder, case.name):
                rows.append((folder, case, data["cases"].get(case.name)))
    return sorted(rows, key=lambda row: (row[0] != first, word not in row[1].name))


def main() -> int:
    import numpy  # noqa: F401
    import torch

    torch.set_num_threads(1)
    return serve(first_difference)


if __name__ == "__main__":
    sys.exit(main())
