# SPDX-License-Identifier: Apache-2.0
"""Launches for the checks on a GPU: one kernel, on one device, on any grid and block."""

import hashlib
import json
import math

import numpy as np

BLOCK = 256
UNWRITTEN = 7.0  # in the outputs before a launch


class Sums:
    """An array on a device, summed by either kernel."""

    def __init__(self, device, values: np.ndarray | int, offset: int = 0) -> None:
        """The array starts `offset` elements into its memory; a number leaves that many unset."""
        self._device = device
        self._n = values if isinstance(values, int) else values.size
        self._memory = device.allocate(self._n + offset)
        self.x = self._memory + 8 * offset
        self._out = device.allocate(4)
        self._out_err = device.allocate(1)
        if not isinstance(values, int):
            device.write(self.x, values)

    def __enter__(self) -> "Sums":
        return self

    def __exit__(self, *_) -> None:
        for address in (self._memory, self._out, self._out_err):
            self._device.free(address)

    def sequential(self, grid=(1, 1, 1), block=(1, 1, 1)) -> list[int]:
        """The bits of the four limbs."""
        device = self._device
        device.write(self._out, np.full(4, UNWRITTEN))
        device.launch("tqx_sum_seq_kernel", grid, block, self.x, self._out, self._n)
        device.wait()
        return bits(device.read(self._out, 4))

    def parallel(self, grid=None, block=(BLOCK, 1, 1)) -> list[int]:
        """The bits of the two limbs."""
        device = self._device
        device.write(self._out, np.full(1, UNWRITTEN))
        device.write(self._out_err, np.full(1, UNWRITTEN))
        self.start_parallel(grid, block)
        device.wait()
        return bits(np.append(device.read(self._out, 1), device.read(self._out_err, 1)))

    def start_parallel(self, grid=None, block=(BLOCK, 1, 1)) -> None:
        grid = grid or (max(1, -(-self._n // BLOCK)), 1, 1)
        arguments = (self.x, self._out, self._out_err, self._n)
        self._device.launch("tqx_sum_kernel", grid, block, *arguments)

    def results(self) -> list[int]:
        """What the last launches left: of the parallel kernel."""
        self._device.wait()
        return bits(np.append(self._device.read(self._out, 1), self._device.read(self._out_err, 1)))


def bits(values: np.ndarray) -> list[int]:
    return values.view(np.uint64).tolist()


def digest(results: dict[str, list[int]]) -> str:
    return hashlib.sha256(json.dumps(results, sort_keys=True).encode()).hexdigest()


# --- Any kernel


def elementwise_kernels(host) -> list:
    """The rows of all kernels that make n elements out of n elements and of numbers."""
    return [
        row
        for row in host.kernels().values()
        if row.form == "launch"
        and {p.factors for p in row.parameters if p.kind == "array"} == {("n",)}
        and row.name not in ("tqx_cumsum_kernel", "tqx_rms_norm_kernel")
    ]


def run_kernel(device, row, sources: list, sizes: dict[str, int], grid, block) -> np.ndarray:
    """The bits of all outputs, one array after the other; `sizes` are the whole numbers by name."""
    waiting = iter(sources)
    arguments, memory, outputs = [], [], []
    for parameter in row.parameters:
        if parameter.kind == "array":
            factors = (sizes[f] if f in sizes else int(f) for f in parameter.factors)
            count = math.prod(factors)
            address = device.allocate(count)
            memory.append(address)
            is_output = parameter.name.lower().startswith(("out", "c"))
            device.write(address, np.full(count, UNWRITTEN) if is_output else next(waiting))
            outputs += [(address, count)] if is_output else []
            arguments.append(address)
        else:
            arguments.append(sizes[parameter.name] if parameter.kind == "i64" else 0.01)
    device.launch(row.name, grid, block, *arguments)
    device.wait()
    result = np.concatenate([device.read(*output) for output in outputs]).view(np.uint64)
    for address in memory:
        device.free(address)
    return result


def run_elementwise(device, row, arrays: list[np.ndarray], grid: tuple) -> np.ndarray:
    return run_kernel(device, row, arrays, {"n": arrays[0].size}, grid, (row.block, 1, 1))


def launch_shapes(row) -> list[tuple[tuple, tuple]]:
    """Grids and blocks that a kernel must serve; the first is the one that the package uses."""
    one = (1, 1, 1)
    if row.name == "tqx_matmul_kernel":
        return [((3, 2, 1), (16, 16, 1)), (one, (16, 16, 1)), ((40, 1, 1), (8, 4, 1)), (one, one)]
    if row.form == "function":  # one thread does it all
        return [(one, one), ((3, 2, 2), (32, 2, 1)), ((1, 5, 1), (256, 1, 1))]
    if row.block == 1024:  # block 0 does it all
        blocks = [(1024, 1, 1), (32, 1, 1), (96, 1, 1), (16, 16, 2)]
        blocks += [(33, 1, 1)] if row.name == "tqx_rms_norm_kernel" else [(1, 1, 1)]
        return [(one, block) for block in blocks] + [((2, 3, 2), (512, 1, 1))]
    grids = [(12, 1, 1), one, (3, 1, 1), (500, 1, 1)]
    return [(grid, (threads, 1, 1)) for grid in grids for threads in (256, 32, 96)]


def small_launch(row, arrays: list[np.ndarray], n: int) -> tuple[list[np.ndarray], dict[str, int]]:
    """Operands out of two arrays, and sizes: n elements, or matrices of fewer than n."""
    if row.name == "tqx_matmul_kernel":
        m, k, columns = 37, 50, 41
        sizes = {"M": m, "K": k, "N": columns}
        return [np.resize(arrays[0], m * k), np.resize(arrays[1], k * columns)], sizes
    return [array[:n].copy() for array in arrays], {"n": min(n, arrays[0].size)}
