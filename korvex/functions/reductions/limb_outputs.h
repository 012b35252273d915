// SPDX-License-Identifier: Apache-2.0
// Limb results of what a reduction kernel leaves: four limbs in one buffer, or one in each output.
#pragma once

#include "korvex/runtime/limb_results.h"

namespace korvex {

// TQXResult([out[0], out[1], out[2], out[3]], str(x.device)): 0-dimensional views of one buffer.
inline Object four_limbs(const Object& out, const Object& x) {
  return limbs_beside(x, [&] {
    const Object limbs = list();
    for (int i = 0; i < 4; ++i) {
      append(limbs, out.at(integer(i)));
    }
    return limbs;
  });
}

// TQXResult([output.squeeze(), ...], str(x.device)) of one-element outputs.
template <typename... Outputs>
Object squeezed_limbs(const Object& x, const Outputs&... outputs) {
  return limbs_beside(x, [&] {
    const Object limbs = list();
    (append(limbs, outputs.method("squeeze"_name)), ...);
    return limbs;
  });
}

}  // namespace korvex
