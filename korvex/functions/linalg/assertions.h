// SPDX-License-Identifier: Apache-2.0
// Assertions as the interpreter's own: made only while __debug__ is true.
#pragma once

#include "korvex/runtime/runtime.h"

namespace korvex {

inline bool assertions_are_on() { return truth(global("__debug__"_name)); }

// assert holds(), without a text
template <typename Condition>
void assert_plain(const Condition& holds) {
  if (!assertions_are_on() || holds()) {
    return;
  }
  PyErr_SetNone(PyExc_AssertionError);
  throw PythonError{};
}

// assert K == K2, f"Inner dimensions must match: {K} vs {K2}"
inline void assert_inner_dimensions(const Object& k, const Object& k2) {
  if (!assertions_are_on() || equal(k, k2)) {
    return;
  }
  const Object k_text = formatted(k);
  const Object k2_text = formatted(k2);
  raise_formatted(PyExc_AssertionError, messages::kInnerDimensions, k_text.handle(),
                  k2_text.handle());
}

}  // namespace korvex
