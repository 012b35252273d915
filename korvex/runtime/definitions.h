// SPDX-License-Identifier: Apache-2.0
// Functions and classes out of rows: how a folder adds its names to the module.
#pragma once

#include <initializer_list>
#include <span>

#include "korvex/cpython/signature.h"

namespace korvex {

struct Method {
  enum class Role { kMethod, kStatic, kProperty };
  Signature signature;
  Role role = Role::kMethod;
};

// An ordinary Python class with no base but object.
struct ClassRow {
  const char* name;
  const char* doc;
  std::initializer_list<Method> methods;
};

// Makes the function of each row, in their order, and binds it to its name in the module's dict.
void define_functions(std::span<const Signature> rows);

// Makes the class of a row, as a class statement would, and binds it to its name.
void define_class(const ClassRow& row);

}  // namespace korvex
