# SPDX-License-Identifier: Apache-2.0
"""What only a real driver can show: streams, devices, files, forks."""

import math
import os

import device
import pytest
import torch

pytestmark = [
    pytest.mark.gpu,
    pytest.mark.skipif(device.choose().emulated, reason="needs a CUDA device"),
]

VALUES = [1e300, 3.0, 1e-300, -1e300]


def limbs(result):
    return [limb.item() for limb in result.limbs]


def test_report_names_a_file_that_exists(module):
    info = module.get_backend_info()
    major, minor = torch.cuda.get_device_capability(0)
    assert info["native_arch"] == f"sm_{major}{minor}"
    assert os.path.isfile(info["native_cubin"])


def queue_long_work():
    square = torch.ones(4096, 4096, dtype=torch.float64, device="cuda")
    for _ in range(8):
        square = square @ square / 4096.0
    return square


@pytest.mark.parametrize("exact", [True, False])
def test_tensor_that_a_side_stream_is_still_filling(module, exact):
    x = torch.zeros(100_000, dtype=torch.float64, device="cuda")
    torch.cuda.synchronize()
    with torch.cuda.stream(torch.cuda.Stream()):
        work = queue_long_work()
        x += work[0, 0]
        result = module.tqx_sum(x, exact=exact, return_tqx=True)
    assert limbs(result)[0] == 100_000.0


def test_tensor_that_a_side_stream_fills_while_cupy_has_a_non_blocking_stream(module):
    x = torch.zeros(1000, dtype=torch.float64, device="cuda")
    torch.cuda.synchronize()
    with torch.cuda.stream(torch.cuda.Stream()), module.cp.cuda.Stream(non_blocking=True):
        work = queue_long_work()
        x += work[0, 0]
        assert limbs(module.tqx_sum(x, return_tqx=True))[0] == 1000.0


@pytest.mark.skipif(torch.cuda.device_count() < 2, reason="needs two devices")
def test_tensors_on_another_device_than_the_current_one(module):
    for current in range(2):
        with torch.cuda.device(current):
            for place in range(2):
                x = torch.tensor(VALUES, dtype=torch.float64, device=f"cuda:{place}")
                assert limbs(module.tqx_sum(x, return_tqx=True)) == [3.0, 1e-300, 0.0, 0.0]
                assert torch.cuda.current_device() == current


def test_grid_limit_changes_no_bit(module):
    kernel = module._NATIVE_LOADER.get_kernel("tqx_sum_kernel")
    x = torch.randn(1_000_003, dtype=torch.float64, device="cuda")
    found = set()
    for grid in (1, 7, 132, 3907, 100_000):
        out, out_err = torch.zeros(2, 1, dtype=torch.float64, device="cuda")
        args = (*map(module.cp.from_dlpack, (x, out, out_err)), x.numel())
        kernel.function((grid, 1, 1), (256, 1, 1), args)
        module.cp.cuda.Stream.null.synchronize()
        found.add((out.item(), out_err.item()))
    [(value, _)] = found
    assert value == math.fsum(x.tolist())


def test_host_memory_is_refused(module):
    import numpy

    host = numpy.zeros(4)
    host_array = type(
        "HostArray",
        (),
        {
            "__cuda_array_interface__": {
                "shape": (4,),
                "typestr": "<f8",
                "data": (host.ctypes.data, False),
                "version": 3,
            }
        },
    )()
    out = module.cp.from_dlpack(torch.zeros(4, dtype=torch.float64, device="cuda"))
    kernel = module._NATIVE_LOADER.get_kernel("tqx_sum_seq_kernel")
    with pytest.raises(ValueError, match="'x' is not in the memory of a CUDA device"):
        kernel.function((1, 1, 1), (1, 1, 1), (host_array, out, 4))


def test_launch_from_a_thread_of_its_own(module):
    import threading

    x = torch.tensor(VALUES, dtype=torch.float64, device="cuda")
    found = []
    thread = threading.Thread(
        target=lambda: found.append(limbs(module.tqx_sum(x, return_tqx=True)))
    )
    thread.start()
    thread.join()
    assert found == [[3.0, 1e-300, 0.0, 0.0]]


def test_forked_child_learns_that_it_cannot_use_cuda(module):
    kernel = module._NATIVE_LOADER.get_kernel("tqx_sum_seq_kernel")
    x = module.cp.from_dlpack(torch.zeros(4, dtype=torch.float64, device="cuda"))
    child = os.fork()
    if child == 0:
        status = 1
        try:
            with pytest.raises(RuntimeError, match="does not work in a forked child"):
                kernel.function((1, 1, 1), (1, 1, 1), (x, x, 4))
            status = 0
        finally:
            os._exit(status)
    assert os.waitpid(child, 0)[1] == 0
