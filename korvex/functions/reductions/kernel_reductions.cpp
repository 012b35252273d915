// SPDX-License-Identifier: Apache-2.0
// tqx_var, tqx_std, tqx_norm, tqx_prod, tqx_cumsum, tqx_logsumexp: one block, all elements.
//
// They look alike and differ in settled ways: which test the input, whether return_tqx does
// anything, and which outputs reach the caller. unbiased and p are converted and reach no kernel.
#include <tuple>

#include "korvex/functions/reductions/flat_input.h"
#include "korvex/functions/reductions/rows.h"
#include "korvex/runtime/definitions.h"

namespace korvex {
namespace {

// kernel.launch(x_flat, *outputs, n, grid=(1, 1, 1)), waited for
template <typename... Outputs>
void launch_single_block(const Object& kernel_name, const Object& x_flat, const Object& n,
                         const Outputs&... outputs) {
  const Object kernel = get_kernel(kernel_name);
  {
    const Object launch = kernel.get(names().launch);
    const Object x_array = from_dlpack(x_flat);
    // Braces order the conversions from left to right.
    const std::array<Object, sizeof...(Outputs)> output_arrays{from_dlpack(outputs)...};
    std::apply(
        [&](const auto&... arrays) {
          launch.call_with(names().grid_keyword, x_array, arrays..., n, names().single_thread);
        },
        output_arrays);
  }
  synchronize();
}

Object tqx_var(const Arguments& arguments) {
  const Object& x = arguments[0];
  require_cuda(x);
  const Object x_flat = flat_float64(x);
  const Object n = x_flat.method(names().numel);
  const Object out_mean = zeros_like_device(names().one, x);  // written, and read by nobody
  const Object out_var = zeros_like_device(names().one, x);
  launch_single_block(names().tqx_var_kernel, x_flat, n, out_mean, out_var);
  return out_var.method(names().squeeze);
}

Object tqx_std(const Arguments& arguments) {
  const Object& x = arguments[0];
  require_cuda(x);
  const Object sqrt = global(names().torch).get(names().sqrt);
  const Object variance = global(names().tqx_var);
  return sqrt.call(variance.call_with(names().unbiased_keyword, x, arguments[1]));
}

Object tqx_norm(const Arguments& arguments) {
  const Object& x = arguments[0];
  require_cuda(x);
  const Object x_flat = flat_float64(x);
  const Object n = x_flat.method(names().numel);
  const Object out = zeros_like_device(names().one, x);
  launch_single_block(names().tqx_norm_kernel, x_flat, n, out);
  return out.method(names().squeeze);
}

// The plain result folds the error limb in.
Object tqx_prod(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object x_flat = flat_float64(x);
  const Object n = x_flat.method(names().numel);
  const Object out = zeros_like_device(names().one, x);
  const Object out_err = zeros_like_device(names().one, x);
  launch_single_block(names().tqx_prod_kernel, x_flat, n, out, out_err);
  if (arguments.flag(1)) return squeezed_limbs(x, out, out_err);
  return add(out, out_err).method(names().squeeze);
}

// A scan in flat order, in the shape of x. The plain result drops the error limb.
Object tqx_cumsum(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object x_flat = flat_float64(x);
  const Object n = x_flat.method(names().numel);
  const Object out = empty_like_device(n, x);
  const Object out_err = empty_like_device(n, x);
  launch_single_block(names().tqx_cumsum_kernel, x_flat, n, out, out_err);
  if (!arguments.flag(1)) return in_shape_of(out, x);
  const Object result_class = global(names().tqx_result);
  const Object value = in_shape_of(out, x);
  const Object error = in_shape_of(out_err, x);
  const Object limbs = list(value, error);
  const Object device = device_text(x);
  return result_class.call(limbs, device);
}

Object tqx_logsumexp(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object x_flat = flat_float64(x);
  const Object n = x_flat.method(names().numel);
  const Object out = zeros_like_device(names().one, x);
  launch_single_block(names().tqx_logsumexp_kernel, x_flat, n, out);
  return out.method(names().squeeze);
}

constexpr Parameter kX{"x", Kind::kAny, "torch.Tensor"};
constexpr Parameter kUnbiased{"unbiased", Kind::kBool, "bool", Default::boolean(true)};
constexpr Parameter kReturnTqx{"return_tqx", Kind::kBool, "bool", Default::boolean(false)};

constexpr Signature kRows[] = {
    {"tqx_var",
     {kX, kUnbiased, kReturnTqx},
     "torch.Tensor",
     "TQX exact variance using TwoSum/TwoProduct.",
     tqx_var},
    {"tqx_std",
     {kX, kUnbiased, kReturnTqx},
     "torch.Tensor",
     "TQX exact standard deviation using TwoSum/TwoProduct.",
     tqx_std},
    {"tqx_norm",
     {kX, {"p", Kind::kInt, "int", Default::integer(2)}, kReturnTqx},
     "torch.Tensor",
     "TQX exact L2 norm using TwoSum/TwoProduct.",
     tqx_norm},
    {"tqx_prod",
     {kX, kReturnTqx},
     "torch.Tensor",
     "TQX exact product using native CUDA kernel.",
     tqx_prod},
    {"tqx_cumsum",
     {kX, kReturnTqx},
     "torch.Tensor",
     "TQX exact cumulative sum using native CUDA kernel.",
     tqx_cumsum},
    {"tqx_logsumexp",
     {kX, kReturnTqx},
     "torch.Tensor",
     "TQX exact logsumexp using native CUDA kernel.",
     tqx_logsumexp},
};

}  // namespace

void define_kernel_reductions() {
  for (const Signature& row : kRows) define_function(row);
}

}  // namespace korvex
