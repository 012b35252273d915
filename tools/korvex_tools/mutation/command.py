# SPDX-License-Identifier: Apache-2.0
"""Plants faults in the arithmetic and the host kernels, one at a time, and runs their tests.

Each mutant is tried on the tests of its own file first. What passes these is compared with the
original as -O2 object code, where a change that no result can show mostly vanishes, and then meets
every other test program that includes it, the golden cases and the tests of `korvex.exact`. The
tree itself is never touched: all happens in copies. Every outcome is appended to a file at once, so
a run that was ended goes on where it was. Ends with status 1 where a survivor is left that nothing
explains, and at once where a test fails on the tree as it is.
"""

import argparse
import fnmatch
import json
import subprocess
import sys
from pathlib import Path
from typing import Any

from korvex_tools.mutation import record
from korvex_tools.mutation.mutants import Mutant, mutants_of, spread
from korvex_tools.mutation.programs import FailsUnchanged
from korvex_tools.mutation.workers import Workers
from korvex_tools.source_tree import SOURCE_TREE

BUILD = SOURCE_TREE / "build" / "mutation"
TARGETS = (
    "korvex/arithmetic/*/*.h",
    "korvex/kernels/host/*.h",
    "korvex/kernels/host/*.cpp",
    "korvex/kernels/modular/*.h",
    "korvex/kernels/modular/*.cpp",
    "korvex/kernels/device/parallel_*.h",
    "korvex/kernels/device/warp_*.h",
)


def target_files(patterns: list[str]) -> list[str]:
    paths = [path for pattern in TARGETS for path in sorted(SOURCE_TREE.glob(pattern))]
    names = [str(path.relative_to(SOURCE_TREE)) for path in paths]
    chosen = [n for n in names if not patterns or any(fnmatch.fnmatch(n, p) for p in patterns)]
    if not chosen:
        sys.exit(f"none of the files that have mutants is named {' or '.join(patterns)}")
    return chosen


def compiler() -> str:
    script = SOURCE_TREE / "scripts" / "find_compiler.sh"
    found = subprocess.run([script], capture_output=True, text=True, cwd=SOURCE_TREE)
    return found.stdout.strip() or sys.exit(found.stderr)


def read(output: Path, mutants: list[Mutant]) -> dict[str, dict[str, Any]]:
    """The last outcome of each mutant; not of those whose line is another by now."""
    lines = output.read_text().splitlines() if output.exists() else []
    rows = {row["mutant"]: row for row in map(json.loads, lines)}
    now = {mutant.name: mutant.line_before for mutant in mutants}
    return {name: row for name, row in rows.items() if now.get(name) == row["line"]}


class Run:
    """Keeps the outcomes, in memory and at the end of the file."""

    def __init__(self, mutants: list[Mutant], output: Path) -> None:
        self.output = output
        self.rows = read(output, mutants)

    def has_survived(self, mutant: Mutant, outcome: str = "survived") -> bool:
        """Tried, not killed, and for no known reason."""
        row = self.rows.get(mutant.name)
        return bool(row and row["outcome"].startswith(outcome) and not record.reason_of(row))

    def keep(self, mutant: Mutant, outcome: dict[str, Any], seconds: float) -> None:
        row = {
            "mutant": mutant.name,
            "file": mutant.file,
            "kind": mutant.kind,
            "line": mutant.line_before,
            "before": mutant.before,
            "after": mutant.after,
            **outcome,
            "seconds": round(seconds, 1),
        }
        self.rows[mutant.name] = row
        with self.output.open("a") as file:
            file.write(json.dumps(row) + "\n")
        by = f" by {row['by']}" if "by" in row else ""
        print(f"{seconds:6.1f} s  {row['outcome']}{by}  {mutant.name}", flush=True)


def run(options: argparse.Namespace) -> dict[str, dict[str, Any]]:
    options.output.parent.mkdir(parents=True, exist_ok=True)
    files = target_files(options.files)
    every = [m for file in files for m in mutants_of(file, (SOURCE_TREE / file).read_text())]
    if options.tried:
        return read(options.output, every)
    mutants = spread(every, options.seed, None if options.all else options.sample)
    current = Run(every, options.output)
    left = [m for m in mutants if m.name not in current.rows]
    if options.again:
        left = [m for m in every if current.has_survived(m)] + left
    print(f"{len(mutants)} mutants, {len(left)} of them to try", flush=True)
    workers = Workers(options.folder.resolve(), compiler(), options.jobs)
    try:
        for tried in workers.own_tests(left):
            current.keep(*tried)
        if not options.only_own:
            wanted = dict.fromkeys([*mutants, *left])
            passed = [m for m in wanted if current.has_survived(m, "survived its own tests")]
            for tried in workers.all_tests(passed):
                current.keep(*tried)
    finally:
        workers.close()
    return {m.name: current.rows[m.name] for m in mutants}


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument(
        "--sample", type=int, default=60, metavar="N", help="mutants, over all files"
    )
    parser.add_argument(
        "--all", action="store_true", help="every mutant there is (a night and more)"
    )
    parser.add_argument("--seed", type=int, default=1, help="of the sample")
    parser.add_argument(
        "--files", nargs="+", default=[], metavar="GLOB", help="of these files alone"
    )
    parser.add_argument("--output", type=Path, default=BUILD / "outcomes.jsonl")
    parser.add_argument("--folder", type=Path, default=BUILD, help="for the copy of the tree")
    parser.add_argument("--again", action="store_true", help="try survivors of that file anew")
    parser.add_argument("--jobs", type=int, default=1, metavar="N", help="mutants at a time")
    parser.add_argument(
        "--only-own", action="store_true", help="only the tests of its own file each"
    )
    parser.add_argument("--tried", action="store_true", help="no trials: what that file holds")
    parser.add_argument("--record", action="store_true", help="keep the result for docs/testing.md")
    options = parser.parse_args()
    try:
        found = record.make(run(options), options.seed)
    except FailsUnchanged as error:
        sys.exit(f"mutation: {error}")
    if options.record:
        record.write(found)
    print(record.figures(found))
    for row in record.unexplained(found):
        print(f"survived: {row['mutant']}\n    {row['line']}")
    return 1 if record.unexplained(found) else 0
