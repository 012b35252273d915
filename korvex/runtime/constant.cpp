// SPDX-License-Identifier: Apache-2.0
// The objects of all constants.
#include "korvex/runtime/constant.h"

namespace korvex {

std::vector<Object> Constant::make_all() {
  std::vector<Object> made;
  for (Constant* constant = first_; constant != nullptr; constant = constant->next_) {
    made.push_back(constant->make_());
    constant->object_ = made.back();
  }
  return made;
}

}  // namespace korvex
