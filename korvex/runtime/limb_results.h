// SPDX-License-Identifier: Apache-2.0
// Results as limbs: how a body makes a TQXResult, and how it takes one as an operand.
#pragma once

#include "korvex/runtime/tensors.h"

namespace korvex {

// TQXResult(make_limbs(), make_device()): as in a Python call, the class is looked up before its
// arguments are made.
template <typename MakeLimbs, typename MakeDevice>
Object limb_result(const MakeLimbs& make_limbs, const MakeDevice& make_device) {
  const Object result_class = global("TQXResult"_name);
  const Object limbs = make_limbs();
  const Object device = make_device();
  return result_class.call(limbs, device);
}

// TQXResult(limbs, device) of arguments that stand ready
Object limb_result(const Object& limbs, const Object& device);

// TQXResult(make_limbs(), str(x.device))
template <typename MakeLimbs>
Object limbs_beside(const Object& x, const MakeLimbs& make_limbs) {
  return limb_result(make_limbs, [&] { return device_text(x); });
}

// The tensor itself, or TQXResult([result], device=str(source.device)) if limbs are asked for.
Object one_limb(const Object& result, const Object& source, bool return_tqx);

// isinstance(x, TQXResult)
bool is_limb_result(const Object& x);

// x.collapse() for a TQXResult, else x itself
Object folded(const Object& x);

}  // namespace korvex
