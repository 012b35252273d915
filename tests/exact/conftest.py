# SPDX-License-Identifier: Apache-2.0
"""What tests of `korvex.exact` have in common."""

import gc

import pytest

from korvex import exact
from korvex.exact import _native

INSTRUCTION_SETS = ("base", "fma", "avx512")


@pytest.fixture(autouse=True)
def settings():
    """Threads and instruction set are as they were."""
    threads, instruction_set = exact.get_threads(), _native.instruction_set()
    yield
    exact.set_threads(threads)
    _native.set_instruction_set(instruction_set)


@pytest.fixture(scope="session")
def usable_instruction_sets():
    """Those that this processor has: the best one, which is active at first, and those before."""
    best = INSTRUCTION_SETS.index(_native.instruction_set())
    return INSTRUCTION_SETS[: best + 1]


@pytest.fixture(scope="module")
def quick_collections():
    """Keep what the run has made so far out of the many collections of a file."""
    gc.collect()
    gc.freeze()
    yield
    gc.unfreeze()
