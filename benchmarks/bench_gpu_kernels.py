# SPDX-License-Identifier: Apache-2.0
"""How long does each kernel take on a GPU, beside what was predicted from its machine code?

Kernels are launched through the driver as the package launches them and timed by its events, so no
Python stands between. Kernels of one thread or one block get a hundredth of the elements. A
prediction that is missed is no failure: it says where the model is wrong, or the kernel. The last
line printed is JSON.
"""

import statistics
from typing import Any

import numpy as np

from korvex_tools.figures.command import gpu_parser, record_and_print
from korvex_tools.figures.timing import print_table
from korvex_tools.gpu.cuda_device import HostDevice, choose_device
from korvex_tools.gpu.launches import Launch, usual_shape
from korvex_tools.gpu.model import TOLERANCE
from korvex_tools.gpu.predict import recorded_for, time_text
from korvex_tools.gpu.work import WORK, Threads

SEED = 19480717


def operands(count: int) -> list[np.ndarray]:
    """Positive numbers, so that no kernel takes the way of special cases."""
    draw = np.random.default_rng(SEED)
    return [np.abs(draw.standard_normal(count)) + 2.0**-20 for _ in range(2)]


def sizes_of(kernel: str, n: int) -> dict[str, int]:
    if WORK[kernel].threads is not Threads.DEVICE:
        return {"n": max(1, n // 100)}
    if kernel == "tqx_matmul_kernel":
        rows = max(1, round((n / 100) ** 0.5))
        return {"M": rows, "K": rows, "N": rows}
    return {"n": n}


def count_of(sizes: dict[str, int]) -> int:
    """Elements, or multiply-adds."""
    product = 1
    for size in sizes.values():
        product *= size
    return product


def time_kernel(device, row, both: list[np.ndarray], n: int, repeats: int) -> float:
    """Nanoseconds an element, the median."""
    sizes = sizes_of(row.name, n)
    count = next(iter(sizes.values())) ** (2 if len(sizes) > 1 else 1)
    shape = usual_shape(row, sizes)
    with Launch(device, row, [array[:count] for array in both], sizes) as launch:
        launch.start(shape)
        device.wait()
        seconds = statistics.median(
            device.seconds(lambda: launch.start(shape)) for _ in range(repeats)
        )
    return seconds / count_of(sizes) * 1e9


def row_of(kernel: str, nanoseconds: float, predicted: dict[str, Any] | None) -> dict[str, Any]:
    """Measured beside predicted; without a prediction where the device is not known."""
    row: dict[str, Any] = {"candidate": kernel, "ns_per_element": float(f"{nanoseconds:.4g}")}
    if predicted:
        least, most = TOLERANCE[WORK[kernel].threads]
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


def main() -> None:
    options = gpu_parser(__doc__, "elements of the largest launches").parse_args()
    device = choose_device(options.emulated)
    predictions = recorded_for(device.name()) or {}
    table = HostDevice("base").kernels()
    both = operands(options.n)
    rows = [
        row_of(
            kernel,
            time_kernel(device, table[kernel], both, options.n, options.repeats),
            predictions.get(kernel),
        )
        for kernel in WORK
    ]
    print_table(
        f"time an element, medians of {options.repeats}: {device.name()}",
        ["kernel", "measured", "predicted", "limited by", "ratio", "as predicted"],
        [cells(row) for row in rows],
    )
    record_and_print("bench_gpu_kernels", options, {"device": device.name(), "runs": rows})


if __name__ == "__main__":
    main()
