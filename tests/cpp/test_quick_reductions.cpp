// SPDX-License-Identifier: Apache-2.0
// The quick ways of the host's reductions: the kernels' results on many shapes and sizes against
// the exact way's, bit for bit, and the bounds that the quick sums claim against exact ones.
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "check.h"
#include "korvex/arithmetic/elementary/rms_norm.h"
#include "korvex/kernels/host/quick_log_sum.h"
#include "korvex/kernels/host/quick_squares.h"
#include "korvex/kernels/host/shells.h"
#include "random_data.h"
#include "reduction_checks.h"

namespace korvex::test {
namespace {

using arithmetic::ScalarLanes;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr int kThreads[] = {1, 2, 3};
constexpr std::size_t kSizes[] = {0,  1,   2,   3,   7,    8,    9,    31,   32,   33,   63,   64,
                                  65, 511, 512, 513, 1024, 2047, 2048, 2049, 4096, 5000, 16384};
constexpr std::size_t kManyThreads = 200003;  // enough for three ranges

// Runs a kernel on x and on outputs of so many elements, with numbers after them.
std::vector<std::vector<double>> run(host::Shell* shell, const std::vector<double>& x, int threads,
                                     const std::vector<std::size_t>& extents,
                                     const double* number = nullptr) {
  std::vector<std::vector<double>> outputs;
  std::vector<double*> pointers = {const_cast<double*>(x.data())};
  for (const std::size_t extent : extents) {
    outputs.emplace_back(extent, 7.0);
    pointers.push_back(outputs.back().data());
  }
  auto n = static_cast<std::int64_t>(x.size());
  double value = number == nullptr ? 0.0 : *number;
  std::vector<void*> values;
  values.reserve(pointers.size() + 2);
  for (double*& pointer : pointers) {
    values.push_back(static_cast<void*>(&pointer));
  }
  values.push_back(&n);
  values.push_back(&value);
  shell(host::Arguments(values.data(), threads));
  return outputs;
}

void expect_same(const std::vector<double>& found, const std::vector<double>& expected) {
  bool are_same = found.size() == expected.size();
  for (std::size_t i = 0; are_same && i < found.size(); ++i) {
    are_same = bits_of(found[i]) == bits_of(expected[i]);
  }
  CHECK(are_same);
}

void expect_kernels_exact(const std::vector<double>& x, int threads) {
  const auto moments = run(host::run_var, x, threads, {1, 1});
  const auto expected = variance<ScalarLanes>(x, 1);
  CHECK_SAME_BITS(moments[0][0], expected[0]);
  CHECK_SAME_BITS(moments[1][0], expected[1]);
  CHECK_SAME_BITS(run(host::run_norm, x, threads, {1})[0][0], norm<ScalarLanes>(x, 1));
  const auto limbs = run(host::run_prod, x, threads, {1, 1});
  const auto expected_limbs = product(x, 1);
  CHECK_SAME_BITS(limbs[0][0], expected_limbs[0]);
  CHECK_SAME_BITS(limbs[1][0], expected_limbs[1]);
  const auto sums = run(host::run_cumsum, x, threads, {x.size(), x.size()});
  const auto expected_sums = running_sums<ScalarLanes>(x, 1);
  expect_same(sums[0], expected_sums.out);
  expect_same(sums[1], expected_sums.out_err);
  CHECK_SAME_BITS(run(host::run_logsumexp, x, threads, {1})[0][0], log_sum_exp(x, 1));
}

void kernels_leave_the_bits_of_the_exact_way() {
  Random random(61);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    for (const std::size_t size : kSizes) {
      expect_kernels_exact(draw_many(random, static_cast<Shape>(shape), size, size % 2 == 0), 1);
    }
    const std::vector<double> many =
        draw_many(random, static_cast<Shape>(shape), kManyThreads, shape % 2 == 0);
    for (const int threads : kThreads) {
      expect_kernels_exact(many, threads);
    }
  }
}

void special_numbers_among_ordinary_ones_leave_the_bits_of_the_exact_way() {
  Random random(62);
  for (const double special : {kInf, -kInf, kNan, 0.0, -0.0, 0x1p-1074, 0x1p+1023, -0x1p-600}) {
    for (const std::size_t size : {40UL, 2500UL}) {
      for (const std::size_t place : {0UL, size / 2, size - 1}) {
        std::vector<double> x = draw_many(random, Shape::kNarrow, size, false);
        x[place] = special;
        expect_kernels_exact(x, 1);
      }
    }
  }
  expect_kernels_exact(std::vector<double>(3000, 0.0), 1);
  expect_kernels_exact(std::vector<double>(3000, -0.0), 1);
  expect_kernels_exact({kInf, -kInf, 1.0}, 1);
  expect_kernels_exact({-kInf, -kInf}, 1);
}

// Where the quick ways must not decide: equal elements, ties, deviations that a mean hides.
void what_lies_near_a_boundary_is_left_to_the_exact_way() {
  expect_kernels_exact(std::vector<double>(5000, 0.1), 1);
  expect_kernels_exact(std::vector<double>(4097, 3.0), 1);
  std::vector<double> level(3000);
  for (std::size_t i = 0; i < level.size(); ++i) {
    level[i] = 1e9 + 0x1p-20 * static_cast<double>(i % 7);
  }
  expect_kernels_exact(level, 1);
  std::vector<double> tie(600, 0.0);
  for (std::size_t i = 0; i < tie.size(); i += 2) {
    tie[i] = i % 4 == 0 ? 1.0 : -1.0;
    tie[i + 1] = i % 4 == 0 ? 0x1p-53 : 0x1p-106;
  }
  expect_kernels_exact(tie, 1);
  expect_kernels_exact({0.0, -600.0}, 1);
  expect_kernels_exact({0.0, -40.0}, 1);
  expect_kernels_exact({-0.6931471805599453, -0.6931471805599453}, 1);
}

// Either limbs may take the place of the elements.
void running_sums_may_write_over_their_elements() {
  Random random(69);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    const std::vector<double> x = draw_many(random, static_cast<Shape>(shape), 1500, false);
    const auto expected = running_sums<ScalarLanes>(x, 1);
    for (const bool is_first : {true, false}) {
      std::vector<double> both[] = {x, std::vector<double>(x.size())};
      double* pointers[] = {both[0].data(), both[is_first ? 0 : 1].data(),
                            both[is_first ? 1 : 0].data()};
      auto n = static_cast<std::int64_t>(x.size());
      void* values[] = {static_cast<void*>(&pointers[0]), static_cast<void*>(&pointers[1]),
                        static_cast<void*>(&pointers[2]), &n};
      host::run_cumsum(host::Arguments(values, 1));
      expect_same(both[is_first ? 0 : 1], expected.out);
      expect_same(both[is_first ? 1 : 0], expected.out_err);
    }
  }
}

// ---- RMS norm

std::vector<double> exact_rms_norm(const std::vector<double>& x, double eps) {
  arithmetic::ProductAccumulator squares;
  squares.clear();
  bool any_nan = false;
  bool any_special = false;
  for (const double element : x) {
    any_nan = any_nan || std::isnan(element);
    any_special = any_special || !std::isfinite(element);
    if (std::isfinite(element)) {
      squares.add_product(element, element);
    }
  }
  const auto n = static_cast<std::int64_t>(x.size());
  const arithmetic::InverseRoot root =
      arithmetic::inverse_root(squares, any_nan, any_special, n, eps);
  std::vector<double> result;
  result.reserve(x.size());
  for (const double element : x) {
    result.push_back(arithmetic::normalised(element, root));
  }
  return result;
}

void rms_norm_leaves_the_bits_of_the_exact_way() {
  Random random(63);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    for (const std::size_t size : {1UL, 7UL, 8UL, 33UL, 2049UL}) {
      std::vector<double> x = draw_many(random, static_cast<Shape>(shape), size, false);
      x[size / 2] = size == 33 ? -0.0 : x[size / 2];
      for (const double eps :
           {0.0, 1e-6, 1.0, 1e300, -1e-3, -1e300, 0x1p-1074, kInf, -kInf, kNan}) {
        expect_same(run(host::run_rms_norm, x, 1, {size}, &eps)[0], exact_rms_norm(x, eps));
      }
    }
    const double eps = 1e-6;
    const std::vector<double> many =
        draw_many(random, static_cast<Shape>(shape), kManyThreads, false);
    const std::vector<double> expected = exact_rms_norm(many, eps);
    for (const int threads : kThreads) {
      expect_same(run(host::run_rms_norm, many, threads, {many.size()}, &eps)[0], expected);
    }
  }
  for (const double special : {kInf, -kInf, kNan}) {
    const std::vector<double> x = {1.0, special, -2.0, 0.0, 5.0};
    const double eps = 1e-6;
    expect_same(run(host::run_rms_norm, x, 1, {5}, &eps)[0], exact_rms_norm(x, eps));
  }
}

void rms_norm_may_write_over_its_elements() {
  Random random(64);
  std::vector<double> x = draw_many(random, Shape::kWide, 2049, false);
  const std::vector<double> expected = exact_rms_norm(x, 1e-6);
  double* pointer = x.data();
  auto n = static_cast<std::int64_t>(x.size());
  double eps = 1e-6;
  void* values[] = {static_cast<void*>(&pointer), static_cast<void*>(&pointer), &n, &eps};
  host::run_rms_norm(host::Arguments(values, 1));
  expect_same(x, expected);
}

// ---- Bounds

// |sum - exact| by exact arithmetic, rounded once.
double distance(arithmetic::ExactProductSum exact, const arithmetic::ValueAndError& sum) {
  exact.add(-sum.value);
  exact.add(-sum.error);
  double limb;
  exact.round<1>(&limb);
  return std::fabs(limb);
}

void quick_squares_keep_their_bound() {
  Random random(65);
  long usable = 0;
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    for (const std::size_t size : {5UL, 300UL, 5000UL, 60000UL}) {
      const std::vector<double> x = draw_many(random, static_cast<Shape>(shape), size, false);
      const auto n = static_cast<std::int64_t>(size);
      host::QuickSquares part;
      host::QuickSquares all;
      part.add(x.data(), n);
      all.add(part);
      arithmetic::ValueAndError sum;
      double slack;
      if (!all.result(sum, slack)) {
        continue;
      }
      ++usable;
      arithmetic::ExactProductSum exact;
      arithmetic::add_products<ScalarLanes>(x.data(), x.data(), n, exact);
      CHECK(distance(exact, sum) <= slack / 2 + 0x1p-105 * sum.value);
    }
  }
  CHECK(usable >= 12);  // narrow, wide, powers and integers at least, but for rare sizes
}

// Ordinary data is decided, and that the slack is small enough for it is a part of that.
void quick_ways_decide_ordinary_data() {
  Random random(66);
  int decided = 0;
  for (int i = 0; i < 20; ++i) {
    const std::vector<double> x = draw_many(random, Shape::kNarrow, 3000, false);
    host::QuickSquares part;
    host::QuickSquares all;
    part.add(x.data(), 3000);
    all.add(part);
    arithmetic::ExactSum sum;
    arithmetic::add_range<ScalarLanes>(x.data(), 3000, sum);
    double limbs[2];
    sum.round<2>(limbs);
    double result;
    decided += host::quick_norm(all, &result) ? 1 : 0;
    decided += host::quick_variance(all, {limbs[0], limbs[1]}, 3000, &result) ? 1 : 0;
    host::QuickExpSum terms;
    host::QuickExpSum joined;
    terms.add_range(x.data(), 3000, 4.0);
    joined.add(terms);
    decided += host::quick_log_sum(4.0, joined, 3000, &result) ? 1 : 0;
  }
  CHECK(decided >= 57);
}

void quick_exponentials_keep_their_bound() {
  constexpr int kWords = 5;
  Random random(67);
  for (const double spread : {0.01, 1.0, 30.0, 100.0}) {
    for (const std::int64_t n : {2, 37, 1000}) {
      std::vector<double> x(static_cast<std::size_t>(n));
      for (double& each : x) {
        each = -spread * std::fabs(random.with_exponent(-1));
      }
      host::QuickExpSum part;
      host::QuickExpSum all;
      part.add_range(x.data(), n, 0.0);
      all.add(part);
      arithmetic::FixedExpSum<kWords> exact;
      for (const double each : x) {
        exact.add_term(each, 0.0);
      }
      const arithmetic::ValueAndError sum = all.sum();
      // In units of 2^-256: the leading double of the exact sum, and of what is left of it.
      const double high = arithmetic::nearest(exact.sum, -256, false);
      arithmetic::Natural<kWords> rest;
      arithmetic::shift_down(arithmetic::Natural<1>{{arithmetic::significand(high)}},
                             -(arithmetic::kUnitExponent + arithmetic::shift(high) + 256), rest);
      const bool is_above = exact.sum < rest;
      arithmetic::subtract(is_above ? rest : exact.sum, is_above ? exact.sum : rest, rest);
      const double low = arithmetic::nearest(rest, -256, false);
      const double off = (sum.value - high) + (sum.error - (is_above ? -low : low));
      const double bound = 0x1.1p-61 * high + static_cast<double>(n) * 0x1p-90;
      CHECK(std::fabs(off) <= bound + 0x1p-100 * high);
    }
  }
}

}  // namespace
}  // namespace korvex::test

int main() {
  using namespace korvex::test;
  kernels_leave_the_bits_of_the_exact_way();
  special_numbers_among_ordinary_ones_leave_the_bits_of_the_exact_way();
  what_lies_near_a_boundary_is_left_to_the_exact_way();
  running_sums_may_write_over_their_elements();
  rms_norm_leaves_the_bits_of_the_exact_way();
  rms_norm_may_write_over_its_elements();
  quick_squares_keep_their_bound();
  quick_ways_decide_ordinary_data();
  quick_exponentials_keep_their_bound();
  return Tally::all().finish();
}
