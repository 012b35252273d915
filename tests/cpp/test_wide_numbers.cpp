// SPDX-License-Identifier: Apache-2.0
// Functions whose numbers lie in memory against those that return them: the same words, the same
// rounding, the same result of a whole sum.
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "check.h"
#include "korvex/arithmetic/elementary/log_sum_exp_wide.h"
#include "korvex/arithmetic/elementary/logistic_wide.h"
#include "random_data.h"
#include "reduction_checks.h"
#include "suites.h"

namespace korvex::test {
namespace {

using namespace arithmetic;

constexpr double kInf = std::numeric_limits<double>::infinity();

template <int W>
void check_same_words(const Fixed<W>& found, const Fixed<W>& expected) {
  for (int i = 0; i < W; ++i) {
    CHECK(found.word[i] == expected.word[i]);
  }
}

void check_same(const Rounded& found, const Rounded& expected) {
  CHECK_SAME_BITS(found.value, expected.value);
  CHECK(found.is_decided == expected.is_decided);
}

// Memory as a block finds it: full of what was there before.
template <class Memory>
Memory used() {
  Memory memory;
  std::memset(static_cast<void*>(&memory), 0xa5, sizeof memory);
  return memory;
}

// Of all magnitudes for which exp(-x) is asked, the ends included.
std::vector<double> magnitudes(int count) {
  Random random(91);
  std::vector<double> x = {0x1p-53, 0x1p-27, 0.5, 1.0, 0x1.62e42fefa39efp-1, 19.0, 38.0, 745.1};
  for (int i = 0; i < count; ++i) {
    x.push_back(std::fmod(absolute(random.with_exponent(random.between(-53, 9))), 745.0));
  }
  return x;
}

template <int W>
void exp_leaves_the_same_words(int count) {
  for (const double x : magnitudes(count)) {
    auto e = used<WideExp<W>>();
    set_magnitude(x, e.argument);
    check_same_words(e.argument, fixed_magnitude<W>(x));
    const FixedExp<W> expected = fixed_exp(fixed_magnitude<W>(x), true);
    CHECK(exp_of_negative(e) == expected.exponent);
    check_same_words(e.value, expected.fixed);
    CHECK(expected.exponent < 0);
  }
}

template <int W>
void quotients_are_the_same() {
  for (const double x : magnitudes(4)) {
    Fixed<W> a = fixed_magnitude<W>(x);
    const Fixed<W> b = a + fixed_from<W>(1, -1);
    const Fixed<W> expected = fixed_quotient(a, b);
    auto quotient = used<Fixed<W>>();
    divide_fixed(a, b, quotient);
    check_same_words(quotient, expected);
  }
}

template <int W>
void tries_of_logistic_functions_are_the_same(int count) {
  for (const double x : magnitudes(count)) {
    auto memory = used<WideExp<W>>();
    check_same(wide_sigmoid(x, memory), accurate_sigmoid<W>(x));
    check_same(wide_sigmoid(-x, memory), accurate_sigmoid<W>(-x));
    if (x >= kTanhLeast && x <= kTanhOne) {
      check_same(wide_tanh(x, memory), accurate_tanh<W>(x));
    }
  }
}

// First and last try in place of the whole function, whether or not the first one decides.
void tries_give_the_functions() {
  std::vector<double> x = magnitudes(60);
  for (const double special : {0.0, 0x1p-1074, 0x1p-60, 746.0, 1e300, kInf, std::nan("")}) {
    x.push_back(special);
  }
  for (const double magnitude : x) {
    for (const double each : {magnitude, -magnitude}) {
      const Rounded sigmoid_tried = first_sigmoid(each);
      const Rounded tanh_tried = first_tanh(each);
      CHECK(sigmoid_tried.is_decided && tanh_tried.is_decided);
      CHECK_SAME_BITS(sigmoid_tried.value, sigmoid(each));
      CHECK_SAME_BITS(tanh_tried.value, hyperbolic_tangent(each));
      auto memory = used<LastLogistic>();
      if (magnitude >= 0x1p-53 && magnitude < 38) {
        CHECK_SAME_BITS(last_sigmoid(each, memory), sigmoid(each));
      }
      if (magnitude >= kTanhLeast && magnitude <= kTanhOne) {
        CHECK_SAME_BITS(last_tanh(each, memory), hyperbolic_tangent(each));
      }
    }
  }
}

// Sums as the tries get them: of terms far below 1, of one term, of many that are nearly equal.
const std::vector<std::vector<double>>& sums() {
  static const std::vector<std::vector<double>> x = {
      {0, -600},        {-1e-20, -46},       {0, -745},
      {0, 0},           {709, -745.2, 0},    {-0x1p-40, -0x1.b39a8f0000000p+4},
      {3, 3 - 0x1p-51}, {0, -90.5, -300.25}, {-0x1.62e42fefa39efp-1, -0x1.62e42fefa39efp-1},
      {0, -3000},       {0x1p61, 0x1p61},    {-0x1p61, -0x1p61 - 1024}};
  return x;
}

template <int W>
void tries_of_a_sum_are_the_same() {
  for (const std::vector<double>& x : sums()) {
    const double largest = *std::max_element(x.begin(), x.end());
    const auto n = static_cast<std::int64_t>(x.size());
    FixedExpSum<W> expected;
    auto sum = used<WideExpSum<W>>();
    sum.sum = {};
    for (const double each : x) {
      expected.add_term(each, largest);
      sum.add_term(each, largest);
    }
    check_same_words(sum.sum, expected.sum);
    check_same(wide_log_sum(largest, sum, n), accurate_log_sum(largest, expected.sum, n));
  }
}

void whole_sums_are_the_same() {
  std::vector<std::vector<double>> all = sums();
  all.push_back({});
  all.push_back({kInf, 1});
  all.push_back({std::nan(""), 1});
  all.push_back({-0.0});
  std::vector<double> many(40, -700.0);
  many[7] = 0.0;
  all.push_back(many);
  for (const std::vector<double>& x : all) {
    for (const int threads : {1, 2, 3, 32}) {
      const BlockOfThreads block(x, threads);
      CHECK_SAME_BITS(log_sum_exp_in_memory(block, block.n()), log_sum_exp(x, threads));
    }
  }
}

}  // namespace

void test_wide_numbers() {
  exp_leaves_the_same_words<5>(60);
  exp_leaves_the_same_words<17>(6);
  exp_leaves_the_same_words<24>(4);
  quotients_are_the_same<5>();
  quotients_are_the_same<17>();
  tries_of_logistic_functions_are_the_same<5>(60);
  tries_of_logistic_functions_are_the_same<9>(10);
  tries_of_logistic_functions_are_the_same<17>(4);
  tries_give_the_functions();
  tries_of_a_sum_are_the_same<5>();
  tries_of_a_sum_are_the_same<24>();
  whole_sums_are_the_same();
}

}  // namespace korvex::test
