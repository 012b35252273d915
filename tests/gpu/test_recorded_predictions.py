# SPDX-License-Identifier: Apache-2.0
"""The record of predicted times: it is that of the model, and the document says what it holds."""

import importlib.util
from types import SimpleNamespace

import pytest

from korvex_tools import kernel_table
from korvex_tools.gpu import predict
from korvex_tools.gpu.devices import DEVICES
from korvex_tools.gpu.model import TOLERANCE
from korvex_tools.gpu.work import WORK, Threads
from korvex_tools.source_tree import SOURCE_TREE


def test_document_says_what_was_recorded():
    text = predict.DOCUMENT.read_text()
    lines = predict.lines_for_document(predict.recorded())
    assert predict.filled(text, predict.MARK, lines) == text


def test_recorded_times_are_those_of_the_model():
    record = predict.recorded()
    for device in DEVICES:
        assert predict.predictions(record["counts"], device) == record["predictions"][device.name]


def test_record_names_its_commit_and_compilers():
    record = predict.recorded()
    assert len(record["commit"]) == 40
    assert record["compilers"].keys() == {f"sm_{d.architecture}" for d in DEVICES}


def test_record_has_a_time_for_every_kernel():
    for device in DEVICES:
        assert predict.recorded()["predictions"][device.name].keys() == WORK.keys()
        for name, row in predict.recorded()["predictions"][device.name].items():
            assert 1e-5 < row["nanoseconds"] < 1e4 and row["warps"] >= 1, (device.name, name)


def test_tolerances_are_those_that_the_document_states():
    assert TOLERANCE == {
        Threads.DEVICE: (0.7, 1.3),
        Threads.BLOCK: (0.5, 2.0),
        Threads.ONE: (0.7, 1.3),
    }
    assert "30 %, for kernels of one block by a factor of 2" in predict.DOCUMENT.read_text()


# --- Beside measured times


@pytest.fixture(scope="module")
def benchmark():
    path = SOURCE_TREE / "benchmarks" / "bench_gpu_kernels.py"
    spec = importlib.util.spec_from_file_location(path.stem, path)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def test_benchmark_finds_what_was_recorded_for_its_device(benchmark):
    found = benchmark.recorded_for("NVIDIA H100 80GB HBM3")
    assert found == predict.recorded()["predictions"]["H100 SXM"]
    assert benchmark.recorded_for("NVIDIA T4") is None


@pytest.mark.parametrize(
    ("kernel", "ratio", "is_as_predicted"),
    [
        ("tqx_sum_kernel", 1.25, True),
        ("tqx_sum_kernel", 1.35, False),
        ("tqx_sum_kernel", 0.65, False),
        ("tqx_var_kernel", 1.9, True),
        ("tqx_var_kernel", 0.4, False),
    ],
)
def test_measured_times_are_judged_by_the_tolerance(benchmark, kernel, ratio, is_as_predicted):
    predicted = predict.recorded()["predictions"]["H100 SXM"][kernel]
    row = benchmark.row_of(kernel, ratio * predicted["nanoseconds"], predicted)
    assert row["is_as_predicted"] is is_as_predicted and row["ratio"] == ratio
    assert benchmark.cells(row)[-1] == ("yes" if is_as_predicted else "NO")


def test_measured_times_stand_alone_where_nothing_was_predicted(benchmark):
    row = benchmark.row_of("tqx_sum_kernel", 0.01, None)
    assert row == {"candidate": "tqx_sum_kernel", "ns_per_element": 0.01}
    assert benchmark.cells(row) == ["tqx_sum_kernel", "10 ps", "", "", "", ""]


def test_launches_of_one_call_are_predicted_together(benchmark):
    predictions = {
        "first": {"nanoseconds": 0.25, "limit": "memory", "warps": 32},
        "second": {"nanoseconds": 0.5, "limit": "issue", "warps": 24},
    }
    together = benchmark.of_launches(("first", "second", "without elements"), predictions)
    assert together == {"nanoseconds": 0.75, "limit": "issue", "warps": 24}
    assert benchmark.of_launches(("first",), {}) is None
    row = benchmark.row_of("tqx_var_kernel, whole device", 0.9, together, Threads.DEVICE)
    assert row["ratio"] == 1.2 and row["is_as_predicted"]


def test_every_kernel_is_measured_without_a_gpu(benchmark):
    """All that callers name, each of those over the whole device, and sums into a state."""
    options = SimpleNamespace(emulated=True, n=600, repeats=1)
    rows = list(benchmark.all_rows(options, predict.recorded()["predictions"]["H100 SXM"]))
    whole_device = [f"{name}, whole device" for name in kernel_table.on_the_whole_device()]
    states = ["korvex_add_elements", "korvex_add_products"]
    assert [row["candidate"] for row in rows] == [*kernel_table.rows(), *whole_device, *states]
    assert all(row["ratio"] > 0 for row in rows)
