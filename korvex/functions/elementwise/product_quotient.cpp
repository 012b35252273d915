// SPDX-License-Identifier: Apache-2.0
// tqx_mul and tqx_div: one body, two kernels.
//
// A limb operand is collapsed first: it makes the result a limb result, but its lower limbs take no
// part.
#include "korvex/functions/elementwise/binary_launch.h"
#include "korvex/functions/elementwise/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

Object product_or_quotient(Handle kernel_name, const Arguments& arguments) {
  const auto [x_tensor, x_is_tqx] =
      unpack<2>(global("_extract_tqx_tensor"_name).call(arguments[0]));
  const auto [y_tensor, y_is_tqx] =
      unpack<2>(global("_extract_tqx_tensor"_name).call(arguments[1]));
  const bool propagate_tqx = truth(x_is_tqx) || truth(y_is_tqx) || arguments.flag(2);
  const Object x_t = x_tensor.method("double"_name);
  const Object y_t = y_tensor.method("double"_name);
  const BinaryOutputs result = launch_binary(kernel_name, x_t, y_t, x_tensor);
  if (!propagate_tqx) {
    return add(result.out, result.out_err).method("view"_name, result.output_shape);
  }
  return limbs_beside(x_tensor, [&] {
    const Object value = result.out.method("view"_name, result.output_shape);
    const Object error = result.out_err.method("view"_name, result.output_shape);
    return list(value, error);
  });
}

Object tqx_mul(const Arguments& arguments) {
  return product_or_quotient("tqx_mul_kernel"_name, arguments);
}

Object tqx_div(const Arguments& arguments) {
  return product_or_quotient("tqx_div_kernel"_name, arguments);
}

constexpr Signature kRows[] = {
    {"tqx_mul",
     {kAnyX, kAnyY, kReturnTqx},
     nullptr,
     "TQX exact multiplication using native CUDA kernel.\n"
     "Accepts tensors or TQXResult. Propagates TQX precision through chains.\n"
     "Supports broadcasting (scalar * vector, etc.).",
     tqx_mul},
    {"tqx_div",
     {kAnyX, kAnyY, kReturnTqx},
     nullptr,
     "TQX exact division using native CUDA kernel.\n"
     "Accepts tensors or TQXResult. Propagates TQX precision through chains.\n"
     "Supports broadcasting (scalar / vector, etc.).",
     tqx_div},
};

}  // namespace

void define_product_quotient() { define_functions(kRows); }

}  // namespace korvex
