// SPDX-License-Identifier: Apache-2.0
// sigmoid and tanh in two parts, for threads that share the memory of their last try.
//
// The first tries are the fast phase and 256 bits, which decide every argument that is known. The
// last one takes as many bits as that of sigmoid() and hyperbolic_tangent(), so results are the
// same: what is decided with fewer bits is the rounding of the exact value.
#pragma once

#include "korvex/arithmetic/elementary/exponential_wide.h"
#include "korvex/arithmetic/elementary/logistic.h"

namespace korvex::arithmetic {

using LastLogistic = WideExp<17>;

// ---- sigmoid ----

KORVEX_INLINE Rounded first_sigmoid(double x) {
  const Rounded fast = fast_sigmoid(x);
  return fast.is_decided ? fast : accurate_sigmoid<5>(x);
}

// As accurate_sigmoid(x), with its numbers in memory.
template <int W>
KORVEX_COLD Rounded wide_sigmoid(double x, WideExp<W>& e) {
  set_magnitude(x, e.argument);
  const int exponent = exp_of_negative(e);
  Fixed<W>& denominator = e.argument;
  shift_down(e.value, -exponent, denominator);
  denominator.word[W - 1] += 1;  // to less than one
  const bool positive = !is_negative(x);
  if (positive) {
    set_integer(1, e.value);
  }
  divide_fixed(e.value, denominator, e.term);
  return rounded(e.term, positive ? 0 : exponent, kQuotientUncertainBits);
}

KORVEX_COLD inline double last_sigmoid(double x, LastLogistic& memory) {
  return wide_sigmoid(x, memory).value;
}

// ---- tanh ----

KORVEX_INLINE Rounded first_tanh(double x) {
  if (is_nan(x)) {
    return {canonical_nan(), true};
  }
  const double magnitude = absolute(x);
  Rounded tried = tanh_of_magnitude(magnitude);
  if (!tried.is_decided) {
    tried = accurate_tanh<5>(magnitude);
  }
  return {is_negative(x) ? -tried.value : tried.value, tried.is_decided};
}

// As accurate_tanh(x), with its numbers in memory.
template <int W>
KORVEX_COLD Rounded wide_tanh(double x, WideExp<W>& e) {
  set_magnitude(mul_rn(2.0, x), e.argument);
  const int exponent = exp_of_negative(e);
  Fixed<W>& denominator = e.argument;
  shift_down(e.value, -exponent, denominator);
  set_integer(1, e.value);
  subtract(e.value, denominator, e.value);
  denominator.word[W - 1] += 1;  // to less than one
  divide_fixed(e.value, denominator, e.term);
  return rounded(e.term, 0, kQuotientUncertainBits);
}

KORVEX_COLD inline double last_tanh(double x, LastLogistic& memory) {
  const double value = wide_tanh(absolute(x), memory).value;
  return is_negative(x) ? -value : value;
}

}  // namespace korvex::arithmetic
