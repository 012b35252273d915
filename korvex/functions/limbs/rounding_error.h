// SPDX-License-Identifier: Apache-2.0
// The rounding error of a sum of tensors.
#pragma once

#include "korvex/cpython/object.h"
#include "korvex/runtime/runtime.h"

namespace korvex {

// What s = a + b left out: TwoSum after its first step (Knuth, TAOCP 2, 4.2.2), valid for either
// order of magnitude. Tensors may be large, so each difference goes as soon as it is used.
inline Object rounding_error(const Object& s, const Object& a, const Object& b) {
  const Object v = subtract(s, a);
  Object a_error = subtract(s, v);
  a_error = subtract(a, a_error);
  const Object b_error = subtract(b, v);
  return add(a_error, b_error);
}

}  // namespace korvex
