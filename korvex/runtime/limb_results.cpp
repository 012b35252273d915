// SPDX-License-Identifier: Apache-2.0
// Results as limbs and operands with their limbs folded.
#include "korvex/runtime/limb_results.h"

namespace korvex {

Object limb_result(const Object& limbs, const Object& device) {
  return global("TQXResult"_name).call(limbs, device);
}

Object one_limb(const Object& result, const Object& source, bool return_tqx) {
  if (!return_tqx) {
    return result;
  }
  const Object result_class = global("TQXResult"_name);
  const Object limbs = list(result);
  const Object device = device_text(source);
  return result_class.call_with(kKeywords<"device">, limbs, device);
}

bool is_limb_result(const Object& x) { return is_instance(x, global("TQXResult"_name)); }

Object folded(const Object& x) { return is_limb_result(x) ? x.method("collapse"_name) : x; }

}  // namespace korvex
