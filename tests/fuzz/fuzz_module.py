# SPDX-License-Identifier: Apache-2.0
"""A seeded fuzzer: random calls of every function, on the module and on its reference.

    PYTHONPATH=tests/support python tests/fuzz/fuzz_module.py --seed 7 --seconds 500

Each call is made from its seed and number alone, so `--seed 7 --first 1234 --count 1` repeats it.
Compared are the bits of results and operands, or type, text and notes of exceptions. A difference
is printed and makes the exit status 1; what comes of it belongs into the table of test_fuzz.py.

Not covered: the values that kernels compute, since both sides launch the same kernels (golden data
and the tests of the arithmetic hold these against exact references); tensors with gradients;
sparse and quantised tensors; storages of more than a few kilobytes; other devices than the one of
the run and the host; threads; keywords that are no strings; loops of more than 1000 passes.
"""

import argparse
import collections
import math
import random
import struct
import sys
import time
import warnings

import device
import numpy
import reference_runtime
import torch
from call_outcomes import outcome
from public_signatures import ROWS

SPECIAL = [0.0, -0.0, 1.0, -1.0, math.inf, -math.inf, math.nan, 5e-324, -5e-324, 2.0**-1022]
SPECIAL += [1e308, -1.7976931348623157e308, 2.0**53, 0.1, 0.5, 1.5, 2.5, -3.0, 2.0**-600, 2.0**600]
DTYPES = [torch.float64] * 8 + [torch.float32, torch.float32, torch.int64, torch.int32]
DTYPES += [torch.float16, torch.bool, torch.uint8, torch.complex128, torch.complex64]
EQUATIONS = ["i,i->", "ij,jk->ik", "mk,kn->mn", "bij,bjk->bik", "ij,kj->ik", "ij, jk -> ik"]
EQUATIONS += ["i,j->ij", "ii->i", "", "i", "ij,jk"]

TENSOR_NAMES = {"x", "y", "a", "b", "A", "B", "pred", "target", "weight", "bias", "condition"}
LIST_NAMES = {"limbs", "x_limbs", "y_limbs"}


# ---- values ----


def number(source):
    kind = source.randrange(5)
    if kind == 0:
        return source.choice(SPECIAL)
    if kind == 1:
        return float(source.randrange(-9, 10))
    if kind == 2:
        return math.ldexp(source.getrandbits(53), source.randrange(-80, 20) - 53)
    if kind == 3:
        return source.uniform(-2.0, 2.0)
    return struct.unpack("<d", struct.pack("<Q", source.getrandbits(64)))[0]


def shape(source):
    return tuple(source.choice([0, 1, 1, 2, 3, 4, 4, 5]) for _ in range(source.randrange(4)))


def host_tensor(source, extents):
    count = math.prod(extents)
    plain = source.random() < 0.5  # few special values, so that results stay finite
    values = [source.uniform(-4, 4) if plain else number(source) for _ in range(count)]
    dtype = source.choice(DTYPES)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        return torch.tensor(values, dtype=torch.float64).reshape(extents).to(dtype)


def laid_out(source, made):
    """The same elements on other strides."""
    kind = source.randrange(6)
    if kind == 0 and made.ndim >= 2:
        return made.transpose(-1, -2)
    if kind == 1 and made.ndim >= 1:
        return made[..., ::2]
    if kind == 2 and made.ndim >= 1:
        return made.flip(0)
    if kind == 3:
        return made.unsqueeze(0).expand(2, *made.shape)
    return made


def tensor(source, extents=None):
    """A maker of a tensor: every call gives a fresh one with the same elements."""
    made = host_tensor(source, shape(source) if extents is None else extents)
    if source.random() < 0.3:
        made = laid_out(source, made)
    if source.random() < 0.12:
        return lambda runtime: made.clone()
    return lambda runtime: device.to_device(made)


def limb_list(source, extents=None):
    extents = shape(source) if extents is None else extents
    limbs = [tensor(source, extents) for _ in range(source.randrange(5))]
    return lambda runtime: [limb(runtime) for limb in limbs]


def limb_result(source, extents=None):
    limbs = limb_list(source, extents)
    name = source.choice(["cuda:0", "cpu", "cuda"])

    def make(runtime):
        given = limbs(runtime)
        return runtime.TQXResult(given, name)

    return make


def verified(source):
    value = tensor(source)
    text = source.choice(["text", "6c3c396ed6b5c36d", None])
    return lambda runtime: runtime.TQXVerifiedResult(value(runtime), text)


def constant(value):
    return lambda runtime: value


BAD = [None, True, False, 0, 1, -1, 7, 10**30, 1.5, math.nan, math.inf, -math.inf, 2j, "", "cuda"]
BAD += [b"bytes", (), (0,), (1, 0), [], [None], {}, object, torch.Size([1]), torch.device("cpu")]
BAD += [numpy.int8(3), numpy.float64(0.5), numpy.array([1, 2]), numpy.array(2.0), range(3)]


# ---- arguments ----


def operand_shapes(source, row):
    """Shapes that fit the operands of one call, more often than chance would have it."""
    m, k, n, batch = (source.randrange(1, 5) for _ in range(4))
    if "conv" in row.path:
        image = (batch, k, source.randrange(2, 6), source.randrange(2, 6))
        kernel = (m, k, 2, 2) if "transpose" not in row.path else (k, m, 2, 2)
        return [image, kernel]
    if row.path in ("tqx_solve", "tqx_inv", "tqx_det"):
        return [(n, n), source.choice([(n,), (n, m)])]
    if "bmm" in row.path:
        return [(batch, m, k), (batch, k, n)]
    if any(word in row.path for word in ("matmul", "einsum")):
        pairs = [[(k,), (k,)], [(m, k), (k, n)], [(m, k), (k,)], [(k,), (k, n)]]
        pairs += [[(batch, m, k), (batch, k, n)], [(batch, m, k), (k, n)]]
        return source.choice(pairs[1:2] if "exact" in row.path or "2d" in row.path else pairs)
    if row.path == "tqx_linear":
        return [source.choice([(k,), (m, k), (batch, m, k)]), (n, k), (n,)]
    if any(word in row.path for word in ("fft", "butterfly")):
        return [source.choice([(1,), (2,), (4,), (8,), (2, 4), (3,), (6,), ()])]
    one = shape(source)
    return [one] * 3 if source.random() < 0.7 else [one]


def fitting(source, row, name, extents):
    annotation = row.annotations.get(name, "")
    if name == "self" or (name == "value"):
        return receiver(source, row, name)
    if name == "equation":
        return constant(source.choice(EQUATIONS))
    if name == "reduction":
        return constant(source.choice(["mean", "sum", "none"]))
    if name in LIST_NAMES or annotation == "List[torch.Tensor]":
        return limb_list(source, extents)
    if annotation == "bool":
        return constant(source.choice([True, False]))
    if annotation in ("int", "Optional[int]"):
        return constant(
            source.choice([0, 0, 1, 1, 2, 3, 4, 8, -1, None if "Opt" in annotation else 1])
        )
    if annotation == "float":
        return constant(number(source))
    if annotation in ("str", "Optional[str]"):
        return constant(source.choice(["cuda", "cuda:0", "cpu", "6c3c396ed6b5c36d"]))
    if annotation == "Optional[Tuple]":
        return constant(source.choice([None, (), (0,), (1,), (0, 1), (-1,)]))
    if source.random() < 0.2:
        return limb_result(source, extents)
    return tensor(source, extents)


def receiver(source, row, name):
    if row.name == "__init__" and name == "self":
        cls = row.path.partition(".")[0]
        return lambda runtime: object.__new__(getattr(runtime, cls))
    if name == "self" and row.path.startswith("TQXVerified"):
        return verified(source)
    return limb_result(source) if source.random() < 0.6 or name == "self" else tensor(source)


def call(seed, place):
    """Call number `place` of a seed: a row, makers of positional and of keyword arguments."""
    source = random.Random(f"{seed}/{place}")
    row = source.choice(ROWS)
    shapes = operand_shapes(source, row)
    operands = iter(shapes)
    makers = []
    count = source.randrange(row.required, len(row.parameters) + 1)
    for name in row.parameters[:count]:
        is_operand = name in TENSOR_NAMES or name in LIST_NAMES
        extents = next(operands, None) if is_operand else None
        makers.append(fitting(source, row, name, extents))
    if row.takes_rest:
        makers += rest(source, row, shapes)
    if makers and source.random() < 0.12:
        makers[source.randrange(len(makers))] = constant(source.choice(BAD))
    if source.random() < 0.03:
        makers = makers[:-1] if source.random() < 0.5 else [*makers, constant(1)]
    placed = len(makers) if row.takes_rest else source.randrange(len(makers) + 1)
    keywords = dict(zip(row.parameters[placed:], makers[placed:], strict=False))
    for name, _ in row.keyword_only:
        if source.random() < 0.5:
            keywords[name] = constant(source.choice([True, False]))
    if source.random() < 0.02:
        keywords["bogus"] = constant(1)
    return row, makers[:placed], keywords


def rest(source, row, shapes):
    if row.path == "tqx_einsum":
        return [tensor(source, extents) for extents in shapes]
    return [constant(source.choice([1, 2, -1, 4])) for _ in range(source.randrange(3))]


# ---- runs ----


class Run:
    """Calls made and differences found."""

    def __init__(self):
        self.calls = 0
        self.ends = collections.Counter()
        self.functions = collections.Counter()
        self.differences = []

    def compare(self, module, seed, place):
        row, makers, keywords = call(seed, place)
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            ends = [outcome(r, row, makers, keywords) for r in (module, reference_runtime)]
        self.calls += 1
        self.functions[row.path] += 1
        failed = len(ends[0]) == 3
        self.ends[ends[0][0] if failed else "a value"] += 1
        if ends[0] != ends[1]:
            self.differences.append((seed, place, row.path, *ends))

    def report(self):
        ends = ", ".join(f"{name} {count}" for name, count in self.ends.most_common())
        fewest = min(self.functions.values(), default=0)
        return (
            f"{self.calls} calls of {len(self.functions)} functions, each {fewest} times or more; "
            f"{len(self.differences)} differences; ended in: {ends}"
        )


def fuzz(module, seed, first=0, count=None, seconds=math.inf):
    reference_runtime.bind(module)
    run = Run()
    end = time.monotonic() + seconds
    place = first
    while (count is None or place < first + count) and time.monotonic() < end:
        run.compare(module, seed, place)
        place += 1
    return run


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seed", default="0")
    parser.add_argument("--first", type=int, default=0)
    parser.add_argument("--count", type=int)
    parser.add_argument("--seconds", type=float, default=math.inf)
    options = parser.parse_args()
    torch.set_num_threads(1)  # small operands: threads would only wait for each other
    run = fuzz(device.choose().runtime, options.seed, options.first, options.count, options.seconds)
    for seed, place, path, of_module, of_reference in run.differences[:20]:
        print(f"--seed {seed} --first {place} --count 1: {path}")
        print(f"  module:    {str(of_module)[:300]}\n  reference: {str(of_reference)[:300]}")
    print(f"seed {options.seed}: {run.report()}")
    return 1 if run.differences else 0


if __name__ == "__main__":
    sys.exit(main())
