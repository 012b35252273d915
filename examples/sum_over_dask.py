#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Sums a Dask array exactly: the same bits for any chunks, on threads and in processes.

Every chunk becomes an accumulator, and accumulators are merged in a tree. Wants the extra `dask` of
the distribution.

    python examples/sum_over_dask.py --count 1000000 --chunk 12345 --scheduler processes
"""

import argparse
from typing import Any

import dask
import dask.array
import numpy as np

from korvex import exact


def exact_sum(x: dask.array.Array) -> dask.array.Array:
    """The sum of all elements as a Dask array without axes: its value is an `exact.Sum`."""
    return dask.array.reduction(
        x, chunk=state_of_chunk, combine=merged, aggregate=merged_at_last, dtype=object
    )


def state_of_chunk(x: np.ndarray, axis: Any, keepdims: bool) -> np.ndarray:
    return boxed(exact.Sum.from_chunks([np.asarray(x)]), x.ndim)


def merged(parts: np.ndarray, axis: Any, keepdims: bool) -> np.ndarray:
    total = exact.Sum()
    if parts.dtype != object:  # Dask tries an array of its own first, to learn what comes out
        return boxed(total, parts.ndim)
    for part in parts.flat:
        total.merge(part)
    return boxed(total, parts.ndim)


def merged_at_last(parts: np.ndarray, axis: Any, keepdims: bool) -> np.ndarray:
    return merged(parts, axis, keepdims).reshape(())


def boxed(total: exact.Sum, dimensions: int) -> np.ndarray:
    """An array with one element, as Dask joins results of chunks like arrays."""
    box = np.empty((1,) * dimensions, object)
    box[(0,) * dimensions] = total
    return box


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--count", type=int, default=1_000_000, help="numbers to sum (1000000)")
    parser.add_argument("--chunk", type=int, default=100_000, help="elements of a chunk (100000)")
    parser.add_argument("--scheduler", default="threads", choices=["threads", "processes", "sync"])
    options = parser.parse_args()
    generator = np.random.default_rng(1)
    numbers = generator.standard_normal(options.count)
    numbers *= 2.0 ** generator.uniform(-60, 60, options.count)
    x = dask.array.from_array(numbers, chunks=options.chunk)
    with dask.config.set(scheduler=options.scheduler, num_workers=2):
        total = exact_sum(x).compute().item()
        plain = float(x.sum().compute())
    print(f"elements  {total.count}")
    print(f"sum       {float(total)!r}")
    print(f"checksum  {total.checksum()}")
    print(f"rounded   {plain!r} (chunks of {options.chunk})")


if __name__ == "__main__":
    main()
