# SPDX-License-Identifier: Apache-2.0
"""Functions of this package as operators of torch, with the shapes and gradients of results.

An operator `korvex_exact::sum` computes what `exact.sum` computes, by calling it. torch learns here
what it needs to see through the call. Gradients of reductions are worked out in float64, by the
operations that stand here, and rounded to the operand's dtype; those of `matmul` and `segment_sum`
are exact. Imported by the first call that needs it, never with the package.
"""

from __future__ import annotations

import math
from collections.abc import Callable, Sequence
from fractions import Fraction
from typing import Any

import torch

from korvex.exact import _functions, _products, _segments, _statistics
from korvex.exact._axes import axes_of, is_integer
from korvex.exact._homes import format_of
from korvex.exact._torch_registry import Operator, with_kernels

Tensor = Any
Gradients = tuple[Any, ...]
Axis = Sequence[int] | None
Call = Callable[..., Tensor]


def _result_dtype(dtype: Any, *operands: Tensor) -> Any:
    is_complex = any(each.is_complex() for each in operands)
    return dtype or (torch.complex128 if is_complex else torch.float64)


# --- Reductions of one array

_REDUCTION = "Tensor x, int[]? axis=None, bool keepdims=False, ScalarType? dtype=None"
_WITH_CORRECTION = f"{_REDUCTION}, float correction=0"


def _reduction(
    schema: str, function: Callable[..., Any], gradient: Callable[..., Tensor]
) -> Operator:
    """`gradient` is that of x, given x, the gradient of the result and the result in float64."""

    def computed(
        x: Tensor, axis: Axis = None, keepdims: bool = False, dtype: Any = None, *correction: float
    ) -> Tensor:
        options = {"correction": correction[0]} if correction else {}
        axes = None if axis is None else tuple(axis)
        return function(x, axis=axes, keepdims=keepdims, dtype=dtype, **options)

    def shape(
        x: Tensor, axis: Axis = None, keepdims: bool = False, dtype: Any = None, *_: float
    ) -> Tensor:
        return x.new_empty(_reduced_shape(x, axis, keepdims), dtype=_result_dtype(dtype, x))

    def keep(ctx: Any, inputs: Any, output: Tensor) -> None:
        x, ctx.axis, ctx.keepdims, _, *ctx.correction = inputs
        ctx.save_for_backward(x, output)

    def backward(ctx: Any, given: Tensor) -> Gradients:
        x, result = ctx.saved_tensors
        spread = [_spread(_wide(each), x, ctx.axis, ctx.keepdims) for each in (given, result)]
        by_x = gradient(_wide(x), *spread, ctx.axis, *ctx.correction).expand(x.shape)
        return by_x.to(x.dtype), None, None, None, *(None for _ in ctx.correction)

    def batch(
        call: Call, x: Tensor, dim: int, axis: Axis = None, keepdims: bool = False, *rest: Any
    ) -> tuple[Tensor, int]:
        """The batch is one more axis, in front of the others, that is not reduced."""
        own = x.dim() - 1
        axes = [*range(own)] if axis is None else [each % own for each in axis]
        return call(x.movedim(dim, 0), [each + 1 for each in axes], keepdims, *rest), 0

    name = function.__name__
    return Operator(name, schema, computed, shape, keep, backward, _of_first(batch))


def _of_first(batch: Callable[..., tuple[Tensor, int]]) -> Callable[..., tuple[Tensor, int] | None]:
    """A rule for batches of the first operand alone."""

    def rule(
        call: Call, dims: Sequence[int | None], x: Tensor, *rest: Any
    ) -> tuple[Tensor, int] | None:
        if dims[0] is None or any(dim is not None for dim in dims[1:]):
            return None
        return batch(call, x, dims[0], *rest)

    return rule


def _reduced_axes(x: Tensor, axis: Axis) -> list[int]:
    return [*range(x.dim())] if axis is None else sorted(each % x.dim() for each in axis)


def _reduced_shape(x: Tensor, axis: Axis, keepdims: bool) -> list[int]:
    axes = _reduced_axes(x, axis)
    if keepdims:
        return [1 if d in axes else extent for d, extent in enumerate(x.shape)]
    return [extent for d, extent in enumerate(x.shape) if d not in axes]


def _spread(reduced: Tensor, x: Tensor, axis: Axis, keepdims: bool) -> Tensor:
    """A reduced array with as many axes as x."""
    if not keepdims:
        for each in _reduced_axes(x, axis):
            reduced = reduced.unsqueeze(each)
    return reduced


def _wide(x: Tensor) -> Tensor:
    return x.to(torch.complex128 if x.is_complex() else torch.float64)


def _count(x: Tensor, axis: Axis) -> Any:
    return math.prod(x.shape[each] for each in _reduced_axes(x, axis))


def _divisor(x: Tensor, axis: Axis, correction: float) -> Any:
    divisor = _count(x, axis) - correction
    return divisor if divisor > 0 else math.nan


def _deviations(x: Tensor, axis: Axis) -> Tensor:
    return x - _mean(x, axis, True, None)


def _of_sum(x: Tensor, given: Tensor, result: Tensor, axis: Axis) -> Tensor:
    return given


def _of_mean(x: Tensor, given: Tensor, result: Tensor, axis: Axis) -> Tensor:
    return given / _count(x, axis)


def _of_var(x: Tensor, given: Tensor, result: Tensor, axis: Axis, correction: float) -> Tensor:
    return 2 * given / _divisor(x, axis, correction) * _deviations(x, axis)


def _of_std(x: Tensor, given: Tensor, result: Tensor, axis: Axis, correction: float) -> Tensor:
    scale = given / (_divisor(x, axis, correction) * result)
    return scale.masked_fill(result == 0, 0) * _deviations(x, axis)


def _of_norm(x: Tensor, given: Tensor, result: Tensor, axis: Axis) -> Tensor:
    return (given / result).masked_fill(result == 0, 0) * x


_sum = _reduction(_REDUCTION, _functions.sum, _of_sum)
_mean = _reduction(_REDUCTION, _functions.mean, _of_mean)
_var = _reduction(_WITH_CORRECTION, _functions.var, _of_var)
_std = _reduction(_WITH_CORRECTION, _functions.std, _of_std)
_vector_norm = _reduction(_REDUCTION, _functions.vector_norm, _of_norm)


# --- Products


def _keep_factors(ctx: Any, inputs: Any, output: Tensor) -> None:
    ctx.save_for_backward(inputs[0], inputs[1])
    ctx.rest = inputs[2:]


def _vecdot_of(x: Tensor, y: Tensor, axis: int = -1, dtype: Any = None) -> Tensor:
    return _products.vecdot(x, y, axis=axis, dtype=dtype)


def _shape_of_vecdot(x: Tensor, y: Tensor, axis: int = -1, dtype: Any = None) -> Tensor:
    torch._check(x.shape[axis] == y.shape[axis])
    shape = torch.broadcast_shapes(x.movedim(axis, -1).shape, y.movedim(axis, -1).shape)
    return x.new_empty(shape[:-1], dtype=_result_dtype(dtype, x, y))


def _by_vecdot(ctx: Any, given: Tensor) -> Gradients:
    """Products in float64; where an operand was broadcast, their exact sum, rounded once."""
    axis = ctx.rest[0]
    x, y = (each.movedim(axis, -1) for each in ctx.saved_tensors)
    gradients = []
    for own, other, needed in ((x, y, ctx.needs_input_grad[0]), (y, x, ctx.needs_input_grad[1])):
        products = _wide(given).unsqueeze(-1) * _wide(other) if needed else None
        gradients.append(None if products is None else _summed_to(products, own).movedim(-1, axis))
    return *gradients, None, None


def _summed_to(products: Tensor, x: Tensor) -> Tensor:
    """What an operand that was broadcast gets: the sum over its copies, in its shape and dtype."""
    added = products.dim() - x.dim()
    copied = [d + added for d, extent in enumerate(x.shape) if extent != products.shape[d + added]]
    axes = [*range(added), *copied]
    whole = _sum(products, axes, True, None) if axes else products
    return whole.reshape(x.shape).to(x.dtype)


def _batch_of_vecdot(
    call: Call, dims: Sequence[int | None], x: Tensor, y: Tensor, axis: int, *rest: Any
) -> tuple[Tensor, int] | None:
    """The batch is one more axis, in front of those that are broadcast."""
    fronts = [_batch_first(each, dim) for each, dim in zip((x, y), dims, strict=False)]
    if any(not -own <= axis < own for own in (each.dim() - 1 for each in fronts)):
        return None
    rows = [each.movedim(axis % (each.dim() - 1) + 1, -1) for each in fronts]
    most = max(each.dim() for each in rows)
    return call(*(_with_axes(each, most) for each in rows), -1, *rest), 0


def _batch_first(x: Tensor, dim: int | None) -> Tensor:
    return x.unsqueeze(0) if dim is None else x.movedim(dim, 0)


def _with_axes(x: Tensor, count: int) -> Tensor:
    """As many axes, with those that are added behind the first."""
    return x.reshape(*x.shape[:1], *[1] * (count - x.dim()), *x.shape[1:])


_vecdot = Operator(
    "vecdot",
    "Tensor x, Tensor y, int axis=-1, ScalarType? dtype=None",
    _vecdot_of,
    _shape_of_vecdot,
    _keep_factors,
    _by_vecdot,
    _batch_of_vecdot,
)


def _matmul_of(a: Tensor, b: Tensor, dtype: Any = None) -> Tensor:
    return _products.matmul(a, b, dtype=dtype)


def _shape_of_matmul(a: Tensor, b: Tensor, dtype: Any = None) -> Tensor:
    torch._check(a.shape[-1] == b.shape[-2 if b.dim() > 1 else 0])
    batch = torch.broadcast_shapes(a.shape[:-2], b.shape[:-2])
    columns = b.shape[-1:] if b.dim() > 1 else ()
    return a.new_empty([*batch, *a.shape[-2:-1], *columns], dtype=_result_dtype(dtype, a, b))


def _by_matmul(ctx: Any, given: Tensor) -> Gradients:
    """Exact products of what is given and the other factor, rounded once to the factor's dtype."""
    a, b = ctx.saved_tensors
    rows, columns = _as_matrices(a, b)
    batch = torch.broadcast_shapes(rows.shape[:-2], columns.shape[:-2])
    product = given.reshape(*batch, rows.shape[-2], columns.shape[-1])
    by_a = by_b = None
    if ctx.needs_input_grad[0]:
        by_a = _product_summed_to(product, columns.mT, rows.shape[:-2], a)
    if ctx.needs_input_grad[1]:
        by_b = _product_summed_to(rows.mT, product, columns.shape[:-2], b)
    return by_a, by_b, None


def _as_matrices(a: Tensor, b: Tensor) -> tuple[Tensor, Tensor]:
    """A vector on the left as a row, and one on the right as a column."""
    return (a if a.dim() > 1 else a.unsqueeze(0)), (b if b.dim() > 1 else b.unsqueeze(1))


def _product_summed_to(left: Tensor, right: Tensor, own: Sequence[int], factor: Tensor) -> Tensor:
    """The product, in the shape and dtype of a factor whose batch has the shape `own`.

    Where the factor was broadcast, what its copies get is summed up by the product itself: their
    axes join the one that is summed over.
    """
    batch = torch.broadcast_shapes(left.shape[:-2], right.shape[:-2])
    added = len(batch) - len(own)
    copied = [d for d, size in enumerate(batch) if d < added or own[d - added] != size]
    if copied:
        kept = [d for d in range(len(batch)) if d not in copied]
        outer = [batch[d] for d in kept]
        row, column = len(batch), len(batch) + 1
        depth = left.shape[-1] * math.prod(batch[d] for d in copied)
        left = left.expand(*batch, *left.shape[-2:]).permute(*kept, row, *copied, column)
        left = left.reshape(*outer, left.shape[len(kept)], depth)
        right = right.expand(*batch, *right.shape[-2:]).permute(*kept, *copied, row, column)
        right = right.reshape(*outer, depth, right.shape[-1])
    return _matmul(left, right, factor.dtype).reshape(factor.shape)


def _batch_of_matmul(
    call: Call, dims: Sequence[int | None], a: Tensor, b: Tensor, *rest: Any
) -> tuple[Tensor, int] | None:
    """The batch is one more axis, in front of those of batches that the operands have."""
    left, right = (_batch_first(each, dim) for each, dim in zip((a, b), dims, strict=False))
    is_row, is_column = left.dim() == 2, right.dim() == 2
    if left.dim() == 1 or right.dim() == 1:
        return None
    left = left.unsqueeze(-2) if is_row else left
    right = right.unsqueeze(-1) if is_column else right
    most = max(left.dim(), right.dim())
    product = call(_with_axes(left, most), _with_axes(right, most), *rest)
    product = product.squeeze(-2) if is_row else product
    return (product.squeeze(-1) if is_column else product), 0


_matmul = Operator(
    "matmul",
    "Tensor a, Tensor b, ScalarType? dtype=None",
    _matmul_of,
    _shape_of_matmul,
    _keep_factors,
    _by_matmul,
    _batch_of_matmul,
)


# --- Sums by segment


def _segment_sum_of(x: Tensor, ids: Tensor, num_segments: int, dtype: Any = None) -> Tensor:
    return _segments.segment_sum(x, ids, num_segments, dtype=dtype)


def _shape_of_segment_sum(x: Tensor, ids: Tensor, num_segments: int, dtype: Any = None) -> Tensor:
    return x.new_empty([num_segments, *x.shape[1:]], dtype=_result_dtype(dtype, x))


def _keep_ids(ctx: Any, inputs: Any, output: Tensor) -> None:
    ctx.save_for_backward(inputs[1])
    ctx.dtype = inputs[0].dtype


def _by_segment_sum(ctx: Any, given: Tensor) -> Gradients:
    [ids] = ctx.saved_tensors
    return given.to(ctx.dtype).index_select(0, ids.long()), None, None, None


def _batch_of_segment_sum(
    call: Call, x: Tensor, dim: int, ids: Tensor, *rest: Any
) -> tuple[Tensor, int]:
    """The batch is one more axis behind that of the rows."""
    return call(x.movedim(dim, 1), ids, *rest), 1


_segment_sum = Operator(
    "segment_sum",
    "Tensor x, Tensor ids, SymInt num_segments, ScalarType? dtype=None",
    _segment_sum_of,
    _shape_of_segment_sum,
    _keep_ids,
    _by_segment_sum,
    _of_first(_batch_of_segment_sum),
)


# --- The functions, where torch watches: by the names and options that they have elsewhere


def sum(x: Tensor, *, axis: Any, dtype: Any, keepdims: Any) -> Tensor:
    return _sum(x, *_axes(x, axis, keepdims), _dtype(dtype, x))


def mean(x: Tensor, *, axis: Any, dtype: Any, keepdims: Any) -> Tensor:
    return _mean(x, *_axes(x, axis, keepdims), _dtype(dtype, x))


def var(x: Tensor, *, axis: Any, correction: Any, dtype: Any, keepdims: Any) -> Tensor:
    _refuse_complex("var", x=x)
    return _var(x, *_axes(x, axis, keepdims), _dtype(dtype, x), _correction(correction))


def std(x: Tensor, *, axis: Any, correction: Any, dtype: Any, keepdims: Any) -> Tensor:
    _refuse_complex("std", x=x)
    return _std(x, *_axes(x, axis, keepdims), _dtype(dtype, x), _correction(correction))


def vector_norm(x: Tensor, *, axis: Any, ord: Any, dtype: Any, keepdims: Any) -> Tensor:
    _refuse_complex("vector_norm", x=x)
    if isinstance(ord, bool) or ord != 2:
        raise ValueError(f"ord must be 2, not {ord!r}")
    return _vector_norm(x, *_axes(x, axis, keepdims), _dtype(dtype, x))


def vecdot(x: Tensor, y: Tensor, *, axis: Any, dtype: Any) -> Tensor:
    _check_tensors(_products.vecdot, x, y)
    _refuse_complex_gradients("vecdot", x=x, y=y)
    if not is_integer(axis):
        raise TypeError(f"axis must be an int, not {type(axis).__name__}")
    return _vecdot(x, y, int(axis), _dtype(dtype, x, y))


def matmul(a: Tensor, b: Tensor, *, dtype: Any) -> Tensor:
    _check_tensors(_products.matmul, a, b)
    _refuse_complex_gradients("matmul", a=a, b=b)
    return _matmul(a, b, _dtype(dtype, a, b))


def segment_sum(x: Tensor, ids: Tensor, num_segments: Any, *, dtype: Any) -> Tensor:
    _check_tensors(lambda *both: _segments.segment_sum(both[0], both[1], num_segments), x, ids)
    if not isinstance(num_segments, torch.SymInt):
        num_segments = _segments.checked_length(num_segments, "num_segments")
    return _segment_sum(x, ids, num_segments, _dtype(dtype, x))


# --- Their options


def _axes(x: Tensor, axis: Any, keepdims: Any) -> tuple[list[int] | None, bool]:
    reduced = axes_of(tuple(x.shape), axis, keepdims).reduced
    return (None if axis is None else list(reduced)), bool(keepdims)


def _dtype(dtype: Any, *operands: Tensor) -> Any:
    if dtype is None:
        return None
    is_complex = any(each.is_complex() for each in operands)
    form = format_of(dtype, is_complex)
    if is_complex:
        return torch.complex64 if form == "float32" else torch.complex128
    return getattr(torch, form)


def _correction(correction: Any) -> float:
    value = _statistics.checked_correction(correction)
    if Fraction(float(value)) != value:
        raise ValueError(f"correction must be a float64 number for torch, not {correction}")
    return float(value)


def _check_tensors(function: Callable[..., Any], *operands: Any) -> None:
    """Let the function itself refuse operands that are not all tensors."""
    if not all(isinstance(each, torch.Tensor) for each in operands):
        with_kernels(function, *operands)


def _refuse_complex(function: str, **operands: Tensor) -> None:
    for name, operand in operands.items():
        if operand.is_complex():
            raise TypeError(f"{name} is complex, and {function} takes real arrays only")


def _refuse_complex_gradients(function: str, **operands: Tensor) -> None:
    if any(each.requires_grad for each in operands.values()):
        _refuse_complex(f"a gradient of {function}", **operands)
