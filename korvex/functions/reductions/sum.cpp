// SPDX-License-Identifier: Apache-2.0
// tqx_sum, tqx_mean and tqx_trace: the exact sum of all elements, and the plain torch sum along a
// dimension.
//
// Whole-tensor sums run in one GPU thread with a four-limb accumulator, or in parallel with two
// limbs if the caller asks for it; nothing chooses by size.
#include "korvex/functions/reductions/limb_outputs.h"
#include "korvex/functions/reductions/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// One GPU thread, four limbs.
Object sequential_sum(const Object& x, const Object& x_flat, const Object& n, bool return_tqx) {
  const Object out = zeros_like_device(integer(4), x);
  launch_in_blocks("tqx_sum_seq_kernel"_name, kSingle, kSingle, ArrayOf{x_flat}, ArrayOf{out}, n);
  const Object result = four_limbs(out, x);
  return return_tqx ? result : result.method("collapse"_name);
}

// A grid of threads, value and error term. A plain result is one float64 addition of the two.
Object parallel_sum(const Object& x, const Object& x_flat, const Object& n, bool return_tqx) {
  const Object out = zeros_like_device(kOne, x);
  const Object out_err = zeros_like_device(kOne, x);
  const Object grid = grid_over(n);
  launch("tqx_sum_kernel"_name, grid, ArrayOf{x_flat}, ArrayOf{out}, ArrayOf{out_err}, n);
  if (!return_tqx) {
    return add(out, out_err).method("squeeze"_name);
  }
  return squeezed_limbs(x, out, out_err);
}

Object tqx_sum(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object& dim = arguments[1];
  const Object& keepdim = arguments[2];
  const bool return_tqx = arguments.flag(3);
  const bool exact = arguments.flag(4);
  require_cuda(x);
  if (!is_none(dim)) {  // plain torch: return_tqx and exact have no effect
    const Object x_f64 = x.method("double"_name);
    return x_f64.get("sum"_name).call_with(kKeywords<"dim", "keepdim">, dim, keepdim);
  }
  const Object x_flat = flat_float64(x);
  const Object n = x_flat.method("numel"_name);
  return exact ? sequential_sum(x, x_flat, n, return_tqx) : parallel_sum(x, x_flat, n, return_tqx);
}

// Each limb is divided on its own; the rounding errors of these divisions are not kept.
Object mean_limbs(const Object& x, const Object& sum_result, const Object& n) {
  return limbs_beside(x, [&] {
    return list_of(sum_result.get("limbs"_name),
                   [&](const Object& limb) { return divide(limb, n); });
  });
}

// The collapse first, then one division.
Object whole_mean(const Object& x, bool return_tqx) {
  const Object n = x.method("numel"_name);
  const Object sum_result =
      global("tqx_sum"_name).call_with(kKeywords<"return_tqx">, x, boolean(true));
  if (return_tqx) {
    return mean_limbs(x, sum_result, n);
  }
  const Object collapsed = sum_result.method("collapse"_name);
  return divide(collapsed, n);
}

Object tqx_mean(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object& dim = arguments[1];
  const Object& keepdim = arguments[2];
  require_cuda(x);
  if (is_none(dim)) {
    return whole_mean(x, arguments.flag(3));
  }
  const Object n = x.get("shape"_name).at(dim);
  const Object total =
      global("tqx_sum"_name).call_with(kKeywords<"dim", "keepdim">, x, dim, keepdim);
  return divide(total, n);
}

Object tqx_trace(const Arguments& arguments) {
  const Object& x = arguments[0];
  require_cuda(x);
  const Object sum = global("tqx_sum"_name);
  const Object diagonal = torch_member("diag"_name);
  return sum.call(diagonal.call(x.method("double"_name)));
}

constexpr Parameter kDim{"dim", Kind::kOptionalInt, "Optional[int]", Default::none()};
constexpr Parameter kKeepdim{"keepdim", Kind::kBool, "bool", Default::boolean(false)};

constexpr Signature kRows[] = {
    {"tqx_sum",
     {kX, kDim, kKeepdim, kReturnTqx, kExact},
     kTensor,
     "TQX exact sum using TwoSum cascade (4-limb accumulator).\n"
     "\n"
     "Args:\n"
     "    x: CUDA tensor; any dtype that converts to float64.\n"
     "    dim: Dimension to sum along. If given, the plain float64 sum of torch is returned.\n"
     "    keepdim: Keep the summed dimension; no effect without dim.\n"
     "    return_tqx: Return a TQXResult with all limbs instead of a collapsed tensor;\n"
     "        no effect with dim.\n"
     "    exact: If True (default), use sequential kernel for TRUE ZERO ERROR.\n"
     "        If False, use parallel kernel (faster but ~1e-14 error from atomicAdd).\n"
     "\n"
     "Returns:\n"
     "    0-dimensional float64 tensor, or TQXResult of 4 limbs (2 with exact=False).\n"
     "\n"
     "Raises:\n"
     "    RuntimeError: x is not on a CUDA device.",
     tqx_sum},
    {"tqx_mean",
     {kX, kDim, kKeepdim, kReturnTqx},
     kTensor,
     "TQX exact mean using TwoSum cascade.",
     tqx_mean},
};

// The name comes after those of the extrema, so its row stands alone.
constexpr Signature kTraceRow[] = {
    {"tqx_trace", {kX}, kTensor, "Matrix trace (sum of diagonal, exact with TQX sum).", tqx_trace},
};

}  // namespace

void define_sum_and_mean() { define_functions(kRows); }
void define_trace() { define_functions(kTraceRow); }

}  // namespace korvex
