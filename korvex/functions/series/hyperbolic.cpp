// SPDX-License-Identifier: Apache-2.0
// tqx_sinh and tqx_cosh: Taylor series on the argument itself, without reduction.
//
// The two loops differ in their order: sinh makes a term and adds it, cosh adds a term and makes
// the next one, so the last term that cosh makes is never added.
#include "korvex/functions/series/parts.h"
#include "korvex/functions/series/steps.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

Object tqx_sinh(const Arguments& arguments) {
  const Object x = series_operand(arguments[0]).method("double"_name);
  RunningSum sum;
  sum.result = x.method("clone"_name);
  sum.error = like("zeros_like"_name, x);
  Object term = x.method("clone"_name);
  const Object x_squared = product_value(x, x);
  for_terms(1, arguments[1], [&](long long n) {
    const long long power = 2 * n;
    const Object divisor = float64_scalar([&] { return integer(power * (power + 1)); }, x);
    const Object term_x2 = product_value(term, x_squared);
    term = divide(term_x2, divisor);
    sum.add_term(term);
  });
  return one_limb(sum.final_value(), x, arguments.flag(2));
}

Object tqx_cosh(const Arguments& arguments) {
  const Object x = series_operand(arguments[0]).method("double"_name);
  RunningSum sum;
  sum.result = like("ones_like"_name, x);
  sum.error = like("zeros_like"_name, x);
  const Object x_squared = product_value(x, x);
  Object term = divide(x_squared, floating(2.0));
  for_terms(1, arguments[1], [&](long long n) {
    sum.add_term(term);
    const long long power = 2 * n;
    const Object divisor = float64_scalar([&] { return integer((power + 1) * (power + 2)); }, x);
    const Object term_x2 = product_value(term, x_squared);
    term = divide(term_x2, divisor);
  });
  return one_limb(sum.final_value(), x, arguments.flag(2));
}

constexpr Signature kRows[] = {
    {"tqx_sinh",
     {kX, term_count(20), kReturnTqx},
     nullptr,
     "TRUE TQX hyperbolic sine using compensated Taylor series.\n"
     "sinh(x) = x + x³/3! + x⁵/5! + x⁷/7! + ...",
     tqx_sinh},
    {"tqx_cosh",
     {kX, term_count(20), kReturnTqx},
     nullptr,
     "TRUE TQX hyperbolic cosine using compensated Taylor series.\n"
     "cosh(x) = 1 + x²/2! + x⁴/4! + x⁶/6! + ...",
     tqx_cosh},
};

}  // namespace

void define_hyperbolic() { define_functions(kRows); }

}  // namespace korvex
