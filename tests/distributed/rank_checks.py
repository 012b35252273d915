# SPDX-License-Identifier: Apache-2.0
"""What each of several processes checks; run_ranks.py calls these in all of them at once.

All processes draw the same data from the same seed, so each knows what the others give, and what
the whole is. A check gets its number and how many processes there are.
"""

import hashlib
import os
from fractions import Fraction
from functools import partial
from pathlib import Path

import exact_oracle as oracle
import numpy as np
import torch
import torch.distributed as dist
from torch.distributed.tensor import DTensor, Replicate, Shard, distribute_tensor

from korvex import exact

MAX = (2.0 - 2.0**-52) * 2.0**1023
DTYPES = ("float64", "float32", "float16", "int64", "int8", "bool")


def bits(x):
    """Bits of a result of any library, with its dtype; all NaN are alike."""
    x = x.full_tensor() if isinstance(x, DTensor) else x
    x = x.view(torch.int16) if isinstance(x, torch.Tensor) and x.dtype == torch.bfloat16 else x
    array = np.array(x)
    if array.dtype.kind == "f":
        array[np.isnan(array)] = np.nan
    return array.dtype.name, array.tobytes()


def data_sets():
    """Arrays of float64 that rounded sums make something else of, in every order."""
    generator = np.random.default_rng(17)
    wide = generator.standard_normal(2000) * 2.0 ** generator.uniform(-300, 300, 2000)
    cancelling = np.concatenate([wide, -wide[:-1]])
    generator.shuffle(cancelling)
    return {
        "normal": generator.standard_normal(3001),
        "wide": wide,
        "cancelling": cancelling,
        "least and most": np.array([2.0**-1074, MAX, MAX, -MAX, 2.0**-1060, -MAX] * 3),
        "nothing": np.zeros(0),
    }


def owned(x, generator, rank, ranks):
    """Pieces of an array by random cuts, those of a random owner; some may own none."""
    cuts = np.sort(generator.integers(0, x.size + 1, 7))
    owners = generator.integers(0, ranks, 8)
    pieces = np.split(x, cuts)
    return [piece for piece, owner in zip(pieces, owners, strict=True) if owner == rank]


def one_array(pieces):
    return np.concatenate([np.zeros(0), *pieces])


def filled(kind, pieces):
    total = kind()
    for piece in pieces:
        total.add(*[piece] * (2 if kind is exact.Dot else 1))
    return total


# --- Accumulators


def accumulators(rank, ranks):
    """Three kinds, any cut, any owner: the state of the whole, in every process."""
    for seed, x in enumerate(data_sets().values()):
        generator = np.random.default_rng(seed)
        pieces = owned(x, generator, rank, ranks)
        for kind in (exact.Sum, exact.Dot, exact.Moments):
            whole, part = filled(kind, [x]), filled(kind, pieces)
            assert part.all_reduce() is None
            assert part == whole and part.checksum() == whole.checksum()
            part.add(*[x] * (2 if kind is exact.Dot else 1))  # it can go on from there
            assert part == whole + whole


def accumulators_async(rank, ranks):
    x = data_sets()["wide"]
    parts = [filled(kind, np.array_split(x, ranks)[rank : rank + 1]) for kind in (exact.Sum,) * 3]
    works = [part.all_reduce(async_op=True) for part in parts]
    for work in reversed(works):
        work.wait()
    assert works[0].is_completed()
    assert all(part == filled(exact.Sum, [x]) for part in parts)


def reduce_to_one(rank, ranks):
    x = data_sets()["cancelling"]
    for dst in range(ranks):
        part = filled(exact.Moments, np.array_split(x, ranks)[rank : rank + 1])
        before = part.copy()
        part.reduce(dst)
        assert part == (filled(exact.Moments, [x]) if rank == dst else before)


def different_dtypes(rank, ranks):
    """One process has float64, the next float32, integers, truth values."""
    parts = [np.array([1, 0, 1, 1]).astype(DTYPES[each % len(DTYPES)]) for each in range(ranks)]
    total = filled(exact.Sum, parts[rank : rank + 1])
    total.all_reduce()
    assert float(total) == 3.0 * ranks and total.count == 4 * ranks
    assert exact.mean(parts[rank], group=dist.group.WORLD) == 0.75
    big = np.array([2**63 - 1] if rank % 2 else [1.0 - 2.0**53])
    assert exact.sum(big, group=dist.group.WORLD) == float(
        sum(2**63 - 1 if each % 2 else 1 - 2**53 for each in range(ranks))
    )


def specials(rank, ranks):
    """NaN or an infinity in one process is seen by all; infinities of both signs are NaN."""
    last = ranks - 1
    for value, expected in ((np.nan, np.nan), (np.inf, np.inf), (-np.inf, -np.inf)):
        x = np.array([1.0, value if rank == last else 2.0])
        for function in (exact.sum, exact.mean):
            assert bits(function(x, group=dist.group.WORLD))[1] == bits(np.float64(expected))[1]
        assert np.isnan(exact.var(x, group=dist.group.WORLD))
    both = np.array([np.inf if rank == 0 else -np.inf])
    total = filled(exact.Sum, [both])
    total.all_reduce()
    assert np.isnan(float(total)) == (ranks > 1)
    total.subtract(both)  # what this process gave leaves the others' as they are
    assert total.count == ranks - 1


def functions(rank, ranks):
    for seed, x in enumerate(data_sets().values()):
        own = one_array(owned(x, np.random.default_rng(seed), rank, ranks))
        for dtype in (None, "float32"):
            for function in (exact.sum, exact.mean, exact.vector_norm):
                found = function(own, dtype=dtype, group=dist.group.WORLD)
                assert bits(found) == bits(function(x, dtype=dtype))
            for function in (exact.var, exact.std):
                for correction in (0, 1):
                    found = function(
                        own, correction=correction, dtype=dtype, group=dist.group.WORLD
                    )
                    assert bits(found) == bits(function(x, correction=correction, dtype=dtype))
        assert bits(exact.vecdot(own, -own, group=dist.group.WORLD)) == bits(exact.vecdot(x, -x))
    tensor = torch.full((2, 3), 0.1)
    found = exact.sum(tensor, keepdims=True, group=dist.group.WORLD)
    assert isinstance(found, torch.Tensor) and found.shape == (1, 1)
    assert found.item() == float(Fraction(float(np.float32(0.1))) * 6 * ranks)


def restarts_from_bytes(rank, ranks):
    """A process may end after any step and go on from bytes that it wrote."""
    x = data_sets()["wide"]
    total = exact.Moments()
    for piece in np.array_split(np.array_split(x, ranks)[rank], 5):
        total = exact.loads(bytes(total))
        total.add(piece)
    total.all_reduce()
    total = exact.loads(bytes(total))
    assert total == filled(exact.Moments, [x])


def part_of_the_processes(rank, ranks):
    """A group of some: an error in the others says that they are not in it."""
    some = dist.new_group(sorted({0, ranks - 1}))
    total = filled(exact.Sum, [np.array([0.5])])
    if rank in (0, ranks - 1):
        total.all_reduce(some)
        assert float(total) == 0.5 * len({0, ranks - 1})
        t = torch.ones(5)
        exact.all_reduce(t, group=some)
        assert t.tolist() == [len({0, ranks - 1})] * 5
    else:
        for call in (total.all_reduce, lambda group: exact.sum(np.ones(1), group=group)):
            try:
                call(group=some)
            except ValueError as error:
                assert "does not have this process in it" in str(error)
            else:
                raise AssertionError("no error")
        assert float(total) == 0.5


# --- Element by element


def rounded_columns(rows, dtype):
    """By rational numbers: of rows of numbers the sum of each column as a tensor."""
    form = str(dtype).rpartition(".")[2]
    sums = [oracle.rounded(oracle.exact_sum(column), form) for column in zip(*rows, strict=True)]
    return torch.tensor(sums, dtype=torch.float64).to(dtype)


def drawn(dtype, count, seed, specials=False):
    generator = torch.Generator().manual_seed(seed)
    spread = {torch.float64: 200, torch.float32: 30, torch.bfloat16: 30}[dtype]
    exponents = (torch.rand(count, generator=generator) - 0.5) * spread
    x = torch.randn(count, generator=generator, dtype=torch.float64) * 2.0**exponents
    x = x.to(dtype)
    if specials and count > 8:
        x[seed % 8] = [float("nan"), float("inf"), -float("inf"), 0.0][seed % 4]
    return x


def equal(a, b):
    whole = {8: torch.int64, 4: torch.int32, 2: torch.int16}[a.element_size()]
    same = a.contiguous().view(whole) == b.contiguous().view(whole)
    return a.dtype == b.dtype and bool((same | (a.isnan() & b.isnan())).all())


def element_sums(rank, ranks):
    for dtype in (torch.float64, torch.float32, torch.bfloat16):
        for count in (0, 1, 3, 7, 100):
            rows = [drawn(dtype, count, each, specials=True) for each in range(ranks)]
            expected = rounded_columns([row.tolist() for row in rows], dtype)
            t = rows[rank].clone()
            named = dist.group.WORLD if rank else None  # two names of one group
            assert exact.all_reduce(t, group=named) is None
            assert equal(t, expected), (dtype, count)
            first, second = rows[rank].clone(), rows[rank].clone()
            works = [exact.all_reduce(each, async_op=True) for each in (first, second)]
            assert all(isinstance(work, dist.Work) for work in works)
            plain = torch.ones(1)
            dist.all_reduce(plain)  # another one may begin meanwhile
            assert all(work.wait() for work in reversed(works)) and works[0].is_completed()
            assert equal(first, expected) and equal(second, expected) and plain.item() == ranks
    strided = torch.arange(12.0).view(3, 4).t()
    exact.all_reduce(strided)
    assert torch.equal(strided, ranks * torch.arange(12.0).view(3, 4).t())
    zero = torch.tensor([-0.0])
    exact.all_reduce(zero)
    assert bits(zero) == bits(torch.tensor([0.0]))


def element_sums_of_many(rank, ranks):
    """More than a block, of ties and of what cancels: against one array that has it all."""
    rows = [drawn(torch.float64, 5000, each) for each in range(ranks)]
    rows[0][:2000] = -sum(row[:2000] for row in rows[1:]) if ranks > 1 else 0
    columns = zip(*(row.tolist() for row in rows), strict=True)
    sums = [float(sum(map(Fraction, column))) for column in columns]
    expected = torch.tensor(sums, dtype=torch.float64)
    t = rows[rank].clone()
    exact.all_reduce(t)
    assert torch.equal(t, expected)


def scattered_sums(rank, ranks):
    for dtype in (torch.float64, torch.float32, torch.bfloat16):
        for count in (0, 1, 33):
            rows = [drawn(dtype, count * ranks, each) for each in range(ranks)]
            expected = rounded_columns([row.tolist() for row in rows], dtype)
            own = expected[count * rank : count * (rank + 1)]
            out = torch.empty(count, dtype=dtype)
            assert exact.reduce_scatter_tensor(out, rows[rank]) is None
            assert equal(out, own)
            out = torch.empty(count, dtype=dtype)
            work = exact.reduce_scatter_tensor(out, rows[rank].view(ranks, count), async_op=True)
            assert work.get_future().wait()[0] is out or count == 0
            assert work.wait() and equal(out, own)


def bytes_moved(rank, ranks):
    """At most twice what a plain collective of the same tensor moves over the loopback device."""
    reduce_scatter = getattr(dist, "reduce_scatter_single", None) or dist.reduce_scatter_tensor
    for dtype in (torch.float64, torch.float32, torch.bfloat16):
        t, out = torch.ones(200_000 * ranks, dtype=dtype), torch.empty(200_000, dtype=dtype)
        pairs = [
            (partial(exact.all_reduce, t), partial(dist.all_reduce, t)),
            (partial(exact.reduce_scatter_tensor, out, t), partial(reduce_scatter, out, t)),
        ]
        for ours, plain in pairs:
            moved, moved_by_plain = loopback_bytes_of(ours), loopback_bytes_of(plain)
            # Each process hears something of every other one at least.
            assert moved_by_plain >= (ranks - 1) * out.nbytes
            assert moved <= 2 * moved_by_plain, (ours, moved, moved_by_plain)


def loopback_bytes_of(call):
    """The least of three calls: others may use the device meanwhile."""
    found = []
    for _ in range(3):
        dist.barrier()
        before = loopback_bytes()
        dist.barrier()
        call()
        dist.barrier()
        found.append(loopback_bytes() - before)
        dist.barrier()
    return min(found)


def loopback_bytes():
    lines = Path("/proc/self/net/dev").read_text().splitlines()
    [fields] = [line.split(":")[1].split() for line in lines if line.strip().startswith("lo:")]
    return int(fields[0])


# --- DTensor


def meshes(ranks):
    shapes = {1: [(1,), (1, 1)], 2: [(2,), (1, 2)], 3: [(3,), (3, 1)], 4: [(4,), (2, 2)]}[ranks]
    for shape in shapes:
        names = ("rows", "columns")[: len(shape)]
        yield dist.device_mesh.init_device_mesh("cpu", shape, mesh_dim_names=names)


def dtensors(rank, ranks):
    generator = torch.Generator().manual_seed(3)
    x = torch.randn(7, 5, generator=generator, dtype=torch.float64) * 1e10
    x[2, 3], x[6, 4] = 1e300, -1e300
    vector = x.reshape(-1)
    for mesh in meshes(ranks):
        kinds = [[kind] for kind in (Shard(0), Shard(1), Replicate())]
        if mesh.ndim == 2:
            kinds = [[first, second[0]] for first in (Shard(0), Replicate()) for second in kinds]
            kinds.append([Shard(1), Shard(0)])
        for placements in kinds:
            d = distribute_tensor(x, mesh, placements)
            for function in (exact.sum, exact.mean, exact.var, exact.std, exact.vector_norm):
                found = function(d)
                assert isinstance(found, DTensor) and found.device_mesh == mesh
                assert all(each.is_replicate() for each in found.placements)
                assert bits(found.to_local()) == bits(function(x))
            assert exact.sum(d, keepdims=True).shape == (1, 1)
        for placements in ([Shard(0)] * mesh.ndim, [Replicate()] * mesh.ndim):
            d = distribute_tensor(vector, mesh, placements)
            assert bits(exact.vecdot(d, d).to_local()) == bits(exact.vecdot(vector, vector))
    refused_dtensors(next(meshes(ranks)), vector)


def refused_dtensors(mesh, x):
    from torch.distributed.tensor import Partial

    partial = DTensor.from_local(x, mesh, [Partial()])
    sharded, whole = (distribute_tensor(x, mesh, [kind]) for kind in (Shard(0), Replicate()))
    expected = {
        "x has the placement": lambda: exact.sum(partial),
        "x and y are DTensors that are cut in different ways": lambda: exact.vecdot(sharded, whole),
        "x is a DTensor, which has groups of": lambda: exact.sum(sharded, group=dist.group.WORLD),
    }
    for text, call in expected.items():
        try:
            call()
        except ValueError as error:
            assert str(error).startswith(text), error
        else:
            raise AssertionError(text)


# --- Matrix products


def products_in_shards(rank, ranks):
    generator = np.random.default_rng(5)
    cases = {
        "normal": (generator.standard_normal((4, 30)), generator.standard_normal((30, 3))),
        "small k": (generator.standard_normal((3, 2)), generator.standard_normal((2, 5))),
        "least and most": (
            np.array([[MAX, 2.0**-1074, 1.0, MAX] * 2] * 2),
            np.array([[2.0, 1.0, 3.0, -2.0] * 2] * 3).T,
        ),
        "specials": (np.array([[1.0, np.inf, 2.0, np.nan]]), np.ones((4, 2))),
        "integers": (generator.integers(-(2**62), 2**62, (2, 9)), np.full((9, 2), 2**61 + 1)),
        "float32": tuple(generator.standard_normal(s).astype("f4") for s in ((2, 50), (50, 4))),
    }
    cancelling = np.hstack([cases["normal"][0], -cases["normal"][0]])
    cases["cancelling"] = (cancelling, np.vstack([cases["normal"][1]] * 2))
    for name, (a, b) in cases.items():
        cuts = np.sort(generator.integers(0, a.shape[1] + 1, ranks - 1))
        own_a, own_b = np.split(a, cuts, axis=1)[rank], np.split(b, cuts)[rank]
        for dtype in (None, "float32"):
            found = exact.matmul(own_a, own_b, dtype=dtype, group=dist.group.WORLD)
            assert bits(found) == bits(exact.matmul(a, b, dtype=dtype)), name
    vector = exact.matmul(own_a[0], own_b, group=dist.group.WORLD)
    assert bits(vector) == bits(exact.matmul(a[0], b))
    nothing = exact.matmul(np.ones((0, 3)), np.ones((3, 2)), group=dist.group.WORLD)
    assert nothing.shape == (0, 2)


# --- Training


def model_of(dtype=torch.float32):
    torch.manual_seed(1)
    layers = [torch.nn.Linear(6, 9), torch.nn.Tanh(), torch.nn.Linear(9, 2)]
    return torch.nn.Sequential(*layers).to(dtype)


def trained(batches_of_step, group, dtype=torch.float32):
    """SHA-256 of the weights after some steps with those micro-batches of this process."""
    model = model_of(dtype)
    optimizer = torch.optim.SGD(model.parameters(), lr=0.1, momentum=0.9)
    gradients = exact.GradientAccumulator(model.parameters())
    for batches in batches_of_step:
        optimizer.zero_grad()
        for x, y in batches:
            torch.nn.functional.mse_loss(model(x), y).backward()
            gradients.add()
        if group is not None:
            gradients.all_reduce(group)
        gradients.set_gradients()
        optimizer.step()
    words = [each.detach().view(torch.uint8).numpy().tobytes() for each in model.parameters()]
    return hashlib.sha256(b"".join(words)).hexdigest()


def training(rank, ranks):
    """The same micro-batches, any owner, any order: the same weights as in one process."""
    generator = torch.Generator().manual_seed(9)
    for dtype in (torch.float32, torch.bfloat16):
        draw = lambda *shape: torch.randn(*shape, generator=generator).to(dtype)  # noqa: B023, E731
        steps = [[(draw(4, 6), draw(4, 2)) for _ in range(12)] for _ in range(4)]
        whole = trained(steps, None, dtype)
        shuffled = np.random.default_rng(ranks)
        own = []
        for batches in steps:
            order = shuffled.permutation(12)
            own.append([batches[i] for i in order[shuffled.integers(0, ranks, 12) == rank]])
        assert trained(own, dist.group.WORLD, dtype) == whole


def gradients(rank, ranks):
    """Any numbers as gradients, wide ones and specials too: one rounding of the exact sums."""
    for dtype in (torch.float64, torch.float32, torch.bfloat16, torch.float16):
        source = torch.float32 if dtype == torch.float16 else dtype
        rows = [drawn(source, 120, each, specials=True).to(dtype) for each in range(12)]
        rows[3][20:30] = -rows[2][20:30]
        weights, unused = torch.zeros(120, dtype=dtype), torch.zeros(3)
        total = exact.GradientAccumulator([unused, weights])
        for row in rows[rank::ranks]:
            weights.grad = row.clone()
            total.add()
        total.all_reduce()
        assert total.count == 12
        total.set_gradients()
        assert unused.grad is None and total.count == 0
        assert equal(weights.grad, rounded_columns([row.tolist() for row in rows], dtype))


# --- A process that dies


def dead_peer(rank, ranks):
    """The engine's error comes through, and the accumulator is as it was. Ends the processes."""
    total = filled(exact.Sum, [np.array([0.5])])
    t = torch.ones(4)
    exact.all_reduce(t)
    if rank == ranks - 1:
        os._exit(0)
    for call in (total.all_reduce, lambda: exact.all_reduce(t), lambda: dist.all_reduce(t)):
        try:
            call()
        except RuntimeError as error:
            assert "korvex" not in str(error) and str(error)
        else:
            raise AssertionError("no error")
    assert float(total) == 0.5
