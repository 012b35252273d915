# SPDX-License-Identifier: Apache-2.0
"""Time `pip install SDIST` into a new environment, as on a machine without a compiler for GPUs.

usage: python -P -m korvex_tools.time_source_install [--kernels]

The sdist is made of the tree as it is. What pip fetches for the build is fetched before, so that
the timed run finds it in pip's cache. Printed are seconds on the clock and of processor time, and
the sentence that says which GPUs the result serves; with it missing the exit status is 1. --kernels
lets the build compile kernels by what it finds; else an option leaves them out, since the build
looks for compilers in other places than the search path too.
"""

import argparse
import os
import resource
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from korvex_tools.source_tree import SOURCE_TREE

MAKE_SDIST = "import sys; from scikit_build_core.build import build_sdist; build_sdist(sys.argv[1])"
NO_KERNELS = "--config-settings=cmake.define.KORVEX_CUDA_ARCHITECTURES=none"
TRY = "import numpy as np; from korvex import exact; print(exact.sum(np.array([1e16, 1, -1e16])))"


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kernels", action="store_true", help="with the compilers of this machine")
    options = parser.parse_args(arguments)
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run([sys.executable, "-c", MAKE_SDIST, folder], check=True, cwd=SOURCE_TREE)
        [sdist] = Path(folder).glob("*.tar.gz")
        python = new_environment(Path(folder) / "environment")
        needed = [*build_requirements(), "numpy", "cmake", "ninja"]
        pip(python, "wheel", "--quiet", "--no-deps", "--wheel-dir", folder, *needed)
        begin, used = time.monotonic(), processor_time()
        without = () if options.kernels else (NO_KERNELS,)
        output = pip(python, "install", "-v", *without, sdist)
        seconds, used = time.monotonic() - begin, processor_time() - used
        sums = subprocess.check_output([python, "-P", "-c", TRY], text=True, cwd=folder).strip()
    print(f"pip install SDIST: {seconds:.0f} s, {used:.0f} s of processor time")
    print(f"on {os.cpu_count()} processors; {sdist.name}")
    said = [line.strip(" -") for line in output.splitlines() if "korvex serves" in line]
    print("\n".join(said) or "It did not say which GPUs it serves.")
    return 0 if said and sums == "1.0" else 1


def new_environment(folder: Path) -> Path:
    subprocess.run([sys.executable, "-m", "venv", folder], check=True)
    return folder / "bin" / "python"


def build_requirements() -> list[str]:
    script = SOURCE_TREE / "scripts" / "list_requirements.py"
    return subprocess.check_output([sys.executable, script], text=True).split()


def pip(python: Path, *arguments: object) -> str:
    environment = os.environ | {"PIP_DISABLE_PIP_VERSION_CHECK": "1"}
    environment.pop("CMAKE_CXX_COMPILER_LAUNCHER", None)
    command = [str(python), "-m", "pip", *map(str, arguments)]
    # pip shows what the build prints among its errors.
    process = subprocess.run(
        command, env=environment, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT
    )
    if process.returncode != 0:
        raise SystemExit(process.stdout[-6000:])
    return process.stdout


def processor_time() -> float:
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
