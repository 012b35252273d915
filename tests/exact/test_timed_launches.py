# SPDX-License-Identifier: Apache-2.0
"""The launches that `make gpu` times of the kernels of exact states, over a stub of the driver.

They are those of `korvex.exact`, so what they leave is what the host library gives.
"""

PREAMBLE = """
from korvex import exact
from korvex.exact import _native
from korvex_tools.gpu import predict
from korvex_tools.gpu.cuda_device import HostDevice
from korvex_tools.gpu.package_loaders import states_on
from korvex_tools.gpu.state_launches import OPERATIONS, DriverMemory, made

class OverStub(HostDevice):
    is_gpu = True

    def wait(self):
        driver.wait(0, 0)

device = OverStub("base")
x, y = np.random.default_rng(6).integers(-(2**62), 2**62, (2, 140_000))
"""


def test_launches_leave_what_the_host_library_gives(run):
    run(
        PREAMBLE,
        """
        def cut(a, shape):
            return a[: shape[0] * shape[1]].reshape(shape)

        def rounded(kind, states):
            for words in states.view(np.int64).reshape(-1, _native.words(kind)):
                _native.settle(kind, words)
                yield _native.limbs(kind, words, 0, 1, "float64")[0]

        def product(shape):
            return exact.matmul(*(cut(a, shape).astype(float) for a in (x, y)))

        expected = {
            "korvex_widen": lambda shape: x.astype(float),
            "korvex_multiply": product,
            "korvex_running_sums": lambda shape: exact.cumulative_sum(x),
            "korvex_add_axes": lambda shape: exact.sum(cut(x, shape), axis=1),
            "korvex_multiply_axes": lambda shape: exact.vecdot(cut(x, shape), cut(y, shape)),
            "korvex_sum_columns": lambda shape: exact.sum(cut(x, shape[::-1]), axis=0),
            "korvex_running_axes": lambda shape: exact.cumulative_sum(cut(x, shape), axis=1),
        }
        kinds = {"korvex_add_axes": _native.SUM, "korvex_multiply_axes": _native.DOT}
        for kernel in OPERATIONS:
            with DriverMemory(device) as memory:
                done = made(memory, kernel, x, y)
                device.wait()
                assert done.call[0] == kernel and done.count >= 1000
                found = device.read(*done.results[:2])
                if kernel == "korvex_sum_segments":
                    assert not done.before and found.any()
                    continue
                if kernel in kinds:
                    found = np.array(list(rounded(kinds[kernel], found)))
                wanted = np.asarray(expected[kernel](done.shape))
                assert wanted.size > 1, (kernel, done.shape)
                assert bytes(found) == wanted.tobytes(), kernel
                if kernel not in kinds:
                    device.write(done.results.address, np.zeros(done.results.size))
                    for name, arguments in [*done.before, done.call]:
                        states_on(device).launch(name, *arguments)
                    device.wait()
                    again = device.read(*done.results[:2])
                    assert bytes(again) == wanted.tobytes(), f"{kernel}, made again"
        """,
    )


def test_every_kernel_with_a_predicted_time_is_timed(run):
    run(
        PREAMBLE,
        """
        from importlib.util import module_from_spec, spec_from_file_location

        from korvex_tools import kernel_table
        from korvex_tools.gpu.work import WITHOUT_ELEMENTS

        path = predict.SOURCE_TREE / "benchmarks" / "bench_gpu_kernels.py"
        spec = spec_from_file_location("bench_gpu_kernels", path)
        benchmark = module_from_spec(spec)
        spec.loader.exec_module(benchmark)
        predictions = predict.recorded()["predictions"]["H100 SXM"]
        both = benchmark.operands(5000)
        rows = list(benchmark.rows_of_states(device, both, 1, predictions))
        names = {row["candidate"] for row in rows}
        assert names == set(kernel_table.of_states()) - WITHOUT_ELEMENTS.keys()
        assert len(rows) == len(names) == 10
        assert all(row["ratio"] > 0 and row["predicted_ns"] > 0 for row in rows)
        launched = {launch[0] for launch in driver.take_launches()}
        assert names <= launched, names - launched
        """,
    )
