# SPDX-License-Identifier: Apache-2.0
"""A wheel as its user has it: installed from the file into something new, and run there.

Natively in a new environment, by the whole suite. Those of another processor by qemu, which runs
Debian's interpreter of that processor: imports and exact sums, the verification against
tests/golden in its short form, and the demonstration. What is not of this project comes from the
index; korvex comes from the file, which pip is handed with --no-index.
"""

import os
import shutil
import subprocess
import sys
from collections.abc import Iterable
from pathlib import Path

from korvex_tools.source_tree import SOURCE_TREE
from korvex_tools.wheels.interpreters import fetch, fetch_emulator
from korvex_tools.wheels.targets import Target

PIP = ("-m", "pip", "--quiet", "--disable-pip-version-check", "install")

# What verification and demonstration import, each by name: the conditions that packages put on what
# they need would be answered for this processor.
EMULATED_REQUIREMENTS = """
    filelock fsspec jinja2 markdown-it-py markupsafe mdurl mpmath networkx numpy pyarrow pygments
    rich setuptools sympy tqdm typing-extensions
""".split()
# The last release whose wheel for Arm does without the libraries of CUDA, some gigabytes;
# `make verify-arm` takes the release that the tests ask for.
EMULATED_TORCH = "torch==2.10.*"

# An exact sum by rational numbers, and its digest; and an exception of C++.
IMPORTS = """
import platform, sys
from fractions import Fraction
import numpy as np
from korvex import cubin_loader_native, exact
from korvex.exact import _cuda
assert exact.sum(np.array([1e16, 1.0, -1e16, 2.0**-60])) == 1.0
x = np.ldexp(np.random.default_rng(7).random(3000) - 0.5, np.arange(3000) // 50 - 30)
total = exact.Sum.from_chunks([x])
assert sum(map(Fraction, total.limbs(4))) == sum(map(Fraction, x.tolist()))
try:
    exact.sum(np.array(["1"]))
except TypeError:
    print(sys.version.split()[0], platform.machine(), total.checksum())
"""
VERIFICATION = ("-m", "korvex_tools.verify", "--only", "base-1", "--need", "base-1")
DEMONSTRATION = ("examples/demo.py", "--emulated")


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
    """Debian's interpreter and emulator, unpacked; the rest from the index."""
    python = emulated_interpreter(target, work)
    site = work / f"site-{target.tag}-{target.processor}"
    shutil.rmtree(site, ignore_errors=True)
    install_for(target, site, EMULATED_TORCH, *constrained(EMULATED_REQUIREMENTS))
    install_for(target, site, str(wheel), "--no-index")
    names = {
        "PYTHONPATH": f"{site}{os.pathsep}{SOURCE_TREE / 'tools'}",
        "KORVEX_EMULATION_ANY_TORCH": "1",
    }
    version, _, checksum = run(python, "-P", "-c", IMPORTS, **names).split()
    said = run(python, "-P", *VERIFICATION, "--results", work / "verify", **names).splitlines()
    run(python, *DEMONSTRATION, **names)
    figures = said[-1].partition("; report")[0]
    return checksum, f"CPython {version} by qemu: imports, demonstration, verification: {figures}"


def emulated_interpreter(target: Target, work: Path) -> Path:
    """A program that stands for an interpreter of another processor, in children of it as well."""
    name = f"qemu-{target.processor}"
    root = fetch(target.processor, target.version, work)
    qemu = fetch_emulator(work) / "usr" / "bin" / name
    python = root / "usr" / "bin" / f"python{target.version}"
    stand_in = python.with_name(f"emulated-{python.name}")
    # Its own name is what the interpreter takes for sys.executable.
    stand_in.write_text(f'#!/bin/sh\nexec "{qemu}" -0 "$0" -L "{root}" "{python}" "$@"\n')
    stand_in.chmod(0o755)
    return stand_in


def constrained(names: Iterable[str]) -> list[str]:
    """These packages in the versions of constraints.txt."""
    lines = (SOURCE_TREE / "constraints.txt").read_text().splitlines()
    versions = {line.partition("==")[0].lower().replace("_", "-"): line for line in lines}
    return [versions[name] for name in names]


def install_for(target: Target, site: Path, *what: str) -> None:
    """By this machine's pip, which chooses wheels as that of the target would."""
    versions = [f"manylinux_2_{minor}_{target.processor}" for minor in range(17, 42)]
    platforms = [part for name in versions for part in ("--platform", name)]
    tags = ["--python-version", target.version, "--implementation", "cp", "--abi", target.tag]
    command = [sys.executable, *PIP, "--no-deps", "--target", site, *platforms, *tags]
    run(*command, "--abi", "none", "--only-binary=:all:", *what)
