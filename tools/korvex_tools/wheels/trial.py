# SPDX-License-Identifier: Apache-2.0
"""A wheel as its user has it: installed from the file into something new, and run there.

Natively in a new environment, by the whole suite. Those of another processor by qemu, which runs
Debian's interpreter of that processor: imports, exact sums and the command on certified data.
What is not of this project comes from the index; korvex comes from the file, which pip is handed
with --no-index.
"""

import os
import shutil
import subprocess
import sys
from collections.abc import Iterable
from pathlib import Path

from korvex_tools.source_tree import SOURCE_TREE
from korvex_tools.wheels.interpreters import Missing, fetch
from korvex_tools.wheels.targets import Target

PIP = ("-m", "pip", "--quiet", "--disable-pip-version-check", "install")

# What `korvex.exact` and the command need. torch is not among them: that of Arm needs the libraries
# of CUDA, and `make verify-arm` tries korvex with it.
EMULATED_REQUIREMENTS = ("numpy", "rich", "tqdm")

# An exact sum by rational numbers, and its digest; and an exception of C++.
IMPORTS = """
import platform, sys
from fractions import Fraction
import numpy as np
from korvex import cubin_loader_native, exact
from korvex.exact import _cuda
assert exact.sum(np.array([1e16, 1.0, -1e16, 2.0**-60])) == 1.0
x = np.random.default_rng(7).standard_normal(3000) * 2.0 ** np.arange(-30, 30, 0.02)
total = exact.Sum.from_chunks([x])
assert sum(map(Fraction, total.limbs(4))) == sum(map(Fraction, x.tolist()))
try:
    exact.sum(np.array(["1"]))
except TypeError:
    print(sys.version.split()[0], platform.machine(), total.checksum())
"""
COMMAND_ON_DATA = ("-m", "korvex", "sum", "examples/data/NumAcc4.txt")


def run(*command: object, **environment: str) -> str:
    process = subprocess.run(
        list(map(str, command)),
        cwd=SOURCE_TREE,
        env={key: value for key, value in os.environ.items() if key != "PYTHONPATH"} | environment,
        stdout=subprocess.PIPE,
        text=True,
        check=True,
    )
    return process.stdout


# --- On this processor


def natively(
    wheel: Path, target: Target, interpreter: Path, work: Path, arguments: list[str]
) -> tuple[str, str]:
    """The suite in a new environment, which goes when all tests have passed."""
    version = target.version
    environment, report = work / f"environment-{version}", work / f"{version}.xml"
    shutil.rmtree(environment, ignore_errors=True)
    report.unlink(missing_ok=True)
    set_up = SOURCE_TREE / "scripts" / "set_up_environment.sh"
    names = {"VENV": str(environment), "PYTHON": str(interpreter)}
    run(set_up, environment, "test", "dev", "docs", "release", **names)
    python = environment / "bin" / "python"
    run(python, *PIP, "--no-deps", "--no-index", wheel)
    checksum = run(python, "-P", "-c", IMPORTS).split()[-1]
    path = f"{environment / 'bin'}{os.pathsep}{os.environ['PATH']}"
    subprocess.run(
        [python, "-P", "-m", "pytest", *arguments, f"--junitxml={report}"],
        cwd=SOURCE_TREE,
        env={key: value for key, value in os.environ.items() if key != "VENV"} | {"PATH": path},
        check=True,
    )
    shutil.rmtree(environment)
    line = run(
        *(sys.executable, "-P", "-m", "korvex_tools.report_tests"),
        f"CPython {version}={report}",
        PYTHONPATH=str(SOURCE_TREE / "tools"),
    )
    return checksum, line.strip()


# --- On another processor, by qemu


def emulated(wheel: Path, target: Target, work: Path) -> tuple[str, str]:
    """Debian's interpreter, unpacked; NumPy and what the command needs from the index."""
    names = (f"qemu-{target.processor}-static", f"qemu-{target.processor}")
    qemu = next(filter(None, map(shutil.which, names)), None)
    if qemu is None:
        raise Missing(f"no qemu for {target.processor} (Debian, Ubuntu: qemu-user-static)")
    root = fetch(target.processor, target.version, work)
    site = work / f"site-{target.tag}-{target.processor}"
    shutil.rmtree(site, ignore_errors=True)
    install_for(target, site, EMULATED_REQUIREMENTS)
    install_for(target, site, [str(wheel)], "--no-deps", "--no-index")
    python = [qemu, "-L", root, root / "usr" / "bin" / f"python{target.version}", "-P"]
    version, _, checksum = run(*python, "-c", IMPORTS, PYTHONPATH=str(site)).split()
    run(*python, *COMMAND_ON_DATA, PYTHONPATH=str(site))
    return checksum, f"imported, summed and read certified data by qemu, on CPython {version}"


def install_for(target: Target, site: Path, what: Iterable[str], *options: str) -> None:
    """By this machine's pip, which chooses wheels as that of the target would."""
    versions = [f"manylinux_2_{minor}_{target.processor}" for minor in range(17, 42)]
    platforms = [part for name in versions for part in ("--platform", name)]
    tags = ["--python-version", target.version, "--implementation", "cp", "--abi", target.tag]
    command = [sys.executable, *PIP, "--target", site, *platforms, *tags, "--abi", "none"]
    run(*command, "--only-binary=:all:", *options, *what)
