// SPDX-License-Identifier: Apache-2.0
// exp, log, sqrt, sigmoid and tanh of numbers of any format, rounded once to any format.
//
// An argument is a double, or a 64-bit integer that is none. For those only log and sqrt need more
// than the double nearest to it: the others are 0, 1, -1 or an infinity there. Rounding the double
// nearest to a value once more errs only where that double is a midpoint of the narrower format;
// then it is asked on which side of it the value lies, with the exponential in fixed point. Each
// question is one about exp: sigmoid(x) > y where exp(x) (1 - y) > y, and tanh(x) > y where
// exp(2 x) (1 - y) > 1 + y.
#pragma once

#include "korvex/arithmetic/elementary/logarithm.h"
#include "korvex/arithmetic/elementary/logistic.h"
#include "korvex/arithmetic/elementary/unary.h"
#include "korvex/arithmetic/exact/narrow_rounding.h"

namespace korvex::arithmetic {

// Numbered as in korvex/kernels/host/exact.h.
enum class Elementary : int { kExp, kLog, kSqrt, kSigmoid, kTanh };

// x = nearest + rest, nearest = RN(x). Where rest is not 0, x is an integer of 54 to 64 bits.
struct AnyArgument {
  double nearest;
  double rest;

  KORVEX_INLINE static AnyArgument of(double high, double low) {
    const ValueAndError sum = two_sum(high, low);  // exact
    return {sum.value, sum.error};
  }
};

// ---- 64-bit integers ----

// log(x) for x = n + r, from y that is nearly log(x), as accurate_log() has it for r = 0.
KORVEX_COLD inline double accurate_log_of_integer(const AnyArgument& x, double y) {
  constexpr int kWords = 5;
  const FixedExp<kWords> e = fixed_exp(fixed_magnitude<kWords>(y), true);  // exp(-y), y > 36
  const auto times_e = [&](double part) {
    const int exponent = e.exponent + shift(part) + kUnitExponent;
    return SignedFixed<kWords>{shifted_down<kWords>(e.fixed * significand(part), -exponent),
                               is_negative(part)};
  };
  const SignedFixed<kWords> product = times_e(x.nearest) + times_e(x.rest);
  const SignedFixed<kWords> z = signed_difference(product.magnitude, fixed_from<kWords>(1, 0));
  const SignedFixed<kWords> start{fixed_magnitude<kWords>(y), false};
  return rounded((start + fixed_log1p(z)).magnitude, 0, kFixedExpUncertainBits + 3).value;
}

// RN(log(x)). Precondition: x.rest is not 0, so |x| > 2^53.
KORVEX_COLD inline double log_of_integer(const AnyArgument& x) {
  if (x.nearest < 0) {
    return canonical_nan();
  }
  // log(n + r) = log(n) + r/n, off by (r/n)^2 < 2^-106; the sum is above 36, so the absolute bound
  // of the logarithm, with room for roundings below 2^-98, is the one that counts.
  const ValueAndError y = log_pair(x.nearest);
  const double low = add_rn(y.error, div_rn(x.rest, x.nearest));
  const Rounded fast = rounding_test(y.value, low, kLogAbsoluteError);
  return fast.is_decided ? fast.value : accurate_log_of_integer(x, fast.value);
}

// RN(sqrt(x)) by integers, for roots in [2^26, 2^32] as multiples of 2^-26. Precondition as above.
KORVEX_COLD inline double sqrt_of_integer(const AnyArgument& x) {
  if (x.nearest < 0) {
    return canonical_nan();
  }
  __extension__ using Wide = unsigned __int128;
  // x < 2^64, where its nearest double may be 2^64: in units of 2^-54 it has fewer than 119 bits.
  const Wide whole = Wide{significand(x.nearest)} << (kUnitExponent + shift(x.nearest));
  const auto rest = static_cast<std::uint64_t>(absolute(x.rest));  // exact
  const Wide integer = x.rest < 0 ? whole - rest : whole + rest;
  const Wide scaled = integer << 54;
  const double start = square_root(x.nearest);
  auto root = static_cast<std::uint64_t>(mul_rn(start, 0x1p+26));  // exact
  const auto gap = std::uint64_t{1} << (exponent_field(start) - kExponentBias - 26);
  // Twice the root and a gap is twice a midpoint, whose 54 bits have a square of more than 64: no
  // integer here has a root on it.
  const auto is_below = [&](std::uint64_t twice) { return Wide{twice} * twice < scaled; };
  while (is_below(2 * root + gap)) {
    root += gap;
  }
  while (!is_below(2 * root - gap)) {
    root -= gap;
  }
  return mul_rn(static_cast<double>(root), 0x1p-26);  // exact
}

// ---- The side of a double ----

// a + b, exactly.
struct TwoParts {
  double a;
  double b;
};

// 2^exponent times the sum, truncated part by part. Precondition: it is not below 0, and fits.
template <int W>
KORVEX_COLD Fixed<W> fixed_sum(const TwoParts& x, int exponent) {
  const auto part = [exponent](double each) {
    const int unit = kUnitExponent + shift(each) + exponent;
    return SignedFixed<W>{fixed_from<W>(significand(each), unit), is_negative(each)};
  };
  return (part(x.a) + part(x.b)).magnitude;
}

// The sign of exp(t) q - p, for p, q > 0 and q at most 1; 0 where W words do not show it.
template <int W>
KORVEX_COLD int compare_exp(double t, const TwoParts& q, const TwoParts& p) {
  const FixedExp<W> e = fixed_exp(fixed_magnitude<W>(t), is_negative(t));
  const Fixed<W> left = fixed_product(e.fixed, fixed_sum<W>(q, 0));
  const Fixed<W> right = fixed_sum<W>(p, -e.exponent);
  const SignedFixed<W> difference = signed_difference(left, right);
  // Fewer than W units from the product and one from each part, beside those of e.
  if (highest_bit(difference.magnitude) <= kFixedExpUncertainBits) {
    return 0;
  }
  return difference.is_negative ? -1 : 1;
}

// 230 bits, and 480 where they do not do. Values of these functions are irrational but at 0 and 1,
// where the result is no midpoint; of doubles the nearest that is known for exp and log has 118.
KORVEX_COLD inline int side_of_exp(double t, const TwoParts& q, const TwoParts& p) {
  const int side = compare_exp<5>(t, q, p);
  return side != 0 ? side : compare_exp<9>(t, q, p);
}

// The sign of f(x) - y, for y = RN(f(x)) that is a midpoint of a narrower format: not 0, and of at
// most 25 bits.
KORVEX_COLD inline int elementary_side(Elementary function, const AnyArgument& x, double y) {
  const TwoParts one{1.0, 0.0};
  switch (function) {
    case Elementary::kExp:
      return side_of_exp(x.nearest, one, {y, 0.0});
    case Elementary::kLog:
      return -side_of_exp(y, one, {x.nearest, x.rest});
    case Elementary::kSqrt: {
      // y^2 has at most 50 bits; the difference of n and y^2 is exact, and integer where rest is.
      const double difference = add_rn(fma_rn(-y, y, x.nearest), x.rest);
      return difference > 0 ? 1 : difference < 0 ? -1 : 0;
    }
    case Elementary::kSigmoid:
      return side_of_exp(x.nearest, {1.0, -y}, {y, 0.0});
    default: {
      const double magnitude = absolute(y);
      const int side = magnitude < kTanhLeast ? -1  // tanh(x) < x = y
                                              : side_of_exp(mul_rn(2.0, absolute(x.nearest)),
                                                            {1.0, -magnitude}, {1.0, magnitude});
      return y < 0 ? -side : side;
    }
  }
}

// RN(f(x)) for every x.
KORVEX_INLINE double elementary_nearest(Elementary function, const AnyArgument& x) {
  const bool is_double = x.rest == 0;
  switch (function) {
    case Elementary::kExp:
      return exponential(x.nearest);
    case Elementary::kLog:
      return is_double ? logarithm(x.nearest) : log_of_integer(x);
    case Elementary::kSqrt:
      return is_double ? square_root(x.nearest) : sqrt_of_integer(x);
    case Elementary::kSigmoid:
      return sigmoid(x.nearest);
    default:
      return hyperbolic_tangent(x.nearest);
  }
}

// f(x) rounded once to a narrower format, given y = RN(f(x)); a zero has the sign of y.
KORVEX_INLINE double elementary_rounded(Elementary function, const AnyArgument& x, double y,
                                        const NarrowFormat& format) {
  if (!is_finite(y) || y == 0) {
    return y;
  }
  const double above = round_to_format(round_to_odd(y, 1), format);
  const double below = round_to_format(round_to_odd(y, -1), format);
  double result = above;
  if (above != below) {
    result = round_to_format(round_to_odd(y, elementary_side(function, x, y)), format);
  }
  return is_negative(y) ? -absolute(result) : result;
}

}  // namespace korvex::arithmetic
