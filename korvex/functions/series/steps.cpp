// SPDX-License-Identifier: Apache-2.0
// The steps that all series share.
#include "korvex/functions/series/steps.h"

namespace korvex {

Object series_operand(const Object& x) {
  const Object operand = folded(x);
  require_cuda(operand);
  return operand;
}

Object product_value(const Object& a, const Object& b) {
  return unpack<2>(global("_two_product"_name).call(a, b))[0];
}

Object like(Handle name, const Object& x) { return torch_member(name).call(x); }

void RunningSum::add_term(const Object& term) {
  const auto [s, e] = unpack<2>(global("_two_sum"_name).call(result, term));
  result = s;
  error = add(error, e);
}

}  // namespace korvex
