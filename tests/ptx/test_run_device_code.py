# SPDX-License-Identifier: Apache-2.0
"""The step that runs the device code on the host: what it says where nothing can be compiled."""

import importlib.util
import re
import subprocess
import sys
from pathlib import Path

FOLDER = Path(__file__).resolve().parent
SCRIPT = FOLDER / "run_device_code.py"


def test_without_nvcc_the_step_says_that_it_is_skipped(tmp_path):
    command = [sys.executable, SCRIPT, "tool", "library", tmp_path]
    done = subprocess.run(command, capture_output=True, text=True, env={"PATH": str(tmp_path)})
    assert done.returncode == 77
    assert done.stdout == "PTX machine: skipped, as there is no nvcc on PATH\n"


def test_every_kind_of_check_has_a_planted_fault():
    """Each message that tells of a faulty program is wanted by some fault."""
    faults = (FOLDER / "faults.cpp").read_text()
    kinds = "misaligned address|out of bounds|race|barrier divergence|wrong mask|in flight"
    kinds += "|nobody wrote|was never written|result differs|too many steps|left behind"
    kinds += "|unknown instructions"
    missing = [kind for kind in kinds.split("|") if not re.search(rf'"[^"]*{kind}', faults)]
    assert missing == []


def test_ptx_that_differs_in_its_head_alone_runs_once(tmp_path, capsys):
    spec = importlib.util.spec_from_file_location("run_device_code", SCRIPT)
    run_device_code = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(run_device_code)
    texts = {
        "first": "// by one\n.version 8.8\n.target sm_80\nadd.s32 %r1, %r2, %r3;\n",
        "same": "// by another\n.version 9.0\n.target sm_86\nadd.s32 %r1, %r2, %r3;\n",
        "other": "// by one\n.version 8.8\n.target sm_80\nadd.s32 %r1, %r2, %r4;\n",
    }
    files = [tmp_path / name for name in texts]
    for path in files:
        path.write_text(texts[path.name])
    assert [path.name for path in run_device_code.distinct(files)] == ["first", "other"]
    assert capsys.readouterr().out == "PTX of 3 targets, 2 of them distinct\n"
