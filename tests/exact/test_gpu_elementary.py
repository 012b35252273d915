# SPDX-License-Identifier: Apache-2.0
"""Functions of an element of arrays on GPUs, over a stub of the driver.

Results against those of the same arrays in host memory, bit for bit; the host's are tested against
MPFR elsewhere. No GPU takes part.
"""

import numpy as np
from stub_gpu import CUPY, TORCH

from korvex.exact._device_elementary import memory_order

COMMON = """
from korvex.exact import _device_elementary, _elementary

NAMES = ("exp", "log", "sqrt", "sigmoid", "tanh")
inf, nan, most = np.inf, np.nan, np.finfo(float).max
SPECIALS = np.array([0.0, -0.0, inf, -inf, nan, -nan, 1.0, -1.0, most, -most, 2.0**-1074,
                     -(2.0**-1074), 2.0**-1022, 709.8, -746.0, 88.8, -104.0, 11.1, -17.4, 38.0])
PRECISIONS = {"float32": 24, "float16": 11, "bfloat16": 8}

# How many elements the host finds the results of, by the calls that come from a device.
settled = []
on_host = _elementary._on_host
def counted(function, form, x):
    settled.append(x.values.size)
    return on_host(function, form, x)

class counting:
    def __enter__(self):
        settled.clear()
        _elementary._on_host = counted
    def __exit__(self, *_):
        _elementary._on_host = on_host

def on_midpoints(name, form, count=300):
    # Arguments of which doubles near the function's value are midpoints of the format.
    precision = PRECISIONS[form]
    odd = 2.0 * rng.integers(2 ** (precision - 1), 2**precision, count) + 1
    y = np.ldexp(odd, rng.integers(-10, 8, count) - precision)
    if name == "sigmoid":
        y = y[y < 1]
        z = np.log(y / (1 - y))
    elif name == "tanh":
        y = np.ldexp(odd, rng.integers(-40, 0, count) - precision - 1)
        z = np.arctanh(y)
    else:
        z = {"exp": np.log, "log": np.exp, "sqrt": np.square}[name](y)
    z = np.concatenate([z, np.nextafter(z, inf), np.nextafter(z, -inf)])
    return z[np.isfinite(z)]
"""

ARRAYS = (
    CUPY
    + COMMON
    + """
FORMS = ("float64", "float32", "float16")

def same(found, expected, what=None):
    expected = np.asarray(expected)
    assert type(found) is cupy.ndarray, what
    assert found.shape == expected.shape and found.dtype == expected.dtype, what
    assert bits(value(found)) == bits(expected), what

def check(name, array, form="float64"):
    function = getattr(exact, name)
    with counting():
        found = function(on(array), dtype=form)
    same(found, function(array, dtype=form), (name, array.dtype, form))
    return sum(settled)
"""
)


# --- Values


def test_every_dtype_to_every_dtype(run):
    run(
        ARRAYS,
        """
        names = "bool int8 int16 int32 int64 uint8 uint16 uint32 uint64 float16 float32 float64"
        for dtype in names.split():
            raw = rng.integers(0, 256, 300 * np.dtype(dtype).itemsize, dtype=np.uint8)
            array = (raw.view(dtype) if dtype != "bool" else raw > 100)[:300]
            for name in NAMES:
                for form in FORMS:
                    check(name, array, form)
        assert driver.context_depth() == 0
        """,
    )


def test_special_values(run):
    run(
        ARRAYS,
        """
        for dtype in ("float64", "float32", "float16"):
            with np.errstate(over="ignore"):
                array = SPECIALS.astype(dtype)
            for name in NAMES:
                for form in FORMS:
                    check(name, array, form)
        ends = np.array([2.0**e for e in range(-1074, 1024)])
        for name in NAMES:
            for form in FORMS:
                check(name, np.concatenate([ends, -ends]), form)
        """,
    )


def test_all_halves(run):
    run(
        ARRAYS,
        """
        halves = np.arange(2**16, dtype=np.uint16).view(np.float16)
        for name in NAMES:
            for form in FORMS:
                check(name, halves, form)
        """,
    )


def test_midpoints_of_narrow_formats_are_settled_by_the_host(run):
    run(
        ARRAYS,
        """
        for name in NAMES:
            for form in FORMS[1:]:
                array = on_midpoints(name, form)
                count = check(name, array, form)
                assert 90 < count < len(array), (name, form)
                assert check(name, array) == 0
        # The largest numbers and the least of a format.
        for form, end, least in (("float32", 128, -149), ("float16", 16, -24)):
            border = 2.0**end - 2.0 ** (end - PRECISIONS[form] - 1)
            z = np.log(np.array([border, 2.0 ** (least - 1)]))
            for _ in range(5):
                z = np.concatenate([z, np.nextafter(z, inf), np.nextafter(z, -inf)])
            check("exp", z, form)
            tiny = np.array([2.0 ** (least - 1), 3 * 2.0 ** (least - 1), 2.0**least])
            count = check("tanh", np.concatenate([tiny, -tiny, np.nextafter(tiny, 1)]), form)
            assert count == (4 if form == "float32" else 0)  # tanh(2^-25) is another double
        """,
    )


def test_integers_that_are_no_doubles_are_settled_by_the_host(run):
    run(
        ARRAYS,
        """
        near = [2**62 + 2**31 * k + d for k in (0, 1, 5, 2**20) for d in (-1, 0, 1)]
        squares = [(2**31 + k) ** 2 + d for k in (-5, -3, -1) for d in (-1, 0, 1)]
        drawn = rng.integers(2**53, 2**63, 200).tolist()
        signed = np.array(near + squares + drawn + [2**53 + 1, 2**63 - 1, -(2**63) + 1, 5, 0])
        large = np.array([2**64 - 1, 2**64 - 1024, 2**64 - 1025, 2**63 + 1025, 3], np.uint64)
        for array in (signed, large, signed.astype(np.uint64)):
            inexact = sum(int(float(int(v))) != v for v in array.tolist())
            assert 0 < inexact < len(array)
            for name in NAMES:
                count = check(name, array)
                assert count == (inexact if name in ("log", "sqrt") else 0), name
                for form in FORMS[1:]:
                    assert check(name, array, form) >= count
        assert check("log", np.arange(2**53 - 100, 2**53)) == 0
        """,
    )


def test_doubles_are_narrowed_by_their_bits(run):
    """Against exact arithmetic: what is rounded to, and which doubles are midpoints."""
    run(
        ARRAYS,
        """
        from fractions import Fraction
        import exact_oracle, ml_dtypes
        from korvex.exact._devices import CupyDevice

        for form, (precision, least, end) in exact_oracle.FORMATS.items():
            if form == "float64":
                continue
            dtype = np.dtype(ml_dtypes.bfloat16 if form == "bfloat16" else form)
            exponents = rng.integers(least - 6, end + 3, 600)
            y = np.ldexp(rng.integers(1, 2 ** (precision + 2), 600).astype(float),
                         exponents - precision)
            largest = 2.0**end - 2.0 ** (end - precision)
            border = 2.0**end - 2.0 ** (end - precision - 1)
            odd = np.arange(1.0, 2.0 ** (min(precision, 8) + 1), 2) * 2.0 ** (least - 1)
            y = np.concatenate([y, odd, [largest, border, 2.0**end, 2.0 ** (least - 1), most, 0.0]])
            with np.errstate(all="ignore"):
                y = np.concatenate([y, np.nextafter(y, inf), np.nextafter(y, -inf)])
                y = np.concatenate([y, -y, SPECIALS])
                found, is_midpoint = _device_elementary.narrowed(CupyDevice(0), on(y), form)
            found, marks = found.values.view(dtype), is_midpoint.values
            for each, double, mark in zip(found, y, marks, strict=True):
                if not np.isfinite(double):
                    expected = abs(double) if double != double else double
                    assert not mark
                else:
                    ratio = abs(Fraction(double))
                    expected = np.copysign(exact_oracle.rounded(ratio, form), double)
                    unit = Fraction(2) ** max(int(np.frexp(double)[1]) - precision, least)
                    is_within = ratio < 2**end
                    assert mark == ((ratio / unit) % 1 == Fraction(1, 2) and is_within), double
                assert each.tobytes() == np.array(expected, dtype).tobytes(), (form, double)
        """,
    )


# --- Arrays


def test_layouts_change_nothing_but_the_layout(run):
    """Float64 that is contiguous in some order of axes is read in place."""
    run(
        ARRAYS,
        """
        copies = []
        contiguous = cupy.ascontiguousarray
        cupy.ascontiguousarray = lambda a: (copies.append(a), contiguous(a))[1]
        for dtype in ("float64", "float32", "int64"):
            cube = (100 * y[:840]).astype(dtype).reshape(5, 12, 14)
            for view, copied in (
                (cube, 0), (cube.T, 0), (cube.transpose(1, 2, 0), 0), (cube[0, 0, ::3], 0),
                (cube[0, 0, ::-1], 0), (cube[:, 1:, ::2], 1), (cube[::-1], 1), (cube[2:3], 0),
                (np.broadcast_to(cube[:, :1], cube.shape), 1), (cube[:, :0], 0),
                (cube[0, 0, 0, None], 0), (cube[0, 0, 0], 0), (cube[::2, 3:4, 1:2], 0),
            ):
                for name in NAMES:
                    for form in ("float64", "float16"):
                        copies.clear()
                        check(name, np.asarray(view), form)
                        assert len(copies) == copied, view.strides
                        expected = getattr(exact, name)(np.asarray(view), dtype=form)
                        found = getattr(exact, name)(on(np.asarray(view)), dtype=form)
                        strides = np.asarray(expected).strides
                        assert found.strides == strides or 1 in view.shape or not view.size
        """,
    )


def test_axes_lie_as_numpy_lays_those_of_a_copy():
    draw = np.random.default_rng(8)
    for _ in range(500):
        rank = int(draw.integers(0, 5))
        x = np.zeros(draw.integers(0, 4, rank) * 2 if draw.integers(5) else [2] * rank)
        x = x.transpose(draw.permutation(rank))
        x = x[tuple(slice(None, None, int(draw.choice([1, 1, -1, 2]))) for _ in range(rank))]
        if rank and draw.integers(3) == 0:
            x = np.broadcast_to(x[:1], x.shape) if x.shape[0] else x
        copy = np.empty_like(x)
        order = memory_order(x.shape, x.strides, x.itemsize)
        assert sorted(order) == list(range(rank))
        assert copy.transpose(order).flags.c_contiguous, (x.shape, x.strides)
        if x.size and 1 not in x.shape:
            assert [copy.strides[n] for n in order] == sorted(copy.strides, reverse=True)


def test_empty_arrays_launch_nothing(run):
    run(
        ARRAYS,
        """
        for name in NAMES:
            for form in FORMS:
                for shape in ((0,), (3, 0), (0, 2, 5)):
                    check(name, np.empty(shape), form)
                    check(name, np.empty(shape, np.int64), form)
        log = driver.take_log()
        assert log and not [line for line in log if not line.startswith("wait")]
        """,
    )


def test_long_arrays_are_mapped_in_parts(run):
    run(
        ARRAYS,
        """
        _device_elementary.MOST_AT_A_TIME = 1000
        drawn = rng.integers(2**52, 2**63, 2500)
        drawn[::2] >>= 20
        for array in (y, y[::-1], y.astype(np.float32), drawn):
            for name in NAMES:
                for form in FORMS:
                    check(name, array, form)
        for name in NAMES:
            array = np.concatenate([0.5 + np.arange(1500) % 7, on_midpoints(name, "float16")])
            assert check(name, array, "float16") > 50
        driver.take_log()
        exact.exp(on(y))
        assert driver.take_launches() == [("tqx_exp_kernel", 0, 0, 12)]  # no memory but the result
        exact.exp(on(y), dtype="float32")
        assert [blocks for *_, blocks in driver.take_launches()] == [4, 4, 4]
        """,
    )


# --- What reaches the driver


def test_launches_go_to_the_current_stream_and_float64_waits_for_nothing(run):
    run(
        ARRAYS,
        """
        cupy.streams[1] = stub_gpu.CupyStream(driver, 77, 1)
        for name in NAMES:
            driver.take_log()
            result = getattr(exact, name)(on(abs(y), 1))
            log = driver.take_log()
            assert not [line for line in log if line.startswith("wait")]
            launches = [line for line in log if line.startswith("cuLaunchKernel")]
            assert launches == [f"cuLaunchKernel tqx_{name}_kernel device 1 stream 77 blocks 12"]
            assert (result.values == 7.0).all()  # not yet
            assert bits(value(result)) == bits(getattr(exact, name)(abs(y)))
            assert result.device.id == 1
            for array, kernels in (
                (y.astype(np.float32), ["korvex_widen", f"tqx_{name}_kernel"]),
                (np.arange(9), ["korvex_widen", f"tqx_{name}_kernel"]
                 + ["korvex_widen"] * (name in ("log", "sqrt"))),
            ):
                driver.take_log()
                result = getattr(exact, name)(on(array, 1))
                launches = driver.take_launches()
                assert [kernel for kernel, *_ in launches] == kernels
                assert {launch[1:3] for launch in launches} == {(1, 77)}
        """,
    )


def test_files_of_kernels_are_loaded_when_one_of_theirs_is_launched(run):
    run(
        ARRAYS,
        """
        def loads():
            lines = driver.take_log()
            return [line for line in lines if line.startswith("cuModuleLoadDataEx")]

        exact.exp(on(y))
        exact.tanh(on(y))
        assert loads() == ["cuModuleLoadDataEx table sm_90"]
        exact.exp(on(y.astype(np.float32)))
        assert loads() == ["cuModuleLoadDataEx sm_90"]
        exact.log(on(y.astype(np.float32), 1))
        assert loads() == ["cuModuleLoadDataEx sm_80", "cuModuleLoadDataEx table sm_80"]
        exact.log(on(y, 1))
        assert loads() == []
        """,
    )


def test_launches_of_the_table_take_its_arguments(run):
    run(
        ARRAYS,
        """
        from korvex.exact import _cuda
        for call, kind, text in (
            (lambda: _cuda.launch("tqx_exp_kernel", 0, 0, 1, 2), TypeError,
             "tqx_exp_kernel takes 3 arguments (x:f64[n] out:f64[n] n:i64), but got 2"),
            (lambda: _cuda.launch("tqx_sum_kernel", 0, 0), ValueError,
             "there is no kernel 'tqx_sum_kernel'"),
        ):
            with pytest.raises(kind) as error:
                call()
            assert str(error.value) == text
        """,
    )


# --- Errors


def test_errors_say_what_failed(run):
    run(
        ARRAYS,
        """
        for form in FORMS:
            for result, kind in ((2, MemoryError), (719, RuntimeError)):
                driver.fail("cuLaunchKernel", result)
                with pytest.raises(kind, match="^korvex.exact cannot use the GPU: cuLaunchKernel"):
                    exact.exp(on(y), dtype=form)
                driver.fail("cuLaunchKernel", 0)
            check("exp", y, form)
        """,
    )


def test_without_kernels_for_the_device(run):
    run(
        ARRAYS,
        """
        with pytest.raises(RuntimeError) as error:
            exact.log(on(y))
        text = str(error.value)
        assert text.startswith("korvex.exact cannot use the GPU: no compiled kernels for device 0, "
                               "Stub device 0, which is sm_90: ")
        assert text.endswith("/installation/cubins holds sm_80; build korvex where a compiler for "
                             "device code is installed")
        check("log", y[:0])
        """,
        files=("sm_80",),
    )


def test_what_is_refused_launches_nothing(run):
    run(
        ARRAYS,
        """
        for name in NAMES:
            function = getattr(exact, name)
            for call, kind, text in (
                (lambda: function(on(x + 1j)), TypeError,
                 f"x is complex, and {name} takes real arrays only"),
                (lambda: function(on(x), dtype="bfloat16"), ValueError,
                 "dtype bfloat16 does not exist in CuPy"),
                (lambda: function(on(x[:0]), dtype="bfloat16"), ValueError,
                 "dtype bfloat16 does not exist in CuPy"),
                (lambda: function(on(x), dtype="int64"), ValueError,
                 "dtype must be float64, float32, float16 or bfloat16, not 'int64'"),
            ):
                with pytest.raises(kind) as error:
                    call()
                assert str(error.value) == text
        assert driver.take_log() == []
        """,
    )


# --- torch


TENSORS = (
    TORCH
    + COMMON
    + """
rng = np.random.default_rng(6)

def check(name, tensor, form="float64"):
    function = getattr(exact, name)
    expected = function(tensor, dtype=form)
    with counting():
        found = function(tensor.as_subclass(CudaTensor), dtype=form)
    assert type(found) is CudaTensor and found.dtype == getattr(torch, form)
    assert found.shape == expected.shape
    assert found.stride() == expected.stride() or not found.numel()
    size = {8: torch.int64, 4: torch.int32, 2: torch.int16}[expected.itemsize]
    assert torch.equal(found.cpu().view(size), expected.view(size)), (name, tensor.dtype, form)
    return sum(settled)
"""
)


def test_torch_tensors_of_every_dtype(run):
    run(
        TENSORS,
        """
        names = "bool int8 int16 int32 int64 uint8 uint16 uint32 uint64"
        tensors = [torch.from_numpy(np.array([0, 1, 1, 0], bool))]
        for dtype in names.split()[1:]:
            raw = rng.integers(0, 256, 120 * np.dtype(dtype).itemsize, dtype=np.uint8)
            tensors.append(torch.from_numpy(raw.view(dtype)))
        for dtype in (torch.float64, torch.float32, torch.float16, torch.bfloat16):
            drawn = torch.from_numpy(np.concatenate([rng.standard_normal(150) * 20, SPECIALS]))
            tensors.append(drawn.to(dtype))
        for tensor in tensors:
            for name in NAMES:
                for form in ("float64", *PRECISIONS):
                    check(name, tensor, form)
        """,
    )


def test_torch_tensors_of_every_layout_and_stream(run):
    run(
        TENSORS,
        """
        cube = torch.from_numpy(rng.standard_normal(360)).reshape(4, 9, 10)
        torch.streams.append(torch.Stream(9))
        driver.take_log()
        for dtype in (torch.float64, torch.bfloat16):
            own = cube.to(dtype)
            for view in (own, own.permute(2, 0, 1), own[:, ::2, 1:], own[:1].expand(3, 9, 10),
                         own[:0], own[0, 0, 0], own.mT):
                for form in ("float64", "bfloat16"):
                    for name in NAMES:
                        check(name, view, form)
        assert {stream for _, _, stream, _ in driver.take_launches()} == {9}
        for name in NAMES:
            for form in PRECISIONS:
                assert check(name, torch.from_numpy(on_midpoints(name, form)), form) > 50
        bits = torch.arange(-(2**15), 2**15, 5).to(torch.int16)
        for name in NAMES:
            for form in PRECISIONS:
                check(name, bits.view(torch.bfloat16), form)
        wide = torch.from_numpy(rng.integers(0, 2**64 - 1, 50, dtype=np.uint64))
        assert check("log", wide, "bfloat16") > 40
        with pytest.raises(TypeError, match="x requires grad, and no gradient is computed here"):
            exact.exp(torch.ones(2, requires_grad=True).as_subclass(CudaTensor))
        """,
    )
