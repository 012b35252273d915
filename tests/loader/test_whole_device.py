# SPDX-License-Identifier: Apache-2.0
"""KORVEX_LAUNCH: which launches are made for the kernels of one thread or one block."""

import os
from pathlib import Path

import pytest
import subprocess_run

SOURCE_TREE = Path(__file__).resolve().parents[2]

CALLS = """
KERNELS = {
    "tqx_sum_seq_kernel": (1, [4], ()),
    "tqx_dot_seq_kernel": (2, [4], ()),
    "tqx_var_kernel": (1, [1, 1], ()),
    "tqx_norm_kernel": (1, [1], ()),
    "tqx_prod_kernel": (1, [1, 1], ()),
    "tqx_cumsum_kernel": (1, [None, None], ()),
    "tqx_logsumexp_kernel": (1, [1], ()),
    "tqx_rms_norm_kernel": (1, [None], (0.5,)),
    "tqx_sum_kernel": (1, [1, 1], ()),
    "tqx_neg_kernel": (1, [None], ()),
}

kept = []  # arrays that a launch may still use

def call(loader, name, values, device=0, wait=True):
    operand_count, results, scalars = KERNELS[name]
    n = len(values)
    operands = [DeviceArray(driver, values, device) for _ in range(operand_count)]
    outs = [DeviceArray(driver, [7.0] * (n if size is None else size), device) for size in results]
    kernel = loader.get_kernel(name)
    arguments = (*operands, *outs, n, *scalars)
    kept.append(arguments)
    if kernel.form == "function":
        kernel.function((1, 1, 1), (1, 1, 1), arguments)
    else:
        kernel.launch(*arguments, grid=(1, 1, 1))
    if wait:
        driver.synchronize()
    return [out.tolist() for out in outs]

# What a log queued: ("clear", variable), or (kernel, blocks, threads) on the null stream.
def steps(log):
    made = iter(launches(log))
    found = []
    for what in queued(log):
        if what[0] == "clear":
            found.append(what)
        else:
            kernel, grid, block, stream = next(made)
            assert grid[1:] == block[1:] == (1, 1) and stream == stub_driver.LEGACY_STREAM
            found.append((kernel, grid[0], block[0]))
    return found
"""

SUM = [("clear", "sum_grid_memory"), ("tqx_sum_device_kernel", "S", 256)]
DOT = [("clear", "dot_grid_memory"), ("tqx_dot_device_kernel", "D", 256)]
NORM = [("clear", "dot_grid_memory"), ("tqx_norm_device_kernel", "D", 256)]
PROD = [("clear", "prod_grid_memory"), ("tqx_prod_device_kernel", "P", 256)]
VAR = [
    ("clear", "sum_grid_memory"),
    ("tqx_var_device_sum_kernel", "S", 256),
    ("clear", "dot_grid_memory"),
    ("tqx_var_device_kernel", "D", 256),
]
CUMSUM = [("tqx_cumsum_device_sum_kernel", "S", 256), ("tqx_cumsum_device_kernel", "S", 256)]
LOGSUMEXP = [
    ("clear", "logsumexp_grid_memory"),
    ("tqx_logsumexp_device_largest_kernel", "P", 256),
    ("clear", "logsumexp_grid_memory"),
    ("tqx_logsumexp_device_sum_kernel", "P", 256),
    ("clear", "logsumexp_grid_memory"),
    ("tqx_logsumexp_device_kernel", "P", 256),
]
RMS_NORM = [
    ("clear", "dot_grid_memory"),
    ("tqx_rms_norm_device_root_kernel", "D", 256),
    ("tqx_rms_norm_device_kernel", "E", 256),
]
# Blocks by the number of elements, on 4 multiprocessors: a block of a sum takes 4096 elements and 4
# fill a multiprocessor; of the dot product 2048 and 3; of the product and of a sum of exponentials
# 1024 and 4; of the elements of an RMS norm 1024 and 8.
BLOCKS = {
    0: {"S": 1, "D": 1, "P": 1, "E": 1},
    1: {"S": 1, "D": 1, "P": 1, "E": 1},
    1024: {"S": 1, "D": 1, "P": 1, "E": 1},
    5000: {"S": 2, "D": 3, "P": 5, "E": 5},
    70_000: {"S": 16, "D": 12, "P": 16, "E": 32},
}


def run_calls(run, script, **environment):
    run(CALLS + script, **environment)


WHOLE_DEVICE = {
    "tqx_sum_seq_kernel": SUM,
    "tqx_dot_seq_kernel": DOT,
    "tqx_var_kernel": VAR,
    "tqx_norm_kernel": NORM,
    "tqx_prod_kernel": PROD,
    "tqx_cumsum_kernel": CUMSUM,
    "tqx_logsumexp_kernel": LOGSUMEXP,
    "tqx_rms_norm_kernel": RMS_NORM,
}


def steps_for(name, blocks):
    return [
        (step[0], *(blocks.get(word, word) for word in step[1:])) for step in WHOLE_DEVICE[name]
    ]


@pytest.mark.parametrize("name", WHOLE_DEVICE)
def test_launches_on_the_whole_device(run, name):
    expected = {n: steps_for(name, blocks) for n, blocks in BLOCKS.items()}
    run_calls(
        run,
        f"""
import os
driver.set_device(0)
module = import_loader()
whole = module.NativeCubinLoader()
os.environ["KORVEX_LAUNCH"] = "as-asked"
asked = module.NativeCubinLoader()
for n, expected in {expected}.items():
    values = [1.0 + 2.0**-20 * (i % 7) for i in range(n)]
    driver.take_log()
    results = repr(call(whole, {name!r}, values))
    assert steps(driver.take_log()) == expected, n
    assert repr(call(asked, {name!r}, values)) == results
""",
        KORVEX_LAUNCH="device",
    )


AS_ASKED = [
    ("tqx_sum_seq_kernel", [("tqx_sum_seq_kernel", 1, 1)]),
    ("tqx_dot_seq_kernel", [("tqx_dot_seq_kernel", 1, 1)]),
    ("tqx_var_kernel", [("tqx_var_kernel", 1, 1024)]),
    ("tqx_norm_kernel", [("tqx_norm_kernel", 1, 1024)]),
    ("tqx_prod_kernel", [("tqx_prod_kernel", 1, 1024)]),
    ("tqx_cumsum_kernel", [("tqx_cumsum_kernel", 1, 1024)]),
    ("tqx_logsumexp_kernel", [("tqx_logsumexp_kernel", 1, 1024)]),
    ("tqx_rms_norm_kernel", [("tqx_rms_norm_kernel", 1, 1024)]),
]
# The ones that the choice does not concern.
ALWAYS_AS_ASKED = [
    ("tqx_sum_kernel", [("clear", "sum_grid_memory"), ("tqx_sum_kernel", 1, 256)]),
    ("tqx_neg_kernel", [("tqx_neg_kernel", 1, 256)]),
]


@pytest.mark.parametrize(
    ("environment", "expected"),
    [
        ({}, AS_ASKED + ALWAYS_AS_ASKED),
        ({"KORVEX_LAUNCH": "as-asked"}, AS_ASKED + ALWAYS_AS_ASKED),
        ({"KORVEX_LAUNCH": "device"}, ALWAYS_AS_ASKED),
    ],
)
def test_launches_as_asked(run, environment, expected):
    run_calls(
        run,
        f"""
driver.set_device(0)
loader = import_loader().NativeCubinLoader()
for name, expected in {expected}:
    driver.take_log()
    call(loader, name, [0.5] * 5000)
    assert steps(driver.take_log()) == expected, name
""",
        **environment,
    )


def test_grid_and_block_that_were_asked_for_do_not_count_on_the_whole_device(run):
    run_calls(
        run,
        """
driver.set_device(0)
loader = import_loader().NativeCubinLoader()
x, out = DeviceArray(driver, [0.5] * 5000), DeviceArray(driver, [0.0] * 4)
kernel = loader.get_kernel("tqx_sum_seq_kernel")
for grid, block in (((1, 1, 1), (1, 1, 1)), ((3, 2, 1), (4, 5, 6))):
    driver.take_log()
    kernel.function(grid, block, (x, out, 5000))
    assert steps(driver.take_log())[1:] == [("tqx_sum_device_kernel", 2, 256)]
kernel.function((0, 1, 1), (1, 1, 1), (x, out, 5000))
assert driver.take_log() == []
""",
        KORVEX_LAUNCH="device",
    )


def test_checks_on_a_gpu_launch_by_the_loader(run):
    """`make gpu` has addresses, of which the loader wants arrays."""
    folders = [SOURCE_TREE / "tools", SOURCE_TREE / "tests" / "support"]
    places = [*map(str, folders), os.environ.get("PYTHONPATH")]
    run_calls(
        run,
        """
import os
from korvex_tools.gpu.package_loaders import LaunchesOnWholeDevice
import_loader()
driver.set_device(0)
device = LaunchesOnWholeDevice()
assert os.environ["KORVEX_LAUNCH"] == "as-asked"
x, y = (DeviceArray(driver, [1.0, 2.0**-60, 3.0]) for _ in range(2))
outs = [DeviceArray(driver, [7.0] * 4) for _ in range(2)]
driver.take_log()
device.launch("tqx_cumsum_kernel", (1, 1, 1), (1024, 1, 1), x.address,
              *(out.address for out in outs), 3)
device.launch("tqx_rms_norm_kernel", (1, 1, 1), (1024, 1, 1), x.address, y.address, 3, 0.25)
driver.synchronize()
assert outs[0].tolist() == [1.0, 1.0, 4.0, 7.0]
assert outs[1].tolist() == [0.0, 2.0**-60, 2.0**-60, 7.0]
device.launch("tqx_dot_seq_kernel", (1, 1, 1), (1, 1, 1), x.address, x.address,
              outs[0].address, 3)
driver.synchronize()
assert outs[0].tolist() == [10.0, 2.0**-120, 0.0, 0.0]
assert [step[0] for step in steps(driver.take_log()) if step[0] != "clear"] == [
    "tqx_cumsum_device_sum_kernel", "tqx_cumsum_device_kernel",
    "tqx_rms_norm_device_root_kernel", "tqx_rms_norm_device_kernel", "tqx_dot_device_kernel"]
""",
        KORVEX_LAUNCH="as-asked",
        PYTHONPATH=os.pathsep.join(filter(None, places)),
    )


def test_launches_of_two_threads_do_not_mix(run):
    """The second launch of a variance takes what the first has left."""
    run_calls(
        run,
        """
import threading
loader = import_loader().NativeCubinLoader()
def work(number):
    for turn in range(20):
        assert call(loader, "tqx_var_kernel", [1.0, number, turn], 1, wait=False)
threads = [threading.Thread(target=work, args=(number,)) for number in range(4)]
for thread in threads:
    thread.start()
for thread in threads:
    thread.join()
one = [("clear", "sum_grid_memory"), ("tqx_var_device_sum_kernel", 1, 256),
       ("clear", "dot_grid_memory"), ("tqx_var_device_kernel", 1, 256)]
assert steps(driver.take_log()) == one * 80
""",
        KORVEX_LAUNCH="device",
    )


def test_launches_on_the_current_device_are_left_to_the_caller_to_wait_for(run):
    run_calls(
        run,
        """
loader = import_loader().NativeCubinLoader()
driver.set_device(1)
mean, variance = call(loader, "tqx_var_kernel", [1.0, 2.0, 3.0], 1, wait=False)
assert (mean, variance) == ([7.0], [7.0]) and driver.state()["pending"] == [0, 4]
assert call(loader, "tqx_var_kernel", [1.0, 2.0, 3.0], 1) == [[2.0], [1.0]]
driver.set_device(0)
assert call(loader, "tqx_var_kernel", [1.0, 2.0, 3.0], 1, wait=False) == [[2.0], [1.0]]
""",
        KORVEX_LAUNCH="device",
    )


def test_a_failure_between_two_launches_waits_for_the_first(run):
    """It reads the arrays, which the caller lets go after the exception."""
    run_calls(
        run,
        """
loader = import_loader().NativeCubinLoader()
driver.set_device(0)
call(loader, "tqx_var_kernel", [1.0, 2.0])
driver.take_log()
driver.fail("cuLaunchKernel", calls_before=1)
with pytest.raises(RuntimeError, match="^tqx_var_kernel: cuLaunchKernel failed: CUDA_ERROR_OUT_OF"):
    call(loader, "tqx_var_kernel", [1.0, 2.0])
assert driver.take_calls()[-1] == "cuStreamSynchronize"
assert driver.state()["pending"] == [0, 0]
assert call(loader, "tqx_var_kernel", [1.0, 2.0]) == [[1.5], [0.5]]
""",
        KORVEX_LAUNCH="device",
    )


@pytest.mark.parametrize("word", ["", "Device", "device ", "whole", "1"])
def test_another_word_is_refused_before_the_driver_is_used(run, word):
    run_calls(
        run,
        f"""
module = import_loader()
driver.take_log()
with pytest.raises(ValueError) as caught:
    module.NativeCubinLoader()
assert str(caught.value) == "KORVEX_LAUNCH must be 'as-asked' or 'device', not {word!r}"
assert driver.take_log() == []
""",
        KORVEX_LAUNCH=word,
    )


def test_variable_is_read_when_a_loader_is_made(run):
    """Not at import, and not at a launch."""
    run_calls(
        run,
        """
import os
driver.set_device(0)
module = import_loader()
os.environ["KORVEX_LAUNCH"] = "device"
whole = module.NativeCubinLoader()
os.environ["KORVEX_LAUNCH"] = "nonsense"
call(whole, "tqx_norm_kernel", [3.0, 4.0])
del os.environ["KORVEX_LAUNCH"]
asked = module.NativeCubinLoader()
call(asked, "tqx_norm_kernel", [3.0, 4.0])
call(whole, "tqx_norm_kernel", [3.0, 4.0])
kernels = [entry[1] for entry in queued(driver.take_log()) if entry[0] == "launch"]
assert kernels == ["tqx_norm_device_kernel", "tqx_norm_kernel", "tqx_norm_device_kernel"]
""",
        KORVEX_LAUNCH="nonsense",
    )


def test_emulated_device_does_not_read_the_variable():
    subprocess_run.run_python(
        """
import korvex.emulation
korvex.emulation.activate()
import korvex.tqx_runtime as runtime
import torch
x = torch.tensor([1e100, 1.0, -1e100], dtype=torch.float64, device="cuda")
assert runtime.tqx_sum(x).item() == 1.0
""",
        KORVEX_LAUNCH="nonsense",
    )
