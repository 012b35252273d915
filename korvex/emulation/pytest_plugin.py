# SPDX-License-Identifier: Apache-2.0
"""pytest plugin: the emulated CUDA device for a test run that asks for it.

It asks with the option ``--korvex-emulated``, with ``korvex_emulated = true`` in the ini file, or
by a test that uses the fixture `korvex_emulated_device`. Nothing is activated otherwise. The header
of the run says on which device `korvex.tqx_runtime` computes, where that is settled by then.
"""

from __future__ import annotations

import sys
from typing import TYPE_CHECKING

import pytest

import korvex.emulation

if TYPE_CHECKING:
    from korvex.emulation._device import EmulatedDevice


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.getgroup("korvex").addoption(
        "--korvex-emulated",
        action="store_true",
        help="activate korvex's emulated CUDA device before anything is imported",
    )
    parser.addini(
        "korvex_emulated",
        type="bool",
        default=False,
        help="activate korvex's emulated CUDA device, as --korvex-emulated does",
    )


@pytest.hookimpl(tryfirst=True)
def pytest_load_initial_conftests(early_config: pytest.Config) -> None:
    # Before the conftest files, which may import the runtime or take names out of torch.
    asked = early_config.known_args_namespace.korvex_emulated
    if asked or early_config.getini("korvex_emulated"):
        korvex.emulation.activate()


def pytest_report_header() -> str | None:
    """Say which device runs; nothing as long as neither is chosen."""
    device = korvex.emulation.active_device()
    if device is not None:
        return f"korvex: {device}"
    runtime = sys.modules.get("korvex.tqx_runtime")
    if runtime is None:
        return None
    loader = runtime._NATIVE_LOADER
    return f"korvex: CUDA device, {loader.arch}, {loader.cubin_path}"


@pytest.fixture(scope="session")
def korvex_emulated_device() -> EmulatedDevice:
    """The emulated CUDA device, activated by the first test that asks; it stays for the whole run.

    An error in a run that has already imported `korvex.tqx_runtime` with the real loader.
    """
    return korvex.emulation.activate()
