# SPDX-License-Identifier: Apache-2.0
"""A kernel of the emulated device for whose workspace or threads there is no memory."""

import device
import pytest
from subprocess_run import run_python

pytestmark = pytest.mark.skipif(
    not device.choose().emulated, reason="memory of the emulated device"
)

# The limit holds for the kernel alone: torch has made the outputs by then. The product's workspace
# grows with the columns, and is so large that no allocator holds as much in reserve; a thread's
# stack takes 8 MB.
LAUNCH_WITHOUT_ROOM = """
import korvex.emulation
korvex.emulation.activate(threads={threads})
import resource
import torch, korvex.tqx_runtime as runtime
from korvex.emulation._library import HostLibrary

def address_space():
    with open("/proc/self/statm") as file:
        return int(file.read().split()[0]) * resource.getpagesize()

def launch_without_room(*arguments, launch=HostLibrary.run):
    soft, hard = resource.getrlimit(resource.RLIMIT_AS)
    resource.setrlimit(resource.RLIMIT_AS, (address_space() + 1_000_000, hard))
    try:
        launch(*arguments)
    finally:
        resource.setrlimit(resource.RLIMIT_AS, (soft, hard))

launch = HostLibrary.run
HostLibrary.run = launch_without_room
a = torch.full((1, 1), 3.0, dtype=torch.float64, device="cuda")
host = torch.arange(4_000_000.0, dtype=torch.float64)
b = host.reshape(1, -1).cuda()
try:
    runtime.tqx_matmul(a, b)
except MemoryError as error:
    print(error)
roots = runtime.tqx_sqrt(b).cpu()
HostLibrary.run = launch
assert torch.equal(roots, runtime.tqx_sqrt(b).cpu())
assert a.item() == 3.0
assert torch.equal(b.cpu(), host.reshape(1, -1))
assert torch.equal(runtime.tqx_matmul(a, b).cpu(), 3.0 * host.reshape(1, -1))
"""


@pytest.mark.parametrize("threads", [1, 4])
def test_a_product_without_memory_raises_memory_error(threads):
    script = LAUNCH_WITHOUT_ROOM.format(threads=threads)
    assert run_python(script) == "out of memory on the emulated device: tqx_matmul_kernel\n"
