// SPDX-License-Identifier: Apache-2.0
// tqx_abs, tqx_rsqrt, tqx_pow and tqx_clamp, built from torch calls or from the unary operators,
// and the internal root-mean-square normalisation. No CUDA test of their own.
#include "korvex/functions/elementwise/parameters.h"
#include "korvex/functions/elementwise/rows.h"
#include "korvex/runtime/definitions.h"

namespace korvex {
namespace {

Object tqx_abs(const Arguments& arguments) {
  const Object x = folded(arguments[0]);
  const Object abs = global(names().torch).get(names().abs);
  const Object result = abs.call(x.method(names().double_));
  return one_limb(result, x, arguments.flag(1));
}

// 1.0 / tqx_sqrt(x)
Object tqx_rsqrt(const Arguments& arguments) {
  const Object x = folded(arguments[0]);
  const Object root = global(names().tqx_sqrt).call(x);
  const Object result = divide(floating(1.0), root);
  return one_limb(result, x, arguments.flag(1));
}

// tqx_exp(exponent * tqx_log(x)) and nothing more: no exponent is special.
Object tqx_pow(const Arguments& arguments) {
  const Object x = folded(arguments[0]);
  const Object& exponent = arguments[1];
  const Object exp = global(names().tqx_exp);
  const Object logarithm = global(names().tqx_log).call(x);
  const Object result = exp.call(multiply(exponent, logarithm));
  return one_limb(result, x, arguments.flag(2));
}

Object tqx_clamp(const Arguments& arguments) {
  const Object x = folded(arguments[0]);
  const Object clamp = global(names().torch).get(names().clamp);
  const Object result = clamp.call(x.method(names().double_), arguments[1], arguments[2]);
  return one_limb(result, x, arguments.flag(3));
}

// All elements are one group, whatever the shape.
Object rms_norm(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object& eps = arguments[1];
  const Object x_f64 =
      x.method(names().double_).method(names().contiguous).method(names().view, names().minus_one);
  const Object n = x_f64.method(names().numel);
  const Object out = empty_like_device(n, x);
  const Object kernel = get_kernel(names().tqx_rms_norm_kernel);
  {
    const Object launch = kernel.get(names().launch);
    const Object x_array = from_dlpack(x_f64);
    const Object out_array = from_dlpack(out);
    launch.call_with(names().grid_keyword, x_array, out_array, n, eps, names().single_thread);
  }
  synchronize();
  return in_shape_of(out, x);
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
    {"_placeholder_rms_norm",
     {kX, {"eps", Kind::kFloat, "float", Default::floating(1e-06)}},
     "torch.Tensor",
     "Placeholder - removed AI function.",
     rms_norm},
};

}  // namespace

void define_composed() {
  for (const Signature& row : kRows) define_function(row);
}

}  // namespace korvex
