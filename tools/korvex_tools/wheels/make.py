# SPDX-License-Identifier: Apache-2.0
"""Makes all wheels into dist/, checks each as a file, installs it from that file and tries it.

usage: python -P -m korvex_tools.wheels [--processors NAME...] [--versions 3.N...]
       [--architectures all|none|NUMBER;...] [--kernels FOLDER] [--only-build]
       [-- PYTEST_ARGUMENT...]

Needs what the extra `release` brings, and an interpreter of each version: one that is found here,
else Debian's. What cannot be tried is said, and is no failure; a wheel that fails is one. The notes
of a release go beside the wheels. The last lines are one for each wheel; the exit status is 1 if
one of them says FAILED.
"""

import argparse
import subprocess
import sys
from dataclasses import dataclass, field
from pathlib import Path

from korvex_tools import check_wheel
from korvex_tools.source_tree import SOURCE_TREE
from korvex_tools.wheels import notes, trial
from korvex_tools.wheels.build import build_tree, make_kernels
from korvex_tools.wheels.compiler import make_compiler
from korvex_tools.wheels.interpreters import Missing, copy_headers, find
from korvex_tools.wheels.pack import make_base, pack
from korvex_tools.wheels.targets import GLIBC, PROCESSORS, VERSIONS, Target, targets

WORK = SOURCE_TREE / "build" / "wheels"
CUDA_COMPILERS = SOURCE_TREE / "build" / "cuda-compilers"
DIST = SOURCE_TREE / "dist"


@dataclass
class Outcome:
    target: Target
    wheel: Path
    lines: list[str] = field(default_factory=list)
    failed: bool = False
    checksum: str | None = None  # of one exact sum, which is the same for all wheels

    def state(self) -> str:
        return "; ".join(["FAILED" if self.failed else "made", *self.lines])


def main(arguments: list[str]) -> int:
    options = parse(arguments)
    WORK.mkdir(parents=True, exist_ok=True)
    try:
        interpreters = {version: find(version, WORK) for version in options.versions}
    except Missing as reason:
        raise SystemExit(str(reason)) from None
    kernels = options.kernels or kernels_for(options.architectures)
    base = make_base(WORK / "base")
    outcomes = []
    for target in targets(tuple(options.processors), tuple(options.versions)):
        print(f"building for {target}", flush=True)
        compiler = make_compiler(target.processor, WORK / "compilers" / target.processor)
        headers = copy_headers(interpreters[target.version], WORK / f"headers-{target.version}")
        tree = build_tree(target, compiler, headers, kernels, WORK)
        outcomes.append(Outcome(target, pack(base, tree, target, DIST)))
        check(outcomes[-1], kernels)
    for outcome in outcomes:
        if not outcome.failed and not options.only_build:
            print(f"trying {outcome.wheel.name}", flush=True)
            attempt(outcome, interpreters[outcome.target.version], options.pytest)
    compare(outcomes)
    rows = [(outcome.wheel, outcome.state()) for outcome in outcomes]
    print(notes.write(DIST, rows, kernels, ".".join(map(str, GLIBC))))
    for outcome in outcomes:
        print(f"{outcome.target}: {outcome.state()}")
    return int(any(outcome.failed for outcome in outcomes))


def compare(outcomes: list[Outcome]) -> None:
    """Every wheel has to leave the bits of the first one that was tried."""
    tried = [outcome for outcome in outcomes if outcome.checksum is not None]
    for outcome in tried[1:]:
        if outcome.checksum != tried[0].checksum:
            outcome.failed = True
            outcome.lines.append(f"its checksum is not that of {tried[0].target}")


def parse(arguments: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--processors", nargs="+", choices=PROCESSORS, default=PROCESSORS)
    parser.add_argument("--versions", nargs="+", choices=VERSIONS, default=VERSIONS)
    parser.add_argument("--architectures", default="all", help="of GPUs, as CMake takes them")
    parser.add_argument("--kernels", type=Path, help="those of another build of this tree")
    parser.add_argument("--only-build", action="store_true", help="check files, try nothing")
    parser.add_argument("pytest", nargs="*", help="arguments of pytest, after --")
    return parser.parse_args(arguments)


def kernels_for(architectures: str) -> Path | None:
    if architectures != "none":
        script = SOURCE_TREE / "scripts" / "fetch_cuda_compilers.sh"
        subprocess.run([script, sys.executable, CUDA_COMPILERS], check=True)
        print(f"compiling kernels for GPUs: {architectures}", flush=True)
    return make_kernels(architectures, CUDA_COMPILERS, WORK / "kernels")


def check(outcome: Outcome, kernels: Path | None) -> None:
    found = check_wheel.faults(check_wheel.Wheel(outcome.wheel), kernels)
    outcome.failed = bool(found)
    size = outcome.wheel.stat().st_size / 1e6
    outcome.lines += found or [f"{size:.1f} MB without a fault"]


def attempt(outcome: Outcome, interpreter: Path, pytest_arguments: list[str]) -> None:
    try:
        if outcome.target.processor == "x86_64":
            done = trial.natively(
                outcome.wheel, outcome.target, interpreter, WORK, pytest_arguments
            )
        else:
            done = trial.emulated(outcome.wheel, outcome.target, WORK)
        outcome.checksum, line = done
        outcome.lines.append(line)
    except Missing as reason:
        outcome.lines.append(f"NOT TRIED: {reason}")
    except subprocess.CalledProcessError as error:
        outcome.failed = True
        outcome.lines.append(f"tried, and {' '.join(map(str, error.cmd))} failed")
