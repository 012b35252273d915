// SPDX-License-Identifier: Apache-2.0
// One element of a matrix product: the three canonical limbs of the exact sum of a[k] * b[k].
//
// Phases: the exponents of the row and of the column, known before, tell where slices on fixed
// grids must lie so that none can overflow; 128 products at a time go through three of them without
// a test, and their grid units are counted. Where anything was left below the last slice, six
// slices are tried; where that happens again, or where the exponents do not suit (an infinity,
// products that underflow), each product goes into a long accumulator. So an element with wide
// exponents slows down no other, and the result does not depend on the way that was taken. The
// proofs stand in docs/numerics_products.md.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/lanes.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/biased_cascade.h"
#include "korvex/arithmetic/exact/canonical.h"
#include "korvex/arithmetic/exact/exact_product_sum.h"
#include "korvex/arithmetic/exact/products.h"
#include "korvex/arithmetic/exact/slice.h"

namespace korvex::arithmetic {

constexpr int kElementLimbs = 3;
constexpr int kFewSlices = 3;
constexpr int kManySlices = 6;
// Products whose grid units stay below 2^62 when counted; longer sums take the other way.
constexpr std::int64_t kLongestElement = std::int64_t{1} << 17;

// The exponents among the elements of one row or one column that are not 0; {0, 0, true} for none.
struct FactorRange {
  int highest = 0;
  int lowest = 0;
  bool is_finite = true;
};

// Collects one range; a row is read as it lies, a column with its stride.
class FactorRangeOf {
 public:
  KORVEX_INLINE void note(double x) {
    const std::uint64_t magnitude = magnitude_bits(x);
    largest_ = magnitude > largest_ ? magnitude : largest_;
    // As an unsigned number zero less one is the last.
    smallest_less_one_ = magnitude - 1 < smallest_less_one_ ? magnitude - 1 : smallest_less_one_;
  }
  // Takes in what another has collected.
  KORVEX_INLINE void add(const FactorRangeOf& other) {
    largest_ = other.largest_ > largest_ ? other.largest_ : largest_;
    smallest_less_one_ = other.smallest_less_one_ < smallest_less_one_ ? other.smallest_less_one_
                                                                       : smallest_less_one_;
  }
  KORVEX_INLINE FactorRange range() const {
    if (largest_ == 0) {
      return {};
    }
    return {ExponentRange::exponent_of(largest_),
            ExponentRange::exponent_of(smallest_less_one_ + 1), largest_ < kInfinityBits};
  }

 private:
  std::uint64_t largest_ = 0;
  std::uint64_t smallest_less_one_ = ~std::uint64_t{0};
};

// Where the slices of an element lie, from the exponents of its row and its column.
struct ElementPlan {
  int bias_exponent;  // of the first slice
  bool has_exact_errors;

  // Products lie below 2^(exponents of both + 2), and 128 of them below 2^(exponents of both + 9):
  // within half a binade of a bias of one more.
  KORVEX_INLINE static ElementPlan of(const FactorRange& row, const FactorRange& column) {
    return {row.highest + column.highest + 1 + kBiasAboveExponent,
            row.is_finite && column.is_finite && row.lowest + column.lowest >= kLeastSplitExponent};
  }

  // Whether so many slices cannot overflow and have grids that are doubles.
  KORVEX_INLINE bool suits(int slices) const {
    return has_exact_errors && bias_exponent <= kHighestBias &&
           bias_exponent - (slices - 1) * kProductSliceBits >= kMinExponent;
  }

 private:
  static constexpr int kHighestBias = ExactSum::kHighestScale + kFractionBits;
};

// The slices of one element in each lane, for at most kCascadeSteps products.
template <class Lanes, int kSlices>
class ElementSlices {
 public:
  using Value = typename Lanes::Value;
  using Bits = typename Lanes::Bits;

  // bias: slice_bias(bias_exponent) of each lane's plan.
  KORVEX_INLINE explicit ElementSlices(Value bias) { start<0>(bias); }

  KORVEX_INLINE void add_product(Value a, Value b) {
    const Value product = mul_rn(a, b);                // rounded
    const Value error = product_error(a, b, product);  // exact under a plan that suits
    cascade<0>(product);
    cascade<1>(error);
  }

  // Grid units of a slice; its grid is 2^(bias_exponent - slice * kProductSliceBits - 52).
  template <int kSlice>
  KORVEX_INLINE Bits count() const {
    return to_bits(slice_[kSlice]) - to_bits(bias_[kSlice]);
  }
  // Zero but for the sign bit in lanes where nothing was left below the last slice.
  KORVEX_INLINE Bits lost() const { return lost_; }

 private:
  template <int kSlice>
  KORVEX_INLINE void start(Value bias) {
    static_assert(kSlice < kSlices);
    bias_[kSlice] = bias;
    slice_[kSlice] = bias;
    if constexpr (kSlice + 1 < kSlices) {
      start<kSlice + 1>(mul_rn(bias, Value(power_of_two(-kProductSliceBits))));  // exact
    }
  }

  template <int kSlice>
  KORVEX_INLINE void cascade(Value addend) {
    static_assert(kSlice < kSlices);
    const Value rest = add_to_slice(slice_[kSlice], addend);
    if constexpr (kSlice + 1 < kSlices) {
      cascade<kSlice + 1>(rest);
    } else {
      lost_ |= to_bits(rest);
    }
  }

  Value bias_[kSlices];
  Value slice_[kSlices];
  Bits lost_{};
};

// Grid units of an element's slices, each at most 2^61 in magnitude; zero where there is no slice.
struct ElementCounts {
  std::int64_t count[kManySlices] = {};

  template <int kSlices>
  KORVEX_INLINE void round(int bias_exponent, double* limbs) const {
    if (kSlices != kFewSlices || !try_round_few(bias_exponent, limbs)) {
      ExactSum sum;
      round_by(sum, kSlices, bias_exponent, limbs);
    }
  }

  // Any number of slices, by way of a sum to which nothing was added yet.
  template <class Sum>
  KORVEX_COLD void round_by(Sum& sum, int slices, int bias_exponent, double* limbs) const {
    for (int slice = 0; slice < slices; ++slice) {
      sum.add_scaled(count[slice], bias_exponent - slice * kProductSliceBits - kFractionBits);
    }
    sum.template round<kElementLimbs>(limbs);
  }

  // Writes the canonical limbs of three slices: their units are carried into four balanced digits
  // of kProductSliceBits each, which are doubles. False where those do not settle soon.
  KORVEX_COLD bool try_round_few(int bias_exponent, double* limbs) const {
    const std::int64_t carry2 = nearest_digit_above(count[2]);
    const std::int64_t count1 = count[1] + carry2;
    const std::int64_t carry1 = nearest_digit_above(count1);
    const std::int64_t count0 = count[0] + carry1;
    const std::int64_t carry0 = nearest_digit_above(count0);
    const int unit = bias_exponent - kFractionBits;
    double four[4] = {scaled(carry0, unit + kProductSliceBits),
                      scaled(count0 - carry0 * kRadix, unit),
                      scaled(count1 - carry1 * kRadix, unit - kProductSliceBits),
                      scaled(count[2] - carry2 * kRadix, unit - 2 * kProductSliceBits)};
    if (!canonicalise_fast(four)) {
      return false;
    }
    for (int i = 0; i < kElementLimbs; ++i) {
      limbs[i] = four[i];
    }
    return true;
  }

 private:
  static constexpr std::int64_t kRadix = std::int64_t{1} << kProductSliceBits;

  // count / kRadix, rounded to an integer.
  KORVEX_INLINE static std::int64_t nearest_digit_above(std::int64_t count) {
    return (count + kRadix / 2) >> kProductSliceBits;
  }
  // Exact: a digit is at most 2^43 in magnitude, what is carried out of all of them 2^19.
  KORVEX_INLINE static double scaled(std::int64_t digit, int exponent) {
    return mul_rn(static_cast<double>(digit), power_of_two(exponent));
  }
};

// Adds what one lane's slices hold. Lanes whose plan does not suit hold anything, so the addition
// may wrap there; their counts are not read.
template <int kSlice, class Lanes, int kSlices>
KORVEX_INLINE void keep_counts(const ElementSlices<Lanes, kSlices>& slices, int index,
                               ElementCounts& counts) {
  static_assert(kSlice < kSlices);
  const auto before = static_cast<std::uint64_t>(counts.count[kSlice]);
  const std::uint64_t units = lane(slices.template count<kSlice>(), index);
  counts.count[kSlice] = static_cast<std::int64_t>(before + units);
  if constexpr (kSlice + 1 < kSlices) {
    keep_counts<kSlice + 1>(slices, index, counts);
  }
}

// An element on its way: a row of a against a column of b with a stride between its elements.
struct ElementTerms {
  const double* a;
  const double* b;
  std::int64_t stride;
  std::int64_t count;
};

// The way that suits every element: each product into a sum to which nothing was added yet.
KORVEX_COLD inline void sum_element(const ElementTerms& terms, ExactProductSum& sum,
                                    double* limbs) {
  for (std::int64_t k = 0; k < terms.count && !sum.is_decided(); ++k) {
    sum.add_wide_product(terms.a[k], terms.b[k * terms.stride]);
  }
  sum.round<kElementLimbs>(limbs);
}

// What slices have found of one element. Small: a device keeps one for each thread.
class ElementOfSlices {
 public:
  // True where the limbs are written; else finish() has to be called.
  KORVEX_COLD bool try_slices(const ElementTerms& terms, const ElementPlan& plan, double* limbs) {
    plan_ = plan;
    slices_ = 0;
    if (terms.count > kLongestElement) {
      return false;
    }
    if (run<kFewSlices>(terms)) {
      slices_ = kFewSlices;
      return counts_.try_round_few(plan.bias_exponent, limbs);
    }
    slices_ = run<kManySlices>(terms) ? kManySlices : 0;
    return false;
  }

  // Writes the limbs by way of a sum to which nothing was added yet.
  KORVEX_COLD void finish(const ElementTerms& terms, ExactProductSum& sum, double* limbs) const {
    if (slices_ != 0) {
      counts_.round_by(sum, slices_, plan_.bias_exponent, limbs);
    } else {
      sum_element(terms, sum, limbs);
    }
  }

 private:
  // False where so many slices cannot hold the sum; counts_ means nothing then.
  template <int kSlices>
  KORVEX_COLD bool run(const ElementTerms& terms) {
    if (!plan_.suits(kSlices)) {
      return false;
    }
    counts_ = ElementCounts();
    const double bias = slice_bias(plan_.bias_exponent);
    std::uint64_t lost = 0;
    for (std::int64_t begin = 0; begin < terms.count; begin += kCascadeSteps) {
      const std::int64_t rest = terms.count - begin;
      const std::int64_t end = begin + (rest < kCascadeSteps ? rest : kCascadeSteps);
      ElementSlices<ScalarLanes, kSlices> slices(bias);
      for (std::int64_t k = begin; k < end; ++k) {
        slices.add_product(terms.a[k], terms.b[k * terms.stride]);
      }
      keep_counts<0>(slices, 0, counts_);
      lost |= slices.lost();
    }
    return !has_rest(lost);
  }

  ElementPlan plan_{};
  int slices_ = 0;  // that hold the sum; 0: none do
  ElementCounts counts_;
};

// limbs[0] to limbs[2] of the sum of a[k] * b[k * stride], k = 0 to k_count - 1.
inline void matrix_element(const double* a, const double* b, std::int64_t stride,
                           std::int64_t k_count, double* limbs) {
  FactorRangeOf row;
  FactorRangeOf column;
  for (std::int64_t k = 0; k < k_count; ++k) {
    row.note(a[k]);
    column.note(b[k * stride]);
  }
  const ElementTerms terms{a, b, stride, k_count};
  ElementOfSlices element;
  if (!element.try_slices(terms, ElementPlan::of(row.range(), column.range()), limbs)) {
    ExactProductSum sum;
    element.finish(terms, sum, limbs);
  }
}

}  // namespace korvex::arithmetic
