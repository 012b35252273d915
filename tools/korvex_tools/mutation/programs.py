# SPDX-License-Identifier: Apache-2.0
"""The test programs that a mutant must get past, compiled piece by piece in a copy of the tree.

The sources as they are compile once for every instruction set and level. A mutant compiles what
includes its file; an object that comes out byte for byte as before cannot make a test fail, so a
program whose objects are all as before is not run.
"""

import contextlib
import hashlib
import math
import os
import re
import resource
import shutil
import subprocess
from collections.abc import Iterator
from dataclasses import dataclass, field
from pathlib import Path

from korvex_tools.mutation.mutants import Mutant
from korvex_tools.source_tree import SOURCE_TREE

# As cmake/KorvexFlags.cmake, but warnings: a mutant may leave a name unused.
FLAGS = (
    "-std=c++20 -ffp-contract=off -fno-fast-math -fno-math-errno -fno-trapping-math "
    "-fvisibility=hidden -fvisibility-inlines-hidden -fPIC -pthread -w "
    "-DKORVEX_TEST_ENDS_AT_FAILURE"
).split()
INSTRUCTION_SETS = {
    "base": [],
    "fma": ["-mfma", "-mavx2", "-mf16c"],
    "avx512": "-mfma -mavx2 -mf16c -mavx512f -mavx512dq -mavx512vl -mprefer-vector-width=512 "
    "-fno-tree-slp-vectorize".split(),
}
NEEDED = {
    "base": set(),
    "fma": {"fma", "avx2", "f16c"},
    "avx512": {"avx512f", "avx512dq", "avx512vl"},
}
TEST_LEVEL, EQUIVALENCE_LEVEL = "-O1", "-O2"

SUITES = (
    "eft bignum long_accumulator canonical exact_sum exact_state sum dot matrix_product pairs "
    "elementary host_doubles reductions wide_numbers"
).split()
HOST, MODULAR = "korvex/kernels/host", "korvex/kernels/modular"
HOST_SOURCES = sorted(
    str(path.relative_to(SOURCE_TREE))
    for folder in (HOST, MODULAR)
    for path in (SOURCE_TREE / folder).glob("*.cpp")
)
PRODUCT_SOURCES = tuple(
    name
    for name in HOST_SOURCES
    if name.startswith((MODULAR, f"{HOST}/matrix_product", f"{HOST}/modular_", f"{HOST}/some_"))
    or name == f"{HOST}/threads.cpp"
)
WITH_VNNI = "modular_product"  # runs in the build for AVX-512 only
LIBRARY_CHECKS = ("host_kernels", "golden", "exact")
PYTHON_CHECKS = {
    "golden": "korvex_tools.mutation.golden_cases",
    "exact": "korvex_tools.mutation.exact_cases",
}
SECONDS_TO_COMPILE = 1800  # where other work leaves it little of the machine
PASSED = "passed"


class NotCompiled(Exception):
    """What the compiler said."""


class FailsUnchanged(Exception):
    """A program or check that fails on the tree as it is, so it can tell nothing of mutants."""


@dataclass(frozen=True)
class Program:
    name: str
    sources: tuple[str, ...]
    is_library: bool = False  # linked as the host kernels, and given to a program or to Python


def all_programs() -> dict[str, Program]:
    found = {}
    for suite in SUITES:
        extra = PRODUCT_SOURCES if suite == "matrix_product" else ()
        found[suite] = Program(suite, (f"tests/cpp/test_{suite}.cpp", f"mains/{suite}.cpp", *extra))
    for name in ("parallel_sum", "parallel_dot"):
        found[name] = Program(name, (f"tests/device_code/test_{name}.cpp",))
    found[WITH_VNNI] = Program(WITH_VNNI, ("tests/cpp/test_modular_product.cpp", *PRODUCT_SOURCES))
    reductions = tuple(f"{HOST}/{name}.cpp" for name in ("reductions", "rms_norm", "threads"))
    found["quick_reductions"] = Program(
        "quick_reductions", ("tests/cpp/test_quick_reductions.cpp", *reductions)
    )
    found["out_of_memory"] = Program(
        "out_of_memory", ("tests/cpp/test_out_of_memory.cpp", *HOST_SOURCES)
    )
    for name in LIBRARY_CHECKS:
        found[name] = Program(name, tuple(HOST_SOURCES), is_library=True)
    return found


PROGRAMS = all_programs()
# Headers of the library that tests include, compiled once: half of the time of a small test.
STANDARD_HEADERS = (
    "algorithm array atomic bit cfloat chrono cmath cstddef cstdint cstdio cstdlib cstring "
    "exception functional limits map memory new sstream stdexcept string string_view thread "
    "tuple type_traits utility vector"
).split()
MAIN = """#include "tests/cpp/check.h"
#include "tests/cpp/suites.h"
int main() {{
  korvex::test::test_{suite}();
  return korvex::test::Tally::all().finish();
}}
"""


def limit(seconds: float) -> int:
    """Seconds of the processor for what takes so many unchanged."""
    return math.ceil(2 + 5 * seconds)


def usable_sets() -> list[str]:
    text = Path("/proc/cpuinfo").read_text()
    found = re.search(r"^flags\s*:(.*)$", text, re.MULTILINE)
    flags = set(found.group(1).split()) if found else set()
    return [name for name, needed in NEEDED.items() if needed <= flags]


@dataclass
class Tree:
    """A copy of the sources in which one file at a time is a mutant."""

    folder: Path
    compiler: str
    kept: Path | None = None  # objects of the originals, from run to run
    objects: dict[tuple[str, str, str], bytes] = field(default_factory=dict)  # of the originals
    of_mutant: dict[tuple[str, str, str], bytes] = field(default_factory=dict)
    includes: dict[str, set[str]] = field(default_factory=dict)
    seconds: dict[str, float] = field(default_factory=dict)

    def fill(self, source: Path = SOURCE_TREE) -> None:
        shutil.rmtree(self.folder, ignore_errors=True)
        ignored = shutil.ignore_patterns("*.so", "__pycache__")
        for name in ("korvex", "tests/cpp", "tests/device_code"):
            shutil.copytree(source / name, self.folder / name, ignore=ignored)
        (self.folder / "mains").mkdir()
        for suite in SUITES:
            (self.folder / "mains" / f"{suite}.cpp").write_text(MAIN.format(suite=suite))

    @contextlib.contextmanager
    def planted(self, mutant: Mutant) -> Iterator[None]:
        path = self.folder / mutant.file
        source = path.read_text()
        path.write_text(mutant.applied_to(source))
        try:
            yield
        finally:
            path.write_text(source)
            self.of_mutant.clear()

    # --- Compiling

    def compiled(self, source: str, instruction_set: str, level: str) -> bytes:
        made = self.folder / "made.o"
        made.unlink(missing_ok=True)
        options = [level, *INSTRUCTION_SETS[instruction_set]]
        header = self.standard_headers(f"{instruction_set}{level}", options)
        inputs = ["-frandom-seed=1", "-I.", "-include", header, "-c", source, "-o", "made.o"]
        self.compile([*options, *inputs])
        return made.read_bytes()

    def compile(self, options: list[str]) -> str:
        try:
            done = subprocess.run(
                [self.compiler, *FLAGS, *options],
                cwd=self.folder,
                capture_output=True,
                text=True,
                timeout=SECONDS_TO_COMPILE,
            )
        except subprocess.TimeoutExpired as error:
            raise NotCompiled("the compiler did not end") from error
        if done.returncode < 0 or "terminated program" in done.stderr:
            raise RuntimeError(f"the compiler was ended from outside: {done.stderr}")
        if done.returncode != 0:
            raise NotCompiled(done.stderr)
        return done.stdout

    def standard_headers(self, name: str, options: list[str]) -> str:
        header = self.folder / "headers" / name / "standard.h"
        if not header.exists():
            header.parent.mkdir(parents=True)
            header.write_text("".join(f"#include <{name}>\n" for name in STANDARD_HEADERS))
            self.compile([*options, "-x", "c++-header", str(header), "-o", f"{header}.gch"])
        return str(header)

    def original(self, source: str, instruction_set: str, level: str) -> bytes:
        """The object of the source as it is. Precondition: no file is a mutant."""
        key = (source, instruction_set, level)
        if key not in self.objects:
            kept = self.kept and self.kept / f"{self.digest(*key)}.o"
            if kept and kept.exists():
                self.objects[key] = kept.read_bytes()
            else:
                self.objects[key] = self.compiled(source, instruction_set, level)
            if kept and not kept.exists():
                written = kept.with_suffix(f".{os.getpid()}")
                written.write_bytes(self.objects[key])
                written.replace(kept)
        return self.objects[key]

    def digest(self, source: str, instruction_set: str, level: str) -> str:
        """Of all that the object is made from, but for the compiler's own headers."""
        made_from = [self.version(), level, *FLAGS, *INSTRUCTION_SETS[instruction_set], source]
        digest = hashlib.sha256("\n".join(made_from).encode())
        for name in sorted(self.includes_of(source)):
            digest.update((self.folder / name).read_bytes())
        return digest.hexdigest()

    def version(self) -> str:
        """The compiler's."""
        command = [self.compiler, "--version"]
        return subprocess.run(command, capture_output=True, text=True, check=True).stdout

    def includes_of(self, source: str) -> set[str]:
        """The files that the source is made of. Precondition: no file is a mutant."""
        if source not in self.includes:
            rules = self.compile(["-MM", "-I.", source]).replace("\\\n", " ").split()
            self.includes[source] = {str(Path(name)) for name in rules[1:]} | {source}
        return self.includes[source]

    def covers(self, program: Program, file: str) -> bool:
        return any(file in self.includes_of(source) for source in program.sources)

    def changed_objects(
        self, program: Program, file: str, instruction_set: str, level: str
    ) -> dict[str, bytes]:
        """Of the sources that include the mutant: the objects that are no longer the same."""
        changed = {}
        for source in program.sources:
            if file in self.includes_of(source):
                key = (source, instruction_set, level)
                if key not in self.of_mutant:
                    self.of_mutant[key] = self.compiled(source, instruction_set, level)
                if self.of_mutant[key] != self.objects[key]:
                    changed[source] = self.of_mutant[key]
        return changed

    # --- Running

    def link(self, program: Program, instruction_set: str, changed: dict[str, bytes]) -> Path:
        """The program, or the library, of these objects and the original ones of its sources."""
        folder = self.folder / "objects"
        folder.mkdir(exist_ok=True)
        names = []
        for source in program.sources:
            data = changed.get(source) or self.objects[source, instruction_set, TEST_LEVEL]
            names.append(folder / f"{Path(source).parent.name}-{Path(source).stem}.o")
            names[-1].write_bytes(data)
        made = self.folder / (f"{program.name}.so" if program.is_library else program.name)
        made.unlink(missing_ok=True)
        options = ["-shared"] if program.is_library else []
        subprocess.run(
            [self.compiler, *options, *names, "-pthread", "-ldl", "-o", made],
            check=True,
            capture_output=True,
        )
        return made

    def command(self, program: Program, made: Path, instruction_set: str) -> list[str]:
        if program.name == "out_of_memory":
            return [str(made), instruction_set]
        if program.name == "host_kernels":
            return [str(self.caller(instruction_set)), str(made), instruction_set]
        return [str(made)]

    def caller(self, instruction_set: str) -> Path:
        """tests/cpp/test_host_kernels.cpp, which loads a library, from the sources as they are."""
        made = self.folder / f"caller-{instruction_set}"
        if not made.exists():
            source = Program("caller", ("tests/cpp/test_host_kernels.cpp",))
            self.original(source.sources[0], instruction_set, TEST_LEVEL)
            shutil.move(self.link(source, instruction_set, {}), made)
        return made

    def said(
        self, program: Program, made: Path, instruction_set: str, seconds: int
    ) -> tuple[str, float]:
        """What came of its tests in so many seconds of the processor, and how many they took."""
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        try:
            ended = subprocess.run(
                self.command(program, made, instruction_set),
                stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL,
                timeout=60 + 10 * seconds,  # where it waits for ever
                cwd=self.folder,
                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_CPU, (seconds, seconds)),
            )
        except subprocess.TimeoutExpired:
            return "did not end", 0.0
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        used = after.ru_utime - before.ru_utime
        return (PASSED if ended.returncode == 0 else f"status {ended.returncode}"), used
