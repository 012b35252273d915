// SPDX-License-Identifier: Apache-2.0
// What ends a launch, or a test, that cannot go on.
#pragma once

#include <stdexcept>

namespace korvex::launches {

class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace korvex::launches
