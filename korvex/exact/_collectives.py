# SPDX-License-Identifier: Apache-2.0
"""Collectives that add tensors element by element over processes, each sum exact, rounded once.

Every process is sent the elements of one share of the tensor by all others, adds them up exactly
down the columns, and sends the rounded share to all. That moves as many bytes as a ring does.
"""

from __future__ import annotations

import itertools
import weakref
from collections.abc import Callable, Iterator, MutableMapping
from typing import Any

from korvex.exact import _native, _threads
from korvex.exact._homes import empty
from korvex.exact._processes import checked_tensor, distributed, ranks_of

_FORMATS = ("float64", "float32", "bfloat16")

# Tags of messages between two processes. Calls come in the same order everywhere, so their numbers
# are equal; a program's own messages have small tags.
_FIRST_TAG, _TAGS = 1 << 30, 1 << 16
_calls: MutableMapping[Any, Iterator[int]] = weakref.WeakKeyDictionary()  # by group


def all_reduce(t: Any, /, group: Any = None, async_op: bool = False) -> Any:
    """Add tensors over the processes of a group, in place: each element exactly, rounded once.

    The result has the same bits in every process, for any number of processes that hold the same
    addends in any order.

    Parameters
    ----------
    t : torch tensor
        On the CPU, of float64, float32 or bfloat16, of one shape and dtype in all processes.
    group : ProcessGroup, optional
        None is the default group of `torch.distributed`.
    async_op : bool
        Whether to return at once. `t` must be left alone then until the work is waited for.

    Returns
    -------
    None, or a Work of `torch.distributed` if asynchronous
        What went wrong in the engine is raised by the call, or by its `wait`.

    Examples
    --------
    >>> import torch
    >>> import torch.distributed as dist
    >>> from korvex import exact
    >>> dist.init_process_group("gloo", store=dist.HashStore(), rank=0, world_size=1)
    >>> t = torch.tensor([1.5, -0.0])
    >>> exact.all_reduce(t)
    >>> t
    tensor([1.5000, 0.0000])
    >>> dist.destroy_process_group()
    """
    form = checked_tensor(t, "t", _FORMATS)
    rank, ranks = ranks_of(group)
    flat = t.detach().reshape(-1)  # its own memory if that is contiguous, else a copy
    step = _all_reduce([flat], flat, form, group, rank, ranks)

    def finish() -> None:
        step()
        if flat.data_ptr() != t.data_ptr():
            t.detach().copy_(flat.view(t.shape))

    return _run(finish, t, async_op)


def reduce_scatter_tensor(out: Any, t: Any, /, group: Any = None, async_op: bool = False) -> Any:
    """Add tensors over the processes of a group and keep one share of the sum in each.

    Parameters
    ----------
    out : torch tensor
        The share of this process is written to it: the first process of the group gets the first
        elements of the sum, and so on.
    t : torch tensor
        With as many elements as `out` has, times the number of processes; else as of `all_reduce`.
    group, async_op
        As of `all_reduce`.

    Returns
    -------
    None, or a Work of `torch.distributed` if asynchronous

    Examples
    --------
    >>> import torch
    >>> import torch.distributed as dist
    >>> from korvex import exact
    >>> dist.init_process_group("gloo", store=dist.HashStore(), rank=0, world_size=1)
    >>> out = torch.empty(2)
    >>> exact.reduce_scatter_tensor(out, torch.tensor([1.5, 2.0]))
    >>> out
    tensor([1.5000, 2.0000])
    >>> dist.destroy_process_group()
    """
    form = checked_tensor(t, "t", _FORMATS)
    if checked_tensor(out, "out", _FORMATS) != form:
        raise TypeError(f"out has the dtype {out.dtype}, and t has {t.dtype}")
    _, ranks = ranks_of(group)
    if out.numel() * ranks != t.numel():
        raise ValueError(
            f"out has {out.numel()} elements, and t has {t.numel()}: with {ranks} processes t has "
            f"to have {ranks} times as many"
        )
    received = _sent_shares(t.detach().reshape(-1), [out.numel()] * ranks, out.numel(), group)

    def finish() -> None:
        work, rows = received
        work.wait()
        out.detach().copy_(_column_sums([rows], form).view(out.shape))

    return _run(finish, out, async_op)


# --- The three steps


def sum_over_processes(parts: list[Any], out: Any, group: Any) -> None:
    """Write the sum of all parts of all processes, tensors like `out`, without axes but one.

    `out` may be of another format than the parts, and may be one of them.
    """
    rank, ranks = ranks_of(group)
    form = str(out.dtype).rpartition(".")[2]
    _all_reduce(parts, out, form, group, rank, ranks)()


def _all_reduce(
    parts: list[Any], out: Any, form: str, group: Any, rank: int, ranks: int
) -> Callable[[], None]:
    """Begin to send the shares, and return what does the rest."""
    if out.numel() == 0:
        return lambda: None
    quotient, rest = divmod(out.numel(), ranks)
    sizes = [quotient + (each < rest) for each in range(ranks)]
    tag = _next_tag(group)
    received = [_sent_shares(part, sizes, sizes[rank], group) for part in parts]

    def finish() -> None:
        for work, _ in received:
            work.wait()
        shares = out.split(sizes)
        shares[rank].copy_(_column_sums([rows for _, rows in received], form))
        _exchange_shares(shares, group, rank, tag)

    return finish


def _next_tag(group: Any) -> int:
    named = distributed().group.WORLD if group is None else group
    return _FIRST_TAG + next(_calls.setdefault(named, itertools.count())) % _TAGS


def _sent_shares(flat: Any, sizes: list[int], own: int, group: Any) -> tuple[Any, Any]:
    """Begin to send each process its share; the work, and where the rows of all come in.

    As bytes: engines do not know every dtype.
    """
    import torch

    engine, width = distributed(), flat.element_size()
    rows = torch.empty(len(sizes), own, dtype=flat.dtype)
    work = engine.all_to_all_single(
        rows.view(-1).view(torch.uint8),
        flat.contiguous().view(torch.uint8),
        [own * width] * len(sizes),
        [size * width for size in sizes],
        group=group,
        async_op=True,
    )
    return work, rows


def _column_sums(parts: list[Any], form: str) -> Any:
    """The sums down the columns of all parts, as a tensor of the format."""
    import torch

    rows = parts[0] if len(parts) == 1 else torch.cat(parts)
    is_bfloat16 = rows.dtype == torch.bfloat16
    values = rows.view(torch.uint16).numpy() if is_bfloat16 else rows.numpy()
    sums = empty((rows.shape[1],), form)
    _native.column_sums(values, sums, form, _threads.count, "bfloat16" if is_bfloat16 else None)
    return torch.from_numpy(sums).view(getattr(torch, form))


def _exchange_shares(shares: Any, group: Any, rank: int, tag: int) -> None:
    """Send the own share to all others, and take theirs.

    By messages between two processes each, which carry a tag: unlike a collective they may be under
    way beside others that the program has begun meanwhile.
    """
    import torch

    engine = distributed()
    own = shares[rank].view(torch.uint8)
    works = []
    for peer, share in enumerate(shares):
        if peer == rank:
            continue
        if share.numel():
            bytes_of_peer = share.view(torch.uint8)
            works.append(engine.irecv(bytes_of_peer, group=group, tag=tag, group_src=peer))
        if own.numel():
            works.append(engine.isend(own, group=group, tag=tag, group_dst=peer))
    for work in works:
        work.wait()


# --- Asynchronous calls


def _run(finish: Callable[[], None], value: Any, async_op: bool) -> Any:
    if async_op:
        from korvex.exact._works import WorkOnThread

        return WorkOnThread(finish, value)
    finish()
    return None
