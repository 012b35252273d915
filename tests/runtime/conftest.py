# SPDX-License-Identifier: Apache-2.0
"""What tests that collect garbage many times have in common."""

import gc

import pytest


@pytest.fixture(scope="module")
def quick_collections():
    """Keep what the run has made so far out of the many collections of a file."""
    gc.collect()
    gc.freeze()
    yield
    gc.unfreeze()
