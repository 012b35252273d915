#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Sums a file of any size exactly, with memory for one chunk of it.

FILE.npy is read through a memory map, FILE.arrow and FILE.parquet as Arrow record batches. The sum
and its checksum are the same for every size of a chunk, and for every form of the file. Wants the
extra `stream` of the distribution: pyarrow and tqdm.

    sum_larger_than_memory.py --write numbers.npy --count 1_000_000_000
    sum_larger_than_memory.py numbers.npy
    sum_larger_than_memory.py numbers.parquet --column price --chunk 1_000_000
"""

import argparse
import resource
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import numpy as np
from tqdm import tqdm

from korvex import exact

CHUNK = 4_000_000  # elements
Chunks = Iterator[Any]


def npy_chunks(path: Path, size: int) -> tuple[int, Chunks]:
    """The number of elements, and parts of the file; each part has a memory map of its own."""
    whole = np.load(path, mmap_mode="r")
    count, dtype, offset = whole.size, whole.dtype, whole.offset

    def chunks() -> Chunks:
        for first in range(0, count, size):
            length = min(size, count - first)
            yield np.memmap(path, dtype, "r", offset + first * dtype.itemsize, (length,))

    return count, chunks()


def arrow_chunks(path: Path, size: int, column: str | None) -> tuple[int, Chunks]:
    """The same of an Arrow file, whose record batches are mapped and not read."""
    import pyarrow

    file = pyarrow.ipc.open_file(pyarrow.memory_map(str(path)))
    index = 0 if column is None else file.schema.get_field_index(column)
    numbers = range(file.num_record_batches)
    count = sum(file.get_batch(number).num_rows for number in numbers)

    def chunks() -> Chunks:
        for number in numbers:
            values = file.get_batch(number).column(index)
            for first in range(0, len(values), size):
                yield values[first : first + size].drop_null()

    return count, chunks()


def parquet_chunks(path: Path, size: int, column: str | None) -> tuple[int, Chunks]:
    """The same of a Parquet file, decoded batch by batch."""
    import pyarrow.parquet

    file = pyarrow.parquet.ParquetFile(path)
    name = column or file.schema_arrow.names[0]

    def chunks() -> Chunks:
        for batch in file.iter_batches(batch_size=size, columns=[name]):
            yield batch.column(0).drop_null()

    return file.metadata.num_rows, chunks()


def chunks_of(path: Path, size: int, column: str | None) -> tuple[int, Chunks]:
    if path.suffix == ".npy":
        return npy_chunks(path, size)
    if path.suffix == ".arrow":
        return arrow_chunks(path, size, column)
    if path.suffix == ".parquet":
        return parquet_chunks(path, size, column)
    raise SystemExit(f"{path}: .npy, .arrow or .parquet expected")


def with_progress(count: int, chunks: Chunks) -> Chunks:
    """Shows on standard error how much is done; nothing where that is no terminal."""
    with tqdm(total=count, unit=" elements", unit_scale=True, disable=None) as bar:
        for chunk in chunks:
            yield chunk
            bar.update(len(chunk))


def write_numbers(path: Path, count: int) -> None:
    """Normal numbers over 120 binades, to have something to sum."""
    out = np.lib.format.open_memmap(path, "w+", np.float64, (count,))
    generator = np.random.default_rng(1)
    for first in tqdm(range(0, count, CHUNK), disable=None):
        part = out[first : first + CHUNK]
        part[:] = generator.standard_normal(part.size)
        part *= 2.0 ** generator.uniform(-60, 60, part.size)
    out.flush()


def peak_bytes() -> int:
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024


def main() -> None:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("file", type=Path, nargs="?", help="FILE.npy, FILE.arrow, FILE.parquet")
    parser.add_argument("--chunk", type=int, default=CHUNK, help=f"elements at a time ({CHUNK})")
    parser.add_argument("--column", help="of an Arrow or Parquet file, by name (the first one)")
    parser.add_argument("--write", type=Path, metavar="FILE.npy", help="make such a file instead")
    parser.add_argument("--count", type=int, default=10_000_000, help="elements to write")
    options = parser.parse_args()
    if options.write:
        write_numbers(options.write, options.count)
        return
    if options.file is None or options.chunk < 1:
        parser.error("give a FILE, and a --chunk of at least 1")
    before = peak_bytes()
    total = exact.Sum.from_chunks(
        with_progress(*chunks_of(options.file, options.chunk, options.column))
    )
    print(f"elements  {total.count}")
    print(f"sum       {float(total)!r}")
    print(f"checksum  {total.checksum()}")
    print(f"memory    {(peak_bytes() - before) / 1e6:.1f} MB more", file=sys.stderr)


if __name__ == "__main__":
    main()
