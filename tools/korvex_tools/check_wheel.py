# SPDX-License-Identifier: Apache-2.0
"""Check a wheel as a file: its tags, what it says of itself, what it holds and what that needs.

usage: python -P -m korvex_tools.check_wheel WHEEL [--kernels FOLDER]

FOLDER holds the kernels that the wheel must have, byte for byte. Each fault is one line; the exit
status is 0 where there is none.
"""

import argparse
import base64
import hashlib
import re
import sys
import tempfile
import tomllib
import zipfile
from email.parser import Parser
from pathlib import Path, PurePosixPath

from korvex_tools.elf_file import ElfFile
from korvex_tools.source_tree import SOURCE_TREE

SUFFIXES = {".cubin", ".json", ".ptx", ".py", ".pyi", ".so", ".typed"}
MODULES = (
    *("cubin_loader_native", "emulation/_native", "exact/_cuda", "exact/_native"),
    "tqx_runtime",
)
INSTRUCTION_SETS = {"x86_64": ("base", "fma", "avx512"), "aarch64": ("base",)}
# As in tests/test_00_installed_package.py: the C++ runtime is in, where its archive is installed.
LIBRARIES = {"libc.so.6", "libdl.so.2", "libm.so.6", "libpthread.so.0"}
LIBRARIES |= {"ld-linux-aarch64.so.1", "ld-linux-x86-64.so.2", "libgcc_s.so.1"}
# Without its archive a build still serves the machine that it was made on, but no other.
CXX_RUNTIME = "libstdc++.so.6"
# Of the unwinder: that of GCC 8, the oldest beside a C library of 2.28.
NEWEST_GCC = (8,)
MEGABYTE = 1_000_000
LARGEST = {"objects": 12 * MEGABYTE, "wheel": 60 * MEGABYTE}


class Wheel:
    """The files of a wheel by name, and what its name and its metadata say."""

    def __init__(self, path: Path):
        self.path = path
        with zipfile.ZipFile(path) as archive:
            names = [name for name in archive.namelist() if not name.endswith("/")]
            self.files = {name: archive.read(name) for name in names}
        self.package = {
            name: data for name, data in self.files.items() if name.startswith("korvex/")
        }
        self.name, self.version, self.python, self.abi, self.platform = path.stem.split("-")
        processor = re.search("x86_64|aarch64", self.platform)
        self.processor = processor[0] if processor else "x86_64"

    def text(self, name: str) -> str:
        return self.files[f"{self.name}-{self.version}.dist-info/{name}"].decode()


def faults(wheel: Wheel, kernels: Path | None) -> list[str]:
    """Everything that is wrong, in words."""
    found = [*tag_faults(wheel), *metadata_faults(wheel), *record_faults(wheel)]
    found += [*content_faults(wheel), *object_faults(wheel), *size_faults(wheel)]
    return found + (kernel_faults(wheel, kernels) if kernels else [])


def tag_faults(wheel: Wheel) -> list[str]:
    found = []
    if not re.fullmatch(r"cp3\d\d", wheel.python) or wheel.abi != wheel.python:
        found.append(f"tags {wheel.python}-{wheel.abi}: one CPython and its own ABI expected")
    if not re.fullmatch(r"(linux|manylinux_2_\d+)_(x86_64|aarch64)", wheel.platform):
        found.append(f"platform {wheel.platform}: Linux on x86-64 or 64-bit Arm expected")
    said = Parser().parsestr(wheel.text("WHEEL"))
    if said.get_all("Tag") != [f"{wheel.python}-{wheel.abi}-{wheel.platform}"]:
        found.append(f"WHEEL has the tags {said.get_all('Tag')}, and the file another name")
    if said["Root-Is-Purelib"] != "false":
        found.append("WHEEL says that the files are for every platform")
    return found


def metadata_faults(wheel: Wheel) -> list[str]:
    project = tomllib.loads((SOURCE_TREE / "pyproject.toml").read_text())["project"]
    said = Parser().parsestr(wheel.text("METADATA"))
    expected = {
        "Name": project["name"],
        "Version": project["version"],
        "Requires-Python": project["requires-python"],
        "License-Expression": project["license"],
    }
    return [
        f"METADATA: {key} is {said[key]}, and {value} in pyproject.toml"
        for key, value in expected.items()
        if said[key] != value
    ]


def record_faults(wheel: Wheel) -> list[str]:
    found, recorded = [], {}
    for line in wheel.text("RECORD").splitlines():
        name, digest, _ = line.rsplit(",", 2)
        recorded[name] = digest
    if recorded.keys() != wheel.files.keys():
        found.append(f"RECORD lists other files: {sorted(recorded.keys() ^ wheel.files.keys())}")
    for name, digest in recorded.items():
        digest_of_file = hashlib.sha256(wheel.files.get(name, b"")).digest()
        actual = "sha256=" + base64.urlsafe_b64encode(digest_of_file).rstrip(b"=").decode()
        if digest and digest != actual:
            found.append(f"{name} is not the file that RECORD lists")
    return found


def content_faults(wheel: Wheel) -> list[str]:
    information = f"{wheel.name}-{wheel.version}.dist-info/"
    found = [
        f"{name}: not part of the package"
        for name in wheel.files
        if name not in wheel.package and not name.startswith(information)
    ]
    found += [
        f"{name}: neither Python nor built"
        for name in wheel.package
        if PurePosixPath(name).suffix not in SUFFIXES or "__pycache__" in name
    ]
    suffix = f".cpython-{wheel.python[2:]}-{wheel.processor}-linux-gnu.so"
    wanted = {f"korvex/{name}{suffix}" for name in MODULES}
    wanted |= {host_library(name) for name in INSTRUCTION_SETS[wheel.processor]}
    objects = {name for name in wheel.package if name.endswith(".so")}
    if objects != wanted:
        found.append(f"objects: {sorted(objects)}, and {sorted(wanted)} expected")
    return found


def host_library(instruction_set: str) -> str:
    return f"korvex/emulation/libkorvex_host_kernels_{instruction_set}.so"


def object_faults(wheel: Wheel) -> list[str]:
    """What is wrong with the shared objects: their processor, what they need and what they show."""
    found = []
    for name, data in wheel.package.items():
        if name.endswith(".so"):
            with tempfile.NamedTemporaryFile() as file:
                file.write(data)
                file.flush()
                elf_file = ElfFile(Path(file.name))
            words = [*link_faults(wheel, elf_file), *symbol_faults(wheel, name, elf_file)]
            found += [f"{name} {text}" for text in words]
    return found


def link_faults(wheel: Wheel, elf_file: ElfFile) -> list[str]:
    found = []
    if elf_file.machine != wheel.processor:
        found.append(f"is for {elf_file.machine}")
    any_linux = wheel.platform.startswith("linux")
    allowed = LIBRARIES | ({CXX_RUNTIME} if any_linux else set())
    found += [f"needs {library}" for library in sorted(set(elf_file.needed) - allowed)]
    found += [f"is looked for beside {path}" for path in elf_file.search_paths]
    oldest = re.fullmatch(r"manylinux_(\d+)_(\d+)_\w+", wheel.platform)
    if oldest:
        limits = {"GLIBC": tuple(map(int, oldest.groups())), "GCC": NEWEST_GCC}
        for text in elf_file.needed_versions:
            library, _, number = text.partition("_")
            version = tuple(int(part) for part in number.split(".") if part.isdigit())
            if not version or version > limits.get(library, ()):
                found.append(f"needs {text}, which {wheel.platform} does not promise")
    return found


def symbol_faults(wheel: Wheel, name: str, elf_file: ElfFile) -> list[str]:
    """Modules show the interpreter one function; `base` on x86 takes fma from the system.

    That of compilers that bring one in software rounds wrongly where results are subnormal.
    """
    module = re.search(r"(\w+)\.cpython-", name)
    shown = rf"PyInit_{module[1]}" if module else r"korvex_host_\w+"
    others = [symbol for symbol in elf_file.exported if not re.fullmatch(shown, symbol)]
    found = [f"shows {symbol} to others" for symbol in others[:3]]
    if not set(elf_file.exported) - set(others):
        found.append(f"shows no {shown}")
    is_base = wheel.processor == "x86_64" and name == host_library("base")
    if is_base and not ("fma" in elf_file.imported and "libm.so.6" in elf_file.needed):
        found.append("does not take fma from libm")
    return found


def size_faults(wheel: Wheel) -> list[str]:
    objects = sum(len(data) for name, data in wheel.package.items() if name.endswith(".so"))
    sizes = {"objects": objects, "wheel": wheel.path.stat().st_size}
    return [
        f"{what} of {sizes[what] / MEGABYTE:.0f} MB, where {limit / MEGABYTE:.0f} are the limit"
        for what, limit in LARGEST.items()
        if sizes[what] > limit
    ]


def kernel_faults(wheel: Wheel, folder: Path) -> list[str]:
    """What differs from the kernels of a folder, and from those of states in a folder below it."""
    found = _kernel_faults(wheel, folder, "korvex/cubins/")
    states = folder / "states"
    return found + (
        _kernel_faults(wheel, states, "korvex/exact/cubins/") if states.is_dir() else []
    )


def _kernel_faults(wheel: Wheel, folder: Path, prefix: str) -> list[str]:
    held = {name.removeprefix(prefix): d for name, d in wheel.files.items() if prefix in name}
    wanted = {path.name: path.read_bytes() for path in folder.iterdir() if path.is_file()}
    if not any(name.endswith(".cubin") for name in wanted):
        return [f"{folder} holds no kernels"]
    return [
        f"{name}: not as in {folder}"
        for name in sorted(held.keys() | wanted.keys())
        if held.get(name) != wanted.get(name)
    ]


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("wheel", type=Path)
    parser.add_argument("--kernels", type=Path)
    options = parser.parse_args(arguments)
    wheel = Wheel(options.wheel)
    found = faults(wheel, options.kernels)
    for fault in found:
        print(f"{wheel.path.name}: {fault}", file=sys.stderr)
    if not found:
        kernels = sum(name.endswith((".cubin", ".ptx")) for name in wheel.package)
        print(f"{wheel.path.name}: {len(wheel.package)} files, {kernels} of them kernels; no fault")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
