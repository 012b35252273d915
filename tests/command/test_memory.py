# SPDX-License-Identifier: Apache-2.0
"""Files of any size are summed in the memory that a small one takes and a fixed amount more."""

import gzip
import os
import resource
import subprocess

import numpy as np
import pytest

pytest.importorskip("pyarrow")
import pyarrow as pa  # noqa: E402
import pyarrow.parquet  # noqa: E402

ALLOWANCE = 200_000_000  # bytes above the peak for a small file: pieces on the way, on all threads
LARGE = 1_000_000_000
LINES = "".join(f"{n / 7!r}\n" for n in range(50_000)).encode()


def peak_bytes(command, *arguments):
    """The peak of the resident set of a run, which must succeed."""
    with subprocess.Popen([*command, *map(str, arguments)], stdout=subprocess.DEVNULL) as process:
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
    assert process.returncode == 0
    return usage.ru_maxrss * 1024


def write_npy(path, size):
    """Zeros that take no room on the disk."""
    with path.open("wb") as stream:
        header = {"descr": "<f8", "fortran_order": False, "shape": (size // 8,)}
        np.lib.format.write_array_header_1_0(stream, header)
        os.truncate(stream.fileno(), stream.tell() + size // 8 * 8)


def write_text(path, size):
    with path.open("wb") as stream:
        for _ in range(size // len(LINES) + 1):
            stream.write(LINES)


def write_csv(path, size):
    rows = b"".join(b"%s,%s\n" % (line, line) for line in LINES.split())
    with path.open("wb") as stream:
        stream.write(b"a,b\n")
        for _ in range(size // len(rows) + 1):
            stream.write(rows)


def write_gzip(path, size):
    member = gzip.compress(LINES * 20, 1)
    with path.open("wb") as stream:
        for _ in range(size // (len(LINES) * 20) + 1):
            stream.write(member)


def write_parquet(path, size):
    """One group of rows for all, as a writer with much memory leaves it."""
    values = np.random.default_rng(1).standard_normal(size // 8)
    pa.parquet.write_table(pa.table({"a": values}), path, row_group_size=values.size)


def write_arrow(path, size):
    batch = pa.record_batch({"a": np.random.default_rng(1).standard_normal(1 << 20)})
    with pa.ipc.new_file(path, batch.schema) as writer:
        for _ in range(size // batch.nbytes + 1):
            writer.write_batch(batch)


WRITERS = {
    "npy": write_npy,
    "txt": write_text,
    "csv": write_csv,
    "txt.gz": write_gzip,
    "parquet": write_parquet,
    "arrow": write_arrow,
}


def check(command, folder, form, size):
    WRITERS[form](folder / f"small.{form}", 1000)
    WRITERS[form](folder / f"large.{form}", size)
    small = peak_bytes(command, "sum", folder / f"small.{form}")
    large = peak_bytes(command, "sum", folder / f"large.{form}")
    assert large < small + ALLOWANCE, f"{(large - small) / 1e6:.0f} MB more"


def test_an_array_that_is_larger_than_the_allowance(command, tmp_path):
    check(command, tmp_path, "npy", 2 * ALLOWANCE)


@pytest.mark.long
@pytest.mark.parametrize("form", WRITERS)
def test_a_file_of_a_gigabyte(command, tmp_path, form):
    check(command, tmp_path, form, LARGE)


def limit_memory():
    resource.setrlimit(resource.RLIMIT_AS, (2_500_000_000, 2_500_000_000))


@pytest.mark.long
@pytest.mark.parametrize("form", ["npy", "csv"])
def test_large_files_pass_under_a_limit_on_the_address_space(command, tmp_path, form):
    """The limit leaves room for the libraries of pyarrow, which reserve more than they use."""
    WRITERS[form](tmp_path / f"large.{form}", 4 * LARGE if form == "npy" else LARGE)
    run = subprocess.run(
        [*command, "sum", tmp_path / f"large.{form}"],
        capture_output=True,
        text=True,
        preexec_fn=limit_memory,
    )
    assert (run.returncode, run.stderr) == (0, "")
