// SPDX-License-Identifier: Apache-2.0
// The bodies of the single-block reductions: chosen cases with their results written out; every
// shape of data by one thread and by blocks of many, which must agree on each bit; running sums
// against exact bits.
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "bit_number.h"
#include "check.h"
#include "random_data.h"
#include "reduction_checks.h"
#include "suites.h"

namespace korvex::test {
namespace {

using arithmetic::HostLanes;
using arithmetic::Natural;
using arithmetic::ScalarLanes;

constexpr double kMax = std::numeric_limits<double>::max();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();  // 0x7ff8000000000000
constexpr double kTiny = 0x1p-1074;
constexpr int kBlocks[] = {1, 2, 32, 33, 256, 1000, 1024};

void expect_variance(const std::vector<double>& x, double mean, double expected) {
  for (const int threads : kBlocks) {
    const auto out = variance<HostLanes>(x, threads);
    CHECK_SAME_BITS(out[0], mean);
    CHECK_SAME_BITS(out[1], expected);
    CHECK_SAME_BITS(variance<ScalarLanes>(x, threads)[1], expected);
  }
}

void variance_keeps_what_a_large_mean_would_hide() {
  expect_variance({1e9, 1e9 + 0x1p-20, 1e9 + 0x1p-19}, 1e9 + 0x1p-20, 0x1p-40);
  expect_variance({-1e9, -1e9 - 0x1p-20, -1e9 - 0x1p-19}, -1e9 - 0x1p-20, 0x1p-40);
  expect_variance(std::vector<double>(1000, 0.1), 0.1, 0.0);
  expect_variance(std::vector<double>(3, kMax), kMax, 0.0);
  expect_variance({1, 2, 3, 4}, 2.5, 5.0 / 3.0);
}

void variance_neither_overflows_nor_underflows_on_the_way() {
  expect_variance({0x1p+600, -0x1p+600}, 0.0, kInf);  // 2^1201 is no double
  expect_variance({0x1p+511, -0x1p+511}, 0.0, 0x1p+1023);
  expect_variance({kTiny, -kTiny}, 0.0, 0.0);  // 2^-2147
  expect_variance({0x1p-537, -0x1p-537}, 0.0, 0x1p-1073);
  expect_variance({kTiny, 0.0}, 0.0, 0.0);           // the mean is half of 2^-1074: a tie
  expect_variance({kTiny, kTiny, 0.0}, kTiny, 0.0);  // two thirds of 2^-1074
  expect_variance({kMax, kMax, -kMax, -kMax}, 0.0, kInf);
}

void variance_of_too_few_or_of_no_numbers_is_nan() {
  expect_variance({}, kNan, kNan);
  expect_variance({5}, 5, kNan);
  expect_variance({1, kInf}, kNan, kNan);
  expect_variance({1, -kInf, 2}, kNan, kNan);
  expect_variance({kNan}, kNan, kNan);
  expect_variance({-0.0, -0.0}, 0.0, 0.0);
}

void expect_norm(const std::vector<double>& x, double expected) {
  for (const int threads : kBlocks) {
    CHECK_SAME_BITS(norm<HostLanes>(x, threads), expected);
    CHECK_SAME_BITS(norm<ScalarLanes>(x, threads), expected);
  }
}

void norm_is_the_root_of_the_exact_sum_of_squares() {
  expect_norm({3, 4}, 5);
  expect_norm({0x3p+664, 0x4p+664}, 0x5p+664);
  expect_norm({3e200, 4e200}, 0x1.a20df0dcd3afp+666);  // of the doubles nearest to these
  expect_norm({3 * kTiny, -4 * kTiny}, 5 * kTiny);
  expect_norm({kTiny, kTiny}, kTiny);  // the root of 2
  expect_norm({kTiny, kTiny, kTiny}, 2 * kTiny);
  expect_norm({kMax, 1}, kMax);
  expect_norm({kMax, kMax}, kInf);
  expect_norm({1, 0x1p-30}, 1);           // 1 + 2^-61
  expect_norm({1, 0x1p-26}, 1);           // just below 1 + 2^-53, the tie
  expect_norm({1, 0x1p-26, 0x1p-53}, 1);  // (1 + 2^-53)^2: the tie
  expect_norm({1, 0x1p-26, 0x1p-53, 0x1p-60}, 1 + 0x1p-52);
  expect_norm({1, 0x1p-26, 0x1p-53, 0x1p-80}, 1 + 0x1p-52);  // 2^-160: below the leading 128 bits
  expect_norm({1, 0x1p-26, 0x1p-53, kTiny}, 1 + 0x1p-52);
  expect_norm({0x1p+900, 0x1p+874, 0x1p+847, kTiny}, 0x1p+900 * (1 + 0x1p-52));
  expect_norm({}, 0.0);
  expect_norm({-0.0}, 0.0);
  expect_norm({1, -kInf}, kInf);
  expect_norm({kInf, -kInf}, kInf);
  expect_norm({kInf, kNan}, kNan);
}

void expect_product(const std::vector<double>& x, double value, double error) {
  for (const int threads : kBlocks) {
    const auto out = product(x, threads);
    CHECK_SAME_BITS(out[0], value);
    CHECK_SAME_BITS(out[1], error);
  }
}

void product_has_two_limbs() {
  expect_product({}, 1, 0.0);
  expect_product({-3}, -3, 0.0);
  // 2^240 - 1
  expect_product(
      {3,   3,   5,   5,   7,   11,   13,    17,        31,         41,         61,         97,
       151, 241, 257, 331, 673, 1321, 61681, 394783681, 4278255361, 4562284561, 46908728641},
      0x1p+240, -1);
  expect_product({0x1p+600, 0x1p+600, 0x1p-600, 0x1p-600}, 1, 0.0);
  expect_product({kMax, kMax, 1 / kMax, 1 / kMax, 0.0}, 0.0, 0.0);
}

void product_overflows_and_underflows_once() {
  expect_product({0x1p+512, 0x1p+511}, 0x1p+1023, 0.0);
  expect_product({0x1p+512, -0x1p+512}, -kInf, 0.0);
  expect_product({kMax, 1 + 0x1p-52}, kInf, 0.0);
  expect_product({kMax, 1 + 0x1p-52, 0.5}, 0x1p+1023, 0x1.ffffffffffffep+969);
  expect_product({0x1p-600, 0x1.8p-475}, kTiny, 0.0);
  expect_product({0x1p-600, -0x1p-475}, 0.0, 0.0);  // half of 2^-1074: a tie
  expect_product({-0x1p-600, 0x1p-600}, 0.0, 0.0);
  // The second limb is subnormal, and the third part of it is lost.
  expect_product({1 + 0x1p-52, 0x1p-970 * (1 + 0x1p-52)}, 0x1p-970 * (1 + 0x1p-51), kTiny);
  expect_product(std::vector<double>(5000, kTiny), 0.0, 0.0);
  expect_product(std::vector<double>(5001, -kMax), -kInf, 0.0);
}

void product_of_special_values() {
  expect_product({2, -kInf}, -kInf, 0.0);
  expect_product({-2, -kInf}, kInf, 0.0);
  expect_product({0.0, kInf}, kNan, 0.0);
  expect_product({0.0, 5, kNan}, kNan, 0.0);
  expect_product({0.0, -5}, 0.0, 0.0);
}

// 2^396 - 1, in odd factors: with its lowest word dropped it could be any of many neighbours, whose
// second limbs differ.
void product_that_needs_the_second_try() {
  const std::vector<double> x = {3,
                                 3,
                                 3,
                                 5,
                                 7,
                                 13,
                                 19,
                                 23,
                                 37,
                                 67,
                                 73,
                                 89,
                                 109,
                                 199,
                                 397,
                                 683,
                                 2113,
                                 5347,
                                 20857,
                                 42373,
                                 153649,
                                 235621,
                                 312709,
                                 599479,
                                 4327489,
                                 33057806959,
                                 8463901912489,
                                 15975607282273,
                                 242099935645987};
  expect_product(x, 0x1p+396, -1);
  arithmetic::FastProduct fast;
  fast.add_range(x.data(), static_cast<std::int64_t>(x.size()));
  arithmetic::ProductWorkspace<arithmetic::kFastProductWords> work;
  double out[2];
  CHECK(fast.magnitude.dropped > 0);
  CHECK(!arithmetic::write_product_limbs(fast, work, &out[0], &out[1]));
  // Longer than the first try, and yet decided there: (2^64 - 1)^8 and (1 + 2^-52)^20.
  std::vector<double> y;
  for (int i = 0; i < 8; ++i) {
    y.insert(y.end(), {3, 5, 17, 257, 65537, 4294967297});
  }
  expect_product(y, 0x1p+512, -0x1p+451);
  expect_product(std::vector<double>(20, 1 + 0x1p-52), 1 + 20 * 0x1p-52, 0x1.7c00000000009p-97);
}

// A double as an integer in units of 2^-128. Precondition: it is one.
Natural<3> in_units(double x) {
  Natural<3> units{};
  const int position = arithmetic::shift(x) + arithmetic::kUnitExponent + 128;
  shift_down(Natural<1>{{arithmetic::significand(x)}}, -position, units);
  return units;
}

void the_leading_part_of_a_sum_of_exponentials_has_105_bits() {
  Random random(62);
  for (int i = 0; i < 300; ++i) {
    arithmetic::ExpSum all;
    all.sum.word[0] = bits_of(random.with_exponent(random.between(-900, 900)));
    all.sum.word[1] = bits_of(random.with_exponent(random.between(-900, 900))) << (i % 8);
    all.sum.word[2] = std::uint64_t{1} << (i % 60);
    const auto leading = all.leading();
    Natural<3> rest{};
    subtract(all.sum, in_units(leading.value), rest);
    const Natural<3> low = in_units(leading.error);
    const bool is_above = rest < low;
    subtract(is_above ? low : rest, is_above ? rest : low, rest);
    CHECK(highest_bit(rest) <= highest_bit(all.sum) - 105);
  }
}

void expect_scan(const std::vector<double>& x) {
  for (const int threads : {1, 32, 1024}) {
    const Scan scan = running_sums<HostLanes>(x, threads);
    BitNumber sum;
    bool good = true;
    for (std::size_t i = 0; i < x.size(); ++i) {
      sum.add(x[i]);
      if (i < 40 || i + 4 > x.size() || i % 97 == 0) {
        const std::vector<double> limbs = limbs_of(sum, 2);
        good = good && bits_of(scan.out[i]) == bits_of(limbs[0]) &&
               bits_of(scan.out_err[i]) == bits_of(limbs[1]);
      }
      Tally::all().record(scan.out[i]);
      Tally::all().record(scan.out_err[i]);
    }
    CHECK(good);
  }
}

void running_sums_are_canonical_for_every_shape() {
  Random random(61);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    for (const std::size_t count : {1U, 31U, 200U, 1023U, 1024U, 1025U}) {
      expect_scan(draw_many(random, static_cast<Shape>(shape), count, count % 2 == 0));
    }
  }
  expect_scan({1.7e308, 1.7e308, -1.7e308, -1.7e308, kTiny, kMax, kMax, kMax, -kMax, -kMax, -kMax});
  expect_scan({1, 0x1p-53, 0x1p-106, -1, 0x1p-200, -0x1p-53, -0x1p-106, -0x1p-200, 5});
  expect_scan({-0.0, -0.0, 0.0});
}

void running_sums_of_special_values() {
  for (const int threads : kBlocks) {
    const Scan scan = running_sums<HostLanes>({1, kInf, 2, -kInf, 3, kNan}, threads);
    CHECK_SAME_BITS(scan.out[0], 1);
    CHECK_SAME_BITS(scan.out[1], kInf);
    CHECK_SAME_BITS(scan.out[2], kInf);
    CHECK_SAME_BITS(scan.out[3], kNan);
    CHECK_SAME_BITS(scan.out[4], kNan);
    CHECK_SAME_BITS(scan.out[5], kNan);
    for (const double error : scan.out_err) {
      CHECK_SAME_BITS(error, 0.0);
    }
  }
}

void expect_log_sum(const std::vector<double>& x, double expected) {
  for (const int threads : kBlocks) {
    CHECK_SAME_BITS(log_sum_exp(x, threads), expected);
  }
}

// Expected values from MPFR at 4000 bits.
void log_of_sums_of_exponentials() {
  expect_log_sum({}, -kInf);
  expect_log_sum({-kInf, -kInf}, -kInf);
  expect_log_sum({kInf, 1}, kInf);
  expect_log_sum({kInf, kNan}, kNan);
  expect_log_sum({-kInf, 0.1}, 0.1);
  expect_log_sum({0, 0}, 0x1.62e42fefa39efp-1);
  expect_log_sum({kMax, kMax}, kMax);
  expect_log_sum({-kMax, kMax}, kMax);
  expect_log_sum({-kMax, -kMax}, -kMax);
  expect_log_sum({0, -600}, 0x1.4dd4d0d12c071p-866);
  expect_log_sum({-1e-20, -46}, 0x1.40bd0f1e5b5b7p-71);
  expect_log_sum({0, -700}, 0x1.14f2b0fb9307fp-1010);
  expect_log_sum({0, -745}, kTiny);
  expect_log_sum({0, -746}, 0.0);
  std::vector<double> many(11, -746.0);
  many[4] = 0.0;
  expect_log_sum(many, 2 * kTiny);
}

// Two elements near -log 2: the sum of their exponentials is near 1 and the logarithm of it small,
// so that the last bits of the sum decide. Expected values from MPFR at 4000 bits.
void log_of_sums_near_one() {
  constexpr double kCases[][3] = {
      {-0x1.5ca33c36338aep-1, -0x1.6954c1955956ap-1, -0x1.b7a1abf0c73c4p-14},
      {-0x1.60dfd98fe4dadp-1, -0x1.650f7391f7b54p-1, -0x1.25e46de34bc06p-13},
      {-0x1.5e1d6107739a8p-1, -0x1.677f9e84645fbp-1, 0x1.b31050a18cfd2p-13},
      {-0x1.629b7e0f4d7e4p-1, -0x1.62f5272dd91d5p-1, 0x1.bdf4780bfedc7p-13},
      {-0x1.5cf0402b6cff7p-1, -0x1.689d9cf92bb8bp-1, 0x1.2e383a030d744p-12},
      {-0x1.5ea7df60011e0p-1, -0x1.6748a4715e53ep-1, -0x1.ed5d04efe282bp-14},
      {-0x1.5e5c4c5b740ebp-1, -0x1.6737e7eeda36bp-1, 0x1.efd2846ab71d3p-13},
      {-0x1.5e1f37bde65d2p-1, -0x1.67e1f86b456fep-1, -0x1.673cf8e83dd02p-13},
      {-0x1.604b2692ca99dp-1, -0x1.65a9b1d2c59a1p-1, -0x1.46efdfe182f0ap-13},
      {-0x1.5f855249fe13dp-1, -0x1.661474a39a202p-1, 0x1.9fcd1dc8ae273p-13},
      {-0x1.623eb1d1d6694p-1, -0x1.63bed1ab59433p-1, -0x1.a6dc8fc079d0ep-13},
      {-0x1.5ca2ea56778d1p-1, -0x1.696103a70ca31p-1, -0x1.3a127b6360535p-13},
      {-0x1.5e4afe54b58fep-1, -0x1.67b5c67e83c6fp-1, -0x1.6a79542cb6e56p-13},
      {-0x1.5b797cf3fe081p-1, -0x1.6a13ceeeb68bcp-1, 0x1.56ee048c5c9a4p-12},
      {-0x1.5bb7378249019p-1, -0x1.6a449320ac314p-1, -0x1.8f27ba567fb92p-14},
      {-0x1.60d9253e9f66dp-1, -0x1.64c43d01d37f0p-1, 0x1.67476763f6fabp-13},
  };
  for (const auto& each : kCases) {
    expect_log_sum({each[0], each[1]}, each[2]);
  }
}

void blocks_of_any_size_agree() {
  Random random(62);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    for (const std::size_t count : {3U, 257U, 1023U, 1024U, 1025U}) {
      const auto x = draw_many(random, static_cast<Shape>(shape), count, false);
      const auto moments = variance<ScalarLanes>(x, 1);
      expect_variance(x, moments[0], moments[1]);
      expect_norm(x, norm<ScalarLanes>(x, 1));
      const auto limbs = product(x, 1);
      expect_product(x, limbs[0], limbs[1]);
      expect_log_sum(x, log_sum_exp(x, 1));
    }
  }
}

}  // namespace

void test_reductions() {
  the_leading_part_of_a_sum_of_exponentials_has_105_bits();
  variance_keeps_what_a_large_mean_would_hide();
  variance_neither_overflows_nor_underflows_on_the_way();
  variance_of_too_few_or_of_no_numbers_is_nan();
  norm_is_the_root_of_the_exact_sum_of_squares();
  product_has_two_limbs();
  product_overflows_and_underflows_once();
  product_of_special_values();
  product_that_needs_the_second_try();
  running_sums_are_canonical_for_every_shape();
  running_sums_of_special_values();
  log_of_sums_of_exponentials();
  log_of_sums_near_one();
  blocks_of_any_size_agree();
}

}  // namespace korvex::test
