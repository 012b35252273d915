// SPDX-License-Identifier: Apache-2.0
// The internal root-mean-square normalisation. It tests no device.
#include "korvex/functions/elementwise/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// All elements are one group, whatever the shape.
Object rms_norm(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object& eps = arguments[1];
  const Object x_f64 = flat_float64(x);
  const Object n = x_f64.method("numel"_name);
  const Object out = empty_like_device(n, x);
  launch("tqx_rms_norm_kernel"_name, kSingle, ArrayOf{x_f64}, ArrayOf{out}, n, eps);
  return in_shape_of(out, x);
}

constexpr Signature kRows[] = {
    {"_placeholder_rms_norm",
     {kX, {"eps", Kind::kFloat, "float", Default::floating(1e-06)}},
     kTensor,
     "Placeholder - removed AI function.",
     rms_norm},
};

}  // namespace

void define_rms_norm() { define_functions(kRows); }

}  // namespace korvex
