# SPDX-License-Identifier: Apache-2.0
"""What tests of `korvex.exact` have in common."""

import gc
import os
from pathlib import Path

import pytest
import stub_gpu
import subprocess_run

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
    """The best one here, which is active at first, and those before it that are installed."""
    best = INSTRUCTION_SETS.index(_native.instruction_set())
    libraries = Path(_native.__file__).resolve().parents[1] / "emulation"
    return tuple(
        name
        for name in INSTRUCTION_SETS[: best + 1]
        if (libraries / f"libkorvex_host_kernels_{name}.so").exists()
    )


@pytest.fixture(scope="module")
def quick_collections():
    """Keep what the run has made so far out of the many collections of a file."""
    gc.collect()
    gc.freeze()
    yield
    gc.unfreeze()


# --- GPUs over a stub of the driver


@pytest.fixture(scope="session")
def stub(tmp_path_factory):
    shared = tmp_path_factory.getbasetemp()
    if "PYTEST_XDIST_WORKER" in os.environ:
        shared = shared.parent
    return stub_gpu.build(shared / "stub_gpu")


@pytest.fixture
def run(stub, tmp_path):
    """Run a script over the stub driver, with kernel files by these names."""

    def run_script(library, script, files=("sm_80", "sm_90"), **environment):
        launcher = stub_gpu.install(tmp_path / "installation", *files)
        paths = [str(stub), os.environ.get("LD_LIBRARY_PATH")]
        environment = {
            "LD_LIBRARY_PATH": os.pathsep.join(filter(None, paths)),
            "KORVEX_TEST_LAUNCHER": str(launcher),
        } | environment
        lines = script.splitlines()
        margin = min(len(text) - len(text.lstrip()) for text in lines if text.strip())
        body = "\n".join(text[margin:] for text in lines)
        return subprocess_run.run_python(stub_gpu.PREAMBLE + library + body, **environment)

    return run_script
