# SPDX-License-Identifier: Apache-2.0
"""Chooses the device for the whole run, and holds the fixtures of all folders."""

import os
import pathlib

import device
import hypothesis
import pytest
import reference_runtime
import torch
from call_recorder import Recorder

DEVICE = device.choose()

# Programs that tests start in processes of their own find the tools too.
_TOOLS = str(pathlib.Path(__file__).parents[1] / "tools")
os.environ["PYTHONPATH"] = os.pathsep.join(filter(None, [os.environ.get("PYTHONPATH"), _TOOLS]))

# The operands are small, and threads of torch that wait for each other take most of a busy machine.
torch.set_num_threads(1)

hypothesis.settings.register_profile(
    "korvex", deadline=None, database=None, derandomize=True, max_examples=100
)
hypothesis.settings.register_profile(
    "long", deadline=None, database=None, max_examples=10_000, print_blob=True
)
hypothesis.settings.load_profile("korvex")


def pytest_report_header(config):
    return f"korvex device: {DEVICE.description()}"


def pytest_collection_modifyitems(config, items):
    """First of all, that the package under test is the installed one; `long` tests on request."""
    items.sort(key=lambda item: item.path.name != "test_00_installed_package.py")
    if "long" in config.option.markexpr:
        return
    long = [item for item in items if item.get_closest_marker("long")]
    if long:
        config.hook.pytest_deselected(items=long)
        items[:] = [item for item in items if item not in long]


@pytest.fixture(scope="session")
def module():
    """The built module, on the device of this run."""
    return DEVICE.runtime


@pytest.fixture(params=["module", "reference"])
def runtime(request, monkeypatch):
    """The built module, then its reference implementation in Python, with the same globals."""
    if request.param == "module":
        return DEVICE.runtime
    for name in ("torch", "cp", "_NATIVE_LOADER"):
        monkeypatch.setattr(reference_runtime, name, getattr(DEVICE.runtime, name))
    return reference_runtime


@pytest.fixture
def recorded(runtime, monkeypatch):
    """Makes a recorder whose spies stand for the libraries, and for the globals of these names."""

    def make(script="", *names, returns=None, raises=None):
        recorder = Recorder(script, returns, raises)
        for name in ("torch", "cp", *names):
            monkeypatch.setattr(runtime, name, recorder.spy(name))
        monkeypatch.setattr(runtime, "_NATIVE_LOADER", recorder.spy("loader"))
        return recorder

    return make


@pytest.fixture
def launches(module, monkeypatch):
    """The names of the kernels fetched during the test, one per launch."""
    counting = device.CountingLoader(module._NATIVE_LOADER)
    monkeypatch.setattr(module, "_NATIVE_LOADER", counting)
    return counting.launches


@pytest.fixture
def every_warning():
    """torch gives most of its warnings once in a process, in whichever test comes first."""
    before = torch.is_warn_always_enabled()
    torch.set_warn_always(True)
    yield
    torch.set_warn_always(before)


def pytest_terminal_summary(terminalreporter):
    """How many faults were injected, over all tests that say so."""
    reports = [r for group in terminalreporter.stats.values() for r in group]
    counts = [
        value
        for report in reports
        for name, value in getattr(report, "user_properties", ())
        if name == "faults injected" and report.when == "call"
    ]
    if counts:
        terminalreporter.write_line(f"faults injected: {sum(counts)}")
