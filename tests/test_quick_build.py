# SPDX-License-Identifier: Apache-2.0
"""`pip install` compiles the sources of a module several at a time, as no other build does.

A name that two of them have would break that build alone, so here each such group is read by the
compiler, which makes no code of it.
"""

import json
import os
import shlex
import shutil
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

SOURCE_TREE = Path(__file__).resolve().parent.parent


@pytest.fixture(scope="module")
def groups(tmp_path_factory):
    """The commands that compile sources together."""
    places = os.pathsep.join([str(Path(sys.executable).parent), os.environ["PATH"]])
    cmake, folder = shutil.which("cmake", path=places), tmp_path_factory.mktemp("quick")
    compiler = subprocess.check_output([SOURCE_TREE / "scripts" / "find_compiler.sh"], text=True)
    names = {
        "CMAKE_BUILD_TYPE": "Release",
        "CMAKE_CXX_COMPILER": compiler.strip(),
        "CMAKE_EXPORT_COMPILE_COMMANDS": "ON",
        "KORVEX_CUDA_ARCHITECTURES": "none",
        "KORVEX_INSTRUCTION_SETS": "base",
        "KORVEX_QUICK_BUILD": "ON",
        "Python_EXECUTABLE": sys.executable,
    }
    options = [f"-D{name}={value}" for name, value in names.items()]
    command = [cmake, "-G", "Ninja", "-S", SOURCE_TREE, "-B", folder, *options]
    subprocess.run(command, check=True, capture_output=True, env=os.environ | {"PATH": places})
    entries = json.loads((folder / "compile_commands.json").read_text())
    return [entry for entry in entries if "/Unity/" in entry["file"]]


def sources_of(group: dict) -> list[str]:
    lines = Path(group["file"]).read_text().splitlines()
    return [line for line in lines if line.startswith("#include")]


def read(group: dict) -> str:
    command = [*shlex.split(group["command"]), "-fsyntax-only"]
    done = subprocess.run(command, cwd=group["directory"], capture_output=True, text=True)
    return done.stderr if done.returncode else ""


def test_every_module_has_a_group_of_several_sources(groups):
    modules = {
        Path(group["file"]).parents[1].name.removesuffix(".dir")
        for group in groups
        if len(sources_of(group)) > 1
    }
    assert modules >= {"tqx_runtime", "cubin_loader_native", "exact_native", "exact_cuda"}


def test_no_name_of_one_source_is_in_the_way_of_another(groups):
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        messages = list(pool.map(read, groups))
    assert [message for message in messages if message] == []


def test_a_name_that_two_sources_have_would_be_noticed(groups, tmp_path):
    group = max(groups, key=lambda each: len(sources_of(each)))
    joined = Path(group["file"]).read_text()
    once = "namespace korvex { namespace { int twice_there() { return 1; } } }\n"
    copy = tmp_path / "joined.cxx"
    copy.write_text(joined + once + once)
    message = read(group | {"command": group["command"].replace(group["file"], str(copy))})
    assert "twice_there" in message
