#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Sums numbers over the processes of MPI: the same bits for any number of them.

Wants the extra `mpi` of the distribution: mpi4py, and an MPI to run it with.

    mpiexec -n 4 python examples/sum_over_mpi.py --count 1000000
"""

import argparse

import numpy as np
from mpi4py import MPI

from korvex import exact

CHUNK = 10_000  # elements that are drawn together


def chunk_of(number: int, count: int) -> np.ndarray:
    """The numbers of one chunk, which depend on its number alone, over 120 binades."""
    generator = np.random.default_rng([1, number])
    size = min(CHUNK, count - number * CHUNK)
    return generator.standard_normal(size) * 2.0 ** generator.uniform(-60, 60, size)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--count", type=int, default=1_000_000, help="numbers to sum (1000000)")
    options = parser.parse_args()
    comm = MPI.COMM_WORLD
    chunks = range(comm.rank, -(-options.count // CHUNK), comm.size)  # every process has others
    total = exact.Moments.from_chunks(chunk_of(number, options.count) for number in chunks)
    plain = np.array(sum(float(np.sum(chunk_of(number, options.count))) for number in chunks))

    comm.Allreduce(MPI.IN_PLACE, total.state, MPI.SUM)
    comm.Allreduce(MPI.IN_PLACE, plain, MPI.SUM)

    if comm.rank == 0:
        print(f"elements  {total.count}")
        print(f"sum       {float(total.sum())!r}")
        print(f"std       {total.std(correction=1)!r}")
        print(f"checksum  {total.checksum()}")
        print(f"rounded   {float(plain)!r} (in {comm.size} processes)")


if __name__ == "__main__":
    main()
