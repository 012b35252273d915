# SPDX-License-Identifier: Apache-2.0
"""Arguments that `activate` refuses: by name, and before anything has changed."""

import device
import numpy as np
import pytest
import torch
from subprocess_run import run_python

from korvex import emulation

pytestmark = pytest.mark.skipif(
    not device.choose().emulated, reason="activation of the emulated device"
)


class Lying(int):
    def __lt__(self, other):
        return False

    __gt__ = __lt__


REFUSED = [
    ("threads", 1.5, TypeError, "threads must be an int, not float"),
    ("threads", "2", TypeError, "threads must be an int, not str"),
    ("threads", True, TypeError, "threads must be an int, not bool"),
    ("threads", np.int64(2), TypeError, "threads must be an int, not int64"),
    ("threads", Lying(-1), TypeError, "threads must be an int, not Lying"),
    ("threads", 0, ValueError, "threads must be at least 1, not 0"),
    ("threads", 2**31, ValueError, "threads must be at most 2147483647, not 2147483648"),
    ("threads", 2**40, ValueError, f"threads must be at most 2147483647, not {2**40}"),
    ("instruction_set", 2, TypeError, "instruction_set must be a str, not int"),
    ("instruction_set", ["fma"], TypeError, "instruction_set must be a str, not list"),
    (
        "instruction_set",
        "FMA",
        ValueError,
        "instruction_set must be 'base', 'fma' or 'avx512', not 'FMA'",
    ),
    ("library", 3, TypeError, "library must be a str or a path of str, not int"),
    ("library", b"/lib.so", TypeError, "library must be a str or a path of str, not bytes"),
    ("library", "a\0b", ValueError, "library must be a path, not 'a\\x00b'"),
]


@pytest.mark.parametrize("name, value, kind, message", REFUSED)
def test_second_activation_refuses_and_keeps_what_it_had(module, name, value, kind, message):
    active = emulation.active_device()
    before = str(active)
    with pytest.raises(kind) as caught:
        emulation.activate(**{"threads": 3, name: value})
    assert str(caught.value) == message
    assert emulation.active_device() is active and str(active) == before
    x = torch.ones(200_000, dtype=torch.float64, device="cuda")
    assert module.tqx_sum(x, exact=False).item() == 200_000.0


def test_most_threads_are_accepted(module):
    active = emulation.active_device()
    before = active.threads
    try:
        assert emulation.activate(threads=2**31 - 1).threads == 2**31 - 1
        x = torch.ones(200_000, dtype=torch.float64, device="cuda")
        assert module.tqx_sum(x, exact=False).item() == 200_000.0
    finally:
        emulation.activate(threads=before)


def test_first_activation_refuses_the_same_and_can_be_repeated():
    cases = [(name, value, kind.__name__, text) for name, value, kind, text in REFUSED[:2]]
    cases += [(name, value, kind.__name__, text) for name, value, kind, text in REFUSED[-6:]]
    run_python(f"""
        import korvex.emulation, sys
        for name, value, kind, text in {cases!r}:
            try:
                korvex.emulation.activate(**{{name: value}})
            except Exception as error:
                assert (type(error).__name__, str(error)) == (kind, text), error
            else:
                raise AssertionError(name)
            assert korvex.emulation.active_device() is None
        assert "korvex.tqx_runtime" not in sys.modules
        assert korvex.emulation.activate(threads=2).threads == 2
    """)


def test_the_device_shows_what_it_is(module):
    active = emulation.active_device()
    plural = "" if active.threads == 1 else "s"
    assert repr(active) == (
        f"<EmulatedDevice: {active.instruction_set} kernels, {active.threads} thread{plural}>"
    )
