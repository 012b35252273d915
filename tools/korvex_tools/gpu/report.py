# SPDX-License-Identifier: Apache-2.0
"""Run all checks that need a GPU, stage by stage, and write one JSON report.

Stages run from the most to the least important, each in a process of its own with a time limit.
Whatever becomes of one, its outcome and its last lines go into the report and the others go on. The
report is written anew after each stage, so a run that is cut short leaves what it had. gpu_run.sh
chooses the Python and starts this.
"""

import argparse
import fnmatch
import importlib.machinery
import json
import os
import platform
import re
import signal
import subprocess
import sys
import tempfile
import time
from datetime import UTC, datetime
from pathlib import Path
from typing import Any

from korvex_tools.gpu.stages import BUILD, BUILT_SITE, Stage, all_stages
from korvex_tools.machine_facts import (
    first_line,
    gpu_fact,
    slug,
    source_facts,
    toolkit,
    version_of,
)
from korvex_tools.source_tree import SOURCE_TREE

SECONDS = 570  # for everything, where a machine with a GPU is lent by the minute
DRY_SECONDS = 7200
TAIL = 3000  # characters of a failed stage's output that the report keeps
LAST_LINES = 8  # of them that are printed
GOOD = ("passed", "needs a GPU")
TEST = re.compile(r"^\S+\.py::[^\n]*", re.MULTILINE)  # as pytest names one before it runs


# --- Running one


def run_stage(stage: Stage, limit: float, site: Path | None) -> dict[str, Any]:
    environment = os.environ | {"PYTHONUNBUFFERED": "1", "PYTHONFAULTHANDLER": "1"}
    environment |= stage.environment
    if site is not None:
        places = [str(site), str(SOURCE_TREE / "tools")]
        environment |= {"PYTHONPATH": os.pathsep.join(places)}
    begin = time.monotonic()
    status, output = run_limited(stage.command, limit, environment)
    entry = {
        "outcome": outcome_of(status),
        "status": status,
        "seconds": round(time.monotonic() - begin, 1),
        "result": stage.read(output),
    }
    if status != 0:
        entry["output_tail"] = output[-TAIL:]
        if tests := TEST.findall(output):
            entry["last_test"] = tests[-1]
    return entry


def outcome_of(status: int | None) -> str:
    if status is None:
        return "ran out of time"
    if status < 0:
        return f"died by {signal.Signals(-status).name}"
    return "passed" if status == 0 else "failed"


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


def new_report(options: argparse.Namespace) -> tuple[Path, dict[str, Any]]:
    """With the stages that an earlier run of the same tree has left, where some are asked for."""
    facts = environment_facts()
    name = slug(facts["gpu"]["name"] or "no-gpu")
    path = options.results / f"{'dry-run' if options.dry_run else 'gpu'}-{name}.json"
    report: dict[str, Any] = {
        "date": datetime.now(UTC).isoformat(timespec="seconds"),
        "is_dry_run": options.dry_run,
        "environment": facts,
        "stages": {},
    }
    if options.only and path.exists():
        before = json.loads(path.read_text())
        if before["environment"] == facts:
            report["stages"] = before["stages"]
    return path, report


def write_report(path: Path, report: dict[str, Any]) -> None:
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(json.dumps(report, indent=1) + "\n")


def is_for_gpu_only(stage: Stage, options: argparse.Namespace) -> bool:
    return options.dry_run and stage.name.startswith("sanitizer")


def run_all(stages: list[Stage], options: argparse.Namespace) -> dict[str, dict[str, Any]]:
    """The outcomes of these stages, which the report holds too."""
    deadline = time.monotonic() + options.seconds
    path, report = new_report(options)
    site = options.site
    entries: dict[str, dict[str, Any]] = {}
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
        entries[stage.name] = report["stages"][stage.name] = entry
        report["kernels"] = kernel_files(site)
        write_report(path, report)
        print_stage(stage, entry)
    print(f"report: {os.path.relpath(path)}")
    return entries


# --- What is printed


def print_stage(stage: Stage, entry: dict[str, Any]) -> None:
    seconds = f"{entry['seconds']:6.1f} s" if "seconds" in entry else ""
    print(f"{stage.name:34} {entry['outcome']:16} {seconds}", flush=True)
    for line in [*result_lines(stage, entry.get("result")), *last_lines(entry)]:
        print(f"  {line}", flush=True)


def last_lines(entry: dict[str, Any]) -> list[str]:
    test = [f"last test: {entry['last_test']}"] if "last_test" in entry else []
    return test + entry.get("output_tail", "").splitlines()[-LAST_LINES:]


def result_lines(stage: Stage, result: Any) -> list[str]:
    if isinstance(result, str):
        return [result]
    if not isinstance(result, dict):
        return []
    if "passed" in result:
        return [
            f"{result['passed']} passed, {result['failed']} failed, {result['skipped']} skipped"
        ]
    if not stage.name.startswith("benchmark"):
        return []
    runs = result.get("runs")
    of_kernels = [row for row in runs if "ratio" in row] if isinstance(runs, list) else []
    return [
        *(prediction_line(row) for row in of_kernels),
        *(target_line(target) for target in result.get("targets", [])),
    ]


def prediction_line(row: dict[str, Any]) -> str:
    """Of `bench_gpu_kernels.py`."""
    verdict = "as predicted" if row["is_as_predicted"] else "NOT AS PREDICTED"
    measured, predicted = row["ns_per_element"], row["predicted_ns"]
    return (
        f"{row['candidate']}: {measured:.3g} ns an element, predicted {predicted:.3g}"
        f" ({row['limit']}): {verdict}"
    )


def target_line(target: dict[str, Any]) -> str:
    """Of `bench_gpu_sum.py`, which bounds from above, or `bench_gpu_elementwise.py`, from below."""
    verdict = "met" if target["met"] else "NOT MET"
    if "at_most" in target:
        text = f"{target['what']}: {target['measured']}, at most {target['at_most']}"
    else:
        ratio, least = target["ratio_to_copy"], target["at_least"]
        text = f"{target['candidate']}: {ratio} of a copy, at least {least}"
    return f"{text}: {verdict}"


def parsed_options(arguments: list[str] | None = None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--dry-run", action="store_true", help="without a GPU, as far as that goes")
    parser.add_argument("--site", type=Path, help="folder with an installed korvex: builds nothing")
    parser.add_argument("--results", type=Path, help="folder for the report")
    parser.add_argument(
        "--seconds", type=int, help=f"time for everything ({SECONDS}; in a dry run {DRY_SECONDS})"
    )
    parser.add_argument(
        "--only",
        action="append",
        default=[],
        metavar="STAGE",
        help="stages by name or pattern, beside the build; may be repeated",
    )
    options = parser.parse_args(arguments)
    if options.seconds is None:
        options.seconds = DRY_SECONDS if options.dry_run else SECONDS
    options.has_results = options.results is not None
    if options.results is None:
        results = BUILD if options.dry_run else SOURCE_TREE / "benchmarks" / "results"
        options.results = results
    options.results = options.results.resolve()
    options.site = options.site and options.site.resolve()
    return options


def chosen(stages: list[Stage], patterns: list[str]) -> list[Stage]:
    """Those that a pattern names, and the build, without which none runs."""
    for pattern in patterns:
        if not fnmatch.filter([stage.name for stage in stages], pattern):
            raise SystemExit(f"no stage is called {pattern}")
    return [
        stage
        for stage in stages
        if not patterns
        or stage.name == "build"
        or any(fnmatch.fnmatch(stage.name, pattern) for pattern in patterns)
    ]


def main() -> int:
    options = parsed_options()
    with tempfile.TemporaryDirectory() as folder:
        stages = chosen(all_stages(options, Path(folder)), options.only)
        if options.dry_run:
            for stage in stages:
                print(f"{stage.name:34} at most {stage.limit:3} s: {' '.join(stage.command)}")
        entries = run_all(stages, options)
    return 0 if all(entry["outcome"] in GOOD for entry in entries.values()) else 1


if __name__ == "__main__":
    sys.exit(main())
