# SPDX-License-Identifier: Apache-2.0
"""A failure at every single call that start-up makes out of the module, in every situation."""

import json

import pytest
import startup_faults
from subprocess_run import run_python


@pytest.fixture(scope="module")
def found():
    """What a run of all faults found, each in a fork of one process that has not imported torch."""
    script = "import sys, startup_faults; assert 'torch' not in sys.modules; startup_faults.main()"
    return json.loads(run_python(script))


def test_fault_at_every_call_of_startup_ends_as_expected(found, record_property):
    assert found["wrong"] == []
    record_property("faults injected", found["faults"])


def test_every_situation_and_every_kind_was_tried(found):
    calls = list(map(startup_faults.count_of_events, startup_faults.SITUATIONS.values()))
    assert min(calls) > 13
    places = sum(calls) + len(found["reads"])
    assert found["faults"] == places * len(startup_faults.KINDS)


def test_create_reads_the_copied_attributes_last(found):
    copied = ["loader", "origin", "parent", "submodule_search_locations"]
    assert found["reads"][-4:] == [f"spec.{name}" for name in copied]


@pytest.mark.parametrize(
    ("situation", "statement", "other"),
    [
        ("relative name", "import struct\nimport hashlib", "import hashlib\nimport struct"),
        ("absolute name", "    except ImportError:\n", "    except Exception:\n"),
        ("no cupy", "import cupy as cp", "try:\n    import cupy as cp\nexcept ImportError: pass"),
    ],
)
def test_a_startup_of_another_kind_would_be_noticed(situation, statement, other):
    """The reference implementation is changed in the module's place: what differs is the same."""
    script = f"""
        import startup_faults as faults
        assert {statement!r} in faults.REFERENCE
        faults.REFERENCE = faults.REFERENCE.replace({statement!r}, {other!r})
        faults.SITUATIONS = {{{situation!r}: faults.SITUATIONS[{situation!r}]}}
        faults.KINDS = faults.KINDS[:1]
        faults.main()
    """
    assert json.loads(run_python(script))["wrong"]
