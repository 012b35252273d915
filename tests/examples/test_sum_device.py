# SPDX-License-Identifier: Apache-2.0
"""How the examples choose their device, and the reason that they print for it."""

import importlib.util
import sys
import types
import warnings
from pathlib import Path

import pytest
import torch

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
LOADER = "korvex.cubin_loader_native"


@pytest.fixture
def sum_device():
    form = importlib.util.spec_from_file_location("sum_device", EXAMPLES / "sum_device.py")
    module = importlib.util.module_from_spec(form)
    form.loader.exec_module(module)
    return module


@pytest.fixture
def put_loader(monkeypatch):
    """Torch finds a device, and the loader's module is this one."""
    monkeypatch.setattr(torch.cuda, "is_available", lambda: True)

    def put(**content):
        loader = types.ModuleType(LOADER)
        vars(loader).update(content)
        monkeypatch.setitem(sys.modules, LOADER, loader)

    return put


def test_no_cuda_device(sum_device, monkeypatch):
    monkeypatch.setattr(torch.cuda, "is_available", lambda: False)
    assert sum_device._why_no_cuda_device() == "torch finds no CUDA device"


def test_a_loader_that_can_launch_is_no_reason(sum_device, put_loader):
    put_loader(HAS_CUPY=True, UNAVAILABLE_REASON=None)
    assert sum_device._why_no_cuda_device() == ""


def test_the_loaders_own_reason_is_quoted(sum_device, put_loader):
    put_loader(HAS_CUPY=False, UNAVAILABLE_REASON="cupy is not installed")
    reason = "the CUDA device cannot be used: cupy is not installed"
    assert sum_device._why_no_cuda_device() == reason


def test_a_loader_that_does_not_import_is_a_reason(sum_device, monkeypatch):
    monkeypatch.setattr(torch.cuda, "is_available", lambda: True)
    monkeypatch.setitem(sys.modules, LOADER, None)
    assert sum_device._why_no_cuda_device().startswith("the CUDA device cannot be used: ")


def test_the_loaders_warning_is_not_shown_a_second_time(sum_device, put_loader, monkeypatch):
    def warn_on_import(name):
        warnings.warn("no kernels", RuntimeWarning, stacklevel=2)
        return types.SimpleNamespace(HAS_CUPY=False, UNAVAILABLE_REASON="no kernels")

    put_loader()
    monkeypatch.setattr(sum_device.importlib, "import_module", warn_on_import)
    assert sum_device._why_no_cuda_device().endswith(": no kernels")
