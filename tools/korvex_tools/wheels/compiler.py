# SPDX-License-Identifier: Apache-2.0
"""The C++ compiler of the wheels: zig, itself a wheel, for any processor and C library.

It comes with its own C++ library, which goes into each object, and would put its own unwinder there
too. CPython before 3.14 ends daemon threads through the system's unwinder, and a second one that is
handed the first one's state aborts. So the linker is shown a library with the names of the system's
ahead of zig's own, and the objects ask for libgcc_s, as those of g++ do.
"""

import importlib.util
import subprocess
from dataclasses import dataclass
from pathlib import Path

from korvex_tools.wheels.targets import GLIBC

# The functions that C++ runtimes call, by the release of GCC that brought them.
UNWINDER = {
    "GCC_3.0": (
        "_Unwind_DeleteException",
        "_Unwind_ForcedUnwind",
        "_Unwind_GetDataRelBase",
        "_Unwind_GetGR",
        "_Unwind_GetIP",
        "_Unwind_GetLanguageSpecificData",
        "_Unwind_GetRegionStart",
        "_Unwind_GetTextRelBase",
        "_Unwind_RaiseException",
        "_Unwind_Resume",
        "_Unwind_SetGR",
        "_Unwind_SetIP",
    ),
    "GCC_3.3": (
        "_Unwind_Backtrace",
        "_Unwind_FindEnclosingFunction",
        "_Unwind_GetCFA",
        "_Unwind_Resume_or_Rethrow",
    ),
    "GCC_4.2.0": ("_Unwind_GetIPInfo",),
}


@dataclass(frozen=True)
class Compiler:
    path: Path
    """What stands for c++."""
    link_options: tuple[str, ...]


def find_zig() -> Path:
    package = importlib.util.find_spec("ziglang")
    if package is None or package.origin is None:
        raise SystemExit("The wheels are compiled by zig: pip install ziglang (the extra release).")
    return Path(package.origin).parent / "zig"


def make_compiler(processor: str, folder: Path) -> Compiler:
    """A compiler for a processor as a program of its own, and the unwinder to link with."""
    folder.mkdir(parents=True, exist_ok=True)
    # -O2 where CMake names no level, as it tries the compiler: zig compiles its own C++ library for
    # each level that it meets, in minutes. Without one it would also add checks for undefined
    # behaviour, and it brings no library for them.
    command = f"{find_zig()} c++ -target {processor}-linux-gnu.{GLIBC[0]}.{GLIBC[1]}"
    path = folder / f"zig-{processor}"
    text = f'#!/bin/sh\nexec {command} -O2 -fno-sanitize=undefined "$@"\n'
    # A compiler of another date would compile everything anew.
    if not path.exists() or path.read_text() != text:
        path.write_text(text)
        path.chmod(0o755)
    return Compiler(path, (str(make_unwinder(path, folder)), "-s"))


def make_unwinder(compiler: Path, folder: Path) -> Path:
    """A libgcc_s of empty functions, for the linker alone."""
    source, versions = folder / "unwinder.cpp", folder / "unwinder.map"
    names = [name for group in UNWINDER.values() for name in group]
    source.write_text("".join(f'extern "C" void {name}() {{}}\n' for name in names))
    text, older = "", ""
    for version, group in UNWINDER.items():
        hidden = "" if older else " local: *;"
        text += f"{version} {{ global: {'; '.join(group)};{hidden} }}{older};\n"
        older = f" {version}"
    versions.write_text(text)
    library = folder / "libgcc_s.so.1"
    options = ["-shared", "-nostdlib", "-nostdlib++", "-Wl,-soname,libgcc_s.so.1"]
    subprocess.run(
        [compiler, *options, f"-Wl,--version-script={versions}", source, "-o", library], check=True
    )
    return library
