// SPDX-License-Identifier: Apache-2.0
// Products of pairs as the terms of a ChunkedSum: each is split into its rounded value and its
// rounding error, and both go through the slices of one biased cascade.
//
// The error of a product begins at the second slice: it is too small for the first. Later slices
// thus take two addends a step, so they lie one bit closer than those of a plain sum. Where a
// product may be too small for an exact error, the pairs of the chunk are looked at again.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/biased_cascade.h"
#include "korvex/arithmetic/exact/chunked_sum.h"
#include "korvex/arithmetic/exact/exact_product_sum.h"

namespace korvex::arithmetic {

// 53 - 1 - log2(2 * kCascadeSteps): so the slices after the first cannot leave their binade.
constexpr int kProductSliceBits = 44;

// kInWindow: for rounded products in an ExponentWindow, none too small for an exact error.
template <class Lanes, int kSlices, int kStreams, bool kInWindow>
class ProductCascade
    : public BiasedCascade<Lanes, kSlices, kStreams, kProductSliceBits, kInWindow> {
  using Base = BiasedCascade<Lanes, kSlices, kStreams, kProductSliceBits, kInWindow>;
  using Value = typename Base::Value;

 public:
  using Base::Base;

  // Adds x[i] * y[i] for i = 0 to kStep - 1.
  KORVEX_INLINE void feed(const double* x, const double* y) {
    Lanes::look_ahead(x);
    Lanes::look_ahead(y);
    feed_stream<0>(x, y);
  }

  // True where some product was so small that its error may be inexact; zeros are among them.
  KORVEX_INLINE bool saw_small() const { return Lanes::any(small_) != 0; }

 private:
  template <int kStream>
  KORVEX_INLINE void feed_stream(const double* x_step, const double* y_step) {
    const Value x = Lanes::load(x_step + kStream * Lanes::kCount);
    const Value y = Lanes::load(y_step + kStream * Lanes::kCount);
    const Value product = mul_rn(x, y);                // rounded
    const Value error = product_error(x, y, product);  // exact unless small_ is set
    if constexpr (kInWindow) {
      take_in_window<kStream>(product, error);
    } else {
      small_ |= Lanes::is_below(product, kLeastSplitProduct);
      this->template cascade<0, kStream>(product);
      this->template cascade<1, kStream>(error);
    }
    if constexpr (kStream + 1 < kStreams) {
      feed_stream<kStream + 1>(x_step, y_step);
    }
  }

  // What the second slice leaves of product and error are so near that their sum is exact.
  template <int kStream>
  KORVEX_INLINE void take_in_window(Value product, Value error) {
    static_assert(kSlices == 3);
    this->moved_ |= to_bits(product) - this->window_bottom_;
    Value& second = this->slice_[1][kStream];
    const Value rest = add_to_slice(this->slice_[0][kStream], product);
    const Value rest_of_rest = add_to_slice(second, rest);
    const Value addend = add_rn(rest_of_rest, add_to_slice(second, error));  // exact
    this->lost_ |= to_bits(add_to_slice(this->slice_[2][kStream], addend));
  }

  typename Base::Bits small_{};  // of products below kLeastSplitProduct
};

// Terms that are products of two arrays, element by element.
struct Products {
  using Sum = ExactProductSum;
  static constexpr int kBits = kProductSliceBits;
  static constexpr int kMinSlices = 3;
  static constexpr int kLeastInWindow = kLeastSplitExponent + 1;
  template <class Lanes, int kSlices, int kStreams, bool kInWindow>
  using Cascade = ProductCascade<Lanes, kSlices, kStreams, kInWindow>;

  const double* x;
  const double* y;

  KORVEX_INLINE Products from(std::int64_t index) const { return {x + index, y + index}; }

  template <class Cascade>
  KORVEX_INLINE bool run(Cascade& cascade, std::int64_t count) const {
    for (std::int64_t i = 0; i < count; i += Cascade::kStep) {
      cascade.feed(x + i, y + i);
    }
    return cascade.is_exact() && !(cascade.saw_small() && has_small_product(count));
  }
  KORVEX_INLINE void add(std::int64_t count, Sum& sum) const {
    for (std::int64_t i = 0; i < count; ++i) {
      sum.add_product(x[i], y[i]);
    }
  }
  KORVEX_INLINE void add_wide(std::int64_t count, Sum& sum) const {
    for (std::int64_t i = 0; i < count; ++i) {
      sum.add_wide_product(x[i], y[i]);
    }
  }

  template <class Lanes>
  KORVEX_INLINE typename Lanes::Value load() const {
    return mul_rn(Lanes::load(x), Lanes::load(y));
  }
  KORVEX_COLD bool add_specials(std::int64_t count, Sum& sum) const {
    for (std::int64_t i = 0; i < count; ++i) {
      if (!is_finite(x[i]) || !is_finite(y[i])) {
        sum.add_wide_product(x[i], y[i]);
      }
    }
    return !sum.is_sum_of_finite();
  }

  // A product of factors with exponents e and f lies below 2^(e + f + 2), and its last bit at or
  // above 2^(e + f - 104), which is the grid of a slice of bias exponent e + f - 52.
  KORVEX_COLD ExponentRange range(std::int64_t count) const {
    int highest = 2 * kMinExponent;
    int lowest = 2 * kExponentBias;
    bool is_finite = true;
    for (std::int64_t i = 0; i < count; ++i) {
      const std::uint64_t x_magnitude = magnitude_bits(x[i]);
      const std::uint64_t y_magnitude = magnitude_bits(y[i]);
      is_finite = is_finite && x_magnitude < kInfinityBits && y_magnitude < kInfinityBits;
      if (x_magnitude != 0 && y_magnitude != 0) {
        const int exponent =
            ExponentRange::exponent_of(x_magnitude) + ExponentRange::exponent_of(y_magnitude);
        highest = exponent > highest ? exponent : highest;
        lowest = exponent < lowest ? exponent : lowest;
      }
    }
    if (highest < lowest) {
      return {0, 0, is_finite};  // all products are zero
    }
    return {highest + 1, lowest - kFractionBits, is_finite && lowest >= kLeastSplitExponent};
  }
  KORVEX_INLINE static int usual_bottom(int top) {
    return top + kBiasAboveExponent - (kMinSlices - 1) * kBits;
  }

 private:
  KORVEX_COLD bool has_small_product(std::int64_t count) const {
    std::uint64_t found = 0;  // no branches, so that compilers may take several pairs at a time
    for (std::int64_t i = 0; i < count; ++i) {
      const double product = mul_rn(x[i], y[i]);
      const std::uint64_t is_below = product < kLeastSplitProduct ? 1 : 0;
      const std::uint64_t is_above = product > -kLeastSplitProduct ? 1 : 0;
      const std::uint64_t x_is_zero = x[i] == 0 ? 1 : 0;
      const std::uint64_t y_is_zero = y[i] == 0 ? 1 : 0;
      found |= is_below & is_above & ~(x_is_zero | y_is_zero);
    }
    return found != 0;
  }
};

}  // namespace korvex::arithmetic
