// SPDX-License-Identifier: Apache-2.0
// The body of the module: what importing it does, in its fixed order.
#pragma once

#include "korvex/cpython/object.h"

namespace korvex {

// Runs the body on a module that is already remembered, or throws and leaves the clean-up to the
// caller.
void run_startup(const Object& module, const Object& globals);

}  // namespace korvex
