// SPDX-License-Identifier: Apache-2.0
// tqx_min, tqx_max, tqx_argmin and tqx_argmax.
//
// They are exact because nothing accumulates, and test no device. The index functions compare the
// values as they are, without widening them.
#include "korvex/functions/reductions/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

Object tqx_min(const Arguments& arguments) {
  return arguments[0].method("double"_name).method("min"_name);
}

Object tqx_max(const Arguments& arguments) {
  return arguments[0].method("double"_name).method("max"_name);
}

Object tqx_argmin(const Arguments& arguments) {
  return arguments[0].method("flatten"_name).method("argmin"_name);
}

Object tqx_argmax(const Arguments& arguments) {
  return arguments[0].method("flatten"_name).method("argmax"_name);
}

constexpr Signature kRows[] = {
    {"tqx_min", {kX}, kTensor, "TQX min (exact - no accumulation).", tqx_min},
    {"tqx_max", {kX}, kTensor, "TQX max (exact - no accumulation).", tqx_max},
    {"tqx_argmin", {kX}, kTensor, "TQX argmin (exact - comparison only).", tqx_argmin},
    {"tqx_argmax", {kX}, kTensor, "TQX argmax (exact - comparison only).", tqx_argmax},
};

}  // namespace

void define_extrema() { define_functions(kRows); }

}  // namespace korvex
