# SPDX-License-Identifier: Apache-2.0
"""The stub driver, built once a run, and scripts that run over it in a process of their own."""

import os

import pytest
import stub_driver
import subprocess_run

PREAMBLE = """
import pytest
import stub_driver
from stub_driver import DeviceArray, StubDriver, import_loader, launches, queued

driver = StubDriver()

def exact_sum(loader, values, device=0):
    x, out = DeviceArray(driver, values, device), DeviceArray(driver, [0.0] * 4, device)
    kernel = loader.get_kernel("tqx_sum_seq_kernel")
    kernel.function((1, 1, 1), (1, 1, 1), (x, out, len(values)))
    driver.synchronize()
    return out.tolist()

def variance(loader, values, device=0):
    x, *outs = (DeviceArray(driver, array, device) for array in (values, [0.0], [0.0]))
    loader.get_kernel("tqx_var_kernel").launch(x, *outs, len(values), grid=(1, 1, 1))
    driver.synchronize()
    return outs[0].tolist() + outs[1].tolist()

def parallel_sum(loader, values, device=0):
    x, *outs = (DeviceArray(driver, array, device) for array in (values, [0.0], [0.0]))
    loader.get_kernel("tqx_sum_kernel").launch(x, *outs, len(values), grid=(1, 1, 1))
    driver.synchronize()
    return outs[0].tolist() + outs[1].tolist()
"""


@pytest.fixture(scope="session")
def stub_libraries(tmp_path_factory):
    shared = tmp_path_factory.getbasetemp()
    if "PYTEST_XDIST_WORKER" in os.environ:
        shared = shared.parent
    return stub_driver.build(shared / "stub_cuda")


@pytest.fixture
def run(stub_libraries, tmp_path):
    """Run a script over the stub driver, with kernel files by these names."""

    def run_script(script, files=("sm_80", "sm_90"), preamble=PREAMBLE, **environment):
        extension = stub_driver.install(tmp_path / "installation", *files)
        folders = [stub_libraries / "driver", stub_libraries / "management"]
        inherited = os.environ.get("LD_LIBRARY_PATH")
        search_path = os.pathsep.join([*map(str, folders), *filter(None, [inherited])])
        environment = {
            "LD_LIBRARY_PATH": search_path,
            "KORVEX_TEST_LOADER": str(extension),
        } | environment
        lines = script.splitlines()
        margin = min(len(text) - len(text.lstrip()) for text in lines if text.strip())
        body = "\n".join(text[margin:] for text in lines)
        return subprocess_run.run_python(preamble + body, **environment)

    return run_script
