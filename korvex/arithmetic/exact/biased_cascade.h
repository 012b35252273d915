// SPDX-License-Identifier: Apache-2.0
// The sum of a short run of doubles on fixed grids: three additions an element and slice, exact or
// reported as not exact.
//
// A slice starts at bias = 1.5 * 2^k. While it stays in [2^k, 2^(k+1)), each addition to it rounds
// to the grid 2^(k-52), and the rounding error, at most half a grid step, goes on to the next
// slice, whose k is kSliceBits lower. So the slices hold the exact sum as integers in grid units,
// in any order of the elements: bits(slice) - bits(bias) counts the units. Two things are tested,
// over the whole run: that no partial sum of the first slice left its binade, and that nothing was
// left below the last slice. The binned sums of Demmel and Hida, Accurate and efficient floating
// point summation, 2003, and of Demmel and Nguyen, Fast reproducible floating-point summation,
// 2013, rest on the same step. The bounds are proved in docs/numerics.md.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"

namespace korvex::arithmetic {

// Additions to one slice of one lane, at most.
constexpr int kCascadeSteps = 128;
// 53 - 1 - log2(kCascadeSteps): so the slices after the first cannot leave their binade.
constexpr int kSliceBits = 45;
// Elements below 2^(e+1) in magnitude, kCascadeSteps of them, keep a slice of k = e + 9 inside.
constexpr int kBiasAboveExponent = 9;

// kBits: how far the bias of a slice lies below that of the slice before it.
template <class Lanes, int kSlices, int kStreams, int kBits = kSliceBits>
class BiasedCascade {
 public:
  static constexpr int kStep = Lanes::kCount * kStreams;  // elements of one call of feed

  // Precondition: kMinExponent <= bias_exponent - (kSlices - 1) * kBits, and at most
  // kCascadeSteps calls of feed follow.
  KORVEX_INLINE explicit BiasedCascade(int bias_exponent) { start<0>(bias_exponent); }

  // Adds x[0] to x[kStep - 1].
  KORVEX_INLINE void feed(const double* x) {
    Lanes::look_ahead(x);
    feed_stream<0>(x);
  }

  // True where count() tells the exact sum of all that was fed.
  KORVEX_INLINE bool is_exact() const {
    return (Lanes::any(moved_) >> kFractionBits) == 0 && (Lanes::any(lost_) << 1) == 0;
  }

  // What the slice holds, in units of 2^(bias_exponent - slice * kBits - 52).
  template <int kSlice>
  KORVEX_INLINE std::int64_t count() const {
    return count_stream<kSlice, 0>();
  }

 protected:
  using Value = typename Lanes::Value;
  using Bits = typename Lanes::Bits;

  template <int kSlice>
  KORVEX_INLINE void start(int bias_exponent) {
    bias_[kSlice] = Value(1.5 * power_of_two(bias_exponent - kSlice * kBits));
    for (int stream = 0; stream < kStreams; ++stream) {
      slice_[kSlice][stream] = bias_[kSlice];
    }
    if constexpr (kSlice + 1 < kSlices) {
      start<kSlice + 1>(bias_exponent);
    }
  }

  template <int kStream>
  KORVEX_INLINE void feed_stream(const double* x) {
    cascade<0, kStream>(Lanes::load(x + kStream * Lanes::kCount));
    if constexpr (kStream + 1 < kStreams) {
      feed_stream<kStream + 1>(x);
    }
  }

  template <int kSlice, int kStream>
  KORVEX_INLINE void cascade(Value x) {
    const Value before = slice_[kSlice][kStream];
    const Value after = add_rn(before, x);                   // rounded to the grid
    const Value residue = sub_rn(x, sub_rn(after, before));  // exact, both
    slice_[kSlice][kStream] = after;
    if constexpr (kSlice == 0) {
      moved_ |= to_bits(after) ^ to_bits(bias_[0]);
    }
    if constexpr (kSlice + 1 < kSlices) {
      cascade<kSlice + 1, kStream>(residue);
    } else {
      lost_ |= to_bits(residue);
    }
  }

  template <int kSlice, int kStream>
  KORVEX_INLINE std::int64_t count_stream() const {
    const std::int64_t own =
        Lanes::total(to_bits(slice_[kSlice][kStream]) - to_bits(bias_[kSlice]));
    if constexpr (kStream + 1 < kStreams) {
      return own + count_stream<kSlice, kStream + 1>();
    }
    return own;
  }

  Value bias_[kSlices];
  Value slice_[kSlices][kStreams];
  Bits moved_{};  // its exponent and sign bits are 0 while the first slices stay in their binade
  Bits lost_{};   // zero but for the sign bit while nothing is left below the last slices
};

}  // namespace korvex::arithmetic
