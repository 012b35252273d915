# SPDX-License-Identifier: Apache-2.0
"""How much memory a call holds at its peak, beside what the process holds anyway."""

import ctypes
import re
from collections.abc import Callable
from pathlib import Path
from typing import Any


def held_by(call: Callable[[], Any]) -> int:
    """Bytes that a second call holds at its peak, its result among them: of the resident set."""
    call()
    ctypes.CDLL(None).malloc_trim(0)  # memory that is kept for later calls would hide this one's
    Path("/proc/self/clear_refs").write_text("5")  # the peak starts anew
    before = resident("VmRSS")
    call()
    return max(resident("VmHWM") - before, 0)


def resident(name: str) -> int:
    status = Path("/proc/self/status").read_text()
    return int(re.search(rf"^{name}:\s+(\d+) kB$", status, re.MULTILINE)[1]) * 1024
