// SPDX-License-Identifier: Apache-2.0
// log(exp(x[0]) + exp(x[1]) + ...) by the first tries of exp, several elements at a time, where
// that decides the rounding.
//
// With m the largest element, |m| < 2^30, each term is exp(d + e), d + e = x - m exactly (TwoSum):
//   - quick_exp(d), 0.978 or more before its power of two, is off by less than 2^-61 there
//     (quick_tries.h), 1 + e stands for exp(e), off by 2^-95 as |e| <= 2^-47, and the low part of
//     the product is rounded, by 2^-100;
//   - terms below exp(-90) are taken for exp(-90), and |e| <= |m| there: at most 2^-99 each;
//   - high parts are added to a bias as in quick_squares.h, exactly. What is left of one, at most
//     2^-46, goes with its low part, at most 2^-46 too, to the lane's rests, which round by 2^-53
//     of what they hold, fewer than kSteps 2^-45: below 2^-92 a term.
// So the sum of n terms, S >= 1, is off by less than 0x1.1p-61 S + n 2^-90, and its logarithm by as
// much, to first order.
#pragma once

#include <cstdint>

#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/elementary/logarithm.h"
#include "korvex/kernels/host/quick_lanes.h"
#include "korvex/kernels/host/quick_squares.h"
#include "korvex/kernels/host/triple_sum.h"

namespace korvex::host {

// The largest of some elements.
class QuickLargest {
 public:
  KORVEX_COLD void add_range(const double* x, std::int64_t n) {
    using Lanes = arithmetic::HostLanes;
    constexpr int kStreams = 4;
    constexpr std::int64_t kStep = std::int64_t{Lanes::kCount} * kStreams;
    Lanes::Value least_negated[kStreams];
    Lanes::Bits specials = arithmetic::to_bits(Lanes::Value(0.0));
    for (Lanes::Value& each : least_negated) {
      each = Lanes::Value(-value_);
    }
    std::int64_t i = 0;
    for (; i + kStep <= n; i += kStep) {
#pragma GCC unroll 4
      for (int stream = 0; stream < kStreams; ++stream) {
        const auto value = Lanes::load(x + i + std::int64_t{stream} * Lanes::kCount);
        // The next exponent above all of finite numbers carries into the sign.
        specials |= arithmetic::to_bits(arithmetic::absolute(value)) + kOneExponent;
        least_negated[stream] = arithmetic::lesser(-value, least_negated[stream]);
      }
    }
    has_special_ = has_special_ || (Lanes::any(specials) & arithmetic::kSignBit) != 0;
    for (const Lanes::Value& each : least_negated) {
      for (int lane = 0; lane < Lanes::kCount; ++lane) {
        add(-arithmetic::lane(each, lane));
      }
    }
    for (; i < n; ++i) {
      has_special_ = has_special_ || !arithmetic::is_finite(x[i]);
      add(x[i]);
    }
  }

  KORVEX_COLD void add(const QuickLargest& other) {
    add(other.value_);
    has_special_ = has_special_ || other.has_special_;
  }

  double value() const { return value_; }
  bool is_of_finite() const { return !has_special_; }

 private:
  static constexpr std::uint64_t kOneExponent = std::uint64_t{1} << arithmetic::kFractionBits;

  void add(double x) { value_ = x > value_ ? x : value_; }

  double value_ = -arithmetic::infinity();
  bool has_special_ = false;
};

// The sum of exp(x - largest) over some elements.
class QuickExpSum {
 public:
  KORVEX_COLD void add_range(const double* x, std::int64_t n, double largest) {
    std::int64_t begin = 0;
    for (; n - begin >= kStep; begin += chunk_size(n - begin)) {
      add_chunk(x + begin, chunk_size(n - begin), largest);
    }
    if (begin < n) {
      double padded[kStep];
      for (std::int64_t i = 0; i < kStep; ++i) {
        // What stands in for no element is taken away below.
        padded[i] = begin + i < n ? x[begin + i] : largest;
      }
      add_chunk(padded, kStep, largest);
      padding_ += kStep - (n - begin);
    }
  }

  KORVEX_COLD void add(const QuickExpSum& other) {
    add_lanes(other.lanes_, joined_);
    padding_ += other.padding_;
  }

  // Precondition: what was added came from other objects of this kind.
  KORVEX_COLD arithmetic::ValueAndError sum() const {
    TripleSum<double> all = joined_;
    all.add(-static_cast<double>(padding_));  // exactly: exp(0) is found as 1
    return as_pair(all);
  }

 private:
  using Lanes = arithmetic::HostLanes;
  using Value = Lanes::Value;
  static constexpr int kStreams = 2;  // of dependent additions, side by side
  static constexpr int kSteps = 64;
  static constexpr int kStep = Lanes::kCount * kStreams;
  static constexpr double kBias = 128;  // kSteps terms are below it, as each is at most 1
  static constexpr double kLeastDifference = -90;

  KORVEX_INLINE static std::int64_t chunk_size(std::int64_t rest) {
    constexpr std::int64_t kChunk = std::int64_t{kStep} * kSteps;
    return rest >= kChunk ? kChunk : rest - rest % kStep;
  }

  KORVEX_COLD void add_chunk(const double* x, std::int64_t count, double largest) {
    Value sum[kStreams];
    Value rests[kStreams];
    for (int stream = 0; stream < kStreams; ++stream) {
      sum[stream] = Value(kBias);
      rests[stream] = Value(0.0);
    }
    for (std::int64_t i = 0; i < count; i += kStep) {
#pragma GCC unroll 2
      for (int stream = 0; stream < kStreams; ++stream) {
        add_term(Lanes::load(x + i + std::int64_t{stream} * Lanes::kCount), largest, sum[stream],
                 rests[stream]);
      }
    }
    for (int stream = 0; stream < kStreams; ++stream) {
      lanes_.add(arithmetic::sub_rn(sum[stream], Value(kBias)));  // exact
      lanes_.add_rest(rests[stream]);
    }
  }

  KORVEX_INLINE static void add_term(Value x, double largest, Value& sum, Value& rests) {
    const auto d = arithmetic::two_sum(x, Value(-largest));  // exact
    const Value least(kLeastDifference);
    const auto e = arithmetic::quick_exp(arithmetic::selected(d.value > least, d.value, least));
    const Value unit = arithmetic::from_bits(e.exponent + arithmetic::to_bits(Value(1.0)));
    const auto power = arithmetic::fast_two_sum(e.high, e.low);  // exact
    const Value high = arithmetic::mul_rn(power.value, unit);    // exact
    const Value low = arithmetic::mul_rn(
        arithmetic::multiply_add(power.value, d.error, power.error), unit);  // rounded
    const Value next = arithmetic::add_rn(sum, high);
    const Value added = arithmetic::sub_rn(next, sum);   // exact
    const Value left = arithmetic::sub_rn(high, added);  // exact
    rests = arithmetic::add_rn(rests, arithmetic::add_rn(left, low));
    sum = next;
  }

  std::int64_t padding_ = 0;
  LaneSums lanes_;
  TripleSum<double> joined_;
};

// largest + log(sum) of n elements, rounded; where that is not decided, false comes back. Errors,
// as in fast_log_sum(): that of the sum twice, kLogError for log_pair, 2^-100 for the roundings
// here.
KORVEX_COLD inline bool quick_log_sum(double largest, const QuickExpSum& terms, std::int64_t n,
                                      double* result) {
  using namespace arithmetic;
  const ValueAndError s = terms.sum();
  const ValueAndError log_high = log_pair(s.value);
  const double correction = div_rn(s.error, s.value);  // log1p of it, to 2^-105
  const ValueAndError log_sum = two_sum(log_high.value, correction);
  const double log_low = add_rn(log_sum.error, log_high.error);
  const ValueAndError upper = two_sum(largest, log_sum.value);  // exact
  const ValueAndError y = two_sum(upper.value, add_rn(upper.error, log_low));
  const double of_sum = fma_rn(static_cast<double>(n), 0x1p-89, 0x1.1p-60);
  const double error =
      fma_rn(log_sum.value, kLogError, fma_rn(absolute(y.value), 0x1p-100, of_sum));
  return round_between(y.value, y.error, error, result);
}

}  // namespace korvex::host
