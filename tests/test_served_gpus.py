# SPDX-License-Identifier: Apache-2.0
"""A build from source says at its end which GPUs it serves, whatever kernels it has."""

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

SOURCE_TREE = Path(__file__).resolve().parent.parent
WITHOUT = "korvex serves no GPU: it was built without kernels"
ON_CHIPS = (
    "those of the same major and a higher minor number unless they are part of a system on a chip"
)


def cmake(*arguments) -> subprocess.CompletedProcess:
    places = os.pathsep.join([str(Path(sys.executable).parent), os.environ["PATH"]])
    command = [shutil.which("cmake", path=places), *map(str, arguments)]
    return subprocess.run(command, capture_output=True, text=True)


def sentence(folder: Path, *names: str) -> str:
    for name in names:
        (folder / name).touch()
    script = SOURCE_TREE / "cmake" / "KorvexServedGpus.cmake"
    return " ".join(cmake(f"-DKORVEX_FOLDER={folder}", "-P", script).stderr.split())


def test_no_kernels(tmp_path):
    assert sentence(tmp_path).startswith(WITHOUT)
    assert sentence(tmp_path, "korvex_compute_90.ptx").startswith(WITHOUT)


@pytest.mark.parametrize(
    ("names", "numbers", "end"),
    [
        (("sm_90.cubin",), "9.0", "; none older than 9.0."),
        (
            ("sm_90.cubin", "compute_90.ptx"),
            "9.0",
            ", and newer ones than 9.0 by PTX, which their driver compiles; none older than 9.0.",
        ),
        (
            ("sm_120.cubin", "sm_87.cubin", "sm_80.cubin", "compute_120.ptx"),
            "8.0, 8.7, 12.0",
            ", and newer ones than 12.0 by PTX, which their driver compiles; none older than 8.0.",
        ),
    ],
)
def test_kernels_by_their_files(tmp_path, names, numbers, end):
    said = sentence(tmp_path, *(f"korvex_{name}" for name in names))
    assert said == f"korvex serves GPUs of compute capability {numbers}, {ON_CHIPS}{end}"


@pytest.mark.parametrize("kernels", [(), ("korvex_sm_86.cubin", "korvex_compute_86.ptx")])
def test_it_is_the_last_thing_that_an_installation_says(tmp_path, kernels):
    """The kernels are those of another build, as in a wheel for another interpreter."""
    folder = tmp_path / "kernels"
    folder.mkdir()
    (folder / "compilers.json").write_text("{}")
    said = sentence(folder, *kernels)
    given = [f"-DKORVEX_KERNELS={folder}"] if kernels else ["-DKORVEX_CUDA_ARCHITECTURES=none"]
    build = tmp_path / "build"
    run = cmake("-S", SOURCE_TREE, "-B", build, f"-DPython_EXECUTABLE={sys.executable}", *given)
    assert run.returncode == 0, run.stderr
    script = (build / "cmake_install.cmake").read_text()
    [place] = [i for i in range(len(script)) if script.startswith("korvex serves", i)]
    assert script[place:].startswith(said)
    assert "include(" not in script[place:] and "file(INSTALL" not in script[place:]
