# SPDX-License-Identifier: Apache-2.0
"""The step for other processors and compilers: skipped where tools are missing, and no failure."""

import os
import shutil
import subprocess
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent


def run_without_tools(folder, script, *arguments):
    for name in ("bash", "dirname", "id", "uname"):
        (folder / name).symlink_to(shutil.which(name))
    environment = {name: value for name, value in os.environ.items() if name != "CXX"}
    return subprocess.run(
        [folder / "bash", TREE / "scripts" / script, *arguments],
        env=environment | {"PATH": str(folder)},
        capture_output=True,
        text=True,
    )


def test_without_a_way_to_install_a_cross_compiler_nothing_fails(tmp_path):
    run = run_without_tools(tmp_path, "install_cross_tools.sh")
    assert (run.returncode, run.stderr) == (0, "")
    if os.uname().machine == "x86_64":
        said = "The compiler for Arm is not installed, and its step will be skipped: "
        assert run.stdout in {said + "not root.\n", said + "no apt-get.\n"}


def test_without_compilers_each_step_says_that_it_was_skipped(tmp_path):
    run = run_without_tools(tmp_path, "cross_tests.sh", "2")
    assert (run.returncode, run.stderr) == (0, "")
    arm, clang = run.stdout.splitlines()
    assert arm.startswith("cross-arm: skipped, as there is no aarch64-linux-gnu-g++")
    assert clang == "cross-clang: skipped, as there is no clang++ 14 or newer"


def test_continuous_integration_installs_them_and_the_whole_test_runs_the_step():
    assert "scripts/install_cross_tools.sh" in (TREE / ".ci" / "run").read_text()
    makefile = (TREE / "Makefile").read_text()
    [line] = [line for line in makefile.splitlines() if line.startswith("test: ")]
    assert "cross-tests" in line
