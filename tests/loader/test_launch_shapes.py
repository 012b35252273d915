# SPDX-License-Identifier: Apache-2.0
"""Shapes of launches: loader and emulated device take the same, and refuse with one text."""

# All 23 kernels on both, with arguments for one element.
BOTH = """
import itertools
import torch
from korvex.emulation import _stand_ins
from korvex.emulation._library import HostLibrary

loader = import_loader().NativeCubinLoader()
library = HostLibrary("base", threads=1)
rows = list(library.kernels.values())
assert len(rows) == 23

def arguments_of(row, make_array):
    made = {"array": make_array, "i64": lambda: 1, "f64": lambda: 0.5}
    return tuple(made[parameter.kind]() for parameter in row.parameters)

def kernels_of(row):
    on_device = arguments_of(row, lambda: DeviceArray(driver, [0.5] * 4))
    emulated = arguments_of(
        row, lambda: _stand_ins.DeviceArray(torch.full((4,), 0.5, dtype=torch.float64)))
    return ((loader.get_kernel(row.name), on_device), (_stand_ins.Kernel(library, row), emulated))

def outcome(call):
    try:
        assert call() is None
    except (TypeError, ValueError) as error:
        return f"{type(error).__name__}: {error}"
    return "launched"

def check(row, call):
    (kernel, arguments), (emulated, emulated_arguments) = kernels_of(row)
    found = outcome(lambda: call(kernel, arguments))
    expected = outcome(lambda: call(emulated, emulated_arguments))
    assert found == expected, (found, expected)
    return found

SIZES = (1, 2, 31, 32, 33, 255, 256, 257, 512, 1023, 1024, 1025)
BLOCKS = [(n, 1, 1) for n in SIZES] + [(1, n, 1) for n in SIZES] + [
    (1, 1, 64), (1, 1, 65), (16, 16, 1), (16, 17, 1), (8, 8, 4), (2, 2, 64), (2, 2, 65),
    (32, 32, 1), (32, 33, 1), (256, 1, 2), (1024, 1, 1), (512, 2, 1), (1024, 1024, 64),
    (0, 1, 1), (256, 0, 1), (1, 1, 0), (-1, 1, 1), (2**31, 1, 1), (2**32, 1, 1), (2**80, 1, 1)]
GRIDS = [
    (1, 1, 1), (0, 1, 1), (3, 0, 1), (2, 1, 0), (5, 4, 3), (65535, 65535, 65535), (65536, 1, 1),
    (1, 65536, 1), (1, 1, 65536), (2**31 - 1, 1, 1), (2**31, 1, 1), (1, 2**31 - 1, 1),
    (1, 2**31, 1), (-1, 1, 1), (1, -1, 1), (2**63, 1, 1), (2**80, 1, 1)]
NO_EXTENTS = [
    None, 1, (1, 1), (1, 1, 1, 1), [1, 1, 1], (1.0, 1, 1), (True, 1, 1), (1, None, 1), "111"]
"""


def test_both_devices_answer_every_block_alike(run):
    run(
        BOTH
        + """
import math
for row in rows:
    own = (row.block, 1, 1) if row.block else None
    for block in NO_EXTENTS:
        found = check(row, lambda kernel, given: kernel.function((1, 1, 1), block, given))
        assert found == (
            f"TypeError: {row.name}: block must be a tuple of three int, not {block!r}")
    for block in BLOCKS:
        found = check(row, lambda kernel, given: kernel.function((1, 1, 1), block, given))
        is_of_a_device = all(1 <= n <= most for n, most in zip(block, (1024, 1024, 64)))
        if not is_of_a_device or math.prod(block) > (1024 if own else 256):
            assert found == f"ValueError: {row.name}: block {block} is out of range"
        elif own and block != own:
            assert found == f"ValueError: {row.name}: block must be {own}, not {block}"
        else:
            assert found == "launched", found
""",
    )


def test_both_devices_answer_every_grid_alike(run):
    run(
        BOTH
        + """
for row in rows:
    block = (row.block, 1, 1) if row.block else (32, 2, 1)
    def outcomes(grid):
        found = {check(row, lambda kernel, given: kernel.function(grid, block, given))}
        if row.block:
            found.add(check(row, lambda kernel, given: kernel.launch(*given, grid=grid)))
        return found

    for grid in NO_EXTENTS:
        assert outcomes(grid) == {
            f"TypeError: {row.name}: grid must be a tuple of three int, not {grid!r}"}
    most = (2**31 - 1, 2**31 - 1 if row.strides_along_y else 65535, 65535)
    for grid in GRIDS:
        found = outcomes(grid)
        if not all(0 <= n <= limit for n, limit in zip(grid, most)):
            assert found == {f"ValueError: {row.name}: grid {grid} is out of range"}
        else:
            assert found == {"launched"}, (grid, found)
""",
    )


def test_both_devices_look_at_grid_block_and_arguments_in_one_order(run):
    run(
        BOTH
        + """
for row in rows:
    for grid, block, given in itertools.product(
            [(1, 1, 1), (-1, 1, 1), None], [(256, 1, 1), (3, 1, 1), (2048, 1, 1), 5], [(), [1], 7]):
        check(row, lambda kernel, _: kernel.function(grid, block, given))
    if not row.block:
        found = check(row, lambda kernel, given: kernel.launch(*given, grid=None))
        assert found == f"TypeError: {row.name} has no block of its own: call function()"
""",
    )


def test_refused_launches_never_reach_the_driver(run):
    run(
        BOTH
        + """
for row in rows:
    (kernel, given), _ = kernels_of(row)
    kernel.function((1, 1, 1), (row.block or 256, 1, 1), given)
driver.synchronize()
driver.take_log()
for row in rows:
    (kernel, given), _ = kernels_of(row)
    for block in ((257, 1, 1), (512, 1, 1), (32, 32, 1) if not row.block else (32, 1, 1)):
        with pytest.raises(ValueError):
            kernel.function((1, 1, 1), block, given)
assert driver.take_log() == []
""",
    )
