// SPDX-License-Identifier: Apache-2.0
// One call on its way from (tuple, dict) to converted arguments.
#pragma once

#include "korvex/cpython/signature.h"

namespace korvex {

class Binding {
 public:
  Binding(const BoundSignature& row, Handle positional, Handle keywords)
      : row_(row), positional_(positional), keywords_(keywords) {}

  Arguments run();

 private:
  void take_positional();
  void take_keywords();
  void require_string_keywords() const;
  void take_keyword(Handle name, Handle value);
  void require_all();
  void convert();
  void test_types() const;
  [[noreturn]] void refuse_count(std::size_t expected, const char* more_or_less) const;
  [[noreturn]] void refuse_count() const;

  const BoundSignature& row_;
  Handle positional_;
  Handle keywords_;  // may be null
  Py_ssize_t given_ = 0;
  Arguments arguments_;
};

}  // namespace korvex
