# SPDX-License-Identifier: Apache-2.0
"""States over the processes of a `torch.distributed` group: one message a process.

The message is the settled state as a tensor of int64, and the engine adds such tensors word by
word: that is the exact sum of what all processes hold, in whatever order the engine adds. Settled
digits are below 2^32, so the words of 2^31 - 1 processes add up without a carry.

torch is imported when a group is used and not before. What goes wrong in the engine, a process that
died above all, is the engine's own exception.
"""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

from korvex.exact._state import State


def distributed() -> Any:
    """The module `torch.distributed`."""
    import torch.distributed

    return torch.distributed


def ranks_of(group: Any) -> tuple[int, int]:
    """This process's number in the group and how many there are; None is the default group."""
    engine = distributed()
    rank: int = engine.get_rank(group)
    if rank < 0:
        raise ValueError("group does not have this process in it")
    return rank, engine.get_world_size(group)


def checked_tensor(t: Any, name: str, formats: Sequence[str]) -> str:
    """The format of a tensor in host memory; an error that names the argument for all else."""
    import torch

    if not isinstance(t, torch.Tensor):
        raise TypeError(f"{name} must be a torch tensor, not {type(t).__name__}")
    if type(t).__torch_dispatch__ is not torch.Tensor.__torch_dispatch__:
        raise TypeError(
            f"{name} is a {type(t).__name__}, which is not one tensor in host memory: give that"
        )
    if t.device.type != "cpu":
        raise TypeError(f"{name} is on the device {t.device}: give a tensor on the CPU")
    if t.layout != torch.strided:
        raise TypeError(f"{name} has the layout {t.layout}: give {name}.to_dense()")
    form = str(t.dtype).rpartition(".")[2]
    if form not in formats:
        raise TypeError(f"{name} has the dtype {t.dtype}, not one of {', '.join(formats)}")
    return form


# --- States


def all_reduce_state(state: State, group: Any = None, async_op: bool = False) -> Any:
    """Make the state that of all processes together, in each; a Work if asynchronous.

    Without `async_op` the engine works on a copy, so a call that fails leaves the state as it was.
    """
    engine = distributed()
    ranks_of(group)
    message = _Message(state, group, copied=not async_op)
    work = engine.all_reduce(message.words, op=engine.ReduceOp.SUM, group=group, async_op=async_op)
    if async_op:
        return message.work(work)
    message.put_back()
    return None


def reduce_state(state: State, dst: int, group: Any = None) -> None:
    """The same in the process `dst` alone; those of the others stay as they are.

    The engine works on a copy everywhere: what a plain reduce leaves in other processes is
    undefined.
    """
    engine = distributed()
    ranks_of(group)
    message = _Message(state, group, copied=True)
    engine.reduce(message.words, dst=dst, op=engine.ReduceOp.SUM, group=group)
    if engine.get_rank() == dst:
        message.put_back()


class _Message:
    """The words of a state as a tensor that the group's engine can send."""

    def __init__(self, state: State, group: Any, copied: bool) -> None:
        import torch

        state.settle()
        self._state = state
        own = torch.from_numpy(state.on_host().words)
        self._is_own = False
        if _sends_from_gpus(group):  # never run: no machine so far had two GPUs
            self.words = own.to(torch.device("cuda", torch.cuda.current_device()))
        elif copied:
            self.words = own.clone()
        else:
            self.words = own
            self._is_own = state.device is None

    def put_back(self) -> None:
        self._state.replace(self.words.cpu().numpy())

    def work(self, work: Any) -> Any:
        """What the caller waits for: the engine's own where it works on the state itself."""
        if self._is_own:
            return work
        from korvex.exact._works import WorkWithStep

        return WorkWithStep(work, self.put_back)


def _sends_from_gpus(group: Any) -> bool:
    """Whether the group's engine takes tensors in the memory of GPUs only, as NCCL does."""
    return bool(distributed().get_backend(group) == "nccl")
