// SPDX-License-Identifier: Apache-2.0
// The long accumulator against exact bits: additions, merging, rounding, overflow.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "bit_number.h"
#include "check.h"
#include "korvex/arithmetic/bignum/long_accumulator.h"
#include "random_data.h"
#include "suites.h"

namespace korvex::test {
namespace {

using arithmetic::LongAccumulator;

constexpr double kMax = std::numeric_limits<double>::max();
constexpr double kInf = std::numeric_limits<double>::infinity();

std::vector<double> rounded_limbs(const std::vector<double>& addends, int limb_count) {
  LongAccumulator accumulator;
  accumulator.clear();
  for (const double x : addends) {
    accumulator.add(x);
  }
  std::vector<double> limbs(static_cast<std::size_t>(limb_count), 7.0);
  accumulator.round(limbs.data(), limb_count);
  return limbs;
}

void expect_limbs(const std::vector<double>& addends, const std::vector<double>& expected) {
  const std::vector<double> actual = rounded_limbs(addends, static_cast<int>(expected.size()));
  for (std::size_t i = 0; i < expected.size(); ++i) {
    CHECK_SAME_BITS(actual[i], expected[i]);
  }
}

void a_single_double_comes_back() {
  Random random(11);
  for (int i = 0; i < 500; ++i) {
    const double x = random.any_finite();
    expect_limbs({x}, {x, 0.0, 0.0, 0.0});
  }
  expect_limbs({-0.0}, {0.0, 0.0, 0.0, 0.0});
  expect_limbs({}, {0.0, 0.0, 0.0, 0.0});
}

void limbs_are_the_canonical_ones() {
  Random random(12);
  for (int i = 0; i < 200; ++i) {
    const auto shape = static_cast<Shape>(i % static_cast<int>(Shape::kCount));
    const std::vector<double> x =
        draw_many(random, shape, static_cast<std::size_t>(random.between(1, 40)), i % 3 == 0);
    for (int limb_count = 1; limb_count <= 4; ++limb_count) {
      expect_limbs(x, canonical_limbs(x, limb_count));
    }
  }
}

void ties_go_to_even_and_the_smallest_addend_breaks_them() {
  expect_limbs({1, 0x1p-53}, {1, 0x1p-53});
  expect_limbs({1, 0x1p-53, 0x1p-1074}, {0x1.0000000000001p+0, -0x1p-53, 0x1p-1074});
  expect_limbs({1, 0x1p-53, -0x1p-1074}, {1, 0x1p-53, -0x1p-1074});
  expect_limbs({0x1.0000000000001p+0, 0x1p-53}, {0x1.0000000000002p+0, -0x1p-53});
  expect_limbs({1, -0x1p-54}, {1, -0x1p-54});
  expect_limbs({1, -0x1p-54, -0x1p-1074}, {0x1.fffffffffffffp-1, 0x1p-54, -0x1p-1074});
}

void the_overflow_rule_is_kept_limb_by_limb() {
  const double half_step = 0x1p+970;  // half the way from the largest double to 2^1024
  expect_limbs({kMax, half_step}, {kMax, half_step, 0.0, 0.0});
  expect_limbs({kMax, std::nextafter(half_step, 0.0)}, {kMax, std::nextafter(half_step, 0.0)});
  expect_limbs({1.7e308, 1.7e308}, {kMax, 1.7e308 - (kMax - 1.7e308), 0.0, 0.0});
  expect_limbs({kMax, kMax, kMax, kMax}, {kMax, kMax, kMax, kMax});
  expect_limbs({kMax, kMax, kMax, kMax, 0x1p+969}, {kMax, kMax, kMax, kMax});
  expect_limbs({kMax, kMax, kMax, kMax, half_step}, {kInf, 0.0, 0.0, 0.0});
  expect_limbs({kMax, kMax, kMax}, {kInf, 0.0});
  expect_limbs({-kMax, -kMax, -kMax, -kMax, -kMax}, {-kInf, 0.0, 0.0, 0.0});
  expect_limbs({kMax, half_step}, {kInf});
  expect_limbs({-kMax, -1.0}, {-kMax, -1.0, 0.0});
}

// 2^60 largest doubles and their negatives, by doubling through merging.
void room_reaches_to_two_to_the_sixty_three_addends() {
  LongAccumulator sum;
  LongAccumulator copy;
  sum.clear();
  sum.add(kMax);
  for (int i = 0; i < 62; ++i) {
    copy = sum;
    sum.add(copy);
  }
  copy = sum;
  double limbs[4];
  copy.round(limbs, 4);
  CHECK_SAME_BITS(limbs[0], kInf);
  LongAccumulator negative;
  negative.clear();
  negative.add(-kMax);
  for (int i = 0; i < 62; ++i) {
    copy = negative;
    negative.add(copy);
  }
  sum.add(negative);
  sum.add(0x1p-1074);
  sum.round(limbs, 4);
  CHECK_SAME_BITS(limbs[0], 0x1p-1074);
  CHECK_SAME_BITS(limbs[1], 0.0);
}

void merging_is_adding() {
  Random random(13);
  for (int i = 0; i < 60; ++i) {
    const auto shape = static_cast<Shape>(i % static_cast<int>(Shape::kCount));
    const std::vector<double> x = draw_many(random, shape, 30, i % 2 == 0);
    LongAccumulator left;
    LongAccumulator right;
    left.clear();
    right.clear();
    for (std::size_t k = 0; k < x.size(); ++k) {
      (k % 3 == 0 ? left : right).add(x[k]);
    }
    left.add(right);
    double limbs[4];
    left.round(limbs, 4);
    const std::vector<double> expected = canonical_limbs(x, 4);
    CHECK(std::equal(expected.begin(), expected.end(), limbs,
                     [](double a, double b) { return bits_of(a) == bits_of(b); }));
  }
}

// There is no constructor: what memory held before must not count, in any field.
void clearing_leaves_nothing_of_what_was_there() {
  LongAccumulator low;
  LongAccumulator high;
  std::memset(static_cast<void*>(&low), 0x00, sizeof low);
  std::memset(static_cast<void*>(&high), 0x5a, sizeof high);
  low.clear();
  high.clear();
  for (const double x : {1.0, -0x1p-1074, 0x1p+1023}) {
    low.add(x);
    high.add(x);
    CHECK(std::memcmp(&low, &high, sizeof low) == 0);
  }
}

using Digits = std::vector<std::int64_t>;

// Digits of zero but for one.
Digits one_digit(std::size_t place, std::int64_t digit) {
  Digits digits(LongAccumulator::kDigits, 0);
  digits[place] = digit;
  return digits;
}

void digits_are_loaded_up_to_their_border() {
  constexpr std::int64_t kBorder = 0x7fffffff00000000;
  constexpr std::int64_t kTopBorder = 0xffffffff;
  constexpr std::size_t kTop = LongAccumulator::kDigits - 1;
  LongAccumulator accumulator;
  accumulator.clear();
  for (const std::int64_t sign : {-1, 1}) {
    for (const std::size_t place : {std::size_t{0}, std::size_t{30}, kTop - 1, kTop}) {
      const std::int64_t border = sign * (place == kTop ? kTopBorder : kBorder);
      CHECK(accumulator.load(one_digit(place, border).data()));
      CHECK(accumulator.sign() == sign);
      CHECK(!accumulator.load(one_digit(place, border + sign).data()));
    }
  }
  CHECK(accumulator.load(one_digit(0, kBorder).data()));
  Digits stored = one_digit(0, 7);
  accumulator.store(stored.data());
  CHECK(stored == one_digit(1, 0x7fffffff));
  CHECK(accumulator.load(one_digit(5, 0).data()));
  CHECK(accumulator.sign() == 0);
}

}  // namespace

void test_long_accumulator() {
  clearing_leaves_nothing_of_what_was_there();
  digits_are_loaded_up_to_their_border();
  a_single_double_comes_back();
  limbs_are_the_canonical_ones();
  ties_go_to_even_and_the_smallest_addend_breaks_them();
  the_overflow_rule_is_kept_limb_by_limb();
  room_reaches_to_two_to_the_sixty_three_addends();
  merging_is_adding();
}

}  // namespace korvex::test
