// SPDX-License-Identifier: Apache-2.0
// Rounding, comparison and selection: operands widened to float64, one call of torch each.
//
// The rounding functions and tqx_fmod fold a limb operand and honour return_tqx; tqx_sign, the
// comparisons and tqx_where do neither. Only x is tested for a CUDA device.
#include "korvex/functions/elementwise/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

template <Spelling torch_function>
Object rounding(const Arguments& arguments) {
  const Object x = folded(arguments[0]);
  require_cuda(x);
  const Object function = torch_member(kName<torch_function>);
  const Object result = function.call(x.method("double"_name));
  return one_limb(result, x, arguments.flag(1));
}

Object tqx_fmod(const Arguments& arguments) {
  const Object x = folded(arguments[0]);
  const Object y = folded(arguments[1]);
  require_cuda(x);
  const Object function = torch_member("fmod"_name);
  const Object x_f64 = x.method("double"_name);
  const Object y_f64 = y.method("double"_name);
  const Object result = function.call(x_f64, y_f64);
  return one_limb(result, x, arguments.flag(2));
}

Object tqx_sign(const Arguments& arguments) {
  const Object& x = arguments[0];
  require_cuda(x);
  const Object function = torch_member("sign"_name);
  return function.call(x.method("double"_name));
}

template <Spelling torch_function>
Object comparison(const Arguments& arguments) {
  const Object& x = arguments[0];
  require_cuda(x);
  const Object function = torch_member(kName<torch_function>);
  const Object x_f64 = x.method("double"_name);
  const Object y_f64 = arguments[1].method("double"_name);
  return function.call(x_f64, y_f64);
}

// The condition goes to torch as it came.
Object tqx_where(const Arguments& arguments) {
  const Object& condition = arguments[0];
  const Object& x = arguments[1];
  require_cuda(x);
  const Object function = torch_member("where"_name);
  const Object x_f64 = x.method("double"_name);
  const Object y_f64 = arguments[2].method("double"_name);
  return function.call(condition, x_f64, y_f64);
}

constexpr Signature kRows[] = {
    {"tqx_floor", {kX, kReturnTqx}, nullptr, "Floor function (exact).", rounding<"floor">},
    {"tqx_ceil", {kX, kReturnTqx}, nullptr, "Ceiling function (exact).", rounding<"ceil">},
    {"tqx_round",
     {kX, kReturnTqx},
     nullptr,
     "Round to nearest integer (exact).",
     rounding<"round">},
    {"tqx_trunc", {kX, kReturnTqx}, nullptr, "Truncate toward zero (exact).", rounding<"trunc">},
    {"tqx_fmod", {kX, kY, kReturnTqx}, nullptr, "Floating-point modulo (exact).", tqx_fmod},
    {"tqx_sign", {kX}, kTensor, "Sign function (exact).", tqx_sign},
    {"tqx_eq", {kX, kY}, kTensor, "Element-wise equality comparison.", comparison<"eq">},
    {"tqx_ne", {kX, kY}, kTensor, "Element-wise not-equal comparison.", comparison<"ne">},
    {"tqx_lt", {kX, kY}, kTensor, "Element-wise less-than comparison.", comparison<"lt">},
    {"tqx_le", {kX, kY}, kTensor, "Element-wise less-than-or-equal comparison.", comparison<"le">},
    {"tqx_gt", {kX, kY}, kTensor, "Element-wise greater-than comparison.", comparison<"gt">},
    {"tqx_ge",
     {kX, kY},
     kTensor,
     "Element-wise greater-than-or-equal comparison.",
     comparison<"ge">},
    {"tqx_where",
     {tensor_parameter("condition"), kX, kY},
     kTensor,
     "Element-wise conditional selection.",
     tqx_where},
};

}  // namespace

void define_rounding_comparison() { define_functions(kRows); }

}  // namespace korvex
