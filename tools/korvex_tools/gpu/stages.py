# SPDX-License-Identifier: Apache-2.0
"""The stages of `make gpu`: what each runs, in a process of its own, and for how long at most.

A fault of one kernel makes every later CUDA call of its process fail, so each kernel has a stage.
Those come first that were once wrong on paper, found without a GPU, and mended.
"""

import argparse
import importlib.util
import json
import os
import re
import shutil
import sys
import xml.etree.ElementTree as ElementTree
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from korvex_tools import kernel_table
from korvex_tools.source_tree import SOURCE_TREE

BUILD = SOURCE_TREE / "build" / "gpu"
BUILT_SITE = BUILD / "site-packages"
SANITIZER_TOOLS = ("memcheck", "racecheck", "initcheck", "synccheck")
SANITIZER_FOUND = 99  # its exit status
# Limits are for a machine that has a GPU and nothing else to do. A dry run tries the stages
# anywhere: each has so many times as long, beside other work on few processors.
DRY_RUN_TIMES = 12

# Misaligned loads, blocks of less than a warp, atomic additions of a warp's digits, large stacks.
MENDED = ("var", "norm", "cumsum", "rms_norm", "sum", "dot", "sigmoid", "tanh", "logsumexp")
EACH_WAY_TESTS = tuple(
    f"tests/gpu/test_{name}.py" for name in ("same_bits", "whole_device", "states")
)
KERNEL_TESTS = tuple(f"tests/gpu/test_{name}.py" for name in ("same_bits", "launch_shapes", "nan"))


@dataclass
class Stage:
    name: str
    command: list[str]
    limit: float  # seconds
    environment: dict[str, str] = field(default_factory=dict)
    # What the report keeps of the output, beside the outcome.
    read: Callable[[str], Any] = lambda output: None


def all_stages(options: argparse.Namespace, folder: Path) -> list[Stage]:
    """In their order; the folder is for files that they leave for the report."""
    stages = [] if options.site else [build_stage()]
    stages += [kernel_stage(name, options, folder) for name in kernels_in_order()]
    stages += [whole_device_stage(name, options, folder) for name in whole_device_in_order()]
    stages += [states_stage(name, options, folder) for name in kernel_table.of_states()]
    stages += [
        tests_stage("large", ["tests/gpu/test_large.py"], 60, options, folder),
        tests_stage("division", ["tests/gpu/test_division.py"], 60, options, folder),
        verify_stage(options),
        *(benchmark_stage(name, 90, options) for name in ("kernels", "sum", "elementwise")),
        whole_suite_stage(options, folder),
        large_stage(options),
    ]
    stages += [sanitizer_stage(tool, options) for tool in SANITIZER_TOOLS]
    for stage in stages if options.dry_run else []:
        stage.limit *= DRY_RUN_TIMES
    return stages


def kernels_in_order() -> list[str]:
    mended = [f"tqx_{name}_kernel" for name in MENDED]
    return mended + [name for name in kernel_table.rows() if name not in mended]


def whole_device_in_order() -> list[str]:
    """Those that have several launches for one call first."""
    launches = kernel_table.on_the_whole_device()
    return sorted(launches, key=lambda name: -len(launches[name]))


# --- The build


def build_stage() -> Stage:
    command = [
        str(SOURCE_TREE / "scripts" / "install_tree.sh"),
        sys.executable,
        str(BUILD / "cmake"),
    ]
    return Stage("build", [*command, str(BUILT_SITE)], 300)


# --- Tests


def pytest_command(*arguments: str) -> list[str]:
    # -v names each test before it runs, so that the last line says where a process ended. The
    # plugin of benchmarks warns beside that for several processes, and warnings are errors.
    options = ["-v", "--tb=short", "-p", "no:cacheprovider", "-p", "no:benchmark"]
    return [sys.executable, "-P", "-m", "pytest", *options, *arguments]


# Without the configuration of the other tests, which imports torch and the module.
_ALONE = ("--confcutdir=tests/gpu",)


def alone_on_device(options: argparse.Namespace) -> dict[str, str]:
    """Plugins that happen to be installed take time and have no say here."""
    return on_device(options) | {"PYTEST_DISABLE_PLUGIN_AUTOLOAD": "1"}


def on_device(options: argparse.Namespace) -> dict[str, str]:
    return {"KORVEX_TEST_DEVICE": "emulated" if options.dry_run else "gpu"}


def kernel_stage(kernel: str, options: argparse.Namespace, folder: Path) -> Stage:
    selection = [*KERNEL_TESTS, "-k", kernel]
    return tests_stage(kernel, selection, 60, options, folder)


def whole_device_stage(kernel: str, options: argparse.Namespace, folder: Path) -> Stage:
    """The launches that stand for a kernel, by the package's loader."""
    selection = ["tests/gpu/test_whole_device.py", "-k", kernel]
    stage = tests_stage(f"whole device {kernel}", selection, 60, options, folder)
    stage.environment["KORVEX_LAUNCH"] = "device"
    return stage


def states_stage(kernel: str, options: argparse.Namespace, folder: Path) -> Stage:
    """A kernel of exact states, by the loader of korvex.exact."""
    selection = ["tests/gpu/test_states.py", "-k", kernel]
    return tests_stage(f"states {kernel}", selection, 60, options, folder)


def tests_stage(
    name: str, selection: list[str], limit: float, options: argparse.Namespace, folder: Path
) -> Stage:
    """Of the folder whose tests need the driver alone: neither torch nor the loader is imported,
    but by the tests that name them."""
    junit = folder / f"{name}.xml"
    command = pytest_command(*_ALONE, f"--junitxml={junit}", *selection)
    return Stage(name, command, limit, alone_on_device(options), lambda _: count_tests(junit))


def whole_suite_stage(options: argparse.Namespace, folder: Path) -> Stage:
    """All other tests; in a dry run few, as all of them run without a GPU anyway. Files that need
    a library which the machine lacks count as failed, and the others run."""
    junit = folder / "tests.xml"
    selection = ["tests/device_code", "tests/reductions"] if options.dry_run else ["tests"]
    kept = ["--ignore=tests/gpu", "--continue-on-collection-errors"]
    command = pytest_command(f"--junitxml={junit}", *kept, *selection)
    if importlib.util.find_spec("xdist") is not None and not options.dry_run:
        command += ["-n", str(min(8, os.cpu_count() or 1))]
    return Stage("tests", command, 220, on_device(options), lambda _: count_tests(junit))


def count_tests(junit: Path) -> dict[str, Any] | None:
    """None where the process ended before it wrote its results."""
    if not junit.exists():
        return None
    cases = list(ElementTree.parse(junit).iter("testcase"))
    failed = [
        f"{case.get('classname')}::{case.get('name')}"
        for case in cases
        if case.find("failure") is not None or case.find("error") is not None
    ]
    skipped = sum(case.find("skipped") is not None for case in cases)
    return {
        "passed": len(cases) - len(failed) - skipped,
        "failed": len(failed),
        "skipped": skipped,
        "first_failures": failed[:30],
    }


def sanitizer_stage(tool: str, options: argparse.Namespace) -> Stage:
    places = os.pathsep.join([os.environ.get("PATH", ""), "/usr/local/cuda/bin"])
    sanitizer = shutil.which("compute-sanitizer", path=places) or "compute-sanitizer"
    found = ["--tool", tool, "--error-exitcode", str(SANITIZER_FOUND)]
    tests = pytest_command(*_ALONE, *EACH_WAY_TESTS, "-k", "each_way")
    command = [sanitizer, *found, *tests]
    return Stage(f"sanitizer {tool}", command, 90, alone_on_device(options), sanitizer_summary)


def sanitizer_summary(output: str) -> str | None:
    found = re.findall(r"=+ ((?:ERROR|RACECHECK) SUMMARY: .*)", output)
    return found[-1] if found else None


# --- Digests and benchmarks


def verify_stage(options: argparse.Namespace) -> Stage:
    """The digests of tests/golden, with a report of its own."""
    if options.dry_run:
        arguments = ["--only", "base-all", "--results", str(BUILD)]
    else:
        compared = ["gpu", "base-all", "fma-all", "avx512-all"]
        arguments = ["--long", "--need", "gpu", "--only", *compared]
        arguments += ["--results", str(options.results)] if options.has_results else ["--record"]
    command = [sys.executable, "-P", "-m", "korvex_tools.verify", *arguments]
    return Stage("verify", command, 120, read=last_line)


def last_line(output: str) -> str | None:
    lines = output.strip().splitlines()
    return lines[-1] if lines else None


def last_line_json(output: str) -> Any:
    try:
        return json.loads(last_line(output) or "")
    except json.JSONDecodeError:
        return None


def benchmark(name: str, *arguments: str) -> list[str]:
    return [sys.executable, str(SOURCE_TREE / "benchmarks" / f"{name}.py"), *arguments]


def benchmark_stage(name: str, limit: float, options: argparse.Namespace) -> Stage:
    arguments = ["--emulated", "--n", "100000", "--repeats", "3"] if options.dry_run else []
    command = benchmark(f"bench_gpu_{name}", *arguments)
    return Stage(f"benchmark {name}", command, limit, read=last_line_json)


def large_stage(options: argparse.Namespace) -> Stage:
    """Time and memory of the largest inputs; what it has no time for is left out of its record."""
    arguments = ["--gpu", "--repeats", "1", "--seconds", "80", "--json"]
    if options.dry_run:
        arguments = ["--quick", "--json"]
    return Stage("large inputs", benchmark("bench_large", *arguments), 90, read=last_line_json)
