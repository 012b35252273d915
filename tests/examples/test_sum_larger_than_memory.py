# SPDX-License-Identifier: Apache-2.0
"""A file of any form, cut in any way, gives one sum and one checksum in constant memory."""

import math
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

from korvex import exact

pytest.importorskip("tqdm")
EXAMPLE = Path(__file__).resolve().parents[2] / "examples" / "sum_larger_than_memory.py"
COUNT = 50_000


def run(*arguments):
    return subprocess.run(
        [sys.executable, "-P", "-W", "error", EXAMPLE, *map(str, arguments)],
        capture_output=True,
        text=True,
        timeout=120,
    )


def printed(*arguments):
    finished = run(*arguments)
    assert finished.returncode == 0, finished.stderr
    return dict(line.split() for line in finished.stdout.splitlines())


@pytest.fixture(scope="module")
def values():
    generator = np.random.default_rng(3)
    return generator.standard_normal(COUNT) * 2.0 ** generator.uniform(-60, 60, COUNT)


@pytest.fixture(scope="module")
def files(values, tmp_path_factory):
    """The values in each form; beside them stands a column that is not summed."""
    pyarrow = pytest.importorskip("pyarrow")
    parquet = pytest.importorskip("pyarrow.parquet")

    folder = tmp_path_factory.mktemp("files")
    np.save(folder / "values.npy", values)
    table = pyarrow.table({"other": np.zeros(COUNT), "values": values})
    with pyarrow.ipc.new_file(folder / "values.arrow", table.schema) as writer:
        for batch in table.to_batches(max_chunksize=7000):
            writer.write_batch(batch)
    parquet.write_table(table, folder / "values.parquet", row_group_size=11_000)
    return folder


@pytest.mark.parametrize("chunk", [50_000, 4096, 999])
@pytest.mark.parametrize("form", ["npy", "arrow", "parquet"])
def test_sum_and_checksum_are_those_of_the_whole_array(files, values, form, chunk):
    whole = exact.Sum.from_chunks([values])
    column = [] if form == "npy" else ["--column", "values"]
    assert printed(files / f"values.{form}", "--chunk", chunk, *column) == {
        "elements": str(COUNT),
        "sum": repr(math.fsum(values)),
        "checksum": whole.checksum(),
    }


def test_nulls_of_arrow_are_left_out(tmp_path):
    pyarrow = pytest.importorskip("pyarrow")
    parquet = pytest.importorskip("pyarrow.parquet")

    table = pyarrow.table({"values": [1.0, None, 2.5]})
    parquet.write_table(table, tmp_path / "some.parquet")
    found = printed(tmp_path / "some.parquet")
    assert (found["elements"], found["sum"]) == ("2", "3.5")


def test_memory_does_not_grow_with_the_file(tmp_path):
    path = tmp_path / "numbers.npy"
    assert run("--write", path, "--count", 12_000_000).returncode == 0
    assert path.stat().st_size > 90_000_000
    finished = run(path, "--chunk", 200_000)
    megabytes = float(finished.stderr.split("memory")[1].split()[0])
    assert megabytes < 45


@pytest.mark.parametrize("arguments", [[], ["x.npy", "--chunk", "0"], ["x.csv"]])
def test_wrong_arguments(arguments):
    finished = run(*arguments)
    assert finished.returncode != 0 and "Traceback" not in finished.stderr
