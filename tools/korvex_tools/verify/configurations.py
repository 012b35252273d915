# SPDX-License-Identifier: Apache-2.0
"""What is compared: the devices, and the host kernels that it compiles for them."""

import os
import platform
import shutil
import subprocess
import sys
from dataclasses import dataclass, field
from pathlib import Path

from korvex_tools.source_tree import SOURCE_TREE

BUILD = SOURCE_TREE / "build" / "verify"
LEVELS = ("O0", "O2")
KERNELS = {
    "base": "without FMA" if platform.machine() == "x86_64" else "with the FMA of every Arm",
    "fma": "with FMA",
    "avx512": "with AVX-512",
}
ALL_THREADS = len(os.sched_getaffinity(0))


@dataclass
class Configuration:
    name: str
    what: str
    arguments: list[str]  # of run.py
    environment: dict[str, str] = field(default_factory=dict)
    level: str | None = None  # of a library that is compiled for it
    instruction_set: str = "base"


def installed(instruction_set: str, threads: int, name: str) -> Configuration:
    kernels = KERNELS[instruction_set]
    counted = "1 thread" if threads == 1 else f"all {threads} threads"
    arguments = ["emulated", "--instruction-set", instruction_set, "--threads", str(threads)]
    # One of them leaves out torch's vector instructions as well.
    plain = instruction_set == "base" and name == "base-1"
    torch_part = ", torch without vectors" if plain else ""
    return Configuration(
        name,
        f"emulated, {kernels}, {counted}{torch_part}",
        arguments,
        {"ATEN_CPU_CAPABILITY": "default"} if plain else {},
        instruction_set=instruction_set,
    )


def compiled(instruction_set: str, level: str) -> Configuration:
    kernels = KERNELS[instruction_set]
    library = library_of(instruction_set, level)
    return Configuration(
        f"{instruction_set}-{level}",
        f"emulated, {kernels}, compiled at -{level}",
        ["emulated", "--library", str(library), "--threads", str(ALL_THREADS)],
        level=level,
        instruction_set=instruction_set,
    )


def library_of(instruction_set: str, level: str) -> Path:
    return BUILD / f"libkorvex_host_kernels_{instruction_set}_{level}.so"


def given(library: Path) -> Configuration:
    arguments = ["emulated", "--library", str(library.resolve()), "--threads", str(ALL_THREADS)]
    return Configuration(str(library), f"emulated, kernels of {library}", arguments)


def all_configurations() -> list[Configuration]:
    return [
        *(installed(name, 1, f"{name}-1") for name in KERNELS),
        *(installed(name, ALL_THREADS, f"{name}-all") for name in KERNELS),
        *(compiled(name, level) for name in KERNELS for level in LEVELS),
        Configuration("gpu", "GPU", ["gpu"]),
    ]


# --- Compiling


def why_not_compiled() -> str | None:
    """Why the libraries cannot be compiled here; None where they can."""
    if not (SOURCE_TREE / "korvex" / "kernels" / "host" / "launch.cpp").exists():
        return "no sources"
    if cmake() is None:
        return "no CMake"
    return None if compiler() else "no C++20 compiler"


def cmake() -> str | None:
    """Beside the interpreter, where pip puts it, or on the path."""
    beside = Path(sys.executable).with_name("cmake")
    return str(beside) if beside.exists() else shutil.which("cmake")


def compiler() -> str | None:
    script = SOURCE_TREE / "scripts" / "find_compiler.sh"
    found = subprocess.run([script], capture_output=True, text=True, cwd=SOURCE_TREE)
    return found.stdout.strip() or None


def compile_libraries() -> str | None:
    """All of them, into build/verify. What the compiler said where it failed, else None."""
    steps = [
        [cmake(), "-S", "cmake/verify", "-B", str(BUILD), "-DKORVEX_WERROR=OFF"],
        [cmake(), "--build", str(BUILD), "--parallel", str(ALL_THREADS)],
    ]
    for step in steps:
        done = subprocess.run(
            step,
            cwd=SOURCE_TREE,
            env=os.environ | {"CXX": compiler() or ""},
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        if done.returncode != 0:
            return done.stdout[-3000:]
    return None


def compiler_version() -> str | None:
    found = compiler()
    if found is None:
        return None
    printed = subprocess.run([*found.split(), "--version"], capture_output=True, text=True)
    return printed.stdout.partition("\n")[0] or None
