# SPDX-License-Identifier: Apache-2.0
"""Holds exp, log, sqrt, sigmoid and tanh of the host kernels against MPFR, bit for bit.

Random arguments of every kind, split over processes. Ends with status 1 if any result is not the
correct rounding. Runs on the installed package, whose libraries take turns.
"""

import argparse
import ctypes
import multiprocessing
import os
import sys
import time

import numpy as np

from korvex.emulation._library import HostLibrary, usable_instruction_sets
from korvex_tools.references import elementary_reference as reference

BATCH = 50_000
USABLE = usable_instruction_sets()


def computed(name, arguments, instruction_set):
    library = HostLibrary(instruction_set, 1)
    out = np.empty_like(arguments)
    row = library.kernels[f"tqx_{name}_kernel"]
    pointers = [ctypes.c_void_p(array.ctypes.data) for array in (arguments, out)]
    library.launch(row, (1, 1, 1), (row.block, 1, 1), [*pointers, ctypes.c_int64(len(arguments))])
    return out


def check_batch(task):
    name, kind, seed, count = task
    arguments = reference.draw(name, kind, seed, count)
    results = computed(name, arguments, USABLE[seed % len(USABLE)])
    expected = reference.REFERENCE[name](arguments.tolist())
    return name, kind, count, reference.differences(arguments, results, expected)


def tasks(count, seed):
    """Batches of all functions and kinds in turns, so that an early end leaves them even."""
    kinds = {name: list(reference.KINDS[name]) for name in reference.NAMES}
    for batch in range((count + BATCH - 1) // BATCH):
        for name in reference.NAMES:
            kind = kinds[name][batch % len(kinds[name])]
            yield name, kind, seed + batch, min(BATCH, count - batch * BATCH)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--count", type=int, default=10_000_000, help="arguments per function")
    parser.add_argument("--minutes", type=float, default=0, help="stop after so long; 0: never")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--processes", type=int, default=os.cpu_count())
    options = parser.parse_args()
    begin = time.monotonic()
    checked = dict.fromkeys(reference.NAMES, 0)
    wrong = dict.fromkeys(reference.NAMES, 0)
    with multiprocessing.Pool(options.processes) as pool:
        for name, kind, count, found in pool.imap(check_batch, tasks(options.count, options.seed)):
            checked[name] += count
            wrong[name] += len(found)
            for difference in found[:3]:
                print(f"{name}, {kind}: argument, result, expected: {difference}", flush=True)
            if options.minutes and time.monotonic() - begin > 60 * options.minutes:
                break
        pool.terminate()
    for name in reference.NAMES:
        print(f"{name:8} {checked[name]:>10} values  {wrong[name]} misrounded")
    print(f"instruction sets in turns: {', '.join(USABLE)}; {time.monotonic() - begin:.0f} s")
    return 1 if any(wrong.values()) else 0


if __name__ == "__main__":
    sys.exit(main())
