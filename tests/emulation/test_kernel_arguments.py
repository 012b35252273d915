# SPDX-License-Identifier: Apache-2.0
"""What a launch refuses: everything that would read or write outside an array."""

import re
from types import SimpleNamespace

import device
import pytest
import torch

from korvex.emulation._library import HostLibrary
from korvex.emulation._signature import Parameter, check_arguments, check_extent, check_grid, parse

pytestmark = pytest.mark.skipif(
    not device.choose().emulated, reason="kernel objects of the emulated device"
)

ONE = (1, 1, 1)


def array(count, element_type="float64", is_contiguous=True):
    return SimpleNamespace(
        element_count=count, element_type=element_type, is_contiguous=is_contiguous, pointer=0
    )


def check(text, *arguments):
    check_arguments("kernel", parse(text), arguments, SimpleNamespace)


# --- The line of the kernel table


def test_parameters_are_read_in_order():
    assert parse("a:f64[M*K] out:f64[4] eps:f64 M:i64 K:i64") == (
        Parameter("a", "array", ("M", "K")),
        Parameter("out", "array", ("4",)),
        Parameter("eps", "f64"),
        Parameter("M", "i64"),
        Parameter("K", "i64"),
    )


@pytest.mark.parametrize("text", ["x", "x:f32[n] n:i64", "x:f64[n]", "n:i64[1]", "x:f64[] n:i64"])
def test_other_lines_are_refused(text):
    with pytest.raises(ValueError):
        parse(text)


# --- Arguments


def test_arguments_that_fit_pass():
    check("a:f64[M*K] eps:f64 M:i64 K:i64", array(6), 0.5, 2, 3)
    check("x:f64[n] n:i64", array(0), 0)
    check("x:f64[n] n:i64", array(5), 4)


@pytest.mark.parametrize("count", [0, 1, 3])
def test_wrong_number_of_arguments_is_refused(count):
    text = f"kernel takes 2 arguments (x, n), but got {count}"
    with pytest.raises(TypeError, match=re.escape(text)):
        check("x:f64[n] n:i64", *[array(1)] * count)


@pytest.mark.parametrize(
    "text, argument, message",
    [
        ("n:i64", 1.0, "kernel: 'n' must be of type int, not float"),
        ("n:i64", True, "kernel: 'n' must be of type int, not bool"),
        ("n:i64", array(1), "kernel: 'n' must be of type int, not SimpleNamespace"),
        ("eps:f64", 1, "kernel: 'eps' must be of type float, not int"),
        ("out:f64[1]", 1, "kernel: 'out' must be of type SimpleNamespace, not int"),
        ("out:f64[1]", [1.0], "kernel: 'out' must be of type SimpleNamespace, not list"),
        (
            "out:f64[1]",
            array(1, "float32"),
            "kernel: 'out' must hold float64 elements, not float32",
        ),
    ],
)
def test_wrong_kind_is_refused(text, argument, message):
    with pytest.raises(TypeError, match=re.escape(message)):
        check(text, argument)


@pytest.mark.parametrize("size", [-1, 2**63, -(2**70), 2**64 + 1])
def test_size_outside_64_bits_is_refused(size):
    with pytest.raises(ValueError, match=f"'n' must be a size in 64 bits, not {size}"):
        check("x:f64[n] n:i64", array(1), size)


@pytest.mark.parametrize(
    "text, arguments, message",
    [
        ("x:f64[n] n:i64", (array(3), 4), "'x' must have at least n = 4 elements, but has 3"),
        ("out:f64[4]", (array(3),), "'out' must have at least 4 = 4 elements, but has 3"),
        (
            "a:f64[M*K] M:i64 K:i64",
            (array(5), 2, 3),
            "'a' must have at least M*K = 6 elements, but has 5",
        ),
    ],
)
def test_short_array_is_refused(text, arguments, message):
    with pytest.raises(ValueError, match=re.escape(message)):
        check(text, *arguments)


def test_product_of_sizes_does_not_wrap():
    with pytest.raises(ValueError, match=str(2**64)):
        check("a:f64[M*K] M:i64 K:i64", array(0), 2**32, 2**32)


def test_array_with_gaps_is_refused():
    with pytest.raises(ValueError, match="'out' must be contiguous"):
        check("out:f64[1]", array(1, is_contiguous=False))


# --- Grid and block


@pytest.mark.parametrize("extent", [(1, 1, 1), (0, 1, 1), (2**31 - 1, 65535, 65535)])
def test_grid_that_every_device_takes_passes(extent):
    check_extent("kernel", "grid", extent)


@pytest.mark.parametrize("extent", [(-1, 1, 1), (2**31, 1, 1), (1, 65536, 1), (1, 1, 65536)])
def test_grid_out_of_range_is_refused(extent):
    with pytest.raises(ValueError, match="out of range"):
        check_extent("kernel", "grid", extent)


def test_grid_of_a_kernel_that_strides_along_y_is_cut_to_what_a_device_takes():
    for y, launched in ((0, 0), (65535, 65535), (65536, 65535), (2**31 - 1, 65535)):
        assert check_grid("kernel", (3, y, 2), strides_along_y=True) == (3, launched, 2)
    assert check_grid("kernel", (3, 65535, 2), strides_along_y=False) == (3, 65535, 2)
    with pytest.raises(ValueError, match=r"^kernel: grid \(1, 65536, 1\) is out of range$"):
        check_grid("kernel", (1, 65536, 1), strides_along_y=False)
    for grid in ((2**31, 1, 1), (1, 2**31, 1), (1, -1, 1), (1, 1, 65536)):
        with pytest.raises(ValueError, match="out of range"):
            check_grid("kernel", grid, strides_along_y=True)


@pytest.mark.parametrize("extent", [(0, 1, 1), (1025, 1, 1), (1, 1, 65), (32, 33, 1)])
def test_block_out_of_range_is_refused(extent):
    with pytest.raises(ValueError, match="out of range"):
        check_extent("kernel", "block", extent)


@pytest.mark.parametrize("extent", [1, (1, 1), [1, 1, 1], (1, 1, 1.0), (True, 1, 1), None])
def test_extent_of_another_form_is_refused(extent):
    with pytest.raises(TypeError, match="must be a tuple of three int"):
        check_extent("kernel", "grid", extent)


# --- Kernel objects


def arrays(module, *tensors):
    return [module.cp.from_dlpack(tensor) for tensor in tensors]


def zeros(count):
    return torch.zeros(count, dtype=torch.float64, device="cuda")


def test_unknown_kernel_is_a_key_error_that_lists_the_known_ones(module):
    with pytest.raises(KeyError, match="'tqx_nothing_kernel'.*tqx_sum_kernel, tqx_sum_seq_kernel"):
        module._NATIVE_LOADER.get_kernel("tqx_nothing_kernel")


def test_kernel_writes_through_the_array_into_the_tensor(module):
    x, out = torch.arange(4.0, dtype=torch.float64, device="cuda"), zeros(4)
    module._NATIVE_LOADER.get_kernel("tqx_sum_seq_kernel").function(
        ONE, ONE, (*arrays(module, x, out), 4)
    )
    assert out.tolist() == [6.0, 0.0, 0.0, 0.0]


def test_launch_checks_its_arguments(module):
    kernel = module._NATIVE_LOADER.get_kernel("tqx_sum_kernel")
    x, out, out_err = arrays(module, zeros(3), zeros(1), zeros(1))
    with pytest.raises(ValueError, match="'x' must have at least n = 4 elements, but has 3"):
        kernel.launch(x, out, out_err, 4, grid=ONE)
    with pytest.raises(TypeError, match=r"takes 4 arguments \(x, out, out_err, n\), but got 3"):
        kernel.launch(x, out, out_err, grid=ONE)
    with pytest.raises(TypeError):
        kernel.launch(x, out, out_err, 3)


def test_grid_without_extent_launches_nothing_and_is_checked(module):
    kernel = module._NATIVE_LOADER.get_kernel("tqx_sum_kernel")
    x, out, out_err = torch.ones_like(zeros(3)), zeros(1).fill_(7.0), zeros(1)
    kernel.launch(*arrays(module, x, out, out_err), 3, grid=(0, 1, 1))
    assert out.item() == 7.0
    with pytest.raises(ValueError):
        kernel.launch(*arrays(module, x, out, out_err), 4, grid=(0, 1, 1))


def test_launch_needs_a_kernel_with_a_block_of_its_own(module):
    kernel = module._NATIVE_LOADER.get_kernel("tqx_sum_seq_kernel")
    with pytest.raises(TypeError, match="tqx_sum_seq_kernel has no block of its own"):
        kernel.launch(*arrays(module, zeros(1), zeros(4)), 1, grid=ONE)


def test_kernel_with_a_block_of_its_own_takes_no_other(module):
    """Every such kernel, before it looks at its arguments; so does the loader of a real device."""
    loader = module._NATIVE_LOADER
    rows = HostLibrary("base", threads=1).kernels.values()
    own = [row for row in rows if row.form == "launch"]
    assert 0 < len(own) < len(rows)
    for row in own:
        kernel = loader.get_kernel(row.name)
        for block in [(row.block - 1, 1, 1), (row.block // 2, 2, 1), (32, 1, 1)]:
            text = f"{row.name}: block must be ({row.block}, 1, 1), not {block}"
            with pytest.raises(ValueError, match=f"^{re.escape(text)}$"):
                kernel.function(ONE, block, ())
        with pytest.raises(TypeError, match=f"^{row.name} takes .* but got 0$"):
            kernel.function(ONE, (row.block, 1, 1), ())


def test_function_and_launch_of_such_a_kernel_leave_the_same(module):
    kernel = module._NATIVE_LOADER.get_kernel("tqx_sum_kernel")
    x = torch.arange(1000.0, dtype=torch.float64, device="cuda") / 3
    outputs = [(zeros(1), zeros(1)) for _ in range(2)]
    kernel.launch(*arrays(module, x, *outputs[0]), 1000, grid=(4, 1, 1))
    kernel.function((4, 1, 1), (256, 1, 1), (*arrays(module, x, *outputs[1]), 1000))
    assert [v.item() for v in outputs[0]] == [v.item() for v in outputs[1]]


def test_function_takes_its_arguments_as_a_tuple(module):
    kernel = module._NATIVE_LOADER.get_kernel("tqx_sum_kernel")
    with pytest.raises(TypeError, match="^tqx_sum_kernel: args must be a tuple, not list$"):
        kernel.function(ONE, (256, 1, 1), [*arrays(module, zeros(1), zeros(1), zeros(1)), 1])


def test_array_keeps_the_memory_of_its_tensor_alive(module):
    tensor = zeros(1000).fill_(3.0)
    array = module.cp.from_dlpack(tensor)
    del tensor
    zeros(1000).fill_(5.0)  # would take the memory if it were free
    out = zeros(4)
    module._NATIVE_LOADER.get_kernel("tqx_sum_seq_kernel").function(
        ONE, ONE, (array, module.cp.from_dlpack(out), 1000)
    )
    assert out.tolist() == [3000.0, 0.0, 0.0, 0.0]


def test_array_keeps_the_memory_though_its_tensor_gets_another(module):
    tensor = zeros(1000).fill_(3.0)
    array = module.cp.from_dlpack(tensor)
    tensor.data = zeros(1000).fill_(5.0)
    zeros(1000).fill_(7.0)
    out = zeros(4)
    module._NATIVE_LOADER.get_kernel("tqx_sum_seq_kernel").function(
        ONE, ONE, (array, module.cp.from_dlpack(out), 1000)
    )
    assert out.tolist() == [3000.0, 0.0, 0.0, 0.0]


def test_extents_that_equal_checked_ones_are_checked_by_their_types(module):
    x, out = tensors_of(module, 8, 4)
    kernel = module._NATIVE_LOADER.get_kernel("tqx_sum_seq_kernel")
    kernel.function(ONE, ONE, (x, out, 8))
    for grid, block in [((True, 1, 1), ONE), (ONE, (1, True, 1)), ((1.0, 1, 1), ONE)]:
        with pytest.raises(TypeError, match="must be a tuple of three int"):
            kernel.function(grid, block, (x, out, 8))


def test_arguments_that_equal_checked_ones_are_checked_by_their_types(module):
    x, out = tensors_of(module, 1, 4)
    kernel = module._NATIVE_LOADER.get_kernel("tqx_sum_seq_kernel")
    kernel.function(ONE, ONE, (x, out, 1))
    for n in (True, 1.0):
        with pytest.raises(TypeError, match="'n' must be of type int"):
            kernel.function(ONE, ONE, (x, out, n))
    with pytest.raises(TypeError, match="'x' must be of type DeviceArray"):
        kernel.function(ONE, ONE, (1, out, 1))
    with pytest.raises(TypeError, match="args must be a tuple"):
        kernel.function(ONE, ONE, [x, out, 1])


def test_arrays_as_long_as_checked_ones_are_checked(module):
    x, out = tensors_of(module, 8, 4)
    kernel = module._NATIVE_LOADER.get_kernel("tqx_sum_seq_kernel")
    for _ in range(2):
        kernel.function(ONE, ONE, (x, out, 8))
        narrow, gaps = arrays(module, zeros(8).float(), zeros(16)[::2])
        with pytest.raises(TypeError, match="'x' must hold float64 elements, not float32"):
            kernel.function(ONE, ONE, (narrow, out, 8))
        with pytest.raises(ValueError, match="'x' must be contiguous"):
            kernel.function(ONE, ONE, (gaps, out, 8))
        with pytest.raises(ValueError, match="'x' must have at least n = 9 elements, but has 8"):
            kernel.function(ONE, ONE, (x, out, 9))


def test_each_launch_reads_its_own_arguments(module):
    kernel = module._NATIVE_LOADER.get_kernel("tqx_leaky_relu_kernel")
    outs = [zeros(3) for _ in range(400)]
    for place, out in enumerate(outs):
        x = torch.full((3,), -float(place), dtype=torch.float64, device="cuda")
        slope = place / 4
        kernel.launch(*arrays(module, x), slope, *arrays(module, out), 3 - place % 2, grid=ONE)
    for place, out in enumerate(outs):
        value = -place * (place / 4)
        assert out.tolist() == [value, value, 0.0 if place % 2 else value]


def tensors_of(module, *counts):
    made = (torch.ones(count, dtype=torch.float64, device="cuda") for count in counts)
    return [module.cp.from_dlpack(each) for each in made]


# --- from_dlpack


def test_cpu_tensor_is_refused(module):
    with pytest.raises(TypeError, match="Tensor on cpu: move it with .cuda()"):
        module.cp.from_dlpack(torch.ones(1))


def test_other_objects_are_refused(module):
    with pytest.raises(TypeError, match="no list"):
        module.cp.from_dlpack([1.0])


def test_tensor_that_requires_grad_is_refused(module):
    with pytest.raises(BufferError, match="require gradient"):
        module.cp.from_dlpack(zeros(1).requires_grad_())


def test_conjugated_tensor_is_refused(module):
    with pytest.raises(BufferError, match="conjugate"):
        module.cp.from_dlpack(torch.complex(zeros(1), zeros(1)).conj())


def test_tensor_with_gaps_and_other_types_are_refused_by_the_kernel(module):
    kernel = module._NATIVE_LOADER.get_kernel("tqx_sum_seq_kernel")
    with pytest.raises(ValueError, match="'x' must be contiguous"):
        kernel.function(ONE, ONE, (*arrays(module, zeros(8)[::2], zeros(4)), 4))
    with pytest.raises(TypeError, match="'x' must hold float64 elements, not float32"):
        kernel.function(ONE, ONE, (*arrays(module, zeros(4).float(), zeros(4)), 4))
