// SPDX-License-Identifier: Apache-2.0
// tqx_mul and tqx_div: one body, two kernels.
//
// A limb operand is collapsed first: what it keeps is the form of the result, not its lower limbs.
#include "korvex/functions/elementwise/rows.h"
#include "korvex/runtime/definitions.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

Object product_or_quotient(const Object& kernel_name, const Arguments& arguments) {
  const auto [x_tensor, x_is_tqx] =
      unpack<2>(global(names().extract_tqx_tensor).call(arguments[0]));
  const auto [y_tensor, y_is_tqx] =
      unpack<2>(global(names().extract_tqx_tensor).call(arguments[1]));
  const bool propagate_tqx = truth(x_is_tqx) || truth(y_is_tqx) || arguments.flag(2);
  const Object x_t = x_tensor.method(names().double_);
  const Object y_t = y_tensor.method(names().double_);
  const BinaryOutputs result = launch_binary(kernel_name, x_t, y_t, x_tensor);
  if (!propagate_tqx)
    return add(result.out, result.out_err).method(names().view, result.output_shape);
  const Object result_class = global(names().tqx_result);
  const Object value = result.out.method(names().view, result.output_shape);
  const Object error = result.out_err.method(names().view, result.output_shape);
  const Object limbs = list(value, error);
  const Object device = device_text(x_tensor);
  return result_class.call(limbs, device);
}

Object tqx_mul(const Arguments& arguments) {
  return product_or_quotient(names().tqx_mul_kernel, arguments);
}

Object tqx_div(const Arguments& arguments) {
  return product_or_quotient(names().tqx_div_kernel, arguments);
}

constexpr Parameter kX{"x"};
constexpr Parameter kY{"y"};
constexpr Parameter kReturnTqx{"return_tqx", Kind::kBool, "bool", Default::boolean(false)};

constexpr Signature kMul{"tqx_mul",
                         {kX, kY, kReturnTqx},
                         nullptr,
                         "TQX exact multiplication using native CUDA kernel.\n"
                         "Accepts tensors or TQXResult. Propagates TQX precision through chains.\n"
                         "Supports broadcasting (scalar * vector, etc.).",
                         tqx_mul};

constexpr Signature kDiv{"tqx_div",
                         {kX, kY, kReturnTqx},
                         nullptr,
                         "TQX exact division using native CUDA kernel.\n"
                         "Accepts tensors or TQXResult. Propagates TQX precision through chains.\n"
                         "Supports broadcasting (scalar / vector, etc.).",
                         tqx_div};

}  // namespace

void define_product_quotient() {
  define_function(kMul);
  define_function(kDiv);
}

}  // namespace korvex
