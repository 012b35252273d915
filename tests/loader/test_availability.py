# SPDX-License-Identifier: Apache-2.0
"""HAS_CUPY and its reason: what is certain before the driver is initialised, and nothing else."""

import ctypes
import importlib.util
import shutil

import pytest
import stub_driver
import subprocess_run

# A script without the stub driver's control, as there may be no stub driver.
BARE = "import sys\nimport stub_driver\nfrom stub_driver import import_loader\n"
INTRODUCTION = "korvex cannot launch CUDA kernels here: "


def bare_run(tmp_path, script, *options, files=("sm_90",), **environment):
    extension = stub_driver.install(tmp_path / "installation", *files)
    environment = {"KORVEX_TEST_LOADER": str(extension), "LD_LIBRARY_PATH": ""} | environment
    return subprocess_run.run_python(BARE + script, *options, **environment)


def machine_has_a_driver():
    try:
        ctypes.CDLL(stub_driver.DRIVER)
    except OSError:
        return False
    return True


needs_no_driver = pytest.mark.skipif(machine_has_a_driver(), reason="this machine has a driver")


def test_available_where_nothing_stands_against_it(run):
    run(
        """
        module = import_loader()
        assert module.HAS_CUPY is True and module.UNAVAILABLE_REASON is None
        assert driver.take_log() == [], "the driver hears nothing of an import"
        """
    )


def test_missing_cupy(run):
    run(
        """
        import sys
        sys.modules["cupy"] = None
        module = import_loader(cupy=False)
        assert module.HAS_CUPY is False
        assert module.UNAVAILABLE_REASON == "cupy is not installed"
        assert exact_sum(module.NativeCubinLoader(), [2.0]) == [2.0, 0.0, 0.0, 0.0]
        """
    )


@pytest.mark.skipif(importlib.util.find_spec("cupy") is None, reason="cupy is not installed")
def test_cupy_is_looked_up_and_not_imported(run):
    run(
        """
        import sys
        assert import_loader(cupy=False).HAS_CUPY is True
        assert "cupy" not in sys.modules
        """
    )


@needs_no_driver
def test_missing_driver(tmp_path):
    bare_run(
        tmp_path,
        """
module = import_loader()
assert module.HAS_CUPY is False
assert module.UNAVAILABLE_REASON.startswith("no NVIDIA driver: libcuda.so.1: cannot open")
try:
    module.NativeCubinLoader()
except RuntimeError as error:
    assert str(error) == "korvex cannot launch CUDA kernels here: " + module.UNAVAILABLE_REASON
else:
    raise AssertionError
""",
    )


@needs_no_driver
def test_all_reasons_are_reported(tmp_path):
    """So that whoever mends one of them is not surprised by the next."""
    bare_run(
        tmp_path,
        """
sys.modules["cupy"] = None
cupy, driver, kernels = import_loader(cupy=False).UNAVAILABLE_REASON.split("; ")
assert cupy == "cupy is not installed" and driver.startswith("no NVIDIA driver: ")
assert kernels.startswith("no compiled kernels in ") and kernels.endswith("/cubins")
""",
        files=(),
    )


def test_driver_that_lacks_a_function(tmp_path):
    """Any library stands for an old driver: it has no function of one."""
    (tmp_path / "old").mkdir()
    shutil.copy(stub_driver.host_kernels(), tmp_path / "old" / stub_driver.DRIVER)
    bare_run(
        tmp_path,
        """
assert import_loader().UNAVAILABLE_REASON == "the NVIDIA driver is too old: it has no cuInit"
""",
        LD_LIBRARY_PATH=str(tmp_path / "old"),
    )


@pytest.mark.parametrize(("value", "hidden"), [("", True), ("-1", True), ("-1,0", True), ("1", 0)])
def test_hidden_devices(run, value, hidden):
    reason = f'no device: CUDA_VISIBLE_DEVICES is "{value}"' if hidden else None
    run(
        f"""
        assert import_loader().UNAVAILABLE_REASON == {reason!r}
        """,
        CUDA_VISIBLE_DEVICES=value,
    )


MANAGED = [
    ([], ["sm_90"], "no device: the driver manages none"),
    ([(9, 0)], ["sm_90"], None),
    ([(6, 1), (9, 0)], ["sm_90"], None),
    (
        [(6, 1), (7, 5)],
        ["sm_80", "compute_80"],
        "no compiled kernels for the devices here, which are sm_61, sm_75: "
        "{folder} holds sm_80, compute_80",
    ),
]


@pytest.mark.parametrize(("devices", "files", "reason"), MANAGED)
def test_devices_that_the_management_library_lists(run, devices, files, reason):
    run(
        f"""
        import ctypes, pathlib
        management = ctypes.CDLL(stub_driver.MANAGEMENT)
        management.stub_let_management_work()
        for device in {devices}:
            management.stub_add_managed_device(*device)
        module = import_loader()
        folder = pathlib.Path(module.__file__).with_name("cubins")
        expected = {reason!r}
        assert module.UNAVAILABLE_REASON == (expected and expected.format(folder=folder))
        assert module.HAS_CUPY is (expected is None)
        assert management.stub_management_initialised() == 0
        """,
        files,
    )


@pytest.mark.parametrize(
    "call",
    [
        "nvmlInit_v2",
        "nvmlDeviceGetCount_v2",
        "nvmlDeviceGetHandleByIndex_v2",
        "nvmlDeviceGetCudaComputeCapability",
    ],
)
def test_failing_management_library_proves_nothing(run, call):
    run(
        f"""
        import ctypes
        management = ctypes.CDLL(stub_driver.MANAGEMENT)
        management.stub_add_managed_device(6, 1)
        management.stub_fail_management(b"{call}")
        assert import_loader().UNAVAILABLE_REASON is None
        assert management.stub_management_initialised() == 0
        """
    )


def test_reason_is_a_runtime_warning(run):
    run(
        f"""
        import sys, warnings
        sys.modules["cupy"] = None
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            import_loader(cupy=False)
        [warning] = caught
        assert warning.category is RuntimeWarning
        assert str(warning.message) == "{INTRODUCTION}cupy is not installed"
        """
    )


def test_warning_is_shown_and_no_exception_where_warnings_are_errors(run):
    """The runs here have -W error: an exception would end this script."""
    run(
        f"""
        import contextlib, io, sys
        sys.modules["cupy"] = None
        with contextlib.redirect_stderr(io.StringIO()) as shown:
            import_loader(cupy=False)
        assert shown.getvalue() == (
            "<korvex.cubin_loader_native>:1: RuntimeWarning: "
            "{INTRODUCTION}cupy is not installed\\n")
        """
    )


def test_warning_that_cannot_be_shown_is_no_exception_either(run):
    run(
        """
        import sys, warnings
        sys.modules["cupy"] = None
        def fail(*args):
            raise ValueError("from showwarning")
        warnings.showwarning = fail
        assert import_loader(cupy=False).UNAVAILABLE_REASON == "cupy is not installed"
        """
    )


def test_runtime_without_a_usable_loader_says_what_to_install_and_why_not(run):
    run(
        """
        import contextlib, io, sys
        import fake_siblings
        fake_siblings.add_torch()
        sys.modules["cupy"] = None
        with contextlib.redirect_stderr(io.StringIO()) as shown:
            import_loader(cupy=False)
            error = fake_siblings.import_error()
        assert type(error) is ImportError and "pip install korvex-tqx[cuda12]" in str(error)
        assert "cupy is not installed" in shown.getvalue()
        """
    )


def test_runtime_passes_the_loaders_own_error_on(run):
    run(
        """
        import fake_siblings
        fake_siblings.add_torch()
        driver.fail("cuInit", 100)
        import_loader()
        error = fake_siblings.import_error()
        assert type(error) is RuntimeError, error
        assert "cuInit failed: CUDA_ERROR_NO_DEVICE" in str(error)
        """
    )


def test_this_installation():
    """What the tests run on here: kernels in the package, or a reason that says so."""
    subprocess_run.run_python(
        """
        import importlib, pathlib
        loader = importlib.import_module("korvex.cubin_loader_native")
        folder = pathlib.Path(loader.__file__).with_name("cubins")
        files = list(folder.glob("korvex_*")) if folder.is_dir() else []
        assert loader.HAS_CUPY is (loader.UNAVAILABLE_REASON is None)
        assert files or f"no compiled kernels in {folder}" in loader.UNAVAILABLE_REASON
        """
    )
