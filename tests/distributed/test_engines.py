# SPDX-License-Identifier: Apache-2.0
"""The examples for engines, run as a user runs them: one sum, however it was cut."""

import runpy
import shutil
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
import torch.distributed

from korvex import exact

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
COUNT = 30_000


def printed(*command):
    """What a program printed, by the first word of each line; its process group ends with it."""
    finished = subprocess.run(
        [*map(str, command)], capture_output=True, text=True, timeout=120, process_group=0
    )
    assert finished.returncode == 0, finished.stdout + finished.stderr
    return dict(line.split(maxsplit=1) for line in finished.stdout.splitlines())


def same(*runs):
    """All lines but that of the rounded sum are equal; returns one of them."""
    exact_lines = [{k: v for k, v in run.items() if k != "rounded"} for run in runs]
    assert all(lines == exact_lines[0] for lines in exact_lines)
    return exact_lines[0]


# --- MPI


@pytest.fixture(scope="module")
def mpiexec():
    """The program that starts processes, of an MPI that mpi4py finds."""
    pytest.importorskip("mpi4py")
    beside = Path(sys.executable).with_name("mpiexec")
    found = str(beside) if beside.exists() else shutil.which("mpiexec")
    if found is None:
        pytest.skip("there is no mpiexec")
    return found


def over_mpi(mpiexec, processes):
    program = [sys.executable, "-P", EXAMPLES / "sum_over_mpi.py", "--count", COUNT]
    return printed(mpiexec, "-n", processes, *program)


def test_mpi_of_one_to_four_processes(mpiexec):
    runs = [over_mpi(mpiexec, processes) for processes in (1, 2, 3, 4)]
    lines = same(*runs)
    assert lines["elements"] == str(COUNT)
    example = runpy.run_path(str(EXAMPLES / "sum_over_mpi.py"))
    whole = np.concatenate([example["chunk_of"](number, COUNT) for number in range(3)])
    assert lines["checksum"] == exact.Moments.from_chunks([whole]).checksum()
    assert [float(run["rounded"].split()[0]) for run in runs] != [float(lines["sum"])] * 4


# --- Dask


def test_dask_of_any_chunks_on_threads_and_in_processes():
    pytest.importorskip("dask.array")
    program = [sys.executable, "-P", EXAMPLES / "sum_over_dask.py", "--count", COUNT]
    runs = [
        printed(*program, "--chunk", chunk, "--scheduler", scheduler)
        for chunk, scheduler in ((COUNT, "sync"), (7001, "threads"), (999, "threads"))
    ]
    runs.append(printed(*program, "--chunk", 10_007, "--scheduler", "processes"))
    assert same(*runs)["elements"] == str(COUNT)


def test_dask_arrays_with_several_axes():
    array = pytest.importorskip("dask.array")
    example = runpy.run_path(str(EXAMPLES / "sum_over_dask.py"))
    generator = np.random.default_rng(4)
    x = generator.standard_normal((30, 41, 7)) * 2.0 ** generator.uniform(-90, 90, (30, 41, 7))
    for chunks in ((30, 41, 7), (7, 10, 3), (1, 41, 2)):
        total = example["exact_sum"](array.from_array(x, chunks=chunks))
        found = total.compute(scheduler="synchronous").item()
        assert found == exact.Sum.from_chunks([x])


# --- Arrow


def test_arrow_tables_cut_anywhere():
    pytest.importorskip("pyarrow")
    program = [sys.executable, "-P", EXAMPLES / "sum_over_arrow.py", "--count", COUNT]
    runs = [printed(*program, "--tables", tables) for tables in (1, 2, 7, 100)]
    assert len(same(*runs)) == 5


def test_arrow_groups_are_the_sums_of_their_rows():
    pa = pytest.importorskip("pyarrow")
    example = runpy.run_path(str(EXAMPLES / "sum_over_arrow.py"))
    table = pa.table({"key": [2, 1, 2, 1, 3], "value": [1e16, 0.5, -1e16, None, 7.0]})
    parts = [example["partial_sums"](part, "key", "value") for part in (table[:2], table[2:])]
    totals = example["merged_sums"](parts, "key")
    assert {key: (float(total), total.count) for key, total in totals.items()} == {
        1: (0.5, 1),
        2: (0.0, 2),
        3: (7.0, 1),
    }
    assert parts[0].schema.field("sum").type == pa.binary()


# --- torch.distributed


@pytest.mark.skipif(not torch.distributed.is_available(), reason="this torch has no processes")
def test_training_on_any_number_of_processes():
    def checksums(*options):
        program = [sys.executable, "-P", EXAMPLES / "train_over_processes.py", *options]
        finished = subprocess.run(
            [*map(str, program), "--steps", "6"], capture_output=True, text=True, timeout=300
        )
        assert finished.returncode == 0, finished.stdout + finished.stderr
        found = {"exact": [], "plain": []}
        for line in finished.stdout.splitlines():
            kind, checksum, _ = line.split(maxsplit=2)
            found[kind].append(checksum)
        return found

    found = checksums("--processes", 1, 2, 3)
    assert [len(each) for each in found.values()] == [3, 3]
    assert len(set(found["exact"])) == 1 and len(set(found["plain"])) > 1
    single = checksums("--processes", 2, "--micro-batch", 1)
    assert single["exact"] != found["exact"][:1]  # another cut has other addends


@pytest.mark.skipif(not torch.distributed.is_available(), reason="this torch has no processes")
def test_training_leaves_no_thread_of_its_group(tmp_path):
    """A thread of the engine that still runs as the interpreter ends can abort the process."""
    program = """
import argparse, pathlib, runpy, sys
example = runpy.run_path(sys.argv[1])
options = argparse.Namespace(steps=1, micro_batch=8)
example["run_rank"](0, 1, sys.argv[2], options)
for thread in pathlib.Path("/proc/self/task").iterdir():
    print("thread", (thread / "comm").read_text().strip())
"""
    finished = subprocess.run(
        [sys.executable, "-P", "-c", program, str(EXAMPLES / "train_over_processes.py"), tmp_path],
        capture_output=True,
        text=True,
        timeout=300,
    )
    assert finished.returncode == 0, finished.stderr
    threads = [line.split()[1] for line in finished.stdout.splitlines() if "thread" in line]
    assert threads and not [name for name in threads if "gloo" in name]
