// SPDX-License-Identifier: Apache-2.0
// The sum of a short run of doubles on fixed grids: three additions an element and slice, exact or
// reported as not exact.
//
// Each element goes to the first slice (slice.h), what that leaves to the second, whose grid is
// finer, and so on. Two things are tested, over the whole run: that no partial sum of the first
// slice left its binade, and that nothing was left below the last slice. Where all exponents lie in
// a window that the slices cover, neither can happen, and looking at them takes fewer steps. The
// bounds are proved in docs/numerics_sum.md.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/slice.h"

namespace korvex::arithmetic {

// Additions to one slice of one lane, at most.
constexpr int kCascadeSteps = 128;
// 53 - 1 - log2(kCascadeSteps): so the slices after the first cannot leave their binade.
constexpr int kSliceBits = 45;
// Elements below 2^(e+1) in magnitude, kCascadeSteps of them, keep a slice of k = e + 9 inside.
constexpr int kBiasAboveExponent = 9;

// The exponents that addends to the first slice may have in a window: those up to the one that the
// slice was chosen for, a power of two of them.
struct ExponentWindow {
  static constexpr int kLog2 = 5;
  static constexpr int kExponents = 1 << kLog2;
  static_assert(kExponents <= kSliceBits - kBiasAboveExponent + 1, "more than two slices cover");

  KORVEX_INLINE static int bottom(int top) { return top - kExponents + 1; }
  // Of the bits of all addends, each less those of 2^bottom: was one outside?
  KORVEX_INLINE static bool left(std::uint64_t seen) {
    return seen << 1 >> (kFractionBits + 1 + kLog2) != 0;
  }
};

// kBits: how far the bias of a slice lies below that of the slice before it. kInWindow: for addends
// in an ExponentWindow, zeros not among them, which two slices take in full.
template <class Lanes, int kSlices, int kStreams, int kBits = kSliceBits, bool kInWindow = false>
class BiasedCascade {
 public:
  static constexpr int kStep = Lanes::kCount * kStreams;  // elements of one call of feed

  // Precondition: kMinExponent <= bias_exponent - (kSlices - 1) * kBits, and at most
  // kCascadeSteps calls of feed follow.
  KORVEX_INLINE explicit BiasedCascade(int bias_exponent) { start<0>(bias_exponent); }
  KORVEX_INLINE BiasedCascade(int bias_exponent, int window_bottom) : BiasedCascade(bias_exponent) {
    static_assert(kInWindow);
    window_bottom_ = to_bits(Value(power_of_two(window_bottom)));
  }

  // Adds x[0] to x[kStep - 1].
  KORVEX_INLINE void feed(const double* x) {
    Lanes::look_ahead(x);
    feed_stream<0>(x);
  }

  // True where count() tells the exact sum of all that was fed.
  KORVEX_INLINE bool is_exact() const {
    if constexpr (kInWindow) {
      return !ExponentWindow::left(Lanes::any(moved_)) && !has_rest(Lanes::any(lost_));
    }
    return !moved_out(Lanes::any(moved_)) && !has_rest(Lanes::any(lost_));
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
    static_assert(kSlice < kSlices);
    bias_[kSlice] = Value(slice_bias(bias_exponent - kSlice * kBits));
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
    static_assert(kSlice < kSlices && kStream < kStreams);
    if constexpr (kInWindow && kSlice + 1 == kSlices) {
      slice_[kSlice][kStream] = add_rn(slice_[kSlice][kStream], x);  // exact
      return;
    }
    const Value rest = add_to_slice(slice_[kSlice][kStream], x);
    if constexpr (kSlice == 0 && kInWindow) {
      moved_ |= to_bits(x) - window_bottom_;
    } else if constexpr (kSlice == 0) {
      moved_ |= to_bits(slice_[0][kStream]) ^ to_bits(bias_[0]);
    }
    if constexpr (kSlice + 1 < kSlices) {
      cascade<kSlice + 1, kStream>(rest);
    } else {
      lost_ |= to_bits(rest);
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
  // Its exponent and sign bits are 0 while the first slices stay in their binade. In a window: its
  // bits above those of the window, but for the sign, are 0 while all elements are inside.
  Bits moved_{};
  Bits window_bottom_{};  // of kInWindow
  Bits lost_{};           // zero but for the sign bit while nothing is left below the last slices
};

}  // namespace korvex::arithmetic
