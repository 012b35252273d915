# SPDX-License-Identifier: Apache-2.0
"""Tests of `korvex.exact` on a library of mutated host kernels.

The package looks for its libraries beside itself, so each check runs in a copy of the installed
package in which one of them is another. The tests are those of values, against rational numbers,
and of layouts; what Python code alone decides is left out.
"""

import importlib.util
import shutil
import sys
from pathlib import Path
from typing import Any

from korvex_tools.mutation.prepared import EQUAL, original_package, serve
from korvex_tools.source_tree import SOURCE_TREE

# The quickest that see most come first; tests of drawn data, which take minutes, are left out.
TESTS = (
    "test_functions.py::test_all_functions_of_every_dtype",
    "test_functions.py::test_products_of_two_dtypes",
    "test_elementary.py",
    "test_same_bits.py",
    "test_arrays.py",
    "test_functions.py",
    "test_accumulators.py",
    "test_column_sums.py",
    "test_short_lines.py",
    "test_axes.py",
    "test_segments.py",
)
NOT_DRAWN = "not hypothesis"
LIBRARIES = "libkorvex_host_kernels_*.so"


def package_with(library: Path, instruction_set: str) -> Path:
    """A folder to import korvex from that has this library for the instruction set."""
    original = original_package()
    folder = library.parent / "site"
    copy = folder / "korvex"
    if not copy.exists():
        ignored = shutil.ignore_patterns(LIBRARIES, "__pycache__", "*.cubin", "*.fatbin")
        shutil.copytree(original, copy, ignore=ignored)
    for each in (original / "emulation").glob(LIBRARIES):
        link = copy / "emulation" / each.name
        link.unlink(missing_ok=True)
        is_mutated = each.stem.endswith(f"_{instruction_set}")
        link.symlink_to(library if is_mutated else each)
    return folder


def import_from(folder: Path) -> None:
    """Import korvex as it lies in a folder, whatever else is installed."""
    package = folder / "korvex"
    spec = importlib.util.spec_from_file_location(
        "korvex", package / "__init__.py", submodule_search_locations=[str(package)]
    )
    assert spec is not None and spec.loader is not None
    sys.modules["korvex"] = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(sys.modules["korvex"])


class Plugin:
    """Chooses the instruction set, and keeps what failed first."""

    def __init__(self, instruction_set: str) -> None:
        self.instruction_set = instruction_set
        self.failure = ""

    def pytest_collection_finish(self) -> None:
        from korvex.exact import _native

        _native.set_instruction_set(self.instruction_set)

    def pytest_runtest_logreport(self, report: Any) -> None:
        if report.failed and not self.failure:
            self.failure = report.nodeid

    def pytest_collectreport(self, report: Any) -> None:
        if report.failed and not self.failure:
            self.failure = f"{report.nodeid} is not collected: {report.longrepr}"


def first_difference(_file: str, library: str, instruction_set: str) -> str:
    import pytest

    import_from(package_with(Path(library), instruction_set))
    plugin = Plugin(instruction_set)
    tests = [str(SOURCE_TREE / "tests" / "exact" / name) for name in TESTS]
    options = ["-x", "-q", "-m", NOT_DRAWN, "-p", "no:cacheprovider", "--rootdir", str(SOURCE_TREE)]
    options += ["-W", "ignore::pytest.PytestAssertRewriteWarning"]  # korvex is imported already
    status = pytest.main([*options, *tests], plugins=[plugin])
    return EQUAL if status == 0 else plugin.failure or f"pytest ended with {status}"


def main() -> int:
    import numpy  # noqa: F401
    import pytest  # noqa: F401
    import torch

    torch.set_num_threads(1)
    return serve(first_difference)


if __name__ == "__main__":
    sys.exit(main())
