// SPDX-License-Identifier: Apache-2.0
// Sum, difference, product and quotient as value and error, against integers and exact bits.
#include <algorithm>
#include <cmath>
#include <limits>

#include "bit_number.h"
#include "check.h"
#include "korvex/arithmetic/exact/pairs.h"
#include "random_data.h"
#include "suites.h"

namespace korvex::test {
namespace {

__extension__ typedef __int128 Wide;

using arithmetic::ValueAndError;
using Operation = ValueAndError (*)(double, double);

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kLargest = arithmetic::kLargest;
constexpr double kSmallest = 0x1p-1074;

void expect_pair(const ValueAndError& pair, double value, double error) {
  CHECK_SAME_BITS(pair.value, value);
  CHECK_SAME_BITS(pair.error, error);
}

void sums_are_the_six_operations() {
  Random random(81);
  for (int i = 0; i < 5000; ++i) {
    const double x = draw(random, static_cast<Shape>(i % 8), static_cast<std::size_t>(i));
    const double y = draw(random, static_cast<Shape>(i / 8 % 8), static_cast<std::size_t>(i));
    const ValueAndError sum = arithmetic::two_sum(x, y);
    const double error = std::isnan(sum.error) ? arithmetic::canonical_nan() : sum.error;
    expect_pair(arithmetic::add_pair(x, y), sum.value, error);
    expect_pair(arithmetic::subtract_pair(x, -y), sum.value, error);
    const std::vector<double> limbs = canonical_limbs({x, y}, 2);
    if (std::fabs(sum.value) < 0x1p1023) {
      CHECK_SAME_BITS(sum.value + 0.0, limbs[0]);
      CHECK_SAME_BITS(sum.error + 0.0, limbs[1]);
    }
  }
}

// Integers below 2^53 with a power of two; the last bit of a product is that of the unit product.
void products_leave_their_exact_rest() {
  Random random(82);
  for (int i = 0; i < 5000; ++i) {
    const int scale_x = random.between(-500, 400);
    const int scale_y = random.between(-500, 400);
    const double x = random.with_exponent(52);
    const double y = random.with_exponent(52);
    const ValueAndError pair =
        arithmetic::multiply_pair(std::ldexp(x, scale_x), std::ldexp(y, scale_y));
    const auto value = static_cast<Wide>(std::ldexp(pair.value, -scale_x - scale_y));
    const auto error = static_cast<Wide>(std::ldexp(pair.error, -scale_x - scale_y));
    CHECK(value + error == static_cast<Wide>(x) * static_cast<Wide>(y));
    Tally::all().record(pair.value);
    Tally::all().record(pair.error);
  }
}

struct ScaledInteger {
  std::int64_t significand;  // 0, or of 53 bits
  int exponent;
};

ScaledInteger scaled_integer(double x) {
  int exponent = 0;
  const double fraction = std::frexp(x, &exponent);
  return {static_cast<std::int64_t>(std::ldexp(fraction, 53)), x == 0.0 ? 0 : exponent - 53};
}

Wide magnitude(Wide x) { return x < 0 ? -x : x; }

// For normal x, y, value and error: is each the nearest double of what it stands for? The quotient
// is x / y, and the error is the remainder over y, all as integers with a common power of two.
bool is_nearest_pair(double x, double y, const ValueAndError& pair) {
  const ScaledInteger dividend = scaled_integer(x);
  const ScaledInteger divisor = scaled_integer(y);
  const ScaledInteger value = scaled_integer(pair.value);
  const ScaledInteger error = scaled_integer(pair.error);
  const int up = dividend.exponent - value.exponent - divisor.exponent;  // 52 or 53
  const Wide remainder = static_cast<Wide>(dividend.significand) * (Wide{1} << up) -
                         static_cast<Wide>(value.significand) * divisor.significand;
  const Wide limit = magnitude(divisor.significand);
  if (2 * magnitude(remainder) > limit) {
    return false;
  }
  if (remainder == 0 || pair.error == 0.0) {
    return remainder == 0 && pair.error == 0.0;
  }
  const Wide exact = remainder * (Wide{1} << (value.exponent - error.exponent));
  return 2 * magnitude(exact - static_cast<Wide>(error.significand) * divisor.significand) <= limit;
}

void quotients_leave_the_nearest_rest() {
  Random random(83);
  for (int i = 0; i < 20000; ++i) {
    const int top = random.between(-900, 1000);
    const double x = random.with_exponent(top);
    const double y = random.with_exponent(std::max(-1022, top - random.between(-900, 900)));
    const ValueAndError pair = arithmetic::divide_pair(x, y);
    if (std::isfinite(pair.value) && std::fabs(pair.value) > 0x1p-900) {
      CHECK(is_nearest_pair(x, y, pair));
    }
    Tally::all().record(pair.value);
    Tally::all().record(pair.error);
  }
}

// A dividend below the bound has the remainder of its double that is 2^200 times as large.
void a_tiny_dividend_leaves_the_rest_of_a_large_one() {
  Random random(84);
  for (int i = 0; i < 5000; ++i) {
    const int exponent = random.between(-1074, -1060);
    const std::uint64_t bits = random.bits();
    const double x = std::ldexp(static_cast<double>(bits >> random.between(11, 63)), exponent);
    const double y = random.with_exponent(random.between(-1000, -70));
    const ValueAndError tiny = arithmetic::divide_pair(x, y);
    const ValueAndError large = arithmetic::divide_pair(std::ldexp(x, 200), y);
    if (std::isfinite(tiny.value) && std::fabs(tiny.value) > 0x1p-800) {
      CHECK_SAME_BITS(tiny.value, std::ldexp(large.value, -200));
      CHECK_SAME_BITS(tiny.error, std::ldexp(large.error, -200));
    }
    const ValueAndError both = arithmetic::divide_pair(std::ldexp(x, 200), std::ldexp(y, 200));
    CHECK_SAME_BITS(both.value, tiny.value);
    CHECK_SAME_BITS(both.error, tiny.error);
  }
}

// Where the dividend starts to be scaled, on either side.
void quotients_at_the_bound_are_nearest() {
  const double bound = arithmetic::kScaledDividends;
  for (const double x : {bound, std::nextafter(bound, 1.0), std::nextafter(bound, 0.0)}) {
    for (const double y : {3.0 * 0x1p-500, 0x1.9999999999999p-969, 0x1.1234567890abcp-1000}) {
      const ValueAndError pair = arithmetic::divide_pair(x, y);
      CHECK(is_nearest_pair(x, y, pair));
      CHECK(pair.error != 0.0);
    }
  }
}

struct Expected {
  Operation operation;
  double x, y, value, error;
};

void special_operands_give_the_defined_pairs() {
  const double nan = arithmetic::canonical_nan();
  const Expected table[] = {
      // The six operations, whatever comes out of them.
      {arithmetic::add_pair, 1e16, 1.0, 1e16, 1.0},
      {arithmetic::add_pair, kInfinity, 1.0, kInfinity, nan},
      {arithmetic::add_pair, 1.0, -kInfinity, -kInfinity, nan},
      {arithmetic::add_pair, kInfinity, -kInfinity, nan, nan},
      {arithmetic::add_pair, kLargest, kLargest, kInfinity, nan},
      {arithmetic::add_pair, -nan, 1.0, nan, nan},
      {arithmetic::add_pair, -0.0, -0.0, -0.0, 0.0},
      {arithmetic::add_pair, 0.0, -0.0, 0.0, 0.0},
      {arithmetic::subtract_pair, -0.0, 0.0, -0.0, 0.0},
      {arithmetic::subtract_pair, kInfinity, kInfinity, nan, nan},
      // A product that is not finite has the error 0, and no error is -0.
      {arithmetic::multiply_pair, 134217729.0, 134217729.0, 0x1.0000004p+54, 1.0},
      {arithmetic::multiply_pair, 1e200, 1e200, kInfinity, 0.0},
      {arithmetic::multiply_pair, -kInfinity, 2.0, -kInfinity, 0.0},
      {arithmetic::multiply_pair, kInfinity, 0.0, nan, 0.0},
      {arithmetic::multiply_pair, nan, 1.0, nan, 0.0},
      {arithmetic::multiply_pair, -0.0, 3.0, -0.0, 0.0},
      {arithmetic::multiply_pair, -kSmallest, 0.25, -0.0, 0.0},
      {arithmetic::multiply_pair, kSmallest, 1.5, 2.0 * kSmallest, 0.0},
      {arithmetic::multiply_pair, -3.0, 5.0, -15.0, 0.0},
      // A quotient that is not normal has the error 0.
      {arithmetic::divide_pair, 1.0, 3.0, 0x1.5555555555555p-2, 0x1.5555555555555p-56},
      {arithmetic::divide_pair, 1.0, 0.0, kInfinity, 0.0},
      {arithmetic::divide_pair, 1.0, -0.0, -kInfinity, 0.0},
      {arithmetic::divide_pair, 0.0, 0.0, nan, 0.0},
      {arithmetic::divide_pair, -0.0, 5.0, -0.0, 0.0},
      {arithmetic::divide_pair, 6.0, -3.0, -2.0, 0.0},
      {arithmetic::divide_pair, 1.0, -kInfinity, -0.0, 0.0},
      {arithmetic::divide_pair, kInfinity, -2.0, -kInfinity, 0.0},
      {arithmetic::divide_pair, kInfinity, kInfinity, nan, 0.0},
      {arithmetic::divide_pair, kLargest, 0.5, kInfinity, 0.0},
      {arithmetic::divide_pair, kSmallest, 2.0, 0.0, 0.0},
      {arithmetic::divide_pair, 3.0 * kSmallest, 2.0, 2.0 * kSmallest, 0.0},
      {arithmetic::divide_pair, 1.0, kSmallest, kInfinity, 0.0},
      {arithmetic::divide_pair, kSmallest, kSmallest, 1.0, 0.0},
      {arithmetic::divide_pair, kSmallest, 3.0 * kSmallest, 0x1.5555555555555p-2,
       0x1.5555555555555p-56},
      {arithmetic::divide_pair, 0x1p-1000, 0x1.8p-970, 0x1.5555555555555p-31,
       0x1.5555555555555p-85},
      {arithmetic::divide_pair, 0x1p-1000, 0x1.8p+20, 0x1.5555555555555p-1021, kSmallest},
      {arithmetic::divide_pair, 0x1p-900, 0x1.8p+70, 0x1.5555555555555p-971,
       0x1.5555555555558p-1025},
  };
  for (const Expected& row : table) {
    expect_pair(row.operation(row.x, row.y), row.value, row.error);
  }
}

// Only recorded: other tests hold these results, this one that all builds have the same.
void any_operands_give_the_same_bits_on_every_build() {
  Random random(85);
  for (int i = 0; i < 20000; ++i) {
    const double x = double_of(random.bits());
    const double y = double_of(random.bits());
    for (const Operation operation : {arithmetic::add_pair, arithmetic::subtract_pair,
                                      arithmetic::multiply_pair, arithmetic::divide_pair}) {
      const ValueAndError pair = operation(x, y);
      CHECK(!std::isnan(pair.value) || bits_of(pair.value) == arithmetic::kNanBits);
      CHECK(!std::isnan(pair.error) || bits_of(pair.error) == arithmetic::kNanBits);
      Tally::all().record(pair.value);
      Tally::all().record(pair.error);
    }
  }
}

}  // namespace

void test_pairs() {
  sums_are_the_six_operations();
  products_leave_their_exact_rest();
  quotients_leave_the_nearest_rest();
  a_tiny_dividend_leaves_the_rest_of_a_large_one();
  quotients_at_the_bound_are_nearest();
  special_operands_give_the_defined_pairs();
  any_operands_give_the_same_bits_on_every_build();
}

}  // namespace korvex::test
