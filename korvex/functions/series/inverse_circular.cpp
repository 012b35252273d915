// SPDX-License-Identifier: Apache-2.0
// tqx_asin, tqx_acos and tqx_atan: series without a domain check.
#include "korvex/functions/series/parts.h"
#include "korvex/functions/series/steps.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// Converges slowly at the edge of the domain and diverges outside it; neither is corrected.
Object tqx_asin(const Arguments& arguments) {
  const Object x = series_operand(arguments[0]).method("double"_name);
  RunningSum sum;
  sum.result = x.method("clone"_name);
  sum.error = like("zeros_like"_name, x);
  Object term = x.method("clone"_name);
  const Object x_squared = product_value(x, x);
  for_terms(1, arguments[1], [&](long long n) {
    const Object coeff_num = integer((2 * n - 1) * (2 * n - 1));
    const Object coeff_den = integer((2 * n) * (2 * n + 1));
    const Object term_x2 = product_value(term, x_squared);
    const Object scaled = multiply(term_x2, coeff_num);
    term = divide(scaled, coeff_den);
    sum.add_term(term);
  });
  return one_limb(sum.final_value(), x, arguments.flag(2));
}

// torch.tensor(torch.pi / 2, dtype=torch.float64, device=x.device)
Object pi_half_scalar(const Object& x) {
  return float64_scalar(
      [] {
        const Object pi = torch_member("pi"_name);
        return divide(pi, integer(2));
      },
      x);
}

Object tqx_acos(const Arguments& arguments) {
  const Object x = series_operand(arguments[0]);
  const Object pi_half = pi_half_scalar(x);
  const Object asin = global("tqx_asin"_name).call(x);
  const Object result = subtract(pi_half, asin);
  return one_limb(result, x, arguments.flag(1));
}

// x > 0, or another comparison with the int 0
Object compared_with_zero(const Object& x, int operation) { return compare(x, kZero, operation); }

// pi/2 - final where x > 1, -pi/2 - final where x < -1
Object undo_inversion(const Object& x, const Object& large_x, const Object& pi_half,
                      Object final_value) {
  final_value = where([&] { return bit_and(large_x, compared_with_zero(x, Py_GT)); },
                      [&] { return subtract(pi_half, final_value); }, final_value);
  return where([&] { return bit_and(large_x, compared_with_zero(x, Py_LT)); },
               [&] { return subtract(negate(pi_half), final_value); }, final_value);
}

// The term carries the earlier divisions forward, so the denominators multiply: 3, 15, 105, ...
// Only the first two terms are those of the arctangent.
Object tqx_atan(const Arguments& arguments) {
  const Object x = series_operand(arguments[0]).method("double"_name);
  const Object pi_half = pi_half_scalar(x);
  const Object large_x = compare(x.method("abs"_name), kOne, Py_GT);
  const Object x_adj = where([&] { return large_x; }, [&] { return divide(floating(1.0), x); }, x);
  RunningSum sum;
  sum.result = x_adj.method("clone"_name);
  sum.error = like("zeros_like"_name, x);
  Object term = x_adj.method("clone"_name);
  const Object x_squared = product_value(x_adj, x_adj);
  const Object neg_x_squared = negate(x_squared);
  for_terms(1, arguments[1], [&](long long n) {
    const Object term_x2 = product_value(term, neg_x_squared);
    const Object divisor = float64_scalar([&] { return integer(2 * n + 1); }, x);
    term = divide(term_x2, divisor);
    sum.add_term(term);
  });
  const Object final_value = undo_inversion(x, large_x, pi_half, sum.final_value());
  return one_limb(final_value, x, arguments.flag(2));
}

constexpr Signature kRows[] = {
    {"tqx_asin",
     {kX, term_count(25), kReturnTqx},
     nullptr,
     "TRUE TQX arcsine using compensated Taylor series.\n"
     "asin(x) = x + x³/6 + 3x⁵/40 + 15x⁷/336 + ...\n"
     "= sum_{n=0}^∞ (2n)! / (4^n (n!)² (2n+1)) * x^(2n+1)",
     tqx_asin},
    {"tqx_acos",
     {kX, kReturnTqx},
     nullptr,
     "TRUE TQX arccosine: acos(x) = π/2 - asin(x).",
     tqx_acos},
    {"tqx_atan",
     {kX, term_count(30), kReturnTqx},
     nullptr,
     "TRUE TQX arctangent using compensated Taylor series.\n"
     "atan(x) = x - x³/3 + x⁵/5 - x⁷/7 + ... for |x| ≤ 1\n"
     "For |x| > 1: atan(x) = π/2 - atan(1/x)",
     tqx_atan},
};

}  // namespace

void define_inverse_circular() { define_functions(kRows); }

}  // namespace korvex
