# SPDX-License-Identifier: Apache-2.0
"""Replaces attributes of modules and classes, and can put all of them back."""

from __future__ import annotations

from typing import Any

_ABSENT = object()


class Patches:
    """The attributes replaced so far, with what stood there in the owner itself."""

    def __init__(self) -> None:
        self._replaced: list[tuple[Any, str, Any]] = []

    def set(self, owner: Any, name: str, value: Any) -> None:
        """Replace one attribute; an inherited one is hidden, not changed."""
        self._replaced.append((owner, name, vars(owner).get(name, _ABSENT)))
        setattr(owner, name, value)

    def undo(self) -> None:
        """Put back what stood there, the last first."""
        while self._replaced:
            owner, name, value = self._replaced.pop()
            if value is _ABSENT:
                delattr(owner, name)
            else:
                setattr(owner, name, value)
