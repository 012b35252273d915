# SPDX-License-Identifier: Apache-2.0
"""The built parts of wheels: kernels once for all, host libraries once for a processor, modules."""

import subprocess
import sys
from pathlib import Path

from korvex_tools.source_tree import SOURCE_TREE
from korvex_tools.wheels.compiler import Compiler
from korvex_tools.wheels.targets import Target


def run(log: Path, *command: object) -> None:
    """Output goes to the log, whose last lines are shown where the command fails."""
    with log.open("w") as file:
        process = subprocess.run(list(map(str, command)), stdout=file, stderr=subprocess.STDOUT)
    if process.returncode != 0:
        lines = log.read_text(errors="replace").splitlines()[-30:]
        raise SystemExit("\n".join([*lines, f"failed, as {log} says: {command[0]}"]))


def make_kernels(architectures: str, compilers: Path, folder: Path) -> Path | None:
    """The kernels as KORVEX_KERNELS wants them: by NVRTC, and by nvcc with this machine's C++."""
    if architectures == "none":
        return None
    log = folder.with_suffix(".log")
    native = subprocess.check_output([SOURCE_TREE / "scripts" / "find_compiler.sh"], text=True)
    run(
        log,
        *("cmake", "-G", "Ninja", "-S", SOURCE_TREE, "-B", folder, "-DCMAKE_BUILD_TYPE=Release"),
        f"-DCMAKE_CXX_COMPILER={native.strip()}",
        f"-DPython_EXECUTABLE={sys.executable}",
        f"-DKORVEX_CUDA_ARCHITECTURES={architectures}",
        f"-DKORVEX_CUDA_COMPILERS={compilers}",
    )
    run(log, "cmake", "--build", folder, "--target", "korvex_cubins")
    return folder / "korvex" / "kernels" / "device" / "cubins"


def build_tree(
    target: Target, compiler: Compiler, headers: Path, kernels: Path | None, work: Path
) -> Path:
    """What belongs into the wheel beside the Python files, under the folder that it returns.

    One build folder serves all interpreters of a processor: the host libraries do not see Python,
    and are compiled for the first one only.
    """
    folder, log = work / f"build-{target.processor}", work / f"build-{target}.log".replace(" ", "-")
    linker_flags = " ".join(compiler.link_options)
    other_processor = [
        "-DCMAKE_SYSTEM_NAME=Linux",
        f"-DCMAKE_SYSTEM_PROCESSOR={target.processor}",
    ]
    run(
        log,
        *("cmake", "-G", "Ninja", "-S", SOURCE_TREE, "-B", folder, "-DCMAKE_BUILD_TYPE=Release"),
        *(other_processor if target.processor != "x86_64" else ()),
        f"-DCMAKE_CXX_COMPILER={compiler.path}",
        f"-DCMAKE_SHARED_LINKER_FLAGS={linker_flags}",
        f"-DCMAKE_MODULE_LINKER_FLAGS={linker_flags}",
        f"-DPython_EXECUTABLE={sys.executable}",
        f"-DKORVEX_PYTHON_INCLUDE={headers}",
        f"-DKORVEX_PYTHON_SUFFIX={target.module_suffix}",
        "-DKORVEX_CUDA_ARCHITECTURES=" + ("none" if kernels is None else "all"),
        f"-DKORVEX_KERNELS={kernels or ''}",
    )
    run(log, "cmake", "--build", folder)
    tree = work / f"tree-{target.tag}-{target.processor}"
    run(log.with_suffix(".install.log"), "cmake", "--install", folder, "--prefix", tree)
    return tree
