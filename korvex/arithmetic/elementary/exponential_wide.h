// SPDX-License-Identifier: Apache-2.0
// exp, and quotients, of fixed-point numbers of many words that lie where the caller puts them.
//
// The driver reserves the stack of a kernel for every thread that a device can hold, and the last
// tries of the elementary functions have several numbers of 17 or 24 words at a time. So here they
// lie in memory that one thread uses, and a call leaves its result in one of them. The steps are
// those of fixed_exp and fixed_quotient, which return their numbers: that reads better, and is for
// hosts and for a few words. The two leave the same words
// (tests/cpp/test_wide_numbers.cpp).
#pragma once

#include "korvex/arithmetic/bignum/fixed.h"
#include "korvex/arithmetic/elementary/exponential.h"

namespace korvex::arithmetic {

// Without a constructor, for memory of a block and for static memory.
template <int W>
struct WideExp {
  Fixed<W> argument;  // what exp is taken of, and what its reduction leaves of that
  Fixed<W> value;     // the result
  Fixed<W> term;
  Fixed<W> product;
};

template <int W>
KORVEX_COLD void set_integer(std::uint64_t value, Fixed<W>& a) {
  for (int i = 0; i < W - 1; ++i) {
    a.word[i] = 0;
  }
  a.word[W - 1] = value;
}

// |x|, rounded down. Precondition: it is below 2^62.
template <int W>
KORVEX_COLD void set_magnitude(double x, Fixed<W>& a) {
  const int exponent = kUnitExponent + shift(x);
  shift_down(Natural<1>{{significand(x)}}, -exponent - 64 * (W - 1), a);
}

// a * b, as fixed_product. The product is neither of them.
template <int W>
KORVEX_COLD void multiply_fixed(const Fixed<W>& a, const Fixed<W>& b, Fixed<W>& product) {
  multiply_columns(a.word, W, b.word, W, {W - 2, W - 1, 2 * W - 1}, product.word);
}

// a / b, as fixed_quotient; a is used up.
template <int W>
KORVEX_COLD void divide_fixed(Fixed<W>& a, const Fixed<W>& b, Fixed<W>& quotient) {
  set_integer(0, quotient);
  for (int bit = 64 * (W - 1); bit >= 0; --bit) {
    if (!(a < b)) {
      subtract(a, b, a);
      quotient.word[bit / 64] |= std::uint64_t{1} << (bit % 64);
    }
    shift_up(a, 1);
  }
}

// -argument = exponent * log 2 + r, 0 <= r < log 2: the argument becomes r.
template <int W>
KORVEX_COLD int reduce_negative(WideExp<W>& e) {
  Fixed<W>& ln2 = e.term;
  for (int i = 0; i < W; ++i) {
    ln2.word[i] = kLn2Digits[kLn2Words - W + i];
  }
  // The integer and first fraction word give the quotient or one too few.
  const double head =
      add_rn(static_cast<double>(e.argument.word[W - 1]),                          // off by 2^-44
             mul_rn(static_cast<double>(e.argument.word[W - 2] >> 11), 0x1p-53));  // exact
  auto k = static_cast<std::uint64_t>(mul_rn(head, 0x1.71547652b82fep+0));         // RN(1 / log 2)
  multiply(ln2, k, e.product);
  if (e.argument < e.product) {
    --k;
    multiply(ln2, k, e.product);
  }
  subtract(e.argument, e.product, e.argument);
  if (!(e.argument < ln2)) {
    subtract(e.argument, ln2, e.argument);
    ++k;
  }
  subtract(ln2, e.argument, e.argument);
  return -static_cast<int>(k) - 1;
}

// exp(argument) by its Taylor series for an argument below 2^-8.5, until the terms vanish.
template <int W>
KORVEX_COLD void sum_taylor(WideExp<W>& e) {
  set_integer(1, e.term);
  set_integer(1, e.value);
  for (std::uint32_t n = 1; !is_zero(e.term); ++n) {
    multiply_fixed(e.term, e.argument, e.product);
    e.term = e.product;
    divide(e.term, n);
    add(e.value, e.term, e.value);
  }
}

// exp(-argument) = value * 2^exponent with a value in [1, 2); the exponent comes back and is
// negative. Precondition: 0 <= argument < 746.
template <int W>
KORVEX_COLD int exp_of_negative(WideExp<W>& e) {
  const int exponent = reduce_negative(e);
  shift_down(e.argument, 8, e.argument);
  sum_taylor(e);
  for (int i = 0; i < 8; ++i) {
    multiply_fixed(e.value, e.value, e.product);
    e.value = e.product;
  }
  return exponent;
}

}  // namespace korvex::arithmetic
