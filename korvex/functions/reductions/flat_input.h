// SPDX-License-Identifier: Apache-2.0
// What the whole-tensor reductions share: their flat input, scalar outputs and limb results.
#pragma once

#include "korvex/runtime/runtime.h"

namespace korvex {

// x.double().contiguous().view(-1)
inline Object flat_float64(const Object& x) {
  return x.method(names().double_)
      .method(names().contiguous)
      .method(names().view, names().minus_one);
}

// TQXResult([out[0], out[1], out[2], out[3]], str(x.device)): 0-dimensional views of one buffer.
inline Object four_limbs(const Object& out, const Object& x) {
  const Object result_class = global(names().tqx_result);
  const Object limbs = list();
  for (int i = 0; i < 4; ++i) append(limbs, out.at(integer(i)));
  const Object device = device_text(x);
  return result_class.call(limbs, device);
}

// TQXResult([output.squeeze(), ...], str(x.device)) of one-element outputs.
template <typename... Outputs>
Object squeezed_limbs(const Object& x, const Outputs&... outputs) {
  const Object result_class = global(names().tqx_result);
  const Object limbs = list();
  (append(limbs, outputs.method(names().squeeze)), ...);
  const Object device = device_text(x);
  return result_class.call(limbs, device);
}

}  // namespace korvex
