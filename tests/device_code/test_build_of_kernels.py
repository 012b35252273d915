# SPDX-License-Identifier: Apache-2.0
"""Which kernels a build makes, and how it refuses what it cannot make."""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

SOURCE_TREE = Path(__file__).resolve().parents[2]
FLAGS = (SOURCE_TREE / "cmake" / "KorvexCuda.cmake").read_text()


@pytest.fixture
def configure(tmp_path):
    """Configures the tree for some architectures, or with kernels made before; returns the run."""
    places = os.pathsep.join([str(Path(sys.executable).parent), os.environ["PATH"]])
    cmake = shutil.which("cmake", path=places)

    def run(architectures: str, path: str = places, kernels="") -> subprocess.CompletedProcess:
        command = [cmake, "-S", SOURCE_TREE, "-B", tmp_path]
        command += [f"-DPython_EXECUTABLE={sys.executable}"]
        command += [f"-DKORVEX_CUDA_ARCHITECTURES={architectures}"]
        command += [f"-DKORVEX_KERNELS={kernels}"]
        environment = os.environ | {"PATH": path}
        environment.pop("LD_PRELOAD", None)  # a sanitizer's library is for this process alone
        return subprocess.run(command, capture_output=True, text=True, env=environment)

    return run


def test_none_makes_no_kernels(configure, tmp_path):
    assert configure("none").returncode == 0
    assert list(tmp_path.rglob("compilers.json")) == []


@pytest.mark.skipif(shutil.which("nvcc") is None, reason="no nvcc on PATH")
def test_the_architectures_asked_for_and_ptx_of_the_newest(configure, tmp_path):
    assert configure("80;90").returncode == 0
    [record] = tmp_path.rglob("compilers.json")
    names = ["korvex_sm_80.cubin", "korvex_sm_90.cubin", "korvex_compute_90.ptx"]
    assert all(name in record.read_text() for name in names)
    assert record.read_text().count("korvex_") == 3
    assert list(tmp_path.rglob("korvex_cubins.dir"))


@pytest.mark.skipif(shutil.which("nvcc") is None, reason="no nvcc on PATH")
def test_an_architecture_that_no_compiler_knows_is_refused(configure):
    run = configure("37")
    assert run.returncode != 0
    assert "KORVEX_CUDA_ARCHITECTURES asks for 37" in " ".join(run.stderr.split())


def test_kernels_made_before_are_installed_and_none_compiled(configure, tmp_path):
    folder = tmp_path / "made before"
    folder.mkdir()
    for name in ("korvex_sm_90.cubin", "korvex_compute_90.ptx", "compilers.json"):
        (folder / name).write_text(name)
    assert configure("all", kernels=folder).returncode == 0
    script = next(tmp_path.rglob("kernels/device/cmake_install.cmake")).read_text()
    assert all(str(folder / name) in script for name in ("korvex_sm_90.cubin", "compilers.json"))
    assert list(tmp_path.rglob("korvex_cubins.dir")) == []


def test_a_folder_without_kernels_is_refused(configure, tmp_path):
    run = configure("all", kernels=tmp_path)
    assert run.returncode != 0
    assert "holds no kernels" in " ".join(run.stderr.split())


@pytest.mark.parametrize("compiler", ["nvcc", "nvrtc"])
def test_both_compilers_are_told_to_round_every_operation(compiler):
    [flags] = re.findall(rf"set\(korvex_{compiler}_flags([^)]*)\)", FLAGS)
    words = {word.lstrip("-") for word in flags.split()}
    assert {"fmad=false", "ftz=false", "prec-div=true", "prec-sqrt=true", "std=c++20"} <= words
