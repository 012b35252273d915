# SPDX-License-Identifier: Apache-2.0
"""Reads compiled kernels: resources and loops out of cubins, double arithmetic out of PTX.

NVIDIA's cuobjdump and nvdisasm do the reading of machine code; the latter knows compute capability
7.5 and newer.
"""

import functools
import importlib.util
import json
import re
import shutil
import struct
import subprocess
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple

OLDEST_DISASSEMBLED = 75


@functools.cache
def tool(name: str) -> str | None:
    """The program, from PATH or from the package that pip installs it with."""
    if found := shutil.which(name):
        return found
    spec = importlib.util.find_spec("nvidia")
    for folder in spec.submodule_search_locations if spec else ():
        path = Path(folder) / "cu13" / "bin" / name
        if path.exists():
            return str(path)
    return None


def _output(name: str, *arguments: str) -> str:
    run = subprocess.run([tool(name), *arguments], capture_output=True, text=True)
    if run.returncode != 0:
        raise RuntimeError(f"{name} {' '.join(arguments)}: {run.stdout}{run.stderr}")
    return run.stdout


def architecture(path: Path) -> int:
    """The number in the name: 90 of korvex_sm_90.cubin."""
    return int(re.search(r"_(\d+)\.", path.name).group(1))


def compiler_of(path: Path) -> str:
    """Name and release of the compiler of a file, without the last number: "nvcc 13.0"."""
    compilers = json.loads((path.parent / "compilers.json").read_text())
    return compilers[path.name].rpartition(".")[0]


def row_name(cubin: Path) -> str:
    """What a file's row in a golden table is called: "sm_90, nvcc 13.0"."""
    return f"sm_{architecture(cubin)}, {compiler_of(cubin)}"


def resources(cubin: Path) -> dict[str, dict[str, int]]:
    """Of each kernel: registers of a thread, bytes of stack, bytes of static shared memory."""
    text = _output("cuobjdump", "-res-usage", str(cubin))
    found = {}
    for name, line in re.findall(r"Function (\w+):\s*\n(.*)", text):
        numbers = dict(re.findall(r"(\w+)(?:\[\d\])?:(\d+)", line))
        found[name] = {
            "registers": int(numbers["REG"]),
            "stack": int(numbers["STACK"]),
            "shared": int(numbers["SHARED"]),
        }
    return found


_SECTION_SYMBOLS = 2
_SYMBOL_VARIABLE = 1
_SYMBOL_FUNCTION = 2
_SECTION_HEADER = "<IIQQQQIIQQ"


class _Symbol(NamedTuple):
    name: str
    kind: int
    section: int  # 0: undefined


def _symbol_table(cubin: Path) -> Iterator[_Symbol]:
    """The symbols that have a name; a cubin is an ELF file."""
    image = cubin.read_bytes()
    assert image[:6] == b"\x7fELF\x02\x01"
    (table,) = struct.unpack_from("<Q", image, 0x28)
    entry_size, count = struct.unpack_from("<HH", image, 0x3A)
    sections = [
        struct.unpack_from(_SECTION_HEADER, image, table + index * entry_size)
        for index in range(count)
    ]
    for _, kind, _, _, offset, size, link, *_ in sections:
        if kind == _SECTION_SYMBOLS:
            strings = sections[link][4]
            for record in struct.iter_unpack("<IBBHQQ", image[offset : offset + size]):
                start = strings + record[0]
                if symbol := image[start : image.index(b"\0", start)].decode():
                    yield _Symbol(symbol, record[1] & 15, record[3])


def symbols(cubin: Path) -> tuple[list[str], list[str]]:
    """Names of the undefined symbols and of the functions."""
    table = list(_symbol_table(cubin))
    undefined = [symbol.name for symbol in table if symbol.section == 0]
    functions = [
        symbol.name for symbol in table if symbol.section != 0 and symbol.kind == _SYMBOL_FUNCTION
    ]
    return undefined, functions


def variables(cubin: Path) -> list[str]:
    """Names of the variables in static memory."""
    return [symbol.name for symbol in _symbol_table(cubin) if symbol.kind == _SYMBOL_VARIABLE]


# --- Loops in machine code

_INSTRUCTION = re.compile(r"^\s+/\*([0-9a-f]{4,})\*/\s+(.*?);\s*/\* (0x[0-9a-f]{16}) \*/")
_ENCODING = re.compile(r"/\* (0x[0-9a-f]{16}) \*/\s*$")
_LABEL = re.compile(r"^([.$\w]+):\s*$")
_BRANCH = re.compile(r"\bBRA(?:\.\w+)* .*`\(([.$\w]+)\)")
_STALL_SHIFT = 105 - 64  # of the cycles that the scheduler waits after an instruction


class Listing:
    """The instructions of one kernel with all that it calls, and where its labels stand."""

    def __init__(self) -> None:
        self.instructions: list[tuple[str, int]] = []  # text, cycles of the scheduler
        self.labels: dict[str, int] = {}

    def loops(self):
        """Each innermost loop, as its instructions."""
        spans = []
        for end, (text, _) in enumerate(self.instructions):
            target = _BRANCH.search(text)
            start = self.labels.get(target.group(1)) if target else None
            if start is not None and start <= end:
                spans.append((start, end))
        for start, end in spans:
            if not any(
                start <= other and last <= end and (other, last) != (start, end)
                for other, last in spans
            ):
                yield self.instructions[start : end + 1]


def listings(cubin: Path) -> dict[str, Listing]:
    found: dict[str, Listing] = {}
    listing = Listing()
    lines = _output("nvdisasm", "-c", "-hex", str(cubin)).splitlines()
    for line, following in zip(lines, [*lines[1:], ""], strict=True):
        if section := re.match(r"\s*\.section\s+\.text\.(\w+),", line):
            listing = found.setdefault(section.group(1), Listing())
        elif label := _LABEL.match(line.strip()):
            listing.labels[label.group(1)] = len(listing.instructions)
        elif instruction := _INSTRUCTION.match(line):
            high = int(_ENCODING.search(following).group(1), 16)
            listing.instructions.append((instruction.group(2), high >> _STALL_SHIFT & 15))
    return found


_PAIR_LOAD = re.compile(r"\bLD[GS]?\.(?:\w+\.)*128\b")
DOUBLE_OPERATION = re.compile(r"\bD(ADD|MUL|FMA|SETP)\b")


# Of a slice, for an element. A loop with fewer only looks at elements, for a NaN or an infinity.
_LEAST_ADDITIONS = 3


# Double-precision additions that a multiprocessor finishes in a cycle (CUDA C++ Programming Guide,
# arithmetic instructions); 8.7 and 8.8 as 8.6, 12.1 as 12.0. The scheduler's cycles do not show a
# rate of 2: there an instruction waits for the one before it. Others are as the scheduler says.
DOUBLES_A_CYCLE = {75: 2, 80: 32, 86: 2, 87: 2, 88: 2, 89: 2, 90: 64, 100: 64, 120: 2, 121: 2}
WARP = 32


def least_cycles(cycles: float, doubles: float, number: int) -> float:
    """Cycles of a warp: those that the scheduler needs, or its double-precision instructions."""
    rate = DOUBLES_A_CYCLE.get(number)
    return cycles if rate is None else max(cycles, doubles * WARP / rate)


def element_loops(cubin: Path) -> dict[str, list[dict[str, float]]]:
    """Of each kernel, the innermost loops that read elements in pairs and add them up.

    Each with its double-precision instructions an element, which are part of the algorithm, and the
    cycles an element that it takes when nothing but the double-precision unit has to be waited for.
    """
    found = {}
    for name, listing in listings(cubin).items():
        loops = []
        for loop in listing.loops():
            elements = 2 * sum(bool(_PAIR_LOAD.search(text)) for text, _ in loop)
            doubles = sum(bool(DOUBLE_OPERATION.search(text)) for text, _ in loop)
            if elements and doubles >= _LEAST_ADDITIONS * elements:
                cycles = least_cycles(sum(stall for _, stall in loop), doubles, architecture(cubin))
                loops.append(
                    {
                        "fp64_per_element": doubles / elements,
                        "cycles_per_element": round(cycles / elements, 2),
                    }
                )
        found[name] = sorted(loops, key=lambda loop: loop["fp64_per_element"])
    return found


# --- PTX

_DEFINITION = re.compile(r"^(?:\.\w+ )*\.(?:entry|func)\s+(?:\([^)]*\)\s*)?([\w$]+)", re.MULTILINE)


def _bodies(ptx: str) -> dict[str, str]:
    """Each function that the text defines, with the text up to the next one."""
    starts = list(_DEFINITION.finditer(ptx))
    ends = [match.start() for match in starts[1:]] + [len(ptx)]
    found: dict[str, str] = {}
    for match, end in zip(starts, ends, strict=True):
        text = ptx[match.start() : end]
        if "{" in text:
            found[match.group(1)] = text
    return found


def fused_operations(ptx: str) -> dict[str, int]:
    """How many fused multiply-adds of doubles each kernel holds, with all that it calls."""
    ptx = re.sub(r"//.*", "", ptx)  # comments name other kernels
    bodies = _bodies(ptx)
    found = {}
    for kernel in re.findall(r"\.entry\s+(\w+)", ptx):
        reached = [kernel]
        for caller in reached:
            words = set(re.findall(r"[\w$]+", bodies[caller]))
            reached += [name for name in bodies if name in words and name not in reached]
        found[kernel] = sum(len(re.findall(r"\bfma\.\w+\.f64", bodies[name])) for name in reached)
    return found


def ptx_problems(ptx: str) -> list[str]:
    """What no kernel may hold: foreign functions, and arithmetic that is not rounded as written."""
    ptx = re.sub(r"//.*", "", ptx)
    found = []
    for line in map(str.strip, ptx.splitlines()):
        if re.match(r"\.extern\b", line):
            found.append(f"not defined here: {line}")
        elif re.match(r"(add|sub|mul|mad)\.f64", line):
            found.append(f"open to contraction: {line}")
        elif re.search(r"\.(ftz|approx)\b", line):
            found.append(f"flushed or approximate: {line}")
        elif re.match(r"[\w.]+\.f32\b", line):
            found.append(f"single precision: {line}")
    found += [f"a library's function: {name}" for name in _bodies(ptx) if "__nv_" in name]
    return found
