// SPDX-License-Identifier: Apache-2.0
// tqx_sinh and tqx_cosh: Taylor series on the argument itself, without reduction.
//
// The two loops differ in their order: sinh makes a term and adds it, cosh adds a term and makes
// the next one, so the last term that cosh makes is never added.
#include "korvex/functions/series/rows.h"
#include "korvex/functions/series/running_sum.h"
#include "korvex/runtime/definitions.h"

namespace korvex {
namespace {

Object tqx_sinh(const Arguments& arguments) {
  const Object x = series_operand(arguments[0]).method(names().double_);
  RunningSum sum;
  sum.result = x.method(names().clone);
  sum.error = like(names().zeros_like, x);
  Object term = x.method(names().clone);
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
  const Object x = series_operand(arguments[0]).method(names().double_);
  RunningSum sum;
  sum.result = like(names().ones_like, x);
  sum.error = like(names().zeros_like, x);
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

constexpr Signature kSinh{"tqx_sinh",
                          {kSeriesX, term_count(20), kSeriesReturnTqx},
                          nullptr,
                          "TRUE TQX hyperbolic sine using compensated Taylor series.\n"
                          "sinh(x) = x + x³/3! + x⁵/5! + x⁷/7! + ...",
                          tqx_sinh};

constexpr Signature kCosh{"tqx_cosh",
                          {kSeriesX, term_count(20), kSeriesReturnTqx},
                          nullptr,
                          "TRUE TQX hyperbolic cosine using compensated Taylor series.\n"
                          "cosh(x) = 1 + x²/2! + x⁴/4! + x⁶/6! + ...",
                          tqx_cosh};

}  // namespace

void define_hyperbolic() {
  define_function(kSinh);
  define_function(kCosh);
}

}  // namespace korvex
