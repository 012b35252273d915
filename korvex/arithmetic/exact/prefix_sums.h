// SPDX-License-Identifier: Apache-2.0
// Running sums: after each element the first two canonical limbs of the exact sum so far.
//
// While two doubles hold the sum exactly, three two_sums an element do. Otherwise the exact sum
// takes the element and a copy of it is rounded; when two doubles suffice again, so it goes on.
// What comes out is defined by the exact prefix alone, so a scan may start anywhere from the exact
// sum of what stands before.
#pragma once

#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/exact_sum.h"

namespace korvex::arithmetic {

class PrefixSum : public ExactSum {
 public:
  // Begins after elements whose exact sum this is.
  KORVEX_COLD void start(const ExactSum& before) {
    add(before);
    start();
  }
  // The same after what add() and add_digit() have added.
  KORVEX_INLINE void start() { is_two_limbs_ = false; }

  // The limbs of the sum through x. A sum that is infinite is followed by 0.
  KORVEX_INLINE ValueAndError next(double x) {
    if (is_two_limbs_) {
      const ValueAndError upper = two_sum(limbs_.limb[0], x);            // exact, as tested below
      const ValueAndError lower = two_sum(limbs_.limb[1], upper.error);  // exact likewise
      // An overflow leaves an infinity or a NaN, which is not below the limit.
      if (lower.error == 0 && is_below_limit(upper.value) && is_below_limit(lower.value)) {
        const ValueAndError limbs = two_sum(upper.value, lower.value);  // exact
        limbs_.limb[0] = limbs.value;
        limbs_.limb[1] = limbs.error;
        return {add_rn(limbs.value, 0.0), add_rn(limbs.error, 0.0)};  // -0 to +0
      }
    }
    return next_of_many_limbs(x);
  }

  // Whether the sum so far is limbs().value + limbs().error. A caller may then go on by itself, and
  // come back with the canonical limbs of what it has by then, both below kLimbLimit.
  KORVEX_INLINE bool is_two_limbs() const { return is_two_limbs_; }
  KORVEX_INLINE ValueAndError limbs() const { return {limbs_.limb[0], limbs_.limb[1]}; }
  KORVEX_INLINE void come_back(const ValueAndError& limbs) {
    limbs_.limb[0] = limbs.value;
    limbs_.limb[1] = limbs.error;
  }

  // out[i], out_err[i]: the limbs of the sum through x[i].
  KORVEX_HD void scan(const double* x, std::int64_t n, double* out, double* out_err) {
    for (std::int64_t i = 0; i < n; ++i) {
      const ValueAndError limbs = next(x[i]);
      out[i] = limbs.value;
      out_err[i] = limbs.error;
    }
  }

 private:
  KORVEX_INLINE static bool is_below_limit(double x) { return x < kLimbLimit && x > -kLimbLimit; }

  KORVEX_COLD ValueAndError next_of_many_limbs(double x) {
    is_two_limbs_ = false;
    add(x);
    double limbs[4];
    if (!is_sum_of_finite()) {
      round_special(limbs, 2);
      return {limbs[0], limbs[1]};
    }
    if (wide_open_) {
      return limbs_of_wide();
    }
    for (int i = 0; i < 4; ++i) {
      limbs[i] = limbs_.limb[i];
    }
    canonicalise(limbs, rest_);
    keep(limbs);
    return {limbs[0], limbs[1]};
  }

  KORVEX_COLD ValueAndError limbs_of_wide() {
    spill();
    double limbs[4];
    rest_ = wide_;
    rest_.round(limbs, 4);
    if (is_below_limit(limbs[0]) && rest_.is_zero()) {
      wide_open_ = false;
      keep(limbs);
      return {limbs[0], limbs[1]};
    }
    rest_ = wide_;
    rest_.round(limbs, 2);  // where two limbs overflow, four may not
    return {limbs[0], limbs[1]};
  }

  // Goes on with these limbs, which hold the sum exactly.
  KORVEX_INLINE void keep(const double* limbs) {
    for (int i = 0; i < 4; ++i) {
      limbs_.limb[i] = limbs[i];
    }
    is_two_limbs_ = limbs[2] == 0;
  }

  // True where the sum is limb[0] + limb[1], canonical, the other limbs being 0; nothing is in the
  // long accumulator then, and no infinity or NaN was seen.
  bool is_two_limbs_ = true;
  Long rest_;  // of a rounding; its content does not matter in between
};

}  // namespace korvex::arithmetic
