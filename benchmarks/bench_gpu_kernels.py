# SPDX-License-Identifier: Apache-2.0
"""How long does each kernel take on a GPU, beside what was predicted from its machine code?

Kernels are launched through the driver as the package launches them and timed by its events, so no
Python stands between. Kernels of one thread or one block get a hundredth of the elements; over the
whole device, as with KORVEX_LAUNCH=device, they get all, and the launches of one call are timed
together. Kernels of exact states get 64-bit integers, the format that takes them longest, in
launches that korvex.exact makes. Those whose time is not in proportion to elements are named with
the reason. A prediction that is missed is no failure: it says where the model is wrong, or the
kernel. The last line printed is JSON.
"""

import statistics
from collections.abc import Callable, Iterator
from typing import Any

import numpy as np

from korvex_tools import kernel_table
from korvex_tools.figures.command import gpu_parser, record_and_print
from korvex_tools.figures.timing import print_table
from korvex_tools.gpu.cuda_device import HostDevice, choose_device
from korvex_tools.gpu.launches import Launch, usual_shape
from korvex_tools.gpu.model import TOLERANCE
from korvex_tools.gpu.package_loaders import WORD_BYTES, WholeDevice, states_on
from korvex_tools.gpu.predict import recorded_for, time_text
from korvex_tools.gpu.state_launches import OPERATIONS, DriverMemory, made
from korvex_tools.gpu.work import WITHOUT_ELEMENTS, WORK, Threads

SEED = 19480717


def operands(count: int) -> list[np.ndarray]:
    """Positive numbers, so that no kernel takes the way of special cases."""
    draw = np.random.default_rng(SEED)
    return [np.abs(draw.standard_normal(count)) + 2.0**-20 for _ in range(2)]


def sizes_of(kernel: str, n: int, is_on_whole_device: bool = False) -> dict[str, int]:
    if kernel == "tqx_matmul_kernel":
        rows = max(1, round((n / 100) ** 0.5))
        return {"M": rows, "K": rows, "N": rows}
    if WORK[kernel].threads is Threads.DEVICE or is_on_whole_device:
        return {"n": n}
    return {"n": max(1, n // 100)}


def count_of(sizes: dict[str, int]) -> int:
    """Elements, or multiply-adds."""
    product = 1
    for size in sizes.values():
        product *= size
    return product


def nothing() -> None:
    """Before a launch that reads nothing which others make."""


def median_seconds(
    device: Any, work: Callable[[], None], repeats: int, before: Callable[[], None] = nothing
) -> float:
    """Of what the device does for work(), after one round that counts for nothing."""
    seconds = []
    for _ in range(1 + repeats):
        before()
        device.wait()
        seconds.append(device.seconds(work))
    return statistics.median(seconds[1:])


def time_kernel(
    device: Any, row: Any, both: list[np.ndarray], sizes: dict[str, int], repeats: int
) -> float:
    """Nanoseconds an element, the median."""
    count = next(iter(sizes.values())) ** (2 if len(sizes) > 1 else 1)
    shape = usual_shape(row, sizes)
    with Launch(device, row, [array[:count] for array in both], sizes) as launch:
        seconds = median_seconds(device, lambda: launch.start(shape), repeats)
    return seconds / count_of(sizes) * 1e9


def time_sum_into_state(device: Any, kernel: str, both: list[np.ndarray], repeats: int) -> float:
    """Nanoseconds an element, or a pair of them, the median."""
    from korvex.exact import _native
    from korvex.exact._devices import FORMAT_NUMBERS

    kind = _native.SUM if kernel == "korvex_add_elements" else _native.DOT
    operands = both[:1] if kernel == "korvex_add_elements" else both
    words = np.zeros(_native.words(kind), dtype=np.int64)
    n = both[0].size
    addresses = [device.allocate(size) for size in (words.size, *(n for _ in operands))]
    arguments = [n]
    device.write(addresses[0], words)
    for address, values in zip(addresses[1:], operands, strict=True):
        device.write(address, values)
        arguments += [address, WORD_BYTES, FORMAT_NUMBERS["int64"]]
    arguments += [1, addresses[0], 0]  # nothing is counted
    launcher = states_on(device)
    seconds = median_seconds(device, lambda: launcher.launch(kernel, *arguments), repeats)
    for address in addresses:
        device.free(address)
    return seconds / n * 1e9


def time_operation(
    device: Any, kernel: str, both: list[np.ndarray], repeats: int, launcher: Any
) -> float:
    """Nanoseconds an element, or a multiply-add, of a kernel as an operation launches it."""
    with DriverMemory(device) as memory:
        done = made(memory, kernel, *both)

        def launch_all_before() -> None:
            for name, arguments in done.before:
                launcher.launch(name, *arguments)

        name, arguments = done.call
        seconds = median_seconds(
            device, lambda: launcher.launch(name, *arguments), repeats, launch_all_before
        )
    return seconds / done.count * 1e9


def rows_of_states(
    device: Any, both: list[np.ndarray], repeats: int, predictions: dict[str, dict[str, Any]]
) -> Iterator[dict[str, Any]]:
    """Sums into a state everywhere; what the host library has no part for, on a GPU alone."""
    launcher = states_on(device)
    integers = [(values * 2.0**60).astype(np.int64) for values in both]
    for kernel in (name for name in WORK if name in kernel_table.of_states()):
        if kernel not in OPERATIONS:
            time = time_sum_into_state(device, kernel, integers, repeats)
        elif device.is_gpu:
            time = time_operation(device, kernel, integers, repeats, launcher)
        else:
            continue
        yield row_of(kernel, time, predictions.get(kernel))


def of_launches(
    names: tuple[str, ...], predictions: dict[str, dict[str, Any]]
) -> dict[str, Any] | None:
    """One prediction for launches that follow each other; those without a time count nothing."""
    found = [predictions[name] for name in names if name in predictions]
    if not found:
        return None
    longest = max(found, key=lambda row: row["nanoseconds"])
    return longest | {"nanoseconds": sum(row["nanoseconds"] for row in found)}


def row_of(
    candidate: str,
    nanoseconds: float,
    predicted: dict[str, Any] | None,
    threads: Threads | None = None,
) -> dict[str, Any]:
    """Measured beside predicted; without a prediction where the device is not known."""
    row: dict[str, Any] = {"candidate": candidate, "ns_per_element": float(f"{nanoseconds:.4g}")}
    if predicted:
        least, most = TOLERANCE[threads or WORK[candidate].threads]
        ratio = nanoseconds / predicted["nanoseconds"]
        row |= {
            "predicted_ns": predicted["nanoseconds"],
            "limit": predicted["limit"],
            "ratio": float(f"{ratio:.3g}"),
            "is_as_predicted": least <= ratio <= most,
        }
    return row


def cells(row: dict[str, Any]) -> list[str]:
    measured = time_text(row["ns_per_element"])
    if "ratio" not in row:
        return [row["candidate"], measured, "", "", "", ""]
    verdict = "yes" if row["is_as_predicted"] else "NO"
    predicted = time_text(row["predicted_ns"])
    return [row["candidate"], measured, predicted, row["limit"], f"{row['ratio']}", verdict]


def all_rows(options: Any, predictions: dict[str, dict[str, Any]]) -> Iterator[dict[str, Any]]:
    """Of the kernels that callers name, of those for the whole device, and of exact states."""
    table = HostDevice("base").kernels()
    both = operands(options.n)
    device = choose_device(options.emulated)
    for kernel, row in table.items():
        time = time_kernel(device, row, both, sizes_of(kernel, options.n), options.repeats)
        yield row_of(kernel, time, predictions.get(kernel))
    whole = choose_device(options.emulated, of_gpu=WholeDevice)
    for kernel, names in kernel_table.on_the_whole_device().items():
        sizes = sizes_of(kernel, options.n, is_on_whole_device=True)
        time = time_kernel(whole, table[kernel], both, sizes, options.repeats)
        predicted = of_launches(names, predictions)
        yield row_of(f"{kernel}, whole device", time, predicted, Threads.DEVICE)
    yield from rows_of_states(device, both, options.repeats, predictions)


def main() -> None:
    options = gpu_parser(__doc__, "elements of the largest launches").parse_args()
    device = choose_device(options.emulated).name()
    rows = list(all_rows(options, recorded_for(device) or {}))
    print_table(
        f"time an element, medians of {options.repeats}: {device}",
        ["kernel", "measured", "predicted", "limited by", "ratio", "as predicted"],
        [cells(row) for row in rows],
    )
    for kernel, reason in WITHOUT_ELEMENTS.items():
        print(f"{kernel}: not timed, {reason}")
    content = {"device": device, "runs": rows, "not_timed": WITHOUT_ELEMENTS}
    record_and_print("bench_gpu_kernels", options, content)


if __name__ == "__main__":
    main()
