# SPDX-License-Identifier: Apache-2.0
"""Run all checks that need a GPU, stage by stage, and write one JSON report.

Stages run from the most to the least important. Each has a time limit, and its outcome goes into
the report whether it passed, failed or ran out of time; the report is written anew after each
stage, so a run that is cut short leaves what it had. gpu_run.sh chooses the Python and starts this.
"""

import argparse
import importlib.machinery
import importlib.util
import json
import os
import platform
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree as ElementTree
from collections.abc import Callable
from dataclasses import dataclass, field
from datetime import UTC, datetime
from pathlib import Path
from typing import Any

from korvex_tools.machine_facts import (
    first_line,
    gpu_fact,
    slug,
    source_facts,
    toolkit,
    version_of,
)
from korvex_tools.source_tree import SOURCE_TREE

BUILD = SOURCE_TREE / "build" / "gpu"
BUILT_SITE = BUILD / "site-packages"
TAIL = 3000  # characters of a failed stage's output that the report keeps
SANITIZER_TOOLS = ("memcheck", "racecheck", "initcheck", "synccheck")
SANITIZER_FOUND = 99  # its exit status


@dataclass
class Stage:
    name: str
    command: list[str]
    limit: int  # seconds
    environment: dict[str, str] = field(default_factory=dict)
    # What the report keeps of the output, beside the outcome.
    read: Callable[[str], Any] = lambda output: None


# --- Stages


def script(name: str, *arguments: str) -> list[str]:
    return [sys.executable, str(SOURCE_TREE / name), *arguments]


def module(name: str, *arguments: str) -> list[str]:
    return [sys.executable, "-P", "-m", f"korvex_tools.{name}", *arguments]


def last_line_json(output: str) -> Any:
    lines = output.strip().splitlines()
    try:
        return json.loads(lines[-1])
    except (IndexError, json.JSONDecodeError):
        return None


def build_stage() -> Stage:
    command = [
        str(SOURCE_TREE / "scripts" / "install_tree.sh"),
        sys.executable,
        str(BUILD / "cmake"),
    ]
    return Stage("build", [*command, str(BUILT_SITE)], 240)


def check_stage(name: str, limit: int, options: argparse.Namespace) -> Stage:
    arguments = [name, "--emulated"] if options.dry_run else [name]
    return Stage(name, module("gpu.checks", *arguments), limit, read=last_line_json)


def verify_stage(options: argparse.Namespace) -> Stage:
    """The digests of tests/golden, with a report of its own."""
    if options.dry_run:
        arguments = ["--only", "base-all", "--results", str(BUILD)]
    else:
        compared = ["gpu", "base-all", "fma-all", "avx512-all"]
        arguments = ["--long", "--need", "gpu", "--only", *compared]
        arguments += ["--results", str(options.results)] if options.has_results else ["--record"]
    return Stage("verify", module("verify", *arguments), 120, read=last_line)


def last_line(output: str) -> str | None:
    lines = output.strip().splitlines()
    return lines[-1] if lines else None


def benchmark_stage(name: str, limit: int, options: argparse.Namespace) -> Stage:
    arguments = ["--emulated", "--n", "100000", "--repeats", "3"] if options.dry_run else []
    command = script(f"benchmarks/bench_gpu_{name}.py", *arguments)
    return Stage(f"benchmark {name}", command, limit, read=last_line_json)


def large_stage(options: argparse.Namespace) -> Stage:
    """Time and memory of the largest inputs; what it has no time for is left out of its record."""
    script_arguments = ["--gpu", "--repeats", "1", "--seconds", "80", "--json"]
    if options.dry_run:
        script_arguments = ["--quick", "--json"]
    command = script("benchmarks/bench_large.py", *script_arguments)
    return Stage("large inputs", command, 90, read=last_line_json)


def tests_stage(options: argparse.Namespace, junit: Path) -> Stage:
    parallel = importlib.util.find_spec("xdist") is not None
    command = [sys.executable, "-P", "-m", "pytest", "-q", "--tb=short", f"--junitxml={junit}"]
    command += ["-n", str(min(8, os.cpu_count() or 1))] if parallel and not options.dry_run else []
    command += ["tests/device_code", "tests/reductions"] if options.dry_run else []
    device = {"KORVEX_TEST_DEVICE": "emulated" if options.dry_run else "gpu"}
    return Stage("tests", command, 220, device, lambda _: count_tests(junit))


def count_tests(junit: Path) -> dict[str, Any] | None:
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


def sanitizer_stage(tool: str) -> Stage:
    sanitizer = shutil.which("compute-sanitizer") or "compute-sanitizer"
    options = ["--tool", tool, "--error-exitcode", str(SANITIZER_FOUND)]
    command = [sanitizer, *options, *module("gpu.checks", "sanitizer")]
    return Stage(f"sanitizer {tool}", command, 60, read=sanitizer_summary)


def sanitizer_summary(output: str) -> str | None:
    found = re.findall(r"=+ ((?:ERROR|RACECHECK) SUMMARY: .*)", output)
    return found[-1] if found else None


def all_stages(options: argparse.Namespace, junit: Path) -> list[Stage]:
    stages = [] if options.site else [build_stage()]
    names = ("sums", "elementwise", "dots", "matrices", "reductions", "grids", "nan")
    stages += [check_stage(name, 60, options) for name in names]
    stages += [check_stage("large", 30, options), check_stage("division", 60, options)]
    stages += [verify_stage(options), benchmark_stage("sum", 90, options)]
    stages += [benchmark_stage("elementwise", 60, options), tests_stage(options, junit)]
    stages += [large_stage(options)]
    stages += [sanitizer_stage(tool) for tool in SANITIZER_TOOLS]
    return stages


# --- Running one


def run_stage(stage: Stage, limit: float, site: Path | None) -> dict[str, Any]:
    environment = os.environ | stage.environment
    if site is not None:
        places = [str(site), str(SOURCE_TREE / "tools")]
        environment |= {"PYTHONPATH": os.pathsep.join(places)}
    begin = time.monotonic()
    status, output = run_limited(stage.command, limit, environment)
    outcome = {0: "passed", None: "ran out of time"}.get(status, "failed")
    entry = {
        "outcome": outcome,
        "status": status,
        "seconds": round(time.monotonic() - begin, 1),
        "result": stage.read(output),
    }
    if outcome != "passed":
        entry["output_tail"] = output[-TAIL:]
    return entry


def run_limited(command: list[str], limit: float, environment: dict[str, str]):
    """Exit status, or None where the limit was over, and the output. No process is left behind."""
    with tempfile.TemporaryFile() as file:
        try:
            process = subprocess.Popen(
                command,
                stdout=file,
                stderr=subprocess.STDOUT,
                stdin=subprocess.DEVNULL,
                cwd=SOURCE_TREE,
                env=environment,
                start_new_session=True,
            )
        except OSError as error:
            return 127, str(error)
        try:
            status = process.wait(limit)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
            status = None
        file.seek(0)
        return status, file.read().decode(errors="replace")


# --- What the figures belong to


def environment_facts() -> dict[str, Any]:
    facts = ("name", "driver_version", "compute_cap", "memory.total", "clocks.max.sm")
    return {
        "gpu": {fact: gpu_fact(fact) for fact in facts},
        "toolkit": toolkit(),
        "sanitizer": first_line(["compute-sanitizer", "--version"], r"(Version .*)"),
        **source_facts(),
        "python": platform.python_version(),
        "system": platform.platform(),
        "processors": os.cpu_count(),
        "versions": {
            name: version_of(name)
            for name in ("torch", "cupy-cuda13x", "cupy-cuda12x", "numpy", "pytest", "hypothesis")
        },
    }


def kernel_files(site: Path | None) -> dict[str, str] | None:
    """Which compiler made which file of kernels."""
    path = [str(site)] if site else None
    spec = importlib.machinery.PathFinder.find_spec("korvex", path)
    for folder in spec.submodule_search_locations or () if spec else ():
        record = Path(folder) / "cubins" / "compilers.json"
        if record.exists():
            return json.loads(record.read_text())
    return None


# --- The report


def report_path(options: argparse.Namespace, facts: dict[str, Any]) -> Path:
    gpu = facts["gpu"]["name"] or "no-gpu"
    return options.results / f"{'dry-run' if options.dry_run else 'gpu'}-{slug(gpu)}.json"


def write_report(path: Path, report: dict[str, Any]) -> None:
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(json.dumps(report, indent=1) + "\n")


def is_for_gpu_only(stage: Stage, options: argparse.Namespace) -> bool:
    return options.dry_run and stage.name.startswith("sanitizer")


def run_all(stages: list[Stage], options: argparse.Namespace) -> dict[str, Any]:
    deadline = time.monotonic() + options.seconds
    facts = environment_facts()
    path = report_path(options, facts)
    report: dict[str, Any] = {
        "date": datetime.now(UTC).isoformat(timespec="seconds"),
        "is_dry_run": options.dry_run,
        "environment": facts,
        "stages": {},
    }
    site = options.site
    for stage in stages:
        left = deadline - time.monotonic()
        if is_for_gpu_only(stage, options):
            entry = {"outcome": "needs a GPU"}
        elif left < 5:
            entry = {"outcome": "no time left"}
        else:
            entry = run_stage(stage, min(stage.limit, left), site)
        if stage.name == "build" and entry["outcome"] == "passed":
            site = BUILT_SITE
        report["stages"][stage.name] = entry
        report["kernels"] = kernel_files(site)
        write_report(path, report)
        print_stage(stage, entry)
    print(f"report: {os.path.relpath(path)}")
    return report


def target_line(target: dict[str, Any]) -> str:
    """Of `bench_gpu_sum.py`, which bounds from above, or `bench_gpu_elementwise.py`, from below."""
    verdict = "met" if target["met"] else "NOT MET"
    if "at_most" in target:
        text = f"{target['what']}: {target['measured']}, at most {target['at_most']}"
    else:
        ratio, least = target["ratio_to_copy"], target["at_least"]
        text = f"{target['candidate']}: {ratio} of a copy, at least {least}"
    return f"{text}: {verdict}"


def print_stage(stage: Stage, entry: dict[str, Any]) -> None:
    seconds = f"{entry['seconds']:6.1f} s" if "seconds" in entry else ""
    print(f"{stage.name:22} {entry['outcome']:16} {seconds}", flush=True)
    result = entry.get("result")
    if stage.name.startswith("benchmark") and result:
        for target in result["targets"]:
            print("  " + target_line(target))
    elif stage.name == "tests" and result:
        print(
            f"  {result['passed']} passed, {result['failed']} failed, {result['skipped']} skipped"
        )
    elif stage.name == "verify" and result:
        print(f"  {result}")
    elif isinstance(result, dict) and result.get("wrong"):
        print("  " + "\n  ".join(result["wrong"][:3]))
    if entry["outcome"] == "failed":
        print("  " + "\n  ".join(entry["output_tail"].splitlines()[-8:]))


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--dry-run", action="store_true", help="without a GPU, as far as that goes")
    parser.add_argument("--site", type=Path, help="folder with an installed korvex: builds nothing")
    parser.add_argument("--results", type=Path, help="folder for the report")
    parser.add_argument("--seconds", type=int, default=570, help="time for everything (570)")
    options = parser.parse_args()
    options.has_results = options.results is not None
    if options.results is None:
        results = BUILD if options.dry_run else SOURCE_TREE / "benchmarks" / "results"
        options.results = results
    options.site = options.site and options.site.resolve()
    with tempfile.TemporaryDirectory() as folder:
        stages = all_stages(options, Path(folder) / "tests.xml")
        if options.dry_run:
            for stage in stages:
                print(f"{stage.name:22} at most {stage.limit:3} s: {' '.join(stage.command)}")
        report = run_all(stages, options)
    good = ("passed", "needs a GPU")
    return 0 if all(entry["outcome"] in good for entry in report["stages"].values()) else 1


if __name__ == "__main__":
    sys.exit(main())
