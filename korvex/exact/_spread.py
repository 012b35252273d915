# SPDX-License-Identifier: Apache-2.0
"""Operands whose elements lie in several processes: parts given with a group, and DTensors.

Every process accumulates its own part, and the states are added up over groups: the one that was
given, or those along the dimensions of a DTensor's mesh that its elements are cut along. Along
other dimensions all processes have the same elements, and nothing is sent.
"""

from __future__ import annotations

import sys
from collections.abc import Sequence
from typing import Any, NamedTuple

from korvex.exact._arrays import Operand, as_operand
from korvex.exact._homes import Array, Home
from korvex.exact._processes import all_reduce_state, ranks_of
from korvex.exact._state import State


class Spread(NamedTuple):
    """The part that this process has, and the groups that have all of it."""

    operand: Operand  # but its shape and its home are those of the whole
    groups: Sequence[Any]
    layout: object = None  # of a DTensor: equal layouts have elements of one index in one process

    @property
    def is_one_array(self) -> bool:
        """Whether there is no more to it than the operand."""
        return not self.groups and self.layout is None

    def combined(self, state: State) -> State:
        """Make the state of the part that of the whole."""
        for group in self.groups:
            all_reduce_state(state, group)
        return state


def as_spread(x: object, name: str, group: Any = None) -> Spread:
    """Recognise an array, with what its elements are part of."""
    if _is_dtensor(x):
        if group is not None:
            raise ValueError(
                f"{name} is a DTensor, which has groups of its own: group must be None"
            )
        return _of_dtensor(x, name)
    operand = as_operand(x, name)
    if group is None:
        return Spread(operand, ())
    if operand.is_complex:
        # Others may have given real numbers, and one message fewer.
        raise TypeError(f"{name} is complex: with a group, give {name}.real and {name}.imag apart")
    ranks_of(group)
    return Spread(operand, (group,))


# --- DTensor


def _is_dtensor(x: object) -> bool:
    tensors = sys.modules.get("torch.distributed.tensor")
    return tensors is not None and isinstance(x, tensors.DTensor)


def _of_dtensor(x: Any, name: str) -> Spread:
    mesh, groups = x.device_mesh, []
    for dimension, placement in enumerate(x.placements):
        if placement.is_partial():
            raise ValueError(
                f"{name} has the placement {placement}: its elements are yet to be added up over "
                f"processes, which rounds them; give {name}.redistribute(...), or the addends"
            )
        if not placement.is_replicate():
            groups.append(mesh.get_group(dimension))
    if mesh.get_coordinate() is None:
        raise ValueError(f"{name} is on a mesh that does not have this process in it")
    local = x.to_local()
    operand = as_operand(local.wait() if hasattr(local, "wait") else local, name)
    whole = operand._replace(shape=tuple(x.shape), home=_MeshHome(mesh, operand.home))
    return Spread(whole, groups, (mesh, tuple(x.placements)))


class _MeshHome(Home):
    """A DTensor's mesh: a result is the same in all of its processes."""

    def __init__(self, mesh: Any, local: Home) -> None:
        self.mesh = mesh
        self.local = local

    @property
    def description(self) -> str:  # type: ignore[override]
        return f"a DTensor on {self.mesh}"

    def give(self, values: Array, name: str) -> Any:
        tensors = sys.modules["torch.distributed.tensor"]
        placements = [tensors.Replicate()] * self.mesh.ndim
        part = self.local.give(values, name)
        return tensors.DTensor.from_local(part, self.mesh, placements, run_check=False)
