# SPDX-License-Identifier: Apache-2.0
"""The package needs NumPy alone: what an import brings, and a run where torch is absent."""

import importlib.util
import json
import os
import subprocess
import sys
import sysconfig
from pathlib import Path

import numpy as np
import pytest

LARGE = ["torch", "cupy", "ml_dtypes", "pyarrow", "scipy", "korvex.tqx_runtime"]
LARGE += ["korvex.emulation", "korvex.cubin_loader_native", "numpy.ma", "numpy.random"]

PROGRAM = """
import sys, json
import numpy
before = set(sys.modules)
from korvex import exact
brought = sorted(set(sys.modules) - before)
x = numpy.array([1e16, 1.0, -1e16])
assert exact.sum(x) == 1.0
total = exact.Sum.from_chunks([x])
assert exact.loads(bytes(total)) == total and total.to_fraction() == 1
assert str(total.to_decimal()) == "1" and exact.std(x, correction=1) > 0
try:
    exact.sum([1.0])
except TypeError:
    pass
print(json.dumps({"brought": brought, "all": sorted(sys.modules), "prefix": sys.prefix}))
"""


def run(python, **environment):
    finished = subprocess.run(
        [python, "-P", "-W", "error", "-c", PROGRAM],
        env=environment,
        capture_output=True,
        text=True,
        timeout=120,
    )
    assert finished.returncode == 0, finished.stdout + finished.stderr
    return json.loads(finished.stdout)


def test_an_import_and_calls_bring_no_large_library():
    found = run(sys.executable, **os.environ)
    assert [name for name in LARGE if name in found["all"]] == []


def test_an_import_brings_itself_and_small_modules_of_python():
    """Each is one of the standard library, or of this package."""
    found = run(sys.executable, **os.environ)
    foreign = {
        name
        for name in found["brought"]
        if name.partition(".")[0].lstrip("_")
        not in {n.lstrip("_") for n in sys.stdlib_module_names}
    }
    assert foreign and all(name.partition(".")[0] == "korvex" for name in foreign)
    assert len(found["brought"]) < 60


@pytest.fixture
def bare_environment(tmp_path):
    """A new environment with this NumPy, this korvex and nothing else; downloads nothing."""
    subprocess.run([sys.executable, "-m", "venv", "--without-pip", tmp_path / "new"], check=True)
    python = tmp_path / "new" / "bin" / "python"
    packages = tmp_path / "new" / Path(sysconfig.get_path("purelib")).relative_to(sys.prefix)
    numpy_folder = Path(np.__file__).parent
    links = [numpy_folder, numpy_folder.with_name("numpy.libs")]
    links += [Path(importlib.util.find_spec("korvex").origin).parent]
    for folder in links:
        if folder.exists():
            (packages / folder.name).symlink_to(folder)
    return python


def test_runs_in_an_environment_without_torch(bare_environment):
    kept = ("PATH", "LD_PRELOAD", "ASAN_OPTIONS", "UBSAN_OPTIONS")  # a sanitizer has to come first
    bare = {name: os.environ[name] for name in kept if name in os.environ}
    absent = subprocess.run(
        [bare_environment, "-P", "-c", "import torch"], env=bare, capture_output=True, text=True
    )
    assert "No module named 'torch'" in absent.stderr
    found = run(bare_environment, **bare)
    assert found["prefix"] == str(bare_environment.parents[1])
    assert [name for name in LARGE if name in found["all"]] == []


def test_public_names():
    from korvex import exact

    assert (
        sorted(exact.__all__)
        == exact.__all__
        == [
            *("Dot", "GradientAccumulator", "Moments", "Sum", "all_reduce", "bincount"),
            *("cumulative_sum", "exp", "get_threads", "index_add", "loads", "log", "matmul"),
            *("mean", "reduce_scatter_tensor", "segment_sum", "set_threads", "sigmoid", "sqrt"),
            *("std", "sum", "tanh", "var", "vecdot", "vector_norm"),
        ]
    )
    assert all(getattr(exact, name).__module__ == "korvex.exact" for name in exact.__all__)
    assert exact.get_threads() == 0
