// SPDX-License-Identifier: Apache-2.0
// The state of an exact sum as an array of 64-bit integers: digits and counts, so that two states
// merge by adding word to word, in any order and on any machine.
//
// Three kinds: a sum of elements, a sum of products, and moments, which hold the sum of the
// elements and the sum of their squares. Words of a state, in this order: the digits of the sum
// (not for products), the digits of the products (not for sums), then the counts of +infinity,
// -infinity, NaN, and of all terms; of moments, they count elements.
//
// A state that was stored has settled digits: in [0, 2^32) but the top one of each number, which
// has its sign. So the words of 2^31 - 1 stored states can be added up before one must load them.
#pragma once

#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/bignum/long_accumulator.h"
#include "korvex/arithmetic/exact/counted_sum.h"
#include "korvex/arithmetic/exact/narrow_rounding.h"

namespace korvex::arithmetic {

enum class StateKind { kSum, kDot, kMoments };

KORVEX_HD constexpr bool has_sum(StateKind kind) { return kind != StateKind::kDot; }
KORVEX_HD constexpr bool has_products(StateKind kind) { return kind != StateKind::kSum; }

constexpr int kCountWords = 4;

KORVEX_HD constexpr int state_words(StateKind kind) {
  return (has_sum(kind) ? LongAccumulator::kDigits : 0) +
         (has_products(kind) ? ProductAccumulator::kDigits : 0) + kCountWords;
}

class ExactState {
 public:
  KORVEX_COLD explicit ExactState(StateKind kind) : kind_(kind) {
    sum_.clear();
    products_.clear();
  }

  // Takes over the words of a state, or the sums of those of up to 2^31 - 1 states. False, with
  // the value undefined, where they are none.
  KORVEX_COLD bool load(const std::int64_t* words) {
    if (has_sum(kind_)) {
      if (!sum_.load(words)) {
        return false;
      }
      words += LongAccumulator::kDigits;
    }
    if (has_products(kind_)) {
      if (!products_.load(words)) {
        return false;
      }
      words += ProductAccumulator::kDigits;
    }
    counts_ = {words[0], words[1], words[2], words[3]};
    return true;
  }

  KORVEX_COLD void store(std::int64_t* words) {
    if (has_sum(kind_)) {
      sum_.store(words);
      words += LongAccumulator::kDigits;
    }
    if (has_products(kind_)) {
      products_.store(words);
      words += ProductAccumulator::kDigits;
    }
    words[0] = counts_.plus_infinities;
    words[1] = counts_.minus_infinities;
    words[2] = counts_.nans;
    words[3] = counts_.terms;
  }

  // Adds another state of the same kind, or takes it away where sign is -1.
  KORVEX_COLD void add(const ExactState& other, int sign) {
    if (sign > 0) {
      sum_.add(other.sum_);
      products_.add(other.products_);
    } else {
      sum_.subtract(other.sum_);
      products_.subtract(other.products_);
    }
    counts_.add(other.counts_, sign);
  }

  // Add what a loop over terms has found; counts.terms, too, is taken from the argument.
  KORVEX_COLD void add(const ExactSum& sum) { sum.add_to(sum_); }
  KORVEX_COLD void add(const ExactProductSum& products) { products.add_to(products_); }
  KORVEX_COLD void add(const TermCounts& counts) { counts_.add(counts, 1); }

  // Writes the first limb_count canonical limbs, 1 to 4 of them, of the sum or of the products.
  // Where the value is not finite, the first is NaN or the infinity and the others are +0. Squares
  // are never negative, so of moments either infinity is +infinity among the products.
  // Precondition: no count is below zero. Ends the use of this object.
  KORVEX_COLD void round(bool of_products, int limb_count, double* limbs) {
    if (write_special(of_products, limb_count, limbs)) {
      return;
    }
    if (of_products) {
      products_.round(limbs, limb_count);
    } else {
      sum_.round(limbs, limb_count);
    }
  }

  // The value rounded once to a narrow format. Conditions as of round().
  KORVEX_COLD double round_to(const NarrowFormat& format, bool of_products) {
    double limb;
    round(of_products, 1, &limb);
    if (!is_finite(limb)) {
      return limb;
    }
    const int sign_of_rest = of_products ? products_.sign() : sum_.sign();
    return round_to_format(round_to_odd(limb, sign_of_rest), format);
  }

 private:
  KORVEX_COLD bool write_special(bool of_products, int limb_count, double* limbs) const {
    if (counts_.is_finite()) {
      return false;
    }
    TermCounts counts = counts_;
    if (of_products && kind_ == StateKind::kMoments) {
      counts.plus_infinities += counts.minus_infinities;
      counts.minus_infinities = 0;
    }
    limbs[0] = counts.special();
    for (int i = 1; i < limb_count; ++i) {
      limbs[i] = 0.0;
    }
    return true;
  }

  StateKind kind_;
  LongAccumulator sum_;          // of the elements; zero where the kind has no sum
  ProductAccumulator products_;  // zero where the kind has no products
  TermCounts counts_;
};

}  // namespace korvex::arithmetic
