// SPDX-License-Identifier: Apache-2.0
// The compiler's floating-point rules, seen from inside: fails where any of them does not hold.
//
// It is also built once with contraction allowed, and that build must fail: see CMakeLists.txt.
#include <cfloat>
#include <cmath>

#include "check.h"
#include "suites.h"

#if !defined(FLT_EVAL_METHOD) || FLT_EVAL_METHOD != 0
#error "double arithmetic must be evaluated in double"
#endif

namespace korvex::test {
namespace {

// volatile: the compiler must compute these when the program runs.
volatile double factor = 0x1.0000001p+0;  // its square needs 57 bits
volatile double rounded_square = 0x1.0000002p+0;
volatile double smallest = 0x1p-1074;
volatile double one = 1.0;

// Each product has one use and operands of its own: a compiler fuses only what it needs nowhere
// else.
void product_and_sum_stay_two_operations() {
  const double c = rounded_square;
  const double first = factor;
  CHECK(first * first - c == 0);  // fused, it would be 2^-56
  const double second = factor;
  CHECK(c - second * second == 0);
  const double third = factor;
  CHECK(-(third * third) + c == 0);
  const double fourth = factor;
  CHECK(std::fma(fourth, fourth, -c) == 0x1p-56);
}

void nothing_is_flushed_to_zero() {
  const double tiny = smallest;
  CHECK(tiny != 0);
  CHECK(tiny + tiny == 0x1p-1073);
  CHECK(tiny * 0x1p+60 * 0x1p+60 == 0x1p-954);
  CHECK(0x1p-1030 * one - 0x1p-1031 == 0x1p-1031);
}

void rounding_is_to_nearest_even() {
  const double x = one;
  CHECK(x + 0x1p-53 == 1);
  CHECK(x + 0x1.8p-53 == 0x1.0000000000001p+0);
  CHECK((x + 0x1p-52) + 0x1p-53 == 0x1.0000000000002p+0);
  CHECK(-x - 0x1p-53 == -1);
}

void sums_are_not_reassociated() {
  const double x = one;
  CHECK((x + 0x1p+60) - 0x1p+60 == 0);
  CHECK(-0.0 * x + 0.0 == 0 && !std::signbit(-0.0 * x + 0.0));
  CHECK(std::signbit(-0.0 * x));
}

}  // namespace

void test_flags() {
  product_and_sum_stay_two_operations();
  nothing_is_flushed_to_zero();
  rounding_is_to_nearest_even();
  sums_are_not_reassociated();
}

}  // namespace korvex::test

#ifdef KORVEX_TEST_FLAGS_ALONE
int main() {
  korvex::test::test_flags();
  return korvex::test::Tally::all().finish();
}
#endif
