# SPDX-License-Identifier: Apache-2.0
"""The site, built once as `make site` builds it, for all processes that run these tests."""

import fcntl
import os

import pytest
from site_builds import build_site


@pytest.fixture(scope="session")
def site(tmp_path_factory):
    """The folder of its pages. The first process to come builds it, the others wait."""
    for package in ("sphinx", "myst_parser", "furo", "latex2mathml"):
        pytest.importorskip(package)
    parts = os.environ.get("PYTEST_XDIST_WORKER")
    base = tmp_path_factory.getbasetemp()
    base = base.parent if parts else base
    folder, said = base / "site", base / "site-says"
    with open(base / "site-lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not said.exists():
            run = build_site(folder)
            said.write_text(f"{run.returncode} {run.stderr}")
    assert said.read_text() == "0 "
    return folder
