# SPDX-License-Identifier: Apache-2.0
"""Installs a wheel with each of its extras into a new environment, and tries what the extra is for.

usage: python -P -m korvex_tools.try_extras WHEEL [--only EXTRA...] [--latest]

The distribution comes from the file that was just built, never by its name from an index; what it
needs comes from the index, in the versions of constraints.txt or, with --latest, in the newest. An
environment goes when its trial has passed; that of a failed one is left for a look. The last lines
are one for each extra; the exit status is 1 if one says FAILED.
"""

import argparse
import shutil
import subprocess
import sys
import time
import zipfile
from collections.abc import Callable
from email.parser import Parser
from pathlib import Path

from korvex_tools.source_tree import SOURCE_TREE

WORK = SOURCE_TREE / "build" / "extras"
DATA = SOURCE_TREE / "examples" / "data" / "NumAcc4.txt"

ON_THE_EMULATED_DEVICE = """
import korvex.emulation
korvex.emulation.activate()
import torch, korvex.tqx_runtime as tqx
x = torch.tensor([1e16, 1.0, -1e16], device="cuda", dtype=torch.float64)
assert float(tqx.tqx_sum(x)) == 1.0
"""
WITHOUT_EXTRAS = """
import numpy as np
from korvex import exact
assert exact.sum(np.array([1e16, 1.0, -1e16])) == 1.0
try:
    import korvex.tqx_runtime
except ImportError as error:
    print(str(error).splitlines()[0])
else:
    raise AssertionError("imported without torch")
"""


class Environment:
    """A new virtual environment with the wheel and one of its extras."""

    def __init__(self, wheel: Path, extra: str, options: list[str]) -> None:
        self.folder = WORK / (extra or "none")
        shutil.rmtree(self.folder, ignore_errors=True)
        run(sys.executable, "-m", "venv", self.folder)
        self.install(f"{wheel}[{extra}]" if extra else str(wheel), *options)

    def program(self, name: str) -> Path:
        return self.folder / "bin" / name

    def install(self, *what: str) -> None:
        run(self.program("python"), "-m", "pip", "install", "-qq", *what)

    def python(self, *arguments: object) -> None:
        run(self.program("python"), "-P", *arguments)


def run(*command: object) -> None:
    """Fails with an error that names the command; what it prints is shown."""
    subprocess.run(list(map(str, command)), check=True, cwd=WORK)


# --- What each extra is for


def without_extras(environment: Environment) -> None:
    environment.python("-c", WITHOUT_EXTRAS)


def emulated(environment: Environment) -> None:
    environment.python("-c", ON_THE_EMULATED_DEVICE)


def with_cupy(environment: Environment) -> None:
    environment.python("-W", "ignore", "-c", "import cupy; print('cupy', cupy.__version__)")
    emulated(environment)


def command(environment: Environment) -> None:
    korvex, record = environment.program("korvex"), environment.folder / "record.json"
    run(korvex, "sum", DATA)
    run(korvex, "record", DATA, "--output", record)
    run(korvex, "verify", record)


def processes(environment: Environment) -> None:
    environment.install("mpich")  # an MPI is not part of the extra
    example = SOURCE_TREE / "examples" / "sum_over_mpi.py"
    mpiexec, python = environment.program("mpiexec"), environment.program("python")
    run(mpiexec, "-n", 2, python, "-P", example, "--count", 30_000)


def dask(environment: Environment) -> None:
    environment.python(SOURCE_TREE / "examples" / "sum_over_dask.py", "--count", 30_000)


def imports(*modules: str) -> Callable[[Environment], None]:
    return lambda environment: environment.python("-c", "import " + ", ".join(modules))


TRIALS: dict[str, Callable[[Environment], None]] = {
    "": without_extras,
    "torch": emulated,
    "cuda11": with_cupy,
    "cuda12": with_cupy,
    "cuda13": with_cupy,
    "cli": command,
    "mpi": processes,
    "dask": dask,
    "test": imports("array_api_strict", "gmpy2", "hypothesis", "ml_dtypes", "pytest", "torch"),
    "dev": imports("matplotlib", "mypy"),
    "docs": imports("furo", "myst_parser", "sphinx"),
    "release": imports("ziglang"),
}


def extras_of(wheel: Path) -> list[str]:
    with zipfile.ZipFile(wheel) as archive:
        [name] = [name for name in archive.namelist() if name.endswith(".dist-info/METADATA")]
        metadata = Parser().parsestr(archive.read(name).decode())
    return ["", *metadata.get_all("Provides-Extra", [])]


def tried(wheel: Path, extra: str, options: list[str]) -> str:
    begin = time.monotonic()
    try:
        environment = Environment(wheel, extra, options)
        TRIALS[extra](environment)
    except subprocess.CalledProcessError as error:
        return f"FAILED: {error}"
    shutil.rmtree(environment.folder)
    return f"passed in {time.monotonic() - begin:.0f} s"


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("wheel", type=Path)
    parser.add_argument("--only", nargs="+", metavar="EXTRA", help="these extras only")
    parser.add_argument("--latest", action="store_true", help="without constraints.txt")
    options = parser.parse_args()
    wheel, extras = options.wheel.resolve(), extras_of(options.wheel)
    if unknown := set(extras) ^ set(TRIALS):
        parser.error(f"extras without a trial, or the reverse: {', '.join(sorted(unknown))}")
    if unknown := set(options.only or ()) - set(extras):
        parser.error(f"no such extra: {', '.join(sorted(unknown))}")
    WORK.mkdir(parents=True, exist_ok=True)
    constraints = [] if options.latest else ["--constraint", str(SOURCE_TREE / "constraints.txt")]
    lines = {}
    for extra in options.only or extras:
        print(f"=== {extra or 'no extra'}", flush=True)
        lines[extra] = tried(wheel, extra, constraints)
    for extra, line in lines.items():
        print(f"{extra or 'no extra':10} {line}")
    return int(any(line.startswith("FAILED") for line in lines.values()))


if __name__ == "__main__":
    sys.exit(main())
