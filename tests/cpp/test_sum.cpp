// SPDX-License-Identifier: Apache-2.0
// The bodies of the sum kernels: chosen cases with their limbs written out, then every shape of
// data against exact bits, in scalar and in vector lanes, whole and in slices.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "bit_number.h"
#include "check.h"
#include "korvex/arithmetic/exact/sum.h"
#include "random_data.h"
#include "suites.h"
#include "sum_checks.h"

namespace korvex::test {
namespace {

using arithmetic::HostLanes;
using arithmetic::ScalarLanes;

constexpr double kMax = std::numeric_limits<double>::max();
constexpr double kInf = std::numeric_limits<double>::infinity();

void expect_exact(const std::vector<double>& x) {
  const std::vector<double> four = canonical_limbs(x, 4);
  CHECK(all_ways_give(x, four, canonical_limbs(x, 2)));
  for (const double limb : sequential_limbs<HostLanes>(x)) {
    Tally::all().record(limb);
  }
}

void expect_limbs(const std::vector<double>& x, const std::vector<double>& four) {
  CHECK(all_ways_give(x, four, {four[0], four[1]}));
}

// The same elements once more in an array long enough for the cascade: zeros change no sum.
std::vector<double> spread_over_chunks(const std::vector<double>& x) {
  std::vector<double> result(x.size() * 301, 0.0);
  for (std::size_t i = 0; i < x.size(); ++i) {
    result[i * 301] = x[i];
  }
  return result;
}

void expect_exact_short_and_long(const std::vector<double>& x) {
  expect_exact(x);
  expect_exact(spread_over_chunks(x));
}

void empty_and_zero_sums_are_plus_zero() {
  expect_limbs({}, {0.0, 0.0, 0.0, 0.0});
  expect_limbs({-0.0}, {0.0, 0.0, 0.0, 0.0});
  expect_limbs(std::vector<double>(5000, -0.0), {0.0, 0.0, 0.0, 0.0});
  Limbs4 out = {7.0, 7.0, 7.0, 7.0};
  arithmetic::sum_sequential<HostLanes>(nullptr, out.data(), -5);
  CHECK(same_limbs(out, std::vector<double>(4, 0.0)));
}

void exponents_are_of_the_largest_and_the_smallest_that_is_not_zero() {
  const auto range = [](const std::vector<double>& x) {
    return arithmetic::ExponentRange::of(x.data(), static_cast<std::int64_t>(x.size()));
  };
  const auto is = [&](const std::vector<double>& x, int lowest, int highest) {
    const auto found = range(x);
    return found.lowest == lowest && found.highest == highest && found.is_finite;
  };
  CHECK(is({3.0, 1.5, 0.0, -40.0}, 0, 5));  // a zero after the smallest
  CHECK(is({1.0, std::nextafter(1.0, 0.0)}, -1, 0));
  CHECK(is({std::nextafter(1.0, 0.0), 1.0}, -1, 0));
  CHECK(is({0x1p-1074, -0x1p-1022}, -1022, -1022));
  CHECK(is({kMax, 0x1p-1074}, -1022, 1023));
  CHECK(!range({1.0, -kInf}).is_finite);
}

void a_sum_that_overflows_midway_comes_back() {
  const double large = 0x1p+1023;
  const std::vector<double> x = {large, large, -large, -large, 0x1p-1074};
  expect_limbs(x, {0x1p-1074, 0.0, 0.0, 0.0});
  expect_limbs(spread_over_chunks(x), {0x1p-1074, 0.0, 0.0, 0.0});
  std::vector<double> many(3000, kMax);
  many.resize(6000, -kMax);
  many.push_back(1.0);
  expect_limbs(many, {1.0, 0.0, 0.0, 0.0});
}

void six_levels_each_a_limb_apart() {
  for (int offset = 51; offset <= 55; ++offset) {
    std::vector<double> x;
    x.reserve(6);
    for (int level = 0; level < 6; ++level) {
      x.push_back(std::ldexp(level % 2 == 0 ? 1.0 : -1.0, 200 - offset * level));
    }
    expect_exact_short_and_long(x);
    std::reverse(x.begin(), x.end());
    expect_exact_short_and_long(x);
  }
}

void more_than_four_limbs_round_the_last() {
  expect_limbs({0x1p+900, 0x1p+600, 0x1p+300, 1, 0x1p-300}, {0x1p+900, 0x1p+600, 0x1p+300, 1});
  expect_limbs({0x1p+900, 0x1p+600, 0x1p+300, 1, 0x1p-53, 0x1p-300},
               {0x1p+900, 0x1p+600, 0x1p+300, 0x1.0000000000001p+0});
}

void every_order_of(std::vector<double> x) {
  const std::vector<double> four = canonical_limbs(x, 4);
  const std::vector<double> two = canonical_limbs(x, 2);
  std::sort(x.begin(), x.end());
  do {
    CHECK(all_ways_give(x, four, two));
  } while (std::next_permutation(x.begin(), x.end()));
}

void every_order_gives_the_same_limbs() {
  for (const double half : {0x1p-53, -0x1p-53}) {
    for (const double smallest : {0x1p-1074, -0x1p-1074}) {
      every_order_of({1, half, smallest});
    }
  }
  every_order_of({1, -1, 0x1p-53, 0x1p-106, 0x1p-1074});
  every_order_of({0x1p+1023, 0x1p+1023, -0x1p+1023, -0x1p+1023, 0x1p-1074});
  every_order_of({kMax, kMax, -kMax, 0x1p+970, -0x1p+969});
  every_order_of({0x1p+100, 0x1p+47, 0x1p-6, -0x1p-59, 0x1p-112, 0x1p-165});
}

void everything_cancels() {
  Random random(41);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    for (const std::size_t count : {2U, 100U, 5000U}) {
      const std::vector<double> x = draw_many(random, static_cast<Shape>(shape), count, true);
      expect_limbs(x, {0.0, 0.0, 0.0, 0.0});
    }
  }
}

void overflow_saturates_limb_by_limb() {
  expect_limbs({kMax, 0x1p+970}, {kMax, 0x1p+970, 0.0, 0.0});
  expect_limbs({1.7e308, 1.7e308}, {kMax, 1.7e308 - (kMax - 1.7e308), 0.0, 0.0});
  CHECK(all_ways_give({kMax, kMax, kMax}, {kMax, kMax, kMax, 0.0}, {kInf, 0.0}));
  CHECK(all_ways_give({-kMax, -kMax, -kMax}, {-kMax, -kMax, -kMax, 0.0}, {-kInf, 0.0}));
  CHECK(all_ways_give(std::vector<double>(4, kMax), {kMax, kMax, kMax, kMax}, {kInf, 0.0}));
  CHECK(all_ways_give(std::vector<double>(5, kMax), {kInf, 0.0, 0.0, 0.0}, {kInf, 0.0}));
  CHECK(all_ways_give(std::vector<double>(9000, -kMax), {-kInf, 0.0, 0.0, 0.0}, {-kInf, 0.0}));
}

void special_values_decide_wherever_they_stand() {
  const double nan = double_of(0x7ff8000000000000);
  for (const std::size_t place : {0U, 1U, 511U, 512U, 513U, 3000U, 4999U}) {
    std::vector<double> x(5000, 1.5);
    x[place] = kInf;
    expect_limbs(x, {kInf, 0.0, 0.0, 0.0});
    x[4998] = -kInf;
    expect_limbs(x, {nan, 0.0, 0.0, 0.0});
    x[4998] = 1.5;
    x[place] = double_of(0xfff8000000000001);
    expect_limbs(x, {nan, 0.0, 0.0, 0.0});
    x[place] = -kInf;
    expect_limbs(x, {-kInf, 0.0, 0.0, 0.0});
  }
}

void lengths_around_the_ends_of_chunks() {
  Random random(42);
  for (const int border : {2, 4, 8, 256, 512, 1024, 2048}) {
    for (int n = border - 1; n <= border + 1; ++n) {
      expect_exact(draw_many(random, Shape::kNarrow, static_cast<std::size_t>(n), false));
      expect_exact(draw_many(random, Shape::kWide, static_cast<std::size_t>(n), false));
    }
  }
}

void unaligned_arrays_sum_alike() {
  Random random(43);
  const std::vector<double> x = draw_many(random, Shape::kWide, 3000, false);
  for (std::size_t offset = 1; offset < 5; ++offset) {
    const std::vector<double> rest(x.begin() + static_cast<std::ptrdiff_t>(offset), x.end());
    Limbs4 out{};
    arithmetic::sum_sequential<HostLanes>(x.data() + offset, out.data(),
                                          static_cast<std::int64_t>(x.size() - offset));
    CHECK(same_limbs(out, sequential_limbs<ScalarLanes>(rest)));
  }
}

void each_shape_is_exact_over_many_chunks() {
  Random random(44);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    for (int i = 0; i < 4; ++i) {
      const auto count = static_cast<std::size_t>(random.between(1, 9000));
      expect_exact(draw_many(random, static_cast<Shape>(shape), count, i % 2 == 1));
    }
  }
}

// Equal positive elements drive each slice to the end of its binade.
void slices_filled_to_the_brim_stay_exact() {
  for (const double x :
       {1.0, 0x1.fffffffffffffp+0, -0x1.fffffffffffffp+0, 0x1.fffffffffffffp+950,
        0x1.fffffffffffffp+1003, 0x1p+1004, -0x1.fffffffffffffp+1010, 0x1.fffffffffffffp+1011,
        0x1.fffffffffffffp-1000, 0x1p-1074, 0x0.fffffffffffffp-1022}) {
    expect_exact(std::vector<double>(4500, x));
  }
}

// Elements whose rests below the first slice are all just short of half a grid step and of one
// sign.
void second_slices_filled_to_the_brim_stay_exact() {
  Random random(46);
  for (const double rest : {0x1p-44 - 0x1p-52, 0x1p-52 - 0x1p-44}) {
    std::vector<double> x(4500);
    for (double& element : x) {
      element = random.sign() + rest;
    }
    expect_exact(x);
  }
}

// So many large elements that the counts of grid units, written as doubles, come near overflow.
void large_counts_of_large_units_stay_finite() {
  for (const int exponent : {1003, 1007, 1011}) {
    std::vector<double> x(70000, std::ldexp(0x1.fffffffffffffp+0, exponent));
    x.resize(140000, -x[0]);
    x.push_back(1.0);
    expect_limbs(x, {1.0, 0.0, 0.0, 0.0});
  }
}

// One element out of scale in each chunk in turn: the plan must widen, give up or recover, exactly.
void an_outlier_anywhere_is_kept() {
  Random random(45);
  for (const int exponent : {-1070, -300, -100, 30, 60, 200, 950, 951, 952, 1000, 1023}) {
    std::vector<double> x = draw_many(random, Shape::kNarrow, 6000, false);
    x[static_cast<std::size_t>(random.below(6000))] = std::ldexp(random.sign(), exponent);
    expect_exact(x);
  }
}

// A partial sum that leaves the binade of the first slice and returns within one chunk.
void a_partial_sum_that_leaves_the_binade_and_returns() {
  for (const double large : {0x1p+8, 0x1p+9, 0x1p+20, 0x1p+40, 0x1p+62, 0x1p+300}) {
    std::vector<double> x(4096, 0x1.5555555555555p+0);
    for (std::size_t i = 2048; i < 2100; ++i) {
      x[i] = large;
      x[i + 64] = -large;
    }
    expect_exact(x);
  }
}

// What the cascade holds, as a double: exact for the sums below.
template <class Cascade>
double held(const Cascade& cascade, int bias) {
  const auto part = [&](std::int64_t count, int slice) {
    return std::ldexp(static_cast<double>(count), bias - slice * arithmetic::kSliceBits - 52);
  };
  return part(cascade.template count<0>(), 0) + part(cascade.template count<1>(), 1) +
         part(cascade.template count<2>(), 2);
}

// That a cascade is exact where it can be is speed, not a result: slower ways give the same sums.
template <class Lanes>
void expect_a_cascade_to_hold_ordinary_numbers() {
  using Cascade = arithmetic::BiasedCascade<Lanes, 3, 2>;
  static constexpr int kBias = arithmetic::kBiasAboveExponent;
  const auto run = [](double x) {
    const std::vector<double> step(Cascade::kStep, x);
    Cascade cascade(kBias);
    for (int i = 0; i < arithmetic::kCascadeSteps; ++i) {
      cascade.feed(step.data());
    }
    return cascade;
  };
  for (const double x : {1.0, -1.0, 1.5, -0x1.8p-30, 0x1p-60, 0x1.fffffep+0, 0x1.8p-80}) {
    const Cascade cascade = run(x);
    CHECK(cascade.is_exact());
    // By a power of two, so that builds with lanes of any number record the same.
    CHECK_SAME_BITS(held(cascade, kBias) / (Cascade::kStep * arithmetic::kCascadeSteps), x);
  }
  CHECK(run(0.0).is_exact() && run(-0.0).is_exact());
  for (const double x : {0x1p+9, -0x1p+9, 0x1p-140, -0x1p-140}) {
    CHECK(!run(x).is_exact());
  }
}

void cascades_hold_ordinary_numbers() {
  expect_a_cascade_to_hold_ordinary_numbers<arithmetic::ScalarLanes>();
  expect_a_cascade_to_hold_ordinary_numbers<arithmetic::HostLanes>();
}

// A cascade in a window takes what lies in it, and notices each number that does not.
template <class Lanes>
void expect_a_window_to_be_kept(int top) {
  using Cascade = arithmetic::BiasedCascade<Lanes, 2, 2, arithmetic::kSliceBits, true>;
  const int bottom = arithmetic::ExponentWindow::bottom(top);
  const auto notices = [&](double x, std::size_t place) {
    std::vector<double> step(Cascade::kStep, std::ldexp(1.0, top));
    step[place] = x;
    Cascade cascade(top + arithmetic::kBiasAboveExponent, bottom);
    cascade.feed(step.data());
    return !cascade.is_exact();
  };
  for (std::size_t place = 0; place < Cascade::kStep; ++place) {
    for (const double sign : {1.0, -1.0}) {
      const double end = std::ldexp(sign, top + 1);
      CHECK(!notices(std::ldexp(sign, bottom), place));
      CHECK(!notices(std::nextafter(end, 0.0), place));
      for (const double x :
           {std::nextafter(std::ldexp(sign, bottom), 0.0), 0.0 * sign, end, kMax * sign,
            kInf * sign, 0x1p-1074 * sign, std::numeric_limits<double>::quiet_NaN()}) {
        CHECK(notices(x, place));
      }
    }
  }
}

void windows_are_kept() {
  const int highest = arithmetic::CascadePlan<arithmetic::Addends>::kHighestBias;
  for (const int top : {arithmetic::kMinExponent + arithmetic::ExponentWindow::kExponents - 1, -500,
                        0, 700, highest - arithmetic::kBiasAboveExponent}) {
    expect_a_window_to_be_kept<arithmetic::ScalarLanes>(top);
    expect_a_window_to_be_kept<arithmetic::HostLanes>(top);
  }
}

// Numbers at both ends of the window of a plan and a binade beyond, and zeros, early and late.
void elements_around_a_window_are_kept() {
  Random random(47);
  const int bottom = arithmetic::ExponentWindow::bottom(2);  // two binades are left for the largest
  for (const int scale : {-1000, -992, 0, 948, 949, 1001}) {
    std::vector<double> x(3000);
    for (double& element : x) {
      element = random.with_exponent(scale);
    }
    for (const std::size_t place : {5U, 64U, 2999U}) {
      const double before = x[place];
      for (const int offset : {bottom - 1, bottom, 1, 2, 3, 9, 11, 22}) {
        x[place] = std::ldexp(random.sign() * (1 + 0x1p-52), scale + offset);
        CHECK(all_ways_give(x, canonical_limbs(x, 4), canonical_limbs(x, 2)));
      }
      x[place] = random.sign() * 0.0;
      CHECK(all_ways_give(x, canonical_limbs(x, 4), canonical_limbs(x, 2)));
      x[place] = before;
    }
  }
}

// As large as the window of the first elements allows, and with rests as large.
void a_window_filled_to_the_brim_stays_exact() {
  for (const double x : {0x1.fffffffffffffp+2, -0x1.fffffffffffffp+2, 4 + (0x1p-42 - 0x1p-50),
                         -4 - (0x1p-42 - 0x1p-50)}) {
    std::vector<double> elements(64, 1.0);
    elements.resize(4500, x);
    CHECK(all_ways_give(elements, canonical_limbs(elements, 4), canonical_limbs(elements, 2)));
  }
}

// Slices reach from above the largest element to the last bit of the smallest, or to 2^-1074, and
// there is none too many.
void plans_cover_their_elements() {
  using Plan = arithmetic::CascadePlan<arithmetic::Addends>;
  using arithmetic::kBiasAboveExponent;
  using arithmetic::kMinExponent;
  for (int top = kMinExponent; top < 900; top += 7) {
    for (int bottom = kMinExponent; bottom <= top; bottom += 11) {
      const Plan plan = Plan::covering(top, bottom);
      const int bias = plan.bias_exponent();
      const int last = bias - (plan.slices - 1) * Plan::kBits;
      CHECK(plan.top == top && plan.bottom == bottom && plan.slices >= Plan::kMinSlices);
      CHECK(bias >= top + kBiasAboveExponent && last >= kMinExponent);
      CHECK(last <= bottom);
      CHECK(bias == top + kBiasAboveExponent || last == kMinExponent);
      CHECK(plan.slices == Plan::kMinSlices ||
            top + kBiasAboveExponent - (plan.slices - 2) * Plan::kBits > bottom);
    }
  }
}

}  // namespace

void test_sum() {
  cascades_hold_ordinary_numbers();
  windows_are_kept();
  plans_cover_their_elements();
  empty_and_zero_sums_are_plus_zero();
  exponents_are_of_the_largest_and_the_smallest_that_is_not_zero();
  a_sum_that_overflows_midway_comes_back();
  six_levels_each_a_limb_apart();
  more_than_four_limbs_round_the_last();
  every_order_gives_the_same_limbs();
  everything_cancels();
  overflow_saturates_limb_by_limb();
  special_values_decide_wherever_they_stand();
  lengths_around_the_ends_of_chunks();
  unaligned_arrays_sum_alike();
  each_shape_is_exact_over_many_chunks();
  slices_filled_to_the_brim_stay_exact();
  second_slices_filled_to_the_brim_stay_exact();
  large_counts_of_large_units_stay_finite();
  an_outlier_anywhere_is_kept();
  a_partial_sum_that_leaves_the_binade_and_returns();
  elements_around_a_window_are_kept();
  a_window_filled_to_the_brim_stays_exact();
}

}  // namespace korvex::test
