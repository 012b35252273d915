// SPDX-License-Identifier: Apache-2.0
// How a folder adds its functions and classes to the module.
#pragma once

#include <initializer_list>

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

// Makes the function of a row and binds it to its name in the module's dict.
void define_function(const Signature& row);

// Makes the class of a row, as a class statement would, and binds it to its name.
void define_class(const ClassRow& row);

}  // namespace korvex
