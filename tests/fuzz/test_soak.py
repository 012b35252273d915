# SPDX-License-Identifier: Apache-2.0
"""A short soak passes and disturbs what it should; what goes wrong ends it with status 1."""

import os
import pathlib
import re
import subprocess
import sys

import device
import pytest

SOAK = pathlib.Path(__file__).with_name("soak.py")
SUPPORT = SOAK.parents[1] / "support"
TOOLS = SOAK.parents[2] / "tools"

pytestmark = [
    pytest.mark.skipif(not device.choose().emulated, reason="allocations of the emulated device"),
    pytest.mark.skipif(
        "libasan" in os.environ.get("LD_PRELOAD", ""), reason="the sanitizer's malloc comes first"
    ),
]


def soak(*options, **environment):
    paths = [SOAK.parent, SUPPORT, TOOLS, *filter(None, [os.environ.get("PYTHONPATH")])]
    environment["PYTHONPATH"] = os.pathsep.join(map(str, paths))
    return subprocess.run(
        [sys.executable, "-P", SOAK, *options],
        env=os.environ | environment,
        capture_output=True,
        text=True,
        timeout=400,
    )


def figure(text, name):
    return int(re.search(rf"^{name} +([\d,]+)", text, re.MULTILINE)[1].replace(",", ""))


def test_short_soak_passes_and_disturbs():
    # Functions that are called for the first time may still load what they need.
    ended = soak("--seconds", "20", "--seed", "short", "--memory-mb", "300")
    assert ended.returncode == 0, ended.stdout + ended.stderr
    assert figure(ended.stdout, "calls") > 200
    assert figure(ended.stdout, "interrupts that ended a call") > 0
    assert figure(ended.stdout, "allocations of kernels that failed") > 0
    assert figure(ended.stdout, "allocations of objects that failed") > 0
    assert figure(ended.stdout, "calls that ended in MemoryError") > 0
    assert figure(ended.stdout, "differences") == 0
    assert "soak: passed (seed short)" in ended.stdout


PLANTED = {
    "a difference": (
        "reference_runtime.tqx_neg = lambda x: x",
        r"soak: FAILED: .*\d+ differences",
    ),
    "growing memory": (
        "kept = []; soak_calls.fuzzer.number = lambda source: kept.append('x' * 400000) or 1.0",
        r"soak: FAILED: .*memory grew by [\d.]+ MB, more than 64",
    ),
    "a file left open": (
        "kept = []; soak_calls.fuzzer.shape = lambda s: kept.append(open('/dev/null')) or ()",
        r"soak: FAILED: .*\d+ descriptors are open, after warm-up \d+",
    ),
    "the end of the process": (
        "soak_calls.Soak.one = lambda *given: os.abort()",
        r"soak: FAILED: the process ended by signal SIGABRT",
    ),
}


@pytest.mark.parametrize("name", PLANTED)
def test_what_goes_wrong_ends_with_status_one(name, tmp_path):
    planted, expected = PLANTED[name]
    calls = tmp_path / "planted.py"
    calls.write_text(
        "import os, sys\n"
        f"import soak_calls, reference_runtime\n{planted}\nsys.exit(soak_calls.main())\n"
    )
    ended = soak("--seconds", "8", "--calls", str(calls))
    assert ended.returncode == 1
    assert re.search(expected, ended.stdout), ended.stdout + ended.stderr
