# SPDX-License-Identifier: Apache-2.0
"""The pytest plugin, in test runs of their own: it acts on request only, and says what it did."""

import os
import subprocess
import sys

import pytest

REPORTS_DEVICE = """
    import torch

    def test_device():
        x = torch.ones(3, device="cuda")
        import korvex.tqx_runtime as runtime
        assert runtime.tqx_sum(x).item() == 3.0
"""
USES_FIXTURE = """
    import torch

    def test_before():
        assert not torch.cuda.is_available()

    def test_fixture(korvex_emulated_device):
        assert torch.ones(1, device="cuda").is_cuda
        assert "emulated" in korvex_emulated_device.name
"""


@pytest.fixture
def run(tmp_path):
    """Run pytest on a file with these tests, in a process where no GPU is to be seen."""

    def run(tests, *options, ini="", conftest=""):
        lines = tests.splitlines()
        (tmp_path / "test_it.py").write_text("\n".join(line[4:] for line in lines))
        (tmp_path / "pytest.ini").write_text(f"[pytest]\n{ini}\n")
        (tmp_path / "conftest.py").write_text(conftest)
        environment = os.environ | {"CUDA_VISIBLE_DEVICES": "", "PYTEST_ADDOPTS": ""}
        return subprocess.run(
            [sys.executable, "-P", "-m", "pytest", "-p", "no:cacheprovider", *options],
            cwd=tmp_path,
            env=environment,
            capture_output=True,
            text=True,
            timeout=120,
        )

    return run


def header(process):
    return [line for line in process.stdout.splitlines() if line.startswith("korvex: ")]


def test_option_activates_the_device(run):
    process = run(REPORTS_DEVICE, "--korvex-emulated")
    assert process.returncode == 0, process.stdout
    (line,) = header(process)
    assert line.startswith("korvex: korvex emulated CUDA device (") and line.endswith(".so")


def test_ini_setting_activates_the_device(run):
    process = run(REPORTS_DEVICE, ini="korvex_emulated = true")
    assert process.returncode == 0, process.stdout
    assert len(header(process)) == 1


def test_device_is_there_before_the_conftest_files(run):
    conftest = "import korvex.tqx_runtime\nfrom torch import zeros\nzeros(1, device='cuda')\n"
    process = run(REPORTS_DEVICE, "--korvex-emulated", conftest=conftest)
    assert process.returncode == 0, process.stdout


def test_workers_of_xdist_have_the_device_too(run):
    process = run(REPORTS_DEVICE, "--korvex-emulated", "-n", "1")
    assert process.returncode == 0, process.stdout


def test_nothing_is_activated_unasked(run):
    process = run("""
    import sys

    def test_device():
        import korvex.emulation
        assert korvex.emulation.active_device() is None
        assert "torch" not in sys.modules
    """)
    assert process.returncode == 0, process.stdout
    assert header(process) == []


def test_fixture_activates_the_device_when_a_test_asks(run):
    process = run(USES_FIXTURE, "-p", "no:randomly")
    assert process.returncode == 0, process.stdout
    assert "2 passed" in process.stdout


def test_fixture_is_an_error_beside_another_loader(run):
    conftest = (
        "import sys, types\n"
        "runtime = types.ModuleType('korvex.tqx_runtime')\n"
        "runtime._NATIVE_LOADER = types.SimpleNamespace(arch='sm_90', cubin_path='/kernels')\n"
        "sys.modules['korvex.tqx_runtime'] = runtime\n"
    )
    process = run(USES_FIXTURE, conftest=conftest)
    assert "1 passed, 1 error" in process.stdout
    assert "was imported before korvex.emulation.activate() was called" in process.stdout
    assert header(process) == ["korvex: CUDA device, sm_90, /kernels"]
