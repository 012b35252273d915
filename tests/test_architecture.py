# SPDX-License-Identifier: Apache-2.0
"""The rules of the tree that no compiler checks: its map, its layers, its file heads."""

import re
from pathlib import Path

import pytest

SOURCE_TREE = Path(__file__).resolve().parent.parent
MAPPED_FOLDERS = ("korvex", "tests", "docs", "examples", "benchmarks")
SOURCE_SUFFIXES = {".cpp", ".h", ".cu", ".cuh", ".py", ".pyi", ".sh", ".cmake"}

# The layers of the extension. A folder may include headers of the runtime and of korvex/arithmetic,
# and of a folder in a lower layer the chief header alone, which bears the folder's name.
LAYERS = (
    ("tqx_runtime",),
    ("limbs",),
    ("reductions", "elementwise", "series"),
    ("linalg", "spectral"),
    ("provenance",),
)
LEVEL = {folder: level for level, layer in enumerate(LAYERS) for folder in layer}

# The one place where the runtime looks upwards: start-up asks every folder for its definitions.
STARTUP = "korvex/tqx_runtime/startup.cpp"


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


# --- Layers of the extension


def includes(path: Path) -> list[str]:
    return re.findall(r'^\s*#\s*include\s*"([^"]+)"', path.read_text(), re.MULTILINE)


def may_include(path: Path, header: str) -> bool:
    parts = header.split("/")
    if len(parts) != 3 or parts[0] != "korvex":
        return False
    folder, (target, name) = path.parent.name, parts[1:]
    if target in (folder, "tqx_runtime", "arithmetic"):
        return True
    below = LEVEL.get(target, len(LAYERS)) < LEVEL[folder] or relative(path) == STARTUP
    return below and name == f"{target}.h"


def folders_with_layer() -> list[str]:
    return [folder for folder in LEVEL if (SOURCE_TREE / "korvex" / folder).is_dir()]


def test_every_folder_with_a_layer_is_built():
    text = (SOURCE_TREE / "CMakeLists.txt").read_text()
    built = re.search(r"korvex_module_folders\s+([a-z_\s]+)\)", text).group(1).split()
    assert built == folders_with_layer()


@pytest.mark.parametrize("folder", folders_with_layer())
def test_folder_includes_only_what_lies_below_it(folder):
    files = [
        path
        for path in (SOURCE_TREE / "korvex" / folder).iterdir()
        if path.suffix in (".cpp", ".h")
    ]
    assert files
    wrong = [
        f"{relative(path)}: {header}"
        for path in files
        for header in includes(path)
        if not may_include(path, header)
    ]
    assert wrong == []


def test_arithmetic_includes_only_itself():
    """By the bare name: the folder stands alone, and a device compiler needs no path to it."""
    folder = SOURCE_TREE / "korvex" / "arithmetic"
    wrong = [
        f"{relative(path)}: {header}"
        for path in folder.glob("*.h")
        for header in includes(path)
        if not (folder / header).is_file()
    ]
    assert wrong == []


@pytest.mark.parametrize(
    ("folder", "others"),
    [("emulation", ("arithmetic",)), ("cubin_loader_native", ("arithmetic", "tqx_runtime"))],
)
def test_devices_include_no_folder_of_functions(folder, others):
    top = SOURCE_TREE / "korvex" / folder
    allowed = tuple(f"korvex/{name}/" for name in (folder, *others))
    wrong = [
        f"{relative(path)}: {header}"
        for path in top.rglob("*")
        if path.suffix in (".cpp", ".h", ".cu", ".cuh")
        for header in includes(path)
        if not header.startswith(allowed) and not (path.parent / header).is_file()
    ]
    assert wrong == []


def test_one_header_tells_host_from_device():
    files = [path for path in source_files() if path.suffix in (".cpp", ".h", ".cu", ".cuh")]
    telling = [relative(path) for path in files if "__CUDACC__" in path.read_text()]
    assert telling == ["korvex/arithmetic/portability.h"]


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
