# SPDX-License-Identifier: Apache-2.0
"""The page "Larger than one machine" and its picture say what is so."""

import re
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import numpy as np
import pytest

from korvex import exact
from korvex_tools.figures import processes_picture

DOCS = Path(__file__).resolve().parents[2] / "docs"
PAGE = " ".join((DOCS / "larger_than_one_machine.md").read_text().split())


def test_picture_is_as_its_script_draws_it():
    text = (DOCS / processes_picture.NAME).read_text()
    assert text == processes_picture.picture()
    assert ElementTree.fromstring(text).tag.endswith("svg")


@pytest.mark.parametrize("kind", [exact.Sum, exact.Dot, exact.Moments])
def test_bytes_of_a_message(kind):
    bytes_of_message = kind().state.nbytes
    assert f"{bytes_of_message:,} of a `{kind.__name__}`" in PAGE or (
        f"{bytes_of_message} bytes of a `{kind.__name__}`" in PAGE
    )


def test_what_was_never_run_is_marked():
    rows = (DOCS / "larger_than_one_machine.md").read_text().splitlines()
    never = [row for row in rows if row.startswith("|") and "**never run**" in row]
    assert [re.search(r"NCCL|Spark, Ray", row)[0] for row in never] == ["NCCL", "Spark, Ray"]


def test_accumulators_can_be_pickled_as_the_recipes_need():
    import functools
    import operator
    import pickle

    chunks = np.array_split(np.arange(100) / 7, 7)
    parts = [pickle.loads(pickle.dumps(exact.Sum.from_chunks([chunk]))) for chunk in chunks]
    total = functools.reduce(operator.add, parts, exact.Sum())
    assert total == exact.Sum.from_chunks(chunks)


def test_gradients_have_room_for_what_the_page_says():
    from korvex.exact import _gradients

    assert _gradients._MOST_GRADIENTS == 2**18 and "Up to 2^18 micro-batches" in PAGE
    # A gradient that fits has a high word of 2^44 at most, and settled low words are below 2^45.
    assert _gradients._END / 2**_gradients._LOW_BITS == 2.0**44
    assert 2**18 * (2**44 + 1) < 2**63 and 2**18 * 2**45 <= 2**63
    assert _gradients._END / _gradients._UNITS == 2.0**12
    assert 2.0**-54 * 2.0**-23 * _gradients._UNITS == 1.0
