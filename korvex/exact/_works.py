# SPDX-License-Identifier: Apache-2.0
"""What an asynchronous collective returns: works as `torch.distributed` has them.

Imported by such a call and not before, since it imports torch.
"""

from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any

import torch
import torch.distributed as dist


class WorkOnThread(dist.Work):  # type: ignore[misc]
    """The rest of a call, on a thread of its own; `value` is the tensor that it fills."""

    def __init__(self, finish: Callable[[], None], value: torch.Tensor) -> None:
        super().__init__()
        self._finish = finish
        self._value = value
        self._error: Exception | None = None
        self._future: torch.futures.Future[list[torch.Tensor]] = torch.futures.Future()
        self._thread = threading.Thread(target=self._call, daemon=True)
        self._thread.start()

    def _call(self) -> None:
        try:
            self._finish()
        except Exception as error:  # raised by wait(), where the caller can see it
            self._error = error
            self._future.set_exception(error)
        else:
            self._future.set_result([self._value])

    def is_completed(self) -> bool:
        """Whether `wait` would return, or raise, at once."""
        return not self._thread.is_alive()

    def wait(self, timeout: Any = None) -> bool:
        """Wait until the tensor holds the sums; a timeout is a `datetime.timedelta`."""
        self._thread.join(timeout.total_seconds() if timeout is not None else None)
        if self._thread.is_alive():
            raise RuntimeError(f"the work is not completed after {timeout}")
        if self._error is not None:
            raise self._error
        return True

    def get_future(self) -> torch.futures.Future[list[torch.Tensor]]:
        """A future of a list with the tensor in it, as engines give it."""
        return self._future


class WorkWithStep(dist.Work):  # type: ignore[misc]
    """An engine's work with one more step, made by the thread that finds the work completed."""

    def __init__(self, work: dist.Work, step: Callable[[], None]) -> None:
        super().__init__()
        self._work = work
        self._step: Callable[[], None] | None = step

    def is_completed(self) -> bool:
        """Whether `wait` would return, or raise, at once."""
        return self._step is None or self._work.is_completed()

    def wait(self, *arguments: Any) -> bool:
        """Wait until the accumulator holds the sum, as the engine's work waits."""
        self._work.wait(*arguments)
        step, self._step = self._step, None
        if step is not None:
            step()
        return True
