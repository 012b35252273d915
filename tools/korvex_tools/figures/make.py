# SPDX-License-Identifier: Apache-2.0
"""Makes every figure of the documents anew: records, pictures, tables.

Runs all benchmarks of the host one after the other, then the examples that print tables, draws the
pictures and writes the documents. How long each part took is printed and recorded; parts that
--only does not name keep what they took before. Run it with nothing else on the machine; --quick
tries all of it in a scratch folder and leaves the tree alone.
"""

import argparse
import os
import shutil
import subprocess
import sys
import time
from pathlib import Path

from korvex_tools.figures.records import RESULTS_FOLDER, RUN, Records, write_results
from korvex_tools.source_tree import SOURCE_TREE

BENCHMARKS = SOURCE_TREE / "benchmarks"
SCRATCH = SOURCE_TREE / "build" / "figures"
GPU = "bench_gpu_"  # what such scripts time is on a GPU

# Examples that print a table for a document: their options where time is short.
EXAMPLES = {"series_errors": ["--points", "50"], "refined_solves": ["--systems", "2"]}


def benchmarks() -> list[str]:
    names = sorted(path.stem for path in BENCHMARKS.glob("bench_*.py"))
    return [name for name in names if not name.startswith(GPU)]


def run(*command: object) -> str:
    """Runs a command of this Python; its output is shown, and returned."""
    lines = []
    with subprocess.Popen(
        [sys.executable, *map(str, command)], stdout=subprocess.PIPE, text=True
    ) as process:
        for line in process.stdout:
            print(line, end="", flush=True)
            lines.append(line.rstrip("\n"))
    if process.returncode:
        raise SystemExit(f"{command[0]}: exit status {process.returncode}")
    return "\n".join(lines)


def run_benchmark(name: str, results: Path, quick: bool) -> None:
    run(BENCHMARKS / f"{name}.py", "--output", results, *["--quick"] * quick)


def run_example(name: str, results: Path, docs: Path, quick: bool) -> None:
    """Keeps the table that it prints; the picture of the series is worked out beside it."""
    options = EXAMPLES[name] if quick else []
    output = run(SOURCE_TREE / "examples" / f"{name}.py", "--emulated", *options)
    lines = [line for line in output.splitlines() if line.startswith("|")]
    write_results(name, results, {"settings": {"options": options}, "table": lines})
    if name == "series_errors":
        picture = ["--output", docs / "series_errors.svg", *options]
        run("-P", "-m", "korvex_tools.figures.series_picture", *picture)


def scratch_tree() -> Path:
    """A copy of the documents, to write figures into."""
    shutil.rmtree(SCRATCH, ignore_errors=True)
    (SCRATCH / "docs").mkdir(parents=True)
    for path in [SOURCE_TREE / "README.md", *(SOURCE_TREE / "docs").glob("*.md")]:
        shutil.copy(path, SCRATCH / path.relative_to(SOURCE_TREE))
    return SCRATCH


def main() -> None:
    names = [*benchmarks(), *EXAMPLES]
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--quick", action="store_true", help="small runs, in build/figures")
    parser.add_argument("--only", nargs="+", choices=names, metavar="PART", help="these parts only")
    options = parser.parse_args()
    tree = scratch_tree() if options.quick else SOURCE_TREE
    results = SCRATCH / "results" if options.quick else RESULTS_FOLDER
    docs = tree / "docs"
    parts: dict[str, float] = {}
    if options.only and list(results.glob(f"{RUN}-*.json")):
        parts = {part["part"]: part["seconds"] for part in Records(results)[RUN]["parts"]}
    for name in options.only or names:
        print(f"\n=== {name}", flush=True)
        begin = time.perf_counter()
        if name in EXAMPLES:
            run_example(name, results, docs, options.quick)
        else:
            run_benchmark(name, results, options.quick)
        parts[name] = round(time.perf_counter() - begin, 1)
        record_parts(parts, results)
    if not options.quick or not options.only:
        run("-P", "-m", "korvex_tools.figures.draw", "--results", results, "--output", docs)
        run("-P", "-m", "korvex_tools.figures.processes_picture", "--output", docs)
        run("-P", "-m", "korvex_tools.figures.write", "--results", results, "--root", tree)
    for name, seconds in parts.items():
        print(f"{name:20} {seconds:7.1f} s")
    print(f"{'all':20} {sum(parts.values()):7.1f} s in {os.path.relpath(tree)}")


def record_parts(parts: dict[str, float], results: Path) -> None:
    """After each part, so that a run that was cut short can go on with --only."""
    rows = [{"part": name, "seconds": seconds} for name, seconds in parts.items()]
    write_results(RUN, results, {"settings": {"parts": len(rows)}, "parts": rows})


if __name__ == "__main__":
    main()
