# SPDX-License-Identifier: Apache-2.0
"""The emulated device as callers see it, and the one that this process has."""

from __future__ import annotations

from pathlib import Path
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from korvex.emulation._library import HostLibrary


class EmulatedDevice:
    """The emulated device of this process.

    Parameters
    ----------
    library : HostLibrary
    """

    def __init__(self, library: HostLibrary) -> None:
        self._library = library

    @property
    def threads(self) -> int:
        """Host threads that one kernel may use."""
        return self._library.threads

    @property
    def instruction_set(self) -> str:
        """Which build of the kernels runs: "base", "fma" or "avx512"."""
        return self._library.instruction_set

    @property
    def library(self) -> Path:
        """The file of the kernels."""
        return self._library.path

    @property
    def name(self) -> str:
        """What `torch.cuda.get_device_name` returns."""
        return f"korvex emulated CUDA device ({self.instruction_set})"

    def __repr__(self) -> str:
        plural = "" if self.threads == 1 else "s"
        return f"<EmulatedDevice: {self.instruction_set} kernels, {self.threads} thread{plural}>"

    def __str__(self) -> str:
        return f"{self.name}, {self.threads} threads, {self.library}"


# Set by `korvex.emulation.activate`, once; None before.
active: EmulatedDevice | None = None
