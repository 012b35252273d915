// SPDX-License-Identifier: Apache-2.0
// tqx_min, tqx_max, tqx_argmin, tqx_argmax and tqx_trace.
//
// The extrema are exact because nothing accumulates; they test no device. The index functions
// compare the values as they are, without widening them.
#include "korvex/functions/reductions/rows.h"
#include "korvex/runtime/definitions.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

Object tqx_min(const Arguments& arguments) {
  return arguments[0].method(names().double_).method(names().min);
}

Object tqx_max(const Arguments& arguments) {
  return arguments[0].method(names().double_).method(names().max);
}

Object tqx_argmin(const Arguments& arguments) {
  return arguments[0].method(names().flatten).method(names().argmin);
}

Object tqx_argmax(const Arguments& arguments) {
  return arguments[0].method(names().flatten).method(names().argmax);
}

Object tqx_trace(const Arguments& arguments) {
  const Object& x = arguments[0];
  require_cuda(x);
  const Object sum = global(names().tqx_sum);
  const Object diagonal = global(names().torch).get(names().diag);
  return sum.call(diagonal.call(x.method(names().double_)));
}

constexpr Parameter kX{"x", Kind::kAny, "torch.Tensor"};

constexpr Signature kRows[] = {
    {"tqx_min", {kX}, "torch.Tensor", "TQX min (exact - no accumulation).", tqx_min},
    {"tqx_max", {kX}, "torch.Tensor", "TQX max (exact - no accumulation).", tqx_max},
    {"tqx_argmin", {kX}, "torch.Tensor", "TQX argmin (exact - comparison only).", tqx_argmin},
    {"tqx_argmax", {kX}, "torch.Tensor", "TQX argmax (exact - comparison only).", tqx_argmax},
    {"tqx_trace",
     {kX},
     "torch.Tensor",
     "Matrix trace (sum of diagonal, exact with TQX sum).",
     tqx_trace},
};

}  // namespace

void define_extrema() {
  for (const Signature& row : kRows) define_function(row);
}

}  // namespace korvex
