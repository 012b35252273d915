# SPDX-License-Identifier: Apache-2.0
"""Compile the kernels to PTX and run that on the host, as `make device-code` does.

usage: run_device_code.py TOOL HOST_LIBRARY FOLDER [--long] [--part PART] [--nvrtc LIBRARY]
                          [--grid FOLDER]

The ordinary run takes the PTX of one architecture, small arrays and all planted faults, and short
arrays of which every element takes its last try (last_tries.py). The long one takes larger arrays
and more seeds, and the PTX of every architecture: by NVRTC, where its library is given, as a build
of all architectures makes it, and by nvcc; files that differ in nothing that runs count once. With
--grid the programs of the simulated grid in that folder run as well, which need no compiler for
devices; the last line then has the figures of both. PART is compile, kernels or faults; without it
all are done. PTX is kept in FOLDER and made anew when a source, a flag or the compiler has changed.
Exit status 77: no nvcc on PATH, and no --grid.
"""

import argparse
import hashlib
import os
import re
import shutil
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import NamedTuple

SOURCE_TREE = Path(__file__).resolve().parents[2]
DEVICE_CODE = SOURCE_TREE / "tests" / "device_code"
DEVICE = SOURCE_TREE / "korvex" / "kernels" / "device"
SOURCES = ("kernels", "states")
HARD_CASES = SOURCE_TREE / "tests" / "elementwise" / "hard_cases.json"
GRID_FAULTS = DEVICE_CODE / "grid_faults.py"
LAST_TRIES = DEVICE_CODE / "last_tries.py"
WITH_LAST_TRIES = tuple(
    f"tqx_{name}_kernel" for name in ("sigmoid", "tanh", "logsumexp", "logsumexp_device")
)
FIGURES = ("PTX machine:", "Simulated grid:")
SKIPPED = 77
ORDINARY = ("nvcc", 90)
# Whose code for long numbers is not that of the others (KORVEX_UNROLL_WORDS).
OF_FEW_REGISTERS = (("nvrtc", 53), ("nvrtc", 100))
# Lines of PTX that say what it is for, and nothing that is done.
HEAD = (b"//", b".version", b".target")
LONG_SEEDS = (1, 1001, 2001)
# Elements of an array, each of which takes a last try, in the ordinary run and in the long one.
MOST_LAST_TRIES = ("33", "513")


def flags_of(compiler: str) -> list[str]:
    """The flags with which the build compiles what ships."""
    text = (SOURCE_TREE / "cmake" / "KorvexCuda.cmake").read_text()
    [flags] = re.findall(rf"set\(korvex_{compiler}_flags([^)]*)\)", text)
    return flags.split()


def compile_command(
    source: Path,
    compiler: str,
    architecture: int,
    target: Path,
    nvrtc: str,
    trees: tuple[Path, ...],
) -> list[str]:
    includes = [f"-I{folder}" for folder in (*trees, SOURCE_TREE, DEVICE)]
    if compiler == "nvcc":
        command = ["nvcc", "-ptx", str(source), "-o", str(target), f"-arch=compute_{architecture}"]
    else:
        script = SOURCE_TREE / "cmake" / "compile_with_nvrtc.py"
        command = [sys.executable, str(script), nvrtc, str(source), str(target)]
        command += [f"--gpu-architecture=compute_{architecture}"]
    return command + flags_of(compiler) + includes


def fingerprint(command: list[str], trees: tuple[Path, ...]) -> str:
    """Of everything that the PTX is made from."""
    folders = (SOURCE_TREE / "korvex" / "arithmetic", SOURCE_TREE / "korvex" / "kernels", *trees)
    digest = hashlib.sha256("\0".join(command).encode())
    version = subprocess.run(["nvcc", "--version"], capture_output=True, check=True)
    digest.update(version.stdout)
    for path in sorted(path for folder in folders for path in folder.rglob("*")):
        if path.suffix in (".h", ".cu", ".cuh"):
            digest.update(path.read_bytes())
    return digest.hexdigest()


def make_ptx(
    source: str,
    compiler: str,
    architecture: int,
    folder: Path,
    nvrtc: str,
    trees: tuple[Path, ...] = (),
) -> Path:
    """The kernels of a source, of which headers in `trees` stand before the tree's."""
    folder.mkdir(parents=True, exist_ok=True)
    target = folder / f"{source}_{compiler}_compute_{architecture}.ptx"
    stamp = target.with_suffix(".made-from")
    path = DEVICE / f"{source}.cu"
    command = compile_command(path, compiler, architecture, target, nvrtc, trees)
    made_from = fingerprint(command, trees)
    if not (target.exists() and stamp.exists() and stamp.read_text() == made_from):
        stamp.unlink(missing_ok=True)
        subprocess.run(command, check=True)
        stamp.write_text(made_from)
    return target


def every_architecture(nvrtc: str) -> list[tuple[str, int]]:
    """Compilers with the architectures that they know; the ordinary run's comes first."""
    listed = subprocess.check_output(["nvcc", "--list-gpu-code"], text=True)
    pairs = [ORDINARY, *(("nvcc", int(number)) for number in re.findall(r"sm_(\d+)", listed))]
    if Path(nvrtc).is_file():
        script = SOURCE_TREE / "cmake" / "compile_with_nvrtc.py"
        listed = subprocess.check_output([sys.executable, script, nvrtc, "--list"], text=True)
        pairs += [("nvrtc", int(number)) for number in listed.split()[1:]]
    else:
        print("PTX machine: what NVRTC makes is skipped, as its library is not there")
    return list(dict.fromkeys(pairs))


def distinct(files: list[Path]) -> list[Path]:
    """The first of those whose text is the same but for the lines of its head."""
    by_text: dict[bytes, Path] = {}
    for path in files:
        kept = [line for line in path.read_bytes().splitlines() if not line.startswith(HEAD)]
        by_text.setdefault(hashlib.sha256(b"\n".join(kept)).digest(), path)
    print(f"PTX of {len(files)} targets, {len(by_text)} of them distinct")
    return list(by_text.values())


def make_last_tries(wanted: list[tuple[str, int]], folder: Path, nvrtc: str) -> list[Path]:
    """The kernels whose every element takes its last try, where their code differs."""
    tree = folder / "last_tries"
    subprocess.run([sys.executable, str(LAST_TRIES), str(tree)], check=True)
    differing = [each for each in wanted if each in (ORDINARY, *OF_FEW_REGISTERS)]
    return [make_ptx(SOURCES[0], *each, tree, nvrtc, (tree,)) for each in differing]


def last_tries_runs(command: list[str], is_long: bool) -> list[list[str]]:
    """A program on the kernels whose every element takes its last try."""
    most = ["--most-elements", MOST_LAST_TRIES[is_long]]
    return [[*command, *most, "--kernel", kernel] for kernel in WITH_LAST_TRIES]


def runs_of(arguments: argparse.Namespace, files: list[Path], last: list[Path]) -> list[list[str]]:
    """The command lines of the tool; the first files are those of the ordinary run."""
    tool = [arguments.tool, arguments.library]
    hard = ["--hard-cases", str(HARD_CASES)]
    ordinary, others = files[: len(SOURCES)], files[len(SOURCES) :]
    kernels = [[*tool, str(path), *hard, "--kernels-only"] for path in ordinary]
    faults = [[*tool, str(path), *hard, "--faults-only"] for path in ordinary]
    if arguments.long:
        kernels = [
            [*tool, str(path), *hard, "--kernels-only", "--long", "--seed", str(seed)]
            for seed in LONG_SEEDS
            for path in ordinary
        ]
        kernels += [[*tool, str(path), *hard, "--kernels-only"] for path in others]
    for path in last:
        kernels += last_tries_runs([*tool, str(path), "--kernels-only"], arguments.long)
    return {"kernels": kernels, "faults": faults, None: faults + kernels}[arguments.part]


def grid_runs(arguments: argparse.Namespace) -> list[list[str]]:
    """The command lines of the simulated grid: the kernels, and faults in them."""
    if arguments.grid is None:
        return []
    common = [arguments.library, "--hard-cases", str(HARD_CASES)]
    program = str(arguments.grid / "run_grid")
    faulty = [sys.executable, str(GRID_FAULTS), "check", str(arguments.grid / "run_faulty_grid")]
    seeds = LONG_SEEDS if arguments.long else (1,)
    long = ["--long"] if arguments.long else []
    runs = [[program, *common, *long, "--seed", str(seed)] for seed in seeds]
    last = [str(arguments.grid / "run_last_tries_grid"), arguments.library]
    return runs + last_tries_runs(last, arguments.long) + [[*faulty, *common]]


class Outcome(NamedTuple):
    status: int
    figures: list[str]  # the lines that sum a run up


def run(command: list[str]) -> Outcome:
    done = subprocess.run(command, capture_output=True, text=True)
    said = done.stdout + done.stderr
    sys.stdout.write(said)
    sys.stdout.flush()
    figures = [line for line in said.splitlines() if line.startswith(FIGURES)]
    return Outcome(done.returncode, figures)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("tool")
    parser.add_argument("library")
    parser.add_argument("folder", type=Path)
    parser.add_argument("--long", action="store_true")
    parser.add_argument("--part", choices=("compile", "kernels", "faults"))
    parser.add_argument("--nvrtc", default="")
    parser.add_argument("--grid", type=Path)
    arguments = parser.parse_args()
    has_nvcc = shutil.which("nvcc") is not None
    if not has_nvcc:
        print("PTX machine: skipped, as there is no nvcc on PATH")
        if arguments.grid is None:
            return SKIPPED
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        runs = grid_runs(arguments)
        if has_nvcc:
            wanted = every_architecture(arguments.nvrtc) if arguments.long else [ORDINARY]
            jobs = [(source, *each) for each in wanted for source in SOURCES]
            files = list(
                pool.map(lambda each: make_ptx(*each, arguments.folder, arguments.nvrtc), jobs)
            )
            files = distinct(files) if arguments.long else files
            last = make_last_tries(wanted, arguments.folder, arguments.nvrtc)
            if arguments.part == "compile":
                return 0
            runs = runs_of(arguments, files, last) + runs
        outcomes = list(pool.map(run, runs))
    if arguments.grid is not None:
        print("Device code: " + "; ".join(line for each in outcomes for line in each.figures))
    return max(each.status for each in outcomes)


if __name__ == "__main__":
    sys.exit(main())
