// SPDX-License-Identifier: Apache-2.0
// The error-free transformations against exact bits.
#include <cmath>

#include "bit_number.h"
#include "check.h"
#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/eft.h"
#include "random_data.h"
#include "suites.h"

namespace korvex::test {
namespace {

using arithmetic::ValueAndError;

void expect_exact_sum(const ValueAndError& result, double a, double b) {
  const std::vector<double> expected = canonical_limbs({a, b}, 2);
  CHECK_SAME_BITS(result.value + 0.0, expected[0]);
  CHECK_SAME_BITS(result.error + 0.0, expected[1]);
}

void two_sum_is_exact() {
  Random random(1);
  for (int i = 0; i < 300; ++i) {
    const int exponent = random.between(-1022, 1020);
    const double a = random.with_exponent(exponent);
    const int distance = random.between(-2, 110);
    const double b = std::ldexp(random.with_exponent(0), exponent - distance);
    expect_exact_sum(arithmetic::two_sum(a, b), a, b);
    expect_exact_sum(arithmetic::two_sum(b, a), a, b);
  }
}

void fast_two_sum_is_exact_for_ordered_operands() {
  Random random(2);
  for (int i = 0; i < 300; ++i) {
    const int exponent = random.between(-1022, 1020);
    const double a = random.with_exponent(exponent);
    const int distance = random.between(0, 110);
    const double b = std::ldexp(random.with_exponent(0), exponent - distance);
    expect_exact_sum(arithmetic::fast_two_sum(a, b), a, b);
  }
  expect_exact_sum(arithmetic::fast_two_sum(0.0, 0x1p-1074), 0.0, 0x1p-1074);
}

// The product of two 53-bit integers, by 128-bit integers.
void two_product_is_exact() {
  __extension__ typedef __int128 Wide;
  Random random(3);
  for (int i = 0; i < 2000; ++i) {
    const int scale_a = random.between(-400, 400);
    const int scale_b = random.between(-400, 400);
    const double a = random.with_exponent(52);
    const double b = random.with_exponent(52);
    const ValueAndError result =
        arithmetic::two_product(std::ldexp(a, scale_a), std::ldexp(b, scale_b));
    const auto value = static_cast<Wide>(std::ldexp(result.value, -scale_a - scale_b));
    const auto error = static_cast<Wide>(std::ldexp(result.error, -scale_a - scale_b));
    CHECK(value + error == static_cast<Wide>(a) * static_cast<Wide>(b));
    CHECK(std::ldexp(std::fabs(result.error), 53) <= std::fabs(result.value));
    Tally::all().record(result.value);
    Tally::all().record(result.error);
  }
}

// 2^-969 is where the error of a product may still be a multiple of 2^-1074; below, it need not be.
void two_product_is_exact_down_to_its_bound() {
  const double a = 0x1.fffffffffffffp-485;
  const ValueAndError inside = arithmetic::two_product(a, 0x1.fffffffffffffp-485);
  CHECK_SAME_BITS(inside.value, 0x1.ffffffffffffep-969);
  CHECK_SAME_BITS(inside.error, 0x1p-1074);
  const ValueAndError outside = arithmetic::two_product(a, 0x1.fffffffffffffp-487);
  CHECK_SAME_BITS(outside.error, 0.0);  // 2^-1076, lost
}

void bit_helpers_tell_the_fields() {
  for (int exponent = -1074; exponent <= 1023; ++exponent) {
    const double power = arithmetic::power_of_two(exponent);
    CHECK_SAME_BITS(power, std::ldexp(1.0, exponent));
    CHECK(std::ldexp(static_cast<double>(arithmetic::significand(power)),
                     arithmetic::shift(power) - 1074) == power);
  }
  CHECK(arithmetic::is_nan(arithmetic::canonical_nan()));
  CHECK(!arithmetic::is_nan(arithmetic::infinity()));
  CHECK(!arithmetic::is_finite(-arithmetic::infinity()));
  CHECK(arithmetic::is_finite(arithmetic::kLargest));
  CHECK(arithmetic::is_negative(-0.0));
  CHECK(arithmetic::leading_zeros(1) == 63);
  CHECK(arithmetic::trailing_zeros(std::uint64_t{1} << 63) == 63);
}

}  // namespace

void test_eft() {
  two_sum_is_exact();
  fast_two_sum_is_exact_for_ordered_operands();
  two_product_is_exact();
  two_product_is_exact_down_to_its_bound();
  bit_helpers_tell_the_fields();
}

}  // namespace korvex::test
