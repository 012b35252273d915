# SPDX-License-Identifier: Apache-2.0
"""Runs a piece of Python in a process of its own; the piece checks itself with `assert`."""

import os
import pathlib
import subprocess
import sys
import textwrap

_SUPPORT = str(pathlib.Path(__file__).parent)


def run_python(script, *options, **environment):
    """Run `script` with this folder importable; a failure shows what the process printed."""
    search_path = os.pathsep.join(filter(None, [_SUPPORT, os.environ.get("PYTHONPATH")]))
    process = subprocess.run(
        [sys.executable, "-P", "-W", "error", *options, "-c", textwrap.dedent(script)],
        env=os.environ | {"PYTHONPATH": search_path} | environment,
        capture_output=True,
        text=True,
        timeout=120,
    )
    assert process.returncode == 0, process.stdout + process.stderr
    return process.stdout
