# SPDX-License-Identifier: Apache-2.0
"""Kernels of exact states: the words that they leave, and what they round, are the host library's.

The launches are those of the loader of `korvex.exact`, on the null stream; without a GPU the host
library stands for them. The name of a kernel is in that of each test, by which `make gpu` selects.
"""

import gpu_cases
import numpy as np
import pytest
from gpu_states import (
    FORMATS,
    Operand,
    State,
    draw_values,
    host_native,
    require_same_words,
    states_cases,
)

from korvex import exact
from korvex_tools.gpu.cuda_device import CudaDevice
from korvex_tools.gpu.package_loaders import StatesOnHost, bits_of, states_on


@pytest.fixture(scope="module")
def states(target):
    return states_on(target)


@pytest.mark.parametrize("form", FORMATS)
@pytest.mark.parametrize("kernel", ["korvex_add_elements"])
def test_each_way_of_adding_elements(states, kernel, form):
    """Launches that follow each other without a wait, into one state."""
    native = host_native()
    with State(states, native.SUM) as state:
        for n, stride, sign, kind in states_cases():
            state.add(kernel, [Operand(draw_values(form, n, kind), stride)], form, sign)
        state.require_same_as_host()


@pytest.mark.parametrize("form", FORMATS)
@pytest.mark.parametrize("kernel", ["korvex_add_products"])
def test_each_way_of_adding_products(states, kernel, form):
    native = host_native()
    with State(states, native.DOT) as state:
        for n, stride, sign, kind in states_cases():
            values = [draw_values(form, n, kind, seed) for seed in (1, 2)]
            operands = [Operand(values[0], stride), Operand(values[1], 1)]
            state.add(kernel, operands, form, sign)
        state.require_same_as_host()


@pytest.mark.parametrize("kernel", ["korvex_settle_state"])
def test_each_way_of_settling(states, kernel):
    """Digits as many additions leave them, of either sign, beyond 32 bits."""
    native = host_native()
    draw = np.random.default_rng(3)
    for kind in (native.SUM, native.DOT, native.MOMENTS):
        for shift in (3, 20, 40, 62):
            words = draw.integers(-(2**62), 2**62, native.words(kind)) >> shift
            words[-4:] = [0, 1, 0, 5]
            last_digits = [native.words(native.SUM) - 5, words.size - 5]
            words[last_digits] >>= 33  # no carries out of the top
            with State(states, kind) as state:
                state.put(words)
                state.run(kernel)
                state.require_same_as_host()


@pytest.mark.parametrize("kernel", ["korvex_round_state"])
def test_each_way_of_rounding(states, kernel):
    native = host_native()
    floating = [form for form in FORMATS if "float" in form]
    for case in ("normal", "any bits", "cancelling", "overflow", "infinity", "nan", "first 0"):
        for kind in (native.SUM, native.DOT):
            with State(states, kind) as state:
                name = "korvex_add_elements" if kind == native.SUM else "korvex_add_products"
                operand = Operand(gpu_cases.inputs()[case][:5001], 1)
                state.add(name, [operand] * (1 + (kind == native.DOT)), "float64", 1)
                state.run("korvex_settle_state")
                for form in floating:
                    [value] = native.limbs(kind, state.on_host, 0, 1, form)
                    found = state.rounded(kernel, form)
                    assert found == int(bits_of(value, form).view(f"u{found_bytes(form)}")[0]), (
                        f"{kernel}, {case}, {form}: {found:#x}"
                    )


# Kernels that take several launches for one result, which `korvex.exact` makes.


@pytest.fixture
def on_gpu(target):
    """Moves an array of NumPy to the GPU."""
    if not isinstance(target, CudaDevice):
        pytest.skip("the host library has no kernels of that kind")
    torch = pytest.importorskip("torch")
    return lambda x: torch.from_numpy(x).cuda()


@pytest.mark.parametrize("form", ["float64", "float32", "int64"])
@pytest.mark.parametrize("kernel", ["korvex_widen", "korvex_multiply"])
def test_matrix_products_on_a_gpu(on_gpu, kernel, form):
    for rows, depth, columns in ((1, 1, 1), (3, 5, 2), (33, 64, 65), (130, 1000, 7)):
        a = draw_values(form, rows * depth, "normal").reshape(rows, depth)
        b = draw_values(form, depth * columns, "normal", 1).reshape(depth, columns)
        found = exact.matmul(on_gpu(a), on_gpu(b)).cpu().numpy()
        np.testing.assert_array_equal(found, exact.matmul(a, b), strict=True)


@pytest.mark.parametrize("form", ["float64", "float32", "int64"])
@pytest.mark.parametrize(
    "kernel", ["korvex_sum_segments", "korvex_join_segments", "korvex_running_sums"]
)
def test_running_sums_on_a_gpu(on_gpu, kernel, form):
    for n in (1, 31, 33, 5000, 300_001):
        x = draw_values(form, n, "normal")
        found = exact.cumulative_sum(on_gpu(x)).cpu().numpy()
        np.testing.assert_array_equal(found, exact.cumulative_sum(x), strict=True)


@pytest.mark.parametrize("form", ["float64", "float32", "int64"])
@pytest.mark.parametrize(
    "kernel",
    ["korvex_add_axes", "korvex_multiply_axes", "korvex_round_states", "korvex_sum_columns"],
)
def test_axes_on_a_gpu(on_gpu, kernel, form):
    functions = (exact.sum, exact.mean, exact.var, exact.std, exact.vector_norm)
    for shape in ((3, 5), (1, 100_001), (70_000, 7), (33, 4097), (300, 3000)):
        for kind in ("normal", "any bits"):
            table = draw_values(form, shape[0] * shape[1], kind).reshape(shape)
            own = on_gpu(table)
            for x, given in ((table, own), (table.T, own.T), (table[::2, ::3], own[::2, ::3])):
                for axis in (0, 1):
                    for function in functions:
                        found = function(given, axis=axis).cpu().numpy()
                        np.testing.assert_array_equal(found, function(x, axis=axis), strict=True)


@pytest.mark.parametrize("form", ["float64", "float32", "int64"])
@pytest.mark.parametrize("kernel", ["korvex_add_by_ids"])
def test_sums_by_segment_on_a_gpu(on_gpu, kernel, form):
    draw = np.random.default_rng(4)
    for n, columns, segments in ((5, 1, 2), (300_001, 1, 1000), (5000, 8, 70_000)):
        x = draw_values(form, n * columns, "normal").reshape(n, columns)
        ids = draw.integers(0, segments, n)
        found = exact.segment_sum(on_gpu(x), on_gpu(ids), segments).cpu().numpy()
        np.testing.assert_array_equal(found, exact.segment_sum(x, ids, segments), strict=True)


@pytest.mark.parametrize("form", ["float64", "float32", "int64"])
@pytest.mark.parametrize("kernel", ["korvex_running_axes"])
def test_running_sums_of_vectors_on_a_gpu(on_gpu, kernel, form):
    for shape in ((300, 5), (2, 5000), (1000, 300)):
        x = draw_values(form, shape[0] * shape[1], "normal").reshape(shape)
        for axis in (0, 1):
            found = exact.cumulative_sum(on_gpu(x), axis=axis).cpu().numpy()
            np.testing.assert_array_equal(found, exact.cumulative_sum(x, axis=axis), strict=True)


@pytest.mark.parametrize("form", ["float64", "float32", "float16", "int64", "uint8"])
@pytest.mark.parametrize("kernel", ["korvex_widen"])
def test_functions_of_an_element_on_a_gpu(on_gpu, kernel, form):
    kinds = ("normal", "any bits") if form.startswith("float") else ("normal",)
    for n, kind in ((1, "normal"), *((300_001, kind) for kind in kinds)):
        x = draw_values(form, n, kind)
        for function in (exact.exp, exact.log, exact.sqrt, exact.sigmoid, exact.tanh):
            for dtype in ("float64", "float32", "float16"):
                found = function(on_gpu(x), dtype=dtype).cpu().numpy()
                assert found.tobytes() == function(x, dtype=dtype).tobytes()


def found_bytes(form: str) -> int:
    return bits_of(0.0, form).itemsize


# --- The checks themselves, over the host library


class Spoiled(StatesOnHost):
    """Turns a bit of the lowest digit after each launch."""

    def launch(self, kernel, *arguments):
        super().launch(kernel, *arguments)
        kind, address = (0, arguments[-2]) if "add" in kernel else arguments[:2]
        self._state(kind, address)[0] ^= 1


@pytest.mark.parametrize("kernel", ["korvex_add_elements", "korvex_settle_state"])
def test_a_wrong_word_is_noticed(host, kernel):
    native = host_native()
    with State(Spoiled(host), native.SUM) as state:
        if kernel == "korvex_settle_state":
            state.run(kernel)
        else:
            state.add(kernel, [Operand(np.ones(5), 1)], "float64", 1)
        with pytest.raises(AssertionError, match="word 0"):
            state.require_same_as_host()


def test_words_that_differ_are_named():
    with pytest.raises(AssertionError, match="word 2 is 7, on the host 3"):
        require_same_words(np.array([1, 2, 7]), np.array([1, 2, 3]))
