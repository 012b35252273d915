// SPDX-License-Identifier: Apache-2.0
// tqx_dot: the exact sum of element-wise products, in one GPU thread or in parallel.
//
// Both operands are read flat; the element count is that of x alone, and only x is tested.
#include "korvex/functions/reductions/limb_outputs.h"
#include "korvex/functions/reductions/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

struct FlatPair {
  Object x_flat;
  Object y_flat;
  Object n;
};

Object sequential_dot(const Object& x, const FlatPair& flat, bool return_tqx) {
  const Object out = zeros_like_device(integer(4), x);
  launch_in_blocks("tqx_dot_seq_kernel"_name, kSingle, kSingle, ArrayOf{flat.x_flat},
                   ArrayOf{flat.y_flat}, ArrayOf{out}, flat.n);
  const Object result = four_limbs(out, x);
  return return_tqx ? result : result.method("collapse"_name);
}

// A plain result is two float64 additions, from left to right.
Object parallel_dot(const Object& x, const FlatPair& flat, bool return_tqx) {
  const Object out = zeros_like_device(kOne, x);
  const Object out_err = zeros_like_device(kOne, x);
  const Object out_err2 = zeros_like_device(kOne, x);
  const Object grid = grid_over(flat.n);
  launch("tqx_dot_kernel"_name, grid, ArrayOf{flat.x_flat}, ArrayOf{flat.y_flat}, ArrayOf{out},
         ArrayOf{out_err}, ArrayOf{out_err2}, flat.n);
  if (return_tqx) {
    return squeezed_limbs(x, out, out_err, out_err2);
  }
  const Object first_two = add(out, out_err);
  return add(first_two, out_err2).method("squeeze"_name);
}

Object tqx_dot(const Arguments& arguments) {
  const Object& x = arguments[0];
  const bool return_tqx = arguments.flag(2);
  require_cuda(x);
  FlatPair flat;
  flat.x_flat = flat_float64(x);
  flat.y_flat = flat_float64(arguments[1]);
  flat.n = flat.x_flat.method("numel"_name);
  const bool exact = arguments.flag(3);
  return exact ? sequential_dot(x, flat, return_tqx) : parallel_dot(x, flat, return_tqx);
}

constexpr Signature kRows[] = {
    {"tqx_dot",
     {kX, kY, kReturnTqx, kExact},
     kTensor,
     "TQX exact dot product using TwoProduct + TwoSum cascade.\n"
     "Uses native CUDA kernel with TwoProduct for exact multiply,\n"
     "TwoSum cascade for accumulation. TRUE ZERO ACCUMULATED ERROR.\n"
     "\n"
     "Args:\n"
     "    x: CUDA tensor, read flat.\n"
     "    y: CUDA tensor of as many elements, read flat.\n"
     "    return_tqx: Return a TQXResult with all limbs instead of a collapsed tensor.\n"
     "    exact: If True (default), use sequential kernel for TRUE ZERO ERROR.\n"
     "        If False, use parallel kernel (faster but ~1e-14 error from atomicAdd).\n"
     "\n"
     "Returns:\n"
     "    0-dimensional float64 tensor, or TQXResult of 4 limbs (3 with exact=False).\n"
     "\n"
     "Raises:\n"
     "    RuntimeError: x is not on a CUDA device.",
     tqx_dot},
};

}  // namespace

void define_dot() { define_functions(kRows); }

}  // namespace korvex
