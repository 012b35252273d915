# SPDX-License-Identifier: Apache-2.0
"""Prints what a working tree needs installed, one requirement a line, read from pyproject.toml.

That is the build backend, the distribution's own dependencies and the extras named as arguments:
the tree is built without pip's isolation, and itself installed without its dependencies.
"""

import sys
import tomllib
from pathlib import Path


def requirements(pyproject: dict, extras: list[str]) -> list[str]:
    project = pyproject["project"]
    groups = [pyproject["build-system"]["requires"], project["dependencies"]]
    groups += [project["optional-dependencies"][extra] for extra in extras]
    return sorted({requirement for group in groups for requirement in group})


if __name__ == "__main__":
    pyproject_path = Path(__file__).resolve().parent.parent / "pyproject.toml"
    print("\n".join(requirements(tomllib.loads(pyproject_path.read_text()), sys.argv[1:])))
