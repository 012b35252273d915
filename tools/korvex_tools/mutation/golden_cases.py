# SPDX-License-Identifier: Apache-2.0
"""Golden cases on a library of mutated host kernels, each in a fork of one prepared process.

Run as a program it reads lines of a file that was changed and the path of a library, and answers
each by a line: "equal", or the first case that differs.
"""

import os
import subprocess
import sys
from pathlib import Path
from typing import Any

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
SECONDS = 120


class GoldenCases:
    """The prepared process, started at the first library."""

    def __init__(self) -> None:
        self._server: subprocess.Popen[str] | None = None

    def passes(self, library: Path, file: str) -> bool:
        if self._server is None:
            self._server = subprocess.Popen(
                [sys.executable, "-P", "-m", "korvex_tools.mutation.golden_cases"],
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=subprocess.DEVNULL,
                text=True,
                env=os.environ | {"CUDA_VISIBLE_DEVICES": ""},
            )
        assert self._server.stdin and self._server.stdout
        self._server.stdin.write(f"{Path(file).name} {library.resolve()}\n")
        self._server.stdin.flush()
        answer = self._server.stdout.readline()
        if not answer:
            raise RuntimeError("the process of golden cases has ended")
        return answer.strip() == "equal"

    def close(self) -> None:
        if self._server is not None and self._server.stdin:
            self._server.stdin.close()
            self._server.wait()


def first_difference(file: str, library: str) -> str:
    import korvex.emulation

    korvex.emulation.activate(2, None, Path(library))
    import torch

    import korvex.tqx_runtime

    def to_tensor(values: object) -> object:
        return torch.tensor(values, dtype=torch.float64, device="cuda")

    for folder, case, entry in cases_for(file):
        found = golden.outcome(korvex.tqx_runtime, case, to_tensor)
        if comparison.difference(found, entry):
            return f"{folder}: {case.name}"
    return "equal"


def cases_for(file: str) -> list[tuple[str, Any, Any]]:
    first, word = LIKELIEST.get(file, (FOLDERS[0], ""))
    rows = []
    for folder in FOLDERS:
        script, data = golden.load(golden.FOLDER / f"make_{folder}.py")
        for case in script.CASES:
            if not case.long and promises.is_compared(folder, case.name):
                rows.append((folder, case, data["cases"].get(case.name)))
    return sorted(rows, key=lambda row: (row[0] != first, word not in row[1].name))


def in_a_fork(file: str, library: str) -> str:
    """The answer of a process that may die or hang."""
    reading, writing = os.pipe()
    child = os.fork()
    if child == 0:
        os.dup2(os.open(os.devnull, os.O_WRONLY), 1)
        os.close(reading)
        import signal

        signal.alarm(SECONDS)
        try:
            answer = first_difference(file, library)
        except BaseException as error:
            answer = f"{type(error).__name__}: {error}"
        os.write(writing, answer.replace("\n", " ").encode()[:2000])
        os._exit(0)
    os.close(writing)
    with os.fdopen(reading, "rb") as pipe:
        answer = pipe.read().decode()
    status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
    return answer or f"ended with {status}"


def main() -> int:
    import numpy  # noqa: F401
    import torch

    torch.set_num_threads(1)
    for line in sys.stdin:
        print(in_a_fork(*line.strip().split(" ", 1)), flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
