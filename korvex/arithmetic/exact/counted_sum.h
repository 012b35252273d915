// SPDX-License-Identifier: Apache-2.0
// Exact sums that count infinities and NaN apart instead of being ended by them, so that what was
// added can be taken away again; and terms for a ChunkedSum that feed such sums.
//
// Every finite term is added, whatever else is among the terms. A chunk with infinities or NaN is
// summed from a copy that has zeros in their place.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/biased_cascade.h"
#include "korvex/arithmetic/exact/chunked_sum.h"
#include "korvex/arithmetic/exact/exact_product_sum.h"
#include "korvex/arithmetic/exact/exact_sum.h"
#include "korvex/arithmetic/exact/products.h"

namespace korvex::arithmetic {

// How many terms of each kind a sum holds; below zero where more were taken away than added.
struct TermCounts {
  std::int64_t plus_infinities = 0;
  std::int64_t minus_infinities = 0;
  std::int64_t nans = 0;
  std::int64_t terms = 0;  // of every kind, finite ones included

  // Precondition: x is not finite. Counts it among the terms of its kind, but not in `terms`.
  KORVEX_COLD void note(double x) {
    ++(is_nan(x) ? nans : is_negative(x) ? minus_infinities : plus_infinities);
  }
  KORVEX_COLD void add(const TermCounts& other, int sign) {
    plus_infinities += sign * other.plus_infinities;
    minus_infinities += sign * other.minus_infinities;
    nans += sign * other.nans;
    terms += sign * other.terms;
  }
  KORVEX_HD bool is_finite() const {
    return plus_infinities == 0 && minus_infinities == 0 && nans == 0;
  }
  // What the sum is where is_finite() does not hold. Precondition: no count is below zero.
  KORVEX_HD double special() const {
    if (nans != 0 || (plus_infinities != 0 && minus_infinities != 0)) {
      return canonical_nan();
    }
    return minus_infinities != 0 ? -infinity() : infinity();
  }
};

// Base: ExactSum or ExactProductSum, which never gets to see an infinity or a NaN.
template <class Base>
class Counted : public Base {
 public:
  using Base::add;
  KORVEX_INLINE void add(double x) {
    if (is_finite(x)) {
      Base::add(x);
    } else {
      counts.note(x);
    }
  }
  KORVEX_INLINE void add_wide(double x) {
    if (is_finite(x)) {
      Base::add_wide(x);
    } else {
      counts.note(x);
    }
  }
  KORVEX_INLINE void add_product(double x, double y) {
    if (is_finite(x) && is_finite(y)) {
      Base::add_product(x, y);
    } else {
      counts.note(mul_rn(x, y));
    }
  }
  KORVEX_COLD void add_wide_product(double x, double y) {
    if (is_finite(x) && is_finite(y)) {
      Base::add_wide_product(x, y);
    } else {
      counts.note(mul_rn(x, y));
    }
  }
  // For a ChunkedSum, which is to go on after a term that is not finite.
  KORVEX_INLINE static constexpr bool is_sum_of_finite() { return true; }

  TermCounts counts;  // but for counts.terms, which is for the caller to keep
};

// A cascade fed from a source of doubles that is more than a pointer to them.
template <class Lanes, int kSlices, int kStreams, bool kInWindow>
class SourceCascade : public BiasedCascade<Lanes, kSlices, kStreams, kSliceBits, kInWindow> {
  using Base = BiasedCascade<Lanes, kSlices, kStreams, kSliceBits, kInWindow>;

 public:
  using Base::Base;

  template <class Source>
  KORVEX_INLINE void feed(const Source& source) {
    source.template look_ahead<Lanes>();
    feed_stream<0>(source);
  }

 private:
  template <int kStream, class Source>
  KORVEX_INLINE void feed_stream(const Source& source) {
    this->template cascade<0, kStream>(source.from(kStream * Lanes::kCount).template load<Lanes>());
    if constexpr (kStream + 1 < kStreams) {
      feed_stream<kStream + 1>(source);
    }
  }
};

// Doubles in memory, as a source.
//
// A source is an array of doubles that may be computed as they are read: source[i] is one, load()
// a register of them from the first on, from(i) the source from the i-th on.
struct DoublesInMemory {
  const double* x;

  KORVEX_INLINE double operator[](std::int64_t i) const { return x[i]; }
  KORVEX_INLINE DoublesInMemory from(std::int64_t i) const { return {x + i}; }
  template <class Lanes>
  KORVEX_INLINE typename Lanes::Value load() const {
    return Lanes::load(x);
  }
  template <class Lanes>
  KORVEX_INLINE void look_ahead() const {
    Lanes::look_ahead(x);
  }
};

// Chains of dependent additions run side by side, to hide the latency of one.
constexpr int kCountedStreams = 2;

// Of one chunk, with zeros for terms that are not finite. A chunk of a ChunkedSum has at most
// kCascadeSteps steps.
template <class Lanes>
struct FiniteCopy {
  static constexpr std::int64_t kMost =
      std::int64_t{Lanes::kCount} * kCountedStreams * kCascadeSteps;
  double x[kMost];
};

// Terms that come from a source. CountedSum: a Counted<> of either kind, so that products that are
// exact doubles are terms like others.
template <class Lanes, class Source, class CountedSum>
struct CountedTerms {
  using Sum = CountedSum;
  static constexpr int kBits = kSliceBits;
  static constexpr int kMinSlices = 2;
  static constexpr int kLeastInWindow = kMinExponent;
  template <class CascadeLanes, int kSlices, int kStreams, bool kInWindow>
  using Cascade = SourceCascade<CascadeLanes, kSlices, kStreams, kInWindow>;

  Source source;

  KORVEX_INLINE CountedTerms from(std::int64_t index) const { return {source.from(index)}; }

  template <class Cascade>
  KORVEX_INLINE bool run(Cascade& cascade, std::int64_t count) const {
    for (std::int64_t i = 0; i < count; i += Cascade::kStep) {
      cascade.feed(source.from(i));
    }
    return cascade.is_exact();
  }
  KORVEX_INLINE void add(std::int64_t count, Sum& sum) const {
    for (std::int64_t i = 0; i < count; ++i) {
      sum.add(source[i]);
    }
  }
  KORVEX_INLINE void add_wide(std::int64_t count, Sum& sum) const {
    for (std::int64_t i = 0; i < count; ++i) {
      sum.add_wide(source[i]);
    }
  }
  KORVEX_INLINE ExponentRange range(std::int64_t count) const {
    return ExponentRange::of(source, count);
  }
  template <class>
  KORVEX_INLINE typename Lanes::Value load() const {
    return source.template load<Lanes>();
  }
  // Counts the infinities and NaN among `count` terms, at most a chunk, and adds the other terms;
  // false, with nothing done, where there are none.
  KORVEX_COLD bool add_specials(std::int64_t count, Sum& sum) const {
    if (range(count).is_finite) {
      return false;
    }
    FiniteCopy<Lanes> finite;
    for (std::int64_t i = 0; i < count; ++i) {
      const double x = source[i];
      finite.x[i] = arithmetic::is_finite(x) ? x : 0.0;
      if (!arithmetic::is_finite(x)) {
        sum.counts.note(x);
      }
    }
    using Terms = CountedTerms<Lanes, DoublesInMemory, CountedSum>;
    ChunkedSum<Lanes, kCountedStreams, Terms>(sum).add({{finite.x}}, count);
    return true;
  }
  KORVEX_INLINE static int usual_bottom(int top) { return top; }
};

// Terms that are products of any doubles.
template <class Lanes>
struct CountedProducts : Products {
  using Sum = Counted<ExactProductSum>;

  KORVEX_INLINE CountedProducts(const double* x_factors, const double* y_factors)
      : Products{x_factors, y_factors} {}
  KORVEX_INLINE CountedProducts from(std::int64_t index) const { return {x + index, y + index}; }
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
  // As in CountedTerms. A product with a factor that is not finite becomes one of zeros.
  KORVEX_COLD bool add_specials(std::int64_t count, Sum& sum) const {
    if (ExponentRange::of(x, count).is_finite && ExponentRange::of(y, count).is_finite) {
      return false;
    }
    FiniteCopy<Lanes> x_finite;
    FiniteCopy<Lanes> y_finite;
    for (std::int64_t i = 0; i < count; ++i) {
      const bool is_special = !arithmetic::is_finite(x[i]) || !arithmetic::is_finite(y[i]);
      x_finite.x[i] = is_special ? 0.0 : x[i];
      y_finite.x[i] = is_special ? 0.0 : y[i];
      if (is_special) {
        sum.counts.note(mul_rn(x[i], y[i]));
      }
    }
    ChunkedSum<Lanes, kCountedStreams, CountedProducts>(sum).add({x_finite.x, y_finite.x}, count);
    return true;
  }
};

}  // namespace korvex::arithmetic
