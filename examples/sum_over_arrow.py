#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Sums a column of Arrow tables by group, table by table: the same bits for any cut.

Each table gives one of partial sums: a row for each group, with the bytes of its accumulator in a
binary column. Such tables may be written, sent and joined like others; rows of one group merge.
Wants the extra `cli` of the distribution.

    python examples/sum_over_arrow.py --count 100000 --tables 7
"""

import argparse
import hashlib
from collections.abc import Iterable

import numpy as np
import pyarrow as pa
import pyarrow.compute

from korvex import exact


def partial_sums(table: pa.Table, key: str, value: str) -> pa.Table:
    """A row for each group of a table: its key, and a sum as bytes; nulls are left out."""
    table = table.select([key, value]).combine_chunks().sort_by(key)
    runs = pyarrow.compute.run_end_encode(table.column(key).combine_chunks())
    keys, sums, begin = runs.values, [], 0
    for end in runs.run_ends.to_pylist():
        chunks = table.column(value).slice(begin, end - begin).drop_null().chunks
        sums.append(bytes(exact.Sum.from_chunks(chunks)))
        begin = end
    return pa.table({key: keys, "sum": pa.array(sums, pa.binary())})


def merged_sums(parts: Iterable[pa.Table], key: str) -> dict[object, exact.Sum]:
    """By group the sum of all its rows in such tables, in any order."""
    totals: dict[object, exact.Sum] = {}
    for part in parts:
        for row in part.to_pylist():
            partial = exact.loads(row["sum"])
            if not isinstance(partial, exact.Sum):
                raise TypeError(f"a {type(partial).__name__} stands among the sums")
            totals.setdefault(row[key], exact.Sum()).merge(partial)
    return totals


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--count", type=int, default=100_000, help="rows (100000)")
    parser.add_argument("--tables", type=int, default=4, help="tables that they are cut into (4)")
    options = parser.parse_args()
    generator = np.random.default_rng(1)
    values = generator.standard_normal(options.count)
    values *= 2.0 ** generator.uniform(-60, 60, options.count)
    groups = np.array(["north", "east", "south", "west"])[generator.integers(0, 4, options.count)]
    tables = [
        pa.table({"group": groups[rows], "value": values[rows]})
        for rows in np.array_split(np.arange(options.count), options.tables)
    ]
    totals = merged_sums((partial_sums(table, "group", "value") for table in tables), "group")
    digest = hashlib.sha256()
    for name, total in sorted(totals.items()):
        print(f"{name:8}  {total.count:8}  {float(total)!r}")
        digest.update(bytes(total))
    print(f"checksum  {digest.hexdigest()}")


if __name__ == "__main__":
    main()
