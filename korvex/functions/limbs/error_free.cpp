// SPDX-License-Identifier: Apache-2.0
// Error-free transforms on tensors: value and rounding error of a sum or product as a pair.
//
// The order of the floating-point operations is the whole content: value + error is the exact
// result only in this order. Operands are anything that has the operators; nothing is checked,
// converted or waited for, and overflow and NaN flow through the formulas.
#include "korvex/functions/limbs/parts.h"
#include "korvex/functions/limbs/rounding_error.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// TwoSum (Knuth, TAOCP 2, 4.2.2): six operations, valid for either order of magnitude.
Object two_sum_pair(const Object& a, const Object& b) {
  const Object s = add(a, b);
  return tuple(s, rounding_error(s, a, b));
}

// Two functions with one body: each keeps its own callers, and replacing one in the module must
// not touch the other.
Object twosum_f64(const Arguments& arguments) { return two_sum_pair(arguments[0], arguments[1]); }
Object two_sum(const Arguments& arguments) { return two_sum_pair(arguments[0], arguments[1]); }

constexpr double kSplitFactor = 134217729.0;  // 2^27 + 1, for halves of a 53-bit significand

// The high half of a Veltkamp split: (factor * a) - ((factor * a) - a), the product formed twice.
Object high_half(const Object& a) {
  const Object scaled = multiply(floating(kSplitFactor), a);
  const Object scaled_again = multiply(floating(kSplitFactor), a);
  const Object low_removed = subtract(scaled_again, a);
  return subtract(scaled, low_removed);
}

// The error of p = RN(a * b) without FMA (Dekker 1971, Veltkamp 1968). No scaling: an operand
// whose product with the factor overflows gives NaN.
Object split_product_error(const Object& a, const Object& b, const Object& p) {
  const Object ah = high_half(a);
  const Object al = subtract(a, ah);
  const Object bh = high_half(b);
  const Object bl = subtract(b, bh);
  const Object low_low = multiply(al, bl);
  const Object high_high = multiply(ah, bh);
  const Object rest = subtract(p, high_high);
  const Object low_high = multiply(al, bh);
  const Object less_low_high = subtract(rest, low_high);
  const Object high_low = multiply(ah, bl);
  const Object less_high_low = subtract(less_low_high, high_low);
  return subtract(low_low, less_high_low);
}

// torch is asked for fma at every call: nothing is cached.
Object two_product(const Arguments& arguments) {
  const Object& a = arguments[0];
  const Object& b = arguments[1];
  const Object p = multiply(a, b);
  if (!has_attribute(global("torch"_name), "fma"_name)) {
    return tuple(p, split_product_error(a, b, p));
  }
  const Object fma = torch_member("fma"_name);
  const Object minus_p = negate(p);
  return tuple(p, fma.call(a, b, minus_p));
}

// Two zero scalars of torch's default dtype on its default device.
Object empty_sum() {
  const Object sum = torch_member("tensor"_name).call(floating(0.0));
  const Object error = torch_member("tensor"_name).call(floating(0.0));
  return tuple(sum, error);
}

// The errors are gathered by plain addition, so the pair is exact up to the rounding of e.
Object compensated_sum(const Arguments& arguments) {
  const Object& terms = arguments[0];
  if (PyList_GET_SIZE(terms.handle()) == 0) {
    return empty_sum();
  }
  Object s = terms.at(kZero).method("clone"_name);
  Object e = torch_member("zeros_like"_name).call(s);
  for_each(tail(terms, 1), [&](const Object& t) {
    const auto [s_new, e_new] = unpack<2>(global("_two_sum"_name).call(s, t));
    e = add(e, e_new);
    s = s_new;
  });
  return tuple(s, e);
}

constexpr char kPair[] = "Tuple[torch.Tensor, torch.Tensor]";

constexpr Signature kRows[] = {
    {"_twosum_f64",
     {kA, kB},
     nullptr,
     "TwoSum in FP64: a + b = s + e EXACTLY.\n"
     "Uses Knuth's algorithm. All operations in FP64.",
     twosum_f64},
    {"_two_sum",
     {kA, kB},
     kPair,
     "TwoSum: Error-free addition.\n"
     "Returns (s, e) where a + b = s + e EXACTLY.",
     two_sum},
    {"_two_product",
     {kA, kB},
     kPair,
     "TwoProduct: Error-free multiplication.\n"
     "Returns (p, e) where a * b = p + e EXACTLY.\n"
     "Uses FMA if available, otherwise Veltkamp split.",
     two_product},
    {"_compensated_sum",
     {{"terms", Kind::kList, "List[torch.Tensor]"}},
     kPair,
     "Sum a list of terms with full error tracking.\n"
     "Returns (sum, error) where true_sum = sum + error.",
     compensated_sum},
};

}  // namespace

void define_error_free_transforms() { define_functions(kRows); }

}  // namespace korvex
