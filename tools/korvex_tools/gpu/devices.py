# SPDX-License-Identifier: Apache-2.0
"""Published figures of the GPUs for which times are predicted."""

from dataclasses import dataclass
from typing import NamedTuple

from korvex_tools.machine_code import DOUBLES_A_CYCLE


class Multiprocessor(NamedTuple):
    """What one holds (CUDA C++ Programming Guide, table of technical limits)."""

    threads: int
    blocks: int
    shared_bytes: int
    registers: int = 65536


MULTIPROCESSORS = {
    80: Multiprocessor(2048, 32, 164 * 1024),
    89: Multiprocessor(1536, 24, 100 * 1024),
    90: Multiprocessor(2048, 32, 228 * 1024),
}


@dataclass(frozen=True)
class Device:
    name: str
    pattern: str  # in the name that the driver gives
    architecture: int
    multiprocessors: int
    gigahertz: float  # the highest clock
    gigabytes_per_second: float  # of its memory

    @property
    def doubles_a_cycle(self) -> int:
        """Double-precision additions that a multiprocessor finishes in a cycle."""
        return DOUBLES_A_CYCLE[self.architecture]

    @property
    def multiprocessor(self) -> Multiprocessor:
        return MULTIPROCESSORS[self.architecture]


# NVIDIA's white papers on the H100, A100 and Ada architectures and the data sheet of the H200. The
# double-precision rates there, 33.5, 9.7 and 1.29 TFLOP/s, are these numbers multiplied, times 2.
H100 = Device("H100 SXM", "H100 80GB HBM3", 90, 132, 1.98, 3352)
A100 = Device("A100 SXM 80 GB", "A100-SXM4-80GB", 80, 108, 1.41, 2039)
RTX_4090 = Device("RTX 4090", "GeForce RTX 4090", 89, 128, 2.52, 1008)
H200 = Device("H200", "H200", 90, 132, 1.98, 4800)

DEVICES = (H100, A100, RTX_4090, H200)


def device_named(name: str) -> Device | None:
    """By what the driver calls it; None where no figures stand here."""
    return next((device for device in DEVICES if device.pattern in name), None)
