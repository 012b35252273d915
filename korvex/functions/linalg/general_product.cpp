// SPDX-License-Identifier: Apache-2.0
// tqx_matmul and tqx_bmm: vectors, batches and broadcasting on top of the one matrix product.
//
// Limbs survive every matrix and batch route of tqx_matmul, but not the product of two vectors and
// not tqx_bmm. Batch members run one after the other, each launched and waited for.
#include "korvex/functions/linalg/assertions.h"
#include "korvex/functions/linalg/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

Object minus_two() { return integer(-2); }

// shape[:-2]
Object batch_part(const Object& tensor) {
  const Object shape = tensor.get("shape"_name);
  return shape.at(checked(PySlice_New(nullptr, minus_two(), nullptr)));
}

// tensor.shape[axis]
Object extent(const Object& tensor, Handle axis) { return tensor.get("shape"_name).at(axis); }

// Calls method(*shape, rows, columns).
Object call_with_shape(const Object& method, const Object& shape, const Object& rows,
                       const Object& columns) {
  const Object arguments = checked(PySequence_List(shape));
  append(arguments, rows);
  append(arguments, columns);
  return checked(PyObject_CallObject(method, checked(PyList_AsTuple(arguments))));
}

// Replaces the RuntimeError that is set, which stays as the context of the new one.
[[noreturn]] void raise_no_broadcast(const Object& a_batch, const Object& b_batch) {
  Object cause = Object::steal(PyErr_GetRaisedException());
  const Object a_text = formatted(a_batch);
  const Object b_text = formatted(b_batch);
  PyErr_Format(PyExc_RuntimeError, messages::kNoBroadcast, a_text.handle(), b_text.handle());
  Object error = Object::steal(PyErr_GetRaisedException());
  PyException_SetContext(error, cause.release());
  PyErr_SetRaisedException(error.release());
  throw PythonError{};
}

Object common_batch_shape(const Object& a_batch, const Object& b_batch) {
  if (!truth(a_batch) && !truth(b_batch)) {
    return tuple();
  }
  const Object broadcast = torch_member("broadcast_shapes"_name);
  try {
    return broadcast.call(a_batch, b_batch);
  } catch (const PythonError&) {
    if (PyErr_ExceptionMatches(PyExc_RuntimeError) == 0) {
      throw;
    }
    raise_no_broadcast(a_batch, b_batch);
  }
}

// tensor.expand(*batch_shape, tensor.shape[-2], tensor.shape[-1]) if its own batch shape differs
Object expanded(const Object& tensor, const Object& own_batch, const Object& batch_shape) {
  if (!not_equal(own_batch, batch_shape)) {
    return tensor;
  }
  const Object expand = tensor.get("expand"_name);
  const Object rows = extent(tensor, minus_two());
  const Object columns = extent(tensor, kMinusOne);
  return call_with_shape(expand, batch_shape, rows, columns);
}

Object element_count(const Object& batch_shape) {
  Object count = object(kOne);
  for_each(batch_shape, [&](const Object& entry) { count = in_place_multiply(count, entry); });
  return count;
}

// What a batch is put together into: (*batch_shape, M, N).
struct BatchResult {
  Object batch_shape;
  Object m;
  Object n;

  // torch.stack(members).reshape(*batch_shape, M, N)
  Object shaped(const Object& stacked) const {
    return call_with_shape(stacked.get("reshape"_name), batch_shape, m, n);
  }
};

Object stacked(const Object& members) { return torch_member("stack"_name).call(members); }

// torch.stack([r.limbs[position] for r in results])
Object stacked_limb(const Object& results, long position) {
  const Object stack = torch_member("stack"_name);
  return stack.call(list_of(results, [&](const Object& result) {
    return result.get("limbs"_name).at(integer(position));
  }));
}

Object assembled_limbs(const Object& results, const BatchResult& batch, const Object& a) {
  const Object limbs0 = stacked_limb(results, 0);
  const Object limbs1 = stacked_limb(results, 1);
  const Object limbs2 = stacked_limb(results, 2);
  return limbs_beside(a, [&] {
    const Object shaped0 = batch.shaped(limbs0);
    const Object shaped1 = batch.shaped(limbs1);
    const Object shaped2 = batch.shaped(limbs2);
    return list(shaped0, shaped1, shaped2);
  });
}

Object batched_product(Object a, Object b, const Object& return_tqx) {
  const Object a_batch = batch_part(a);
  const Object b_batch = batch_part(b);
  BatchResult batch;
  batch.batch_shape = common_batch_shape(a_batch, b_batch);
  a = expanded(a, a_batch, batch.batch_shape);
  b = expanded(b, b_batch, batch.batch_shape);
  const Object batch_size = element_count(batch.batch_shape);
  batch.m = extent(a, minus_two());
  const Object k = extent(a, kMinusOne);
  const Object k2 = extent(b, minus_two());
  batch.n = extent(b, kMinusOne);
  assert_inner_dimensions(k, k2);
  const Object a_flat = a.method("reshape"_name, batch_size, batch.m, k);
  const Object b_flat = b.method("reshape"_name, batch_size, k, batch.n);
  const Object results = list_of(range_to(batch_size), [&](const Object& i) {
    const Object product = global("_tqx_matmul_2d"_name);
    const Object a_member = a_flat.at(i);
    const Object b_member = b_flat.at(i);
    return product.call(a_member, b_member, return_tqx);
  });
  if (truth(return_tqx)) {
    return assembled_limbs(results, batch, a);
  }
  return batch.shaped(stacked(results));
}

bool has_dimensions(const Object& tensor, long count) {
  return equal(tensor.get("ndim"_name), integer(count));
}

// Only a is tested for CUDA; b fails in from_dlpack. return_tqx does not reach tqx_dot.
Object tqx_matmul(const Arguments& arguments) {
  Object a = arguments[0];
  Object b = arguments[1];
  const Object& return_tqx = arguments[2];
  require_cuda(a);
  if (has_dimensions(a, 1) && has_dimensions(b, 1)) {
    return global("tqx_dot"_name).call(a, b);
  }
  const bool squeeze_a = has_dimensions(a, 1);
  if (squeeze_a) {
    a = a.method("unsqueeze"_name, kZero);
  }
  const bool squeeze_b = has_dimensions(b, 1);
  if (squeeze_b) {
    b = b.method("unsqueeze"_name, kMinusOne);
  }
  const bool both_matrices = has_dimensions(a, 2) && has_dimensions(b, 2);
  Object result = both_matrices ? global("_tqx_matmul_2d"_name).call(a, b, return_tqx)
                                : batched_product(a, b, return_tqx);
  // A tensor and a TQXResult answer to the same squeeze.
  if (squeeze_a) {
    result = result.method("squeeze"_name, minus_two());
  }
  if (squeeze_b) {
    result = result.method("squeeze"_name, kMinusOne);
  }
  return result;
}

// Always a tensor: return_tqx is accepted and never read.
Object tqx_bmm(const Arguments& arguments) {
  const Object& a = arguments[0];
  const Object& b = arguments[1];
  assert_plain([&] { return has_dimensions(a, 3) && has_dimensions(b, 3); });
  const auto [batch, m, k] = unpack<3>(a.get("shape"_name));
  const auto [batch2, k2, n] = unpack<3>(b.get("shape"_name));
  assert_plain([&, &batch = batch, &batch2 = batch2, &k = k, &k2 = k2] {
    return equal(batch, batch2) && equal(k, k2);
  });
  const Object results = list_of(range_to(batch), [&](const Object& i) {
    const Object product = global("tqx_matmul"_name);
    const Object a_member = a.at(i);
    const Object b_member = b.at(i);
    return product.call_with(kKeywords<"return_tqx">, a_member, b_member, boolean(false));
  });
  return stacked(results);
}

constexpr Signature kRows[] = {
    {"tqx_matmul",
     {kA, kB, kReturnTqx},
     kTensor,
     "TQX exact matmul with full shape support (1D-4D).\n"
     "\n"
     "Supports same semantics as torch.matmul:\n"
     "- 1D @ 1D: dot product, always a collapsed tensor\n"
     "- 1D @ 2D, 2D @ 1D: vector with matrix, matrix with vector\n"
     "- 2D @ 2D: matrix product\n"
     "- more dimensions: products of the last two, batch dimensions broadcast\n"
     "\n"
     "With return_tqx=True a matrix product is a TQXResult of three limbs.\n"
     "\n"
     "Raises:\n"
     "    RuntimeError: a is not on a CUDA device, or batch shapes do not broadcast.\n"
     "    AssertionError: inner dimensions differ.",
     tqx_matmul},
    {"tqx_bmm",
     {kA, kB, kReturnTqx},
     kTensor,
     "TQX batch matmul using TQX matmul per batch.",
     tqx_bmm},
};

}  // namespace

void define_general_product() { define_functions(kRows); }

}  // namespace korvex
