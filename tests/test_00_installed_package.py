# SPDX-License-Identifier: Apache-2.0
"""The package under test is the installed one, and its extension is the one that was built.

First by name, since every other test would mean nothing otherwise: without the built extension the
source folder `korvex/tqx_runtime/` imports as an empty namespace package.
"""

import importlib.metadata
import importlib.util
import platform
import subprocess
import sys
import tomllib
from importlib.machinery import EXTENSION_SUFFIXES
from pathlib import Path

import pytest

from korvex_tools.elf_file import ElfFile

SOURCE_TREE = Path(__file__).resolve().parent.parent
LOADER = {"x86_64": "ld-linux-x86-64.so.2", "aarch64": "ld-linux-aarch64.so.1"}[platform.machine()]
SYSTEM_LIBRARIES = {"libc.so.6", "libm.so.6", "libpthread.so.0", LOADER}
CXX_RUNTIME = {"libstdc++.so.6", "libgcc_s.so.1"}


def installed_folder() -> Path:
    return Path(importlib.util.find_spec("korvex").origin).parent


def shared_objects() -> list[Path]:
    return sorted(installed_folder().rglob("*.so"))


def test_package_comes_from_site_packages_and_not_from_the_tree():
    assert installed_folder().parent.name == "site-packages"
    assert installed_folder() != SOURCE_TREE / "korvex"


def test_runtime_module_is_the_built_extension():
    from korvex import tqx_runtime

    assert Path(tqx_runtime.__file__) == installed_folder() / (
        "tqx_runtime" + EXTENSION_SUFFIXES[0]
    )


def test_no_folder_stands_beside_the_extension():
    assert not (installed_folder() / "tqx_runtime").exists()


def test_version_of_the_interface_is_not_that_of_the_distribution():
    from korvex import tqx_runtime

    project = tomllib.loads((SOURCE_TREE / "pyproject.toml").read_text())["project"]
    assert importlib.metadata.version("korvex-tqx") == project["version"]
    assert tqx_runtime.__version__ == "3.4.8" != project["version"]


def test_each_extension_exports_its_entry_point_alone():
    extensions = [path for path in shared_objects() if path.name.endswith(EXTENSION_SUFFIXES[0])]
    exported = {path.name.split(".")[0]: ElfFile(path).exported for path in extensions}
    assert "tqx_runtime" in exported
    assert exported == {name: [f"PyInit_{name}"] for name in exported}


@pytest.mark.parametrize("path", shared_objects(), ids=lambda path: path.name)
def test_shared_object_links_to_the_system_alone(path):
    """Not to libpython, torch or CUDA. The C++ runtime is in, where its archive is installed."""
    elf_file = ElfFile(path)
    assert set(elf_file.needed) <= SYSTEM_LIBRARIES | CXX_RUNTIME
    assert elf_file.search_paths == []


def test_importing_the_package_imports_nothing_else():
    program = "import sys; had = set(sys.modules); import korvex; print(*set(sys.modules) - had)"
    run = subprocess.run(
        [sys.executable, "-P", "-c", program], capture_output=True, text=True, check=True
    )
    assert run.stdout.split() == ["korvex"]
