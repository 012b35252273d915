# SPDX-License-Identifier: Apache-2.0
"""A free-threaded CPython is refused by one sentence: at set-up, at build time and at import."""

import os
import shutil
import subprocess
import sys
import sysconfig
from importlib.machinery import EXTENSION_SUFFIXES
from importlib.util import find_spec
from pathlib import Path

import pytest

SOURCE_TREE = Path(__file__).resolve().parent.parent
SENTENCE = (
    "korvex needs CPython with its global interpreter lock, and this is a free-threaded build: "
    "use the interpreter whose name does not end in t."
)
MODULES = (
    *("cubin_loader_native", "emulation/_native", "exact/_cuda", "exact/_native"),
    "tqx_runtime",
)
PACKAGE = Path(find_spec("korvex").origin).parent

# Stands in for the interpreter's own function, which the module calls before anything else.
OTHER_VERSION = """
extern "C" const char* Py_GetVersion() {
  return "3.13.0 experimental free-threading build (main, Oct  7 2024, 00:00:00) [GCC 12.2.0]";
}
"""
LOAD = """
import sys
from importlib.machinery import ExtensionFileLoader
from importlib.util import module_from_spec, spec_from_loader
assert "free-threading" in sys.version, "not replaced"
name, path = sys.argv[1:]
try:
    module_from_spec(spec_from_loader(name, ExtensionFileLoader(name, path)))
except ImportError as error:
    print(error)
"""


def run(*command, **environment) -> subprocess.CompletedProcess:
    return subprocess.run(
        list(map(str, command)), capture_output=True, text=True, env=os.environ | environment
    )


@pytest.fixture(scope="module")
def other_version(tmp_path_factory):
    folder = tmp_path_factory.mktemp("other_version")
    source, library = folder / "version.cpp", folder / "version.so"
    source.write_text(OTHER_VERSION)
    compiler = subprocess.check_output([SOURCE_TREE / "scripts" / "find_compiler.sh"], text=True)
    subprocess.run([*compiler.split(), "-shared", "-fPIC", source, "-o", library], check=True)
    return library


def test_package_is_not_imported():
    program = "import sys; sys.abiflags = 't'; import korvex"
    process = run(sys.executable, "-P", "-c", program)
    assert process.returncode == 1
    assert process.stderr.splitlines()[-1] == f"ImportError: {SENTENCE}"


@pytest.mark.skipif(
    not sysconfig.get_config_var("Py_ENABLE_SHARED"),
    reason="this interpreter's own functions cannot be replaced: it has no library",
)
@pytest.mark.parametrize("name", MODULES)
def test_module_is_not_loaded(other_version, name):
    module = PACKAGE / (name + EXTENSION_SUFFIXES[0])
    process = run(
        sys.executable,
        "-P",
        "-c",
        LOAD,
        "korvex." + name.replace("/", "."),
        module,
        LD_PRELOAD=str(other_version),
    )
    assert (process.stdout, process.stderr) == (SENTENCE + "\n", "")


def test_module_is_not_compiled(tmp_path):
    source = tmp_path / "module.cpp"
    source.write_text('#include "korvex/cpython/module_init.h"\n')
    compiler = subprocess.check_output([SOURCE_TREE / "scripts" / "find_compiler.sh"], text=True)
    options = ["-std=c++20", "-fsyntax-only", f"-I{SOURCE_TREE}"]
    options.append("-I" + sysconfig.get_path("include"))
    fitting = run(*compiler.split(), *options, source)
    assert fitting.returncode == 0, fitting.stderr
    refused = run(*compiler.split(), *options, "-DPy_GIL_DISABLED=1", source)
    assert refused.returncode != 0
    assert "korvex needs CPython with its global interpreter lock" in refused.stderr


def test_nothing_is_built(tmp_path):
    """The interpreter that CMake asks says of itself that it is free-threaded."""
    (tmp_path / "sitecustomize.py").write_text(
        "import sysconfig\nsysconfig.get_config_vars()['Py_GIL_DISABLED'] = 1\n"
    )
    places = os.pathsep.join([str(Path(sys.executable).parent), os.environ["PATH"]])
    cmake = shutil.which("cmake", path=places)
    process = run(
        cmake,
        "-S",
        SOURCE_TREE,
        "-B",
        tmp_path / "build",
        f"-DPython_EXECUTABLE={sys.executable}",
        PYTHONPATH=str(tmp_path),
    )
    assert process.returncode != 0
    assert SENTENCE in " ".join(process.stderr.split())


def test_set_up_names_it(tmp_path):
    program = (
        "import sys, sysconfig; sysconfig.get_config_vars()['Py_GIL_DISABLED'] = 1;"
        "probe = sys.argv[3]; sys.argv = ['-c', *sys.argv[4:]]; exec(probe)"
    )
    interpreter = tmp_path / "python3.13t"
    interpreter.write_text(f'#!/bin/sh\nexec "{sys.executable}" -c "{program}" "$@"\n')
    interpreter.chmod(0o755)
    process = run(SOURCE_TREE / "scripts" / "find_python.sh", PYTHON=str(interpreter))
    assert process.returncode == 1
    assert process.stderr == f"PYTHON={interpreter}: {SENTENCE}\n"
