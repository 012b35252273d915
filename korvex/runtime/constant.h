// SPDX-License-Identifier: Apache-2.0
// Python objects that C++ code names as constants.
#pragma once

#include <utility>
#include <vector>

#include "korvex/cpython/object.h"

namespace korvex {

// An object that is the same from the start of the module to the end of the process. A Constant is
// a C++ global: it enters a list when the library is loaded, before there is an interpreter to ask,
// and its object is made when the module starts. To use it is to read a pointer.
class Constant {
 public:
  using Make = Object (*)();

  explicit Constant(Make make) noexcept : make_(make), next_(std::exchange(first_, this)) {}
  Constant(const Constant&) = delete;
  Constant& operator=(const Constant&) = delete;

  operator Handle() const { return object_; }

  // Makes the objects of all constants. The list returned owns them.
  static std::vector<Object> make_all();

 private:
  static inline constinit Constant* first_ = nullptr;

  Make make_;
  Constant* next_;
  Handle object_ = nullptr;
};

template <int value>
Object make_integer() {
  return integer(value);
}

inline Constant kMinusOne{make_integer<-1>};
inline Constant kZero{make_integer<0>};
inline Constant kOne{make_integer<1>};

}  // namespace korvex
