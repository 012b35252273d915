# SPDX-License-Identifier: Apache-2.0
"""Replaces attributes of modules and classes and items of dicts, and can put all of them back."""

from __future__ import annotations

from collections.abc import Callable, MutableMapping
from functools import partial
from typing import Any

_ABSENT = object()


class Patches:
    """What was replaced so far, as the calls that put it back."""

    def __init__(self) -> None:
        self._restoring: list[Callable[[], None]] = []

    def set(self, owner: Any, name: str, value: Any) -> None:
        """Replace one attribute; an inherited one is hidden, not changed."""
        before = vars(owner).get(name, _ABSENT)
        setattr(owner, name, value)
        put_back = partial(setattr, owner, name, before)
        self._restoring.append(partial(delattr, owner, name) if before is _ABSENT else put_back)

    def set_item(self, mapping: MutableMapping[str, Any], key: str, value: Any) -> None:
        """Replace one item of a mapping."""
        before = mapping.get(key, _ABSENT)
        mapping[key] = value
        put_back = partial(mapping.__setitem__, key, before)
        self._restoring.append(partial(mapping.pop, key, None) if before is _ABSENT else put_back)

    def undo(self) -> None:
        """Put back what stood there, the last first."""
        while self._restoring:
            self._restoring.pop()()
