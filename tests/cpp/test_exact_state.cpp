// SPDX-License-Identifier: Apache-2.0
// States of exact sums: words, carries, merging, counts of infinities and NaN, narrow rounding; and
// the terms that count what is not finite.
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "bit_number.h"
#include "check.h"
#include "korvex/arithmetic/exact/counted_sum.h"
#include "korvex/arithmetic/exact/exact_state.h"
#include "korvex/arithmetic/exact/narrow_rounding.h"
#include "korvex/kernels/host/lanes.h"
#include "random_data.h"
#include "suites.h"

namespace korvex::test {
namespace {

using arithmetic::Counted;
using arithmetic::ExactProductSum;
using arithmetic::ExactState;
using arithmetic::ExactSum;
using arithmetic::HostLanes;
using arithmetic::StateKind;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kMax = std::numeric_limits<double>::max();
constexpr double kTiny = 0x1p-1074;
constexpr std::int64_t kDigitEnd = std::int64_t{1} << 32;
constexpr std::int64_t kMostStates = (std::int64_t{1} << 31) - 1;  // to add up before settling

using Words = std::vector<std::int64_t>;

Words empty(StateKind kind) {
  return Words(static_cast<std::size_t>(arithmetic::state_words(kind)), 0);
}

Words stored(StateKind kind, ExactState& state) {
  Words words = empty(kind);
  state.store(words.data());
  return words;
}

ExactState loaded(StateKind kind, const Words& words) {
  ExactState state(kind);
  CHECK(state.load(words.data()));
  return state;
}

Words sum_of(const std::vector<double>& x) {
  Counted<ExactSum> sum;
  for (const double each : x) {
    sum.add(each);
  }
  sum.counts.terms = static_cast<std::int64_t>(x.size());
  ExactState state(StateKind::kSum);
  state.add(sum);
  state.add(sum.counts);
  return stored(StateKind::kSum, state);
}

Words merged(const Words& a, const Words& b, int sign, StateKind kind = StateKind::kSum) {
  ExactState state = loaded(kind, a);
  state.add(loaded(kind, b), sign);
  return stored(kind, state);
}

std::vector<double> limbs_of_sum(const Words& words, int count) {
  std::vector<double> limbs(static_cast<std::size_t>(count));
  loaded(StateKind::kSum, words).round(false, count, limbs.data());
  return limbs;
}

bool is_settled(const Words& words, std::size_t digits) {
  bool is_settled = true;
  for (std::size_t i = 0; i + 1 < digits; ++i) {
    is_settled = is_settled && words[i] >= 0 && words[i] < kDigitEnd;
  }
  return is_settled;
}

void expect_limbs(const Words& words, const std::vector<double>& expected) {
  const std::vector<double> limbs = limbs_of_sum(words, static_cast<int>(expected.size()));
  for (std::size_t i = 0; i < expected.size(); ++i) {
    CHECK_SAME_BITS(limbs[i], expected[i]);
  }
}

void kinds_have_their_words() {
  CHECK(arithmetic::state_words(StateKind::kSum) == 72);
  CHECK(arithmetic::state_words(StateKind::kDot) == 138);
  CHECK(arithmetic::state_words(StateKind::kMoments) == 206);
}

void a_stored_state_is_the_exact_sum_of_each_shape() {
  Random random(71);
  for (int i = 0; i < 160; ++i) {
    const auto shape = static_cast<Shape>(i % static_cast<int>(Shape::kCount));
    const std::vector<double> x = draw_many(random, shape, 60, i % 2 == 0);
    const Words words = sum_of(x);
    CHECK(is_settled(words, 68));
    CHECK(words[71] == 60);
    expect_limbs(words, canonical_limbs(x, 4));
  }
}

void subtracting_what_was_added_leaves_zeros() {
  Random random(72);
  for (int i = 0; i < 40; ++i) {
    const auto shape = static_cast<Shape>(i % static_cast<int>(Shape::kCount));
    std::vector<double> x = draw_many(random, shape, 50, false);
    x.insert(x.end(), {kInf, -kInf, kNan, -kNan, kInf});
    const Words all = sum_of(x);
    CHECK(all[68] == 2 && all[69] == 1 && all[70] == 2 && all[71] == 55);
    CHECK(merged(all, all, -1) == empty(StateKind::kSum));
    x.erase(x.begin(), x.begin() + 50);
    const Words finite = merged(all, sum_of(x), -1);
    CHECK(finite[68] == 0 && finite[69] == 0 && finite[70] == 0 && finite[71] == 50);
  }
}

// Every border between two digits, from both sides and with both signs.
void carries_cross_each_border_of_digits() {
  for (int border = 32; border < 2048; border += 32) {
    const double unit = std::ldexp(1.0, border - 1074);
    const double below =
        border <= 53 ? unit - kTiny : std::ldexp(0x1.fffffffffffffp-1, border - 1074);
    for (const double sign : {1.0, -1.0}) {
      const std::vector<double> x = {sign * below, sign * below, -sign * unit, sign * kTiny,
                                     -sign * unit};
      CHECK(is_settled(sum_of(x), 68));
      expect_limbs(sum_of(x), canonical_limbs(x, 4));
      const Words negative = merged(empty(StateKind::kSum), sum_of({sign * unit}), -1);
      CHECK(negative == [&] {
        Words expected = sum_of({-sign * unit});
        expected[71] = -1;
        return expected;
      }());
    }
  }
}

void the_ends_of_the_range_fit() {
  const std::vector<double> large(3000, kMax);
  expect_limbs(sum_of(large), canonical_limbs(large, 1));
  CHECK(limbs_of_sum(sum_of(large), 1)[0] == kInf);
  const std::vector<double> all_but_one(2999, kMax);
  const Words one = merged(sum_of(large), sum_of(all_but_one), -1);
  expect_limbs(one, {kMax, 0.0, 0.0, 0.0});
  const std::vector<double> subnormal(3000, -kTiny);
  expect_limbs(sum_of(subnormal), {-3000 * kTiny, 0.0});
  expect_limbs(sum_of({0x1p1023, 0x1p969}), {0x1p1023, 0x1p969});
}

// Word by word, times so many: all digits of -1 unit but the last are the largest there are.
void the_words_of_2_to_the_31_states_less_one_add_up() {
  for (const double x : {-kTiny, kTiny, -1.0, kMax, -kMax, 0x1.fffffffffffffp+30}) {
    Words words = sum_of({x});
    for (std::int64_t& word : words) {
      word *= kMostStates;
    }
    ExactState state = loaded(StateKind::kSum, words);
    const Words settled = stored(StateKind::kSum, state);
    CHECK(is_settled(settled, 68));
    CHECK(settled[71] == kMostStates);
    // 2^31 - 1 times x is 2^31 x - x; the largest doubles in steps that do not overflow.
    const bool is_large = std::fabs(x) == kMax;
    const double times = is_large ? x : 0x1p31 * x;
    Words expected = sum_of({times, is_large ? 0.0 : -x});
    for (int doubling = 0; is_large && doubling < 31; ++doubling) {
      expected = merged(expected, expected, 1);
    }
    if (is_large) {
      expected = merged(expected, sum_of({x}), -1);
    }
    expected[71] = kMostStates;
    CHECK(settled == expected);
  }
}

void what_is_no_state_is_refused() {
  for (const std::size_t place : {std::size_t{0}, std::size_t{30}, std::size_t{67}}) {
    for (const std::int64_t digit :
         {std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()}) {
      Words words = empty(StateKind::kMoments);
      words[place] = digit;
      CHECK(!ExactState(StateKind::kMoments).load(words.data()));
    }
  }
}

void specials_decide_the_limbs() {
  const auto first = [](const Words& words) { return limbs_of_sum(words, 2); };
  CHECK(first(sum_of({1.0, kInf}))[0] == kInf);
  CHECK(first(sum_of({1.0, -kInf}))[0] == -kInf);
  CHECK(std::isnan(first(sum_of({kInf, -kInf}))[0]));
  CHECK(std::isnan(first(sum_of({kNan, kInf}))[0]));
  CHECK_SAME_BITS(first(sum_of({kNan, 0x1p-60}))[1], 0.0);
  CHECK_SAME_BITS(first(sum_of({-0.0, -0.0}))[0], 0.0);
}

void squares_of_either_infinity_are_positive() {
  Words words = empty(StateKind::kMoments);
  words[202] = 1;  // +infinity
  words[203] = 2;  // -infinity
  double sum = 0;
  double squares = 0;
  loaded(StateKind::kMoments, words).round(false, 1, &sum);
  loaded(StateKind::kMoments, words).round(true, 1, &squares);
  CHECK(std::isnan(sum));
  CHECK(squares == kInf);
}

void products_below_the_smallest_double_are_kept() {
  Counted<ExactProductSum> products;
  products.add_product(kTiny, kTiny);
  ExactState state(StateKind::kDot);
  state.add(products);
  const Words words = stored(StateKind::kDot, state);
  CHECK(words[0] == 1 && is_settled(words, 134));
  CHECK(merged(words, words, -1, StateKind::kDot) == empty(StateKind::kDot));
}

// A midpoint of two neighbours of the format, and numbers on each side of it as near as they come.
void narrow_formats_round_once(const arithmetic::NarrowFormat& format) {
  Random random(73);
  const double end = std::ldexp(1.0, format.end_exponent);
  for (int i = 0; i < 600; ++i) {
    const bool is_subnormal = i % 3 == 0;
    const int precision = is_subnormal ? random.between(1, format.precision - 1) : format.precision;
    const int least = format.unit_exponent;
    const int exponent =
        is_subnormal ? least : random.between(least, format.end_exponent - precision);
    const double significand =
        std::floor(std::ldexp(1.0, precision - 1) *
                   (1.0 + static_cast<double>(random.bits() >> 12) * 0x1p-52));
    const double lower = std::ldexp(significand, exponent);
    const double upper = std::ldexp(significand + 1, exponent);
    const double tie = std::ldexp(significand + 0.5, exponent);
    const double even = std::fmod(significand, 2.0) == 0 ? lower : upper;
    const auto number = [&](double x) { return x >= end ? kInf : x; };
    const double bit = std::ldexp(1.0, -1074 + random.below(700));
    for (const double sign : {1.0, -1.0}) {
      const auto rounded = [&](double rest) {
        ExactState state = loaded(StateKind::kSum, sum_of({sign * tie, sign * rest}));
        return sign * state.round_to(format, false);
      };
      CHECK_SAME_BITS(rounded(0.0), number(even));
      CHECK_SAME_BITS(rounded(bit), number(upper));
      CHECK_SAME_BITS(rounded(-bit), number(lower));
    }
  }
}

void narrow_products_see_what_no_double_holds() {
  for (const double sign : {1.0, -1.0}) {
    Counted<ExactProductSum> products;
    products.add_product(1 + 0x1p-11, 1.0);  // a midpoint of float16
    products.add_product(0x1p-1000, sign * 0x1p-1000);
    ExactState state(StateKind::kDot);
    state.add(products);
    CHECK_SAME_BITS(state.round_to(arithmetic::kFloat16, true), sign > 0 ? 1 + 0x1p-10 : 1.0);
  }
}

// One chunk of specials in every few, and values of every shape around them.
void counted_terms_lose_no_finite_term() {
  Random random(74);
  for (int i = 0; i < 24; ++i) {
    const auto shape = static_cast<Shape>(i % static_cast<int>(Shape::kCount));
    std::vector<double> x = draw_many(random, shape, 3000, false);
    std::vector<double> y = draw_many(random, Shape::kNarrow, 3000, false);
    std::array<std::int64_t, 3> sums{};
    std::array<std::int64_t, 3> dots{};
    BitNumber sum;
    ProductBitNumber dot;
    for (std::size_t k = 0; k < x.size(); ++k) {
      if (k % 997 == 500) {
        x[k] = std::array<double, 3>{kInf, -kInf, kNan}[k / 997];
        y[k] = random.below(2) == 0 ? 0.0 : 2.0;
      }
      if (k % 1201 == 7) {
        y[k] = -kInf;
      }
      const double product = x[k] * y[k];
      if (std::isfinite(x[k])) {
        sum.add(x[k]);
      } else {
        ++sums[std::isnan(x[k]) ? 2 : x[k] < 0 ? 1 : 0];
      }
      if (std::isfinite(x[k]) && std::isfinite(y[k])) {
        dot.add_product(x[k], y[k]);
      } else {
        ++dots[std::isnan(product) ? 2 : product < 0 ? 1 : 0];
      }
    }
    const auto has = [](const arithmetic::TermCounts& counts,
                        const std::array<std::int64_t, 3>& n) {
      return counts.plus_infinities == n[0] && counts.minus_infinities == n[1] &&
             counts.nans == n[2];
    };
    using Terms =
        arithmetic::CountedTerms<HostLanes, arithmetic::DoublesInMemory, Counted<ExactSum>>;
    Counted<ExactSum> counted;
    arithmetic::ChunkedSum<HostLanes, 2, Terms>(counted).add({{x.data()}}, 3000);
    CHECK(has(counted.counts, sums));
    Counted<ExactProductSum> products;
    arithmetic::ChunkedSum<HostLanes, 2, arithmetic::CountedProducts<HostLanes>>(products).add(
        {x.data(), y.data()}, 3000);
    CHECK(has(products.counts, dots));
    double limbs[4];
    counted.round<4>(limbs);
    const std::vector<double> expected = limbs_of(sum, 4);
    double product_limbs[4];
    products.round<4>(product_limbs);
    const std::vector<double> expected_products = limbs_of(dot, 4);
    for (std::size_t k = 0; k < 4; ++k) {
      CHECK_SAME_BITS(limbs[k], expected[k]);
      CHECK_SAME_BITS(product_limbs[k], expected_products[k]);
    }
  }
}

}  // namespace

void test_exact_state() {
  kinds_have_their_words();
  a_stored_state_is_the_exact_sum_of_each_shape();
  subtracting_what_was_added_leaves_zeros();
  carries_cross_each_border_of_digits();
  the_ends_of_the_range_fit();
  the_words_of_2_to_the_31_states_less_one_add_up();
  what_is_no_state_is_refused();
  specials_decide_the_limbs();
  squares_of_either_infinity_are_positive();
  products_below_the_smallest_double_are_kept();
  narrow_formats_round_once(arithmetic::kFloat32);
  narrow_formats_round_once(arithmetic::kFloat16);
  narrow_formats_round_once(arithmetic::kBfloat16);
  narrow_products_see_what_no_double_holds();
  counted_terms_lose_no_finite_term();
}

}  // namespace korvex::test
