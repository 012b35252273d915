# SPDX-License-Identifier: Apache-2.0
"""`korvex devices` says what would run, and why not what would not."""

import importlib.metadata
import json
import os
import subprocess
import sys

import pytest

from korvex import exact
from korvex.exact import _native

pytest.importorskip("rich")
pytest.importorskip("tqdm")
from korvex.command import _devices, _gpus  # noqa: E402


def test_it_names_versions_host_and_what_would_run(korvex):
    run = korvex("devices", "--json")
    assert (run.code, run.errors) == (0, "")
    found = json.loads(run.output)
    assert found["versions"]["korvex-tqx"] == importlib.metadata.version("korvex-tqx")
    assert found["versions"]["torch"] == importlib.metadata.version("torch")
    assert found["processors"] == len(os.sched_getaffinity(0))
    active = _native.instruction_set()
    assert found["instruction_sets"][active] == "runs"
    assert list(found["instruction_sets"]) == ["base", "fma", "avx512"]
    threads = exact.get_threads() or found["processors"]
    assert found["runs"]["korvex.exact"] == f"on the host: {active}, up to {threads} threads"
    assert found["runs"]["korvex.emulation"] == f"emulated device on the host: {active}"


def test_text_has_the_same_lines(korvex):
    run = korvex("devices")
    assert run.code == 0
    for title in ("what would run", "host", "GPUs", "versions"):
        assert f"\n{title}\n" in "\n" + run.output


def test_packages_that_are_not_there_are_named_as_reasons():
    program = (
        "import sys, importlib.util as u; find = u.find_spec\n"
        "u.find_spec = lambda name, *a: None if name in ('torch', 'cupy') else find(name, *a)\n"
        "from korvex.command import main; sys.exit(main(['devices', '--json']))"
    )
    run = subprocess.run([sys.executable, "-P", "-c", program], capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    runs = json.loads(run.stdout)["runs"]
    assert runs["korvex.tqx_runtime"].startswith(
        "not on a GPU: torch is not installed: pip install"
    )
    assert runs["korvex.emulation"].startswith("not here: torch is not installed")


def test_a_missing_driver_is_named(monkeypatch):
    monkeypatch.setattr(_gpus, "_LIBRARY", "libcuda-that-is-not-there.so")
    assert _gpus.driver() == _gpus.Driver(
        None, [], "no NVIDIA driver: libcuda-that-is-not-there.so does not open"
    )


class StandIn:
    """A driver with two devices, as ctypes shows it; `failing` names a call that fails."""

    def __init__(self, failing=None):
        self.failing = failing

    def __getattr__(self, name):
        return lambda *arguments: 3 if name == self.failing else (self.answer(name, arguments) or 0)

    def answer(self, name, arguments):
        def put(value):
            arguments[0]._obj.value = value

        if name == "cuDriverGetVersion":
            put(13010)
        elif name == "cuDeviceGetCount":
            put(2)
        elif name == "cuDeviceGet":
            put(arguments[1])
        elif name == "cuDeviceGetName":
            arguments[0].value = b"GPU %d" % arguments[2].value
        elif name == "cuDeviceTotalMem_v2":
            put(80 * 2**30)
        elif name == "cuDeviceGetAttribute":
            put({75: 9, 76: arguments[2].value}[arguments[1]])


def test_gpus_are_listed(monkeypatch):
    monkeypatch.setattr(_gpus.ctypes, "CDLL", lambda name: StandIn())
    found = _gpus.driver()
    assert (found.version, found.problem) == ("CUDA 13.1", None)
    assert found.gpus == [
        _gpus.Gpu("GPU 0", (9, 0), 80 * 2**30),
        _gpus.Gpu("GPU 1", (9, 1), 80 * 2**30),
    ]
    assert "GPU 1, compute capability 9.1, 80.0 GiB" in _devices.survey()["gpus"]


@pytest.mark.parametrize("call", ["cuInit", "cuDeviceGetCount", "cuDeviceGetName"])
def test_a_driver_that_fails_is_named_with_the_call(monkeypatch, call):
    monkeypatch.setattr(_gpus.ctypes, "CDLL", lambda name: StandIn(call))
    assert _gpus.driver().problem == f"the NVIDIA driver cannot be used: {call} failed with code 3"
