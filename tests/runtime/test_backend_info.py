# SPDX-License-Identifier: Apache-2.0
"""The report about the backend."""

import pytest
import torch
from call_recorder import Recorder

SCRIPT = """
    torch.cuda
    torch.cuda.is_available
    torch.cuda.is_available()
    torch.cuda
    torch.cuda.is_available
    torch.cuda.is_available()
    bool(torch.cuda.is_available())
    torch.cuda
    torch.cuda.get_device_name
    torch.cuda.get_device_name(0)
    bool(loader)
    loader.arch
    bool(loader)
    loader.cubin_path
    str(loader.cubin_path)
"""


def test_keys_and_values_on_the_device_under_test(runtime):
    info = runtime.get_backend_info()
    loader = runtime._NATIVE_LOADER
    assert list(info.items()) == [
        ("version", "3.4.8"),
        ("backend", "native_cuda"),
        ("cuda_available", torch.cuda.is_available()),
        ("device", torch.cuda.get_device_name(0) if torch.cuda.is_available() else None),
        ("native_arch", loader.arch),
        ("native_cubin", str(loader.cubin_path)),
    ]
    assert type(info) is dict


def test_each_call_returns_a_new_dict(runtime):
    assert runtime.get_backend_info() is not runtime.get_backend_info()


def test_order_of_the_calls(runtime, monkeypatch):
    recorder = Recorder(SCRIPT, returns={"str(loader.cubin_path)": "path as text"})
    monkeypatch.setattr(runtime, "torch", recorder.spy("torch"))
    monkeypatch.setattr(runtime, "_NATIVE_LOADER", recorder.spy("loader"))
    info = runtime.get_backend_info()
    recorder.check()
    assert info["native_cubin"] == "path as text"


def test_availability_is_asked_twice(runtime, monkeypatch):
    answers = iter([True, False])

    class Cuda:
        is_available = staticmethod(lambda: next(answers))

    monkeypatch.setattr(runtime, "torch", type("Torch", (), {"cuda": Cuda}))
    info = runtime.get_backend_info()
    assert info["cuda_available"] is True and info["device"] is None


def test_without_cuda_the_loader_is_still_reported(runtime, monkeypatch):
    class Cuda:
        is_available = staticmethod(lambda: False)

    monkeypatch.setattr(runtime, "torch", type("Torch", (), {"cuda": Cuda}))
    info = runtime.get_backend_info()
    assert info["cuda_available"] is False and info["device"] is None
    assert info["native_arch"] == runtime._NATIVE_LOADER.arch
    assert info["native_cubin"] == str(runtime._NATIVE_LOADER.cubin_path)


@pytest.mark.parametrize("loader", [None, 0, []])
def test_false_loader_is_reported_as_none(runtime, monkeypatch, loader):
    monkeypatch.setattr(runtime, "_NATIVE_LOADER", loader)
    info = runtime.get_backend_info()
    assert info["native_arch"] is None and info["native_cubin"] is None


def test_arch_is_passed_on_unchanged_and_the_path_as_text(runtime, monkeypatch):
    arch = object()

    class Loader:
        cubin_path = 1.5

    Loader.arch = arch
    monkeypatch.setattr(runtime, "_NATIVE_LOADER", Loader())
    info = runtime.get_backend_info()
    assert info["native_arch"] is arch and info["native_cubin"] == "1.5"


def test_version_is_the_global(runtime, monkeypatch):
    monkeypatch.setattr(runtime, "__version__", "another")
    assert runtime.get_backend_info()["version"] == "another"
