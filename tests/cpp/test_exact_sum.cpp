// SPDX-License-Identifier: Apache-2.0
// The running sum element by element: what four limbs take, what they refuse, and special values.
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "bit_number.h"
#include "check.h"
#include "korvex/arithmetic/exact/exact_sum.h"
#include "random_data.h"
#include "suites.h"

namespace korvex::test {
namespace {

using arithmetic::Accumulator4;
using arithmetic::ExactSum;
using arithmetic::LongAccumulator;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kMax = std::numeric_limits<double>::max();

void expect_rounds_to(ExactSum& sum, const std::vector<double>& expected) {
  double limbs[4];
  sum.round<4>(limbs);
  for (std::size_t i = 0; i < 4; ++i) {
    CHECK_SAME_BITS(limbs[i], expected[i]);
  }
}

void four_limbs_take_what_they_can_hold() {
  Accumulator4 accumulator;
  CHECK(accumulator.try_add(1));
  CHECK(accumulator.try_add(0x1p-300));
  CHECK(accumulator.try_add(0x1p+300));
  CHECK(accumulator.try_add(0x1p-600));
  const Accumulator4 before = accumulator;
  CHECK(!accumulator.try_add(0x1p+600));
  for (int i = 0; i < 4; ++i) {
    CHECK_SAME_BITS(accumulator.limb[i], before.limb[i]);
  }
  CHECK(accumulator.try_add(-0x1p+300));
  CHECK(accumulator.try_add(0x1p+600));
}

void four_limbs_refuse_what_might_overflow() {
  Accumulator4 accumulator;
  CHECK(!accumulator.try_add(kMax));
  CHECK(!accumulator.try_add(-0x1p+1020));
  CHECK(accumulator.try_add(0x1.fffffffffffffp+1019));
  CHECK(!accumulator.try_add(0x1.fffffffffffffp+1019));
  CHECK_SAME_BITS(accumulator.limb[0], 0x1.fffffffffffffp+1019);
}

void each_shape_sums_exactly_in_both_ways() {
  Random random(31);
  for (int i = 0; i < 120; ++i) {
    const auto shape = static_cast<Shape>(i % static_cast<int>(Shape::kCount));
    const std::vector<double> x = draw_many(random, shape, 50, i % 2 == 0);
    const std::vector<double> expected = canonical_limbs(x, 4);
    ExactSum plain;
    ExactSum mixed;
    for (const double element : x) {
      plain.add(element);
      if (random.below(2) == 0) {
        mixed.add(element);
      } else {
        mixed.add_wide(element);
      }
    }
    expect_rounds_to(plain, expected);
    expect_rounds_to(mixed, expected);
  }
}

void joining_sums_is_adding() {
  Random random(32);
  for (int i = 0; i < 60; ++i) {
    const auto shape = static_cast<Shape>(i % static_cast<int>(Shape::kCount));
    const std::vector<double> x = draw_many(random, shape, 40, i % 2 == 0);
    ExactSum parts[3];
    for (const double element : x) {
      parts[random.below(3)].add(element);
    }
    ExactSum whole;
    for (const ExactSum& part : parts) {
      whole.add(part);
    }
    expect_rounds_to(whole, canonical_limbs(x, 4));
  }
}

void scaled_counts_are_exact_at_both_ends() {
  const std::int64_t counts[] = {0,
                                 1,
                                 -1,
                                 0xffffffff,
                                 -0x100000000,
                                 0x3fffffffffffffff,
                                 -0x4000000000000000,
                                 0x123456789abcdef};
  for (const std::int64_t count : counts) {
    for (const int exponent : {-1074, -1073, -1022, -500, 0, 908, 960}) {
      const std::int64_t high = count / 0x100000000;
      const std::int64_t low = count % 0x100000000;
      ExactSum sum;
      sum.add_scaled(count, exponent);
      expect_rounds_to(sum, canonical_limbs({std::ldexp(static_cast<double>(high), 32 + exponent),
                                             std::ldexp(static_cast<double>(low), exponent)},
                                            4));
    }
  }
}

// Indices of digits within the range of scaled counts and beyond it, at both ends.
void digits_are_added_at_their_places() {
  for (const int index : {0, 1, 17, 33, 62, 63, 64}) {
    for (const std::int64_t count : {std::int64_t{1}, std::int64_t{-1}, std::int64_t{0xffffffff},
                                     std::int64_t{-0x100000001}, std::int64_t{0x123456789a}}) {
      ExactSum sum;
      sum.add_digit(index, count);
      LongAccumulator wide;
      wide.clear();
      wide.add_digit(index, count);
      double limbs[4];
      wide.round(limbs, 4);
      const double expected = std::ldexp(static_cast<double>(count), 32 * index - 1074);
      expect_rounds_to(sum, {expected, 0.0, 0.0, 0.0});
      CHECK_SAME_BITS(limbs[0], expected);
      CHECK_SAME_BITS(limbs[1], 0.0);
    }
  }
}

void expect_special(const std::vector<double>& x, double first) {
  ExactSum one_by_one;
  ExactSum joined;
  for (const double element : x) {
    one_by_one.add(element);
    ExactSum part;
    part.add_wide(element);
    joined.add(part);
  }
  expect_rounds_to(one_by_one, {first, 0.0, 0.0, 0.0});
  expect_rounds_to(joined, {first, 0.0, 0.0, 0.0});
}

void special_values_decide() {
  const double nan = double_of(0x7ff8000000000000);
  expect_special({1, kInf, 2}, kInf);
  expect_special({-kInf, kMax, kMax, kMax, kMax, kMax}, -kInf);
  expect_special({kInf, -kInf}, nan);
  expect_special({1, nan, 2}, nan);
  expect_special({double_of(0xfff8000000000123), 1}, nan);
  expect_special({double_of(0x7ff0000000000001)}, nan);  // a signalling one
  expect_special({kInf, double_of(0xffffffffffffffff)}, nan);
}

void a_decided_sum_says_so() {
  ExactSum sum;
  sum.add(kInf);
  CHECK(!sum.is_decided());
  sum.add(-kInf);
  CHECK(sum.is_decided());
  ExactSum with_nan;
  with_nan.add_wide(double_of(0x7ff8000000000000));
  CHECK(with_nan.is_decided());
}

}  // namespace

void test_exact_sum() {
  four_limbs_take_what_they_can_hold();
  four_limbs_refuse_what_might_overflow();
  each_shape_sums_exactly_in_both_ways();
  joining_sums_is_adding();
  scaled_counts_are_exact_at_both_ends();
  digits_are_added_at_their_places();
  special_values_decide();
  a_decided_sum_says_so();
}

}  // namespace korvex::test
