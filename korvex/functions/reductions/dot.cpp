// SPDX-License-Identifier: Apache-2.0
// tqx_dot: the exact sum of element-wise products, in one GPU thread or in parallel.
//
// Both operands are read flat; the element count is that of x alone, and only x is tested.
#include "korvex/functions/reductions/flat_input.h"
#include "korvex/functions/reductions/rows.h"
#include "korvex/runtime/definitions.h"

namespace korvex {
namespace {

struct FlatPair {
  Object x_flat;
  Object y_flat;
  Object n;
};

Object sequential_dot(const Object& x, const FlatPair& flat, bool return_tqx) {
  const Object out = zeros_like_device(integer(4), x);
  const Object kernel = get_kernel(names().tqx_dot_seq_kernel);
  {
    const Object function = kernel.get(names().function);
    const Object x_array = from_dlpack(flat.x_flat);
    const Object y_array = from_dlpack(flat.y_flat);
    const Object out_array = from_dlpack(out);
    const Object kernel_arguments = tuple(x_array, y_array, out_array, flat.n);
    function.call(names().single_thread, names().single_thread, kernel_arguments);
  }
  synchronize();
  const Object result = four_limbs(out, x);
  return return_tqx ? result : result.method(names().collapse);
}

// A plain result is two float64 additions, from left to right.
Object parallel_dot(const Object& x, const FlatPair& flat, bool return_tqx) {
  const Object out = zeros_like_device(names().one, x);
  const Object out_err = zeros_like_device(names().one, x);
  const Object out_err2 = zeros_like_device(names().one, x);
  const Object num_blocks = blocks_for(flat.n, kBlock);
  const Object kernel = get_kernel(names().tqx_dot_kernel);
  {
    const Object launch = kernel.get(names().launch);
    const Object x_array = from_dlpack(flat.x_flat);
    const Object y_array = from_dlpack(flat.y_flat);
    const Object out_array = from_dlpack(out);
    const Object out_err_array = from_dlpack(out_err);
    const Object out_err2_array = from_dlpack(out_err2);
    const Object grid = tuple(num_blocks, names().one, names().one);
    launch.call_with(names().grid_keyword, x_array, y_array, out_array, out_err_array,
                     out_err2_array, flat.n, grid);
  }
  synchronize();
  if (return_tqx) return squeezed_limbs(x, out, out_err, out_err2);
  const Object first_two = add(out, out_err);
  return add(first_two, out_err2).method(names().squeeze);
}

Object tqx_dot(const Arguments& arguments) {
  const Object& x = arguments[0];
  const bool return_tqx = arguments.flag(2);
  require_cuda(x);
  FlatPair flat;
  flat.x_flat = flat_float64(x);
  flat.y_flat = flat_float64(arguments[1]);
  flat.n = flat.x_flat.method(names().numel);
  const bool exact = arguments.flag(3);
  return exact ? sequential_dot(x, flat, return_tqx) : parallel_dot(x, flat, return_tqx);
}

constexpr Signature kDot{
    "tqx_dot",
    {{"x", Kind::kAny, "torch.Tensor"},
     {"y", Kind::kAny, "torch.Tensor"},
     {"return_tqx", Kind::kBool, "bool", Default::boolean(false)},
     {"exact", Kind::kBool, "bool", Default::boolean(true)}},
    "torch.Tensor",
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
    tqx_dot};

}  // namespace

void define_dot() { define_function(kDot); }

}  // namespace korvex
