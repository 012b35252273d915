# SPDX-License-Identifier: Apache-2.0
"""Axes, segments, batches and running sums of arrays on GPUs, over a stub of the driver.

Results against those of the same arrays in host memory, bit for bit; the host's are tested against
exact arithmetic elsewhere. No GPU takes part.
"""

from stub_gpu import CUPY, TORCH

PREAMBLE = (
    CUPY
    + """
import itertools
from korvex.exact import _device_axes, _device_running, _device_segments

REDUCING = (exact.sum, exact.mean, exact.var, exact.std, exact.vector_norm)
turns = itertools.cycle(REDUCING)  # one after the other, of as many cases as are no multiple
inf, nan, most = np.inf, np.nan, np.finfo(float).max
copies = []
contiguous = cupy.ascontiguousarray
cupy.ascontiguousarray = lambda a: (copies.append(a), contiguous(a))[1]

def same(found, expected, what=None):
    expected = np.asarray(expected)
    assert type(found) is cupy.ndarray, what
    assert found.shape == expected.shape and found.dtype == expected.dtype, what
    assert bits(value(found)) == bits(expected), what

def check(function, *arrays, **keywords):
    given = [on(a) if isinstance(a, np.ndarray) else a for a in arrays]
    same(function(*given, **keywords), function(*arrays, **keywords), (function, keywords))

def use(*, columns, most_of_warp, state_bytes=1 << 26):
    # Which threads take an output, and how many states there are at a time.
    _device_axes.MOST_OF_THREAD = 10**9 if columns else -1
    _device_axes.LEAST_COLUMNS = 1 << 60
    _device_axes.MOST_OF_WARP = most_of_warp
    _device_axes.MOST_STATE_BYTES = state_bytes
    _device_axes._LEAST_PART = 700

WAYS = [dict(columns=True, most_of_warp=0), dict(columns=False, most_of_warp=10**9),
        dict(columns=False, most_of_warp=0), dict(columns=False, most_of_warp=40, state_bytes=3000)]
"""
)


# --- Reductions


def test_every_axis_of_every_layout(run):
    run(
        PREAMBLE,
        """
        cube = x[:1200].reshape(5, 12, 20)
        layouts = (cube, cube.T, cube[:, ::-2, 3:], cube[::-1, :7, ::3], cube.transpose(1, 0, 2),
                   np.broadcast_to(x[:20], (3, 4, 20)), np.broadcast_to(x[:4, None], (3, 4, 6)),
                   cube[:1], cube[:, :1, :1])
        axes = itertools.cycle((0, 1, -1, (0, 2), (2, 1), (1, 0), ()))
        for way in WAYS:
            use(**way)
            for a in layouts:
                for _ in range(2):
                    check(next(turns), a, axis=next(axes))
        assert not copies
        """,
    )


def test_formats_of_results_and_kept_dimensions(run):
    run(
        PREAMBLE,
        """
        table = x[:360].reshape(20, 18)
        forms = itertools.cycle(("float64", "float32", "float16"))
        for way in WAYS:
            use(**way)
            for function in REDUCING:
                for axis in (0, 1):
                    form = next(forms)
                    check(function, table, axis=axis, dtype=form, keepdims=form == "float32")
        for correction in (1, 0.5, 17, 18, 20.25, 1e-300, -1e300):
            check(exact.var, table, axis=1, correction=correction, dtype="float32")
            check(exact.std, table, axis=1, correction=correction)
        """,
    )


def test_every_dtype(run):
    run(
        PREAMBLE,
        """
        names = "bool int8 int16 int32 int64 uint8 uint16 uint32 uint64 float16 float32 float64"
        for name in names.split():
            raw = rng.integers(0, 256, 600 * np.dtype(name).itemsize, dtype=np.uint8)
            array = (raw.view(name) if name != "bool" else raw > 100)[:600].reshape(12, 50)
            for way in WAYS:
                use(**way)
                check(next(turns), array, axis=0)
                check(next(turns), array[:, ::-3], axis=-1)
        """,
    )


def test_special_values_stay_in_their_outputs(run):
    run(
        PREAMBLE,
        """
        table = np.tile(x[:40], (9, 1))
        for row, column, special in ((0, 3, inf), (1, 5, -inf), (2, 7, nan), (3, 1, inf),
                                     (3, 39, -inf), (4, 4, most), (4, 5, most), (4, 6, -most)):
            table[row, column] = special
        table[5:7] = [[-0.0], [0.0]]
        table[7, :3] = most
        table[8] = 2.0**-1074
        for way in WAYS:
            use(**way)
            for function in REDUCING:
                for axis, form in ((0, "float64"), (1, "float16")):
                    check(function, table, axis=axis, dtype=form)
        """,
    )


def test_empty_arrays(run):
    run(
        PREAMBLE,
        """
        for way in WAYS:
            use(**way)
            for function in REDUCING:
                for shape, axis in (((0, 3), 1), ((0, 3), 0), ((2, 0, 2), 1), ((2, 0, 2), (0, 2)),
                                    ((2, 0, 0), 1), ((3, 0), ()), ((0, 3), (0, 1))):
                    check(function, np.ones(shape), axis=axis)
            check(exact.vecdot, np.ones((3, 0)), np.ones(0))
            check(exact.vecdot, np.ones((0, 3)), np.ones(3))
        """,
    )


def test_halves_of_complex_arrays(run):
    run(
        PREAMBLE,
        """
        z = (x[:600] + 1j * y[:600]).reshape(20, 30)
        w = (y[:600] - 1j * x[:600]).reshape(20, 30)
        z[3, 4], z[5, 6] = complex(inf, 1), complex(nan, -inf)
        w[7, 8], w[9, 1] = inf, complex(1, -inf)
        for way in WAYS:
            use(**way)
            check(exact.sum, z, axis=0)
            check(exact.mean, z, axis=1, dtype="complex64")
        for way in WAYS[1:3]:
            use(**way)
            for a, b in ((z, w), (z, w.real), (z.real, w), (z.astype(np.complex64), w[0])):
                check(exact.vecdot, a, b, dtype="complex64")
            check(exact.vecdot, z.T, w.T, axis=0)
        """,
    )


def test_dot_products_that_are_broadcast(run):
    run(
        PREAMBLE,
        """
        cube = x[:1200].reshape(4, 20, 15)
        wide = rng.integers(-(2**63), 2**63 - 1, (20, 15))
        special = np.where(rng.random((20, 15)) < 0.1, inf, y[:300].reshape(20, 15))
        forms = itertools.cycle(("float64", "float16"))
        for way in WAYS[1:]:
            use(**way)
            for a, b, axis in ((cube, y[:15], -1), (cube, cube[::-1], 1), (cube, y[:20, None], -2),
                               (wide, special, 1), (special, wide, 0), (wide, wide.T[:, ::-1].T, 1),
                               (cube.astype(np.float32)[:, :1], wide, -1), (cube[:, 0], y[:15], -1),
                               (cube.T, y[:15, None, None], 0)):
                check(exact.vecdot, a, b, axis=axis, dtype=next(forms))
        for a, b, axis in ((cube, y[:14], -1), (cube, y[:300].reshape(20, 15, 1), 1)):
            with pytest.raises(ValueError) as expected:
                exact.vecdot(a, b, axis=axis)
            with pytest.raises(ValueError) as error:
                exact.vecdot(on(a), on(b), axis=axis)
            assert str(error.value) == str(expected.value)
        """,
    )


def test_wrong_axes_have_the_errors_of_the_host(run):
    run(
        PREAMBLE,
        """
        table = x.reshape(60, 50)
        for keywords in (dict(axis=2), dict(axis=(0, 0)), dict(axis=1.0), dict(axis=0, keepdims=1),
                         dict(axis=0, dtype="int8")):
            with pytest.raises((ValueError, TypeError)) as expected:
                exact.sum(table, **keywords)
            with pytest.raises(type(expected.value)) as error:
                exact.sum(on(table), **keywords)
            assert str(error.value) == str(expected.value)
        """,
    )


def test_which_kernels_take_an_output(run):
    run(
        PREAMBLE,
        """
        cupy.streams[0] = stub_gpu.CupyStream(driver, 7)
        def kernels(a, axis, function=exact.sum):
            function(on(a), axis=axis)
            log = driver.take_log()
            assert not [line for line in log if line.startswith("wait")]
            launches = [line.split() for line in log if line.startswith("cuLaunchKernel")]
            assert {(words[3], words[5]) for words in launches} <= {("0", "7")}
            return [(words[1].removeprefix("korvex_"), int(words[7])) for words in launches]
        assert kernels(np.ones((300, 64)), 1) == [("sum_columns", 2)]  # short rows
        assert kernels(np.ones((65, 2048)), 0) == [("sum_columns", 6)]  # columns; room for 6 blocks
        assert kernels(np.ones((65, 2047)), 0) == [("add_axes", 6), ("round_states", 9)]
        assert kernels(np.ones((2, 65)), 1) == [("add_axes", 2), ("round_states", 1)]
        # A long row is cut into parts: 3 of 16384 elements, a block each.
        assert kernels(np.ones((1, 40000)), 1) == [("add_axes", 3), ("round_states", 1)]
        assert kernels(np.ones((2, 65)), 1, exact.vector_norm) == [
            ("multiply_axes", 2), ("round_states", 1)]
        assert kernels(np.ones((2, 65)), 1, exact.std) == [
            ("add_axes", 2), ("multiply_axes", 2), ("round_states", 1)]
        _device_axes.MOST_STATE_BYTES = 576 * 3
        assert kernels(np.ones((7, 65)), 1) == [("add_axes", 3), ("round_states", 1)] * 2 + [
            ("add_axes", 1), ("round_states", 1)]
        """,
    )


def test_elements_that_are_not_aligned_are_copied(run):
    run(
        PREAMBLE,
        """
        raw = np.zeros(8 * 600 + 4, np.uint8)
        odd = raw[4:].view(np.float64).reshape(20, 30)
        odd[...] = x[:600].reshape(20, 30)
        records = np.zeros(600, np.dtype([("a", "u1"), ("b", "f8")]))["b"].reshape(20, 30)
        records[...] = odd
        for a in (odd, records, records.T):
            copies.clear()
            check(exact.sum, a, axis=0)
            assert len(copies) == 1
        check(exact.segment_sum, odd, np.arange(20) % 3, 4)
        """,
    )


# --- Sums by segment


def test_sums_by_segment(run):
    run(
        PREAMBLE,
        """
        ids = rng.integers(0, 7, 120)
        table = x[:360].reshape(120, 3)
        special = table.copy()
        special[5, 1], special[8, 2], special[9, 0], special[17, 0] = inf, nan, inf, -inf
        wide = rng.integers(-(2**63), 2**63 - 1, (120, 2))
        z = table[:, :2] + 0j
        z.imag = special[:, 1:]
        # All at once; and in three parts of the result, elements in two launches each.
        for state_bytes, most_elements in ((1 << 28, 1 << 29), (5000, 200)):
            _device_segments.MOST_STATE_BYTES = state_bytes
            _device_segments.MOST_ELEMENTS = most_elements
            for a in (table, special[:, ::-1], table[::-1, :, None], table[:, :0], wide,
                      y[:120].astype(np.float16), wide.view(np.uint64), table[:, 0] > 0,
                      z):
                check(exact.segment_sum, a, ids, 7)
        for form in ("float32", "float16"):
            check(exact.segment_sum, table, ids, 9, dtype=form)
        for dtype in "int8 uint8 int16 uint16 int32 uint32 uint64".split():
            check(exact.segment_sum, table, ids.astype(dtype)[::-1], 7)
        check(exact.segment_sum, table[:0], ids[:0], 3)
        check(exact.segment_sum, table[:0], ids[:0], 0)
        check(exact.segment_sum, np.tile(most, 9), np.arange(9) % 2, 2)
        """,
    )


def test_numbers_that_name_no_segment(run):
    run(
        PREAMBLE,
        r"""
        table = x[:60].reshape(20, 3)
        good = np.arange(20) % 5
        for wrong in (-1, 5, 127):
            for dtype in (np.int8, np.int64, np.uint64, np.uint16):
                if wrong < 0 and np.dtype(dtype).kind == "u":
                    continue
                ids = good.astype(dtype)
                ids[[7, 12]] = wrong
                for a in (table, table[:, :0], table[:, 0]):
                    for call in (lambda on: exact.segment_sum(on(a), on(ids), 5),
                                 lambda on: exact.index_add(on(a[:5]), 0, on(ids), on(a))):
                        with pytest.raises(IndexError) as expected:
                            call(lambda a: a)
                        with pytest.raises(IndexError) as error:
                            call(on)
                        assert str(error.value) == str(expected.value)
        assert str(error.value) == "index[7] is 127, not from 0 to 4"
        with pytest.raises(IndexError, match=r"ids\[0\] is 0, but there are no segments"):
            exact.segment_sum(on(table), on(good), 0)
        for weights in (None, on(x[:20])):
            for wrong, dtype in ((-3, np.int16), (2**63 - 1, np.int64), (2**64 - 1, np.uint64)):
                ids = good.astype(dtype)
                ids[4] = wrong
                host = None if weights is None else x[:20]
                with pytest.raises(IndexError) as expected:
                    exact.bincount(ids, host)
                with pytest.raises(IndexError) as error:
                    exact.bincount(on(ids), weights)
                assert str(error.value) == str(expected.value)
        """,
    )


def test_counts_and_sums_of_weights(run):
    run(
        PREAMBLE,
        """
        ids = rng.integers(0, 50, 400)
        for dtype in (np.int64, np.uint8, np.int16):
            own = ids.astype(dtype)
            for least in (0, 3, 60):
                check(exact.bincount, own, minlength=least)
                same(exact.bincount(on(own), on(x[:400]), least),
                     exact.bincount(own, x[:400], least))
        same(exact.bincount(on(ids), weights=on(x[:400]), dtype="float32"),
             exact.bincount(ids, weights=x[:400], dtype="float32"))
        for empty in (ids[:0],):
            check(exact.bincount, empty)
            check(exact.bincount, empty, minlength=3)
            same(exact.bincount(on(empty), on(x[:0]), 2), exact.bincount(empty, x[:0], 2))
        for call in (lambda on: exact.bincount(on(x[:3])),
                     lambda on: exact.bincount(on(ids[:4, None])),
                     lambda on: exact.bincount(on(ids[:3]), on(x[:4])),
                     lambda on: exact.bincount(on(ids[:3]), on(x[:3] + 1j)),
                     lambda on: exact.bincount(on(ids > 3))):
            with pytest.raises((TypeError, ValueError)) as expected:
                call(lambda a: a)
            with pytest.raises(type(expected.value)) as error:
                call(on)
            assert str(error.value) == str(expected.value)
        with pytest.raises(TypeError, match="both must be of one kind"):
            exact.bincount(on(ids), weights=x[:400])
        """,
    )


def test_slices_that_are_added_at_places(run):
    run(
        PREAMBLE,
        """
        cube, source = x[:360].reshape(4, 9, 10), y[:480].reshape(4, 12, 10)
        index = rng.integers(0, 9, 12)
        for state_bytes in (1 << 28, 30000):
            _device_segments.MOST_STATE_BYTES = state_bytes
            for axes in ((0, 1, 2), (1, 0, 2), (0, 2, 1), (2, 0, 1)):
                a, b = cube.transpose(axes), source.transpose(axes)
                dim = axes.index(1)
                for d in (dim, dim - 3):
                    check(exact.index_add, a, d, index, b)
                check(exact.index_add, a, dim, index, b.astype(np.float32), dtype="float32")
                check(exact.index_add, a + 1j, dim, index, b - 2j)
            check(exact.index_add, cube, 1, index[:0], source[:, :0])
            check(exact.index_add, cube[:0], 1, index, source[:0])
            check(exact.index_add, x[:9], 0, index, (1e9 * y[:12]).astype(np.int64))
        """,
    )


# --- Products and running sums


def test_batches_of_matrix_products(run):
    run(
        PREAMBLE,
        """
        a, b = x[:240].reshape(2, 1, 3, 8, 5), y[:60].reshape(4, 1, 5, 3)
        wide = rng.integers(-(2**63), 2**63 - 1, (3, 5, 2))
        for left, right in ((a, b), (a[0, 0], wide), (wide.swapaxes(1, 2), a[0, 0].swapaxes(1, 2)),
                            (a, y[:5]), (y[:8], a), (a[:, :, :, :1], b[:1, :, :, :1]),
                            (a[:0], b), (a[..., :0, :], b), (a[..., :0], b[..., :0, :]),
                            (a + 1j, b), (a + 1j, b - 2j), (a.astype(np.float32), b + 1j)):
            for form in (None, "complex64" if np.iscomplexobj(left) or np.iscomplexobj(right)
                         else "float16"):
                check(exact.matmul, left, right, dtype=form)
        with pytest.raises(ValueError, match="a has batches of the shape"):
            exact.matmul(on(a), on(np.ones((3, 2, 5, 1))))
        """,
    )


def test_running_sums_along_an_axis(run):
    run(
        PREAMBLE,
        """
        cube = x[:105].reshape(3, 7, 5)
        special = cube.copy()
        special[1, 2, 3], special[2, 4, 0], special[0, 1, 1], special[0, 5, 1] = inf, nan, inf, -inf
        special[0, :3, 0] = most
        wide = rng.integers(-(2**63), 2**63 - 1, (3, 7, 2))
        for many, segments in ((256, 8192), (2, 8192), (2, 3)):
            _device_running.MANY_VECTORS, _device_running.MOST_SEGMENTS = many, segments
            for a in (cube.T[:, ::-2], special, wide, wide.astype(np.uint64), cube[:, :0], cube[:0],
                      np.broadcast_to(x[:9], (4, 9))):
                for axis, initial in ((0, False), (-1, True), (1, False)):
                    check(exact.cumulative_sum, a, axis=axis, include_initial=initial)
            check(exact.cumulative_sum, cube > 0, axis=1, dtype="float16", include_initial=True)
        assert not copies
        with pytest.raises(ValueError, match="x has 3 axes"):
            exact.cumulative_sum(on(cube))
        """,
    )


# --- torch


def test_torch_tensors_along_axes_and_by_segment(run):
    run(
        TORCH,
        """
        torch.manual_seed(3)
        x = torch.randn(20, 30, dtype=torch.float64)
        half = x.to(torch.bfloat16)
        ids = torch.arange(20) % 6
        def on(t):
            return t.as_subclass(CudaTensor)
        def same(found, expected):
            assert type(found) is CudaTensor and found.dtype == expected.dtype
            assert torch.equal(found.cpu(), expected) and found.shape == expected.shape
        functions = (exact.sum, exact.mean, exact.var, exact.std, exact.vector_norm)
        for function, a in zip(functions, (x.T, half, x[:, ::2], half.T, x.to(torch.float16))):
            for axis, form in ((0, "float64"), (1, "bfloat16")):
                same(function(on(a), axis=axis, dtype=form), function(a, axis=axis, dtype=form))
        few = (x[:4, :5] * 1e6).to(torch.int64)
        same(exact.cumulative_sum(on(few), axis=0), exact.cumulative_sum(few, axis=0))
        z = torch.complex(x, -x.flip(0))
        same(exact.sum(on(z), axis=0), exact.sum(z, axis=0))
        same(exact.vecdot(on(z.conj()), on(x)), exact.vecdot(z.conj(), x))
        same(exact.vecdot(on(half), on(x)), exact.vecdot(half, x))
        same(exact.segment_sum(on(half), on(ids), 6), exact.segment_sum(half, ids, 6))
        for dtype in (torch.int64, torch.uint8, torch.int32):
            own = ids.to(dtype)
            same(exact.bincount(on(own), minlength=9), exact.bincount(own, minlength=9))
            same(exact.bincount(on(own), on(x[:, 0])), exact.bincount(own, x[:, 0]))
        added = x[:, :20]
        same(exact.index_add(on(x), 1, on(ids), on(added)), exact.index_add(x, 1, ids, added))
        cube = x.reshape(5, 4, 30)
        same(exact.matmul(on(cube), on(cube.mT)), exact.matmul(cube, cube.mT))
        with pytest.raises(IndexError, match="ids.3. is 3, not from 0 to 2"):
            exact.segment_sum(on(x), on(ids), 3)
        """,
    )
