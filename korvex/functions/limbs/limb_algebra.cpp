// SPDX-License-Identifier: Apache-2.0
// Limb algebra: operands as limb lists, and the sum of two such lists with its errors kept.
//
// A sum keeps at most four limbs. Cutting it to four is the only step that loses information.
#include "korvex/functions/limbs/parts.h"
#include "korvex/functions/limbs/rounding_error.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

constexpr Py_ssize_t kMaxLimbs = 4;

Object extract_tqx_tensor(const Arguments& arguments) {
  const Object& x = arguments[0];
  if (is_limb_result(x)) {
    return tuple(x.method("collapse"_name), boolean(true));
  }
  return tuple(x, boolean(false));
}

// The list of a result itself, not a copy.
Object get_tqx_limbs(const Arguments& arguments) {
  const Object& x = arguments[0];
  if (is_limb_result(x)) {
    return x.get("limbs"_name);
  }
  return list(x.method("double"_name));
}

// tensor.abs().max().item(): the largest magnitude, which waits for the device.
Object largest_magnitude(const Object& tensor) {
  return tensor.method("abs"_name).method("max"_name).method("item"_name);
}

// The list sorted by the largest magnitude of each limb, largest first. The sort is Python's own
// and stable, on keys taken once per limb in list order, so NaN keys fall as they do there.
Object sorted_by_magnitude(const Object& limbs) {
  const Object keys =
      list_of(limbs, [](const Object& limb) { return negate(largest_magnitude(limb)); });
  const Object positions = range_to(integer(PyList_GET_SIZE(keys.handle())));
  const Object key = keys.get("__getitem__"_name);
  const Object order = global("sorted"_name).call_with(kKeywords<"key">, positions, key);
  return list_of(order, [&](const Object& position) { return limbs.at(position); });
}

// One TwoSum of the running value with each limb. An error tensor is kept whole if any element of
// it is not zero, and dropped if all are, or if its largest element is NaN.
Object cascade(const Object& limbs) {
  const Object errors = list();
  Object acc = limbs.at(kZero).method("clone"_name);
  for_each(tail(limbs, 1), [&](const Object& limb) {
    const Object s = add(acc, limb);
    const Object e = rounding_error(s, acc, limb);
    acc = s;
    if (greater(largest_magnitude(e), kZero)) {
      append(errors, e);
    }
  });
  checked(PyList_Insert(errors, 0, acc));
  return errors;
}

Object tqx_add_limbs(const Arguments& arguments) {
  const Object& device = arguments[2];
  Object all_limbs = add(arguments[0], arguments[1]);
  if (length(all_limbs) == 1) {
    return limb_result(all_limbs, device);
  }
  all_limbs = sorted_by_magnitude(all_limbs);
  Object result_limbs = cascade(all_limbs);
  if (length(result_limbs) > kMaxLimbs) {
    const Object sorted_limbs = sorted_by_magnitude(result_limbs);
    result_limbs = checked(PyList_GetSlice(sorted_limbs, 0, kMaxLimbs));
  }
  return limb_result(result_limbs, device);
}

Object tqx_sub_limbs(const Arguments& arguments) {
  const Object neg_y_limbs = list_of(arguments[1], [](const Object& limb) { return negate(limb); });
  return global("_tqx_add_limbs"_name).call(arguments[0], neg_y_limbs, arguments[2]);
}

constexpr Signature kRows[] = {
    {"_extract_tqx_tensor",
     {kAnyX},
     nullptr,
     "Extract tensor from TQXResult or return tensor as-is. Returns (tensor, is_tqx).",
     extract_tqx_tensor},
    {"_get_tqx_limbs",
     {kAnyX},
     nullptr,
     "Get all limbs from TQXResult or wrap tensor as single-limb.\n"
     "Returns list of tensors (the limbs) - NO COLLAPSE.",
     get_tqx_limbs},
    {"_tqx_add_limbs",
     {{"x_limbs"}, {"y_limbs"}, {"device"}},
     nullptr,
     "Add two sets of TQX limbs using TwoSum cascade.\n"
     "Preserves full precision by keeping all error terms.",
     tqx_add_limbs},
    {"_tqx_sub_limbs",
     {{"x_limbs"}, {"y_limbs"}, {"device"}},
     nullptr,
     "Subtract y_limbs from x_limbs using TwoSum cascade.\n"
     "Equivalent to adding x_limbs + (-y_limbs).",
     tqx_sub_limbs},
};

}  // namespace

void define_limb_operands() { define_functions(kRows); }

}  // namespace korvex
