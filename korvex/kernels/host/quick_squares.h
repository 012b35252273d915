// SPDX-License-Identifier: Apache-2.0
// Sums of squares as two doubles with a bound on their error, and norms and variances of which a
// look at these decides the rounding.
//
// Chunks of elements are taken a register at a time. A lane has an addend S that begins at a bias
// 2^k and may not reach 2^(k + 1), so it only takes multiples of g = 2^(k - 52):
//   - T = RN(S + x^2) adds q = T - S, exactly; what is left, x^2 - q, is at most g / 2;
//   - that rest is rounded, off by at most 2^-54 g, and added to the lane's rests, of which there
//     are at most c = kSteps, so that an addition is off by at most c 2^-54 g.
// As squares are not negative, S never falls: one look at its end tells that it stayed below. At
// the end of a chunk S - 2^k and the rests go into sums of three doubles, so that what is lost
// there is of the third order.
// Together that is below n (c + 3) / 2 * 2^(k - 106), and what the sums of three doubles lose, with
// F <= n / (2 c) additions each, below F^3 2^-105 * n * 2^(k - 59), as a square is below 2^(k - 6):
// for n < 2^27 both are below n * 2^(k - 100), twice below the slack that is claimed.
#pragma once

#include <cstdint>

#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/chunked_sum.h"
#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/triple_sum.h"

namespace korvex::host {

class QuickSquares {
 public:
  static constexpr std::int64_t kMostElements = std::int64_t{1} << 27;

  // Adds the squares of x[0] to x[n - 1]; false where the sum is not one of this kind: an element
  // is not finite, or too large or too small for it. Hints of what will be read lie `further`
  // elements on than usual, for a caller whose cache holds these already.
  KORVEX_COLD bool add(const double* x, std::int64_t n, std::int64_t further = 0) {
    count_ += n;
    further_ = further;
    std::int64_t begin = 0;
    for (; n - begin >= kStep && is_usable_; begin += chunk_size(n - begin)) {
      add_chunk(x + begin, chunk_size(n - begin));
    }
    if (begin < n && is_usable_) {
      double padded[kStep] = {};
      for (std::int64_t i = begin; i < n; ++i) {
        padded[i - begin] = x[i];
      }
      add_chunk(padded, kStep);
    }
    return is_usable_;
  }

  KORVEX_COLD void add(const QuickSquares& other) {
    is_usable_ = is_usable_ && other.is_usable_;
    count_ += other.count_;
    exponent_ = other.exponent_ > exponent_ ? other.exponent_ : exponent_;
    add_lanes(other.lanes_, joined_);
    joined_.add(other.joined_);
  }

  // The sum of the squares as value + error, and twice above what that is off by, but for 2^-105 of
  // the sum. Precondition: what was added came from other objects of this kind.
  KORVEX_COLD bool result(arithmetic::ValueAndError& sum, double& slack) const {
    if (!is_usable_ || count_ >= kMostElements || !(joined_.total >= kLeast)) {
      return false;
    }
    sum = as_pair(joined_);
    slack = arithmetic::mul_rn(static_cast<double>(count_), power_of_two(exponent_ - 99));
    return true;
  }

 private:
  using Lanes = arithmetic::HostLanes;
  using Value = Lanes::Value;
  static constexpr int kStreams = 4;  // of dependent additions, side by side
  static constexpr int kSteps = 64;
  static constexpr int kStep = Lanes::kCount * kStreams;
  static constexpr std::int64_t kChunk = std::int64_t{kStep} * kSteps;
  static constexpr int kLine = 8;             // elements of a cache line
  static constexpr double kLeast = 0x1p-600;  // of a sum
  static constexpr int kLeastExponent = -600;
  static constexpr int kMostExponent = 960;
  // A square is below 2^(2 e + 2), and kSteps of them below 2^(2 e + 8).
  static constexpr int kAboveSquare = 8;

  KORVEX_INLINE static std::int64_t chunk_size(std::int64_t rest) {
    return rest >= kChunk ? kChunk : rest - rest % kStep;
  }

  KORVEX_INLINE void add_chunk(const double* x, std::int64_t count) {
    if (!run(x, count)) {
      is_usable_ = raise_bias(x, count) && run(x, count);
    }
  }

  KORVEX_COLD bool raise_bias(const double* x, std::int64_t count) {
    const auto range = arithmetic::ExponentRange::of(x, count);
    const int wanted = 2 * range.highest + kAboveSquare;
    exponent_ = wanted < kLeastExponent ? kLeastExponent : wanted;
    return range.is_finite && exponent_ <= kMostExponent;
  }

  // False, with nothing added, where the sum of some lane outgrew its bias.
  KORVEX_COLD bool run(const double* x, std::int64_t count) {
    const Value bias(arithmetic::power_of_two(exponent_));
    Value sum[kStreams];
    Value rests[kStreams];
    for (int stream = 0; stream < kStreams; ++stream) {
      sum[stream] = bias;
      rests[stream] = Value(0.0);
    }
    // Of elements read in turn, a processor sees by itself what follows the line of a hint.
    const int hinted = further_ == 0 ? kLine : kStep;
    for (std::int64_t i = 0; i < count; i += kStep) {
      for (int line = 0; line < hinted; line += kLine) {
        Lanes::look_ahead(x + i + line + further_);
      }
#pragma GCC unroll 4
      for (int stream = 0; stream < kStreams; ++stream) {
        add_square(Lanes::load(x + i + std::int64_t{stream} * Lanes::kCount), sum[stream],
                   rests[stream]);
      }
    }
    const Value limit(arithmetic::power_of_two(exponent_ + 1));
    for (int stream = 0; stream < kStreams; ++stream) {
      if (!arithmetic::all(sum[stream] < limit)) {  // NaN too
        return false;
      }
    }
    for (int stream = 0; stream < kStreams; ++stream) {
      lanes_.add(arithmetic::sub_rn(sum[stream], bias));  // exact
      lanes_.add_rest(rests[stream]);
    }
    return true;
  }

  KORVEX_INLINE static void add_square(Value x, Value& sum, Value& rests) {
    if constexpr (arithmetic::kFmaIsFast) {
      const Value next = arithmetic::fma_rn(x, x, sum);
      const Value added = arithmetic::sub_rn(next, sum);                    // exact
      rests = arithmetic::add_rn(rests, arithmetic::fma_rn(x, x, -added));  // rounded twice
      sum = next;
    } else {
      const Value square = arithmetic::mul_rn(x, x);                      // rounded
      const Value error = arithmetic::split_product_error(x, x, square);  // exact
      const Value next = arithmetic::add_rn(sum, square);
      const Value added = arithmetic::sub_rn(next, sum);                   // exact
      const Value left = arithmetic::sub_rn(square, added);                // exact
      rests = arithmetic::add_rn(rests, arithmetic::add_rn(left, error));  // rounded twice
      sum = next;
    }
  }

  static double power_of_two(int exponent) { return arithmetic::power_of_two(exponent); }

  bool is_usable_ = true;
  int exponent_ = kLeastExponent;
  std::int64_t count_ = 0;
  std::int64_t further_ = 0;
  LaneSums lanes_;
  TripleSum<double> joined_;
};

// value + error, off by less than slack / 2: true where all numbers so near to it round alike, to
// what goes to `result`.
KORVEX_COLD inline bool round_between(double value, double error, double slack, double* result) {
  const double above = arithmetic::add_rn(value, arithmetic::add_rn(error, slack));
  const double below = arithmetic::add_rn(value, arithmetic::sub_rn(error, slack));
  *result = above;
  return above == below;
}

// The root of the sum. With r = RN(sqrt(Q)) the rest Q - r^2 is exact, and a step of Newton's
// iteration leaves less than the square of the correction, 2^-106 of the root.
KORVEX_COLD inline bool quick_norm(const QuickSquares& squares, double* result) {
  arithmetic::ValueAndError sum;
  double slack;
  if (!squares.result(sum, slack) || !(sum.value > slack)) {
    return false;
  }
  const double root = arithmetic::sqrt_rn(sum.value);
  const double rest = arithmetic::fma_rn(-root, root, sum.value);  // exact
  const double correction = arithmetic::div_rn(arithmetic::add_rn(rest, sum.error), 2 * root);
  const double slack_of_root = arithmetic::add_rn(arithmetic::div_rn(slack, root), 0x1p-98 * root);
  return round_between(root, correction, slack_of_root, result);
}

// (Q - S^2 / n) / (n - 1) for the sum S = sum.value + sum.error of n elements, of which S itself is
// off by 2^-105 of it. S^2 / n is at most Q, and each step here rounds by less than 4 u^2 of the
// largest number so far, u = 2^-53: together less than 2^-100 Q, and 2^-100 of the result.
KORVEX_COLD inline bool quick_variance(const QuickSquares& squares,
                                       const arithmetic::ValueAndError& sum, std::int64_t n,
                                       double* result) {
  arithmetic::ValueAndError q;
  double slack;
  if (n < 2 || !squares.result(q, slack)) {
    return false;
  }
  const auto count = static_cast<double>(n);         // exact
  const auto less_one = static_cast<double>(n - 1);  // exact
  const double square = sum.value * sum.value;
  const double rest_of_square =
      arithmetic::fma_rn(sum.value, sum.value, -square) + 2 * sum.value * sum.error;
  const double part = square / count;
  const double rest_of_part = (arithmetic::fma_rn(-part, count, square) + rest_of_square) / count;
  const auto less = arithmetic::two_sum(q.value, -part);  // exact
  const double rest_of_less = less.error + (q.error - rest_of_part);
  const double quotient = less.value / less_one;
  const double rest =
      (arithmetic::fma_rn(-quotient, less_one, less.value) + rest_of_less) / less_one;
  const double all_slack = (slack + 0x1p-98 * q.value) / less_one;
  return quotient > 0x1p-600 &&
         round_between(quotient, rest, all_slack + 0x1p-98 * quotient, result);
}

}  // namespace korvex::host
