// SPDX-License-Identifier: Apache-2.0
// tqx_var, tqx_std, tqx_norm, tqx_prod, tqx_cumsum, tqx_logsumexp: one block, all elements.
//
// They differ in which test the input, whether return_tqx has an effect, and which outputs reach
// the caller. unbiased and p are converted and reach no kernel.
#include "korvex/functions/reductions/limb_outputs.h"
#include "korvex/functions/reductions/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// One launch of (x_flat, *outputs, n) in one block.
template <typename... Outputs>
void launch_single_block(Handle kernel_name, const Object& x_flat, const Object& n,
                         const Outputs&... outputs) {
  launch(kernel_name, kSingle, ArrayOf{x_flat}, ArrayOf{outputs}..., n);
}

Object tqx_var(const Arguments& arguments) {
  const Object& x = arguments[0];
  require_cuda(x);
  const Object x_flat = flat_float64(x);
  const Object n = x_flat.method("numel"_name);
  const Object out_mean = zeros_like_device(kOne, x);  // written by the kernel, never read
  const Object out_var = zeros_like_device(kOne, x);
  launch_single_block("tqx_var_kernel"_name, x_flat, n, out_mean, out_var);
  return out_var.method("squeeze"_name);
}

Object tqx_std(const Arguments& arguments) {
  const Object& x = arguments[0];
  require_cuda(x);
  const Object sqrt = torch_member("sqrt"_name);
  const Object variance = global("tqx_var"_name);
  return sqrt.call(variance.call_with(kKeywords<"unbiased">, x, arguments[1]));
}

Object tqx_norm(const Arguments& arguments) {
  const Object& x = arguments[0];
  require_cuda(x);
  const Object x_flat = flat_float64(x);
  const Object n = x_flat.method("numel"_name);
  const Object out = zeros_like_device(kOne, x);
  launch_single_block("tqx_norm_kernel"_name, x_flat, n, out);
  return out.method("squeeze"_name);
}

// The plain result folds the error limb in.
Object tqx_prod(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object x_flat = flat_float64(x);
  const Object n = x_flat.method("numel"_name);
  const Object out = zeros_like_device(kOne, x);
  const Object out_err = zeros_like_device(kOne, x);
  launch_single_block("tqx_prod_kernel"_name, x_flat, n, out, out_err);
  if (arguments.flag(1)) {
    return squeezed_limbs(x, out, out_err);
  }
  return add(out, out_err).method("squeeze"_name);
}

// A scan in flat order, in the shape of x. The plain result drops the error limb.
Object tqx_cumsum(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object x_flat = flat_float64(x);
  const Object n = x_flat.method("numel"_name);
  const Object out = empty_like_device(n, x);
  const Object out_err = empty_like_device(n, x);
  launch_single_block("tqx_cumsum_kernel"_name, x_flat, n, out, out_err);
  if (!arguments.flag(1)) {
    return in_shape_of(out, x);
  }
  return limbs_beside(x, [&] {
    const Object value = in_shape_of(out, x);
    const Object error = in_shape_of(out_err, x);
    return list(value, error);
  });
}

Object tqx_logsumexp(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object x_flat = flat_float64(x);
  const Object n = x_flat.method("numel"_name);
  const Object out = zeros_like_device(kOne, x);
  launch_single_block("tqx_logsumexp_kernel"_name, x_flat, n, out);
  return out.method("squeeze"_name);
}

constexpr Signature kRows[] = {
    {"tqx_var",
     {kX, kUnbiased, kReturnTqx},
     kTensor,
     "TQX exact variance using TwoSum/TwoProduct.",
     tqx_var},
    {"tqx_std",
     {kX, kUnbiased, kReturnTqx},
     kTensor,
     "TQX exact standard deviation using TwoSum/TwoProduct.",
     tqx_std},
    {"tqx_norm",
     {kX, kNormOrder, kReturnTqx},
     kTensor,
     "TQX exact L2 norm using TwoSum/TwoProduct.",
     tqx_norm},
    {"tqx_prod",
     {kX, kReturnTqx},
     kTensor,
     "TQX exact product using native CUDA kernel.",
     tqx_prod},
    {"tqx_cumsum",
     {kX, kReturnTqx},
     kTensor,
     "TQX exact cumulative sum using native CUDA kernel.",
     tqx_cumsum},
    {"tqx_logsumexp",
     {kX, kReturnTqx},
     kTensor,
     "TQX exact logsumexp using native CUDA kernel.",
     tqx_logsumexp},
};

}  // namespace

void define_kernel_reductions() { define_functions(kRows); }

}  // namespace korvex
