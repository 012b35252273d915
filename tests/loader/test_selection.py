# SPDX-License-Identifier: Apache-2.0
"""Which file of kernels a device gets, and what the loader tells of it."""

import pytest

# Capability of the device, the files that there are, the one that fits.
CHOICES = [
    ((9, 0), ["sm_80", "sm_90", "compute_80"], "sm_90"),
    ((8, 9), ["sm_80", "sm_86", "sm_90", "compute_75"], "sm_86"),
    ((8, 0), ["sm_86", "sm_75", "compute_75"], "compute_75"),
    # Systems on a chip, which run machine code of their own alone, and no other GPU runs theirs.
    ((8, 7), ["sm_80", "sm_86", "compute_80"], "compute_80"),
    ((8, 7), ["sm_86", "sm_87", "compute_80"], "sm_87"),
    ((8, 9), ["sm_86", "sm_87"], "sm_86"),
    ((11, 0), ["sm_100", "sm_110"], "sm_110"),
    ((7, 2), ["sm_70", "compute_70"], "compute_70"),
    ((12, 1), ["sm_120", "compute_90"], "sm_120"),
    ((12, 0), ["sm_90", "compute_80", "compute_90"], "compute_90"),
    ((10, 3), ["sm_103", "sm_100"], "sm_103"),
    ((8, 0), ["compute_70", "compute_80", "compute_90"], "compute_80"),
    ((9, 0), ["sm_90a", "sm_x", "sm_", "compute_80"], "compute_80"),
]


@pytest.mark.parametrize(("capability", "files", "chosen"), CHOICES)
def test_chosen_file_is_reported_and_loaded(run, capability, files, chosen):
    run(
        f"""
        import pathlib
        driver.set_devices(({capability[0]}, {capability[1]}, 1))
        loader = import_loader().NativeCubinLoader()
        assert type(loader.cubin_path) is type(pathlib.Path())
        assert loader.cubin_path.is_file() and loader.cubin_path.is_absolute()
        assert loader.cubin_path.stem == "korvex_{chosen}"
        assert loader.arch == "sm_{capability[0]}{capability[1]}"
        driver.take_log()
        assert exact_sum(loader, [1e100, 1.0, -1e100]) == [1.0, 0.0, 0.0, 0.0]
        assert "cuModuleLoadDataEx stub {chosen}" in driver.take_log()
        """,
        files,
    )


@pytest.mark.parametrize(
    ("capability", "files", "held"),
    [
        ((7, 5), ["sm_80", "sm_90", "compute_80"], "sm_80, sm_90, compute_80"),
        ((9, 0), ["sm_80"], "sm_80"),
        ((8, 0), ["sm_86"], "sm_86"),
        ((9, 0), [], "none"),
    ],
)
def test_no_fitting_file_is_a_runtime_error_that_lists_them(run, capability, files, held):
    run(
        f"""
        import pathlib
        driver.set_devices(({capability[0]}, {capability[1]}, 1))
        module = import_loader()
        with pytest.raises(RuntimeError) as caught:
            module.NativeCubinLoader()
        folder = pathlib.Path(module.__file__).with_name("cubins")
        assert str(caught.value) == (
            "korvex cannot launch CUDA kernels here: no compiled kernels for device 0, "
            "Stub device 0, which is sm_{capability[0]}{capability[1]}: "
            f"{{folder}} holds {held}"
        )
        """,
        files,
    )


def test_device_that_is_current_is_the_one_reported(run):
    run(
        """
        import ctypes
        module = import_loader()
        ctypes.CDLL("libcuda.so.1").cuInit(0)
        driver.set_device(1)
        assert module.NativeCubinLoader().arch == "sm_80"
        """
    )


def test_first_device_that_fits_is_reported_where_the_current_one_does_not(run):
    run(
        """
        driver.set_devices((6, 1, 1), (9, 0, 1))
        loader = import_loader().NativeCubinLoader()
        assert loader.arch == "sm_90"
        assert exact_sum(loader, [3.0], device=1) == [3.0, 0.0, 0.0, 0.0]
        with pytest.raises(RuntimeError, match="^tqx_sum_seq_kernel: no compiled kernels for devi"):
            exact_sum(loader, [3.0], device=0)
        """
    )


def test_loading_waits_for_the_first_launch_on_a_device(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        assert not {"cuDevicePrimaryCtxRetain", "cuModuleLoadDataEx"} & set(driver.take_calls())
        for device, file in ((1, "sm_80"), (0, "sm_90")):
            for expected in ([f"cuModuleLoadDataEx stub {file}"], []):
                exact_sum(loader, [1.0], device)
                log = driver.take_log()
                assert [line for line in log if "cuModuleLoadDataEx" in line] == expected
        """
    )
