# SPDX-License-Identifier: Apache-2.0
"""What `activate` does to a process: once, in order, and undone if it fails.

An activation needs a process of its own. Cases that can share one do: it tells what it saw as JSON.
"""

import json
import platform
import shutil
from pathlib import Path

import pytest
import torch
from subprocess_run import run_python

import korvex.emulation

LOADER = "korvex.cubin_loader_native"


def tell(script):
    """Run a script that ends with `tell(facts)`, and return the facts."""
    return json.loads(run_python("import json\ntell = lambda f: print(json.dumps(f))\n" + script))


# --- Before it


def test_importing_the_package_imports_neither_torch_nor_the_runtime():
    run_python("""
        import sys
        import korvex.emulation, korvex.emulation.pytest_plugin
        assert korvex.emulation.active_device() is None
        assert not {"torch", "cupy", "korvex.tqx_runtime"} & set(sys.modules)
    """)


def test_importing_all_of_the_package_leaves_torch_alone():
    run_python("""
        import torch
        before = {owner: dict(vars(owner)) for owner in (torch, torch.Tensor, torch.cuda)}
        import korvex.emulation._activation
        assert {owner: dict(vars(owner)) for owner in before} == before
    """)


# --- What it leaves


@pytest.fixture(scope="module")
def activated():
    return tell("""
import os, pathlib, sys
import korvex, korvex.emulation
device = korvex.emulation.activate(threads=3, instruction_set="base")
import torch, korvex.tqx_runtime as runtime
facts = {
    "text": str(device),
    "library": str(device.library),
    "is active": device is korvex.emulation.active_device(),
    "arch": runtime._NATIVE_LOADER.arch,
    "path": str(runtime._NATIVE_LOADER.cubin_path),
    "names of cp": sorted(name for name in vars(runtime.cp) if name[0] != "_"),
    "synchronize": runtime.cp.cuda.Stream.null.synchronize(),
    "info": runtime.get_backend_info(),
    "mapped": pathlib.Path("/proc/self/maps").read_text(),
    "modules": sorted(sys.modules),
    "attributes": sorted(vars(korvex)),
}
zeros, loader = torch.zeros, runtime._NATIVE_LOADER
facts["again"] = korvex.emulation.activate() is device, device.threads, device.instruction_set
facts["same"] = korvex.emulation.activate(3, "base") is device
facts["fewer threads"] = korvex.emulation.activate(threads=1) is device, device.threads
try:
    korvex.emulation.activate(instruction_set="fma")
except RuntimeError as error:
    facts["other instructions"] = str(error)
facts["same library"] = korvex.emulation.activate(library=device.library) is device
try:
    korvex.emulation.activate(library="/elsewhere/kernels.so")
except RuntimeError as error:
    facts["other library"] = str(error)
facts["changed"] = torch.zeros is not zeros or runtime._NATIVE_LOADER is not loader
tell(facts)
""")


def test_runtime_has_the_stand_ins_for_good(activated):
    assert activated["is active"]
    assert activated["arch"] == "emulated-base"
    assert activated["names of cp"] == ["cuda", "from_dlpack"]
    assert activated["synchronize"] is None


def test_backend_info_names_the_emulated_device(activated):
    info = activated["info"]
    assert info["cuda_available"] is True
    assert info["device"] == "korvex emulated CUDA device (base)"
    assert info["native_arch"] == "emulated-base"
    assert info["native_cubin"] == activated["library"]


def test_library_that_is_named_is_the_one_loaded(activated):
    assert activated["path"] == activated["library"]
    assert activated["library"] in activated["mapped"]
    assert "host_kernels_fma" not in activated["mapped"]
    assert "host_kernels_avx512" not in activated["mapped"]


def test_device_is_described_in_one_line(activated):
    expected = f"korvex emulated CUDA device (base), 3 threads, {activated['library']}"
    assert activated["text"] == expected


def test_stand_ins_are_in_sys_modules_during_the_import_only(activated):
    assert "korvex.tqx_runtime" in activated["modules"]
    assert not {"cupy", LOADER} & set(activated["modules"])
    assert "cubin_loader_native" not in activated["attributes"]


def test_second_activation_changes_nothing_but_the_threads(activated):
    assert activated["again"] == [True, 3, "base"]
    assert activated["same"] is True
    assert activated["fewer threads"] == [True, 1]
    assert activated["changed"] is False


def test_instructions_cannot_be_changed_later(activated):
    assert activated["other instructions"] == (
        "the emulated device is active with 'base' instructions, "
        "and stays so for the life of the process"
    )


def test_library_cannot_be_changed_later(activated):
    assert activated["same library"] is True
    assert activated["other library"] == (
        f"the emulated device is active with the kernels in {activated['library']}, "
        "and stays so for the life of the process"
    )


def test_library_from_elsewhere_tells_its_own_instruction_set(tmp_path):
    folder = Path(korvex.emulation.__file__).parent
    copy = shutil.copy(folder / "libkorvex_host_kernels_base.so", tmp_path / "kernels.so")
    run_python(f"""
        import pathlib
        import korvex.emulation
        device = korvex.emulation.activate(library={str(copy)!r})
        import torch, korvex.tqx_runtime as runtime
        assert device.library == pathlib.Path({str(copy)!r}).resolve()
        assert device.instruction_set == "base"
        assert runtime.get_backend_info()["native_cubin"] == str(device.library)
        assert runtime.tqx_sum(torch.ones(9, device="cuda")).item() == 9.0
    """)


def test_defaults_are_those_of_the_processor():
    flags = Path("/proc/cpuinfo").read_text().split() if platform.machine() == "x86_64" else []
    best = "fma" if {"fma", "avx2", "f16c"} <= set(flags) else "base"
    if best == "fma" and {"avx512f", "avx512dq", "avx512vl"} <= set(flags):
        best = "avx512"
    run_python(f"""
        import korvex.emulation, os
        device = korvex.emulation.activate()
        assert device.instruction_set == {best!r}
        assert device.threads == len(os.sched_getaffinity(0))
    """)


def test_cupy_and_loader_of_others_are_left_alone():
    run_python("""
        import sys, types
        import korvex, korvex.emulation
        cupy, loader = types.ModuleType("cupy"), types.ModuleType("korvex.cubin_loader_native")
        sys.modules |= {"cupy": cupy, "korvex.cubin_loader_native": loader}
        korvex.cubin_loader_native = loader
        korvex.emulation.activate()
        assert sys.modules["cupy"] is cupy
        assert sys.modules["korvex.cubin_loader_native"] is loader
        assert korvex.cubin_loader_native is loader
        assert sys.modules["korvex.tqx_runtime"].cp is not cupy
    """)


# --- What it refuses


@pytest.fixture(scope="module")
def refusals():
    return tell("""
import pathlib, sys, types
import torch, korvex.emulation
from korvex.emulation import _library

attributes = lambda: [dict(vars(owner)) for owner in (torch, torch.Tensor, torch.cuda)]
facts, before = {}, attributes()

def try_it(case, **arguments):
    try:
        korvex.emulation.activate(**arguments)
    except Exception as error:
        facts[case] = [type(error).__name__, str(error)]

try_it("threads", threads=0)
try_it("instruction set", instruction_set="avx")

sys.modules["korvex.tqx_runtime"] = types.ModuleType("korvex.tqx_runtime")
try_it("after the runtime")
del sys.modules["korvex.tqx_runtime"]

is_initialized, torch.cuda.is_initialized = torch.cuda.is_initialized, lambda: True
try_it("beside a real device")
torch.cuda.is_initialized = is_initialized

best, _library.best_instruction_set = _library.best_instruction_set, lambda: "base"
try_it("processor", instruction_set="fma")
try_it("old processor", instruction_set="avx512")
_library.best_instruction_set = best

path, _library._path = _library._path, lambda name: pathlib.Path("/nowhere/kernels.so")
try_it("library")
_library._path = path

try_it("library that is none", library="/etc/hostname")
try_it("library of other instructions", instruction_set="fma", library=_library._path("base"))

facts["changed"] = attributes() != before or "korvex.tqx_runtime" in sys.modules
facts["active"] = korvex.emulation.active_device() is not None
tell(facts)
""")


@pytest.mark.parametrize(
    "case, refusal",
    [
        ("threads", ("ValueError", "threads must be at least 1, not 0")),
        (
            "instruction set",
            ("ValueError", "instruction_set must be 'base', 'fma' or 'avx512', not 'avx'"),
        ),
        (
            "after the runtime",
            (
                "RuntimeError",
                "korvex.tqx_runtime was imported before korvex.emulation.activate() was called, "
                "and keeps the loader that it has",
            ),
        ),
        ("beside a real device", ("RuntimeError", "this process already uses a real CUDA device")),
        ("processor", ("RuntimeError", "this processor has no FMA and AVX2 instructions")),
        (
            "old processor",
            ("RuntimeError", "this processor has no AVX-512 (F, DQ and VL) instructions"),
        ),
    ],
)
def test_activation_is_refused(case, refusal, refusals):
    assert refusals[case] == list(refusal)


def test_missing_library_is_an_import_error(refusals):
    kind, text = refusals["library"]
    assert kind == "ImportError" and "/nowhere/kernels.so" in text


def test_library_that_does_not_fit_is_an_import_error(refusals):
    kind, text = refusals["library that is none"]
    assert kind == "ImportError" and text.startswith("the kernels of the emulated device do not")
    kind, text = refusals["library of other instructions"]
    assert kind == "ImportError" and text.endswith("holds kernels for another instruction set")


def test_refused_activation_changes_nothing(refusals):
    assert refusals["changed"] is False and refusals["active"] is False


def test_failed_import_of_the_runtime_puts_everything_back():
    run_python("""
        import sys
        import torch, korvex.emulation
        owners = (torch, torch.Tensor, torch.cuda)
        def attributes():
            return [{k: v for k, v in vars(o).items() if k[:2] != "__"} for o in owners]
        before = attributes()
        sys.modules["hashlib"], hashlib = None, sys.modules["hashlib"]
        try:
            korvex.emulation.activate()
        except ImportError as error:
            assert "hashlib" in str(error)
        else:
            raise AssertionError("the import succeeded")
        assert attributes() == before
        assert not {"cupy", "korvex.cubin_loader_native"} & set(sys.modules)
        assert korvex.emulation.active_device() is None
        sys.modules["hashlib"] = hashlib
        korvex.emulation.activate()
        assert torch.zeros(1, device="cuda").is_cuda
    """)


# --- Releases of torch

ANOTHER_TORCH = """
        import torch

        torch.__version__ = "2.99.1+cu999"
        from korvex import emulation
"""


def test_a_torch_that_was_not_tried_is_refused_before_anything_changes():
    run_python(
        ANOTHER_TORCH
        + """
        import sys

        before = torch.cuda.is_available
        try:
            emulation.activate()
        except RuntimeError as error:
            assert str(error) == (
                "the emulated device has been tried with torch 2.13, and this is torch "
                '2.99.1+cu999: install "torch==2.13.*", or set KORVEX_EMULATION_ANY_TORCH=1 in '
                "the environment to go on with this one"
            )
        else:
            raise AssertionError("no error")
        assert emulation.active_device() is None and "korvex.tqx_runtime" not in sys.modules
        assert torch.cuda.is_available is before
        """
    )


def test_a_torch_that_was_not_tried_can_be_used_all_the_same():
    run_python(
        ANOTHER_TORCH
        + """
        import os

        os.environ["KORVEX_EMULATION_ANY_TORCH"] = "1"
        emulation.activate()
        from korvex import tqx_runtime

        assert tqx_runtime.tqx_sum(torch.ones(3, device="cuda", dtype=torch.float64)).item() == 3
        """
    )


def test_the_tests_run_with_a_torch_that_was_tried():
    from korvex.emulation import _activation

    assert ".".join(torch.__version__.split(".")[:2]) in _activation.TRIED_TORCH
    page = (Path(__file__).resolve().parents[2] / "docs" / "emulation.md").read_text()
    assert all(f"torch {release}" in page for release in _activation.TRIED_TORCH)
