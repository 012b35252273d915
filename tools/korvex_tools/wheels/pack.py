# SPDX-License-Identifier: Apache-2.0
"""Wheels out of two parts: Python files and metadata by the build backend, objects by CMake."""

import base64
import hashlib
import shutil
import subprocess
import sys
import zipfile
from pathlib import Path

from korvex_tools.source_tree import SOURCE_TREE
from korvex_tools.wheels.targets import Target


def make_base(folder: Path) -> Path:
    """A wheel without objects, which the backend makes of the same pyproject.toml as any other."""
    shutil.rmtree(folder, ignore_errors=True)
    subprocess.run(
        [
            *(sys.executable, "-m", "pip", "wheel", "--quiet", "--disable-pip-version-check"),
            *("--no-deps", "--no-build-isolation", "--no-index", "--wheel-dir", folder),
            *("--config-settings", "wheel.cmake=false", SOURCE_TREE),
        ],
        check=True,
    )
    [wheel] = folder.glob("*.whl")
    return wheel


def pack(base: Path, tree: Path, target: Target, folder: Path) -> Path:
    """The wheel of a target in a folder. Same input, same bytes: no time of day is in it."""
    name, version, *_ = base.stem.split("-")
    information = f"{name}-{version}.dist-info"
    with zipfile.ZipFile(base) as archive:
        files = {entry: archive.read(entry) for entry in archive.namelist() if entry[-1] != "/"}
    del files[f"{information}/RECORD"]
    for path in sorted(tree.rglob("*")):
        if path.is_file():
            files[path.relative_to(tree).as_posix()] = path.read_bytes()
    tag = f"{target.tag}-{target.tag}-{target.platform}"
    files[f"{information}/WHEEL"] = wheel_text(files[f"{information}/WHEEL"].decode(), tag)
    files[f"{information}/RECORD"] = record(files, f"{information}/RECORD")
    wheel = folder / f"{name}-{version}-{tag}.whl"
    folder.mkdir(parents=True, exist_ok=True)
    wheel.unlink(missing_ok=True)
    with zipfile.ZipFile(wheel, "w", zipfile.ZIP_DEFLATED, compresslevel=9) as archive:
        for entry, data in files.items():
            details = zipfile.ZipInfo(entry)
            details.compress_type = zipfile.ZIP_DEFLATED
            details.external_attr = (0o755 if entry.endswith(".so") else 0o644) << 16
            archive.writestr(details, data)
    return wheel


def wheel_text(text: str, tag: str) -> bytes:
    """The file WHEEL of a wheel with objects, out of that of one without."""
    kept = [line for line in text.splitlines() if line and not line.startswith(("Tag:", "Root-Is"))]
    return "\n".join([*kept, "Root-Is-Purelib: false", f"Tag: {tag}", ""]).encode()


def record(files: dict[str, bytes], name: str) -> bytes:
    lines = []
    for entry, data in files.items():
        digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
        lines.append(f"{entry},sha256={digest},{len(data)}\n")
    return ("".join(lines) + f"{name},,\n").encode()
