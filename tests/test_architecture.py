# SPDX-License-Identifier: Apache-2.0
"""The rules of the tree that no compiler checks: its map, its layers, its file heads."""

import ast
import json
import re
import subprocess
from pathlib import Path

import pytest

SOURCE_TREE = Path(__file__).resolve().parent.parent
MAPPED_FOLDERS = ("korvex", "tests", "docs", "examples", "benchmarks", "tools")
SOURCE_SUFFIXES = {".cpp", ".h", ".cu", ".cuh", ".py", ".pyi", ".sh", ".cmake"}

# The folders of C++, lowest first. A folder includes itself and folders above it in this list.
LAYERS = (
    "korvex/arithmetic/base",
    "korvex/arithmetic/bignum",
    "korvex/arithmetic/exact",
    "korvex/arithmetic/elementary",
    "korvex/kernels",
    "korvex/kernels/modular",
    "korvex/kernels/host",
    "korvex/kernels/device",
    "korvex/cpython",
    "korvex/runtime",
    "korvex/functions/limbs",
    "korvex/functions/reductions",
    "korvex/functions/elementwise",
    "korvex/functions/series",
    "korvex/functions/linalg",
    "korvex/functions/spectral",
    "korvex/functions/provenance",
    "korvex/tqx_runtime",
    "korvex/cubin_loader_native",
    "korvex/exact",
    "korvex/exact_cuda",
    "korvex/emulation",
)
CPP_SUFFIXES = (".cpp", ".h", ".cu", ".cuh")

# Stands in these two lines of work alone: numbers know nothing of Python, Python code knows numbers
# through the kernels that it calls, and the two kinds of kernels know nothing of each other.
APART = {
    "korvex/kernels/device": ("korvex/kernels/host", "korvex/kernels/modular"),
    "korvex/cpython": ("korvex/arithmetic", "korvex/kernels"),
    "korvex/runtime": ("korvex/arithmetic", "korvex/kernels"),
    "korvex/functions": ("korvex/arithmetic", "korvex/kernels"),
    "korvex/tqx_runtime": ("korvex/arithmetic", "korvex/kernels"),
    "korvex/cubin_loader_native": (
        "korvex/arithmetic",
        "korvex/kernels/host",
        "korvex/kernels/device",
        "korvex/runtime",
        "korvex/functions",
        "korvex/tqx_runtime",
    ),
    "korvex/exact_cuda": (
        "korvex/arithmetic",
        "korvex/kernels/host",
        "korvex/kernels/device",
        "korvex/runtime",
        "korvex/functions",
        "korvex/tqx_runtime",
        "korvex/exact",
    ),
    # Kernels are launched by its Python half.
    "korvex/emulation": (
        "korvex/arithmetic",
        "korvex/kernels",
        "korvex/runtime",
        "korvex/functions",
        "korvex/tqx_runtime",
        "korvex/cubin_loader_native",
        "korvex/exact",
        "korvex/exact_cuda",
    ),
    "korvex/exact": (
        "korvex/arithmetic",
        "korvex/kernels/device",
        "korvex/runtime",
        "korvex/functions",
        "korvex/tqx_runtime",
        "korvex/cubin_loader_native",
    ),
}


def folders_with_files(top: str) -> set[str]:
    """Every folder under `top` that holds a file of the tree, itself included."""
    return {
        str(path.parent.relative_to(SOURCE_TREE))
        for path in (SOURCE_TREE / top).rglob("*")
        if path.is_file() and not {"__pycache__", ".pytest_cache"} & set(path.parts)
    }


def source_files() -> list[Path]:
    places = [SOURCE_TREE / name for name in (*MAPPED_FOLDERS, "scripts", "cmake")]
    found = [path for place in places for path in place.rglob("*")]
    found += [SOURCE_TREE / "CMakeLists.txt", SOURCE_TREE / "Makefile"]
    return sorted(
        path
        for path in found
        if path.suffix in SOURCE_SUFFIXES or path.name in ("CMakeLists.txt", "Makefile")
    )


def relative(path: Path) -> str:
    return str(path.relative_to(SOURCE_TREE))


# --- The map of folders in docs/architecture.md


def map_of_folders() -> list[str]:
    text = (SOURCE_TREE / "docs" / "architecture.md").read_text()
    return re.findall(r"^\| `([^`]+)` \|", text, re.MULTILINE)


def test_every_folder_on_the_map_exists():
    missing = [name for name in map_of_folders() if not (SOURCE_TREE / name).is_dir()]
    assert missing == []


def test_every_folder_is_on_the_map_once():
    mapped = [name.rstrip("/") for name in map_of_folders()]
    present = set().union(*(folders_with_files(top) for top in MAPPED_FOLDERS))
    assert present - set(mapped) - {"korvex"} == set()
    assert len(mapped) == len(set(mapped))


# --- Layers


def includes(path: Path) -> list[str]:
    return re.findall(r'^\s*#\s*include\s*"([^"]+)"', path.read_text(), re.MULTILINE)


def files_of_layer(folder: str) -> list[Path]:
    return [path for path in (SOURCE_TREE / folder).iterdir() if path.suffix in CPP_SUFFIXES]


def is_in(folder: str, top: str) -> bool:
    return folder == top or folder.startswith(top + "/")


def may_include(folder: str, header: str) -> bool:
    target = header.rpartition("/")[0]
    if target not in LAYERS or LAYERS.index(target) > LAYERS.index(folder):
        return False
    apart = [other for top, others in APART.items() if is_in(folder, top) for other in others]
    return target == folder or not any(is_in(target, other) for other in apart)


def test_every_folder_of_cpp_has_its_layer():
    found = {
        relative(path.parent)
        for path in (SOURCE_TREE / "korvex").rglob("*")
        if path.suffix in CPP_SUFFIXES
    }
    assert found == set(LAYERS)


def test_module_is_built_from_the_folders_of_its_layers_in_their_order():
    text = (SOURCE_TREE / "CMakeLists.txt").read_text()
    built = re.search(r"korvex_module_folders\s+([a-z_/\s]+)\)", text).group(1).split()
    first = LAYERS.index("korvex/cpython")
    end = LAYERS.index("korvex/cubin_loader_native")
    assert tuple(f"korvex/{folder}" for folder in built) == LAYERS[first:end]


@pytest.mark.parametrize("folder", LAYERS)
def test_folder_includes_only_what_lies_below_it(folder):
    files = files_of_layer(folder)
    assert files
    wrong = [
        f"{relative(path)}: {header}"
        for path in files
        for header in includes(path)
        if not may_include(folder, header)
    ]
    assert wrong == []


def test_nothing_includes_the_roof():
    roof = "korvex/tqx_runtime"
    files = [path for folder in LAYERS if folder != roof for path in files_of_layer(folder)]
    assert [
        relative(path) for path in files if any(is_in(each, roof) for each in includes(path))
    ] == []


def test_one_header_tells_host_from_device():
    files = [path for path in source_files() if path.suffix in (".cpp", ".h", ".cu", ".cuh")]
    telling = [relative(path) for path in files if "__CUDACC__" in path.read_text()]
    assert telling == ["korvex/arithmetic/base/portability.h"]


def test_clang_tidy_reads_every_header():
    """Its filter is searched in the header's path; a header that does not match is not checked."""
    text = (SOURCE_TREE / ".clang-tidy").read_text()
    pattern = json.loads(re.search(r'^HeaderFilterRegex: (".*")$', text, re.MULTILINE).group(1))
    headers = [
        path
        for path in source_files()
        if path.suffix in (".h", ".cuh", ".cu") and path.parts[-2] != "cmake"
    ]
    assert len(headers) > 50
    assert [relative(path) for path in headers if not re.search(pattern, str(path))] == []
    assert not re.search(pattern, "/usr/include/python3.12/object.h")
    assert not re.search(pattern, "/x/.venv/include/python3.12/internal/pycore_object.h")


def test_clang_tidy_reads_the_device_code_through_its_host_build():
    """And leaves out no source: the Makefile names none that it does not read."""
    makefile = (SOURCE_TREE / "Makefile").read_text()
    assert "$(patsubst %,build/tidy/%.ok,$(filter %.cpp,$(CXX_FILES)))" in makefile
    reached = ["tests/device_code/device_kernels.cpp"]
    for name in reached:
        included = re.findall(r'#include "([^"]+)"', (SOURCE_TREE / name).read_text())
        reached += [path for path in included if path not in reached]
    device = SOURCE_TREE / "korvex/kernels/device"
    files = {relative(path) for path in device.iterdir() if path.suffix in (".h", ".cuh", ".cu")}
    assert len(files) > 10
    assert sorted(files - set(reached)) == []


def test_host_and_device_files_of_a_family_have_the_same_name():
    shells = {path.stem for path in (SOURCE_TREE / "korvex/kernels/host").glob("*.cpp")}
    kernels = {
        path.stem
        for path in (SOURCE_TREE / "korvex/kernels/device").glob("*.cuh")
        if "__global__" in path.read_text()
    }
    calls = {"launch"} | {name for name in shells if name.startswith("exact")}
    calls |= {"array_walk", "converted_block", "threads"}
    calls |= {"modular_lines", "modular_plan", "modular_product", "some_lines"}
    calls |= {"array_walk", "converted_block", "threads"}  # what several of the files above share
    # What stands for kernels of families.
    on_the_whole_device = {f"whole_{name}" for name in ("device", "log_sum", "product", "scan")}
    assert on_the_whole_device < kernels
    assert shells - calls == kernels - on_the_whole_device


def test_floating_point_flags_are_set_in_one_place():
    """Beside that place stands only the control of the flags' own test, which must fail."""
    flags = re.compile(
        r"-f(?:no-)?(?:fast-math|fp-contract|unsafe-math|rounding-math)[=\w]*|-Ofast"
    )
    files = [
        path
        for path in source_files()
        if path.name in ("CMakeLists.txt", "Makefile") or path.suffix in (".cmake", ".sh")
    ]
    found = {relative(path): set(flags.findall(path.read_text())) for path in files}
    assert found.pop("cmake/KorvexFlags.cmake") >= {"-ffp-contract=off", "-fno-fast-math"}
    assert found.pop("tests/cpp/CMakeLists.txt") == {"-ffp-contract=fast"}
    assert not any(found.values())


# --- Imports of Python files


def python_files() -> list[Path]:
    """The tracked ones; all of a tree that is no checkout."""
    listed = subprocess.run(
        ["git", "ls-files", "--cached", "--others", "--exclude-standard", "*.py"],
        cwd=SOURCE_TREE,
        capture_output=True,
        text=True,
    )
    names = listed.stdout.split() if listed.returncode == 0 else []
    found = [SOURCE_TREE / name for name in names]
    return [path for path in found if path.exists()] or [
        path for path in source_files() if path.suffix == ".py"
    ]


def imported_names(path: Path) -> set[str]:
    """The first part of every module that a file imports, at any depth of the file."""
    found = set()
    for node in ast.walk(ast.parse(path.read_text())):
        if isinstance(node, ast.Import):
            found |= {alias.name.partition(".")[0] for alias in node.names}
        elif isinstance(node, ast.ImportFrom) and node.module:
            found.add(node.module.partition(".")[0])
    return found


# Packages of Python alone, and the packages of ours that each may import beside its own.
PYTHON_LAYERS = {
    "exact": set(),
    "readers": set(),
    "provenance": {"exact", "readers"},
    "command": {"exact", "readers", "provenance"},
}


def imported_parts(path: Path) -> set[str]:
    """The packages of ours that a file imports from, at any depth of the file."""
    found = set()
    for node in ast.walk(ast.parse(path.read_text())):
        names = [alias.name for alias in node.names] if isinstance(node, ast.Import) else []
        if isinstance(node, ast.ImportFrom) and node.module == "korvex":
            names = [f"korvex.{alias.name}" for alias in node.names]
        elif isinstance(node, ast.ImportFrom) and node.module:
            names = [node.module]
        found |= {name.split(".")[1] for name in names if name.startswith("korvex.")}
    return found


@pytest.mark.parametrize("package", PYTHON_LAYERS)
def test_package_imports_only_what_lies_below_it(package):
    files = sorted((SOURCE_TREE / "korvex" / package).glob("*.py"))
    assert files
    wrong = {path.name: imported_parts(path) - PYTHON_LAYERS[package] - {package} for path in files}
    assert {name: parts for name, parts in wrong.items() if parts} == {}


def changes_of_the_search_path(text: str) -> list[str]:
    return re.findall(r"sys\.path\s*(?:\.\s*(?:insert|append|extend)\b|\+=)|addsitedir\(", text)


def test_no_file_changes_the_search_path():
    files = python_files()
    assert len(files) > 100
    found = {relative(path): changes_of_the_search_path(path.read_text()) for path in files}
    assert {name: changes for name, changes in found.items() if changes} == {}


def test_changes_of_the_search_path_are_seen():
    insert = "sys.path" + ".insert(0, folder)"
    assert changes_of_the_search_path(insert) and changes_of_the_search_path("sys.path " + "+= [a]")


def test_tools_import_neither_tests_nor_benchmarks_nor_scripts_nor_examples():
    others = {"tests", "benchmarks", "scripts", "examples"}
    for folder in tuple(others):
        others |= {path.stem for path in (SOURCE_TREE / folder).rglob("*.py")} - {"__init__"}
    tools = sorted((SOURCE_TREE / "tools").rglob("*.py"))
    assert len(tools) > 20 and {"device", "bench_sum", "conftest"} <= others
    wrong = {relative(path): sorted(imported_names(path) & others) for path in tools}
    assert {name: names for name, names in wrong.items() if names} == {}


# --- Heads of files


def head(path: Path) -> list[str]:
    lines = path.read_text().splitlines()
    return lines[1:] if lines and lines[0].startswith("#!") else lines


@pytest.mark.parametrize("path", source_files(), ids=relative)
def test_file_opens_with_its_licence_and_its_purpose(path):
    lines = head(path)
    comment = "//" if path.suffix in (".cpp", ".h", ".cu", ".cuh") else "#"
    assert lines[0] == f"{comment} SPDX-License-Identifier: Apache-2.0"
    purpose = next(line for line in lines[1:] if line.strip() and not line.startswith("#pragma"))
    opening = ('"""', 'r"""', "#") if comment == "#" else ("//",)
    assert purpose.startswith(opening), f"no purpose line: {purpose!r}"
    assert len(purpose.strip(' /#"')) > 15
