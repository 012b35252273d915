// SPDX-License-Identifier: Apache-2.0
// Sums, means, variances and roots of exact sums, each rounded once to a format.
//
// The general way is by integers: as of variance.h and norm.h, but for any divisor and any format.
// Words of zeros at the end are cut off before, and bits of a fraction put there, so that the
// quotients are short and the bit that decides the rounding is among their bits.
#include "korvex/kernels/host/exact_result.h"

#include <algorithm>

#include "korvex/arithmetic/bignum/natural.h"
#include "korvex/arithmetic/bignum/rounding.h"

namespace korvex::host {
namespace {

using arithmetic::LongAccumulator;
using arithmetic::Natural;
using arithmetic::ProductAccumulator;

// ---- A sum

template <class Sum>
double rounded_sum(Sum& sum, const arithmetic::NarrowFormat* narrow) {
  if (!sum.counts.is_finite()) {
    return sum.counts.special();
  }
  double limb;
  if (narrow == nullptr) {
    sum.template round<1>(&limb);
    return limb;
  }
  typename Sum::Long value;
  value.clear();
  sum.add_to(value);
  value.round(&limb, 1);
  return rounded_once(limb, arithmetic::is_finite(limb) ? value.sign() : 0, narrow);
}

// ---- A big number

// (x + t) * 2^exponent rounded once, where 0 < t < 1 if has_more, else t = 0. Precondition where
// has_more: x has at least 64 bits, and 2^exponent is below half of the least double.
template <int kWords>
double rounded(const Natural<kWords>& x, int exponent, bool has_more,
               const arithmetic::NarrowFormat* narrow) {
  if (narrow == nullptr) {
    return arithmetic::nearest(x, exponent, has_more);
  }
  return arithmetic::round_to_format(arithmetic::nearest_odd(x, exponent, has_more), *narrow);
}

// The root of (x + t) * 2^exponent, likewise. Preconditions: exponent is even; where has_more, x
// has at least 130 bits.
template <int kWords>
double rounded_root(const Natural<kWords>& x, int exponent, bool has_more,
                    const arithmetic::NarrowFormat* narrow) {
  const int highest = arithmetic::highest_bit(x);
  if (highest < 0) {
    return 0.0;
  }
  // The leading 127 or 128 bits give 64 of the root; from an even bit on, so that the root has a
  // whole exponent.
  const int lowest = highest - 126 - (highest & 1);
  Natural<2> root;
  const bool is_exact = arithmetic::square_root(arithmetic::shifted_down<2>(x, lowest), 0, root);
  return rounded(root, (lowest + exponent) / 2,
                 has_more || !is_exact || arithmetic::any_below(x, lowest), narrow);
}

}  // namespace

StateKind ExactResult::kind() const {
  switch (function_) {
    case KORVEX_EXACT_VARIANCE:
    case KORVEX_EXACT_DEVIATION:
      return StateKind::kMoments;
    case KORVEX_EXACT_DOT_PRODUCT:
    case KORVEX_EXACT_NORM:
      return StateKind::kDot;
    default:
      return StateKind::kSum;
  }
}

double ExactResult::of(Part& part) const {
  switch (function_) {
    case KORVEX_EXACT_TOTAL:
    case KORVEX_EXACT_MEAN:
      return of_sum(part.sum);
    case KORVEX_EXACT_DOT_PRODUCT:
      return rounded_sum(part.products, narrow_);
    case KORVEX_EXACT_NORM:
      return norm(part.products);
    default:
      return of_variance(part);
  }
}

double ExactResult::of_sum(CountedSum& sum) const {
  return function_ == KORVEX_EXACT_MEAN ? mean(sum) : rounded_sum(sum, narrow_);
}

// ---- Mean

// The quotient q of value by the count has an exact rest r, so the mean is q + (r + error) / count.
// Where that rounds alike from both ends of what the rest may be, it is known.
bool ExactResult::of_pair(double value, double error, bool is_whole, double* result) const {
  if (function_ == KORVEX_EXACT_TOTAL || value == 0) {
    *result = arithmetic::add_rn(rounded_once(value, sign_of(error), narrow_), 0.0);  // -0 to +0
    return true;
  }
  const double magnitude = arithmetic::absolute(value);
  if (magnitude < 0x1p-900 || magnitude > 0x1p+1000 || count_ >= std::int64_t{1} << 53) {
    return false;
  }
  const auto count = static_cast<double>(count_);                   // exact
  const double quotient = arithmetic::div_rn(value, count);         // rounded
  const double rest = arithmetic::fma_rn(-quotient, count, value);  // exact
  const auto left = arithmetic::two_sum(rest, error);               // exact
  const double correction = left.value / count;                     // two roundings
  const auto mean = arithmetic::two_sum(quotient, correction);      // exact
  const double size = arithmetic::absolute(rest) + arithmetic::absolute(error);
  const double slack = size / count * 0x1p-46;  // above the error of `correction` 100 times
  const bool is_sure = mean.value + (mean.error + slack) == mean.value &&
                       mean.value + (mean.error - slack) == mean.value &&
                       (arithmetic::absolute(mean.error) > slack || size == 0);
  *result = rounded_once(mean.value, sign_of(mean.error), narrow_);
  // Of few elements the mean often is two doubles exactly: ties and means without an error are.
  return is_sure ||
         (is_whole && left.error == 0 && arithmetic::fma_rn(-correction, count, left.value) == 0);
}

double ExactResult::mean(CountedSum& sum) const {
  if (!sum.counts.is_finite()) {
    return sum.counts.special();
  }
  if (count_ == 0) {
    return arithmetic::canonical_nan();
  }
  CountedSum copy = sum;
  double limbs[3];
  copy.round<3>(limbs);
  double result;
  if (arithmetic::is_finite(limbs[0]) && of_pair(limbs[0], limbs[1], limbs[2] == 0, &result)) {
    return result;
  }
  constexpr int kFraction = 128;  // bits: the quotient has more than 64
  LongAccumulator::Magnitude units;
  const bool is_negative = sum.magnitude(units);
  const int cut = 64 * arithmetic::zero_words(units);
  Natural<LongAccumulator::kWords + kFraction / 64> quotient;
  arithmetic::shift_down(units, cut - kFraction, quotient);
  const bool has_more = arithmetic::divide(quotient, static_cast<std::uint64_t>(count_));
  const int exponent = arithmetic::kUnitExponent + cut - kFraction;
  return arithmetic::with_sign(rounded(quotient, exponent, has_more, narrow_), is_negative);
}

// ---- Squares

double ExactResult::norm(CountedProductSum& squares) const {
  if (!squares.counts.is_finite()) {
    return squares.counts.special();  // of squares, no infinity is negative
  }
  ProductAccumulator::Magnitude units;
  squares.magnitude(units);
  return rounded_root(units, 2 * arithmetic::kUnitExponent, false, narrow_);
}

// value + error, off by less than slack: what that rounds to where all numbers so near to it round
// alike. Precondition: slack is above the bound on the error at least twice, and not 0.
bool ExactResult::round_between(double value, double error, double slack, double* result) const {
  const auto middle = arithmetic::two_sum(value, error);  // exact
  if (middle.value + (middle.error + slack) != middle.value ||
      middle.value + (middle.error - slack) != middle.value) {
    return false;
  }
  // In a narrow format the side of the double that the exact value is on may decide.
  const double above = rounded_once(middle.value, 1, narrow_);
  const double below = rounded_once(middle.value, -1, narrow_);
  *result = middle.error > 0 ? above : below;
  return above == below || arithmetic::absolute(middle.error) > slack;
}

// Q - S^2 / n by the divisor, or Q for a norm, in arithmetic of two doubles whose roundings, below
// 32 u^2 of the largest number each, stay within the slack.
bool ExactResult::of_deviations(const Deviations<arithmetic::ScalarLanes>& found,
                                double* result) const {
  constexpr std::uint64_t kExactDoubles = std::uint64_t{1} << 53;
  const bool is_norm = function_ == KORVEX_EXACT_NORM;
  if (!is_norm && (divisor_ == 0 || divisor_ >= kExactDoubles || scale_ >= kExactDoubles)) {
    return false;
  }
  if (found.seen << 1 == 0) {
    *result = 0.0;
    return true;
  }
  if (!(found.squares >= kLeastSquares && found.squares <= kMostSquares)) {
    return false;  // NaN too
  }
  const auto count = static_cast<double>(count_);  // exact
  double slack = slack_of_squares(count, found.squares);
  auto value = arithmetic::two_sum(found.squares, found.squares_rest);  // exact
  if (!is_norm) {
    const auto sum = arithmetic::two_sum(found.sum, found.sum_rest);  // exact
    const double square = sum.value * sum.value;
    const double rest_of_square =
        arithmetic::fma_rn(sum.value, sum.value, -square) + 2 * sum.value * sum.error;
    const double part = square / count;
    const double rest_of_part = (arithmetic::fma_rn(-part, count, square) + rest_of_square) / count;
    const auto less = arithmetic::two_sum(value.value, -part);  // exact
    value = arithmetic::two_sum(less.value, less.error + (value.error - rest_of_part));
    const auto scale = static_cast<double>(scale_);      // exact
    const auto divisor = static_cast<double>(divisor_);  // exact
    const double scaled = value.value * scale;
    const double rest_of_scaled =
        arithmetic::fma_rn(value.value, scale, -scaled) + value.error * scale;
    const double quotient = scaled / divisor;
    const double rest_of_quotient =
        (arithmetic::fma_rn(-quotient, divisor, scaled) + rest_of_scaled) / divisor;
    value = arithmetic::two_sum(quotient, rest_of_quotient);  // exact
    slack = slack * scale / divisor;
  }
  if (!(value.value > 2 * slack)) {
    return false;
  }
  if (function_ == KORVEX_EXACT_VARIANCE) {
    return round_between(value.value, value.error, slack, result);
  }
  // A step of Newton's iteration: what it leaves is below the square of the correction.
  const double root = arithmetic::sqrt_rn(value.value);
  const double rest = arithmetic::fma_rn(-root, root, value.value);  // exact
  const double correction = (rest + value.error) / (2 * root);
  return round_between(root, correction, slack / root + 0x1p-100 * root, result);
}

// With n elements of sum s and sum of squares q it is (n q - s^2) / (n * divisor / scale); its
// numerator is not negative (Cauchy-Schwarz), and is below 2^4322, as in variance.h, times scale.
double ExactResult::of_variance(Part& part) const {
  if (divisor_ == 0 || count_ == 0 || !part.sum.counts.is_finite()) {
    return arithmetic::canonical_nan();
  }
  constexpr int kFraction = 256;  // bits: the quotient has more than 128
  LongAccumulator::Magnitude sum;
  ProductAccumulator::Magnitude squares;
  part.sum.magnitude(sum);
  part.products.magnitude(squares);
  const int cut = std::min(arithmetic::zero_words(sum), arithmetic::zero_words(squares) / 2);
  arithmetic::shift_down(sum, 64 * cut, sum);
  arithmetic::shift_down(squares, 128 * cut, squares);
  Natural<70 + kFraction / 64> numerator;
  Natural<70 + kFraction / 64> square_of_sum;
  const auto count = static_cast<std::uint64_t>(count_);
  arithmetic::multiply(squares, count, numerator);
  arithmetic::square(sum, square_of_sum);
  arithmetic::subtract(numerator, square_of_sum, numerator);
  arithmetic::multiply(numerator, scale_, numerator);
  arithmetic::shift_down(Natural<70 + kFraction / 64>(numerator), -kFraction, numerator);
  bool has_more = arithmetic::divide(numerator, count);
  has_more = arithmetic::divide(numerator, divisor_) || has_more;
  const int exponent = 2 * arithmetic::kUnitExponent + 128 * cut - kFraction;
  return function_ == KORVEX_EXACT_VARIANCE ? rounded(numerator, exponent, has_more, narrow_)
                                            : rounded_root(numerator, exponent, has_more, narrow_);
}

}  // namespace korvex::host
