# SPDX-License-Identifier: Apache-2.0
"""The benchmarks run, check what they time, and record it. Speed itself is not tested here."""

import json
import subprocess
import sys
from pathlib import Path

import pytest

import korvex.emulation

BENCHMARKS = Path(__file__).resolve().parent.parent.parent / "benchmarks"
SCRIPTS = sorted(path.stem for path in BENCHMARKS.glob("bench_*.py"))
# The others time a GPU, and have no quick run.
HOST_SCRIPTS = [name for name in SCRIPTS if not name.startswith("bench_gpu_")]
RECORDS = sorted(BENCHMARKS.glob("results/bench_*.json"))
NEEDED = {"bench_command": ("pyarrow", "rich", "tqdm")}
TIMES = ("ns_", "ms", "milliseconds", "module_us", "plain_us", "seconds", "torch_seconds")


def run(script, *arguments):
    return subprocess.run(
        [sys.executable, "-W", "error", BENCHMARKS / f"{script}.py", *map(str, arguments)],
        capture_output=True,
        text=True,
        check=True,
        timeout=300,
    ).stdout


@pytest.fixture(scope="module", params=HOST_SCRIPTS)
def quick(request, tmp_path_factory):
    """The name of a script, what a quick run prints and what it records."""
    for package in NEEDED.get(request.param, ()):
        pytest.importorskip(package)
    folder = tmp_path_factory.mktemp("results")
    output = run(request.param, "--quick", "--output", folder)
    [path] = folder.iterdir()
    return request.param, output, path.name, json.loads(path.read_text())


def test_record_is_named_for_script_and_machine(quick):
    script, _, file_name, record = quick
    assert file_name.startswith(f"{script}-")
    assert record["benchmark"] == script


def test_record_tells_date_machine_and_settings(quick):
    record = quick[3]
    assert record["date"].endswith("+00:00")
    assert record["host"]["processors"] >= 1
    assert record["host"]["versions"]["korvex-tqx"]
    assert record["settings"]["n"] > 0


def results_of(record):
    for part in record.get("runs", [record]):
        yield from part["results"]


def test_each_recorded_row_is_in_the_printed_table(quick):
    _, output, _, record = quick
    rows = list(results_of(record))
    assert len(rows) >= 4
    for row in rows:
        name, *figures = row.values()
        assert name in output
        assert all(figure >= 0 for figure in figures)
        times = [value for key, value in row.items() if key.startswith(TIMES)]
        assert all(time > 0 for time in times)


def test_quick_run_records_nothing_by_itself():
    before = {path: path.stat().st_mtime_ns for path in RECORDS}
    assert "written:" not in run("bench_overhead", "--quick")
    assert {path: path.stat().st_mtime_ns for path in RECORDS} == before


def test_builds_are_compared_with_each_other():
    folder = Path(korvex.emulation.__file__).parent
    output = run("compare_builds", folder, folder, "--n", 500, "--repeats", 2, "--kernels", "sum")
    assert "base, n = 500, 1 thread, after / before" in output
    rows = [line.split() for line in output.splitlines() if line.startswith("tqx_sum_kernel, wide")]
    assert rows and all(float(figure) > 0 for row in rows for figure in row[2:])


def test_emulated_devices_are_compared_with_each_other():
    folder = Path(korvex.emulation.__file__).parents[2]
    output = run("compare_emulation", folder, folder, "--repeats", 1, "--turns", 1)
    assert "n = 100, microseconds" in output
    rows = [line.split() for line in output.splitlines() if line.startswith("launch of tqx_sum")]
    assert len(rows) == 1 and all(float(figure) > 0 for figure in rows[0][-3:])
    assert "operations of torch, n = 100, microseconds" in output
    [division] = [line.split() for line in output.splitlines() if line.startswith("x / 3.0")]
    assert all(float(figure) > 0 for figure in division[-4:])


@pytest.mark.parametrize("path", RECORDS, ids=lambda path: path.stem)
def test_kept_record_is_of_a_full_run_of_a_script(path):
    record = json.loads(path.read_text())
    assert record["benchmark"] in SCRIPTS
    assert path.name.startswith(record["benchmark"] + "-")
    if record["benchmark"] == "bench_sum":
        assert record["settings"]["n"] == 10_000_000
