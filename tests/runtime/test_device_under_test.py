# SPDX-License-Identifier: Apache-2.0
"""The tests run on the device that the header of the run announces, and on no other."""

import sys

import device
import pytest
import torch
from subprocess_run import run_python


def test_announced_device_is_the_active_one(module):
    chosen = device.choose()
    arch = module.get_backend_info()["native_arch"]
    name = torch.cuda.get_device_name(0)
    assert chosen.runtime is module is sys.modules["korvex.tqx_runtime"]
    assert arch.startswith("emulated-") == chosen.emulated
    assert ("emulated" in name) == chosen.emulated
    assert name in chosen.description() and arch in chosen.description()


def test_tensors_of_the_tests_lie_on_that_device():
    x = device.tensor([1.0])
    assert x.is_cuda and str(x.device) == "cuda:0"
    assert torch.cuda.is_available()


def test_device_can_be_forced_to_be_emulated():
    run_python(
        """
        import device
        assert device.choose().emulated
        assert device.choose().runtime.tqx_sum(device.tensor([1.0, 2.0])).item() == 3.0
        """,
        KORVEX_TEST_DEVICE="emulated",
    )


@pytest.mark.parametrize("wanted, expected", [("gpu", "no GPU is available"), ("tpu", "not 'tpu'")])
def test_device_that_cannot_be_had_ends_the_run(wanted, expected):
    script = "import fake_siblings; fake_siblings.add_torch(); import device; device.choose()"
    with pytest.raises(AssertionError, match=expected):
        run_python(script, KORVEX_TEST_DEVICE=wanted)


def test_header_of_the_run_names_the_device(request):
    config = request.config
    lines = config.hook.pytest_report_header(config=config, start_path=config.rootpath)
    assert f"korvex device: {device.choose().description()}" in lines
