# SPDX-License-Identifier: Apache-2.0
"""`korvex.exact` on GPUs, over a stub of the driver that runs the code of the device.

Values and states against those of the same arrays in host memory, bit for bit; and what reaches the
driver: kernels, devices, streams, their order. No GPU takes part.
"""

import re
from pathlib import Path

import subprocess_run
from stub_gpu import CUPY, TORCH

from korvex.exact import (
    _device_products,
    _device_running,
    _device_segments,
    _devices,
    _native,
)

# --- Values


def test_functions_give_the_bits_of_the_host_on_the_device(run):
    run(
        CUPY,
        """
        gx, gy = on(x), on(y)
        for form in ("float64", "float32", "float16"):
            total = exact.sum(gx, dtype=form)
            assert type(total) is cupy.ndarray and total.shape == () and total.dtype == form
            assert bits(value(total)) == bits(exact.sum(x, dtype=form))
            dot = exact.vecdot(gx, gy, dtype=form)
            assert bits(value(dot)) == bits(exact.vecdot(x, y, dtype=form))
        for function in (exact.mean, exact.var, exact.std, exact.vector_norm):
            found = function(gx)
            assert type(found) is cupy.ndarray and bits(value(found)) == bits(function(x))
        assert exact.sum(gx, keepdims=True).shape == (1,)
        assert driver.context_depth() == 0
        """,
    )


def test_every_dtype_alone_and_with_every_other(run):
    run(
        CUPY,
        """
        names = "bool int8 int16 int32 int64 uint8 uint16 uint32 uint64 float16 float32 float64"
        arrays = []
        for name in names.split():
            raw = rng.integers(0, 256, 300 * np.dtype(name).itemsize, dtype=np.uint8)
            arrays.append((raw.view(name) if name != "bool" else raw > 100)[:300])
        for a in arrays:
            assert bits(value(exact.sum(on(a)))) == bits(exact.sum(a)), a.dtype
            for kind in (exact.Sum, exact.Moments):
                gpu, host = kind(), kind()
                gpu.add(on(a)); gpu.subtract(on(a[:100])); host.add(a); host.subtract(a[:100])
                assert gpu == host and gpu.checksum() == host.checksum(), a.dtype
            for b in arrays:
                gpu, host = exact.Dot(), exact.Dot()
                gpu.add(on(a), on(b)); host.add(a, b)
                assert gpu == host, (a.dtype, b.dtype)
        """,
    )


def test_complex_halves_are_summed_apart(run):
    run(
        CUPY,
        """
        z, w = x[:50] + 1j * y[:50], y[:50] - 1j * x[:50]
        for dtype in ("complex128", "complex64"):
            assert bits(value(exact.sum(on(z), dtype=dtype))) == bits(exact.sum(z, dtype=dtype))
        assert bits(value(exact.mean(on(z)))) == bits(exact.mean(z))
        for a, b in ((z, w), (z, y[:50]), (y[:50], z)):
            assert bits(value(exact.vecdot(on(a), on(b)))) == bits(exact.vecdot(a, b))
        """,
    )


def test_layouts(run):
    """Arrays at equal distances are read where they are, others are copied by their library."""
    run(
        CUPY,
        """
        copies = []
        contiguous = cupy.ascontiguousarray
        cupy.ascontiguousarray = lambda a: (copies.append(a), contiguous(a))[1]
        m = x.reshape(50, 60)
        for a, copied in ((x[::2], 0), (x[::-3], 0), (m, 0), (m.T, 0), (m[::-1], 0), (m[:, :1], 0),
                          (x[:0], 0), (m[:, :7], 1), (np.broadcast_to(x[:1], (9,)), 0),
                          (np.float64(2.5)[...], 0)):
            copies.clear()
            assert bits(value(exact.sum(on(a)))) == bits(exact.sum(a))
            assert len(copies) == copied, a.strides
        for a, b, copied in ((x[::2], y[:1500], 0), (x[::-1], y, 0), (m, y.reshape(50, 60), 0),
                             (m, y.reshape(60, 50).T, 1), (m[::-1], m, 1)):
            copies.clear()
            gpu, host = exact.Dot(), exact.Dot()
            gpu.add(on(a), on(b)); host.add(a, b)
            assert gpu == host and len(copies) == copied
        """,
    )


def test_special_values(run):
    run(
        CUPY,
        """
        inf, nan = np.inf, np.nan
        for a in ([inf, 1.0], [-inf], [inf, -inf], [nan, inf], [-0.0], [1e308, 1e308, -1e308]):
            a = np.array(a)
            for function in (exact.sum, exact.mean, exact.var, exact.vector_norm):
                assert bits(value(function(on(a)))) == bits(function(a)), (function, a)
        big = np.array([2**63 - 1, -2**63, 3, 2**62])
        for f in (np.array([inf, 0.5, 1.0, 2.0]), np.array([nan, -inf, 1.0, 0.0])):
            for a, b in ((big, f), (f, big)):
                assert bits(value(exact.vecdot(on(a), on(b)))) == bits(exact.vecdot(a, b))
        gpu = exact.Sum()
        gpu.add(on(np.array([inf, 1.0]))); gpu.subtract(on(np.array([inf])))
        assert (float(gpu), gpu.count) == (1.0, 1)
        gpu.subtract(on(np.array([2.0, 3.0])))
        with pytest.raises(ValueError, match="count of elements is -1"):
            float(gpu)
        """,
    )


# --- Matrix products and running sums


MATRICES = (
    CUPY
    + """
def same(found, expected):
    assert type(found) is cupy.ndarray and found.shape == expected.shape
    assert found.dtype == expected.dtype and bits(value(found)) == bits(expected)

def check(a, b, **keywords):
    same(exact.matmul(on(a), on(b), **keywords), np.asarray(exact.matmul(a, b, **keywords)))
"""
)


def test_matrix_products_of_every_two_dtypes(run):
    run(
        MATRICES,
        """
        names = "bool int8 int16 int32 int64 uint8 uint16 uint32 uint64 float16 float32 float64"
        left, right = [], []
        for name in names.split():
            for made, count in ((left, 21), (right, 28)):
                raw = rng.integers(0, 256, count * np.dtype(name).itemsize, dtype=np.uint8)
                array = (raw.view(name) if name != "bool" else raw > 100)[:count]
                made.append(array.reshape(3, 7) if made is left else array.reshape(7, 4))
        for a in left:
            for b in right:
                for form in ("float64", "float16"):
                    check(a, b, dtype=form)
        """,
    )


def test_shapes_and_layouts_of_matrix_products(run):
    run(
        MATRICES,
        """
        m = x.reshape(50, 60)
        for a, b in ((m, m.T), (m.T, m), (m[:, ::2], m[::-1, :30].T), (m[:5], m[:40].T),
                     (m[0], m[0]), (m[0], m[:, :60].T), (m, m[1]), (m[:1], m[:1].T),
                     (m[:, :1], m[:1]), (m[:0], m.T), (m[:, :0], m[:0]), (m, m.T[:, :0]),
                     (m[0, :0], m[0, :0]),
                     (np.broadcast_to(x[:1], (3, 4)), np.broadcast_to(y[:1], (4, 2))),
                     (m.astype(np.float32)[::2], m.T), (np.arange(12).reshape(3, 4).T, m[:3])):
            check(a, b)
        with pytest.raises(ValueError, match="a has rows of 60 elements, and b has columns of 50"):
            exact.matmul(on(m), on(m))
        """,
    )


def test_halves_of_complex_matrices(run):
    run(
        MATRICES,
        """
        z = (x[:56] + 1j * y[:56]).reshape(7, 8)
        w = (y[:40] - 1j * x[:40]).reshape(8, 5)
        r, i = x[:40].reshape(8, 5), rng.integers(-(2**63), 2**63 - 1, (8, 5))
        for form in ("complex128", "complex64"):
            for a, b in ((z, w), (z, r), (r.T, z.T), (z.astype(np.complex64), w), (z, i),
                         (i.T, z.T), (z[0], w[:, 0]), (z, w[:, 0])):
                check(a, b, dtype=form)
        """,
    )


def test_special_values_of_matrix_products(run):
    """An infinity meets the whole of an integer; what no format holds is rounded from the exact."""
    run(
        MATRICES,
        """
        inf, nan, most = np.inf, np.nan, np.finfo(float).max
        wide = np.array([[2**63 - 1, -2**63, -1, 0], [2**32, -2**32, 1, 2**53 + 1]])
        for column in ([inf, 0.5, 1.0, 2.0], [0.5, -inf, 1.0, inf], [1.0, 1.0, inf, 1.0],
                       [1.0, 1.0, 1.0, inf], [nan, 1.0, 1.0, 1.0], [-inf, inf, 0.0, 1.0]):
            f = np.array([column, column[::-1]])
            for form in ("float64", "float32"):
                check(wide, f.T, dtype=form)
                check(f, wide.T, dtype=form)
                check(wide.astype(np.uint64), f.T, dtype=form)
        tiny = 2.0**-1000
        for a, b in (([[most, most]], [[1.0, 2.0], [0.5, -1.0]]),
                     ([[most, 1.0]], [[1.0, -1.0], [tiny, 1]]),
                     ([[2049.0, tiny], [2051.0, -tiny]], [[1.0, -1.0], [tiny, tiny]]),
                     ([[-0.0, 0.0]], [[1.0, 5.0], [-1.0, -0.0]])):
            for form in ("float64", "float32", "float16"):
                check(np.array(a), np.array(b), dtype=form)
        """,
    )


def test_deep_products_are_dot_products_of_their_own(run):
    run(
        MATRICES,
        """
        from korvex.exact import _device_products
        a, b = x[:120].reshape(6, 20), rng.integers(-(2**63), 2**63 - 1, (20, 3))
        z = (x[:60] + 1j * y[:60]).reshape(20, 3)
        _device_products.MOST_DEPTH = 39  # of the integers, each of which is two doubles
        driver.take_log()
        check(a, b)
        kernels = {k for k, *_ in driver.take_launches()}
        assert kernels == {"korvex_add_products", "korvex_round_state"}
        check(z.T, z)
        assert "korvex_multiply" not in {k for k, *_ in driver.take_launches()}
        check(a, z[:, :2].real)
        assert "korvex_multiply" in {k for k, *_ in driver.take_launches()}
        """,
    )


def test_launches_of_a_matrix_product(run):
    """Contiguous float64 is read where it is; tiles are 16 x 16, or high or wide."""
    run(
        MATRICES,
        """
        cupy.streams[0] = stub_gpu.CupyStream(driver, 77)
        a, b = rng.standard_normal((40, 20)), rng.standard_normal((20, 33))
        result = exact.matmul(on(a), on(b))
        assert driver.take_launches() == [("korvex_multiply", 0, 77, 6)]  # 9 tiles, room for 6
        assert bits(value(result)) == bits(exact.matmul(a, b))
        driver.take_log()
        exact.matmul(on(a.astype(np.float32)), on(b.astype(np.int64)))
        log = driver.take_log()
        assert not [line for line in log if line.startswith("wait")]
        kernels = [line.split()[1] for line in log if line.startswith("cuLaunchKernel")]
        assert kernels == ["korvex_widen"] * 4 + ["korvex_multiply"]
        exact.matmul(on(a), on(b[0, :20]))
        assert driver.take_launches() == [("korvex_multiply", 0, 77, 1)]
        exact.matmul(on(a[:0]), on(b))
        assert driver.take_launches() == []
        """,
    )


def test_running_sums(run):
    run(
        MATRICES,
        """
        from korvex.exact import _device_running
        inf, most = np.inf, np.finfo(float).max
        cases = [x, x[::-3], y[:33], x[:1], x[:0], rng.integers(-(2**63), 2**63 - 1, 500),
                 rng.integers(0, 2**64 - 1, 500, dtype=np.uint64), x[:100] > 0,
                 y[:300].astype(np.float16), np.repeat([most, -most, 1.0], 40),
                 np.where(np.arange(200) == 150, inf, 1.0),
                 np.where(np.arange(90) == 5, np.nan, 1.0)]
        for segments in (8192, 7):
            _device_running.MOST_SEGMENTS = segments
            for array in cases:
                for form in ("float64", "float32", "float16"):
                    for initial in (False, True):
                        keywords = {"dtype": form, "include_initial": initial}
                        same(exact.cumulative_sum(on(array), **keywords),
                             exact.cumulative_sum(array, **keywords))
        cupy.streams[0] = stub_gpu.CupyStream(driver, 5)
        driver.take_log()
        exact.cumulative_sum(on(np.ones(3333)))
        assert driver.take_launches() == [
            ("korvex_sum_segments", 0, 5, 1), ("korvex_join_segments", 0, 5, 1),
            ("korvex_running_sums", 0, 5, 1)]
        _device_running.MOST_SEGMENTS = 8192
        exact.cumulative_sum(on(np.ones(3333)))  # 105 segments
        assert [blocks for *_, blocks in driver.take_launches()] == [4, 1, 4]
        for wrong, text in ((x.reshape(2, -1), "x has 2 axes"),):
            with pytest.raises(ValueError, match=text):
                exact.cumulative_sum(on(wrong))
        with pytest.raises(TypeError, match="x is complex"):
            exact.cumulative_sum(on(x + 1j))
        """,
    )


# --- Accumulators


def test_accumulators_on_a_device(run):
    run(
        CUPY,
        """
        gpu, host = exact.Sum.from_chunks(on(c) for c in np.split(x, 5)), exact.Sum.from_chunks([x])
        assert gpu == host and host == gpu and bytes(gpu) == bytes(host)
        assert (float(gpu), gpu.limbs(3), gpu.count) == (float(host), host.limbs(3), host.count)
        assert gpu.to_decimal(30) == host.to_decimal(30) and repr(gpu) == repr(host)
        assert exact.loads(bytes(gpu)) == host
        copy = gpu.copy()
        copy.add(on(y))
        assert gpu == host and (copy + gpu) == exact.Sum.from_chunks([x, x, y])
        words = gpu.state
        assert type(words) is cupy.ndarray and words.dtype == np.int64 and words.shape == (72,)
        words += copy.state
        assert gpu == exact.Sum.from_chunks([x, x, y])
        gpu.add(on(y))
        assert gpu == exact.Sum.from_chunks([x, x, y, y])
        moments = exact.Moments(device=cupy.cuda.Device(0))
        moments.add(on(x))
        expected = exact.Moments.from_chunks([x])
        assert moments.std(correction=1) == expected.std(correction=1)
        assert (moments.mean(), moments.norm()) == (expected.mean(), expected.norm())
        assert moments.sum() == expected.sum()
        assert moments.sum_of_squares() == expected.sum_of_squares()
        """,
    )


def test_digits_are_settled_before_they_are_full(run):
    run(
        CUPY,
        """
        from korvex.exact import _device_state
        _device_state.MOST_LAUNCHES = 3
        gpu = exact.Sum()
        for part in np.split(x, 10):
            gpu.add(on(part))
        assert [k for k, *_ in driver.take_launches()].count("korvex_settle_state") == 3
        gpu.state
        driver.take_log()
        gpu.add(on(y))  # whatever has been added to the words in between leaves no room
        assert [k for k, *_ in driver.take_launches()] == [
            "korvex_settle_state", "korvex_add_elements"]
        assert gpu == exact.Sum.from_chunks([x, y])
        """,
    )


def test_one_place_for_all_that_is_added(run):
    run(
        CUPY,
        """
        gpu, host = exact.Sum(), exact.Sum()
        gpu.add(on(x)); host.add(x)
        before = bytes(gpu)
        for call, text in (
            (lambda: gpu.add(x),
             "x is on the host, and the state of this Sum on cuda:0 by CuPy"),
            (lambda: gpu.add(on(x, 1)),
             "x is on cuda:1 by CuPy, and the state of this Sum on cuda:0 by CuPy"),
            (lambda: host.add(on(x)),
             "x is on cuda:0 by CuPy, and the state of this Sum on the host"),
            (lambda: gpu.merge(host),
             "other is on the host, and the state of this Sum on cuda:0 by CuPy"),
            (lambda: exact.Sum(device="cpu").add(on(x)),
             "x is on cuda:0 by CuPy, and the state of this Sum on the host"),
            (lambda: exact.Dot().add(on(x), x),
             "x is on cuda:0 by CuPy and y is on the host: both must be in one place"),
            (lambda: exact.vecdot(on(x), x),
             "x is a CuPy array on cuda:0 and y is a NumPy array: both must be of one kind"),
            (lambda: exact.vecdot(on(x), on(x, 1)), "x is a CuPy array on cuda:0 and y is a CuPy "
             "array on cuda:1: both must be of one kind"),
        ):
            with pytest.raises(TypeError) as error:
                call()
            assert str(error.value).startswith(text), str(error.value)
        assert bytes(gpu) == before
        fresh = exact.Sum()
        fresh.merge(exact.Sum())
        fresh.merge(gpu)  # takes its place
        assert fresh == gpu and type(fresh.state) is cupy.ndarray
        gpu.merge(exact.Sum())
        assert fresh == gpu
        with pytest.raises(ValueError, match="x and y must have one shape"):
            exact.Dot().add(on(x), on(y[:5]))
        """,
    )


# --- What reaches the driver


def test_launches_go_to_the_current_stream_and_nothing_waits(run):
    run(
        CUPY,
        """
        cupy.streams[0] = stub_gpu.CupyStream(driver, 77)
        result = exact.sum(on(x))
        log = driver.take_log()
        assert not [line for line in log if line.startswith("wait")]
        launches = [line for line in log if line.startswith("cuLaunchKernel")]
        assert launches == [
            "cuLaunchKernel korvex_add_elements device 0 stream 77 blocks 1",
            "cuLaunchKernel korvex_round_state device 0 stream 77 blocks 1"]
        assert result.values == 7.0  # not yet
        assert bits(value(result)) == bits(exact.sum(x))
        """,
    )


def test_grids_have_room_and_elements_for_their_blocks(run):
    """Device 0 has 3 multiprocessors with room for 3 blocks each, device 1 has 2."""
    run(
        CUPY,
        """
        for n, device, expected in ((0, 0, 1), (1, 0, 1), (4096, 0, 1), (4097, 0, 2), (99999, 0, 9),
                                    (99999, 1, 6)):
            exact.sum(on(np.ones(n), device))
            assert driver.take_launches()[0] == ("korvex_add_elements", device, 0, expected)
        exact.vecdot(on(np.ones(2049)), on(np.ones(2049)))
        assert driver.take_launches()[0] == ("korvex_add_products", 0, 0, 2)
        """,
    )


def test_a_change_of_streams_is_ordered(run):
    run(
        CUPY,
        """
        gpu = exact.Sum()
        gpu.add(on(x))
        cupy.streams[0] = stub_gpu.CupyStream(driver, 5)
        driver.take_log()
        gpu.add(on(y))
        log = [line for line in driver.take_log() if line.split()[0] in ("wait", "cuLaunchKernel")]
        assert log == ["wait device 0 stream 0",
                       "cuLaunchKernel korvex_add_elements device 0 stream 5 blocks 1"]
        assert gpu == exact.Sum.from_chunks([x, y])
        """,
    )


def test_states_on_a_device_are_added_up_over_processes(run):
    """A group of one: what is sent comes back, by way of the host."""
    run(
        CUPY,
        """
        import torch.distributed as dist

        dist.init_process_group("gloo", store=dist.HashStore(), rank=0, world_size=1)
        world = dist.group.WORLD
        gpu = exact.Moments()
        gpu.add(on(x))
        assert gpu.all_reduce() is None and gpu == exact.Moments.from_chunks([x])
        work = gpu.all_reduce(async_op=True)
        assert isinstance(work, dist.Work) and work.wait() and work.is_completed()
        gpu.reduce(0)
        gpu.add(on(y))
        assert gpu == exact.Moments.from_chunks([x, y]) and gpu.count == 6000
        for total, expected in ((exact.sum(on(x), group=world), exact.sum(x)),
                                (exact.vecdot(on(x), on(y), group=world), exact.vecdot(x, y)),
                                (exact.std(on(x), group=world), exact.std(x))):
            assert type(total) is cupy.ndarray and bits(value(total)) == bits(expected)
        dist.destroy_process_group()
        """,
    )


def test_kernels_are_loaded_once_a_device_by_the_first_launch(run):
    run(
        CUPY,
        """
        for device in (0, 1, 0, 1):
            exact.sum(on(x, device))
        loads = [line for line in driver.take_log() if line.startswith("cuModuleLoadDataEx")]
        assert loads == ["cuModuleLoadDataEx sm_90", "cuModuleLoadDataEx sm_80"]
        """,
    )


def test_moments_that_are_added_in_part_are_taken_away(run):
    run(
        CUPY,
        """
        from korvex.exact import _cuda
        gpu = exact.Moments.from_chunks([on(x)])
        before = bytes(gpu)
        launch = _cuda.launch
        def failing(kernel, *arguments):
            if kernel == "korvex_add_products":
                raise RuntimeError("refused")
            launch(kernel, *arguments)
        _cuda.launch = failing
        with pytest.raises(RuntimeError):
            gpu.add(on(y))
        assert bytes(gpu) == before
        """,
    )


# --- Errors


def test_errors_of_the_driver_say_what_failed(run):
    run(
        CUPY,
        """
        for result, kind, name in ((2, MemoryError, "CUDA_ERROR_OUT_OF_MEMORY"),
                                   (719, RuntimeError, "CUDA_ERROR_STUB")):
            for call in ("cuModuleLoadDataEx", "cuLaunchKernel"):
                driver.fail(call, result)
                with pytest.raises(kind) as error:
                    exact.sum(on(x, int(result == 719)))
                assert type(error.value) is kind
                assert str(error.value).startswith("korvex.exact cannot use the GPU: ")
                assert str(error.value).endswith(f"{call} failed: {name}")
                assert driver.context_depth() == 0
                driver.fail(call, 0)
        assert bits(value(exact.sum(on(x)))) == bits(exact.sum(x))
        """,
    )


def test_without_kernels_for_the_device(run):
    run(
        CUPY,
        """
        with pytest.raises(RuntimeError) as error:
            exact.sum(on(x))
        text = str(error.value)
        assert text.startswith("korvex.exact cannot use the GPU: no compiled kernels for device 0, "
                               "Stub device 0, which is sm_90: ")
        assert text.endswith("/cubins holds sm_80; build korvex where a compiler for device code "
                             "is installed")
        """,
        files=("sm_80",),
    )


def test_without_a_driver(tmp_path):
    """The machine may have one, so its place is taken by a file that is none."""
    (tmp_path / "libcuda.so.1").write_text("no library")
    subprocess_run.run_python(
        """
        import numpy as np
        import pytest
        import stub_gpu
        stub_gpu.cupy_module(None)
        from korvex import exact
        with pytest.raises(RuntimeError, match="korvex.exact cannot use the GPU: no NVIDIA driver"):
            exact.sum(stub_gpu.CupyArray(np.ones(3)))
        """,
        LD_LIBRARY_PATH=str(tmp_path),
    )


def test_what_has_no_kernels_is_refused_by_name(run):
    run(
        CUPY,
        """
        import torch.distributed as dist
        for call, text in (
            (lambda: exact.matmul(on(np.ones((2, 3))), on(np.ones(3)), group=object()),
             "a is in the memory of a GPU, and korvex.exact.matmul with a group has no kernels for "
             "GPUs yet: copy it to the host, a.cpu() in torch and a.get() in CuPy"),
        ):
            with pytest.raises(TypeError) as error:
                call()
            assert str(error.value) == text
        for call in (lambda: exact.sum(on(x), dtype="bfloat16"),
                     lambda: exact.sum(on(x.reshape(50, 60)), axis=0, dtype="bfloat16"),
                     lambda: exact.segment_sum(on(x), on(np.arange(3000)), 3000, dtype="bfloat16"),
                     lambda: exact.matmul(on(x), on(x), dtype="bfloat16"),
                     lambda: exact.cumulative_sum(on(x), dtype="bfloat16"),
                     lambda: exact.cumulative_sum(on(x), dtype="bfloat16", include_initial=True)):
            with pytest.raises(ValueError, match="dtype bfloat16 does not exist in CuPy"):
                call()
        assert driver.take_log() == []
        """,
    )


# --- torch


def test_torch_tensors(run):
    run(
        TORCH,
        """
        torch.manual_seed(3)
        x, y = torch.randn(2000, dtype=torch.float64), torch.randn(2000, dtype=torch.float32)
        gx, gy = x.as_subclass(CudaTensor), y.as_subclass(CudaTensor)
        half = y.to(torch.bfloat16)
        for form in ("float64", "float32", "float16", "bfloat16"):
            found = exact.sum(gx, dtype=form)
            assert type(found) is CudaTensor and found.dtype == getattr(torch, form)
            assert found.cpu() == exact.sum(x, dtype=form)
        found = exact.vecdot(gx, gy)
        assert found.shape == () and found.cpu() == exact.vecdot(x, y)
        assert exact.sum(half.as_subclass(CudaTensor)).cpu() == exact.sum(half)
        assert type(exact.var(gy)) is CudaTensor and exact.var(gy).cpu() == exact.var(y)
        m, n = x[:600].reshape(20, 30), y[:600].reshape(30, 20)
        z = torch.complex(m, n.T.double())
        for form in ("float64", "float32", "float16", "bfloat16"):
            for a, b in ((m, n), (m.T.bfloat16(), (1e6 * m).to(torch.int64)), (m[0], n)):
                ga, gb = a.as_subclass(CudaTensor), b.as_subclass(CudaTensor)
                found = exact.matmul(ga, gb, dtype=form)
                assert type(found) is CudaTensor and found.dtype == getattr(torch, form)
                assert torch.equal(found.cpu(), exact.matmul(a, b, dtype=form))
            for initial in (False, True):
                found = exact.cumulative_sum(gy, dtype=form, include_initial=initial)
                expected = exact.cumulative_sum(y, dtype=form, include_initial=initial)
                assert type(found) is CudaTensor and torch.equal(found.cpu(), expected)
        for a, b in ((z, z.T), (z.conj(), n.double()), (m, z.mH), (z[:0], z.T)):
            found = exact.matmul(a.as_subclass(CudaTensor), b.as_subclass(CudaTensor))
            assert torch.equal(found.cpu(), exact.matmul(a, b))
        total = exact.Sum(device="cuda")
        total.add(gx)
        torch.streams.append(torch.Stream(9))
        total.add(gy)
        assert torch.streams[-1].recorded == 1
        assert total == exact.Sum.from_chunks([x, y])
        assert type(total.state) is CudaTensor
        assert {stream for _, _, stream, _ in driver.take_launches()} == {0, 9}
        """,
    )


# --- Devices


def test_numbers_of_formats_are_those_of_the_kernels():
    tree = Path(__file__).resolve().parents[2]
    text = (tree / "korvex" / "kernels" / "states.h").read_text()
    enumerators = re.search(r"enum ElementFormat : int \{(.*?)\};", text, re.DOTALL).group(1)
    names = [name.lower() for name in re.findall(r"k(\w+)Format", enumerators)]
    assert names == list(_devices.FORMAT_NUMBERS)
    assert list(_devices.FORMAT_NUMBERS.values()) == list(range(len(names)))


def test_sizes_of_memory_and_parts_are_those_of_the_kernels():
    tree = Path(__file__).resolve().parents[2]
    text = (tree / "korvex" / "kernels" / "states.h").read_text()
    parts = re.search(r"enum ElementPart : int \{(.*?)\};", text, re.DOTALL).group(1)
    names = re.findall(r"k(\w+)Part", parts)
    assert [getattr(_device_products, name.upper()) for name in names] == [0, 1, 2]
    assert f"kSegmentWords = {_device_running.SEGMENT_WORDS};" in text
    table = (tree / "korvex" / "kernels" / "table.h").read_text()
    assert f"kGridBlock = {_device_products.BLOCK};" in table
    element = (tree / "korvex" / "arithmetic" / "exact" / "matrix_product.h").read_text()
    assert "kLongestElement = std::int64_t{1} << 17;" in element
    assert _device_products.MOST_DEPTH == 1 << 17
    functions = re.search(r"enum StateFunctionNumber : int \{(.*?)\};", text, re.DOTALL).group(1)
    names = re.findall(r"k(\w+)Function", functions)
    numbers = ["TOTAL", "MEAN", "VARIANCE", "DEVIATION", "DOT_PRODUCT", "NORM"]
    assert [name.lower() for name in names] == [
        *(number.lower().replace("_", "") for number in numbers),
        "settle",
    ]
    assert [getattr(_native, number) for number in numbers] == list(range(6))
    assert _device_segments.SETTLE == 6


def test_device_names(run):
    run(
        CUPY,
        """
        from korvex.exact._devices import CupyDevice, device_of
        assert device_of(None) is None and device_of("cpu") is None
        assert device_of("cuda") == device_of("cuda:0") == CupyDevice(0) != device_of("cuda:1")
        with cupy.cuda.Device(1):
            assert device_of("cuda") == CupyDevice(1)
        for wrong in ("gpu", "cuda:", "cuda:x", 0, "mps"):
            with pytest.raises(ValueError, match="device must be None, 'cpu', 'cuda', 'cuda:0'"):
                exact.Sum(device=wrong)
        del sys.modules["cupy"]
        with pytest.raises(ValueError, match="device 'cuda:0' needs torch or CuPy"):
            exact.Sum(device="cuda:0")
        """,
    )
