# SPDX-License-Identifier: Apache-2.0
"""A wrong launch is refused before the driver hears of it, with the kernel and the reason named."""

# Each a call on `kernel`, the exception and its full text. `x` has 3 elements, `out` has 4.
SEQUENTIAL = "tqx_sum_seq_kernel"
ARRAY = f"{SEQUENTIAL}: 'x' must be a CUDA array, with __cuda_array_interface__, not "
MALFORMED = f"{SEQUENTIAL}: 'x' has a malformed __cuda_array_interface__: "
WRONG_ARGUMENTS = [
    ("()", "TypeError", f"{SEQUENTIAL} takes 3 arguments (x, out, n), but got 0"),
    ("(x, out, 3, 3)", "TypeError", f"{SEQUENTIAL} takes 3 arguments (x, out, n), but got 4"),
    ("(x, out, 3.0)", "TypeError", f"{SEQUENTIAL}: 'n' must be of type int, not float"),
    ("(x, out, True)", "TypeError", f"{SEQUENTIAL}: 'n' must be of type int, not bool"),
    ("(x, out, None)", "TypeError", f"{SEQUENTIAL}: 'n' must be of type int, not NoneType"),
    ("(x, out, -1)", "ValueError", f"{SEQUENTIAL}: 'n' must be a size in 64 bits, not -1"),
    (
        "(x, out, 2**63)",
        "ValueError",
        f"{SEQUENTIAL}: 'n' must be a size in 64 bits, not {2**63}",
    ),
    (
        "(x, out, 4)",
        "ValueError",
        f"{SEQUENTIAL}: 'x' must have at least n = 4 elements, but has 3",
    ),
    (
        "(x, out, 2**63 - 1)",
        "ValueError",
        f"{SEQUENTIAL}: 'x' must have at least n = {2**63 - 1} elements, but has 3",
    ),
    (
        "(out, x, 3)",
        "ValueError",
        f"{SEQUENTIAL}: 'out' must have at least 4 = 4 elements, but has 3",
    ),
    ("([1.0], out, 1)", "TypeError", ARRAY + "list"),
    ("(3, out, 1)", "TypeError", ARRAY + "int"),
    ("(array(typestr='<f4'), out, 1)", "TypeError", "must hold float64 elements (<f8), not <f4"),
    ("(array(typestr='>f8'), out, 1)", "TypeError", "must hold float64 elements (<f8), not >f8"),
    ("(array(typestr='<i8'), out, 1)", "TypeError", "must hold float64 elements (<f8), not <i8"),
    ("(array(strides=(16,)), out, 1)", "ValueError", "'x' must be contiguous"),
    ("(array(strides=(-8,)), out, 1)", "ValueError", "'x' must be contiguous"),
    (
        "(array(shape=(2, 3), strides=(8, 16)), out, 1)",
        "ValueError",
        "'x' must be contiguous",
    ),
    ("(array(data=(x.address + 4, False)), out, 1)", "ValueError", "at a multiple of 8 bytes"),
    ("(array(mask=x), out, 1)", "TypeError", MALFORMED + "it has a mask"),
    ("(array(shape=3), out, 1)", "TypeError", MALFORMED + "shape is no tuple"),
    ("(array(shape=(3.0,)), out, 1)", "TypeError", MALFORMED + "shape does not hold sizes"),
    ("(array(shape=(-3,)), out, 1)", "TypeError", MALFORMED + "shape does not hold sizes"),
    ("(array(shape=(2**62, 4)), out, 1)", "TypeError", MALFORMED + "shape does not hold sizes"),
    ("(array(strides=8), out, 1)", "TypeError", MALFORMED + "strides are no tuple of int"),
    ("(array(strides=(8, 8)), out, 1)", "TypeError", MALFORMED + "strides are no tuple of int"),
    ("(array(typestr=None), out, 1)", "TypeError", MALFORMED + "typestr is no str"),
    ("(array(data=8), out, 1)", "TypeError", MALFORMED + "data is no pair of an address and"),
    ("(array(data=('8', False)), out, 1)", "TypeError", MALFORMED + "data is no pair of an addr"),
    ("(array(stream=0), out, 1)", "TypeError", MALFORMED + "stream is neither None nor a stre"),
    ("(array(stream='1'), out, 1)", "TypeError", MALFORMED + "stream is neither None nor a st"),
    ("(Fixed(None), out, 1)", "TypeError", MALFORMED + "it is no dict"),
    ("(Fixed({}), out, 1)", "TypeError", MALFORMED + "typestr is no str"),
    ("(Failing(), out, 1)", "ZeroDivisionError", "from the array"),
]

GRID = f"{SEQUENTIAL}: grid must be a tuple of three int, not "
WRONG_SHAPES = [
    ("[1, 1, 1]", "(1, 1, 1)", "TypeError", GRID + "[1, 1, 1]"),
    ("(1, 1)", "(1, 1, 1)", "TypeError", GRID + "(1, 1)"),
    ("(1, 1, 1.0)", "(1, 1, 1)", "TypeError", GRID + "(1, 1, 1.0)"),
    ("(True, 1, 1)", "(1, 1, 1)", "TypeError", GRID + "(True, 1, 1)"),
    ("(-1, 1, 1)", "(1, 1, 1)", "ValueError", "grid (-1, 1, 1) is out of range"),
    ("(2**31, 1, 1)", "(1, 1, 1)", "ValueError", f"grid ({2**31}, 1, 1) is out of range"),
    ("(2**80, 1, 1)", "(1, 1, 1)", "ValueError", f"grid ({2**80}, 1, 1) is out of range"),
    ("(1, 65536, 1)", "(1, 1, 1)", "ValueError", "grid (1, 65536, 1) is out of range"),
    ("(1, 1, 65536)", "(1, 1, 1)", "ValueError", "grid (1, 1, 65536) is out of range"),
    ("(1, 1, 1)", "(1, 1)", "TypeError", "block must be a tuple of three int, not (1, 1)"),
    ("(1, 1, 1)", "(0, 1, 1)", "ValueError", "block (0, 1, 1) is out of range"),
    ("(1, 1, 1)", "(1025, 1, 1)", "ValueError", "block (1025, 1, 1) is out of range"),
    ("(1, 1, 1)", "(1, 1, 65)", "ValueError", "block (1, 1, 65) is out of range"),
    ("(1, 1, 1)", "(32, 33, 1)", "ValueError", "block (32, 33, 1) is out of range"),
]

# Calls on a kernel of form "launch" named `kernel`, with `arguments` that fit it.
WRONG_CALLS = [
    ("kernel.launch(*arguments)", "TypeError", "launch() takes the grid as keyword argument"),
    (
        "kernel.launch(*arguments, grid=(1, 1, 1), block=(1, 1, 1))",
        "TypeError",
        "tqx_sum_kernel: launch() got an unexpected keyword argument 'block'",
    ),
    (
        "kernel.launch(*arguments, (1, 1, 1))",
        "TypeError",
        "launch() takes the grid as keyword argument 'grid'",
    ),
    ("kernel.launch(*arguments, grid=5)", "TypeError", "grid must be a tuple of three int, not 5"),
    (
        "kernel.function((1, 1, 1), (256, 1, 1))",
        "TypeError",
        "function() takes grid, block and args by position, and got 2 arguments",
    ),
    (
        "kernel.function((1, 1, 1), (256, 1, 1), list(arguments))",
        "TypeError",
        "tqx_sum_kernel: args must be a tuple, not list",
    ),
    (
        "kernel.function((1, 1, 1), (128, 1, 1), arguments)",
        "ValueError",
        "tqx_sum_kernel: block must be (256, 1, 1), not (128, 1, 1)",
    ),
    (
        "sequential.launch(x, out, 3, grid=(1, 1, 1))",
        "TypeError",
        "tqx_sum_seq_kernel has no block of its own: call function()",
    ),
    ("type(kernel)()", "TypeError", "cannot create 'korvex.cubin_loader_native.Kernel' instances"),
    ("loader.get_kernel(3)", "TypeError", "get_kernel() takes the name of a kernel as str, not i"),
    ("loader.get_kernel('tqx_sum')", "KeyError", "no kernel 'tqx_sum'; there are "),
    ("type(loader)(1)", "TypeError", "NativeCubinLoader() takes no arguments"),
    ("type(loader)(device=1)", "TypeError", "NativeCubinLoader() takes no arguments"),
]

SETUP = """
class Fixed:
    def __init__(self, interface):
        self.__cuda_array_interface__ = interface

class Failing:
    @property
    def __cuda_array_interface__(self):
        raise ZeroDivisionError("from the array")

def array(**interface):
    return DeviceArray(driver, [1.0, 2.0, 3.0], **interface)

loader = import_loader().NativeCubinLoader()
x, out, out_err = array(), DeviceArray(driver, [0.0] * 4), DeviceArray(driver, [0.0])
sequential = loader.get_kernel("tqx_sum_seq_kernel")
kernel = loader.get_kernel("tqx_sum_kernel")
arguments = (x, out, out_err, 3)
driver.take_log()

def expect(call, kind, text):
    try:
        eval(call)
    except Exception as error:
        assert type(error).__name__ == kind, (call, error)
        assert text in error.args[0], (call, error)
    else:
        raise AssertionError(call)
"""


def run_table(run, calls):
    lines = [f"expect({call!r}, {kind!r}, {text!r})" for call, kind, text in calls]
    run(SETUP + "\n".join(lines) + "\nassert driver.take_log() == []\n")


def test_wrong_arguments(run):
    run_table(
        run,
        [
            (f"sequential.function((1, 1, 1), (1, 1, 1), {arguments})", kind, text)
            for arguments, kind, text in WRONG_ARGUMENTS
        ],
    )


def test_wrong_grid_or_block(run):
    run_table(
        run,
        [
            (f"sequential.function({grid}, {block}, (x, out, 3))", kind, text)
            for grid, block, kind, text in WRONG_SHAPES
        ],
    )


def test_wrong_calls(run):
    run_table(run, WRONG_CALLS)


def test_shapes_and_strides_that_are_contiguous(run):
    run(
        SETUP
        + """
for interface in (
    {"strides": (8,)},
    {"shape": (1, 3), "strides": (999, 8)},
    {"shape": (3, 1), "strides": (8, 0)},
    {"shape": (3,)},
):
    sequential.function((1, 1, 1), (1, 1, 1), (array(**interface), out, 3))
    assert out.tolist() == [6.0, 0.0, 0.0, 0.0], interface
sequential.function((1, 1, 1), (1, 1, 1), (array(shape=(0, 3), strides=(1, 1)), out, 0))
assert out.tolist() == [0.0] * 4
"""
    )


def test_every_kernel_of_the_table_is_handed_out_and_tells_its_row(run):
    run(
        SETUP
        + """
import ctypes
host = ctypes.CDLL(str(stub_driver.host_kernels()))
for function in (host.korvex_host_kernel_name, host.korvex_host_kernel_form,
                 host.korvex_host_kernel_parameters):
    function.restype = ctypes.c_char_p
assert host.korvex_host_kernel_count() > 0
for row in range(host.korvex_host_kernel_count()):
    name = host.korvex_host_kernel_name(row).decode()
    kernel = loader.get_kernel(name)
    assert kernel is loader.get_kernel(name)
    assert kernel.name == name and name in repr(kernel)
    assert kernel.form == host.korvex_host_kernel_form(row).decode()
    assert kernel.parameters == host.korvex_host_kernel_parameters(row).decode()
    block = host.korvex_host_kernel_block(row)
    assert kernel.block == ((block, 1, 1) if kernel.form == "launch" else None)
    with pytest.raises(KeyError, match=name):
        loader.get_kernel("tqx_none_kernel")
"""
    )
