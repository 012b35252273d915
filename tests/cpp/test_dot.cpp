// SPDX-License-Identifier: Apache-2.0
// The bodies of the dot kernels: chosen cases with their limbs written out, then every shape of
// data against exact bits, in scalar and in vector lanes, whole and in slices.
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "bit_number.h"
#include "check.h"
#include "product_checks.h"
#include "random_data.h"
#include "suites.h"

namespace korvex::test {
namespace {

using arithmetic::HostLanes;

constexpr double kMax = std::numeric_limits<double>::max();
constexpr double kInf = std::numeric_limits<double>::infinity();

void expect_limbs_of(const Pairs& pairs) {
  const auto limbs = [&](int count) {
    return canonical_product_limbs(pairs.x.data(), pairs.y.data(), 1, pairs.size(), count);
  };
  CHECK(all_dots_give(pairs, limbs(4), limbs(3)));
}

void expect_exact(const Pairs& pairs) {
  expect_limbs_of(pairs);
  for (const double limb : dot_limbs<HostLanes>(pairs)) {
    Tally::all().record(limb);
  }
}

// The same pairs once more among so many zeros that the slices are used.
Pairs spread(const Pairs& pairs) {
  Pairs result{std::vector<double>(pairs.size() * 301, 0.0),
               std::vector<double>(pairs.size() * 301, 1.0)};
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    result.x[i * 301] = pairs.x[i];
    result.y[i * 301] = pairs.y[i];
  }
  return result;
}

void expect_limbs(const Pairs& pairs, const std::vector<double>& four) {
  const std::vector<double> three(four.begin(), four.begin() + 3);
  CHECK(all_dots_give(pairs, four, three));
  CHECK(all_dots_give(spread(pairs), four, three));
}

void nothing_and_zeros_give_plus_zero() {
  expect_limbs({{}, {}}, {0.0, 0.0, 0.0, 0.0});
  expect_limbs({{-0.0, 0.0}, {1.0, -5.0}}, {0.0, 0.0, 0.0, 0.0});
  Limbs4 out = {7.0, 7.0, 7.0, 7.0};
  arithmetic::dot_sequential<HostLanes>(nullptr, nullptr, out.data(), -3);
  CHECK(same_limbs(out, std::vector<double>(4, 0.0)));
}

void products_that_underflow_count_as_what_they_are() {
  expect_limbs({{0x1p-600, 1}, {0x1p-600, -1}}, {-1, 0.0, 0.0, 0.0});  // 2^-1200 is no limb
  expect_limbs({{0x1p-600, 0x1p-600}, {0x1p-474, 0x1p-474}}, {0x1p-1073, 0.0, 0.0, 0.0});
  // A thousand and twenty-four halves of the least double.
  expect_limbs({std::vector<double>(1024, 0x1p-600), std::vector<double>(1024, 0x1p-475)},
               {0x1p-1065, 0.0, 0.0, 0.0});
  // Half the least double is a tie with 0, and the least bit of a product breaks it.
  expect_limbs({{0x1p-600}, {0x1p-475}}, {0.0, 0.0, 0.0, 0.0});
  expect_limbs({{0x1p-600, 0x1p-1074}, {0x1p-475, 0x1p-1074}}, {0x1p-1074, 0.0, 0.0, 0.0});
  expect_limbs({{0x1p-600, 0x1p-1074}, {-0x1p-475, 0x1p-1074}}, {0.0, 0.0, 0.0, 0.0});
  expect_limbs({{1, 0x1p-1074}, {0x1.8p-1073, 0x1p-1}}, {0x1p-1072, 0.0, 0.0, 0.0});
}

void products_that_overflow_count_as_what_they_are() {
  expect_limbs({{0x1p+512, 0x1p+512, 1}, {0x1p+512, -0x1p+512, 1}}, {1, 0.0, 0.0, 0.0});
  expect_limbs({{kMax, kMax, 0x1p-1074}, {kMax, -kMax, 0x1p-1074}}, {0.0, 0.0, 0.0, 0.0});
  expect_limbs({{kMax, -kMax, 3}, {kMax, kMax, 5}}, {15, 0.0, 0.0, 0.0});
  expect_limbs({{0x1p+1000, -0x1p+1000}, {0x1p+24, 0x1p+23}}, {0x1p+1023, 0.0, 0.0, 0.0});
}

void overflow_saturates_limb_by_limb() {
  expect_limbs({{kMax, 1}, {1, 0x1p+970}}, {kMax, 0x1p+970, 0.0, 0.0});
  CHECK(all_dots_give({{kMax}, {4}}, {kMax, kMax, kMax, kMax}, {kInf, 0.0, 0.0}));
  CHECK(all_dots_give({{kMax}, {5}}, {kInf, 0.0, 0.0, 0.0}, {kInf, 0.0, 0.0}));
  CHECK(all_dots_give({{-kMax}, {kMax}}, {-kInf, 0.0, 0.0, 0.0}, {-kInf, 0.0, 0.0}));
}

void special_factors_decide_wherever_they_stand() {
  const double nan = double_of(0x7ff8000000000000);
  for (const std::size_t place : {0U, 1U, 511U, 3000U, 4999U}) {
    Pairs pairs{std::vector<double>(5000, 1.5), std::vector<double>(5000, -2.0)};
    const auto limbs = [&](double x, double y) {
      pairs.x[place] = x;
      pairs.y[place] = y;
      return dot_limbs<HostLanes>(pairs)[0];
    };
    CHECK_SAME_BITS(limbs(kInf, 1), kInf);
    CHECK_SAME_BITS(limbs(-2, kInf), -kInf);
    CHECK_SAME_BITS(limbs(-kInf, -kInf), kInf);
    CHECK_SAME_BITS(limbs(kInf, 0), nan);
    CHECK_SAME_BITS(limbs(-0.0, -kInf), nan);
    CHECK_SAME_BITS(limbs(double_of(0xfff8000000000001), 0), nan);
    CHECK_SAME_BITS(limbs(1, double_of(0x7ff0000000000001)), nan);
    pairs.x[2] = kInf;
    CHECK_SAME_BITS(limbs(kInf, 1), nan);
    CHECK(all_dots_give(pairs, {nan, 0.0, 0.0, 0.0}, {nan, 0.0, 0.0}));
  }
}

void half_of_the_products_cancel_the_other_half() {
  Random random(51);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    for (const std::size_t count : {2U, 100U, 3000U}) {
      Pairs pairs{draw_many(random, static_cast<Shape>(shape), count, false),
                  draw_many(random, static_cast<Shape>(shape), count, false)};
      for (std::size_t i = 0; i < count; ++i) {
        pairs.append(-pairs.y[count - 1 - i], pairs.x[count - 1 - i]);
      }
      expect_limbs(pairs, {0.0, 0.0, 0.0, 0.0});
      pairs.append(0x1p-537, 0x1p-537);  // the last bit that remains
      expect_limbs(pairs, {0x1p-1074, 0.0, 0.0, 0.0});
    }
  }
}

void six_levels_each_a_limb_apart() {
  for (int offset = 51; offset <= 55; ++offset) {
    Pairs pairs;
    for (int level = 0; level < 6; ++level) {
      pairs.append(std::ldexp(1.0, 100 - level),
                   std::ldexp(level % 2 == 0 ? 1 : -1, -offset * level));
    }
    expect_exact(pairs);
    expect_exact(spread(pairs));
  }
}

void lengths_around_the_ends_of_chunks() {
  Random random(52);
  for (const int border : {2, 4, 8, 128, 256, 512, 1024}) {
    for (int n = border - 1; n <= border + 1; ++n) {
      for (const Shape shape : {Shape::kNarrow, Shape::kWide}) {
        expect_exact({draw_many(random, shape, static_cast<std::size_t>(n), false),
                      draw_many(random, shape, static_cast<std::size_t>(n), false)});
      }
    }
  }
}

void each_shape_is_exact_over_many_chunks() {
  Random random(53);
  for (int x_shape = 0; x_shape < static_cast<int>(Shape::kCount); ++x_shape) {
    for (int y_shape = 0; y_shape < static_cast<int>(Shape::kCount); ++y_shape) {
      const auto count = static_cast<std::size_t>(random.between(1, 2500));
      expect_exact({draw_many(random, static_cast<Shape>(x_shape), count, false),
                    draw_many(random, static_cast<Shape>(y_shape), count, false)});
    }
  }
}

// Equal products drive each slice to the end of its binade, and so do equal rounding errors.
void slices_filled_to_the_brim_stay_exact() {
  for (const double x : {1.0, 0x1.fffffffffffffp+0, -0x1.fffffffffffffp+0, 0x1.6a09e667f3bcdp+0,
                         0x1.0000000000001p+0, 0x1.fffffffffffffp+480, 0x1.fffffffffffffp-480}) {
    for (const double y : {1.0, x, -x}) {
      expect_exact({std::vector<double>(3000, x), std::vector<double>(3000, y)});
    }
  }
}

// Splitting a large factor overflows where no fused operation exists.
void large_factors_of_moderate_products_stay_exact() {
  Random random(54);
  Pairs pairs;
  for (int i = 0; i < 3000; ++i) {
    const int exponent = random.between(980, 1023);
    const double small = random.with_exponent(-exponent);
    pairs.append(random.with_exponent(exponent), small);
  }
  expect_exact(pairs);
}

// (1 + 2^-52)^2 ends 104 bits below its first: from 2^-971 on, its error is no double, and two or
// more of them show what was lost. Alone, with zeros between, and beside products that widen the
// plan of a chunk.
void products_are_exact_on_both_sides_of_the_least_that_is_split() {
  using arithmetic::kLeastSplitExponent;
  const double odd = 1 + 0x1p-52;
  for (int exponent = kLeastSplitExponent + 3; exponent > -1030; --exponent) {
    const double x = std::ldexp(odd, exponent / 2);
    const double y = std::ldexp(odd, exponent - exponent / 2);
    for (const std::size_t count : {2U, 3U, 300U, 1100U}) {
      expect_exact({std::vector<double>(count, x), std::vector<double>(count, y)});
    }
    expect_exact(spread({{x, x, -x}, {y, y, y * 0x1.8p-1}}));
    expect_exact(spread({{1, x, x, -1}, {1, y, y, 1}}));
    for (const int top : {-490, -484, -478, -472, -466, -460, -440}) {
      expect_exact(spread({{std::ldexp(odd, top), x, x}, {std::ldexp(odd, top), y, y}}));
    }
  }
}

// The limit itself is no small product, and the double below it is one, of either sign.
template <class Lanes>
void expect_small_products_to_be_seen() {
  using Cascade = arithmetic::ProductCascade<Lanes, 3, 2, false>;
  const double limit = arithmetic::kLeastSplitProduct;
  CHECK_SAME_BITS(limit, std::ldexp(1.0, arithmetic::kLeastSplitExponent));
  CHECK(arithmetic::kLeastSplitExponent >= -969);  // the condition of two_product
  for (std::size_t place = 0; place < Cascade::kStep; ++place) {
    for (const double sign : {1.0, -1.0}) {
      std::vector<double> x(Cascade::kStep, 1.0);
      const std::vector<double> y(Cascade::kStep, 1.0);
      x[place] = sign * limit;
      Cascade at_limit(0);
      at_limit.feed(x.data(), y.data());
      CHECK(!at_limit.saw_small());
      x[place] = sign * std::nextafter(limit, 0.0);
      Cascade below(0);
      below.feed(x.data(), y.data());
      CHECK(below.saw_small());
    }
  }
}

void a_cascade_sees_products_below_the_least_that_is_split() {
  expect_small_products_to_be_seen<arithmetic::ScalarLanes>();
  expect_small_products_to_be_seen<HostLanes>();
}

// One pair out of scale: the plan must widen, give up or recover, exactly.
void an_outlier_anywhere_is_kept() {
  Random random(55);
  for (const int exponent : {-1070, -500, -480, -300, -60, 40, 200, 475, 500, 512, 1000}) {
    Pairs pairs{draw_many(random, Shape::kNarrow, 3000, false),
                draw_many(random, Shape::kNarrow, 3000, false)};
    const auto place = static_cast<std::size_t>(random.below(3000));
    pairs.x[place] = std::ldexp(1.0 + 0x1p-52, exponent);
    pairs.y[place] = std::ldexp(1.0 + 0x1p-52, exponent);
    expect_exact(pairs);
  }
}

// A product at either end of the window of a plan, a binade beyond, or zero, early and late.
void products_around_a_window_are_kept() {
  Random random(56);
  // The first products lie below 2^2, and two binades are left for larger ones.
  const int bottom = arithmetic::ExponentWindow::bottom(3);
  for (const int scale : {arithmetic::kLeastSplitExponent + 28, -930, 0, 900, 947}) {
    Pairs pairs;
    for (int i = 0; i < 2500; ++i) {
      pairs.append(random.with_exponent(scale / 2), random.with_exponent(scale - scale / 2));
    }
    for (const std::size_t place : {5U, 64U, 2499U}) {
      const double before = pairs.x[place];
      for (const int offset : {bottom - 2, bottom - 1, bottom, 2, 3, 4, 12, 23}) {
        pairs.x[place] = std::ldexp(random.sign() * (1 + 0x1p-52), scale / 2 + offset);
        expect_limbs_of(pairs);
      }
      pairs.x[place] = random.sign() * 0.0;
      expect_limbs_of(pairs);
      pairs.x[place] = before;
    }
  }
}

// As large as the window of the first products allows, and with rests and errors as large.
void a_window_filled_to_the_brim_stays_exact() {
  for (const double x : {0x1.fffffffffffffp+1, -0x1.6a09e667f3bcdp+1, 0x1.0000000000001p+1}) {
    for (const double y : {x, -x, 0x1.fffffffffffffp+0, 0x1p-29}) {
      Pairs pairs{std::vector<double>(64, 1.0), std::vector<double>(64, 1.0)};
      pairs.x.resize(3000, x);
      pairs.y.resize(3000, y);
      expect_limbs_of(pairs);
    }
  }
}

}  // namespace

void test_dot() {
  nothing_and_zeros_give_plus_zero();
  products_that_underflow_count_as_what_they_are();
  products_that_overflow_count_as_what_they_are();
  overflow_saturates_limb_by_limb();
  special_factors_decide_wherever_they_stand();
  half_of_the_products_cancel_the_other_half();
  six_levels_each_a_limb_apart();
  lengths_around_the_ends_of_chunks();
  each_shape_is_exact_over_many_chunks();
  slices_filled_to_the_brim_stay_exact();
  large_factors_of_moderate_products_stay_exact();
  products_are_exact_on_both_sides_of_the_least_that_is_split();
  a_cascade_sees_products_below_the_least_that_is_split();
  an_outlier_anywhere_is_kept();
  products_around_a_window_are_kept();
  a_window_filled_to_the_brim_stays_exact();
}

}  // namespace korvex::test
