# SPDX-License-Identifier: Apache-2.0
"""The interpreters of the wheels: those of this machine, and Debian's where it has none.

Headers are an x86 interpreter's for both processors. What CPython's configure finds out differs on
Arm in a few macros (assembler, wchar_t, support tier and, in 3.14, vectors of its hashes), and no
public header reads them.
"""

import os
import shutil
import subprocess
import sys
from pathlib import Path

from korvex_tools.source_tree import SOURCE_TREE
from korvex_tools.wheels.targets import DEBIAN_ARCHITECTURES

SCRIPTS = SOURCE_TREE / "scripts"

PROBE = """
import os, sysconfig
include = sysconfig.get_path("include")
library = sysconfig.get_config_var("MULTIARCH") or ""
beside = os.path.join(os.path.dirname(include), library, os.path.basename(include), "pyconfig.h")
print(include)
print(beside if os.path.exists(beside) else os.path.join(include, "pyconfig.h"))
"""


class Missing(Exception):
    """No interpreter of that version; the text says why."""


def find(version: str, folder: Path) -> Path:
    """An interpreter that runs here: the machine's own, else Debian's, unpacked into the folder."""
    environment = {key: value for key, value in os.environ.items() if key != "PYTHON"}
    own = subprocess.run(
        [SCRIPTS / "find_python.sh", version], capture_output=True, text=True, env=environment
    )
    if own.returncode == 0:
        return Path(own.stdout.strip())
    root = fetch("x86_64", version, folder)
    try:
        return make_runnable(root, version)
    except (OSError, subprocess.CalledProcessError) as error:
        raise Missing(f"{own.stderr.strip()} That of Debian does not run: {error}") from None


def fetch(processor: str, version: str, folder: Path) -> Path:
    """Debian's interpreter with its headers and libraries: the folder that stands for /.

    The runtime of C++ is what the modules of others link to.
    """
    packages = [f"python{version}-dev", f"python{version}-venv", "libstdc++6"]
    what = f"CPython {version} for {processor}"
    return fetch_packages(processor, folder / f"debian-{processor}-{version}", packages, what)


def fetch_emulator(folder: Path) -> Path:
    """Debian's qemu, which needs no library; it starts programs faster than older ones do."""
    return fetch_packages("x86_64", folder / "debian-qemu", ["qemu-user"], "qemu")


def fetch_packages(processor: str, root: Path, packages: list[str], what: str) -> Path:
    command = [SCRIPTS / "fetch_debian.sh", DEBIAN_ARCHITECTURES[processor], root, *packages]
    run = subprocess.run(list(map(str, command)), capture_output=True, text=True)
    if run.returncode != 0:
        lines = run.stderr.strip().splitlines() or ["no reason given"]
        raise Missing(f"Debian's {what}: {lines[-1]}")
    return root


def make_runnable(root: Path, version: str) -> Path:
    """Debian's interpreter on a machine with another C library: with the one that came along."""
    python = root / "usr" / "bin" / f"python{version}"
    libraries = root / "usr" / "lib" / "x86_64-linux-gnu"
    loader = libraries / "ld-linux-x86-64.so.2"
    patchelf = shutil.which("patchelf", path=os.pathsep.join([str(Path(sys.executable).parent)]))
    # DT_RPATH, which counts for what the modules of others need as well.
    options = ["--set-interpreter", str(loader), "--force-rpath", "--set-rpath", str(libraries)]
    subprocess.run([patchelf or "patchelf", *options, str(python)], check=True)
    # Where Debian's venv takes pip from.
    packages = f"{root}/usr/share/python-wheels/"
    for path in (root / "usr" / "lib" / f"python{version}").glob("_sysconfigdata_*.py"):
        path.write_text(path.read_text().replace("'/usr/share/python-wheels/'", repr(packages)))
    # Debian's pyconfig.h names that of the processor in a folder that its compilers search.
    headers = root / "usr" / "include"
    name = f"python{version}"
    shutil.copy2(headers / "x86_64-linux-gnu" / name / "pyconfig.h", headers / name / "pyconfig.h")
    subprocess.run([python, "-I", "-c", "import ensurepip, ssl"], check=True, capture_output=True)
    return python


def copy_headers(interpreter: Path, folder: Path) -> Path:
    """The headers of an interpreter as a folder that depends on no other: Debian's has two."""
    found = subprocess.check_output([interpreter, "-I", "-c", PROBE], text=True)
    include, configuration = found.splitlines()
    shutil.rmtree(folder, ignore_errors=True)
    # Times are kept: what was compiled against them need not be compiled again.
    shutil.copytree(include, folder)
    shutil.copy2(configuration, folder / "pyconfig.h")
    return folder
