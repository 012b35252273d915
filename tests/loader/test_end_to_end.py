# SPDX-License-Identifier: Apache-2.0
"""`korvex.tqx_runtime` with the real loader, over the stub driver: from a tensor to its exact sum.

Only two things stand in: a tensor class that says it is on a CUDA device, and a cupy that hands
its memory to the loader and waits on the null stream.
"""

SETUP = """
import math, sys, types
import torch
import fake_siblings

class CudaTensor(torch.Tensor):
    @property
    def is_cuda(self):
        return True

def from_dlpack(tensor):
    assert tensor.is_contiguous() and tensor.dtype is torch.float64
    size = tensor.numel()
    if size:
        driver.register_memory(tensor.data_ptr(), 8 * size, 0)
    data = (tensor.data_ptr() if size else 0, False)
    return types.SimpleNamespace(__cuda_array_interface__={
        "shape": tuple(tensor.shape), "typestr": "<f8", "data": data, "strides": None,
        "stream": stub_driver.LEGACY_STREAM, "version": 3})

null = types.SimpleNamespace(synchronize=driver.synchronize)
cuda = types.SimpleNamespace(Stream=types.SimpleNamespace(null=null))
fake_siblings.add_module("cupy", from_dlpack=from_dlpack, cuda=cuda)
loader_module = import_loader()
runtime = fake_siblings.import_module()
driver.set_device(0)

def tensor(values):
    return torch.tensor(values, dtype=torch.float64).as_subclass(CudaTensor)
"""


def run_runtime(run, script, **environment):
    run(SETUP + script, **environment)


def test_backend_report_comes_from_the_loader(run):
    run_runtime(
        run,
        """
assert type(runtime._NATIVE_LOADER) is loader_module.NativeCubinLoader
info = runtime.get_backend_info()
assert info["native_arch"] == "sm_90"
assert info["native_cubin"].endswith("/cubins/korvex_sm_90.cubin")
""",
    )


def test_sum_is_exact(run):
    run_runtime(
        run,
        """
values = [1e300, 3.0, 1e-300, -1e300, 2.0**-1074]
result = runtime.tqx_sum(tensor(values), return_tqx=True)
assert [limb.item() for limb in result.limbs] == [3.0, 1e-300, 2.0**-1074, 0.0]
assert runtime.tqx_sum_exact(tensor([0.1] * 10)) == sum([runtime.Decimal(0.1)] * 10)
assert launches(driver.take_log())[0] == ("tqx_sum_seq_kernel", (1, 1, 1), (1, 1, 1), 1)
""",
    )


def test_parallel_sum_is_exact_and_its_grid_limited(run):
    run_runtime(
        run,
        """
values = [(-1.0) ** i * 10.0 ** (i % 29) / 3 for i in range(80000)]
result = runtime.tqx_sum(tensor(values), exact=False, return_tqx=True)
assert result.limbs[0].item() == math.fsum(values)
assert launches(driver.take_log()) == [("tqx_sum_kernel", (16, 1, 1), (256, 1, 1), 1)]
""",
    )


def test_results_on_the_whole_device_are_the_same(run):
    run_runtime(
        run,
        """
values = [(-1.0) ** i * 10.0 ** (i % 29) / 3 for i in range(80000)]
x = tensor(values)
assert runtime.tqx_sum(x, return_tqx=True).limbs[0].item() == math.fsum(values)
assert runtime.tqx_var(tensor([1.0, 2.0, 3.0])).item() == 1.0
assert launches(driver.take_log()) == [
    ("tqx_sum_device_kernel", (16, 1, 1), (256, 1, 1), 1),
    ("tqx_var_device_sum_kernel", (1, 1, 1), (256, 1, 1), 1),
    ("tqx_var_device_kernel", (1, 1, 1), (256, 1, 1), 1)]
""",
        KORVEX_LAUNCH="device",
    )


def test_unknown_choice_of_launches_ends_the_import(run):
    before_the_import, _, _ = SETUP.partition("runtime = ")
    run(
        before_the_import
        + """
with pytest.raises(ValueError, match="KORVEX_LAUNCH must be 'as-asked' or 'device', not 'x'"):
    fake_siblings.import_module()
""",
        KORVEX_LAUNCH="x",
    )


def test_empty_sum_is_zero(run):
    run_runtime(
        run,
        """
assert runtime.tqx_sum(tensor([])).item() == 0.0
driver.take_log()
assert runtime.tqx_sum(tensor([]), exact=False).item() == 0.0
assert launches(driver.take_log()) == [], "a grid without extent is not launched"
""",
    )


def test_failing_launch_reaches_the_caller_unchanged(run):
    run_runtime(
        run,
        """
driver.fail("cuLaunchKernel", 700)
with pytest.raises(RuntimeError) as caught:
    runtime.tqx_sum(tensor([1.0]))
assert str(caught.value) == (
    "tqx_sum_seq_kernel: cuLaunchKernel failed: CUDA_ERROR_ILLEGAL_ADDRESS")
assert runtime.tqx_sum(tensor([1.0])).item() == 1.0
""",
    )
