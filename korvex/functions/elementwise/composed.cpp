// SPDX-License-Identifier: Apache-2.0
// tqx_abs, tqx_rsqrt, tqx_pow and tqx_clamp, built from torch calls or from the unary operators. No
// CUDA test of their own.
#include "korvex/functions/elementwise/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

Object tqx_abs(const Arguments& arguments) {
  const Object x = folded(arguments[0]);
  const Object abs = torch_member("abs"_name);
  const Object result = abs.call(x.method("double"_name));
  return one_limb(result, x, arguments.flag(1));
}

// 1.0 / tqx_sqrt(x)
Object tqx_rsqrt(const Arguments& arguments) {
  const Object x = folded(arguments[0]);
  const Object root = global("tqx_sqrt"_name).call(x);
  const Object result = divide(floating(1.0), root);
  return one_limb(result, x, arguments.flag(1));
}

// tqx_exp(exponent * tqx_log(x)) and nothing more: no exponent is special.
Object tqx_pow(const Arguments& arguments) {
  const Object x = folded(arguments[0]);
  const Object& exponent = arguments[1];
  const Object exp = global("tqx_exp"_name);
  const Object logarithm = global("tqx_log"_name).call(x);
  const Object result = exp.call(multiply(exponent, logarithm));
  return one_limb(result, x, arguments.flag(2));
}

Object tqx_clamp(const Arguments& arguments) {
  const Object x = folded(arguments[0]);
  const Object clamp = torch_member("clamp"_name);
  const Object result = clamp.call(x.method("double"_name), arguments[1], arguments[2]);
  return one_limb(result, x, arguments.flag(3));
}

constexpr Signature kRows[] = {
    {"tqx_abs", {kX, kReturnTqx}, nullptr, "TQX abs (exact - no rounding).", tqx_abs},
    {"tqx_rsqrt",
     {kX, kReturnTqx},
     nullptr,
     "TQX rsqrt using TQX sqrt then reciprocal.",
     tqx_rsqrt},
    {"tqx_pow",
     {kX, {"exponent", Kind::kFloat, "float"}, kReturnTqx},
     nullptr,
     "TQX pow using TQX exp and log: x^a = exp(a * log(x)).",
     tqx_pow},
    {"tqx_clamp",
     {kX, {"min_val", Kind::kFloat, "float"}, {"max_val", Kind::kFloat, "float"}, kReturnTqx},
     nullptr,
     "TQX clamp (exact - comparison only).",
     tqx_clamp},
};

}  // namespace

void define_composed() { define_functions(kRows); }

}  // namespace korvex
