// SPDX-License-Identifier: Apache-2.0
// tqx_sum and tqx_mean: the exact sum of all elements, and the plain torch sum along a dimension.
//
// Whole-tensor sums run in one GPU thread with a four-limb accumulator, or in parallel with two
// limbs if the caller asks for it; nothing chooses by size.
#include "korvex/functions/reductions/flat_input.h"
#include "korvex/functions/reductions/rows.h"
#include "korvex/runtime/definitions.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// One GPU thread, four limbs. The limbs are 0-dimensional views of one buffer.
Object sequential_sum(const Object& x, const Object& x_flat, const Object& n, bool return_tqx) {
  const Object out = zeros_like_device(integer(4), x);
  const Object kernel = get_kernel(names().tqx_sum_seq_kernel);
  {
    const Object function = kernel.get(names().function);
    const Object x_array = from_dlpack(x_flat);
    const Object out_array = from_dlpack(out);
    const Object kernel_arguments = tuple(x_array, out_array, n);
    function.call(names().single_thread, names().single_thread, kernel_arguments);
  }
  synchronize();
  const Object result = four_limbs(out, x);
  return return_tqx ? result : result.method(names().collapse);
}

// A grid of threads, value and error term. A plain result is one float64 addition of the two.
Object parallel_sum(const Object& x, const Object& x_flat, const Object& n, bool return_tqx) {
  const Object out = zeros_like_device(names().one, x);
  const Object out_err = zeros_like_device(names().one, x);
  const Object num_blocks = blocks_for(n, kBlock);
  const Object kernel = get_kernel(names().tqx_sum_kernel);
  {
    const Object launch = kernel.get(names().launch);
    const Object x_array = from_dlpack(x_flat);
    const Object out_array = from_dlpack(out);
    const Object out_err_array = from_dlpack(out_err);
    const Object grid = tuple(num_blocks, names().one, names().one);
    launch.call_with(names().grid_keyword, x_array, out_array, out_err_array, n, grid);
  }
  synchronize();
  if (!return_tqx) return add(out, out_err).method(names().squeeze);
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
    const Object x_f64 = x.method(names().double_);
    return x_f64.get(names().sum).call_with(names().dim_keepdim_keywords, dim, keepdim);
  }
  const Object x_flat = flat_float64(x);
  const Object n = x_flat.method(names().numel);
  return exact ? sequential_sum(x, x_flat, n, return_tqx) : parallel_sum(x, x_flat, n, return_tqx);
}

// Each limb is divided on its own; the rounding errors of these divisions are not kept.
Object mean_limbs(const Object& x, const Object& sum_result, const Object& n) {
  const Object result_class = global(names().tqx_result);
  const Object limbs =
      list_of(sum_result.get(names().limbs), [&](const Object& limb) { return divide(limb, n); });
  const Object device = device_text(x);
  return result_class.call(limbs, device);
}

// The collapse first, then one division.
Object whole_mean(const Object& x, bool return_tqx) {
  const Object n = x.method(names().numel);
  const Object sum_result =
      global(names().tqx_sum).call_with(names().return_tqx_keyword, x, boolean(true));
  if (return_tqx) return mean_limbs(x, sum_result, n);
  const Object collapsed = sum_result.method(names().collapse);
  return divide(collapsed, n);
}

Object tqx_mean(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object& dim = arguments[1];
  const Object& keepdim = arguments[2];
  require_cuda(x);
  if (is_none(dim)) return whole_mean(x, arguments.flag(3));
  const Object n = x.get(names().shape).at(dim);
  const Object total =
      global(names().tqx_sum).call_with(names().dim_keepdim_keywords, x, dim, keepdim);
  return divide(total, n);
}

constexpr Parameter kX{"x", Kind::kAny, "torch.Tensor"};
constexpr Parameter kDim{"dim", Kind::kOptionalInt, "Optional[int]", Default::none()};
constexpr Parameter kKeepdim{"keepdim", Kind::kBool, "bool", Default::boolean(false)};
constexpr Parameter kReturnTqx{"return_tqx", Kind::kBool, "bool", Default::boolean(false)};

constexpr Signature kSum{
    "tqx_sum",
    {kX, kDim, kKeepdim, kReturnTqx, {"exact", Kind::kBool, "bool", Default::boolean(true)}},
    "torch.Tensor",
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
    tqx_sum};

constexpr Signature kMean{"tqx_mean",
                          {kX, kDim, kKeepdim, kReturnTqx},
                          "torch.Tensor",
                          "TQX exact mean using TwoSum cascade.",
                          tqx_mean};

}  // namespace

void define_sum_and_mean() {
  define_function(kSum);
  define_function(kMean);
}

}  // namespace korvex
